// Start, open, close and stop as a host drives them, against simulated
// bridges on 127.0.0.2 and 127.0.0.3: the shared block after discovery, a
// second host process, removal of the block, the system calls, and
// reopening.
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
  // The peer's diagnostics (sanitizer reports included) go with its output.
  // Leak checking is off there: unmapping a block that another process
  // still maps keeps the mapping's record, as the platform layer intends.
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
  EXPECT_EQ("VXI0::24::INSTR", attrStr(1, 3, VI_ATTR_RSRC_NAME));
  EXPECT_EQ(24, attr16(0, 3, VI_ATTR_VXI_LA));
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
  ViUInt32 nr = 9;
  EXPECT_EQ(0, vintfGetNumRsrc(0, &nr));
  EXPECT_EQ(0u, nr) << "not connected in this process";
  EXPECT_NE(nullptr, tcpvxiGD) << "close keeps the block";
  // Open again: reconnects with the lock (time-out word 1000) only.
  EXPECT_EQ(0, vintfOpenDevice(&k));
  EXPECT_EQ(1, Interfaces[0].kvtcp.Connected);
  auto c = sim().receivedCommands();
  ASSERT_EQ(1u, c.size());
  EXPECT_EQ((Bytes{1, 0, 0, 0, 0xE8, 3, 0, 0}), c[0]);
  EXPECT_TRUE(shmExists());
  tcpvxi_stop();
  EXPECT_EQ(nullptr, tcpvxiGD);
  EXPECT_FALSE(shmExists()) << "the last process to unmap removes the block";
}

TEST_F(DrvLifecycle, SecondProcessSeesTheBlockAndKeepsItsOwnConnections) {
  std::string out = run(DRVCORE_PEER);
  EXPECT_EQ(std::string::npos, out.find("[exit")) << out;
  EXPECT_NE(std::string::npos, out.find("pre status=0 nrsrc=0 name=VXI0::0::INSTR\n")) << out;
  EXPECT_NE(std::string::npos, out.find("open status=0 nintf=2\n")) << out;
  EXPECT_NE(std::string::npos, out.find("post nrsrc=6 name=VXI0::0::INSTR\n")) << out;
  // The peer connected and locked on its own session.
  auto c = sim().receivedCommands();
  ASSERT_FALSE(c.empty());
  EXPECT_EQ(1u, word(c[0], 0));
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
  EXPECT_FALSE(shmExists());
}

TEST_F(DrvLifecycle, ResetAndSystemState) {
  ViStatus st = 1;
  std::thread t([&] { st = vintfResetVXI(0); });
  // Once the bridge has the command the call holds the mutex, and keeps it
  // for 500 ms after the answer.
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

TEST_F(DrvLifecycle, ReopenAgainstABridgeThatIsGone) {
  sims[0].reset();
  const bool wasConnected = Interfaces[0].kvtcp.Connected != 0;
  EXPECT_EQ(VI_ERROR_CONN_LOST, vintfTryReopenDevice(0));
  EXPECT_EQ(0, Interfaces[0].kvtcp.Connected);
  // From a record still marked connected, the failure keeps the mutex.
  if (wasConnected) {
    EXPECT_FALSE(mutexFree());
    util_mutex_unlock(hMutexTcpVxiRM);
  }
  EXPECT_TRUE(mutexFree());
  // The simple path (record not connected) releases it.
  EXPECT_EQ(VI_ERROR_CONN_LOST, vintfTryReopenDevice(0));
  EXPECT_TRUE(mutexFree());
  EXPECT_EQ(VI_ERROR_SYSTEM_ERROR, vintfTryReopenDevice(2));
  EXPECT_EQ(VI_ERROR_SYSTEM_ERROR, vintfTryReopenDevice(-1));
  EXPECT_TRUE(mutexFree());
}
