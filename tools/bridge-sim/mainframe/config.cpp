// Mainframe descriptions in INI form.
//
// One optional section [MAINFRAME] with
//   NAME=text        a name for messages
//   INTF_NUM=n       INTF_NUM given for every instrument in the resource text (>= 1; default 1)
//   BOARD=n          the N of the resource names "VXIN::LA::INSTR" (default 0)
// and one section per device, named freely (the name shows in messages):
//   LA=n             logical address 0-255 (required)
//   SLOT=n           slot number (default 0)
//   CLASS=c          message | register | memory | extended (default register)
//   KIND=k           controller | dmm | counter | switch | source | digitizer | memory
//                    (what a message-based device understands; default memory)
//   MANF_ID=n        12-bit manufacturer id (default 0xFFB)
//   MODEL_CODE=n     12-bit model code (default 0)
//   SPACE=s          A24 | A32 | none: the memory window (default none)
//   M=n              required memory code 0-15: the window is 2^(23-m) (A24) or 2^(31-m) (A32) bytes
//   OFFSET=n         fixed Offset register value (default: the resource manager picks one)
//   IRQ=n            interrupt line 1-7 (default 1)
//   IDN=text         *IDN? answer of a message-based device (default "Simulated,<section>,SIM<LA>,1.0")
//   PASSED=0|1       self-test result; a failed device asserts SYSFAIL (default 1)
//   FIFO=n           FIFO register offset in the configuration registers (0x10-0x3C, multiple of 4)
//   FIFO_SAMPLES=n   16-bit ramp samples in the FIFO after a reset (default 0)
//   MEAS_DELAY_MS=n  how long a measurement takes (default 50)
//   READING=x        the value measurements give (default: the kind's usual value)
//   LONGWORD=0|1     accepts 32-bit Word Serial commands (default 0)
//   MEMORY=zero|ramp initial memory content (default zero)
// Numbers are decimal or hexadecimal with 0x.  Unknown keys are refused, so
// that a misspelt key does not silently fall back to its default.
#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <set>
#include <stdexcept>
#include <string>

#include "inifile.h"
#include "mainframe.h"

namespace bridgesim {

namespace {

struct IniDoc {
  IniText t = nullptr;
  ~IniDoc() { Ini_Dispose(t); }
};

std::string lower(std::string s) {
  for (char& c : s) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return s;
}

bool parseUnsigned(const std::string& s, unsigned long long max, unsigned long long* v) {
  if (s.empty()) return false;
  const char* p = s.c_str();
  int base = 10;
  if (s.size() > 2 && p[0] == '0' && (p[1] == 'x' || p[1] == 'X')) {
    base = 16;
    p += 2;
  }
  if (!std::isxdigit(static_cast<unsigned char>(*p))) return false;
  char* end = nullptr;
  errno = 0;
  unsigned long long x = std::strtoull(p, &end, base);
  if (errno || *end || x > max) return false;
  *v = x;
  return true;
}

class Section {
 public:
  Section(IniText t, std::string name, std::string file) : t_(t), name_(std::move(name)), file_(std::move(file)) {}

  bool has(const char* key) const { return Ini_ItemExists(t_, name_.c_str(), key) == 1; }

  std::string str(const char* key, const std::string& def) const {
    if (!has(key)) return def;
    char buf[512];
    std::memset(buf, 0, sizeof buf);
    // the reader copies without a terminator when the value fills the limit
    Ini_GetStringIntoBuffer(t_, name_.c_str(), key, buf, sizeof buf - 1);
    return buf;
  }

  unsigned long long num(const char* key, unsigned long long def, unsigned long long max) const {
    if (!has(key)) return def;
    unsigned long long v = 0;
    if (!parseUnsigned(str(key, ""), max, &v)) fail(std::string(key) + " must be a number from 0 to " + std::to_string(max));
    return v;
  }

  [[noreturn]] void fail(const std::string& what) const {
    throw std::runtime_error(file_ + ": [" + name_ + "]: " + what);
  }

  void checkKeys(const std::set<std::string>& known) const {
    int n = Ini_NumberOfItems(t_, name_.c_str());
    for (int i = 1; i <= n; ++i) {
      char* item = nullptr;
      if (Ini_NthItemName(t_, name_.c_str(), i, &item) != 1 || !item) continue;
      if (!known.count(lower(item))) fail(std::string("unknown key \"") + item + "\"");
    }
  }

  const std::string& name() const { return name_; }

 private:
  IniText t_;
  std::string name_, file_;
};

}  // namespace

void Mainframe::loadIni(const std::string& path, MainframeInfo* info, std::vector<DeviceDesc>* descs) {
  IniDoc doc;
  doc.t = Ini_New(0);
  if (!doc.t) throw std::runtime_error("out of memory reading " + path);
  if (Ini_ReadFromFile(doc.t, path.c_str()) < 0) throw std::runtime_error("cannot read mainframe file " + path);

  *info = MainframeInfo{};
  descs->clear();
  std::set<std::string> seen;
  const int n = Ini_NumberOfSections(doc.t);
  for (int i = 1; i <= n; ++i) {
    char* name = nullptr;
    if (Ini_NthSectionName(doc.t, i, &name) != 1 || !name) continue;
    if (!seen.insert(lower(name)).second)
      throw std::runtime_error(path + ": section [" + name + "] appears twice");
    Section s(doc.t, name, path);
    if (lower(name) == "mainframe") {
      s.checkKeys({"name", "intf_num", "board"});
      info->name = s.str("NAME", info->name);
      info->intfNum = static_cast<unsigned>(s.num("INTF_NUM", 1, 0xFFFF));
      if (info->intfNum < 1) s.fail("INTF_NUM must be 1 or more (the driver skips instruments of 0)");
      info->board = static_cast<unsigned>(s.num("BOARD", 0, 255));
      continue;
    }
    s.checkKeys({"la", "slot", "class", "kind", "manf_id", "model_code", "space", "m", "offset", "irq", "idn",
                 "passed", "fifo", "fifo_samples", "meas_delay_ms", "reading", "longword", "memory"});
    if (descs->size() >= kMaxDevices)
      throw std::runtime_error(path + ": more than " + std::to_string(kMaxDevices) + " devices");
    DeviceDesc d;
    d.name = name;
    if (!s.has("LA")) s.fail("LA (logical address) is required");
    d.la = static_cast<unsigned>(s.num("LA", 0, 255));
    d.slot = static_cast<unsigned>(s.num("SLOT", 0, 255));
    std::string cls = lower(s.str("CLASS", "register"));
    if (cls == "message") d.cls = DevClass::Message;
    else if (cls == "register") d.cls = DevClass::Register;
    else if (cls == "memory") d.cls = DevClass::Memory;
    else if (cls == "extended") d.cls = DevClass::Extended;
    else s.fail("CLASS must be message, register, memory or extended");
    d.kind = lower(s.str("KIND", d.cls == DevClass::Message ? "controller" : "memory"));
    static const std::set<std::string> kinds = {"controller", "dmm", "counter", "switch",
                                                "source", "digitizer", "memory"};
    if (!kinds.count(d.kind)) s.fail("unknown KIND \"" + d.kind + "\"");
    d.manfId = static_cast<unsigned>(s.num("MANF_ID", 0xFFB, 0xFFF));
    d.modelCode = static_cast<unsigned>(s.num("MODEL_CODE", 0, 0xFFF));
    std::string sp = lower(s.str("SPACE", "none"));
    if (sp == "a24") d.memSpace = Space::A24;
    else if (sp == "a32") d.memSpace = Space::A32;
    else if (sp == "none" || sp == "a16") d.memSpace = Space::None;
    else s.fail("SPACE must be A24, A32 or none");
    d.m = static_cast<unsigned>(s.num("M", 0, 15));
    if (s.has("OFFSET")) d.offsetReg = static_cast<uint32_t>(s.num("OFFSET", 0, 0xFFFF));
    d.irqLine = static_cast<unsigned>(s.num("IRQ", 1, 7));
    if (d.irqLine < 1) s.fail("IRQ must be 1-7");
    if (d.cls == DevClass::Message)
      d.identity = s.str("IDN", "Simulated," + d.name + ",SIM" + std::to_string(d.la) + ",1.0");
    d.passed = s.num("PASSED", 1, 1) != 0;
    d.fifoOffset = s.has("FIFO") ? static_cast<int>(s.num("FIFO", 0, 0x3C)) : -1;
    d.fifoSamples = static_cast<unsigned>(s.num("FIFO_SAMPLES", 0, kFifoCapacity / 2));
    d.measDelayMs = static_cast<unsigned>(s.num("MEAS_DELAY_MS", 50, 60000));
    if (s.has("READING")) {
      std::string r = s.str("READING", "");
      char* end = nullptr;
      d.reading = std::strtod(r.c_str(), &end);
      if (r.empty() || *end) s.fail("READING must be a number");
    }
    d.longword = s.num("LONGWORD", 0, 1) != 0;
    std::string mem = lower(s.str("MEMORY", "zero"));
    if (mem == "ramp") d.rampMemory = true;
    else if (mem != "zero") s.fail("MEMORY must be zero or ramp");
    descs->push_back(std::move(d));
  }
  if (descs->empty()) throw std::runtime_error(path + ": no device described");
}

}  // namespace bridgesim
