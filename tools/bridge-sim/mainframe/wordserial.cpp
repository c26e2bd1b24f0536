#include "wordserial.h"

#include <algorithm>
#include <cctype>
#include <cmath>
#include <cstdio>
#include <cstdlib>

namespace bridgesim {

namespace {

std::string_view trim(std::string_view s) {
  while (!s.empty() && std::isspace(static_cast<unsigned char>(s.front()))) s.remove_prefix(1);
  while (!s.empty() && std::isspace(static_cast<unsigned char>(s.back()))) s.remove_suffix(1);
  return s;
}

bool iequal(std::string_view a, std::string_view b) {
  if (a.size() != b.size()) return false;
  for (size_t i = 0; i < a.size(); ++i)
    if (std::toupper(static_cast<unsigned char>(a[i])) != std::toupper(static_cast<unsigned char>(b[i]))) return false;
  return true;
}

// SCPI header matching.  A pattern is written the usual way, e.g.
// "MEASure:VOLTage[:DC]": each node matches its short form (the upper-case
// letters) or its long form, without regard to case; bracketed nodes may be
// left out.
struct Node {
  std::string shortForm, longForm;
  bool optional;
};

std::vector<Node> parsePattern(std::string_view p) {
  std::vector<Node> nodes;
  size_t i = 0;
  while (i < p.size()) {
    bool opt = false;
    if (p[i] == '[') {
      opt = true;
      ++i;
    }
    if (i < p.size() && p[i] == ':') ++i;
    size_t j = i;
    while (j < p.size() && p[j] != ':' && p[j] != '[' && p[j] != ']') ++j;
    Node n{{}, std::string(p.substr(i, j - i)), opt};
    for (char c : n.longForm)
      if (std::isupper(static_cast<unsigned char>(c)) || c == '*' || std::isdigit(static_cast<unsigned char>(c)))
        n.shortForm += c;
    nodes.push_back(std::move(n));
    i = j;
    if (i < p.size() && p[i] == ']') ++i;
  }
  return nodes;
}

bool matchNodes(const std::vector<std::string_view>& in, size_t ii, const std::vector<Node>& pat, size_t pi) {
  if (pi == pat.size()) return ii == in.size();
  const Node& n = pat[pi];
  if (ii < in.size() && (iequal(in[ii], n.shortForm) || iequal(in[ii], n.longForm)) &&
      matchNodes(in, ii + 1, pat, pi + 1))
    return true;
  return n.optional && matchNodes(in, ii, pat, pi + 1);
}

// header without the query mark
bool matches(std::string_view header, std::string_view pattern) {
  if (!header.empty() && header.front() == ':') header.remove_prefix(1);
  std::vector<std::string_view> in;
  size_t s = 0;
  for (size_t i = 0; i <= header.size(); ++i) {
    if (i == header.size() || header[i] == ':') {
      in.push_back(header.substr(s, i - s));
      s = i + 1;
    }
  }
  return matchNodes(in, 0, parsePattern(pattern), 0);
}

bool parseBool(std::string_view s, bool* v) {
  s = trim(s);
  if (iequal(s, "ON") || s == "1") return *v = true, true;
  if (iequal(s, "OFF") || s == "0") return *v = false, true;
  return false;
}

bool parseNumber(std::string_view s, double* v) {
  std::string t(trim(s));
  if (t.empty()) return false;
  char* end = nullptr;
  double d = std::strtod(t.c_str(), &end);
  if (end != t.c_str() + t.size() || !std::isfinite(d)) return false;
  *v = d;
  return true;
}

// Channel list "(@1,3,5:7)"; false when malformed or out of 1-64.
bool parseChannels(std::string_view s, std::vector<int>* out) {
  s = trim(s);
  if (s.size() < 3 || s.substr(0, 2) != "(@" || s.back() != ')') return false;
  s = s.substr(2, s.size() - 3);
  size_t i = 0;
  while (i <= s.size()) {
    size_t j = s.find(',', i);
    if (j == std::string_view::npos) j = s.size();
    std::string_view item = trim(s.substr(i, j - i));
    size_t colon = item.find(':');
    int a = 0, b = 0;
    auto num = [](std::string_view x, int* v) {
      x = trim(x);
      if (x.empty() || x.size() > 3) return false;
      int r = 0;
      for (char c : x) {
        if (!std::isdigit(static_cast<unsigned char>(c))) return false;
        r = r * 10 + (c - '0');
      }
      *v = r;
      return r >= 1 && r <= 64;
    };
    if (colon == std::string_view::npos) {
      if (!num(item, &a)) return false;
      b = a;
    } else if (!num(item.substr(0, colon), &a) || !num(item.substr(colon + 1), &b) || b < a) {
      return false;
    }
    for (int c = a; c <= b; ++c) out->push_back(c);
    i = j + 1;
  }
  return !out->empty();
}

}  // namespace

MessageEngine::MessageEngine(const DeviceDesc& desc) : desc_(desc) { settings(); }

void MessageEngine::settings() {
  function_ = desc_.kind == "counter" ? "FREQ" : "VOLT";
  triggerBus_ = true;
  armed_ = false;
  measuring_ = false;
  opcPending_ = false;
  last_.reset();
  relays_.fill(false);
  level_ = 0;
  outputOn_ = false;
}

void MessageEngine::reset(Clock::time_point) {
  clear();
  esr_ = ese_ = sre_ = 0;
  errors_.clear();
  triggers_ = 0;
  normalOperation_ = true;
  settings();
}

void MessageEngine::clear() {
  in_.clear();
  inOverflow_ = false;
  out_.clear();
  outPos_ = 0;
  rr_ = false;
  resp_ = 0;
  protoErr_ = wserr::kNone;
  armed_ = false;
  measuring_ = false;
  opcPending_ = false;
}

uint16_t MessageEngine::responseReg(Clock::time_point now) const {
  uint16_t r = resp::kReserved | resp::kWR | resp::kFhsN | resp::kLockedN;
  if (dor(now)) r |= resp::kDOR;
  if (dir(now)) r |= resp::kDIR;
  if (protoErr_ == wserr::kNone) r |= resp::kErrN;
  if (rr_) r |= resp::kRR;
  return r;
}

// Protocol register, the simulator's choice of bits: 15 commander (the slot-0
// controller), 12 interrupter, 2 longword serial, 0 IEEE 488.2 instrument.
uint16_t MessageEngine::protocolReg() const {
  uint16_t p = (1u << 12) | 1u;
  if (desc_.kind == "controller") p |= 1u << 15;
  if (desc_.longword) p |= 1u << 2;
  return p;
}

uint8_t MessageEngine::statusByte(Clock::time_point now) const {
  uint8_t stb = 0;
  if (!errors_.empty()) stb |= 0x04;
  if (dor(now)) stb |= 0x10;
  if (esr_ & ese_) stb |= 0x20;
  if (stb & sre_ & 0xBF) stb |= 0x40;
  return stb;
}

void MessageEngine::pushError(int code, const char* text) {
  if (code <= -100 && code > -200) esr_ |= 0x20;
  else if (code <= -200 && code > -300) esr_ |= 0x10;
  else if (code <= -300 && code > -400) esr_ |= 0x08;
  else if (code <= -400 && code > -500) esr_ |= 0x04;
  if (errors_.size() >= kErrorQueueDepth) {
    errors_.back() = {-350, "Queue overflow"};
    return;
  }
  errors_.emplace_back(code, text);
}

std::optional<Clock::time_point> MessageEngine::nextChange() const {
  if (measuring_) return measEnd_;
  return std::nullopt;
}

void MessageEngine::advance(Clock::time_point now, std::vector<Interrupt>* irqs) {
  if (measuring_ && now >= measEnd_) {
    measuring_ = false;
    last_ = measuredValue(function_);
    if (opcPending_) {
      esr_ |= 0x01;
      opcPending_ = false;
    }
    if (irqs) irqs->push_back({desc_.irqLine, (kCauseRequestTrue << 8) | (desc_.la & 0xFF)});
  }
}

void MessageEngine::startMeasurement(Clock::time_point now) {
  armed_ = false;
  measuring_ = true;
  measEnd_ = now + std::chrono::milliseconds(desc_.measDelayMs);
}

void MessageEngine::trigger(Clock::time_point now, std::vector<Interrupt>* irqs) {
  advance(now, irqs);
  ++triggers_;
  bool measures = desc_.kind == "dmm" || desc_.kind == "counter";
  if (!measures) return;
  if (!armed_ || !triggerBus_) {
    pushError(-211, "Trigger ignored");
    return;
  }
  startMeasurement(now);
}

double MessageEngine::measuredValue(const std::string& function) const {
  double base = desc_.reading;
  if (base == 0) base = desc_.kind == "counter" ? 10.0e6 : 1.2345;
  if (function == "CURR") return base / 1000.0;
  return base;
}

std::string MessageEngine::formatReading(double v) const {
  char b[32];
  std::snprintf(b, sizeof b, "%+.6E", v);
  return b;
}

MessageEngine::CmdResult MessageEngine::command(uint32_t cmd, bool longword, Clock::time_point now,
                                                std::vector<Interrupt>* irqs) {
  advance(now, irqs);
  CmdResult r;
  auto respond = [&](uint32_t v) {
    if (rr_) protoErr_ = wserr::kMultipleQuery;  // the previous response was never read
    r.hasResp = true;
    r.resp = v;
    rr_ = true;
    resp_ = v;
  };
  if (longword) {
    // Longword Serial: the low half is run as the 16-bit command and the
    // 32-bit response carries the command's high half above the 16-bit
    // response (the simulator's convention).
    if (!desc_.longword) {
      protoErr_ = wserr::kUnsupportedCommand;
      return r;
    }
    CmdResult inner = command(cmd & 0xFFFF, false, now, irqs);
    if (inner.status == 0 && inner.hasResp) {
      resp_ = (cmd & 0xFFFF0000u) | (inner.resp & 0xFFFF);
      inner.resp = resp_;
    }
    return inner;
  }
  uint16_t c = static_cast<uint16_t>(cmd);
  if ((c & 0xFE00) == wscmd::kByteAvailable) {
    if (!dir(now)) {
      r.status = vistatus::kTimeout;
      return r;
    }
    uint8_t b = static_cast<uint8_t>(c & 0xFF);
    writeBytes(&b, 1, (c & 0x0100) != 0, now, irqs);
    return r;
  }
  switch (c) {
    case wscmd::kByteRequest: {
      if (!dor(now)) {
        r.status = vistatus::kTimeout;
        return r;
      }
      uint8_t b = static_cast<uint8_t>(out_[outPos_++]);
      bool end = outPos_ == out_.size();
      if (end) {
        out_.clear();
        outPos_ = 0;
      }
      respond(0xFE00u | (end ? 0x0100u : 0u) | b);
      return r;
    }
    case wscmd::kClear:
      clear();
      return r;
    case wscmd::kTrigger:
      trigger(now, irqs);
      return r;
    case wscmd::kReadStb:
      respond(0xFF00u | statusByte(now));
      return r;
    case wscmd::kReadProtocol:
      respond(protocolReg());
      return r;
    case wscmd::kReadProtocolError: {
      uint16_t e = protoErr_;
      protoErr_ = wserr::kNone;
      respond(e);
      protoErr_ = wserr::kNone;
      return r;
    }
    case wscmd::kBeginNormalOperation:
      normalOperation_ = true;
      respond(0xFFFE);  // passed, normal operation
      return r;
    default:
      protoErr_ = wserr::kUnsupportedCommand;
      return r;
  }
}

size_t MessageEngine::writeBytes(const uint8_t* p, size_t n, bool end, Clock::time_point now,
                                 std::vector<Interrupt>* irqs) {
  advance(now, irqs);
  if (!dir(now)) return 0;
  for (size_t i = 0; i < n; ++i) {
    if (in_.size() >= kInputLimit) {
      // A message longer than the device can hold: drop it and say so once.
      if (!inOverflow_) pushError(-223, "Too much data");
      inOverflow_ = true;
      in_.clear();
    }
    in_.push_back(static_cast<char>(p[i]));
  }
  if (end) {
    std::string msg;
    msg.swap(in_);
    bool overflowed = inOverflow_;
    inOverflow_ = false;
    if (!overflowed) execute(msg, now, irqs);
  }
  return n;
}

uint32_t MessageEngine::readBytes(uint8_t* out, size_t max, bool useEos, uint8_t eos, size_t* got,
                                  Clock::time_point now) {
  *got = 0;
  if (!dor(now)) return 0;
  uint32_t bits = 0;
  size_t k = 0;
  while (k < max && outPos_ < out_.size()) {
    uint8_t b = static_cast<uint8_t>(out_[outPos_++]);
    out[k++] = b;
    if (outPos_ == out_.size()) bits |= 2;
    if (useEos && b == eos) bits |= 1;
    if (bits) break;
  }
  if (outPos_ >= out_.size()) {
    out_.clear();
    outPos_ = 0;
  }
  *got = k;
  return bits;
}

void MessageEngine::execute(std::string_view message, Clock::time_point now, std::vector<Interrupt>* irqs) {
  if (outPos_ < out_.size()) {
    // A new message while the answer to the last one is still unread.
    pushError(-410, "Query INTERRUPTED");
    out_.clear();
    outPos_ = 0;
  }
  std::string answer;
  Clock::time_point readyAt = now;
  bool inQuote = false;
  size_t start = 0;
  for (size_t i = 0; i <= message.size(); ++i) {
    char ch = i < message.size() ? message[i] : ';';
    if (ch == '"') inQuote = !inQuote;
    if (inQuote || (ch != ';' && ch != '\n')) continue;
    std::string_view unit = trim(message.substr(start, i - start));
    start = i + 1;
    if (unit.empty()) continue;
    size_t sp = 0;
    while (sp < unit.size() && !std::isspace(static_cast<unsigned char>(unit[sp]))) ++sp;
    std::string part;
    if (run(unit.substr(0, sp), trim(unit.substr(sp)), now, &part, &readyAt, irqs) && !part.empty()) {
      if (!answer.empty()) answer += ';';
      answer += part;
    }
  }
  if (!answer.empty()) {
    out_ = answer + "\n";
    outPos_ = 0;
    outReady_ = readyAt;
  }
}

// One program message unit.  Returns true when it was a query with an answer.
bool MessageEngine::run(std::string_view header, std::string_view params, Clock::time_point now,
                        std::string* answer, Clock::time_point* readyAt, std::vector<Interrupt>* irqs) {
  bool query = !header.empty() && header.back() == '?';
  std::string_view h = query ? header.substr(0, header.size() - 1) : header;
  const std::string& kind = desc_.kind;
  bool measures = kind == "dmm" || kind == "counter";
  auto later = [&](Clock::time_point t) { *readyAt = std::max(*readyAt, t); };
  auto slow = [&] { later(now + std::chrono::milliseconds(desc_.measDelayMs)); };

  if (query) {
    if (iequal(h, "*IDN")) {
      *answer = desc_.identity;
    } else if (iequal(h, "*STB")) {
      *answer = std::to_string(statusByte(now));
    } else if (iequal(h, "*OPC")) {
      if (measuring_) later(measEnd_);
      *answer = "1";
    } else if (iequal(h, "*ESR")) {
      *answer = std::to_string(esr_);
      esr_ = 0;
    } else if (iequal(h, "*ESE")) {
      *answer = std::to_string(ese_);
    } else if (iequal(h, "*SRE")) {
      *answer = std::to_string(sre_);
    } else if (iequal(h, "*TST")) {
      *answer = desc_.passed ? "0" : "1";
    } else if (matches(h, "SYSTem:ERRor[:NEXT]")) {
      if (errors_.empty()) {
        *answer = "0,\"No error\"";
      } else {
        *answer = std::to_string(errors_.front().first) + ",\"" + errors_.front().second + "\"";
        errors_.pop_front();
      }
    } else if (measures && matches(h, "MEASure:VOLTage[:DC]")) {
      slow();
      *answer = formatReading(measuredValue("VOLT"));
    } else if (measures && matches(h, "MEASure:CURRent[:DC]")) {
      slow();
      *answer = formatReading(measuredValue("CURR"));
    } else if (kind == "counter" && matches(h, "MEASure:FREQuency")) {
      slow();
      *answer = formatReading(measuredValue("FREQ"));
    } else if (measures && matches(h, "READ")) {
      slow();
      last_ = measuredValue(function_);
      *answer = formatReading(*last_);
    } else if (measures && matches(h, "FETCh")) {
      if (measuring_) {
        later(measEnd_);
        *answer = formatReading(measuredValue(function_));
      } else if (last_) {
        *answer = formatReading(*last_);
      } else {
        pushError(-230, "Data stale");
        return false;
      }
    } else if (measures && matches(h, "TRIGger:SOURce")) {
      *answer = triggerBus_ ? "BUS" : "IMM";
    } else if (measures && matches(h, "CONFigure")) {
      *answer = function_;
    } else if (kind == "switch" && matches(h, "ROUTe:CLOSe")) {
      std::vector<int> ch;
      if (!parseChannels(params, &ch)) {
        pushError(-224, "Illegal parameter value");
        return false;
      }
      for (size_t i = 0; i < ch.size(); ++i) *answer += (i ? "," : "") + std::string(relays_[ch[i]] ? "1" : "0");
    } else if (kind == "source" && matches(h, "[SOURce]:VOLTage[:LEVel]")) {
      *answer = formatReading(level_);
    } else if (kind == "source" && matches(h, "OUTPut[:STATe]")) {
      *answer = outputOn_ ? "1" : "0";
    } else {
      pushError(-113, "Undefined header");
      return false;
    }
    return true;
  }

  if (iequal(h, "*RST")) {
    settings();
  } else if (iequal(h, "*CLS")) {
    esr_ = 0;
    errors_.clear();
  } else if (iequal(h, "*OPC")) {
    if (measuring_) opcPending_ = true;
    else esr_ |= 0x01;
  } else if (iequal(h, "*WAI")) {
  } else if (iequal(h, "*TRG")) {
    trigger(now, irqs);
  } else if (iequal(h, "*ESE") || iequal(h, "*SRE")) {
    double v = 0;
    if (!parseNumber(params, &v) || v < 0 || v > 255) {
      pushError(-224, "Illegal parameter value");
      return false;
    }
    (iequal(h, "*ESE") ? ese_ : sre_) = static_cast<uint8_t>(v);
  } else if (measures && matches(h, "INITiate[:IMMediate]")) {
    if (measuring_) {
      pushError(-213, "Init ignored");
      return false;
    }
    armed_ = true;
    if (!triggerBus_) startMeasurement(now);
  } else if (measures && matches(h, "TRIGger:SOURce")) {
    std::string_view p = trim(params);
    if (iequal(p, "BUS")) triggerBus_ = true;
    else if (iequal(p, "IMM") || iequal(p, "IMMediate")) triggerBus_ = false;
    else {
      pushError(-224, "Illegal parameter value");
      return false;
    }
  } else if (measures && matches(h, "CONFigure:VOLTage[:DC]")) {
    function_ = "VOLT";
  } else if (measures && matches(h, "CONFigure:CURRent[:DC]")) {
    function_ = "CURR";
  } else if (kind == "counter" && matches(h, "CONFigure:FREQuency")) {
    function_ = "FREQ";
  } else if (kind == "switch" && (matches(h, "ROUTe:CLOSe") || matches(h, "ROUTe:OPEN"))) {
    std::vector<int> ch;
    if (!parseChannels(params, &ch)) {
      pushError(-224, "Illegal parameter value");
      return false;
    }
    bool close = matches(h, "ROUTe:CLOSe");
    for (int c : ch) relays_[c] = close;
  } else if (kind == "switch" && matches(h, "ROUTe:OPEN:ALL")) {
    relays_.fill(false);
  } else if (kind == "source" && matches(h, "[SOURce]:VOLTage[:LEVel]")) {
    double v = 0;
    if (!parseNumber(params, &v)) {
      pushError(-224, "Illegal parameter value");
      return false;
    }
    if (v < -10 || v > 10) {
      pushError(-222, "Data out of range");
      return false;
    }
    level_ = v;
  } else if (kind == "source" && matches(h, "OUTPut[:STATe]")) {
    bool on = false;
    if (!parseBool(params, &on)) {
      pushError(-224, "Illegal parameter value");
      return false;
    }
    outputOn_ = on;
  } else {
    pushError(-113, "Undefined header");
  }
  return false;
}

}  // namespace bridgesim
