// The bridge's command side: decodes one bridge command against the
// simulated mainframe and builds the answer.
//
// Locking: one mutex (`m`) guards the mainframe, the lock owner, the faults
// and the queue of interrupts waiting to go out.  Word Serial commands that
// wait for an instrument release it while they wait.  Interrupt reports are
// sent with `deliver` held (taken before `m`), so that once the server has
// reported the last session gone (hostDisconnected) no report is in flight
// or starts from the background thread.
#include <algorithm>
#include <condition_variable>
#include <cstring>
#include <deque>
#include <mutex>
#include <set>
#include <stdexcept>
#include <thread>

#include "../bridge.h"
#include "mainframe.h"
#include "wordserial.h"

namespace bridgesim {

namespace {

// Command codes.
enum : uint32_t {
  kCmdLock = 1,
  kCmdReset = 2,
  kCmdSysState = 3,
  kCmdRead = 4,
  kCmdWrite = 5,
  kCmdWriteNoStatus = 6,
  kCmdBlockRead = 7,
  kCmdBlockWrite = 8,
  kCmdWsRead = 12,
  kCmdWsWrite = 13,
  kCmdWsCmdResp = 14,
  kCmdWsWaitResp = 15,
  kCmdResmanText = 16,
  kCmdTestIrq = 17,
};

// Command word bits.
constexpr uint32_t kNonPrivileged = 1u << 16, kProgram = 1u << 17, kBlockMode = 1u << 26;
constexpr uint32_t kA16 = 0x00040000, kA24 = 0x00080000, kA32 = 0x00100000, kSpaceMask = 0x001C0000;
constexpr uint32_t kD08 = 0x00400000, kD16 = 0x00800000, kD32 = 0x01000000, kWidthMask = 0x01C00000;
constexpr uint32_t kIncrement = 0x08000000;
constexpr uint32_t kWsStopAtEos = 0x01000000;
constexpr uint32_t kWsSendEnd = 0x02000000;
constexpr uint32_t kWsSend16 = 0x04000000, kWsSend32 = 0x08000000, kWsRead16 = 0x10000000,
                   kWsRead32 = 0x20000000;

constexpr size_t kMaxBlockBytes = 65520;  // one block chunk: answers stay below 65536 bytes
constexpr uint32_t kMaxWsBytes = 256;     // message bytes per Word Serial read or write
// A Word Serial command waits for its instrument at most this long, and
// answers a little before the host's own wait (the same time-out) runs out,
// so that the host sees "not ready" rather than losing the answer.
constexpr uint32_t kMaxWsWaitMs = 10000;
constexpr size_t kMaxPairsPerReport = 32;

uint32_t le32(const uint8_t* p) { return uint32_t(p[0]) | uint32_t(p[1]) << 8 | uint32_t(p[2]) << 16 | uint32_t(p[3]) << 24; }

void put32(std::vector<uint8_t>& v, uint32_t x) {
  size_t n = v.size();
  v.resize(n + 4);
  v[n] = uint8_t(x);
  v[n + 1] = uint8_t(x >> 8);
  v[n + 2] = uint8_t(x >> 16);
  v[n + 3] = uint8_t(x >> 24);
}

std::vector<uint8_t> words(std::initializer_list<uint32_t> w) {
  std::vector<uint8_t> v;
  v.reserve(w.size() * 4);
  for (uint32_t x : w) put32(v, x);
  return v;
}

// The answer of a command that failed before doing anything, in the shape
// its record has.
std::vector<uint8_t> failure(uint32_t code, int32_t st) {
  uint32_t s = static_cast<uint32_t>(st);
  switch (code) {
    case kCmdSysState:
    case kCmdRead:
    case kCmdBlockWrite:
    case kCmdWsRead:
    case kCmdWsWrite:
    case kCmdWsCmdResp: return words({s, 0});
    case kCmdBlockRead: return words({s, 0, s});
    default: return words({s});
  }
}

bool matchesCode(int faultCode, uint32_t code) { return faultCode == -1 || (faultCode > 0 && uint32_t(faultCode) == code); }

}  // namespace

struct Bridge::Impl {
  Mainframe mf;
  mutable std::mutex m;
  std::condition_variable changed;  // any command ran (waiting Word Serial commands look again)
  CommandFaults faults;

  // The bridge belongs to the host (address) that locked it first, until
  // every connection of that host that locked it is gone.
  bool owned = false;
  uint32_t ownerIp = 0;
  std::set<uint64_t> ownerConns;

  std::set<uint64_t> live;  // connections seen and not yet disconnected
  std::deque<Interrupt> pending;

  std::mutex deliver;
  std::function<void(const std::vector<uint8_t>&)>* broadcast = nullptr;

  std::thread worker;
  std::condition_variable wake;
  bool stopping = false;
  bool workerRunning = false;

  ~Impl() {
    {
      std::lock_guard<std::mutex> g(m);
      stopping = true;
    }
    wake.notify_all();
    if (worker.joinable()) worker.join();
  }

  // With m held: the next time at which an instrument changes by itself.
  std::optional<Clock::time_point> nextChange() {
    std::optional<Clock::time_point> t;
    for (size_t i = 0; i < mf.deviceCount(); ++i)
      if (MessageEngine* e = mf.device(i).engine())
        if (auto c = e->nextChange(); c && (!t || *c < *t)) t = c;
    return t;
  }

  void advanceAll(Clock::time_point now) {
    std::vector<Interrupt> irqs;
    for (size_t i = 0; i < mf.deviceCount(); ++i)
      if (MessageEngine* e = mf.device(i).engine()) e->advance(now, &irqs);
    pending.insert(pending.end(), irqs.begin(), irqs.end());
  }

  // With m held, after a command: start the timer thread when an instrument
  // will change by itself later, and let waiting commands look again.
  void afterCommand() {
    if (!workerRunning && nextChange()) {
      workerRunning = true;
      worker = std::thread([this] { timerLoop(); });
    }
    wake.notify_all();
    changed.notify_all();
  }

  // Sends queued interrupt reports.  Called without m.
  void flush(bool fromTimer) {
    std::lock_guard<std::mutex> d(deliver);
    std::vector<std::vector<uint8_t>> reports;
    {
      std::lock_guard<std::mutex> g(m);
      if (fromTimer && live.empty()) return;  // no session left: the server may be going away
      while (!pending.empty()) {
        size_t n = std::min(pending.size(), kMaxPairsPerReport);
        std::vector<uint8_t> body;
        put32(body, 1);
        put32(body, static_cast<uint32_t>(n));
        for (size_t i = 0; i < n; ++i) {
          put32(body, pending.front().line);
          put32(body, pending.front().statId);
          pending.pop_front();
        }
        reports.push_back(std::move(body));
      }
    }
    if (broadcast && *broadcast)
      for (auto& r : reports) (*broadcast)(r);
  }

  void timerLoop() {
    std::unique_lock<std::mutex> g(m);
    while (!stopping) {
      auto next = nextChange();
      if (next) wake.wait_until(g, *next);
      else wake.wait(g);
      if (stopping) break;
      auto now = Clock::now();
      advanceAll(now);
      if (!pending.empty()) {
        changed.notify_all();
        g.unlock();
        flush(true);
        g.lock();
      }
    }
  }

  // Waits (m held through `g`) until ready() or the command's time-out.
  template <class Pred>
  bool waitFor(std::unique_lock<std::mutex>& g, uint32_t tmo, Pred ready) {
    if (ready()) return true;
    uint32_t ms = std::min(tmo, kMaxWsWaitMs);
    if (ms > 20) ms = ms * 9 / 10;
    auto deadline = Clock::now() + std::chrono::milliseconds(ms);
    while (Clock::now() < deadline) {
      // Time alone makes answers ready: look at least every millisecond.
      changed.wait_until(g, std::min(deadline, Clock::now() + std::chrono::milliseconds(1)));
      if (stopping) return false;
      if (ready()) return true;
    }
    return ready();
  }

  std::vector<uint8_t> run(const HostId& host, const uint8_t* cmd, size_t len, std::unique_lock<std::mutex>& g);
  std::vector<uint8_t> busAccess(uint32_t code, uint32_t w0, const uint8_t* cmd, size_t len, bool inflate);
  std::vector<uint8_t> wordSerial(uint32_t code, uint32_t w0, const uint8_t* cmd, size_t len, bool inflate,
                                  std::unique_lock<std::mutex>& g);
};

Bridge::Bridge(const std::string& iniPath) : impl_(std::make_unique<Impl>()) {
  MainframeInfo info;
  std::vector<DeviceDesc> descs;
  if (iniPath.empty()) descs = Mainframe::defaultDescs();
  else Mainframe::loadIni(iniPath, &info, &descs);
  impl_->mf.build(info, descs);
  impl_->broadcast = &broadcastAsync;
}

Bridge::~Bridge() = default;

std::vector<uint8_t> Bridge::handleCommand(const HostId& host, const uint8_t* cmd, size_t len) {
  std::vector<uint8_t> answer;
  bool irqs = false;
  try {
    std::unique_lock<std::mutex> g(impl_->m);
    answer = impl_->run(host, cmd, len, g);
    impl_->afterCommand();
    irqs = !impl_->pending.empty();
  } catch (const std::exception&) {
    // Only allocation can throw here; the host still gets an answer.
    answer = words({static_cast<uint32_t>(vistatus::kSystemError)});
  }
  if (irqs) impl_->flush(false);
  return answer;
}

std::vector<uint8_t> Bridge::Impl::run(const HostId& host, const uint8_t* cmd, size_t len,
                                       std::unique_lock<std::mutex>& g) {
  if (!cmd || len < 4) return words({static_cast<uint32_t>(vistatus::kIoError)});
  const uint32_t w0 = le32(cmd);
  const uint32_t code = w0 & 0xFF;
  live.insert(host.connectionId);

  // Switched faults come first: they stand for a bridge that misbehaves.
  if (faults.answer)
    if (auto a = faults.answer(cmd, len)) return std::move(*a);
  if (matchesCode(faults.emptyCode, code)) return {};
  if (matchesCode(faults.statusCode, code)) return failure(code, faults.forcedStatus);
  if (code >= kCmdWsRead && code <= kCmdWsWaitResp && faults.busyTries > 0) {
    --faults.busyTries;
    return failure(code, vistatus::kTimeout);
  }
  const bool inflate = matchesCode(faults.inflateCode, code);

  if (code == kCmdLock) {
    if (owned && ownerIp != host.ipv4) return failure(code, vistatus::kLocked);
    owned = true;
    ownerIp = host.ipv4;
    ownerConns.insert(host.connectionId);
    return words({0});
  }
  if (owned && ownerIp != host.ipv4) return failure(code, vistatus::kLocked);

  const auto now = Clock::now();
  advanceAll(now);
  switch (code) {
    case kCmdReset:
      mf.reset(now);
      return words({0});
    case kCmdSysState: {
      // bit 0: configured and running; bit 1: SYSFAIL asserted
      uint32_t state = (now >= mf.readySince() ? 1u : 0u) | (mf.sysfail() ? 2u : 0u);
      return words({0, state});
    }
    case kCmdRead:
    case kCmdWrite:
    case kCmdWriteNoStatus:
    case kCmdBlockRead:
    case kCmdBlockWrite: return busAccess(code, w0, cmd, len, inflate);
    case kCmdWsRead:
    case kCmdWsWrite:
    case kCmdWsCmdResp:
    case kCmdWsWaitResp: return wordSerial(code, w0, cmd, len, inflate, g);
    case kCmdResmanText: {
      std::string text = mf.resourceText();
      std::vector<uint8_t> a;
      a.reserve(4 + text.size());
      put32(a, 0);
      a.insert(a.end(), text.begin(), text.end());
      return a;
    }
    case kCmdTestIrq: {
      if (len < 12) return failure(code, vistatus::kIoError);
      uint32_t statId = le32(cmd + 8);
      Device* d = mf.deviceAt(statId & 0xFF);
      pending.push_back({d ? d->desc().irqLine : 1u, statId});
      return words({0});
    }
    default: return failure(code, vistatus::kNotSupported);
  }
}

std::vector<uint8_t> Bridge::Impl::busAccess(uint32_t code, uint32_t w0, const uint8_t* cmd, size_t len,
                                             bool inflate) {
  const size_t need = code == kCmdRead ? 12 : 16;
  if (len < need) return failure(code, vistatus::kIoError);
  unsigned width = 0;
  switch (w0 & kWidthMask) {
    case kD08: width = 1; break;
    case kD16: width = 2; break;
    case kD32: width = 4; break;
    default: return failure(code, vistatus::kNotSupported);
  }
  Space sp = Space::None;
  switch (w0 & kSpaceMask) {
    case kA16: sp = Space::A16; break;
    case kA24: sp = Space::A24; break;
    case kA32: sp = Space::A32; break;
    default: return failure(code, vistatus::kInvalidSpace);
  }
  const uint32_t addr = le32(cmd + 8);
  const auto now = Clock::now();
  std::vector<Interrupt> irqs;

  BusCycle c;
  c.space = sp;
  c.width = width;
  c.privileged = !(w0 & kNonPrivileged);
  c.program = (w0 & kProgram) != 0;
  c.block = (w0 & kBlockMode) != 0;
  c.address = addr;
  // VME address modifier of the cycle
  uint8_t base = sp == Space::A16 ? 0x29 : sp == Space::A24 ? 0x39 : 0x09;
  if (sp == Space::A16) c.am = c.privileged ? 0x2D : 0x29;
  else c.am = static_cast<uint8_t>(base + (c.privileged ? 4 : 0) + (c.block ? 2 : c.program ? 1 : 0));
  mf.noteCycle(c);

  std::vector<uint8_t> a;
  switch (code) {
    case kCmdRead: {
      uint32_t v = 0;
      int32_t st = mf.read(sp, addr, width, &v, now, &irqs);
      a = words({static_cast<uint32_t>(st), st < 0 ? 0 : v});
      break;
    }
    case kCmdWrite:
    case kCmdWriteNoStatus: {
      uint32_t v = le32(cmd + 12);
      if (width < 4) v &= (1u << (8 * width)) - 1;
      a = words({static_cast<uint32_t>(mf.write(sp, addr, width, v, now, &irqs))});
      break;
    }
    case kCmdBlockRead: {
      // More than one chunk's worth is cut to one chunk: the host asks again.
      const uint32_t count = std::min<uint32_t>(le32(cmd + 12), kMaxBlockBytes / width);
      const bool inc = (w0 & kIncrement) != 0;
      const uint32_t claim = inflate ? count + 1 : count;
      const size_t dataBytes = (size_t(claim) * width + 3) & ~size_t(3);
      a.assign(8 + dataBytes + 4, 0);
      uint32_t done = 0;
      int32_t st = mf.readBlock(sp, addr, width, inc, count, a.data() + 8, &done, now, &irqs);
      // Elements moved before a failure still count; the trailer says why
      // the transfer stopped.
      uint32_t head = (st < 0 && done == 0) ? static_cast<uint32_t>(st) : 0;
      uint32_t n = inflate ? claim : done;
      size_t trailerAt = 8 + ((size_t(n) * width + 3) & ~size_t(3));
      a.resize(trailerAt + 4);
      std::memcpy(a.data(), &head, 4);
      std::memcpy(a.data() + 4, &n, 4);
      uint32_t tail = static_cast<uint32_t>(st);
      std::memcpy(a.data() + trailerAt, &tail, 4);
      break;
    }
    case kCmdBlockWrite: {
      const uint32_t count = le32(cmd + 12);
      if (count > kMaxBlockBytes / width || len < 16 + size_t(count) * width) return failure(code, vistatus::kIoError);
      const bool inc = (w0 & kIncrement) != 0;
      uint32_t done = 0;
      int32_t st = mf.writeBlock(sp, addr, width, inc, count, cmd + 16, &done, now, &irqs);
      a = words({static_cast<uint32_t>(st), inflate ? count + 1 : done});
      break;
    }
  }
  pending.insert(pending.end(), irqs.begin(), irqs.end());
  return a;
}

std::vector<uint8_t> Bridge::Impl::wordSerial(uint32_t code, uint32_t w0, const uint8_t* cmd, size_t len,
                                              bool inflate, std::unique_lock<std::mutex>& g) {
  if (len < 12) return failure(code, vistatus::kIoError);
  const unsigned la = (w0 >> 8) & 0xFF;
  const uint32_t tmo = le32(cmd + 4);
  const uint32_t arg = le32(cmd + 8);
  Device* d = mf.deviceAt(la);
  // Nobody at that address, or a device without Word Serial registers:
  // the bridge's access to its Data Low register ends in a bus error.
  if (!d || !d->engine()) return failure(code, vistatus::kBusError);
  MessageEngine* e = d->engine();
  std::vector<Interrupt> irqs;
  auto collect = [&] {
    pending.insert(pending.end(), irqs.begin(), irqs.end());
    irqs.clear();
  };
  std::vector<uint8_t> a;

  switch (code) {
    case kCmdWsRead: {
      const uint32_t count = std::min(arg, kMaxWsBytes);
      if (count == 0) return words({0, 0});
      if (!waitFor(g, tmo, [&] { return mf.deviceAt(la) == d && e->dor(Clock::now()); }))
        return failure(code, vistatus::kTimeout);
      a.assign(8 + kMaxWsBytes + 4, 0);
      size_t got = 0;
      uint32_t bits = e->readBytes(a.data() + 8, count, (w0 & kWsStopAtEos) != 0, uint8_t(w0 >> 16), &got,
                                   Clock::now());
      uint32_t n = inflate ? static_cast<uint32_t>(got) + 1 : static_cast<uint32_t>(got);
      std::memcpy(a.data(), &bits, 4);
      std::memcpy(a.data() + 4, &n, 4);
      a.resize(8 + n);
      return a;
    }
    case kCmdWsWrite: {
      if (arg > kMaxWsBytes || len < 12 + size_t(arg)) return failure(code, vistatus::kIoError);
      if (arg == 0) return words({0, 0});
      if (!waitFor(g, tmo, [&] { return e->dir(Clock::now()); })) return failure(code, vistatus::kTimeout);
      size_t took = e->writeBytes(cmd + 12, arg, (w0 & kWsSendEnd) != 0, Clock::now(), &irqs);
      collect();
      return words({0, inflate ? arg + 1 : static_cast<uint32_t>(took)});
    }
    case kCmdWsCmdResp: {
      const uint32_t send = w0 & (kWsSend16 | kWsSend32), want = w0 & (kWsRead16 | kWsRead32);
      if ((!send && !want) || send == (kWsSend16 | kWsSend32) || want == (kWsRead16 | kWsRead32))
        return failure(code, vistatus::kNotSupported);
      bool haveResp = false;
      uint32_t resp = 0;
      if (send) {
        const bool lw = send == kWsSend32;
        const uint32_t c = lw ? arg : (arg & 0xFFFF);
        MessageEngine::CmdResult r;
        // A command that needs the instrument ready (Byte Request, Byte
        // Available) is tried again until it is, or the time-out passes.
        bool done = waitFor(g, tmo, [&] {
          r = e->command(c, lw, Clock::now(), &irqs);
          return r.status != vistatus::kTimeout;
        });
        collect();
        if (!done) return failure(code, vistatus::kTimeout);
        if (r.status < 0) return failure(code, r.status);
        if (!want) return words({0, 0});
        if (r.hasResp) {
          haveResp = true;
          resp = e->takeResponse();
        } else if (!(e->responseReg(Clock::now()) & resp::kErrN)) {
          return failure(code, vistatus::kIoError);  // the instrument refused the command
        }
      }
      if (!haveResp) {
        if (!waitFor(g, tmo, [&] { return e->responsePending(); })) return failure(code, vistatus::kTimeout);
        resp = e->takeResponse();
      }
      if (want == kWsRead16) resp &= 0xFFFF;
      return words({0, resp});
    }
    case kCmdWsWaitResp: {
      const uint16_t mask = static_cast<uint16_t>(arg);
      if (!waitFor(g, tmo, [&] { return (e->responseReg(Clock::now()) & mask) == mask; }))
        return failure(code, vistatus::kTimeout);
      return words({0});
    }
  }
  return failure(code, vistatus::kNotSupported);
}

void Bridge::hostDisconnected(const HostId& host) {
  std::lock_guard<std::mutex> d(impl_->deliver);
  std::lock_guard<std::mutex> g(impl_->m);
  impl_->live.erase(host.connectionId);
  if (impl_->owned && impl_->ownerIp == host.ipv4) {
    impl_->ownerConns.erase(host.connectionId);
    if (impl_->ownerConns.empty()) impl_->owned = false;
  }
}

std::string Bridge::resourceText() const {
  std::lock_guard<std::mutex> g(impl_->m);
  return impl_->mf.resourceText();
}

Mainframe& Bridge::mainframe() { return impl_->mf; }

void Bridge::setFaults(const CommandFaults& f) {
  std::lock_guard<std::mutex> g(impl_->m);
  impl_->faults = f;
}

CommandFaults Bridge::faults() const {
  std::lock_guard<std::mutex> g(impl_->m);
  return impl_->faults;
}

}  // namespace bridgesim
