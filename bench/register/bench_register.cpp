// Latency of one register read through the driver (vintfIn16: driver mutex,
// bridge command, HiSLIP exchange) against a floor client that writes the same
// HiSLIP-framed bridge command and reads the same answer with one send and
// one receive on a plain socket.  Both talk to the same in-process bridge in
// the same run.  Prints p50/p99 of both and their ratio; asserts no timing.
//
// Runs in its own network namespace (bench/run.sh): it uses port 4880.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <vector>

#include "HiSLIPcommands.h"
#include "TcpVxiAPI.h"
#include "fake_bridge.h"

namespace {

using Clock = std::chrono::steady_clock;

std::vector<double> gDriverNs, gFloorNs;

// mode 0 (data, non-privileged), A24, D16, single read at 0x10.
const uint32_t kCmdWord = 4u | 0x00800000u | 0x00080000u | 0x00010000u;
const uint32_t kAddr = 0x10;

struct Setup {
  fb::Server srv;
  SHAREDMEMINTF* block = nullptr;
  int floorFd = -1;
  uint8_t floorReq[28];
  const char* error = nullptr;

  Setup() {
    if (!srv.ok()) {
      error = "cannot listen on 127.0.0.1:4880 (run through bench/run.sh)";
      return;
    }
    srv.with([](fb::Model& m) { m.store(2, kAddr, 2, 0xBEEF); });
    block = (SHAREDMEMINTF*)calloc(1, sizeof(SHAREDMEMINTF));
    block->NIntf = 0;
    tcpvxiGD = block;
    util_mutex_open(TCPVXI_MUTEX_NAME, &hMutexTcpVxiRM);
    Interfaces[0].GIntf = &block->Intf[0];
    if (kvtcp_hislip_Connect(&Interfaces[0].kvtcp, "127.0.0.1", "inst0") != 0 || LockToIPAddr(&Interfaces[0]) != 0) {
      error = "driver cannot connect to the bridge";
      return;
    }
    floorFd = socket(AF_INET, SOCK_STREAM, 0);
    int one = 1;
    setsockopt(floorFd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(4880);
    a.sin_addr.s_addr = inet_addr("127.0.0.1");
    if (connect(floorFd, (sockaddr*)&a, sizeof a) != 0) {
      error = "floor client cannot connect";
      return;
    }
    fb::sendMsg(floorFd, 0, 0, htonl(0x01000E76), "inst0", 5);  // Initialize
    uint8_t h[16];
    if (recv(floorFd, h, 16, MSG_WAITALL) != 16 || h[2] != 1) {
      error = "floor client handshake failed";
      return;
    }
    // The whole framed request, built once: header + sVxiCmd_INq.
    memset(floorReq, 0, sizeof floorReq);
    floorReq[0] = 'H';
    floorReq[1] = 'S';
    floorReq[2] = 128;
    uint32_t lo = htonl(12);
    memcpy(floorReq + 12, &lo, 4);
    uint32_t words[3] = {kCmdWord, 0, kAddr};
    memcpy(floorReq + 16, words, 12);
  }
  ~Setup() {
    if (floorFd >= 0) close(floorFd);
    kvtcp_Close(&Interfaces[0].kvtcp);
    util_mutex_close(TCPVXI_MUTEX_NAME, &hMutexTcpVxiRM);
    tcpvxiGD = nullptr;
    free(block);
  }
};

Setup* gSetup = nullptr;

double percentile(std::vector<double> v, double p) {
  if (v.empty()) return 0;
  std::sort(v.begin(), v.end());
  return v[(size_t)(p * (double)(v.size() - 1))];
}

void addCounters(benchmark::State& state, const std::vector<double>& ns) {
  state.counters["p50_us"] = percentile(ns, 0.50) / 1000.0;
  state.counters["p99_us"] = percentile(ns, 0.99) / 1000.0;
}

void BM_DriverIn16(benchmark::State& state) {
  if (gSetup->error) {
    state.SkipWithError(gSetup->error);
    return;
  }
  gDriverNs.clear();
  gDriverNs.reserve(state.max_iterations);
  for (auto _ : state) {
    ViUInt16 v = 0;
    auto t0 = Clock::now();
    ViStatus st = vintfIn16(0, 0, 2, kAddr, &v);
    auto t1 = Clock::now();
    benchmark::DoNotOptimize(v);
    if (st != 0 || v != 0xBEEF) {
      state.SkipWithError("vintfIn16 failed");
      break;
    }
    gDriverNs.push_back(std::chrono::duration<double, std::nano>(t1 - t0).count());
  }
  addCounters(state, gDriverNs);
}

void BM_FloorSocket(benchmark::State& state) {
  if (gSetup->error) {
    state.SkipWithError(gSetup->error);
    return;
  }
  gFloorNs.clear();
  gFloorNs.reserve(state.max_iterations);
  uint8_t ans[24];
  for (auto _ : state) {
    auto t0 = Clock::now();
    ssize_t s = send(gSetup->floorFd, gSetup->floorReq, sizeof gSetup->floorReq, MSG_NOSIGNAL);
    ssize_t r = recv(gSetup->floorFd, ans, sizeof ans, MSG_WAITALL);
    auto t1 = Clock::now();
    if (s != (ssize_t)sizeof gSetup->floorReq || r != (ssize_t)sizeof ans || fb::rd32(ans + 20) != 0xBEEF) {
      state.SkipWithError("floor exchange failed");
      break;
    }
    gFloorNs.push_back(std::chrono::duration<double, std::nano>(t1 - t0).count());
  }
  addCounters(state, gFloorNs);
}

// The floor again, but with the transport's own receive pattern: wait
// for readability, read the 16-byte header, wait again, read the payload.
// Tells how much of the driver's distance to the floor that pattern explains.
void BM_FloorTransportPattern(benchmark::State& state) {
  if (gSetup->error) {
    state.SkipWithError(gSetup->error);
    return;
  }
  std::vector<double> ns;
  ns.reserve(state.max_iterations);
  uint8_t ans[24];
  int fd = gSetup->floorFd;
  for (auto _ : state) {
    auto t0 = Clock::now();
    ssize_t s = send(fd, gSetup->floorReq, sizeof gSetup->floorReq, MSG_NOSIGNAL);
    bool ok = fb::waitReadable(fd, 2000) && recv(fd, ans, 16, 0) == 16 && fb::waitReadable(fd, 2000) &&
              recv(fd, ans + 16, 8, 0) == 8;
    auto t1 = Clock::now();
    if (s != (ssize_t)sizeof gSetup->floorReq || !ok || fb::rd32(ans + 20) != 0xBEEF) {
      state.SkipWithError("floor exchange failed");
      break;
    }
    ns.push_back(std::chrono::duration<double, std::nano>(t1 - t0).count());
  }
  addCounters(state, ns);
}

BENCHMARK(BM_DriverIn16)->UseRealTime();
BENCHMARK(BM_FloorSocket)->UseRealTime();
BENCHMARK(BM_FloorTransportPattern)->UseRealTime();

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  Setup setup;
  gSetup = &setup;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  if (!gDriverNs.empty() && !gFloorNs.empty()) {
    double d50 = percentile(gDriverNs, 0.50), d99 = percentile(gDriverNs, 0.99);
    double f50 = percentile(gFloorNs, 0.50), f99 = percentile(gFloorNs, 0.99);
    printf("\n%-24s %10s %10s\n", "register read (us)", "p50", "p99");
    printf("%-24s %10.2f %10.2f\n", "driver vintfIn16", d50 / 1000, d99 / 1000);
    printf("%-24s %10.2f %10.2f\n", "floor send+recv", f50 / 1000, f99 / 1000);
    printf("%-24s %10.2f %10.2f   (target: at most 1.25)\n", "ratio driver/floor", d50 / f50, d99 / f99);
  }
  gSetup = nullptr;
  return 0;
}
