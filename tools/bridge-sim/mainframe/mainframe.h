// The simulated VXI mainframe behind the bridge: devices with their A16
// configuration registers, A24/A32 memory windows, FIFO registers and, for
// message-based devices, a Word Serial message engine.
//
// Not thread-safe on its own: the Bridge serialises every call with its
// mutex.  Times are passed in (steady clock) so that the model never sleeps.
#ifndef BRIDGESIM_MAINFRAME_H
#define BRIDGESIM_MAINFRAME_H

#include <array>
#include <chrono>
#include <cstdint>
#include <deque>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace bridgesim {

using Clock = std::chrono::steady_clock;

// VISA status codes the bridge answers with.
namespace vistatus {
inline constexpr int32_t kSuccess = 0;
inline constexpr int32_t kSystemError = static_cast<int32_t>(0xBFFF0000);  // VI_ERROR_SYSTEM_ERROR
inline constexpr int32_t kLocked = static_cast<int32_t>(0xBFFF000F);       // VI_ERROR_RSRC_LOCKED
inline constexpr int32_t kTimeout = static_cast<int32_t>(0xBFFF0015);      // VI_ERROR_TMO: "not ready yet"
inline constexpr int32_t kBusError = static_cast<int32_t>(0xBFFF0038);     // VI_ERROR_BERR
inline constexpr int32_t kIoError = static_cast<int32_t>(0xBFFF003E);      // VI_ERROR_IO: malformed command
inline constexpr int32_t kInvalidSpace = static_cast<int32_t>(0xBFFF004E); // VI_ERROR_INV_SPACE
inline constexpr int32_t kNotSupported = static_cast<int32_t>(0xBFFF0067); // VI_ERROR_NSUP_OPER
}  // namespace vistatus

// VXI device classes, as in bits 15-14 of the ID register (and as VISA's
// VI_ATTR_VXI_DEV_CLASS numbers them).
enum class DevClass : uint8_t { Memory = 0, Extended = 1, Message = 2, Register = 3 };

// Address spaces, numbered as VISA numbers them.
enum class Space : uint8_t { None = 0, A16 = 1, A24 = 2, A32 = 3 };

// What a device is, as the default mainframe or an INI file describes it.
struct DeviceDesc {
  std::string name;             // section name, for messages
  unsigned la = 0;              // logical address 0-255
  unsigned slot = 0;
  unsigned manfId = 0xFFB;      // 12 bits
  unsigned modelCode = 0;       // 12 bits
  DevClass cls = DevClass::Register;
  std::string kind = "memory";  // controller, dmm, counter, switch, source, digitizer, memory
  Space memSpace = Space::None; // A24 or A32 window, None for A16 only
  unsigned m = 0;               // required memory code: window is 2^(23-m) (A24) or 2^(31-m) (A32) bytes
  std::optional<uint32_t> offsetReg;  // fixed Offset register value; absent: the resource manager picks one
  unsigned irqLine = 1;         // interrupt line 1-7 for this device's interrupts
  std::string identity;         // *IDN? answer of a message-based device
  bool passed = true;           // self-test result (Status bit 2); a failed device asserts SYSFAIL
  int fifoOffset = -1;          // FIFO register in the configuration area (0x10-0x3C, multiple of 4); -1: none
  unsigned fifoSamples = 0;     // the FIFO holds this many 16-bit ramp samples after a reset
  unsigned measDelayMs = 50;    // how long a measurement takes
  double reading = 0;           // the value a measurement gives (0: the kind's usual value)
  bool longword = false;        // accepts 32-bit (longword) Word Serial commands
  bool rampMemory = false;      // memory starts as a 16-bit big-endian ramp instead of zeros
};

// Sparse memory behind a window: 64 KiB pages made on first write; pages
// never written read as their initial pattern.
class SparseMemory {
 public:
  static constexpr uint32_t kPageBits = 16;
  static constexpr uint32_t kPageSize = 1u << kPageBits;
  SparseMemory(uint64_t size, bool ramp, uint64_t* budget);
  uint64_t size() const { return size_; }
  void read(uint64_t off, uint8_t* dst, size_t n) const;
  // false when the mainframe's memory budget is spent (nothing written then)
  bool write(uint64_t off, const uint8_t* src, size_t n);

 private:
  void fillPattern(uint64_t off, uint8_t* dst, size_t n) const;
  uint64_t size_;
  bool ramp_;
  uint64_t* budget_;
  std::vector<std::unique_ptr<uint8_t[]>> pages_;
};

class MessageEngine;  // wordserial.h

// One interrupt to report: line and status/ID.
struct Interrupt {
  uint32_t line = 1;
  uint32_t statId = 0;
};

// One bus cycle as the bridge would run it, kept for inspection.
struct BusCycle {
  Space space = Space::None;
  unsigned width = 0;       // bytes
  bool privileged = false;  // supervisory access
  bool program = false;
  bool block = false;
  uint8_t am = 0;           // VME address modifier code of the cycle
  uint32_t address = 0;
};

class Device {
 public:
  explicit Device(DeviceDesc desc, uint64_t* memBudget);
  ~Device();
  const DeviceDesc& desc() const { return desc_; }
  bool messageBased() const { return desc_.cls == DevClass::Message; }
  uint32_t windowSize() const;  // 0 without a window
  uint32_t windowBase() const;  // from the Offset register
  bool windowEnabled() const { return windowSize() && (control_ & 0x8000); }
  uint16_t offsetReg() const { return offset_; }
  void setOffsetReg(uint16_t v) { offset_ = v; }
  uint16_t controlReg() const { return control_; }
  bool sysfail() const { return !desc_.passed && !(control_ & 0x0002); }
  MessageEngine* engine() { return engine_.get(); }

  // Configuration register of 16 bits at an even offset 0-0x3E.  Reads may
  // have side effects (Data Low, FIFO); `consume` false peeks.
  int32_t readReg(unsigned off, uint16_t* v, Clock::time_point now, std::vector<Interrupt>* irqs);
  int32_t writeReg(unsigned off, uint16_t v, Clock::time_point now, std::vector<Interrupt>* irqs);
  // FIFO access of 1, 2 or 4 bytes (big-endian)
  int32_t fifoRead(unsigned width, uint32_t* v);
  int32_t fifoWrite(unsigned width, uint32_t v);
  bool isFifo(unsigned off) const {
    return desc_.fifoOffset >= 0 && off >= unsigned(desc_.fifoOffset) && off < unsigned(desc_.fifoOffset) + 4;
  }
  SparseMemory* memory() { return mem_.get(); }

  // Power-on / SYSRESET state (memory contents survive).
  void reset(Clock::time_point now);

 private:
  DeviceDesc desc_;
  uint16_t control_ = 0;
  uint16_t offset_ = 0;
  uint16_t dataHigh_ = 0;
  bool dataHighSet_ = false;  // a longword command is being written
  std::array<uint8_t, 64> ddRegs_{};  // device-dependent registers, plain storage
  std::unique_ptr<SparseMemory> mem_;
  std::deque<uint8_t> fifo_;
  std::unique_ptr<MessageEngine> engine_;
};

struct MainframeInfo {
  std::string name = "default";
  unsigned intfNum = 1;  // INTF_NUM of every instrument in the resource text (the driver needs >= 1)
  unsigned board = 0;    // the N of "VXIN::LA::INSTR"
};

class Mainframe {
 public:
  static constexpr unsigned kMaxDevices = 64;          // what the driver can list per interface
  static constexpr uint64_t kMemoryBudget = 256u << 20; // bytes of memory pages a mainframe may make
  static constexpr uint32_t kA24AllocBase = 0x200000;   // the resource manager places A24 windows from here
  static constexpr uint32_t kA32AllocBase = 0x20000000; // and A32 windows from here
  static constexpr uint32_t kFifoCapacity = 1u << 20;   // bytes a FIFO register holds

  Mainframe();  // empty; use makeDefault() or loadIni()
  ~Mainframe();
  Mainframe(const Mainframe&) = delete;
  Mainframe& operator=(const Mainframe&) = delete;

  // Builds the mainframe; throws std::runtime_error on an inconsistent set
  // (duplicate logical address, overlapping or misaligned fixed windows...).
  void build(const MainframeInfo& info, const std::vector<DeviceDesc>& descs);
  static std::vector<DeviceDesc> defaultDescs();
  // Reads a description; throws std::runtime_error with the reason.
  static void loadIni(const std::string& path, MainframeInfo* info, std::vector<DeviceDesc>* descs);

  const MainframeInfo& info() const { return info_; }
  size_t deviceCount() const { return devices_.size(); }
  Device& device(size_t i) { return *devices_[i]; }
  Device* deviceAt(unsigned la) { return la < 256 ? byLa_[la] : nullptr; }

  // SYSRESET followed by the resource manager's configuration.
  void reset(Clock::time_point now);
  Clock::time_point readySince() const { return readyAt_; }
  bool sysfail() const;

  // Single accesses: width 1, 2 or 4; the value in the low bits.
  int32_t read(Space sp, uint32_t addr, unsigned width, uint32_t* value, Clock::time_point now,
               std::vector<Interrupt>* irqs);
  int32_t write(Space sp, uint32_t addr, unsigned width, uint32_t value, Clock::time_point now,
                std::vector<Interrupt>* irqs);
  // Block accesses: elements in host order (little-endian), packed.  *done
  // gets the elements moved; the status says why it stopped early.
  int32_t readBlock(Space sp, uint32_t addr, unsigned width, bool inc, uint32_t count, uint8_t* out,
                    uint32_t* done, Clock::time_point now, std::vector<Interrupt>* irqs);
  int32_t writeBlock(Space sp, uint32_t addr, unsigned width, bool inc, uint32_t count, const uint8_t* in,
                     uint32_t* done, Clock::time_point now, std::vector<Interrupt>* irqs);

  std::string resourceText() const;

  BusCycle lastCycle() const { return last_; }
  void noteCycle(const BusCycle& c) { last_ = c; }

 private:
  struct Target {
    Device* dev = nullptr;
    bool config = false;  // configuration registers (A16) rather than memory
    uint32_t off = 0;     // offset within the registers or the window
    uint32_t limit = 0;   // bytes from off to the end of the region
  };
  bool decode(Space sp, uint32_t addr, Target* t);
  void configure();  // the resource manager: offsets and window enables

  MainframeInfo info_;
  std::vector<std::unique_ptr<Device>> devices_;  // sorted by logical address
  std::array<Device*, 256> byLa_{};
  uint64_t memBudget_ = kMemoryBudget;
  Clock::time_point readyAt_{};
  BusCycle last_;
  Device* lastHit_ = nullptr;
};

}  // namespace bridgesim

#endif
