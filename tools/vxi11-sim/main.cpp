// vxi11-instrument-sim: a VXI-11 instrument on a loopback address, for
// trying clients without hardware.  Runs until interrupted.
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <string>

#include "sim.h"

namespace {

volatile sig_atomic_t g_stop = 0;
void onSignal(int) { g_stop = 1; }

void usage(FILE* out) {
  fprintf(out,
          "usage: vxi11-instrument-sim [options]\n"
          "  -a, --address ADDR    loopback address to serve (default 127.0.0.1)\n"
          "  -p, --core-port PORT  device core port (default: any free port)\n"
          "  -m, --portmap MODE    auto | own | rpcbind | none (default auto: register with a\n"
          "                        running rpcbind, else answer GETPORT on port 111; rpcbind\n"
          "                        hands newer clients 127.0.0.1, so serve that address then)\n"
          "  -v, --verbose         one line per call; twice: also data sizes\n"
          "  -f, --fault FAULT     inject a fault (may be repeated):\n"
          "        device-error=PROC:CODE  answer core procedure PROC with error CODE\n"
          "        wrong-xid=PROC          answer PROC (-1: every one) with another transaction id\n"
          "        getport-zero            own portmapper answers port 0\n"
          "        huge-maxrecv            create_link reports maxRecvSize 0xFFFFFFFF\n"
          "        max-recv=N              create_link reports maxRecvSize N\n"
          "        no-abort                create_link reports abort port 0\n"
          "        refused-abort           create_link reports a port that refuses connections\n"
          "        late=PROC:MS            answer PROC only after MS milliseconds\n"
          "        no-connect-back         create_intr_chan never connects back\n"
          "        intr-chan-error=CODE    create_intr_chan fails with CODE\n"
          "  -h, --help            this text\n"
          "The instrument answers *IDN?, *STB?, *OPC?, *SRE?, ECHO? TEXT and DATA? N (N bytes);\n"
          "STB N sets the status byte, SRQ requests service over the interrupt channel.\n");
}

}  // namespace

int main(int argc, char** argv) {
  vxi11sim::Options opt;
  for (int i = 1; i < argc; i++) {
    std::string a = argv[i];
    auto value = [&](const char* what) -> std::string {
      if (i + 1 >= argc) {
        fprintf(stderr, "vxi11-instrument-sim: %s needs a value\n", what);
        exit(2);
      }
      return argv[++i];
    };
    if (a == "-h" || a == "--help") {
      usage(stdout);
      return 0;
    } else if (a == "-a" || a == "--address") {
      opt.address = value("--address");
    } else if (a == "-p" || a == "--core-port") {
      opt.corePort = (uint16_t)atoi(value("--core-port").c_str());
    } else if (a == "-m" || a == "--portmap") {
      std::string m = value("--portmap");
      if (m == "auto") opt.portmap = vxi11sim::PortmapMode::Auto;
      else if (m == "own") opt.portmap = vxi11sim::PortmapMode::Own;
      else if (m == "rpcbind") opt.portmap = vxi11sim::PortmapMode::Rpcbind;
      else if (m == "none") opt.portmap = vxi11sim::PortmapMode::None;
      else {
        fprintf(stderr, "vxi11-instrument-sim: unknown portmap mode %s\n", m.c_str());
        return 2;
      }
    } else if (a == "-v" || a == "--verbose") {
      opt.verbosity++;
    } else if (a == "-f" || a == "--fault") {
      std::string f = value("--fault");
      if (!vxi11sim::parseFault(f, &opt.faults)) {
        fprintf(stderr, "vxi11-instrument-sim: unknown fault %s\n", f.c_str());
        return 2;
      }
    } else {
      fprintf(stderr, "vxi11-instrument-sim: unknown option %s\n", a.c_str());
      usage(stderr);
      return 2;
    }
  }
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
