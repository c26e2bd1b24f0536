// HiSLIP server of the simulated bridge.
//
// Threads: one accept thread polls every listener; each accepted connection
// gets a thread of its own.  A HiSLIP connection becomes the synchronous
// channel of a new session (first message Initialize) or the asynchronous
// channel of an existing one (AsyncInitialize).  The synchronous thread
// answers Data/DataEnd through the session's instrument and vendor-specific
// messages through the Bridge; the asynchronous thread answers status
// queries, device clears, size and lock requests.  Unsolicited messages
// (service requests, interrupt reports) are written to the asynchronous
// socket by whichever thread raises them, under the session's async mutex.
//
// Descriptor ownership: only a connection's own thread closes its socket,
// and it first clears the descriptor in the registry under the registry
// mutex; every other thread shuts a connection down through the registry,
// so a descriptor number that the system has handed out again is never
// touched.
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <deque>
#include <map>
#include <mutex>
#include <stdexcept>
#include <thread>

#include "hislip_wire.h"
#include "instrument.h"
#include "sim.h"

namespace bridgesim {

using namespace hislip;

bool isLoopbackAddress(const std::string& dotted) {
  in_addr a{};
  if (inet_pton(AF_INET, dotted.c_str(), &a) != 1) return false;
  return (ntohl(a.s_addr) >> 24) == 127;
}

namespace {

// recordLimit bounds the number of payloads kept; this bounds their bytes.
constexpr size_t kRecordBytesLimit = 64u << 20;
// A single flood is built in memory: cap it.
constexpr int kMaxFlood = 100000;
// An asynchronous peer that does not read blocks a sender at most this long;
// then its channel is shut down (a half-sent message would corrupt it).
constexpr int kAsyncSendTimeoutMs = 2000;
// After a FatalError or an injected close, input is drained this long so that
// the close does not turn into a reset that destroys what was sent.
constexpr int kLingerMs = 300;
constexpr size_t kLingerBytes = 4u << 20;
constexpr size_t kRawLineLimit = 1u << 20;
constexpr size_t kControlLineLimit = 4096;
constexpr size_t kReaderBuffer = 64 * 1024;

ssize_t sysRecv(int fd, void* b, size_t n) {
  for (;;) {
    ssize_t r = ::recv(fd, b, n, 0);
    if (r < 0 && errno == EINTR) continue;
    return r;
  }
}

bool sendVec(int fd, iovec* iov, int n) {
  while (n > 0) {
    msghdr mh{};
    mh.msg_iov = iov;
    mh.msg_iovlen = static_cast<size_t>(n);
    ssize_t r = ::sendmsg(fd, &mh, MSG_NOSIGNAL);
    if (r < 0) {
      if (errno == EINTR) continue;
      return false;
    }
    size_t left = static_cast<size_t>(r);
    while (n > 0 && left >= iov->iov_len) {
      left -= iov->iov_len;
      ++iov;
      --n;
    }
    if (n > 0) {
      iov->iov_base = static_cast<char*>(iov->iov_base) + left;
      iov->iov_len -= left;
    }
  }
  return true;
}

// Header and payload leave in one system call.
bool sendMessage(int fd, const uint8_t* hdr, const void* payload, size_t len) {
  iovec iov[2];
  iov[0].iov_base = const_cast<uint8_t*>(hdr);
  iov[0].iov_len = kHeaderSize;
  iov[1].iov_base = const_cast<void*>(payload);
  iov[1].iov_len = len;
  return sendVec(fd, iov, len ? 2 : 1);
}

bool sendRaw(int fd, const void* p, size_t n) {
  iovec iov{const_cast<void*>(p), n};
  return sendVec(fd, &iov, 1);
}

void setNoDelay(int fd) {
  int one = 1;
  setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
}

// Half-closes, then reads and throws away what the peer still sends for a
// short while, so that the peer gets to read our last bytes.
void lingerClose(int fd) {
  ::shutdown(fd, SHUT_WR);
  auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(kLingerMs);
  size_t total = 0;
  char scratch[4096];
  while (total < kLingerBytes) {
    auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now()).count();
    if (left <= 0) break;
    pollfd p{fd, POLLIN, 0};
    int r = ::poll(&p, 1, static_cast<int>(left));
    if (r < 0 && errno == EINTR) continue;
    if (r <= 0) break;
    ssize_t n = sysRecv(fd, scratch, sizeof scratch);
    if (n <= 0) break;
    total += static_cast<size_t>(n);
  }
}

// Buffered reader: one recv usually brings a whole header and its payload.
class Reader {
 public:
  explicit Reader(int fd) : fd_(fd), buf_(new uint8_t[kReaderBuffer]) {}

  bool read(void* dst, size_t n) {
    auto* d = static_cast<uint8_t*>(dst);
    size_t take = std::min(end_ - pos_, n);
    if (take) std::memcpy(d, buf_.get() + pos_, take);
    pos_ += take;
    d += take;
    n -= take;
    while (n > 0) {
      if (n >= kReaderBuffer / 2) {  // large payloads go straight to their place
        ssize_t r = sysRecv(fd_, d, n);
        if (r <= 0) return false;
        d += r;
        n -= static_cast<size_t>(r);
      } else {
        if (!fill()) return false;
        take = std::min(end_, n);
        std::memcpy(d, buf_.get(), take);
        pos_ = take;
        d += take;
        n -= take;
      }
    }
    return true;
  }

  bool skip(uint64_t n) {
    uint64_t take = std::min<uint64_t>(end_ - pos_, n);
    pos_ += static_cast<size_t>(take);
    n -= take;
    while (n > 0) {
      if (!fill()) return false;
      take = std::min<uint64_t>(end_, n);
      pos_ = static_cast<size_t>(take);
      n -= take;
    }
    return true;
  }

  // 1: a line (without its '\n' and a trailing '\r'); 0: end of input;
  // -1: the line exceeded `cap` and was thrown away up to its end.
  int readLine(std::string& line, size_t cap) {
    line.clear();
    bool overflow = false;
    for (;;) {
      if (pos_ == end_ && !fill()) return 0;
      const uint8_t* b = buf_.get() + pos_;
      const void* nl = std::memchr(b, '\n', end_ - pos_);
      size_t n = nl ? static_cast<size_t>(static_cast<const uint8_t*>(nl) - b) : end_ - pos_;
      if (!overflow) {
        if (line.size() + n > cap) {
          overflow = true;
          line.clear();
        } else {
          line.append(reinterpret_cast<const char*>(b), n);
        }
      }
      pos_ += n;
      if (nl) {
        ++pos_;
        if (overflow) return -1;
        if (!line.empty() && line.back() == '\r') line.pop_back();
        return 1;
      }
    }
  }

 private:
  bool fill() {
    pos_ = end_ = 0;
    ssize_t r = sysRecv(fd_, buf_.get(), kReaderBuffer);
    if (r <= 0) return false;
    end_ = static_cast<size_t>(r);
    return true;
  }

  int fd_;
  std::unique_ptr<uint8_t[]> buf_;
  size_t pos_ = 0, end_ = 0;
};

enum class ConnKind { Hislip, Raw, Control };

struct Conn {
  uint64_t id = 0;
  int fd = -1;  // guarded by the registry mutex; -1 once the owner closes it
  sockaddr_in peer{};
  ConnKind kind = ConnKind::Hislip;
  std::thread th;
  std::atomic<bool> done{false};
};

struct Session {
  uint16_t id = 0;
  HostId host;
  uint64_t syncConn = 0;
  std::string subAddress;
  std::atomic<bool> overlap{true};
  std::atomic<bool> clearing{false};  // between AsyncDeviceClear and DeviceClearComplete
  std::atomic<bool> lockHeld{false};
  std::atomic<bool> asyncUp{false};
  MessageInstrument instr;

  std::mutex asyncMutex;  // serialises writes on the asynchronous channel
  int asyncFd = -1;       // guarded by asyncMutex
  bool asyncAttached = false;
  uint64_t asyncConn = 0;
  uint64_t clientMaxMessage = 0;

  // Used by the synchronous thread only.
  std::string input;
  std::vector<uint8_t> cmd;
};

std::string timestamp() {
  timespec ts{};
  clock_gettime(CLOCK_REALTIME, &ts);
  tm t{};
  localtime_r(&ts.tv_sec, &t);
  char b[96];
  snprintf(b, sizeof b, "%04d-%02d-%02d %02d:%02d:%02d.%03d ", t.tm_year + 1900, t.tm_mon + 1, t.tm_mday, t.tm_hour,
           t.tm_min, t.tm_sec, static_cast<int>(ts.tv_nsec / 1000000) % 1000);
  return b;
}

std::string hexDump(const uint8_t* p, size_t n, size_t max = 64) {
  std::string s;
  char b[4];
  for (size_t i = 0; i < n && i < max; ++i) {
    snprintf(b, sizeof b, "%02X", p[i]);
    if (i) s += ' ';
    s += b;
  }
  if (n > max) s += " ...";
  return s;
}

const char* typeName(uint8_t t) {
  static const char* names[] = {"Initialize",
                                "InitializeResponse",
                                "FatalError",
                                "Error",
                                "AsyncLock",
                                "AsyncLockResponse",
                                "Data",
                                "DataEnd",
                                "DeviceClearComplete",
                                "DeviceClearAcknowledge",
                                "AsyncRemoteLocalControl",
                                "AsyncRemoteLocalResponse",
                                "Trigger",
                                "Interrupted",
                                "AsyncInterrupted",
                                "AsyncMaximumMessageSize",
                                "AsyncMaximumMessageSizeResponse",
                                "AsyncInitialize",
                                "AsyncInitializeResponse",
                                "AsyncDeviceClear",
                                "AsyncServiceRequest",
                                "AsyncStatusQuery",
                                "AsyncStatusResponse",
                                "AsyncDeviceClearAcknowledge",
                                "AsyncLockInfo",
                                "AsyncLockInfoResponse"};
  if (t < sizeof names / sizeof names[0]) return names[t];
  return t >= 128 ? "VendorSpecific" : "unknown";
}

uint32_t le32(const uint8_t* p, size_t n, size_t off) {
  if (off + 4 > n) return 0;
  return uint32_t(p[off]) | uint32_t(p[off + 1]) << 8 | uint32_t(p[off + 2]) << 16 | uint32_t(p[off + 3]) << 24;
}

void putLe32(std::vector<uint8_t>& v, uint32_t x) {
  for (int i = 0; i < 4; ++i) v.push_back(static_cast<uint8_t>(x >> (8 * i)));
}

}  // namespace

struct Server::Impl {
  Server* owner;
  ServerOptions opt;
  std::unique_ptr<Bridge> bridge;

  mutable std::mutex faultMutex;
  HislipFaults faults;

  std::atomic<bool> running{false};
  std::atomic<bool> stopping{false};
  int lsHislip = -1, lsRaw = -1, lsControl = -1;
  uint16_t portHislip = 0, portRaw = 0, portControl = 0;
  int wake[2] = {-1, -1};
  std::thread acceptThread;

  std::mutex connMutex;
  std::map<uint64_t, std::unique_ptr<Conn>> conns;
  uint64_t nextConn = 1;

  mutable std::mutex sessMutex;
  std::map<uint16_t, std::shared_ptr<Session>> sessions;
  uint16_t nextSessionId = 1;
  uint64_t nextConnectionId = 1;

  mutable std::mutex recMutex;
  std::deque<std::vector<uint8_t>> received;
  size_t receivedBytes = 0;

  std::mutex sleepMutex;
  std::condition_variable sleepCv;

  std::mutex logMutex;

  std::atomic<uint64_t> stSessionsOpened{0}, stBridgeCommands{0}, stData{0}, stAsync{0}, stErrors{0},
      stAsyncSent{0}, stRaw{0};

  Impl(Server* o, ServerOptions options) : owner(o), opt(std::move(options)) {
    bridge = std::make_unique<Bridge>(opt.mainframeIni);
    bridge->setFaults(opt.commandFaults);
    faults = opt.faults;
    bridge->broadcastAsync = [this](const std::vector<uint8_t>& body) { broadcastVendor(body); };
  }

  // ------------------------------------------------------------ logging
  bool logs(int level) const { return level <= opt.verbosity; }

  void log(int level, const char* fmt, ...) __attribute__((format(printf, 3, 4))) {
    if (!logs(level)) return;
    char msg[1024];
    va_list ap;
    va_start(ap, fmt);
    vsnprintf(msg, sizeof msg, fmt, ap);
    va_end(ap);
    std::string line = timestamp() + msg + "\n";
    std::lock_guard<std::mutex> g(logMutex);
    if (opt.logSink)
      opt.logSink(line);
    else
      fputs(line.c_str(), stderr);
  }

  // ------------------------------------------------------------ start / stop
  int listenOn(const std::string& addr, uint16_t port, uint16_t* bound, const char* what) {
    sockaddr_in sa{};
    sa.sin_family = AF_INET;
    sa.sin_port = htons(port);
    if (inet_pton(AF_INET, addr.c_str(), &sa.sin_addr) != 1)
      throw std::runtime_error("not a dotted IPv4 address: \"" + addr + "\"");
    int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) throw std::runtime_error(std::string("socket: ") + strerror(errno));
    int one = 1;
    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    if (::bind(fd, reinterpret_cast<sockaddr*>(&sa), sizeof sa) != 0 || ::listen(fd, 64) != 0) {
      int e = errno;
      ::close(fd);
      throw std::runtime_error(std::string("cannot listen for ") + what + " on " + addr + ":" + std::to_string(port) +
                               ": " + strerror(e));
    }
    socklen_t len = sizeof sa;
    getsockname(fd, reinterpret_cast<sockaddr*>(&sa), &len);
    *bound = ntohs(sa.sin_port);
    return fd;
  }

  void closeListeners() {
    for (int* fd : {&lsHislip, &lsRaw, &lsControl, &wake[0], &wake[1]}) {
      if (*fd >= 0) ::close(*fd);
      *fd = -1;
    }
  }

  void start() {
    if (running) return;
    stopping = false;
    try {
      if (::pipe2(wake, O_CLOEXEC) != 0) throw std::runtime_error(std::string("pipe: ") + strerror(errno));
      lsHislip = listenOn(opt.address, opt.port, &portHislip, "HiSLIP");
      if (opt.rawPort) lsRaw = listenOn(opt.address, opt.rawPort, &portRaw, "the raw-socket instrument");
      if (opt.controlPort) {
        // The control port never leaves the loopback network.
        std::string a = isLoopbackAddress(opt.address) ? opt.address : "127.0.0.1";
        lsControl = listenOn(a, opt.controlPort, &portControl, "control");
      }
    } catch (...) {
      closeListeners();
      throw;
    }
    running = true;
    acceptThread = std::thread([this] { acceptLoop(); });
    log(1, "listening for HiSLIP on %s:%u", opt.address.c_str(), portHislip);
    if (portRaw) log(1, "raw-socket instrument on %s:%u", opt.address.c_str(), portRaw);
    if (portControl) log(1, "control port on %u (loopback)", portControl);
  }

  void stop() {
    if (!running.exchange(false)) return;
    {
      std::lock_guard<std::mutex> g(sleepMutex);
      stopping = true;
    }
    sleepCv.notify_all();
    char c = 'x';
    if (::write(wake[1], &c, 1) < 0) {
    }
    if (acceptThread.joinable()) acceptThread.join();
    closeListeners();
    std::vector<std::thread> threads;
    {
      std::lock_guard<std::mutex> g(connMutex);
      for (auto& [id, cn] : conns) {
        if (cn->fd >= 0) ::shutdown(cn->fd, SHUT_RDWR);
        threads.push_back(std::move(cn->th));
      }
    }
    for (auto& t : threads)
      if (t.joinable()) t.join();
    {
      std::lock_guard<std::mutex> g(connMutex);
      conns.clear();
    }
    {
      std::lock_guard<std::mutex> g(sessMutex);
      sessions.clear();
    }
    portHislip = portRaw = portControl = 0;
    log(1, "stopped");
  }

  void acceptLoop() {
    pollfd fds[4];
    ConnKind kinds[4];
    int n = 0;
    fds[n++] = {wake[0], POLLIN, 0};
    fds[n] = {lsHislip, POLLIN, 0};
    kinds[n++] = ConnKind::Hislip;
    if (lsRaw >= 0) {
      fds[n] = {lsRaw, POLLIN, 0};
      kinds[n++] = ConnKind::Raw;
    }
    if (lsControl >= 0) {
      fds[n] = {lsControl, POLLIN, 0};
      kinds[n++] = ConnKind::Control;
    }
    while (!stopping) {
      int r = ::poll(fds, static_cast<nfds_t>(n), 1000);
      if (stopping) break;
      if (r < 0 && errno != EINTR) std::this_thread::sleep_for(std::chrono::milliseconds(10));
      if (r > 0 && (fds[0].revents & POLLIN)) break;
      for (int i = 1; r > 0 && i < n; ++i) {
        if (!(fds[i].revents & POLLIN)) continue;
        sockaddr_in peer{};
        socklen_t len = sizeof peer;
        int fd = ::accept4(fds[i].fd, reinterpret_cast<sockaddr*>(&peer), &len, SOCK_CLOEXEC);
        if (fd < 0) {
          // Out of descriptors: back off instead of spinning on poll.
          if (errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM)
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
          continue;
        }
        setNoDelay(fd);
        spawn(kinds[i], fd, peer);
      }
      reapDone();
    }
  }

  void spawn(ConnKind kind, int fd, const sockaddr_in& peer) {
    std::lock_guard<std::mutex> g(connMutex);
    auto c = std::make_unique<Conn>();
    c->id = nextConn++;
    c->fd = fd;
    c->peer = peer;
    c->kind = kind;
    Conn* cp = c.get();
    c->th = std::thread([this, cp] {
      try {
        runConn(*cp);
      } catch (const std::exception& e) {
        log(0, "connection %llu: %s", static_cast<unsigned long long>(cp->id), e.what());
      }
      finishConn(*cp);
    });
    conns.emplace(c->id, std::move(c));
  }

  void finishConn(Conn& c) {
    int fd;
    {
      std::lock_guard<std::mutex> g(connMutex);
      fd = c.fd;
      c.fd = -1;
    }
    if (fd >= 0) ::close(fd);
    c.done = true;
  }

  void reapDone() {
    std::vector<std::thread> finished;
    {
      std::lock_guard<std::mutex> g(connMutex);
      for (auto it = conns.begin(); it != conns.end();) {
        if (it->second->done) {
          finished.push_back(std::move(it->second->th));
          it = conns.erase(it);
        } else {
          ++it;
        }
      }
    }
    for (auto& t : finished)
      if (t.joinable()) t.join();
  }

  void shutdownConn(uint64_t id) {
    std::lock_guard<std::mutex> g(connMutex);
    auto it = conns.find(id);
    if (it != conns.end() && it->second->fd >= 0) ::shutdown(it->second->fd, SHUT_RDWR);
  }

  // Waits ms milliseconds; false when the server stops meanwhile.
  bool sleepFor(int ms) {
    std::unique_lock<std::mutex> lk(sleepMutex);
    return !sleepCv.wait_for(lk, std::chrono::milliseconds(ms), [this] { return stopping.load(); });
  }

  void runConn(Conn& c) {
    switch (c.kind) {
      case ConnKind::Hislip:
        runHislip(c);
        break;
      case ConnKind::Raw:
        runRaw(c);
        break;
      case ConnKind::Control:
        runControl(c);
        break;
    }
  }

  // ------------------------------------------------------------ error messages
  // The client reads an error text of at least 28 bytes in one go, so texts
  // are padded to that length.
  static std::string errorText(const char* text) {
    std::string t(text);
    if (t.size() < 28) t.append(28 - t.size(), ' ');
    if (t.size() > 255) t.resize(255);
    return t;
  }

  bool sendError(int fd, uint8_t type, uint8_t code, const char* text) {
    std::string t = errorText(text);
    uint8_t hdr[kHeaderSize];
    encodeHeader(hdr, type, code, 0, t.size());
    ++stErrors;
    log(1, "sending %s %u: %s", typeName(type), code, text);
    return sendMessage(fd, hdr, t.data(), t.size());
  }

  // FatalError, then the connection is closed by the caller's return.
  void fatal(int fd, uint8_t code, const char* text) {
    sendError(fd, FatalError, code, text);
    lingerClose(fd);
  }

  // ------------------------------------------------------------ sessions
  std::shared_ptr<Session> createSession(const Conn& c) {
    std::lock_guard<std::mutex> g(sessMutex);
    if (sessions.size() >= opt.maxSessions) return nullptr;
    uint16_t id = 0;
    for (int tries = 0; tries < 65536; ++tries) {
      uint16_t cand = nextSessionId++;
      if (nextSessionId == 0) nextSessionId = 1;
      if (cand != 0 && !sessions.count(cand)) {
        id = cand;
        break;
      }
    }
    if (id == 0) return nullptr;
    auto s = std::make_shared<Session>();
    s->id = id;
    s->host.ipv4 = c.peer.sin_addr.s_addr;
    s->host.connectionId = nextConnectionId++;
    s->syncConn = c.id;
    s->overlap = opt.overlapMode;
    sessions.emplace(id, s);
    return s;
  }

  std::shared_ptr<Session> findSession(uint16_t id) {
    std::lock_guard<std::mutex> g(sessMutex);
    auto it = sessions.find(id);
    return it == sessions.end() ? nullptr : it->second;
  }

  std::vector<std::shared_ptr<Session>> allSessions() {
    std::lock_guard<std::mutex> g(sessMutex);
    std::vector<std::shared_ptr<Session>> v;
    for (auto& [id, s] : sessions) v.push_back(s);
    return v;
  }

  // One message on a session's asynchronous channel.  A failed or stalled
  // send shuts the channel down: a partly written message would leave the
  // peer's stream out of step.
  bool sendAsync(Session& s, uint8_t type, uint8_t code, uint32_t param, const void* p, size_t n) {
    std::lock_guard<std::mutex> g(s.asyncMutex);
    if (s.asyncFd < 0) return false;
    uint8_t hdr[kHeaderSize];
    encodeHeader(hdr, type, code, param, n);
    if (sendMessage(s.asyncFd, hdr, p, n)) return true;
    ::shutdown(s.asyncFd, SHUT_RDWR);
    return false;
  }

  bool sendAsyncBytes(Session& s, const std::vector<uint8_t>& bytes) {
    std::lock_guard<std::mutex> g(s.asyncMutex);
    if (s.asyncFd < 0) return false;
    if (sendRaw(s.asyncFd, bytes.data(), bytes.size())) return true;
    ::shutdown(s.asyncFd, SHUT_RDWR);
    return false;
  }

  void broadcastVendor(const std::vector<uint8_t>& body) {
    for (auto& s : allSessions()) {
      if (sendAsync(*s, VendorSpecific, 0, 0, body.data(), body.size())) ++stAsyncSent;
    }
    log(2, "async vendor message (%zu bytes) to every session: %s", body.size(),
        hexDump(body.data(), body.size(), 32).c_str());
  }

  void serviceRequestAll() {
    for (auto& s : allSessions()) {
      uint8_t stb = static_cast<uint8_t>(s->instr.statusByte() | 0x40);
      sendAsync(*s, AsyncServiceRequest, stb, 0, nullptr, 0);
    }
    log(2, "service request to every session");
  }

  // Interrupt reports in the bridge's own format: cmd 1, one pair.
  static std::vector<uint8_t> interruptReport(uint32_t line, uint32_t statId) {
    std::vector<uint8_t> b;
    putLe32(b, 1);
    putLe32(b, 1);
    putLe32(b, line);
    putLe32(b, statId);
    return b;
  }

  void flood(Session& s, int n) {
    n = std::min(n, kMaxFlood);
    // IRQ1 from logical address 0 (the slot-0 controller), cause code 0xFE.
    std::vector<uint8_t> body = interruptReport(1, 0xFE00);
    std::vector<uint8_t> all;
    all.reserve(static_cast<size_t>(n) * (kHeaderSize + body.size()));
    uint8_t hdr[kHeaderSize];
    encodeHeader(hdr, VendorSpecific, 0, 0, body.size());
    for (int i = 0; i < n; ++i) {
      all.insert(all.end(), hdr, hdr + kHeaderSize);
      all.insert(all.end(), body.begin(), body.end());
    }
    if (sendAsyncBytes(s, all)) stAsyncSent += static_cast<uint64_t>(n);
    log(1, "fault: flooded session %u with %d interrupt reports", s.id, n);
  }

  // ------------------------------------------------------------ faults
  HislipFaults takeAnswerFaults() {
    std::lock_guard<std::mutex> g(faultMutex);
    HislipFaults f = faults;
    if (f.neverAnswer) return f;
    faults.floodAsync = 0;
    if (f.errorReply == 0) {
      faults.closeMidMessage = 0;
      faults.malformedHeader = false;
    }
    return f;
  }

  HislipFaults peekFaults() const {
    std::lock_guard<std::mutex> g(faultMutex);
    return faults;
  }

  // Applies the faults that touch plain acknowledgements (status responses,
  // device clear): late or never.  False: do not answer.
  bool ackAllowed() {
    HislipFaults f = peekFaults();
    if (f.neverAnswer) {
      log(2, "fault: acknowledgement withheld");
      return false;
    }
    if (f.answerDelayMs > 0 && !sleepFor(f.answerDelayMs)) return false;
    return true;
  }

  // Sends an answer on the synchronous channel with the faults applied.
  // False: the session is over.
  bool sendAnswer(Session& s, int fd, uint8_t type, uint8_t code, uint32_t param, const void* p, size_t n) {
    HislipFaults f = takeAnswerFaults();
    if (f.neverAnswer) {
      log(2, "fault: answer withheld");
      return true;
    }
    if (f.floodAsync > 0) flood(s, f.floodAsync);
    if (f.answerDelayMs > 0 && !sleepFor(f.answerDelayMs)) return false;
    if (f.errorReply == Error) return sendError(fd, Error, ErrUnidentified, "simulated fault: the bridge answers with Error");
    if (f.errorReply == FatalError) {
      fatal(fd, FatalUnidentified, "simulated fault: the bridge answers with FatalError");
      return false;
    }
    uint8_t hdr[kHeaderSize];
    encodeHeader(hdr, type, code, param, n);
    if (f.malformedHeader) {
      hdr[0] = 'X';
      log(1, "fault: answer of session %u sent with a malformed header", s.id);
    }
    if (f.closeMidMessage > 0) {
      std::vector<uint8_t> all(hdr, hdr + kHeaderSize);
      if (n) all.insert(all.end(), static_cast<const uint8_t*>(p), static_cast<const uint8_t*>(p) + n);
      size_t k = std::min(all.size(), static_cast<size_t>(f.closeMidMessage));
      sendRaw(fd, all.data(), k);
      log(1, "fault: session %u closed after %zu of %zu answer bytes", s.id, k, all.size());
      lingerClose(fd);
      return false;
    }
    return sendMessage(fd, hdr, p, n);
  }

  // ------------------------------------------------------------ HiSLIP
  void runHislip(Conn& c) {
    Reader rd(c.fd);
    uint8_t hb[kHeaderSize];
    if (!rd.read(hb, kHeaderSize)) return;
    Header h = decodeHeader(hb);
    if (!h.prologueOk) return fatal(c.fd, FatalBadHeader, "malformed message header (prologue is not \"HS\")");
    if (h.type == Initialize) return runSync(c, rd, h);
    if (h.type == AsyncInitialize) return runAsync(c, rd, h);
    fatal(c.fd, FatalBadInitSequence, "the first message of a connection must be Initialize or AsyncInitialize");
  }

  void runSync(Conn& c, Reader& rd, Header h) {
    if (h.length > kMaxSmallPayload)
      return fatal(c.fd, FatalBadHeader, "Initialize carries a sub-address longer than 256 bytes");
    std::string sub(static_cast<size_t>(h.length), '\0');
    if (!rd.read(sub.data(), sub.size())) return;
    auto s = createSession(c);
    if (!s) return fatal(c.fd, FatalTooManyClients, "too many sessions: the server refuses this connection");
    s->subAddress = sub;
    ++stSessionsOpened;
    char peer[INET_ADDRSTRLEN] = "?";
    inet_ntop(AF_INET, &c.peer.sin_addr, peer, sizeof peer);
    log(1, "session %u opened from %s:%u, sub-address \"%s\", protocol %u.%u, vendor %02X %02X", s->id, peer,
        ntohs(c.peer.sin_port), sub.c_str(), (h.param >> 24) & 0xFF, (h.param >> 16) & 0xFF, (h.param >> 8) & 0xFF,
        h.param & 0xFF);
    uint8_t hdr[kHeaderSize];
    encodeHeader(hdr, InitializeResponse, s->overlap ? 1 : 0, uint32_t(kProtocolVersion) << 16 | s->id, 0);
    if (sendMessage(c.fd, hdr, nullptr, 0)) syncLoop(c, rd, *s);

    {
      std::lock_guard<std::mutex> g(sessMutex);
      sessions.erase(s->id);
    }
    bridge->hostDisconnected(s->host);
    uint64_t asyncConn;
    {
      std::lock_guard<std::mutex> g(s->asyncMutex);
      asyncConn = s->asyncConn;
    }
    if (asyncConn) shutdownConn(asyncConn);
    log(1, "session %u closed", s->id);
  }

  void syncLoop(Conn& c, Reader& rd, Session& s) {
    uint8_t hb[kHeaderSize];
    while (rd.read(hb, kHeaderSize)) {
      Header h = decodeHeader(hb);
      if (logs(2))
        log(2, "session %u sync <- %s code %u param %08X len %llu", s.id, typeName(h.type), h.code, h.param,
            static_cast<unsigned long long>(h.length));
      if (!h.prologueOk) return fatal(c.fd, FatalBadHeader, "malformed message header (prologue is not \"HS\")");
      if (h.length > kMaxSkippable) return fatal(c.fd, FatalBadHeader, "message header claims an impossible payload length");
      switch (h.type) {
        case Data:
        case DataEnd:
        case VendorSpecific:
          if (!s.asyncUp) {
            return fatal(c.fd, FatalNoChannels, "the asynchronous channel of this session is not established");
          }
          if (h.length > kMaxMessageSize) {
            if (!rd.skip(h.length)) return;
            s.input.clear();
            sendError(c.fd, Error, ErrTooLarge, "message larger than the maximum message size");
            break;
          }
          if (h.type == VendorSpecific) {
            if (!vendorCommand(c, rd, s, h)) return;
          } else {
            if (!dataMessage(c, rd, s, h)) return;
          }
          break;
        case DeviceClearComplete: {
          if (!rd.skip(h.length)) return;
          // Both modes are served, so the client's wish is granted.
          s.overlap = (h.code & 1) != 0;
          s.input.clear();
          s.clearing = false;
          if (!ackAllowed()) break;
          encodeHeader(hb, DeviceClearAcknowledge, s.overlap ? 1 : 0, 0, 0);
          if (!sendMessage(c.fd, hb, nullptr, 0)) return;
          break;
        }
        case Trigger:
          if (!rd.skip(h.length)) return;
          s.instr.trigger();
          break;
        case Initialize:
        case AsyncInitialize:
          return fatal(c.fd, FatalBadInitSequence, "initialization repeated on an established channel");
        default:
          if (!rd.skip(h.length)) return;
          if (h.type > VendorSpecific)
            sendError(c.fd, Error, ErrUnknownVendor, "unrecognized vendor-defined message type");
          else
            sendError(c.fd, Error, ErrUnknownType, "unrecognized message type on the synchronous channel");
          break;
      }
    }
  }

  bool dataMessage(Conn& c, Reader& rd, Session& s, const Header& h) {
    ++stData;
    size_t len = static_cast<size_t>(h.length);
    if (s.input.size() + len > kMaxMessageSize) {
      if (!rd.skip(len)) return false;
      s.input.clear();
      return sendError(c.fd, Error, ErrTooLarge, "message larger than the maximum message size");
    }
    size_t old = s.input.size();
    s.input.resize(old + len);
    if (!rd.read(s.input.data() + old, len)) return false;
    if (s.clearing) {  // a device clear is under way: input is thrown away
      s.input.clear();
      return true;
    }
    if (h.type != DataEnd) return true;
    bool srq = false;
    std::string resp = s.instr.execute(s.input, &srq);
    if (logs(2)) {
      std::string in = s.input.substr(0, 80), out = resp.substr(0, 80);
      while (!in.empty() && (in.back() == '\n' || in.back() == '\r')) in.pop_back();
      while (!out.empty() && out.back() == '\n') out.pop_back();
      log(2, "session %u instrument: \"%s\" -> \"%s\"", s.id, in.c_str(), out.c_str());
    }
    s.input.clear();
    if (!resp.empty() && !sendAnswer(s, c.fd, DataEnd, 0, h.param, resp.data(), resp.size())) return false;
    if (srq) sendAsync(s, AsyncServiceRequest, s.instr.statusByte(), 0, nullptr, 0);
    return true;
  }

  void record(const std::vector<uint8_t>& cmd) {
    if (opt.recordLimit == 0) return;
    std::lock_guard<std::mutex> g(recMutex);
    received.push_back(cmd);
    receivedBytes += cmd.size();
    while (!received.empty() && (received.size() > opt.recordLimit || receivedBytes > kRecordBytesLimit)) {
      receivedBytes -= received.front().size();
      received.pop_front();
    }
  }

  bool vendorCommand(Conn& c, Reader& rd, Session& s, const Header& h) {
    s.cmd.resize(static_cast<size_t>(h.length));
    if (!rd.read(s.cmd.data(), s.cmd.size())) return false;
    ++stBridgeCommands;
    record(s.cmd);
    std::vector<uint8_t> ans = bridge->handleCommand(s.host, s.cmd.data(), s.cmd.size());
    ans.resize((ans.size() + 3) & ~size_t(3), 0);  // the client reads whole 32-bit words
    if (logs(2)) {
      log(2, "session %u bridge command 0x%08X (%zu bytes) -> status 0x%08X (%zu bytes)", s.id,
          le32(s.cmd.data(), s.cmd.size(), 0), s.cmd.size(), le32(ans.data(), ans.size(), 0), ans.size());
      if (logs(3)) {
        log(3, "  command: %s", hexDump(s.cmd.data(), s.cmd.size()).c_str());
        log(3, "  answer:  %s", hexDump(ans.data(), ans.size()).c_str());
      }
    }
    return sendAnswer(s, c.fd, VendorSpecific, 0, h.param, ans.data(), ans.size());
  }

  void runAsync(Conn& c, Reader& rd, Header h) {
    if (h.length > kMaxSmallPayload)
      return fatal(c.fd, FatalBadHeader, "AsyncInitialize carries an unexpected payload");
    if (!rd.skip(h.length)) return;
    auto s = findSession(static_cast<uint16_t>(h.param & 0xFFFF));
    static const char* kNoSession = "AsyncInitialize names no session waiting for its channel";
    if (!s) return fatal(c.fd, FatalBadInitSequence, kNoSession);
    {
      std::unique_lock<std::mutex> g(s->asyncMutex);
      if (s->asyncAttached) {
        g.unlock();
        return fatal(c.fd, FatalBadInitSequence, kNoSession);
      }
      s->asyncAttached = true;
      s->asyncFd = c.fd;
      s->asyncConn = c.id;
      timeval tv{kAsyncSendTimeoutMs / 1000, (kAsyncSendTimeoutMs % 1000) * 1000};
      setsockopt(c.fd, SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof tv);
      // Up before the response leaves: the client may send Data on the
      // synchronous channel the moment it has read the response.
      s->asyncUp = true;
      uint8_t hdr[kHeaderSize];
      encodeHeader(hdr, AsyncInitializeResponse, 0, kServerVendorId, 0);
      if (!sendMessage(c.fd, hdr, nullptr, 0)) {
        s->asyncFd = -1;
        return;
      }
    }
    log(1, "session %u asynchronous channel established", s->id);
    asyncLoop(c, rd, *s);
    {
      std::lock_guard<std::mutex> g(s->asyncMutex);
      s->asyncFd = -1;
    }
    log(1, "session %u asynchronous channel closed", s->id);
  }

  void asyncFatal(Conn& c, Session& s, uint8_t code, const char* text) {
    {
      std::lock_guard<std::mutex> g(s.asyncMutex);
      sendError(c.fd, FatalError, code, text);
      s.asyncFd = -1;
    }
    lingerClose(c.fd);
  }

  void asyncError(Session& s, uint8_t code, const char* text) {
    std::string t = errorText(text);
    ++stErrors;
    log(1, "session %u async: sending Error %u: %s", s.id, code, text);
    sendAsync(s, Error, code, 0, t.data(), t.size());
  }

  size_t locksHeld() {
    size_t n = 0;
    for (auto& x : allSessions()) n += x->lockHeld ? 1 : 0;
    return n;
  }

  void asyncLoop(Conn& c, Reader& rd, Session& s) {
    uint8_t hb[kHeaderSize];
    while (rd.read(hb, kHeaderSize)) {
      Header h = decodeHeader(hb);
      ++stAsync;
      if (logs(2))
        log(2, "session %u async <- %s code %u param %08X len %llu", s.id, typeName(h.type), h.code, h.param,
            static_cast<unsigned long long>(h.length));
      if (!h.prologueOk) return asyncFatal(c, s, FatalBadHeader, "malformed message header (prologue is not \"HS\")");
      if (h.length > kMaxSkippable)
        return asyncFatal(c, s, FatalBadHeader, "message header claims an impossible payload length");
      switch (h.type) {
        case AsyncStatusQuery:
          if (!rd.skip(h.length)) return;
          if (ackAllowed()) sendAsync(s, AsyncStatusResponse, s.instr.statusByte(), 0, nullptr, 0);
          break;
        case AsyncDeviceClear:
          if (!rd.skip(h.length)) return;
          s.clearing = true;
          s.instr.deviceClear();
          if (ackAllowed()) sendAsync(s, AsyncDeviceClearAcknowledge, opt.overlapMode ? 1 : 0, 0, nullptr, 0);
          break;
        case AsyncMaximumMessageSize: {
          if (h.length != 8) {
            if (!rd.skip(h.length)) return;
            asyncError(s, ErrUnidentified, "AsyncMaximumMessageSize must carry an 8-byte size");
            break;
          }
          uint8_t b[8];
          if (!rd.read(b, 8)) return;
          uint64_t v = 0;
          for (uint8_t x : b) v = v << 8 | x;
          s.clientMaxMessage = v;
          for (int i = 0; i < 8; ++i) b[i] = static_cast<uint8_t>(kMaxMessageSize >> (56 - 8 * i));
          sendAsync(s, AsyncMaximumMessageSizeResponse, 0, 0, b, 8);
          break;
        }
        case AsyncLock: {
          if (h.length > kMaxSmallPayload) {
            if (!rd.skip(h.length)) return;
            asyncError(s, ErrUnidentified, "lock string longer than 256 bytes");
            break;
          }
          if (!rd.skip(h.length)) return;  // shared-lock names are not modelled
          uint8_t code;
          if (h.code == 1) {  // request: always granted, there is no contention model
            s.lockHeld = true;
            code = 1;
          } else {  // release: success when held, else error
            code = s.lockHeld.exchange(false) ? 1 : 3;
          }
          sendAsync(s, AsyncLockResponse, code, 0, nullptr, 0);
          break;
        }
        case AsyncLockInfo: {
          if (!rd.skip(h.length)) return;
          size_t n = locksHeld();
          sendAsync(s, AsyncLockInfoResponse, n ? 1 : 0, static_cast<uint32_t>(n), nullptr, 0);
          break;
        }
        case AsyncRemoteLocalControl:
          if (!rd.skip(h.length)) return;
          sendAsync(s, AsyncRemoteLocalResponse, 0, 0, nullptr, 0);
          break;
        case Initialize:
        case AsyncInitialize:
          return asyncFatal(c, s, FatalBadInitSequence, "initialization repeated on an established channel");
        default:
          if (!rd.skip(h.length)) return;
          asyncError(s, h.type > VendorSpecific ? ErrUnknownVendor : ErrUnknownType,
                     "unrecognized message type on the asynchronous channel");
          break;
      }
    }
  }

  // ------------------------------------------------------------ raw and control
  void runRaw(Conn& c) {
    ++stRaw;
    log(1, "raw-socket connection %llu opened", static_cast<unsigned long long>(c.id));
    MessageInstrument instr;
    Reader rd(c.fd);
    std::string line;
    for (;;) {
      int r = rd.readLine(line, kRawLineLimit);
      if (r == 0) break;
      if (r < 0) {
        instr.execute("\x01OVERLONG");  // queues "Undefined header"
        continue;
      }
      std::string resp = instr.execute(line);
      log(2, "raw: \"%s\" -> %zu bytes", line.substr(0, 80).c_str(), resp.size());
      if (!resp.empty() && !sendRaw(c.fd, resp.data(), resp.size())) break;
    }
    log(1, "raw-socket connection %llu closed", static_cast<unsigned long long>(c.id));
  }

  void runControl(Conn& c) {
    if ((ntohl(c.peer.sin_addr.s_addr) >> 24) != 127) return;  // loopback peers only
    Reader rd(c.fd);
    std::string line;
    for (;;) {
      int r = rd.readLine(line, kControlLineLimit);
      if (r == 0) break;
      std::string reply;
      if (r < 0) {
        reply = "ERR line too long\n";
      } else {
        std::string t = line;
        while (!t.empty() && (t.back() == ' ' || t.back() == '\t')) t.pop_back();
        if (t == "quit" || t == "exit") {
          sendRaw(c.fd, "OK bye\n", 7);
          break;
        }
        log(1, "control: %s", t.c_str());
        reply = owner->control(t);
      }
      if (!sendRaw(c.fd, reply.data(), reply.size())) break;
    }
  }
};

// ---------------------------------------------------------------- Server

Server::Server(ServerOptions o) : impl_(std::make_unique<Impl>(this, std::move(o))) {}

Server::~Server() {
  stop();
  if (impl_) impl_->bridge->broadcastAsync = nullptr;
}

void Server::start() { impl_->start(); }
void Server::stop() { impl_->stop(); }

uint16_t Server::port() const { return impl_->portHislip; }
uint16_t Server::rawPort() const { return impl_->portRaw; }
uint16_t Server::controlPort() const { return impl_->portControl; }

Bridge& Server::bridge() { return *impl_->bridge; }

void Server::setFaults(const HislipFaults& f) {
  std::lock_guard<std::mutex> g(impl_->faultMutex);
  impl_->faults = f;
}

HislipFaults Server::faults() const { return impl_->peekFaults(); }

void Server::updateFaults(const std::function<void(HislipFaults&)>& edit) {
  std::lock_guard<std::mutex> g(impl_->faultMutex);
  edit(impl_->faults);
}

void Server::setCommandFaults(const CommandFaults& f) { impl_->bridge->setFaults(f); }
CommandFaults Server::commandFaults() const { return impl_->bridge->faults(); }

std::vector<std::vector<uint8_t>> Server::receivedCommands() const {
  std::lock_guard<std::mutex> g(impl_->recMutex);
  return {impl_->received.begin(), impl_->received.end()};
}

void Server::clearReceived() {
  std::lock_guard<std::mutex> g(impl_->recMutex);
  impl_->received.clear();
  impl_->receivedBytes = 0;
}

size_t Server::sessionCount() const {
  std::lock_guard<std::mutex> g(impl_->sessMutex);
  return impl_->sessions.size();
}

ServerStats Server::stats() const {
  ServerStats s;
  s.sessionsOpened = impl_->stSessionsOpened;
  s.sessionsNow = sessionCount();
  s.bridgeCommands = impl_->stBridgeCommands;
  s.dataMessages = impl_->stData;
  s.asyncMessages = impl_->stAsync;
  s.errorsSent = impl_->stErrors;
  s.asyncSent = impl_->stAsyncSent;
  s.rawConnections = impl_->stRaw;
  return s;
}

void Server::sendServiceRequest() { impl_->serviceRequestAll(); }

void Server::sendAsyncVendor(const std::vector<uint8_t>& body) { impl_->broadcastVendor(body); }

void Server::sendInterrupt(uint32_t irqLine, uint32_t statId) {
  impl_->broadcastVendor(Impl::interruptReport(irqLine, statId));
}

}  // namespace bridgesim
