#include "names.h"

#include <strings.h>

#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <regex>

namespace host {

namespace {
int hexDigit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  c = (char)tolower((unsigned char)c);
  return c >= 'a' && c <= 'f' ? c - 'a' + 10 : -1;
}
std::string lower(std::string s) {
  for (char& c : s) c = (char)tolower((unsigned char)c);
  return s;
}
}  // namespace

std::vector<Args> parseLine(const std::string& line) {
  std::vector<Args> cmds(1);
  std::string cur;
  bool in = false;   // inside a word
  char quote = 0;    // the open quote, if any
  for (size_t i = 0; i < line.size(); i++) {
    char c = line[i];
    if (quote == '\'') {
      if (c == '\'') quote = 0;
      else cur += c;
      continue;
    }
    if (c == '\\') {
      if (++i >= line.size()) throw Usage("a backslash ends the line");
      char n = line[i];
      switch (n) {
        case 'n': cur += '\n'; break;
        case 'r': cur += '\r'; break;
        case 't': cur += '\t'; break;
        case '0': cur += '\0'; break;
        case '\\': case '"': case '\'': case ';': case ' ': case '\t': case '#': cur += n; break;
        case 'x': {
          int h = i + 1 < line.size() ? hexDigit(line[i + 1]) : -1;
          int l = i + 2 < line.size() ? hexDigit(line[i + 2]) : -1;
          if (h < 0 || l < 0) throw Usage("\\x needs two hex digits");
          cur += (char)(h * 16 + l);
          i += 2;
          break;
        }
        default: throw Usage(std::string("unknown escape \\") + n + " (known: \\n \\r \\t \\0 \\xHH \\\\ \\\" \\')");
      }
      in = true;
      continue;
    }
    if (quote == '"') {
      if (c == '"') quote = 0;
      else cur += c;
      continue;
    }
    if (c == '"' || c == '\'') {
      quote = c;
      in = true;
      continue;
    }
    if (c == '#' && !in) break;
    if (c == ';' || isspace((unsigned char)c)) {
      if (in) cmds.back().push_back(cur);
      cur.clear();
      in = false;
      if (c == ';') cmds.emplace_back();
      continue;
    }
    cur += c;
    in = true;
  }
  if (quote) throw Usage(std::string("unterminated ") + (quote == '"' ? "double" : "single") + " quote");
  if (in) cmds.back().push_back(cur);
  std::vector<Args> out;
  for (auto& c : cmds)
    if (!c.empty()) out.push_back(std::move(c));
  return out;
}

uint64_t number(const std::string& s, const char* what, uint64_t max) {
  if (s.empty()) throw Usage(std::string("missing ") + what);
  char* end = nullptr;
  errno = 0;
  if (s[0] == '-' || s[0] == '+') throw Usage(std::string("bad ") + what + ": " + s + " (a number from 0)");
  unsigned long long v = strtoull(s.c_str(), &end, 0);
  if (errno || !end || *end) throw Usage(std::string("bad ") + what + ": " + s + " (decimal or 0x hex)");
  if (v > max) {
    char b[160];
    snprintf(b, sizeof b, "%s %s is out of range (at most 0x%llX = %llu)", what, s.c_str(),
             (unsigned long long)max, (unsigned long long)max);
    throw Usage(b);
  }
  return v;
}

unsigned parseWidth(const std::string& s) {
  if (s == "8" || s == "16" || s == "32") return (unsigned)std::stoul(s);
  throw Usage("width must be 8, 16 or 32 (bits): " + s);
}

uint16_t parseSpace(const std::string& s, uint64_t* limit) {
  std::string l = lower(s);
  uint16_t sp = l == "a16" ? 1 : l == "a24" ? 2 : l == "a32" ? 3 : 0;
  if (!sp) throw Usage("address space must be a16, a24 or a32: " + s);
  if (limit) *limit = sp == 1 ? 0xFFFF : sp == 2 ? 0xFFFFFF : 0xFFFFFFFFull;
  return sp;
}

uint16_t parseIntf(const std::string& s) {
  std::string t = s;
  if (t.size() > 7 && strncasecmp(t.c_str(), "TCP-VXI", 7) == 0) t = t.substr(7);
  else if (t.size() > 3 && strncasecmp(t.c_str(), "VXI", 3) == 0 && isdigit((unsigned char)t[3])) t = t.substr(3);
  if (t.empty() || !isdigit((unsigned char)t[0]))
    throw Usage("not an interface: " + s + " (a number or a name like TCP-VXI0)");
  return (uint16_t)number(t, "interface", 31);
}

bool isVisaInstrName(const std::string& s) {
  static const std::regex re("VXI[0-9]+::[0-9]+(::INSTR)?", std::regex::icase);
  return std::regex_match(s, re);
}

InstrRef parseInstr(const std::string& s) {
  InstrRef r;
  if (isVisaInstrName(s)) {
    size_t c = s.find("::");
    r.kind = InstrRef::Name;
    r.board = (int)number(s.substr(3, c - 3), "board number", 31);
    size_t e = s.find("::", c + 2);
    r.value = (unsigned)number(s.substr(c + 2, e == std::string::npos ? std::string::npos : e - c - 2),
                               "logical address", 255);
    return r;
  }
  if (strncasecmp(s.c_str(), "la:", 3) == 0) {
    r.kind = InstrRef::LA;
    r.value = (unsigned)number(s.substr(3), "logical address", 255);
    return r;
  }
  if (!s.empty() && isdigit((unsigned char)s[0])) {
    r.value = (unsigned)number(s, "instrument index", 63);
    return r;
  }
  throw Usage("not an instrument: " + s + " (an index, la:N or VXI0::N::INSTR)");
}

TcpipResource parseTcpip(const std::string& s) {
  // TCPIP[board]::host::device[::INSTR] and TCPIP[board]::host::port::SOCKET
  static const std::regex re("TCPIP[0-9]*::([^:]+)(::([^:]+))?(::(INSTR|SOCKET))?", std::regex::icase);
  std::smatch m;
  if (!std::regex_match(s, m, re))
    throw Usage("not a TCPIP resource: " + s +
                " (TCPIP::host::hislip0::INSTR, TCPIP::host::inst0::INSTR or TCPIP::host::port::SOCKET)");
  TcpipResource r;
  r.host = m[1];
  std::string dev = m[3].matched ? m[3].str() : "inst0";
  if (lower(m[5]) == "socket") {
    r.kind = TcpipResource::Socket;
    r.port = (uint16_t)number(dev, "port", 65535);
  } else {
    r.kind = lower(dev).rfind("hislip", 0) == 0 ? TcpipResource::HiSLIP : TcpipResource::VXI11;
    r.device = dev;
  }
  return r;
}

bool takeFlag(Args& a, const std::string& flag) {
  for (size_t i = 1; i < a.size(); i++)
    if (a[i] == flag) {
      a.erase(a.begin() + (long)i);
      return true;
    }
  return false;
}

bool takeOption(Args& a, const std::string& key, std::string* value) {
  for (size_t i = 1; i < a.size(); i++)
    if (a[i].size() > key.size() && a[i].compare(0, key.size() + 1, key + "=") == 0) {
      *value = a[i].substr(key.size() + 1);
      a.erase(a.begin() + (long)i);
      return true;
    }
  return false;
}

}  // namespace host
