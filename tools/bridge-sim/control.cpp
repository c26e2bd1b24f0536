// Text commands of the control port: one command per line, answered by zero
// or more information lines and a last line "OK ..." or "ERR ...".
#include <cerrno>
#include <cstdlib>
#include <sstream>
#include <string>
#include <vector>

#include "sim.h"

namespace bridgesim {

namespace {

std::vector<std::string> words(const std::string& line) {
  std::istringstream in(line);
  std::vector<std::string> w;
  std::string x;
  while (in >> x) w.push_back(x);
  return w;
}

// Decimal, 0x-prefixed hexadecimal, or negative; the whole word must be a
// number that fits 64 signed bits.
bool number(const std::string& s, long long* out) {
  if (s.empty()) return false;
  errno = 0;
  char* end = nullptr;
  long long v = std::strtoll(s.c_str(), &end, 0);
  if (errno == ERANGE || *end != '\0') {
    // Values such as 0xBFFF003E do not fit the signed range of strtoll on
    // every platform; take them as unsigned 32-bit words.
    errno = 0;
    unsigned long long u = std::strtoull(s.c_str(), &end, 0);
    if (errno == ERANGE || *end != '\0' || s[0] == '-') return false;
    v = static_cast<long long>(u);
  }
  *out = v;
  return true;
}

bool onOff(const std::string& s, bool* out) {
  if (s == "on" || s == "1" || s == "true") return *out = true, true;
  if (s == "off" || s == "0" || s == "false") return *out = false, true;
  return false;
}

std::string hex32(uint32_t v) {
  char b[16];
  snprintf(b, sizeof b, "0x%08X", v);
  return b;
}

}  // namespace

std::string Server::controlHelp() {
  return "help                   this list\n"
         "stats                  counters of the server\n"
         "faults                 the fault switches now in force\n"
         "clear                  switch every fault off\n"
         "delay <ms>             answer every request this late (0: off)\n"
         "never on|off           take requests but never answer them\n"
         "close-mid <n>          close the session after n bytes of the next answer (0: off)\n"
         "malformed on|off       the next answer gets a broken header\n"
         "error off|error|fatal  answer requests with Error, or FatalError and close\n"
         "flood <n>              n interrupt reports on the async channel before the next answer\n"
         "cmd-status <code> <st> bridge command <code> (-1: every) answers status <st>; code 0: off\n"
         "cmd-empty <code>       bridge command <code> answers an empty message (0: off)\n"
         "cmd-inflate <code>     bridge command <code> claims more data than asked (0: off)\n"
         "busy <n>               Word Serial commands answer time-out n times first\n"
         "srq                    AsyncServiceRequest to every session\n"
         "irq <line> <statid>    interrupt report (cmd 1, one pair) to every session\n"
         "async <byte>...        type-128 message with these bytes (hex) to every session\n"
         "quit                   close this control connection\n";
}

std::string Server::control(const std::string& line) {
  std::vector<std::string> w = words(line);
  if (w.empty()) return "ERR empty command\n";
  const std::string& c = w[0];
  auto argc = w.size();
  auto bad = [&](const char* usage) { return std::string("ERR usage: ") + usage + "\n"; };
  long long a = 0, b = 0;

  if (c == "help") return controlHelp() + "OK\n";
  if (c == "stats") {
    ServerStats s = stats();
    std::ostringstream o;
    o << "sessions " << s.sessionsNow << "\n"
      << "sessions_opened " << s.sessionsOpened << "\n"
      << "bridge_commands " << s.bridgeCommands << "\n"
      << "data_messages " << s.dataMessages << "\n"
      << "async_messages " << s.asyncMessages << "\n"
      << "errors_sent " << s.errorsSent << "\n"
      << "async_sent " << s.asyncSent << "\n"
      << "raw_connections " << s.rawConnections << "\n"
      << "OK\n";
    return o.str();
  }
  if (c == "faults") {
    HislipFaults f = faults();
    CommandFaults k = commandFaults();
    std::ostringstream o;
    o << "delay " << f.answerDelayMs << "\n"
      << "never " << (f.neverAnswer ? "on" : "off") << "\n"
      << "close-mid " << f.closeMidMessage << "\n"
      << "malformed " << (f.malformedHeader ? "on" : "off") << "\n"
      << "error " << (f.errorReply == 3 ? "error" : f.errorReply == 2 ? "fatal" : "off") << "\n"
      << "flood " << f.floodAsync << "\n"
      << "cmd-status " << k.statusCode << " " << hex32(static_cast<uint32_t>(k.forcedStatus)) << "\n"
      << "cmd-empty " << k.emptyCode << "\n"
      << "cmd-inflate " << k.inflateCode << "\n"
      << "busy " << k.busyTries << "\n"
      << "OK\n";
    return o.str();
  }
  if (c == "clear") {
    setFaults(HislipFaults{});
    setCommandFaults(CommandFaults{});
    return "OK all faults off\n";
  }
  if (c == "srq") {
    sendServiceRequest();
    return "OK\n";
  }
  if (c == "irq") {
    if (argc != 3 || !number(w[1], &a) || !number(w[2], &b) || a < 0 || a > 7 || b < 0 || b > 0xFFFFFFFFll)
      return bad("irq <line 0-7> <statid>");
    sendInterrupt(static_cast<uint32_t>(a), static_cast<uint32_t>(b));
    return "OK\n";
  }
  if (c == "async") {
    if (argc < 2 || argc > 1445) return bad("async <byte>...");
    std::vector<uint8_t> body;
    for (size_t i = 1; i < argc; ++i) {
      char* end = nullptr;
      unsigned long v = std::strtoul(w[i].c_str(), &end, 16);
      if (*end != '\0' || v > 255) return bad("async <byte>... (bytes in hex)");
      body.push_back(static_cast<uint8_t>(v));
    }
    sendAsyncVendor(body);
    return "OK\n";
  }

  // HiSLIP switches are edited in place so that a one-shot switch consumed
  // meanwhile is not brought back by this command.
  bool on = false;
  int mode = 0;
  if (c == "delay") {
    if (argc != 2 || !number(w[1], &a) || a < 0 || a > 3600000) return bad("delay <ms>");
    updateFaults([&](HislipFaults& f) { f.answerDelayMs = static_cast<int>(a); });
  } else if (c == "never") {
    if (argc != 2 || !onOff(w[1], &on)) return bad("never on|off");
    updateFaults([&](HislipFaults& f) { f.neverAnswer = on; });
  } else if (c == "close-mid") {
    if (argc != 2 || !number(w[1], &a) || a < 0 || a > 0x7FFFFFFF) return bad("close-mid <n>");
    updateFaults([&](HislipFaults& f) { f.closeMidMessage = static_cast<int>(a); });
  } else if (c == "malformed") {
    if (argc != 2 || !onOff(w[1], &on)) return bad("malformed on|off");
    updateFaults([&](HislipFaults& f) { f.malformedHeader = on; });
  } else if (c == "error") {
    if (argc != 2) return bad("error off|error|fatal");
    if (w[1] == "off" || w[1] == "0")
      mode = 0;
    else if (w[1] == "error" || w[1] == "3")
      mode = 3;
    else if (w[1] == "fatal" || w[1] == "2")
      mode = 2;
    else
      return bad("error off|error|fatal");
    updateFaults([&](HislipFaults& f) { f.errorReply = mode; });
  } else if (c == "flood") {
    if (argc != 2 || !number(w[1], &a) || a < 0 || a > 100000) return bad("flood <n 0-100000>");
    updateFaults([&](HislipFaults& f) { f.floodAsync = static_cast<int>(a); });
  } else {
    CommandFaults k = commandFaults();
    if (c == "cmd-status") {
      if (argc != 3 || !number(w[1], &a) || !number(w[2], &b) || a < -1 || a > 255)
        return bad("cmd-status <code> <status>");
      k.statusCode = static_cast<int>(a);
      k.forcedStatus = static_cast<int32_t>(static_cast<uint32_t>(b));
    } else if (c == "cmd-empty") {
      if (argc != 2 || !number(w[1], &a) || a < -1 || a > 255) return bad("cmd-empty <code>");
      k.emptyCode = static_cast<int>(a);
    } else if (c == "cmd-inflate") {
      if (argc != 2 || !number(w[1], &a) || a < -1 || a > 255) return bad("cmd-inflate <code>");
      k.inflateCode = static_cast<int>(a);
    } else if (c == "busy") {
      if (argc != 2 || !number(w[1], &a) || a < 0 || a > 1000000) return bad("busy <n>");
      k.busyTries = static_cast<int>(a);
    } else {
      return "ERR unknown command \"" + c + "\" (try help)\n";
    }
    setCommandFaults(k);
  }
  return "OK\n";
}

}  // namespace bridgesim
