// Start, open, close and stop as a host drives them, against two simulated
// bridges: the shared block, a second host process, the system calls, bridges
// that go away and come back, and interrupts.
#include <sys/stat.h>
#include <sys/wait.h>

#include <cstdio>
#include <thread>

#include "drvcore.h"

using namespace dc;

namespace {

bool shmExists() {
  struct stat st;
  return stat("/dev/shm/kvtcpvxiapimemfilemap", &st) == 0;
}

std::string run(const char* prog) {
  std::string out;
  // Diagnostics go with the output.  No leak check: unmapping a block another
  // process still maps keeps the mapping's record, as the platform intends.
  FILE* p = popen(("ASAN_OPTIONS=detect_leaks=0 " + std::string(prog) + " 2>&1").c_str(), "r");
  if (!p) return out;
  char buf[256];
  while (fgets(buf, sizeof buf, p)) out += buf;
  int rc = pclose(p);
  if (!WIFEXITED(rc) || WEXITSTATUS(rc) != 0) out += "[exit " + std::to_string(rc) + "]";
  return out;
}

class DrvLifecycle : public SimHost {
 protected:
  DrvLifecycle() : SimHost({"127.0.0.2", "127.0.0.3"}) {}
};

}  // namespace

TEST_F(DrvLifecycle, StartOpenFillsTheSharedBlock) {
  EXPECT_EQ(1, tcpvxiGD->NIntf);
  EXPECT_EQ(1, FillRsrcCalled);
  const SHAREDINTFINFO& g0 = tcpvxiGD->Intf[0];
  EXPECT_STREQ("127.0.0.2", g0.Addr);
  EXPECT_STREQ("mainframe 0", g0.devName);
  EXPECT_EQ(&tcpvxiGD->Intf[1], Interfaces[1].GIntf);
  EXPECT_EQ(1, Interfaces[1].idx);
  // Every instrument as the bridge's text describes it, byte for byte.
  IniText doc = parseText(sim().bridge().resourceText());
  SHAREDINTFINFO expect{};
  const int n = drvReadInstruments(0, &expect, doc);
  Ini_Dispose(doc);
  ASSERT_EQ(6, n);
  for (uint16_t intf : {0, 1}) {
    ViUInt32 k = 0;
    EXPECT_EQ(0, vintfGetNumRsrc(intf, &k));
    EXPECT_EQ((uint32_t)n, k);
    for (int i = 0; i < n; i++)
      EXPECT_EQ(0, memcmp(&expect.Instr[i], &tcpvxiGD->Intf[intf].Instr[i], sizeof(RmInstrInfo))) << i;
  }
  uint16_t ext = 0;
  EXPECT_EQ(0, vintfGetExtIntf(1, &ext));
  EXPECT_EQ(1, ext) << "INTF_NUM as the bridge text last wrote it";

  // A second open connects nothing new and does not fill again.
  uint16_t k = 0;
  EXPECT_EQ(0, vintfOpenDevice(&k));
  EXPECT_EQ(2, k);
  EXPECT_TRUE(sim().receivedCommands().empty());

  EXPECT_EQ(0, vintfCloseDevice());
  EXPECT_EQ(0, Interfaces[0].kvtcp.Connected);
  EXPECT_NE(nullptr, tcpvxiGD) << "close keeps the block";
  // Open again: reconnects with the lock (time-out word 1000) only.
  EXPECT_EQ(0, vintfOpenDevice(&k));
  EXPECT_EQ(1, Interfaces[0].kvtcp.Connected);
  auto c = sim().receivedCommands();
  ASSERT_EQ(1u, c.size());
  EXPECT_EQ((Bytes{1, 0, 0, 0, 0xE8, 3, 0, 0}), c[0]);
}

// The same address on both buses: each interface stays on its own.
TEST_F(DrvLifecycle, EachInterfaceReachesItsOwnMainframe) {
  const ViBusAddress a = attr64(0, need(kLaMemory, 0), VI_ATTR_MEM_BASE_64);
  ASSERT_EQ(a, attr64(1, need(kLaMemory, 1), VI_ATTR_MEM_BASE_64));
  for (ViUInt16 intf : {0, 1}) {
    std::vector<uint32_t> d(5000, intf + 1);
    ASSERT_EQ(0, vintfMoveOut32(intf, 0, 3, 1, a, d.size(), d.data()));
  }
  for (ViUInt16 intf : {0, 1}) {
    std::vector<uint32_t> back(5000);
    ASSERT_EQ(0, vintfMoveIn32(intf, 0, 3, 1, a, back.size(), back.data()));
    EXPECT_EQ(std::vector<uint32_t>(5000, intf + 1), back) << intf;
    EXPECT_EQ(2u, sim(intf).receivedCommands().size()) << intf;
  }
}

TEST_F(DrvLifecycle, SecondProcessSeesTheBlockAndKeepsItsOwnConnections) {
  EXPECT_EQ("pre status=0 nrsrc=0 name=VXI0::0::INSTR\nopen status=0 nintf=2\n"
            "post status=0 nrsrc=6 name=VXI0::0::INSTR\n",
            run(DRVCORE_PEER));
  EXPECT_EQ(1u, word(sim().receivedCommands().at(0), 0)) << "the peer locked on its own session";
  // Its stop unmapped its view only: ours stays, and so does the block.
  EXPECT_TRUE(shmExists());
  EXPECT_EQ(6, tcpvxiGD->Intf[0].NInstr);
  ViUInt32 n = 0;
  EXPECT_EQ(0, vintfGetNumRsrc(0, &n));
  EXPECT_EQ(6u, n) << "our own connection is still up";
  ViInt16 state = 0;
  sim().clearReceived();
  EXPECT_EQ(0, vintfGetSysState(0, &state));
  EXPECT_EQ(1u, sim().receivedCommands().size());
  tcpvxi_stop();
  EXPECT_EQ(nullptr, tcpvxiGD);
  EXPECT_FALSE(shmExists()) << "the last process to unmap removes the block";
}

TEST_F(DrvLifecycle, ResetAndSystemState) {
  ViStatus st = 1;
  std::thread t([&] { st = vintfResetVXI(0); });
  // The call holds the mutex while the mainframe resets, 500 ms after the answer.
  for (int i = 0; i < 2000 && sim().receivedCommands().empty(); i++)
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  ASSERT_EQ(1u, sim().receivedCommands().size());
  EXPECT_EQ(2u, word(sim().receivedCommands()[0], 0));
  EXPECT_NE(0, util_mutex_lock(hMutexTcpVxiRM, 0)) << "a second lock attempt fails during the reset";
  t.join();
  EXPECT_EQ(0, st);
  EXPECT_TRUE(mutexFree());
  faults([](auto& f) { f.statusCode = 2, f.forcedStatus = (int32_t)0xBFFF003E; });
  EXPECT_EQ(VI_ERROR_IO, vintfResetVXI(0)) << "the bridge's status is the result";

  // An empty answer is a lost connection, though the transfer worked.
  faults([](auto& f) { f.emptyCode = 3; });
  ViInt16 v = 0x55;
  EXPECT_EQ(VI_ERROR_CONN_LOST, vintfGetSysState(0, &v));
  EXPECT_EQ(0, v);
  EXPECT_EQ(3u, word(commandsOf(sim(), 3).at(0), 0));
  EXPECT_TRUE(mutexFree());
}

// Both bridges go away.  Interface 0, still marked connected, fails to
// reopen and keeps the mutex on purpose; on interface 1 calls fail, and
// reopening fails until the bridge is back.
TEST_F(DrvLifecycle, ReopenAgainstBridgesThatGoAndComeBack) {
  const int dmm = need(kLaDmm, 1);
  const ViBusAddress mem = attr64(1, need(kLaMemory, 1), VI_ATTR_MEM_BASE_64);
  sims[0].reset();
  sims[1].reset();
  const bool wasConnected = Interfaces[0].kvtcp.Connected != 0;
  EXPECT_EQ(VI_ERROR_CONN_LOST, vintfTryReopenDevice(0));
  EXPECT_EQ(0, Interfaces[0].kvtcp.Connected);
  if (wasConnected) {
    EXPECT_FALSE(mutexFree());
    util_mutex_unlock(hMutexTcpVxiRM);
  }

  ViUInt16 w = 0x7777;
  EXPECT_EQ(kConnLost, vintfIn16(1, 0, 1, configBase(kLaDmm), &w));
  EXPECT_EQ(0x7777, w);
  ViUInt16 r = 0;
  EXPECT_LT(vintfWScmd(1, dmm, 200, 0xDFFF, 1, &r), 0);
  ViUInt32 l[4] = {};
  EXPECT_LT(vintfMoveIn32(1, 0, 3, 1, mem, 4, l), 0);
  // The simple path (record not connected) releases the mutex.
  EXPECT_EQ(VI_ERROR_CONN_LOST, vintfTryReopenDevice(1));
  EXPECT_TRUE(mutexFree());
  EXPECT_EQ(VI_ERROR_SYSTEM_ERROR, vintfTryReopenDevice(2));
  EXPECT_EQ(VI_ERROR_SYSTEM_ERROR, vintfTryReopenDevice(-1));

  sims[1] = startSim("127.0.0.3");
  EXPECT_EQ(0, vintfTryReopenDevice(1));
  EXPECT_EQ(1, Interfaces[1].kvtcp.Connected);
  EXPECT_EQ((std::vector<uint32_t>{1}), head(sims[1]->receivedCommands().at(0), 1)) << "the lock comes first";
  ASSERT_EQ(0, vintfIn16(1, 0, 1, configBase(kLaDmm), &w));
  EXPECT_EQ(0xFFB, w & 0xFFF);
  EXPECT_EQ(0, vintfWScmd(1, dmm, 3000, 0xDFFF, 1, &r));
  EXPECT_EQ(0x1005, r);
}

// A test interrupt and interrupts raised behind either bridge reach the host
// with the interface's host number, the instrument, status/ID and line.
TEST_F(DrvLifecycle, InterruptsReachTheHost) {
  takeEvents();
  vintfUserIRQCallback(onEvent);
  EXPECT_EQ(0, vintfSetExtIntf(0, 4));
  EXPECT_EQ(0, vintfSetExtIntf(1, 9));
  // The digitizer (instrument 1, logical address 8) interrupts on line 2.
  EXPECT_EQ(0, vintfTestIRQ(0, 0x1208));
  ASSERT_TRUE(waitEvents(1));
  EXPECT_EQ((std::vector<Event>{{kIntr, 4, 1, 0x1208, 2}}), takeEvents());
  EXPECT_EQ((Bytes{17, 0, 0, 0, 0, 0, 0, 0, 0x08, 0x12, 0, 0}), sim().receivedCommands().at(0));
  sim(1).sendInterrupt(2, 0x0000FF08);
  ASSERT_TRUE(waitEvents(1));
  EXPECT_EQ((std::vector<Event>{{kIntr, 9, 1, 0xFF08, 2}}), takeEvents());
  // Two pairs: address 24 is instrument 3, address 0 the controller; line 9 is 1.
  sim(0).sendAsyncVendor(report({{1, 0x0000FF18}, {9, 0x0000FF00}}));
  ASSERT_TRUE(waitEvents(2));
  EXPECT_EQ((std::vector<Event>{{kIntr, 4, 3, 0xFF18, 1}, {kIntr, 4, 0, 0xFF00, 1}}), takeEvents());

  // The bridge's status is not the result; a number above NIntf is.
  faults([](auto& f) { f.statusCode = 17, f.forcedStatus = (int32_t)0xBFFF003E; });
  EXPECT_EQ(0, vintfTestIRQ(0, 0x18));
  EXPECT_EQ(VI_ERROR_SYSTEM_ERROR, vintfTestIRQ(2, 0x18));
  EXPECT_TRUE(mutexFree());
}
