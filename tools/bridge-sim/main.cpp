// tcpvxi-bridge-sim: a simulated LAN-to-VXI bridge on the local machine.
#include <signal.h>

#include <CLI/CLI.hpp>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <string>

#include "sim.h"
#include "tcpvxi_version.h"

namespace {

[[noreturn]] void die(const std::string& msg) {
  std::cerr << "tcpvxi-bridge-sim: " << msg << "\n";
  std::exit(2);
}

// Decimal or 0x-hex; status words such as 0xBFFF003E are taken as unsigned
// 32-bit values.  Out of range or not a number is a usage error.
long long num(const std::string& text, long long lo, long long hi, const std::string& what) {
  const char* s = text.c_str();
  errno = 0;
  char* end = nullptr;
  long long v = std::strtoll(s, &end, 0);
  if (errno == ERANGE || end == s || *end != '\0') {
    errno = 0;
    unsigned long long u = std::strtoull(s, &end, 0);
    if (errno == ERANGE || end == s || *end != '\0' || *s == '-')
      throw CLI::ValidationError(what, "not a number: " + text);
    v = static_cast<long long>(u);
  }
  if (v < lo || v > hi) throw CLI::ValidationError(what, "out of range: " + text);
  return v;
}

const char* kControl =
    "Control port: connect with any line-oriented TCP client (e.g. nc 127.0.0.1 N) and\n"
    "type one command per line; each reply ends with a line \"OK ...\" or \"ERR ...\".\n"
    "\nControl commands:\n";

}  // namespace

int main(int argc, char** argv) {
  bridgesim::ServerOptions o;
  o.recordLimit = 0;  // a long run must not keep every command
  bool allowAny = false, printResources = false, quiet = false;
  int verbose = 0;

  CLI::App app{"A simulated LAN-to-VXI bridge: a HiSLIP server with a VXI mainframe behind it.",
               "tcpvxi-bridge-sim"};
  app.set_version_flag("--version", std::string("tcpvxi-bridge-sim ") + TCPVXI_VERSION);
  app.footer(std::string(kControl) + bridgesim::Server::controlHelp());
  // Every number goes through num(): hex accepted, ranges checked.
  auto number = [&](const char* names, const char* help, long long lo, long long hi, auto set) {
    return app.add_option_function<std::string>(
        names, [=](const std::string& v) { set(num(v, lo, hi, CLI::detail::split_names(names).back())); },
        help);
  };

  const char* net = "Network";
  app.add_option("-a,--address", o.address,
                 "listen address, dotted IPv4 (default 127.0.0.1); addresses outside 127.0.0.0/8 are "
                 "refused without --allow-any-address")
      ->option_text("ADDR")->group(net);
  app.add_flag("--allow-any-address", allowAny, "allow a listen address outside the loopback network")->group(net);
  number("-p,--port", "HiSLIP port (default 4880; 0 picks a free one)", 0, 65535,
         [&](long long v) { o.port = static_cast<uint16_t>(v); })->option_text("N")->group(net);
  number("--raw-port",
         "also serve the bridge's instrument as line-terminated text over plain TCP on port N (\"*IDN?\\n\" and so on)",
         1, 65535, [&](long long v) { o.rawPort = static_cast<uint16_t>(v); })->option_text("N")->group(net);
  number("--control-port", "text control port on N, loopback only (see below)", 1, 65535,
         [&](long long v) { o.controlPort = static_cast<uint16_t>(v); })->option_text("N")->group(net);
  number("--max-sessions", "refuse further sessions with FatalError (default 256)", 1, 65535,
         [&](long long v) { o.maxSessions = static_cast<size_t>(v); })->option_text("N")->group(net);
  app.add_flag_callback("--synchronized", [&] { o.overlapMode = false; },
                        "offer the synchronized mode instead of overlapped")->group(net);

  const char* mf = "Mainframe";
  app.add_option("-m,--mainframe", o.mainframeIni, "mainframe description (INI); default: the built-in mainframe")
      ->option_text("FILE")->group(mf);
  app.add_flag("--print-resources", printResources, "print the bridge's resource text and exit")->group(mf);

  const char* lg = "Logging (standard error, time-stamped)";
  app.add_flag("-v,--verbose", verbose, "more: once every message, twice payload dumps")->group(lg);
  app.add_flag("-q,--quiet", quiet, "errors only")->group(lg);

  const char* fl = "Faults for the whole run (the control port switches them at run time)";
  number("--delay", "answer every request MS milliseconds late", 0, 3600000,
         [&](long long v) { o.faults.answerDelayMs = static_cast<int>(v); })->option_text("MS")->group(fl);
  app.add_flag("--never-answer", o.faults.neverAnswer, "take requests but never answer them")->group(fl);
  number("--close-mid", "close the session after N bytes of the first answer", 0, 0x7FFFFFFF,
         [&](long long v) { o.faults.closeMidMessage = static_cast<int>(v); })->option_text("N")->group(fl);
  app.add_flag("--malformed-header", o.faults.malformedHeader, "the first answer goes out with a broken header")
      ->group(fl);
  app.add_option_function<std::string>(
         "--error-reply", [&](const std::string& v) { o.faults.errorReply = v == "error" ? 3 : 2; },
         "answer requests with \"error\" (Error) or \"fatal\" (FatalError, then the session is closed)")
      ->check(CLI::IsMember({"error", "fatal"}))->option_text("KIND")->group(fl);
  number("--flood", "N interrupt reports on the async channel before the first answer", 0, 100000,
         [&](long long v) { o.faults.floodAsync = static_cast<int>(v); })->option_text("N")->group(fl);
  app.add_option_function<std::string>(
         "--cmd-status",
         [&](const std::string& a) {
           size_t eq = a.find_first_of("=:");
           if (eq == std::string::npos) throw CLI::ValidationError("--cmd-status", "takes CODE=STATUS");
           o.commandFaults.statusCode = static_cast<int>(num(a.substr(0, eq), -1, 255, "--cmd-status code"));
           o.commandFaults.forcedStatus = static_cast<int32_t>(
               static_cast<uint32_t>(num(a.substr(eq + 1), INT32_MIN, UINT32_MAX, "--cmd-status status")));
         },
         "bridge command code C (-1: every code) answers status S")
      ->option_text("C=S")->group(fl);
  number("--cmd-empty", "bridge command code C answers an empty message", -1, 255,
         [&](long long v) { o.commandFaults.emptyCode = static_cast<int>(v); })->option_text("C")->group(fl);
  number("--cmd-inflate", "bridge command code C claims more data than asked", -1, 255,
         [&](long long v) { o.commandFaults.inflateCode = static_cast<int>(v); })->option_text("C")->group(fl);
  number("--busy-tries", "Word Serial commands answer a time-out N times first", 0, 1000000,
         [&](long long v) { o.commandFaults.busyTries = static_cast<int>(v); })->option_text("N")->group(fl);

  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& e) {
    int rc = app.exit(e);
    return rc == 0 ? 0 : 2;
  }
  if (quiet)
    o.verbosity = 0;
  else
    o.verbosity += verbose;

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
