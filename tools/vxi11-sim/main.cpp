// vxi11-instrument-sim: a VXI-11 instrument on a loopback address, for
// trying clients without hardware.  Runs until interrupted.
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <map>
#include <string>
#include <vector>

#include "sim.h"
#include "tcpvxi_version.h"

namespace {

volatile sig_atomic_t g_stop = 0;
void onSignal(int) { g_stop = 1; }

const char* kFooter =
    "Faults (-f, repeatable):\n"
    "  device-error=PROC:CODE  answer core procedure PROC with VXI-11 error CODE\n"
    "  wrong-xid=PROC          answer PROC (-1: every one) with another transaction id\n"
    "  getport-zero            own portmapper answers port 0\n"
    "  huge-maxrecv            create_link reports maxRecvSize 0xFFFFFFFF\n"
    "  max-recv=N              create_link reports maxRecvSize N\n"
    "  no-abort                create_link reports abort port 0\n"
    "  refused-abort           create_link reports a port that refuses connections\n"
    "  late=PROC:MS            answer PROC only after MS milliseconds\n"
    "  no-connect-back         create_intr_chan never connects back\n"
    "  intr-chan-error=CODE    create_intr_chan fails with CODE\n"
    "\n"
    "Instrument: answers *IDN?, *STB?, *OPC?, *SRE?, ECHO? TEXT and DATA? N (an IEEE 488.2\n"
    "block #<digits><N><N bytes> and a newline); takes *RST, *CLS, *SRE N, *TRG; STB N sets\n"
    "the status byte, SRQ requests service over the interrupt channel.  A read with nothing\n"
    "queued waits up to the client's io_timeout, then answers with the time-out error.\n"
    "\n"
    "Portmapper: the own one answers NULL, GETPORT and DUMP (rpcinfo -p) over TCP and UDP on\n"
    "port 111 and declines SET and UNSET.\n";

}  // namespace

int main(int argc, char** argv) {
  vxi11sim::Options opt;
  std::vector<std::string> faults;

  CLI::App app{"A VXI-11 instrument simulator on a loopback address: device core, abort and interrupt "
               "channels, a portmapper, fault injection.",
               "vxi11-instrument-sim"};
  app.set_version_flag("--version", std::string("vxi11-instrument-sim ") + TCPVXI_VERSION);
  app.footer(kFooter);
  app.add_option("-a,--address", opt.address, "loopback address to serve (default 127.0.0.1)")->option_text("ADDR");
  app.add_option("-p,--core-port", opt.corePort, "device core port (default: any free port)")->option_text("PORT");
  const std::map<std::string, vxi11sim::PortmapMode> modes = {{"auto", vxi11sim::PortmapMode::Auto},
                                                              {"own", vxi11sim::PortmapMode::Own},
                                                              {"rpcbind", vxi11sim::PortmapMode::Rpcbind},
                                                              {"none", vxi11sim::PortmapMode::None}};
  app.add_option_function<std::string>(
         "-m,--portmap", [&](const std::string& m) { opt.portmap = modes.at(m); },
         "auto | own | rpcbind | none (default auto: register with a running rpcbind, else serve "
         "port 111 itself; rpcbind hands newer clients 127.0.0.1, so serve that address then)")
      ->check(CLI::IsMember({"auto", "own", "rpcbind", "none"}))
      ->option_text("MODE");
  app.add_flag("-v,--verbose", opt.verbosity, "one time-stamped line per call on standard error; twice: data sizes");
  app.add_option("-f,--fault", faults, "inject a fault (see below; repeatable)")
      ->option_text("FAULT")
      ->check(CLI::Validator(
          [](std::string& s) {
            vxi11sim::Faults f;
            return vxi11sim::parseFault(s, &f) ? std::string() : "unknown fault " + s;
          },
          "FAULT"));
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& e) {
    int rc = app.exit(e);
    return rc == 0 ? 0 : 2;
  }
  for (const std::string& f : faults) vxi11sim::parseFault(f, &opt.faults);

  vxi11sim::Simulator sim(opt);
  std::string err;
  if (!sim.start(&err)) {
    fprintf(stderr, "vxi11-instrument-sim: %s\n", err.c_str());
    return 1;
  }
  printf("vxi11-instrument-sim: %s core port %u, abort port %u, %s\n", opt.address.c_str(), sim.corePort(),
         sim.abortPort(),
         sim.usesRpcbind() ? "registered with rpcbind" : sim.servesPortmap() ? "own portmapper on port 111"
                                                                             : "no portmapper");
  fflush(stdout);
  struct sigaction sa;
  memset(&sa, 0, sizeof sa);
  sa.sa_handler = onSignal;
  sigaction(SIGINT, &sa, nullptr);
  sigaction(SIGTERM, &sa, nullptr);
  while (!g_stop) pause();
  sim.stop();
  return 0;
}
