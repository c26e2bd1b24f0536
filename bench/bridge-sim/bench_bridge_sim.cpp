// How fast is the simulated bridge?
//
// 1. A register bridge command (single D16 read of the slot-0 controller's ID
//    register: a 12-byte command framed as HiSLIP type 128, an 8-byte
//    answer) sent to the in-process simulator over loopback with one send
//    and read back on a plain socket, against
// 2. a plain TCP ping-pong of exactly the same byte counts with a trivial
//    server thread that reads the request and writes a canned answer.
//    p50/p99 of both are printed, with their ratio (the simulator should stay
//    within about 1.5x of the floor).
// 3. A block read (command 7) of the largest chunk a driver sends (65520
//    bytes of D32 data) from A24 memory, in MB/s, next to memcpy of the same
//    size.
//
// Nothing here asserts a time; the numbers are for reading.
#include <arpa/inet.h>
#include <benchmark/benchmark.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "sim.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr uint32_t kRegCmd = 4u | 0x00010000u | 0x00040000u | 0x00800000u;  // single read, A16, D16
constexpr uint32_t kRegAddr = 0xC000;                                      // ID register of LA 0
constexpr uint32_t kBlockElems = 16380;                                    // 65520 bytes of D32
constexpr uint32_t kBlockCmd = 7u | 0x00010000u | 0x00080000u | 0x01000000u | 0x08000000u;

// ---------------------------------------------------------------- sockets
bool sendAllBytes(int fd, const void* p, size_t n) {
  const char* c = static_cast<const char*>(p);
  while (n) {
    ssize_t r = send(fd, c, n, MSG_NOSIGNAL);
    if (r <= 0) return false;
    c += r;
    n -= (size_t)r;
  }
  return true;
}

bool recvAllBytes(int fd, void* p, size_t n) {
  char* c = static_cast<char*>(p);
  while (n) {
    ssize_t r = recv(fd, c, n, 0);
    if (r <= 0) return false;
    c += r;
    n -= (size_t)r;
  }
  return true;
}

int connectTo(uint16_t port) {
  int fd = socket(AF_INET, SOCK_STREAM, 0);
  int one = 1;
  setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_port = htons(port);
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (connect(fd, (sockaddr*)&a, sizeof a) != 0) {
    close(fd);
    return -1;
  }
  return fd;
}

void header(uint8_t* h, uint8_t type, uint8_t code, uint32_t param, uint64_t len) {
  h[0] = 'H';
  h[1] = 'S';
  h[2] = type;
  h[3] = code;
  for (int i = 0; i < 4; i++) h[4 + i] = (uint8_t)(param >> (24 - 8 * i));
  for (int i = 0; i < 8; i++) h[8 + i] = (uint8_t)(len >> (56 - 8 * i));
}

uint64_t payloadLength(const uint8_t* h) {
  uint64_t v = 0;
  for (int i = 0; i < 8; i++) v = v << 8 | h[8 + i];
  return v;
}

// One HiSLIP message whole: header and payload; the payload is bounded.
bool readMessage(int fd, uint8_t* hdr, std::vector<uint8_t>& payload) {
  if (!recvAllBytes(fd, hdr, 16)) return false;
  uint64_t n = payloadLength(hdr);
  if (hdr[0] != 'H' || hdr[1] != 'S' || n > (1u << 20)) return false;
  payload.resize((size_t)n);
  return recvAllBytes(fd, payload.data(), payload.size());
}

// ---------------------------------------------------------------- fixture
struct Rig {
  std::unique_ptr<bridgesim::Server> sim;
  int sync = -1, async = -1;
  uint8_t regReq[28];
  size_t regAnswer = 0;  // bytes of the simulator's answer, header included
  uint8_t blockReq[32];
  size_t blockAnswer = 0;
  int32_t regStatus = 0, blockStatus = 0;

  int echoListen = -1, echoClient = -1;
  std::thread echo;
  std::string error;

  Rig() {
    bridgesim::ServerOptions o;
    o.address = "127.0.0.1";
    o.port = 0;
    o.verbosity = 0;
    o.recordLimit = 0;
    o.logSink = [](const std::string&) {};
    sim = std::make_unique<bridgesim::Server>(o);
    sim->start();
    if (!handshake()) {
      error = "HiSLIP hand-shake with the simulator failed";
      return;
    }
    uint32_t reg[3] = {kRegCmd, 0, kRegAddr};
    header(regReq, 128, 0, 0, 12);
    memcpy(regReq + 16, reg, 12);
    regAnswer = probe(regReq, sizeof regReq, &regStatus);

    uint32_t base = a24Memory();
    uint32_t blk[4] = {kBlockCmd, kBlockElems / 4 + 10, base, kBlockElems};
    header(blockReq, 128, 0, 0, 16);
    memcpy(blockReq + 16, blk, 16);
    blockAnswer = probe(blockReq, sizeof blockReq, &blockStatus);
    if (!regAnswer || !blockAnswer) {
      error = "the simulator did not answer a bridge command";
      return;
    }
    startEcho();
  }

  ~Rig() {
    if (echoClient >= 0) shutdown(echoClient, SHUT_RDWR);
    if (echo.joinable()) echo.join();
    for (int fd : {sync, async, echoListen, echoClient})
      if (fd >= 0) close(fd);
    sim->stop();
  }

  bool handshake() {
    sync = connectTo(sim->port());
    async = connectTo(sim->port());
    if (sync < 0 || async < 0) return false;
    uint8_t h[16];
    std::vector<uint8_t> p;
    const char sub[] = "inst0";
    header(h, 0, 0, 0x01000E76u, 5);
    if (!sendAllBytes(sync, h, 16) || !sendAllBytes(sync, sub, 5) || !readMessage(sync, h, p) || h[2] != 1)
      return false;
    uint32_t session = (uint32_t)h[6] << 8 | h[7];
    header(h, 17, 0, session, 0);
    return sendAllBytes(async, h, 16) && readMessage(async, h, p) && h[2] == 18;
  }

  // Sends one request and returns the size of the whole answer.
  size_t probe(const uint8_t* req, size_t n, int32_t* status) {
    uint8_t h[16];
    std::vector<uint8_t> p;
    if (!sendAllBytes(sync, req, n) || !readMessage(sync, h, p) || h[2] != 128 || p.size() < 4) return 0;
    memcpy(status, p.data(), 4);
    return 16 + p.size();
  }

  // The base of the first A24 window of at least one chunk in the bridge's
  // resource text; 0x200000 when there is none.
  uint32_t a24Memory() {
    std::istringstream in(sim->bridge().resourceText());
    std::string line;
    std::map<std::string, unsigned long> cur;
    auto take = [&]() -> long {
      if (cur["sizea24"] >= kBlockElems * 4) return (long)cur["offseta24"];
      return -1;
    };
    while (std::getline(in, line)) {
      if (!line.empty() && line[0] == '[') {
        if (long b = take(); b >= 0) return (uint32_t)b;
        cur.clear();
        continue;
      }
      auto eq = line.find('=');
      if (eq == std::string::npos) continue;
      std::string k = line.substr(0, eq);
      for (char& c : k) c = (char)tolower((unsigned char)c);
      cur[k] = strtoul(line.c_str() + eq + 1, nullptr, 0);
    }
    long b = take();
    return b >= 0 ? (uint32_t)b : 0x200000u;
  }

  // The floor: reads a request of the register command's size and writes an
  // answer of the simulator's size, nothing else.
  void startEcho() {
    echoListen = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof a;
    bind(echoListen, (sockaddr*)&a, sizeof a);
    listen(echoListen, 1);
    getsockname(echoListen, (sockaddr*)&a, &len);
    size_t answer = regAnswer;
    int ls = echoListen;
    echo = std::thread([ls, answer] {
      int fd = accept(ls, nullptr, nullptr);
      if (fd < 0) return;
      int one = 1;
      setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
      std::vector<uint8_t> req(28), ans(answer, 0);
      header(ans.data(), 128, 0, 0, answer - 16);
      while (recvAllBytes(fd, req.data(), req.size()) && sendAllBytes(fd, ans.data(), ans.size())) {
      }
      close(fd);
    });
    echoClient = connectTo(ntohs(a.sin_port));
  }
};

Rig& rig() {
  static Rig r;
  return r;
}

struct Percentiles {
  double p50 = 0, p99 = 0;
};
std::map<std::string, Percentiles> gResults;

Percentiles percentiles(std::vector<double>& ns) {
  Percentiles p;
  if (ns.empty()) return p;
  std::sort(ns.begin(), ns.end());
  p.p50 = ns[ns.size() / 2];
  p.p99 = ns[std::min(ns.size() - 1, ns.size() * 99 / 100)];
  return p;
}

// One request out with one send, the answer in with (usually) one receive.
void roundTrips(benchmark::State& state, int fd, const uint8_t* req, size_t reqLen, size_t ansLen,
                const char* name) {
  std::vector<uint8_t> ans(ansLen);
  std::vector<double> ns;
  ns.reserve(1 << 16);
  for (auto _ : state) {
    auto t0 = Clock::now();
    if (send(fd, req, reqLen, MSG_NOSIGNAL) != (ssize_t)reqLen || !recvAllBytes(fd, ans.data(), ansLen)) {
      state.SkipWithError("connection failed");
      return;
    }
    ns.push_back((double)std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::now() - t0).count());
  }
  Percentiles p = percentiles(ns);
  state.counters["p50_us"] = p.p50 / 1000;
  state.counters["p99_us"] = p.p99 / 1000;
  state.SetBytesProcessed((int64_t)state.iterations() * (int64_t)(reqLen + ansLen));
  gResults[name] = p;
}

void BM_SimRegisterCommand(benchmark::State& state) {
  Rig& r = rig();
  if (!r.error.empty()) return state.SkipWithError(r.error.c_str());
  state.counters["status"] = (double)(uint32_t)r.regStatus;
  roundTrips(state, r.sync, r.regReq, sizeof r.regReq, r.regAnswer, "sim");
}

void BM_TcpPingPongFloor(benchmark::State& state) {
  Rig& r = rig();
  if (!r.error.empty()) return state.SkipWithError(r.error.c_str());
  roundTrips(state, r.echoClient, r.regReq, sizeof r.regReq, r.regAnswer, "floor");
}

void BM_SimBlockRead(benchmark::State& state) {
  Rig& r = rig();
  if (!r.error.empty()) return state.SkipWithError(r.error.c_str());
  if (r.blockStatus < 0 || r.blockAnswer < 16 + 12 + kBlockElems * 4)
    state.counters["short_answer"] = 1;  // the bridge refused: the rate is of its error answers
  roundTrips(state, r.sync, r.blockReq, sizeof r.blockReq, r.blockAnswer, "block");
  state.SetBytesProcessed((int64_t)state.iterations() * (int64_t)(r.blockAnswer > 28 ? r.blockAnswer - 28 : 0));
}

void BM_MemcpyBlock(benchmark::State& state) {
  std::vector<char> a(kBlockElems * 4, 1), b(kBlockElems * 4);
  for (auto _ : state) {
    memcpy(b.data(), a.data(), a.size());
    benchmark::DoNotOptimize(b.data());
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed((int64_t)state.iterations() * (int64_t)a.size());
}

BENCHMARK(BM_TcpPingPongFloor)->UseRealTime();
BENCHMARK(BM_SimRegisterCommand)->UseRealTime();
BENCHMARK(BM_SimBlockRead)->UseRealTime();
BENCHMARK(BM_MemcpyBlock);

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  if (gResults.count("sim") && gResults.count("floor")) {
    Percentiles s = gResults["sim"], f = gResults["floor"];
    printf("\nregister command round trip (%zu-byte answer):\n", rig().regAnswer);
    printf("  simulator  p50 %8.1f us   p99 %8.1f us\n", s.p50 / 1000, s.p99 / 1000);
    printf("  tcp floor  p50 %8.1f us   p99 %8.1f us\n", f.p50 / 1000, f.p99 / 1000);
    if (f.p50 > 0 && f.p99 > 0)
      printf("  ratio      p50 %8.2fx     p99 %8.2fx   (target: about 1.5x or less)\n", s.p50 / f.p50,
             s.p99 / f.p99);
    if (rig().regStatus < 0)
      printf("  note: the bridge answered status 0x%08X (no mainframe model behind it)\n", (unsigned)rig().regStatus);
  }
  if (gResults.count("block")) {
    Percentiles b = gResults["block"];
    double mb = (double)kBlockElems * 4 / (b.p50 / 1e9) / 1e6;
    printf("block read of %u bytes: p50 %.1f us, %.0f MB/s at the median%s\n", kBlockElems * 4, b.p50 / 1000, mb,
           rig().blockStatus < 0 ? " (refused by the bridge: not a data rate)" : "");
  }
  return 0;
}
