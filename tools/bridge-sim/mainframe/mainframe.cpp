#include "mainframe.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <stdexcept>

#include "wordserial.h"

namespace bridgesim {

// ---------------------------------------------------------------- memory

SparseMemory::SparseMemory(uint64_t size, bool ramp, uint64_t* budget)
    : size_(size), ramp_(ramp), budget_(budget), pages_((size + kPageSize - 1) >> kPageBits) {}

void SparseMemory::fillPattern(uint64_t off, uint8_t* dst, size_t n) const {
  if (!ramp_) {
    std::memset(dst, 0, n);
    return;
  }
  // 16-bit big-endian words counting up: word k holds k.
  for (size_t i = 0; i < n; ++i) {
    uint64_t a = off + i;
    uint16_t w = static_cast<uint16_t>(a >> 1);
    dst[i] = (a & 1) ? static_cast<uint8_t>(w) : static_cast<uint8_t>(w >> 8);
  }
}

void SparseMemory::read(uint64_t off, uint8_t* dst, size_t n) const {
  while (n) {
    uint64_t page = off >> kPageBits;
    size_t in = static_cast<size_t>(off & (kPageSize - 1));
    size_t k = std::min<size_t>(n, kPageSize - in);
    if (pages_[page]) std::memcpy(dst, pages_[page].get() + in, k);
    else fillPattern(off, dst, k);
    off += k;
    dst += k;
    n -= k;
  }
}

bool SparseMemory::write(uint64_t off, const uint8_t* src, size_t n) {
  // Make every page first so that a spent budget leaves memory unchanged.
  size_t need = 0;
  for (uint64_t p = off >> kPageBits; p <= (off + n - 1) >> kPageBits && n; ++p)
    if (!pages_[p]) ++need;
  if (need * kPageSize > *budget_) return false;
  while (n) {
    uint64_t page = off >> kPageBits;
    size_t in = static_cast<size_t>(off & (kPageSize - 1));
    size_t k = std::min<size_t>(n, kPageSize - in);
    if (!pages_[page]) {
      pages_[page] = std::make_unique<uint8_t[]>(kPageSize);
      fillPattern(page << kPageBits, pages_[page].get(), kPageSize);
      *budget_ -= kPageSize;
    }
    std::memcpy(pages_[page].get() + in, src, k);
    off += k;
    src += k;
    n -= k;
  }
  return true;
}

// ---------------------------------------------------------------- device

namespace {
// Configuration register offsets.
constexpr unsigned kRegId = 0x00, kRegDevType = 0x02, kRegStatus = 0x04, kRegOffset = 0x06, kRegProtocol = 0x08,
                   kRegResponse = 0x0A, kRegDataHigh = 0x0C, kRegDataLow = 0x0E;
constexpr uint16_t kCtlEnable = 0x8000, kCtlSysfailInhibit = 0x0002, kCtlReset = 0x0001;

uint16_t be16(const uint8_t* p) { return static_cast<uint16_t>(p[0] << 8 | p[1]); }
}  // namespace

Device::Device(DeviceDesc desc, uint64_t* memBudget) : desc_(std::move(desc)) {
  if (uint32_t w = windowSize()) mem_ = std::make_unique<SparseMemory>(w, desc_.rampMemory, memBudget);
  if (messageBased()) engine_ = std::make_unique<MessageEngine>(desc_);
}

Device::~Device() = default;

uint32_t Device::windowSize() const {
  if (desc_.memSpace == Space::A24) return 1u << (23 - std::min(desc_.m, 15u));
  if (desc_.memSpace == Space::A32) return 1u << (31 - std::min(desc_.m, 15u));
  return 0;
}

uint32_t Device::windowBase() const {
  if (desc_.memSpace == Space::A24) return uint32_t(offset_) << 8;
  if (desc_.memSpace == Space::A32) return uint32_t(offset_) << 16;
  return 0;
}

void Device::reset(Clock::time_point now) {
  control_ = 0;
  dataHigh_ = 0;
  dataHighSet_ = false;
  ddRegs_.fill(0);
  fifo_.clear();
  for (unsigned k = 0; k < desc_.fifoSamples && fifo_.size() + 2 <= Mainframe::kFifoCapacity; ++k) {
    fifo_.push_back(static_cast<uint8_t>(k >> 8));
    fifo_.push_back(static_cast<uint8_t>(k));
  }
  if (engine_) engine_->reset(now);
}

int32_t Device::readReg(unsigned off, uint16_t* v, Clock::time_point now, std::vector<Interrupt>* irqs) {
  if (engine_) engine_->advance(now, irqs);
  switch (off) {
    case kRegId:
      *v = static_cast<uint16_t>(unsigned(desc_.cls) << 14 | (desc_.memSpace == Space::A32   ? 1u
                                                              : desc_.memSpace == Space::A24 ? 0u
                                                                                             : 3u)
                                                                << 12 |
                                 (desc_.manfId & 0xFFF));
      return 0;
    case kRegDevType:
      *v = static_cast<uint16_t>((windowSize() ? (std::min(desc_.m, 15u) << 12) : 0) | (desc_.modelCode & 0xFFF));
      return 0;
    case kRegStatus:
      // bit 15 window active, bit 14 MODID* (not asserted), bit 3 ready, bit 2 passed
      *v = static_cast<uint16_t>((windowEnabled() ? 0x8000 : 0) | 0x4000 | 0x0008 | (desc_.passed ? 0x0004 : 0));
      return 0;
    case kRegOffset:
      *v = offset_;
      return 0;
    default:
      break;
  }
  if (engine_) {
    switch (off) {
      case kRegProtocol: *v = engine_->protocolReg(); return 0;
      case kRegResponse: *v = engine_->responseReg(now); return 0;
      case kRegDataHigh: *v = static_cast<uint16_t>(engine_->peekResponse() >> 16); return 0;
      case kRegDataLow:
        if (!engine_->responsePending()) return vistatus::kBusError;  // nothing to read: a protocol violation
        *v = static_cast<uint16_t>(engine_->takeResponse());
        return 0;
      default: break;
    }
  }
  *v = be16(&ddRegs_[off]);
  return 0;
}

int32_t Device::writeReg(unsigned off, uint16_t v, Clock::time_point now, std::vector<Interrupt>* irqs) {
  switch (off) {
    case kRegId:  // logical address (dynamic configuration): fixed here
    case kRegDevType:
      return 0;
    case kRegStatus:
      if (v & kCtlReset) {
        reset(now);
        control_ = static_cast<uint16_t>(v & ~kCtlReset);
      } else {
        control_ = v;
      }
      (void)kCtlEnable;
      (void)kCtlSysfailInhibit;
      return 0;
    case kRegOffset:
      offset_ = v;
      return 0;
    default:
      break;
  }
  if (engine_) {
    switch (off) {
      case kRegProtocol: return 0;  // Signal register: events are not modelled
      case kRegResponse: return 0;
      case kRegDataHigh:
        dataHigh_ = v;
        dataHighSet_ = true;
        return 0;
      case kRegDataLow: {
        // A write of Data Low issues the command; with Data High written
        // before it, a longword command.
        bool lw = dataHighSet_;
        uint32_t cmd = lw ? (uint32_t(dataHigh_) << 16 | v) : v;
        dataHigh_ = 0;
        dataHighSet_ = false;
        auto r = engine_->command(cmd, lw, now, irqs);
        return r.status == vistatus::kTimeout ? vistatus::kBusError : r.status;
      }
      default: break;
    }
  }
  ddRegs_[off] = static_cast<uint8_t>(v >> 8);
  ddRegs_[off + 1] = static_cast<uint8_t>(v);
  return 0;
}

int32_t Device::fifoRead(unsigned width, uint32_t* v) {
  if (fifo_.size() < width) return vistatus::kBusError;  // empty FIFO
  uint32_t x = 0;
  for (unsigned i = 0; i < width; ++i) {
    x = x << 8 | fifo_.front();
    fifo_.pop_front();
  }
  *v = x;
  return 0;
}

int32_t Device::fifoWrite(unsigned width, uint32_t v) {
  if (fifo_.size() + width > Mainframe::kFifoCapacity) return vistatus::kBusError;  // full
  for (unsigned i = width; i-- > 0;) fifo_.push_back(static_cast<uint8_t>(v >> (8 * i)));
  return 0;
}

// ---------------------------------------------------------------- mainframe

Mainframe::Mainframe() = default;
Mainframe::~Mainframe() = default;

std::vector<DeviceDesc> Mainframe::defaultDescs() {
  std::vector<DeviceDesc> v;
  DeviceDesc d;
  d.name = "Controller";
  d.la = 0;
  d.slot = 0;
  d.manfId = 0xFFB;
  d.modelCode = 0x001;
  d.cls = DevClass::Message;
  d.kind = "controller";
  d.identity = "Simulated,LAN-VXI Bridge,SIM0001,1.0";
  v.push_back(d);

  d = DeviceDesc{};
  d.name = "Digitizer";
  d.la = 8;
  d.slot = 2;
  d.manfId = 0xFFB;
  d.modelCode = 0x210;
  d.cls = DevClass::Register;
  d.kind = "digitizer";
  d.memSpace = Space::A24;
  d.m = 5;  // 256 KiB
  d.irqLine = 2;
  d.fifoOffset = 0x20;
  d.fifoSamples = 4096;
  d.rampMemory = true;
  v.push_back(d);

  d = DeviceDesc{};
  d.name = "Multimeter";
  d.la = 16;
  d.slot = 3;
  d.manfId = 0xFFB;
  d.modelCode = 0x310;
  d.cls = DevClass::Message;
  d.kind = "dmm";
  d.identity = "Simulated,VXI Multimeter 6.5,SIM1016,2.1";
  d.irqLine = 1;
  d.longword = true;
  d.reading = 1.2345;
  v.push_back(d);

  d = DeviceDesc{};
  d.name = "Counter";
  d.la = 24;
  d.slot = 4;
  d.manfId = 0xFFB;
  d.modelCode = 0x420;
  d.cls = DevClass::Message;
  d.kind = "counter";
  d.identity = "Simulated,VXI Counter 225MHz,SIM1024,1.3";
  d.memSpace = Space::A32;
  d.m = 15;  // 64 KiB
  d.irqLine = 3;
  d.reading = 10.0e6;
  v.push_back(d);

  d = DeviceDesc{};
  d.name = "Switch";
  d.la = 32;
  d.slot = 5;
  d.manfId = 0xFFB;
  d.modelCode = 0x530;
  d.cls = DevClass::Message;
  d.kind = "switch";
  d.identity = "Simulated,VXI Switch 64ch,SIM1032,1.0";
  v.push_back(d);

  d = DeviceDesc{};
  d.name = "Memory";
  d.la = 40;
  d.slot = 6;
  d.manfId = 0xFFB;
  d.modelCode = 0x640;
  d.cls = DevClass::Memory;
  d.kind = "memory";
  d.memSpace = Space::A32;
  d.m = 8;  // 8 MiB
  v.push_back(d);
  return v;
}

void Mainframe::build(const MainframeInfo& info, const std::vector<DeviceDesc>& descs) {
  if (descs.size() > kMaxDevices)
    throw std::runtime_error("the mainframe lists " + std::to_string(descs.size()) + " devices; at most " +
                             std::to_string(kMaxDevices) + " are allowed");
  std::vector<DeviceDesc> s = descs;
  std::stable_sort(s.begin(), s.end(), [](const DeviceDesc& a, const DeviceDesc& b) { return a.la < b.la; });
  for (const auto& d : s) {
    const std::string who = "device \"" + d.name + "\"";
    if (d.la > 255) throw std::runtime_error(who + ": logical address " + std::to_string(d.la) + " is not 0-255");
    if (d.irqLine < 1 || d.irqLine > 7) throw std::runtime_error(who + ": interrupt line must be 1-7");
    if (d.memSpace != Space::None && d.memSpace != Space::A24 && d.memSpace != Space::A32)
      throw std::runtime_error(who + ": memory space must be A24 or A32");
    if (d.m > 15) throw std::runtime_error(who + ": required memory code m must be 0-15");
    if (d.fifoOffset >= 0 && (d.fifoOffset < 0x10 || d.fifoOffset > 0x3C || d.fifoOffset % 4))
      throw std::runtime_error(who + ": FIFO register offset must be a multiple of 4 in 0x10-0x3C");
    if (d.manfId > 0xFFF || d.modelCode > 0xFFF)
      throw std::runtime_error(who + ": manufacturer id and model code are 12-bit values");
    if (d.cls == DevClass::Message && d.fifoOffset >= 0 && d.fifoOffset < 0x10)
      throw std::runtime_error(who + ": FIFO register overlaps the message registers");
  }
  for (size_t i = 1; i < s.size(); ++i)
    if (s[i].la == s[i - 1].la)
      throw std::runtime_error("devices \"" + s[i - 1].name + "\" and \"" + s[i].name +
                               "\" share logical address " + std::to_string(s[i].la));
  info_ = info;
  devices_.clear();
  byLa_.fill(nullptr);
  lastHit_ = nullptr;
  memBudget_ = kMemoryBudget;
  for (auto& d : s) {
    devices_.push_back(std::make_unique<Device>(d, &memBudget_));
    byLa_[d.la] = devices_.back().get();
  }
  reset(Clock::now() - std::chrono::seconds(1));
}

void Mainframe::configure() {
  // Fixed offsets first; then the others in order of decreasing window size,
  // each at the lowest free place aligned to its size.
  struct Placed {
    uint64_t base, size;
    std::string name;
  };
  for (Space sp : {Space::A24, Space::A32}) {
    std::vector<Placed> used;
    std::vector<Device*> todo;
    const uint64_t spaceEnd = sp == Space::A24 ? (1ull << 24) : (1ull << 32);
    for (auto& d : devices_) {
      if (d->desc().memSpace != sp || !d->windowSize()) continue;
      if (d->desc().offsetReg) {
        d->setOffsetReg(static_cast<uint16_t>(*d->desc().offsetReg));
        uint64_t base = d->windowBase(), size = d->windowSize();
        if (base % size || base + size > spaceEnd)
          throw std::runtime_error("device \"" + d->desc().name + "\": its window is not aligned to its size");
        for (auto& u : used)
          if (base < u.base + u.size && u.base < base + size)
            throw std::runtime_error("devices \"" + u.name + "\" and \"" + d->desc().name +
                                     "\" have overlapping windows");
        used.push_back({base, size, d->desc().name});
      } else {
        todo.push_back(d.get());
      }
    }
    std::stable_sort(todo.begin(), todo.end(),
                     [](Device* a, Device* b) { return a->windowSize() > b->windowSize(); });
    const uint64_t start = sp == Space::A24 ? kA24AllocBase : kA32AllocBase;
    for (Device* d : todo) {
      // the lowest aligned place above the start that nothing uses yet
      uint64_t size = d->windowSize();
      uint64_t base = (start + size - 1) / size * size;
      for (bool moved = true; moved;) {
        moved = false;
        for (auto& u : used)
          if (base < u.base + u.size && u.base < base + size) {
            base = (u.base + u.size + size - 1) / size * size;
            moved = true;
          }
      }
      if (base + size > spaceEnd)
        throw std::runtime_error("device \"" + d->desc().name + "\": no room for its window");
      d->setOffsetReg(static_cast<uint16_t>(sp == Space::A24 ? base >> 8 : base >> 16));
      used.push_back({base, size, d->desc().name});
    }
  }
  for (auto& d : devices_) {
    uint16_t c = d->controlReg();
    if (d->windowSize()) c |= kCtlEnable;
    d->writeReg(kRegStatus, c, Clock::now(), nullptr);
  }
}

void Mainframe::reset(Clock::time_point now) {
  for (auto& d : devices_) d->reset(now);
  configure();
  // The resource manager needs a moment after SYSRESET before the system
  // reports itself ready again.
  readyAt_ = now + std::chrono::milliseconds(100);
  lastHit_ = nullptr;
}

bool Mainframe::sysfail() const {
  for (auto& d : devices_)
    if (d->sysfail()) return true;
  return false;
}

bool Mainframe::decode(Space sp, uint32_t addr, Target* t) {
  if (sp == Space::A16) {
    if (addr < 0xC000 || addr > 0xFFFF) return false;
    Device* d = byLa_[(addr - 0xC000) >> 6];
    if (!d) return false;
    *t = {d, true, (addr - 0xC000) & 0x3F, 0x40 - ((addr - 0xC000) & 0x3F)};
    return true;
  }
  auto hit = [&](Device* d) {
    if (!d || d->desc().memSpace != sp || !d->windowEnabled()) return false;
    uint64_t base = d->windowBase(), size = d->windowSize();
    if (addr < base || addr >= base + size) return false;
    *t = {d, false, static_cast<uint32_t>(addr - base), static_cast<uint32_t>(base + size - addr)};
    return true;
  };
  if (hit(lastHit_)) return true;
  for (auto& d : devices_)
    if (hit(d.get())) {
      lastHit_ = d.get();
      return true;
    }
  return false;
}

int32_t Mainframe::read(Space sp, uint32_t addr, unsigned width, uint32_t* value, Clock::time_point now,
                        std::vector<Interrupt>* irqs) {
  Target t;
  if (!decode(sp, addr, &t) || t.limit < width || addr % width) return vistatus::kBusError;
  if (!t.config) {
    uint8_t b[4];
    t.dev->memory()->read(t.off, b, width);
    uint32_t v = 0;
    for (unsigned i = 0; i < width; ++i) v = v << 8 | b[i];
    *value = v;
    return 0;
  }
  if (t.dev->isFifo(t.off)) return t.dev->fifoRead(width, value);
  // Registers are 16 bits: a byte reads one half, a longword two registers.
  uint16_t r0 = 0, r1 = 0;
  unsigned reg = t.off & ~1u;
  int32_t st = t.dev->readReg(reg, &r0, now, irqs);
  if (st < 0) return st;
  if (width == 4) {
    st = t.dev->readReg(reg + 2, &r1, now, irqs);
    if (st < 0) return st;
    *value = uint32_t(r0) << 16 | r1;
  } else if (width == 2) {
    *value = r0;
  } else {
    *value = (t.off & 1) ? (r0 & 0xFF) : (r0 >> 8);
  }
  return 0;
}

int32_t Mainframe::write(Space sp, uint32_t addr, unsigned width, uint32_t value, Clock::time_point now,
                         std::vector<Interrupt>* irqs) {
  Target t;
  if (!decode(sp, addr, &t) || t.limit < width || addr % width) return vistatus::kBusError;
  if (!t.config) {
    uint8_t b[4];
    for (unsigned i = 0; i < width; ++i) b[i] = static_cast<uint8_t>(value >> (8 * (width - 1 - i)));
    return t.dev->memory()->write(t.off, b, width) ? 0 : vistatus::kBusError;
  }
  if (t.dev->isFifo(t.off)) return t.dev->fifoWrite(width, value);
  unsigned reg = t.off & ~1u;
  if (width == 4) {
    // Data High before Data Low: a longword write of 0x0C is one longword
    // Word Serial command.
    int32_t st = t.dev->writeReg(reg, static_cast<uint16_t>(value >> 16), now, irqs);
    if (st < 0) return st;
    return t.dev->writeReg(reg + 2, static_cast<uint16_t>(value), now, irqs);
  }
  if (width == 2) return t.dev->writeReg(reg, static_cast<uint16_t>(value), now, irqs);
  // A byte write merges into the register (read without side effects first).
  uint16_t old = 0;
  if (reg == kRegStatus) old = t.dev->controlReg();
  else if (reg == kRegDataLow || reg == kRegDataHigh || reg == kRegResponse) old = 0;
  else if (int32_t st = t.dev->readReg(reg, &old, now, irqs); st < 0) return st;
  uint16_t v = (t.off & 1) ? static_cast<uint16_t>((old & 0xFF00) | (value & 0xFF))
                           : static_cast<uint16_t>((old & 0x00FF) | (value & 0xFF) << 8);
  return t.dev->writeReg(reg, v, now, irqs);
}

namespace {
void putHost(uint8_t* p, unsigned width, uint32_t v) {
  for (unsigned i = 0; i < width; ++i) p[i] = static_cast<uint8_t>(v >> (8 * i));
}
uint32_t getHost(const uint8_t* p, unsigned width) {
  uint32_t v = 0;
  for (unsigned i = width; i-- > 0;) v = v << 8 | p[i];
  return v;
}
// Bus order (big-endian) and host order (little-endian) elements differ by a
// reversal of each element's bytes.
void reverseElements(uint8_t* p, size_t count, unsigned width) {
  if (width == 1) return;
  for (size_t i = 0; i < count; ++i, p += width) std::reverse(p, p + width);
}
}  // namespace

int32_t Mainframe::readBlock(Space sp, uint32_t addr, unsigned width, bool inc, uint32_t count, uint8_t* out,
                             uint32_t* done, Clock::time_point now, std::vector<Interrupt>* irqs) {
  *done = 0;
  Target t;
  if (count && inc && addr % width == 0 && decode(sp, addr, &t) && !t.config) {
    // Fast path: straight out of the window's memory.
    uint32_t n = std::min<uint32_t>(count, t.limit / width);
    t.dev->memory()->read(t.off, out, size_t(n) * width);
    reverseElements(out, n, width);
    *done = n;
    if (n == count) return 0;
    addr += n * width;
    out += size_t(n) * width;
    count -= n;
  }
  for (uint32_t i = 0; i < count; ++i) {
    uint32_t v = 0;
    int32_t st = read(sp, addr, width, &v, now, irqs);
    if (st < 0) return st;
    putHost(out, width, v);
    out += width;
    ++*done;
    if (inc) addr += width;
  }
  return 0;
}

int32_t Mainframe::writeBlock(Space sp, uint32_t addr, unsigned width, bool inc, uint32_t count, const uint8_t* in,
                              uint32_t* done, Clock::time_point now, std::vector<Interrupt>* irqs) {
  *done = 0;
  Target t;
  if (count && inc && addr % width == 0 && decode(sp, addr, &t) && !t.config) {
    uint32_t n = std::min<uint32_t>(count, t.limit / width);
    std::vector<uint8_t> bus(in, in + size_t(n) * width);
    reverseElements(bus.data(), n, width);
    if (!t.dev->memory()->write(t.off, bus.data(), bus.size())) return vistatus::kBusError;
    *done = n;
    if (n == count) return 0;
    addr += n * width;
    in += size_t(n) * width;
    count -= n;
  }
  for (uint32_t i = 0; i < count; ++i) {
    int32_t st = write(sp, addr, width, getHost(in, width), now, irqs);
    if (st < 0) return st;
    in += width;
    ++*done;
    if (inc) addr += width;
  }
  return 0;
}

std::string Mainframe::resourceText() const {
  std::string s = "[COMMON]\nNumInstr=" + std::to_string(devices_.size()) + "\n";
  int n = 0;
  char line[160];
  for (const auto& d : devices_) {
    const DeviceDesc& sp = d->desc();
    uint32_t a24o = 0, a24s = 0, a32o = 0, a32s = 0;
    if (sp.memSpace == Space::A24) a24o = d->windowBase(), a24s = d->windowSize();
    if (sp.memSpace == Space::A32) a32o = d->windowBase(), a32s = d->windowSize();
    std::snprintf(line, sizeof line, "[INSTR%d]\nINTF_NUM=%u\nRSRC_NAME=VXI%u::%u::INSTR\n", ++n, info_.intfNum,
                  info_.board, sp.la);
    s += line;
    std::snprintf(line, sizeof line, "VXI_LA=%u\nMAINFRAME_LA=0\nMANF_ID=%u\nMODEL_CODE=%u\nSLOT=%u\n", sp.la,
                  sp.manfId, sp.modelCode, sp.slot);
    s += line;
    std::snprintf(line, sizeof line, "VXI_DEV_CLASS=%u\noffsetA16=%u\nsizeA16=64\n", unsigned(sp.cls),
                  0xC000u + 0x40u * sp.la);
    s += line;
    std::snprintf(line, sizeof line, "offsetA24=%u\nsizeA24=%u\noffsetA32=%u\nsizeA32=%u\n", a24o, a24s, a32o,
                  a32s);
    s += line;
  }
  return s;
}

}  // namespace bridgesim
