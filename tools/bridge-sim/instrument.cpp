#include "instrument.h"

#include <algorithm>
#include <cctype>
#include <charconv>
#include <string>

namespace bridgesim {

namespace {

// Error queue depth: 488.2 asks for a bounded queue whose last entry turns
// into "Queue overflow" when it fills up.
constexpr size_t kErrorQueueDepth = 10;

std::string_view trim(std::string_view s) {
  while (!s.empty() && std::isspace(static_cast<unsigned char>(s.front()))) s.remove_prefix(1);
  while (!s.empty() && std::isspace(static_cast<unsigned char>(s.back()))) s.remove_suffix(1);
  return s;
}

std::string upper(std::string_view s) {
  std::string u(s);
  for (char& c : u) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  return u;
}

bool parseByte(std::string_view s, uint8_t* out) {
  s = trim(s);
  unsigned v = 0;
  auto r = std::from_chars(s.data(), s.data() + s.size(), v);
  if (r.ec != std::errc() || r.ptr != s.data() + s.size() || v > 255) return false;
  *out = static_cast<uint8_t>(v);
  return true;
}

}  // namespace

uint8_t MessageInstrument::stbLocked() const {
  uint8_t stb = 0;
  if (!errors_.empty()) stb |= 0x04;
  if (esr_ & ese_) stb |= 0x20;
  if (stb & sre_ & static_cast<uint8_t>(~0x40)) stb |= 0x40;
  return stb;
}

uint8_t MessageInstrument::statusByte() const {
  std::lock_guard<std::mutex> g(m_);
  return stbLocked();
}

void MessageInstrument::pushError(int code, const char* text) {
  esr_ |= (code <= -100 && code > -200) ? 0x20 : 0x10;  // command error : execution error
  if (errors_.size() >= kErrorQueueDepth) {
    errors_.back() = "-350,\"Queue overflow\"";
    return;
  }
  errors_.push_back(std::to_string(code) + ",\"" + text + "\"");
}

void MessageInstrument::deviceClear() {
  // Input and output are not buffered here beyond one message, so there is
  // nothing to forget; registers stay as they are.
}

void MessageInstrument::trigger() {
  std::lock_guard<std::mutex> g(m_);
  ++triggers_;
}

uint32_t MessageInstrument::triggers() const {
  std::lock_guard<std::mutex> g(m_);
  return triggers_;
}

std::string MessageInstrument::run(std::string_view cmd, bool* isQuery) {
  std::string_view head = cmd, arg;
  size_t sp = cmd.find_first_of(" \t");
  if (sp != std::string_view::npos) {
    head = cmd.substr(0, sp);
    arg = trim(cmd.substr(sp + 1));
  }
  const std::string h = upper(head);
  *isQuery = !h.empty() && h.back() == '?';

  if (h == "*IDN?") return kIdentity;
  if (h == "*STB?") return std::to_string(stbLocked());
  if (h == "*OPC?") return "1";
  if (h == "*TST?") return "0";
  if (h == "*ESR?") {
    uint8_t v = esr_;
    esr_ = 0;
    return std::to_string(v);
  }
  if (h == "*ESE?") return std::to_string(ese_);
  if (h == "*SRE?") return std::to_string(sre_);
  if (h == "SYST:ERR?" || h == "SYSTEM:ERROR?" || h == "SYST:ERR:NEXT?" || h == "SYSTEM:ERROR:NEXT?") {
    if (errors_.empty()) return "0,\"No error\"";
    std::string e = errors_.front();
    errors_.pop_front();
    return e;
  }
  if (h == "SYST:VERS?" || h == "SYSTEM:VERSION?") return "1999.0";
  if (h == "*TRG?" || h == "TRIG:COUN?") return std::to_string(triggers_);
  if (h == "*CLS") {
    esr_ = 0;
    errors_.clear();
    return {};
  }
  if (h == "*RST") {
    ++resets_;
    triggers_ = 0;
    return {};
  }
  if (h == "*OPC") {
    esr_ |= 0x01;
    return {};
  }
  if (h == "*WAI") return {};
  if (h == "*TRG") {
    ++triggers_;
    return {};
  }
  if (h == "*ESE" || h == "*SRE") {
    uint8_t v;
    if (!parseByte(arg, &v)) {
      pushError(-224, "Illegal parameter value");
      return {};
    }
    (h == "*ESE" ? ese_ : sre_) = static_cast<uint8_t>(h == "*SRE" ? (v & ~0x40) : v);
    return {};
  }
  pushError(-113, "Undefined header");
  *isQuery = false;  // an unknown query produces no answer
  return {};
}

std::string MessageInstrument::execute(std::string_view message, bool* srqRaised) {
  std::lock_guard<std::mutex> g(m_);
  const bool mssBefore = (stbLocked() & 0x40) != 0;
  std::string out;
  bool any = false;
  size_t pos = 0;
  while (pos <= message.size()) {
    size_t end = message.find_first_of(";\n", pos);
    if (end == std::string_view::npos) end = message.size();
    std::string_view cmd = trim(message.substr(pos, end - pos));
    pos = end + 1;
    if (cmd.empty()) continue;
    bool q = false;
    std::string r = run(cmd, &q);
    if (q) {
      if (any) out += ';';
      out += r;
      any = true;
    }
  }
  if (any) out += '\n';
  if (srqRaised) *srqRaised = !mssBefore && (stbLocked() & 0x40) != 0;
  return out;
}

}  // namespace bridgesim
