// Shared pieces of bench_paths: options, clocks, statistics, the JSON lines
// it prints, and the rig (simulated bridges, resource-manager file, the
// driver started and opened as a host opens it).
#pragma once

#include <time.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "sim.h"

namespace bpaths {

// Logical addresses of the default simulated mainframe.
constexpr int kLaSwitch = 32, kLaMemory = 40;

struct Options {
  int rounds = 5;
  bool quick = false;
};

inline Options parseOptions(int argc, char** argv) {
  Options o;
  for (int i = 2; i < argc; i++) {
    std::string a = argv[i];
    if (a == "--rounds" && i + 1 < argc) o.rounds = std::max(1, atoi(argv[++i]));
    if (a == "--quick") o.quick = true;
  }
  return o;
}

inline double nowNs() {
  timespec t;
  clock_gettime(CLOCK_MONOTONIC, &t);
  return (double)t.tv_sec * 1e9 + (double)t.tv_nsec;
}

inline double pct(std::vector<double> v, double p) {
  if (v.empty()) return 0;
  std::sort(v.begin(), v.end());
  return v[(size_t)(p * (double)(v.size() - 1))];
}
inline double median(const std::vector<double>& v) { return pct(v, 0.5); }

inline void emit(const std::string& path, int round, const std::vector<std::pair<std::string, double>>& values) {
  printf("{\"path\": \"%s\", \"round\": %d", path.c_str(), round);
  for (auto& kv : values) printf(", \"%s\": %.1f", kv.first.c_str(), kv.second);
  printf("}\n");
  fflush(stdout);
}

inline int fail(const char* why) {
  fprintf(stderr, "bench_paths: %s\n", why);
  return 1;
}

std::string resmanFile();
void writeResman(const std::vector<std::string>& addrs);

// Simulated bridges on the given addresses and the driver opened on them.
struct Rig {
  std::vector<std::unique_ptr<bridgesim::Server>> sims;
  bool driverUp = false;
  // Starts the bridges; with openDriver, also tcpvxi_start and the first
  // vintfOpenDevice.  Prints the reason and returns false on failure.
  bool start(const std::vector<std::string>& addrs, const std::string& mainframeIni = "", bool openDriver = true);
  ~Rig();
  int instrument(int intf, int la);        // index of the instrument at la, or -1
  uint64_t memBase(int intf, int la);      // its memory window's base, 0 if none
};

int runOpen(const Options& o, const char* self);
int runOpenChild(int argc, char** argv);
int runMulti(const Options& o, const char* self);
int runMultiChild(int argc, char** argv);

}  // namespace bpaths
