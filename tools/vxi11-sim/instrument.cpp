// The message-based instrument behind the links: its commands, output queue and status byte.
#include <ctype.h>
#include <stdlib.h>

#include "impl.h"

namespace vxi11sim {

namespace {

constexpr size_t kMaxData = 16u << 20;  // largest DATA? answer

std::string upper(std::string s) {
  for (auto& ch : s) ch = (char)toupper((unsigned char)ch);
  return s;
}

std::string trim(const std::string& s) {
  size_t b = s.find_first_not_of(" \t\r\n");
  if (b == std::string::npos) return "";
  size_t e = s.find_last_not_of(" \t\r\n");
  return s.substr(b, e - b + 1);
}

}  // namespace

void Simulator::Impl::execute(const std::string& raw, bool* srq) {
  std::string cmd = trim(raw);
  if (cmd.empty()) return;
  std::string key = upper(cmd);
  std::string arg;
  size_t sp = cmd.find_first_of(" \t");
  if (sp != std::string::npos) {
    arg = trim(cmd.substr(sp + 1));
    key = upper(cmd.substr(0, sp));
  }
  if (key == "*IDN?") {
    output += "KVSIM,VXI11-INSTRUMENT,0,1.0\n";
  } else if (key == "*RST") {
    stb = 0;
    sre = 0;
    output.clear();
  } else if (key == "*CLS") {
    stb = 0;
  } else if (key == "*STB?") {
    output += std::to_string(stb) + "\n";
  } else if (key == "*OPC?") {
    output += "1\n";
  } else if (key == "*SRE") {
    sre = (uint8_t)atoi(arg.c_str());
  } else if (key == "*SRE?") {
    output += std::to_string(sre) + "\n";
  } else if (key == "*TRG") {
    triggers++;
  } else if (key == "ECHO?") {
    output += arg + "\n";
  } else if (key == "DATA?") {
    // An IEEE 488.2 definite-length block (#<digits><length><bytes>) and the
    // terminator, as binary-block readers expect.
    long n = atol(arg.c_str());
    if (n < 0) n = 0;
    if ((size_t)n > kMaxData) n = (long)kMaxData;
    std::string len = std::to_string(n);
    output += '#';
    output += std::to_string(len.size());
    output += len;
    for (long i = 0; i < n; i++) output += (char)('A' + i % 26);
    output += '\n';
  } else if (key == "STB") {
    stb = (uint8_t)atoi(arg.c_str());
  } else if (key == "SRQ") {
    stb |= 0x40;
    *srq = true;
  }
}

}  // namespace vxi11sim
