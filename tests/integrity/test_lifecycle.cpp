// Stop with calls in flight, start after stop, unload and load again, and
// several host processes at once.
#include <sys/wait.h>

#include <cstdio>

#include "integrity.h"

using namespace integ;

namespace {

class Lifecycle : public PatternHost {
 protected:
  // Runs the peer with arguments; its whole output, "[exit N]" on failure.
  static FILE* spawn(const std::string& args) {
    return popen(("ASAN_OPTIONS=detect_leaks=0 " INTEGRITY_PEER " " + args + " 2>&1").c_str(), "r");
  }
  static std::string finish(FILE* p) {
    std::string out;
    char buf[256];
    while (fgets(buf, sizeof buf, p)) out += buf;
    int rc = pclose(p);
    if (!WIFEXITED(rc) || WEXITSTATUS(rc) != 0) out += "[exit " + std::to_string(rc) + "]";
    return out;
  }
  std::string peerArgs() const { return std::to_string(base) + " " + std::to_string(space); }
};

bool allowed(ViStatus st) { return st == VI_SUCCESS || st == VI_ERROR_SYSTEM_ERROR || st == kConnLost; }

}  // namespace

// Register, block and Word Serial threads keep calling while the host stops
// the driver: no crash (the sanitizer builds catch a use of the unmapped
// block or of the closed mutex), only the statuses of a call that races a
// stop, and every answer that does come is right.  Then the driver starts
// again as after loading.
TEST_F(Lifecycle, StopWithCallsInFlightThenStartAgain) {
  const int dmm = need(kLaDmm);
  for (int round = 0; round < 4; round++) {
    SCOPED_TRACE(round);
    std::atomic<int> calls{0}, bad{0};
    std::atomic<bool> stopped{false};
    auto loop = [&](const std::function<ViStatus()>& call) {
      for (int after = 0; after < 3;) {
        ViStatus st = call();
        calls++;
        if (!allowed(st)) bad++;
        if (stopped) after++;
      }
    };
    std::vector<ViUInt32> blk(2000);
    std::thread reg(loop, [&] {
      ViUInt32 v = 0;
      ViStatus st = vintfIn32(0, 0, space, base + 0x80, &v);
      return st == 0 && v != patternAt(0x80) ? VI_ERROR_IO : st;
    });
    std::thread block(loop, [&] {
      ViStatus st = vintfMoveIn32(0, 0, space, 1, base, blk.size(), blk.data());
      return st == 0 && blk.back() != patternAt(4 * 1999) ? VI_ERROR_IO : st;
    });
    std::thread ws(loop, [&] {
      ViUInt16 stb = 0;
      return vintfWSreadSTB(0, dmm, 2000, &stb);
    });
    while (calls < 30) std::this_thread::yield();
    tcpvxi_stop();
    stopped = true;
    reg.join();
    block.join();
    ws.join();
    EXPECT_EQ(0, bad.load());
    // Back to the loaded state.
    EXPECT_EQ(0, FillRsrcCalled);
    EXPECT_EQ(nullptr, tcpvxiGD);
    for (auto& i : Interfaces) EXPECT_TRUE(i.kvtcp.Connected == 0 && i.GIntf == nullptr && i.kvtcp.S_Core == 0);
    tcpvxi_start();
    ViUInt16 n = 0;
    ASSERT_EQ(0, vintfOpenDevice(&n));
    ASSERT_EQ(1, n);
    EXPECT_TRUE(readChecks(0x40));
  }
}

// The host stops the driver, unloads it, loads it again and starts it:
// with no other user left the block is removed and must be filled afresh.
TEST_F(Lifecycle, StopUnloadLoadStartWorksLikeTheFirstStart) {
  tcpvxi_stop();
  std::string out = finish(spawn("reload " + peerArgs()));
  for (int r = 1; r <= 3; r++)
    EXPECT_NE(std::string::npos, out.find("round " + std::to_string(r) + ": ok")) << out;
  EXPECT_EQ(std::string::npos, out.find("[exit")) << out;
}

// Three host processes with three threads each (registers, blocks, Word
// Serial) on one bridge: every answer checked.  Each process talks to its own
// message-based instrument (a query and its reply are two calls, which no
// lock spans across processes, so two hosts must not share one instrument);
// one of them also sends identity queries.
TEST_F(Lifecycle, ThreeProcessesThreeThreadsNoMismatch) {
  struct Peer {
    int la;
    const char* idn;
    FILE* out;
  } peers[] = {{kLaDmm, "Simulated,VXI Multimeter 6.5,SIM1016,2.1", nullptr},
               {kLaCounter, "-", nullptr},
               {kLaSwitch, "-", nullptr}};
  for (Peer& p : peers)
    p.out = spawn("load " + peerArgs() + " " + std::to_string(need(p.la)) + " '" + p.idn + "' 60 3");
  for (Peer& p : peers) {
    std::string out = finish(p.out);
    EXPECT_NE(std::string::npos, out.find("mismatches=0\n")) << p.la << ": " << out;
    EXPECT_EQ(std::string::npos, out.find("[exit")) << out;
  }
}
