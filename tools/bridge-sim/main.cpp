// tcpvxi-bridge-sim: a simulated LAN-to-VXI bridge on the local machine.
#include <getopt.h>
#include <signal.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <string>

#include "sim.h"

namespace {

const char* kUsage =
    "Usage: tcpvxi-bridge-sim [options]\n"
    "A simulated LAN-to-VXI bridge: a HiSLIP server with a VXI mainframe behind it.\n"
    "\n"
    "Network:\n"
    "  -a, --address ADDR       listen address, dotted IPv4 (default 127.0.0.1); addresses\n"
    "                           outside 127.0.0.0/8 are refused without --allow-any-address\n"
    "      --allow-any-address  allow a listen address outside the loopback network\n"
    "  -p, --port N             HiSLIP port (default 4880; 0 picks a free one)\n"
    "      --raw-port N         also serve the bridge's instrument as line-terminated text\n"
    "                           over plain TCP on port N (\"*IDN?\\n\" and so on)\n"
    "      --control-port N     text control port on N, loopback only (see below)\n"
    "      --max-sessions N     refuse further sessions with FatalError (default 256)\n"
    "      --synchronized       offer the synchronized mode instead of overlapped\n"
    "\n"
    "Mainframe:\n"
    "  -m, --mainframe FILE     mainframe description (INI); default: the built-in mainframe\n"
    "      --print-resources    print the bridge's resource text and exit\n"
    "\n"
    "Logging (standard error, time-stamped):\n"
    "  -v, --verbose            more: once every message, twice payload dumps\n"
    "  -q, --quiet              errors only\n"
    "\n"
    "Faults for the whole run (the control port switches them at run time):\n"
    "      --delay MS           answer every request MS milliseconds late\n"
    "      --never-answer       take requests but never answer them\n"
    "      --close-mid N        close the session after N bytes of the first answer\n"
    "      --malformed-header   the first answer goes out with a broken header\n"
    "      --error-reply KIND   answer requests with \"error\" (Error) or \"fatal\"\n"
    "                           (FatalError, then the session is closed)\n"
    "      --flood N            N interrupt reports on the async channel before the first answer\n"
    "      --cmd-status C=S     bridge command code C (-1: every code) answers status S\n"
    "      --cmd-empty C        bridge command code C answers an empty message\n"
    "      --cmd-inflate C      bridge command code C claims more data than asked\n"
    "      --busy-tries N       Word Serial commands answer a time-out N times first\n"
    "\n"
    "  -h, --help               this text\n"
    "\n"
    "Control port: connect with any line-oriented TCP client (e.g. nc 127.0.0.1 N) and\n"
    "type one command per line; each reply ends with a line \"OK ...\" or \"ERR ...\".\n";

enum LongOnly {
  OptAllowAny = 1000,
  OptRawPort,
  OptControlPort,
  OptMaxSessions,
  OptSynchronized,
  OptPrintResources,
  OptDelay,
  OptNeverAnswer,
  OptCloseMid,
  OptMalformed,
  OptErrorReply,
  OptFlood,
  OptCmdStatus,
  OptCmdEmpty,
  OptCmdInflate,
  OptBusyTries,
};

[[noreturn]] void die(const std::string& msg) {
  std::cerr << "tcpvxi-bridge-sim: " << msg << "\n";
  std::exit(2);
}

long long num(const char* s, long long lo, long long hi, const char* what) {
  errno = 0;
  char* end = nullptr;
  long long v = std::strtoll(s, &end, 0);
  if (errno == ERANGE || end == s || *end != '\0') {
    // Status words such as 0xBFFF003E: unsigned 32-bit.
    errno = 0;
    unsigned long long u = std::strtoull(s, &end, 0);
    if (errno == ERANGE || end == s || *end != '\0' || *s == '-') die(std::string("not a number for ") + what + ": " + s);
    v = static_cast<long long>(u);
  }
  if (v < lo || v > hi) die(std::string("out of range for ") + what + ": " + s);
  return v;
}

}  // namespace

int main(int argc, char** argv) {
  bridgesim::ServerOptions o;
  o.recordLimit = 0;  // a long run must not keep every command
  bool allowAny = false, printResources = false;

  static const option longOpts[] = {
      {"address", required_argument, nullptr, 'a'},
      {"port", required_argument, nullptr, 'p'},
      {"mainframe", required_argument, nullptr, 'm'},
      {"verbose", no_argument, nullptr, 'v'},
      {"quiet", no_argument, nullptr, 'q'},
      {"help", no_argument, nullptr, 'h'},
      {"allow-any-address", no_argument, nullptr, OptAllowAny},
      {"raw-port", required_argument, nullptr, OptRawPort},
      {"control-port", required_argument, nullptr, OptControlPort},
      {"max-sessions", required_argument, nullptr, OptMaxSessions},
      {"synchronized", no_argument, nullptr, OptSynchronized},
      {"print-resources", no_argument, nullptr, OptPrintResources},
      {"delay", required_argument, nullptr, OptDelay},
      {"never-answer", no_argument, nullptr, OptNeverAnswer},
      {"close-mid", required_argument, nullptr, OptCloseMid},
      {"malformed-header", no_argument, nullptr, OptMalformed},
      {"error-reply", required_argument, nullptr, OptErrorReply},
      {"flood", required_argument, nullptr, OptFlood},
      {"cmd-status", required_argument, nullptr, OptCmdStatus},
      {"cmd-empty", required_argument, nullptr, OptCmdEmpty},
      {"cmd-inflate", required_argument, nullptr, OptCmdInflate},
      {"busy-tries", required_argument, nullptr, OptBusyTries},
      {nullptr, 0, nullptr, 0},
  };

  int c;
  while ((c = getopt_long(argc, argv, "a:p:m:vqh", longOpts, nullptr)) != -1) {
    switch (c) {
      case 'a': o.address = optarg; break;
      case 'p': o.port = static_cast<uint16_t>(num(optarg, 0, 65535, "--port")); break;
      case 'm': o.mainframeIni = optarg; break;
      case 'v': ++o.verbosity; break;
      case 'q': o.verbosity = 0; break;
      case 'h': std::cout << kUsage << "\nControl commands:\n" << bridgesim::Server::controlHelp(); return 0;
      case OptAllowAny: allowAny = true; break;
      case OptRawPort: o.rawPort = static_cast<uint16_t>(num(optarg, 1, 65535, "--raw-port")); break;
      case OptControlPort: o.controlPort = static_cast<uint16_t>(num(optarg, 1, 65535, "--control-port")); break;
      case OptMaxSessions: o.maxSessions = static_cast<size_t>(num(optarg, 1, 65535, "--max-sessions")); break;
      case OptSynchronized: o.overlapMode = false; break;
      case OptPrintResources: printResources = true; break;
      case OptDelay: o.faults.answerDelayMs = static_cast<int>(num(optarg, 0, 3600000, "--delay")); break;
      case OptNeverAnswer: o.faults.neverAnswer = true; break;
      case OptCloseMid: o.faults.closeMidMessage = static_cast<int>(num(optarg, 0, 0x7FFFFFFF, "--close-mid")); break;
      case OptMalformed: o.faults.malformedHeader = true; break;
      case OptErrorReply:
        if (!std::strcmp(optarg, "error"))
          o.faults.errorReply = 3;
        else if (!std::strcmp(optarg, "fatal"))
          o.faults.errorReply = 2;
        else
          die("--error-reply takes \"error\" or \"fatal\"");
        break;
      case OptFlood: o.faults.floodAsync = static_cast<int>(num(optarg, 0, 100000, "--flood")); break;
      case OptCmdStatus: {
        std::string a = optarg;
        size_t eq = a.find_first_of("=:");
        if (eq == std::string::npos) die("--cmd-status takes CODE=STATUS");
        o.commandFaults.statusCode = static_cast<int>(num(a.substr(0, eq).c_str(), -1, 255, "--cmd-status code"));
        o.commandFaults.forcedStatus = static_cast<int32_t>(
            static_cast<uint32_t>(num(a.substr(eq + 1).c_str(), INT32_MIN, UINT32_MAX, "--cmd-status status")));
        break;
      }
      case OptCmdEmpty: o.commandFaults.emptyCode = static_cast<int>(num(optarg, -1, 255, "--cmd-empty")); break;
      case OptCmdInflate: o.commandFaults.inflateCode = static_cast<int>(num(optarg, -1, 255, "--cmd-inflate")); break;
      case OptBusyTries: o.commandFaults.busyTries = static_cast<int>(num(optarg, 0, 1000000, "--busy-tries")); break;
      default: std::cerr << "Try tcpvxi-bridge-sim --help\n"; return 2;
    }
  }
  if (optind < argc) die(std::string("unexpected argument: ") + argv[optind]);

  if (printResources) {
    try {
      bridgesim::Bridge b(o.mainframeIni);
      std::cout << b.resourceText();
      return 0;
    } catch (const std::exception& e) {
      die(e.what());
    }
  }
  if (!allowAny && !bridgesim::isLoopbackAddress(o.address))
    die("refusing to listen on " + o.address + " outside 127.0.0.0/8 (use --allow-any-address)");

  // Signals are taken by sigwait below; every thread inherits the mask.
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGINT);
  sigaddset(&set, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &set, nullptr);
  signal(SIGPIPE, SIG_IGN);

  try {
    bridgesim::Server server(o);
    server.start();
    int sig = 0;
    sigwait(&set, &sig);
    if (o.verbosity > 0) std::cerr << "tcpvxi-bridge-sim: " << strsignal(sig) << ", stopping\n";
    server.stop();
  } catch (const std::exception& e) {
    std::cerr << "tcpvxi-bridge-sim: " << e.what() << "\n";
    return 1;
  }
  return 0;
}
