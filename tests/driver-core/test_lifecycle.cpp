// Start, open, close and stop as a host drives them, against small bridges
// on 127.0.0.2 and 127.0.0.3: the shared block after discovery, a second
// host process, removal of the block, the system calls, and reopening.
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

class DrvLifecycle : public ::testing::Test {
 protected:
  void SetUp() override {
    resetDriver();
    clearEvents();
    a = std::make_unique<mb::Bridge>("127.0.0.2");
    b = std::make_unique<mb::Bridge>("127.0.0.3");
    ASSERT_TRUE(a->ok() && b->ok());
    a->set([](auto& s) { s.text = "[COMMON]\nNumInstr=2\n" + instr(1, "VXI0::0::INSTR", 0) + instr(2, "VXI0::24::INSTR", 24); });
    b->set([](auto& s) { s.text = "[COMMON]\nNumInstr=1\n" + instr(1, "VXI1::8::INSTR", 8); });
    writeResman(resmanFor({"127.0.0.2", "127.0.0.3"}));
  }
  void TearDown() override {
    resetDriver();
    a.reset();
    b.reset();
  }
  void open(uint16_t expect) {
    tcpvxi_start();
    ASSERT_NE(nullptr, tcpvxiGD);
    uint16_t n = 0xFFFF;
    ASSERT_EQ(0, vintfOpenDevice(&n));
    ASSERT_EQ(expect, n);
  }
  std::unique_ptr<mb::Bridge> a, b;
};

}  // namespace

TEST_F(DrvLifecycle, StartOpenFillsTheSharedBlock) {
  open(2);
  EXPECT_EQ(1, tcpvxiGD->NIntf);
  EXPECT_EQ(1, FillRsrcCalled);
  const SHAREDINTFINFO& g0 = tcpvxiGD->Intf[0];
  EXPECT_STREQ("127.0.0.2", g0.Addr);
  EXPECT_STREQ("mainframe 0", g0.devName);
  EXPECT_EQ(2, g0.NInstr);
  EXPECT_EQ(&tcpvxiGD->Intf[1], Interfaces[1].GIntf);
  EXPECT_EQ(1, Interfaces[1].idx);
  uint32_t n = 0;
  EXPECT_EQ(0, vintfGetNumRsrc(0, &n));
  EXPECT_EQ(2u, n);
  EXPECT_EQ(0, vintfGetNumRsrc(1, &n));
  EXPECT_EQ(1u, n);
  EXPECT_EQ("VXI0::24::INSTR", attrStr(0, 1, VI_ATTR_RSRC_NAME));
  EXPECT_EQ(24, attr16(0, 1, VI_ATTR_VXI_LA));
  EXPECT_EQ("VXI1::8::INSTR", attrStr(1, 0, VI_ATTR_RSRC_NAME));
  EXPECT_EQ(1, attr16(1, 0, VI_ATTR_SLOT));
  uint16_t ext = 0;
  EXPECT_EQ(0, vintfGetExtIntf(1, &ext));
  EXPECT_EQ(1, ext) << "INTF_NUM as the bridge text last wrote it";

  // What went over the wire: the lock (time-out word 1000), then the text
  // request with a zero time-out word.
  auto c = a->commands();
  ASSERT_EQ(2u, c.size());
  EXPECT_EQ((mb::Bytes{1, 0, 0, 0, 0xE8, 3, 0, 0}), c[0]);
  EXPECT_EQ((mb::Bytes{16, 0, 0, 0, 0, 0, 0, 0}), c[1]);

  // A second open connects nothing new and does not fill again.
  a->clear();
  uint16_t k = 0;
  EXPECT_EQ(0, vintfOpenDevice(&k));
  EXPECT_EQ(2, k);
  EXPECT_TRUE(a->commands().empty());

  EXPECT_EQ(0, vintfCloseDevice());
  EXPECT_EQ(0, Interfaces[0].kvtcp.Connected);
  EXPECT_EQ(0, vintfGetNumRsrc(0, &n));
  EXPECT_EQ(0u, n);
  EXPECT_NE(nullptr, tcpvxiGD) << "close keeps the block";
  // Open again: reconnects without filling again.
  EXPECT_EQ(0, vintfOpenDevice(&k));
  EXPECT_EQ(1, Interfaces[0].kvtcp.Connected);
  EXPECT_EQ(1u, a->commands().size()) << "only the lock";
  EXPECT_TRUE(shmExists());
  tcpvxi_stop();
  EXPECT_EQ(nullptr, tcpvxiGD);
  EXPECT_FALSE(shmExists()) << "the last process to unmap removes the block";
  EXPECT_TRUE(mutexFree() || hMutexTcpVxiRM == nullptr);
}

TEST_F(DrvLifecycle, SecondProcessSeesTheBlockAndKeepsItsOwnConnections) {
  open(2);
  a->clear();
  std::string out = run(DRVCORE_PEER);
  EXPECT_EQ(std::string::npos, out.find("[exit")) << out;
  EXPECT_NE(std::string::npos, out.find("pre status=0 nrsrc=0 name=VXI0::0::INSTR\n")) << out;
  EXPECT_NE(std::string::npos, out.find("open status=0 nintf=2\n")) << out;
  EXPECT_NE(std::string::npos, out.find("post nrsrc=2 name=VXI0::0::INSTR\n")) << out;
  // The peer connected and locked on its own session.
  auto c = a->commands();
  ASSERT_FALSE(c.empty());
  EXPECT_EQ(1u, mb::word(c[0], 0));
  // Its stop unmapped its view only: ours stays, and so does the block.
  EXPECT_TRUE(shmExists());
  EXPECT_EQ(2, tcpvxiGD->Intf[0].NInstr);
  uint32_t n = 0;
  EXPECT_EQ(0, vintfGetNumRsrc(0, &n));
  EXPECT_EQ(2u, n) << "our own connection is still up";
  a->clear();
  ViInt16 state = 0;
  EXPECT_EQ(0, vintfGetSysState(0, &state));
  EXPECT_EQ(1u, a->commands().size());
  tcpvxi_stop();
  EXPECT_FALSE(shmExists());
}

TEST_F(DrvLifecycle, ResetHoldsTheMutexAfterTheAnswer) {
  open(2);
  a->clear();
  ViStatus st = 1;
  std::thread t([&] { st = vintfResetVXI(0); });
  // Once the bridge has the command the call holds the mutex, and keeps it
  // for 500 ms after the answer.
  for (int i = 0; i < 2000 && a->commands().empty(); i++) std::this_thread::sleep_for(std::chrono::milliseconds(1));
  ASSERT_EQ(1u, a->commands().size());
  EXPECT_EQ((mb::Bytes{2, 0, 0, 0, 0, 0, 0, 0}), a->commands()[0]);
  EXPECT_NE(0, util_mutex_lock(hMutexTcpVxiRM, 0)) << "a second lock attempt fails during the reset";
  t.join();
  EXPECT_EQ(0, st);
  EXPECT_TRUE(mutexFree());
  a->set([](auto& s) { s.answer = [](const mb::Bytes&) { return std::optional<mb::Bytes>(mb::Bytes{0x3E, 0, 0xFF, 0xBF}); }; });
  EXPECT_EQ(VI_ERROR_IO, vintfResetVXI(0)) << "the bridge's status is the result";
}

TEST_F(DrvLifecycle, SystemStateBits) {
  open(2);
  auto state = [&](int32_t bits, ViStatus expect) {
    a->set([&](auto& s) { s.state = bits; });
    ViInt16 v = 0x55;
    EXPECT_EQ(expect, vintfGetSysState(0, &v));
    return v;
  };
  EXPECT_EQ(3, state(7, 0));
  EXPECT_EQ(1, state(1, 0));
  EXPECT_EQ(2, state(-2, 0));
  EXPECT_EQ(0, state(4, 0));
  a->clear();
  ViInt16 v;
  vintfGetSysState(0, &v);
  EXPECT_EQ((mb::Bytes{3, 0, 0, 0, 0, 0, 0, 0}), a->commands().at(0));
  // An empty answer is a lost connection, though the transfer worked.
  a->set([](auto& s) { s.answer = [](const mb::Bytes&) { return std::optional<mb::Bytes>(mb::Bytes{}); }; });
  v = 0x55;
  EXPECT_EQ(VI_ERROR_CONN_LOST, vintfGetSysState(0, &v));
  EXPECT_EQ(0, v);
}

TEST_F(DrvLifecycle, ReopenAgainstABridgeThatIsGone) {
  open(2);
  a.reset();
  bool wasConnected = Interfaces[0].kvtcp.Connected != 0;
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
