// The interrupt channel end to end: the thread's CREATE_INTR_CHAN, the
// device connecting back, enable SRQ handing over the handle, service
// requests with a matching and a foreign handle, and the set-up failures
// that end the thread but leave the connection usable.
#include <atomic>
#include <condition_variable>

#include "common.h"

using namespace vx;

namespace {

std::mutex g_cbMutex;
std::condition_variable g_cbCv;
int g_cbCount = 0;
pKvTcpInfo g_cbRecord = nullptr;

void onEvent(pKvTcpInfo intf) {
  std::lock_guard<std::mutex> g(g_cbMutex);
  g_cbCount++;
  g_cbRecord = intf;
  g_cbCv.notify_all();
}

bool waitEvents(int n) {
  std::unique_lock<std::mutex> g(g_cbMutex);
  return g_cbCv.wait_for(g, std::chrono::seconds(5), [&] { return g_cbCount >= n; });
}

int events() {
  std::lock_guard<std::mutex> g(g_cbMutex);
  return g_cbCount;
}

class Vxi11Intr : public Vxi11Test {
 protected:
  void SetUp() override {
    Vxi11Test::SetUp();
    if (IsSkipped()) return;
    std::lock_guard<std::mutex> g(g_cbMutex);
    g_cbCount = 0;
    g_cbRecord = nullptr;
  }
  KvTcpInfo* connectWithEvents(const vxi11sim::Faults& f = {}) {
    startSim(f);
    kvtcp_setCallback(onEvent);
    KvTcpInfo* r = connect();
    EXPECT_NE(r->intr_port, 0);  // the connect waited for the thread's port
    return r;
  }
};

TEST_F(Vxi11Intr, ServiceRequestReachesHandlerOnlyWithOurHandle) {
  KvTcpInfo* r = connectWithEvents();
  ASSERT_EQ(r->Connected, 1);
  ASSERT_TRUE(sim->waitForInterruptChannel(5000));
  ASSERT_TRUE(waitUntil([&] { return r->S_Intr != 0; }));
  EXPECT_NE(r->intr_port, 0xFFFF);
  EXPECT_EQ(pcpintf, &cpintf);
  EXPECT_EQ(cpintf.lid, r->lid);

  uint64_t id = vxi11_InterruptID;
  ASSERT_EQ(kvtcp_vxi11_EnableEvents(r), VI_SUCCESS);
  EXPECT_EQ(vxi11_InterruptID, id + 1);
  std::string expect(40, '\0');
  memcpy(&expect[0], &id, 8);
  EXPECT_EQ(sim->srqHandle(), expect);
  EXPECT_EQ(std::string(r->intr_handle, 40), expect);

  ASSERT_EQ(sim->fireSrq(), 1);
  ASSERT_TRUE(waitEvents(1));
  EXPECT_EQ(g_cbRecord, r);
  EXPECT_TRUE(logged("SRQ 127.0.0.2"));

  // A foreign handle is dropped; a matching call sent after it proves that
  // the foreign one has been looked at (the channel is one ordered stream).
  std::string other = expect;
  other[0] ^= 1;
  ASSERT_EQ(sim->fireSrqWithHandle(other), 1);
  ASSERT_EQ(sim->fireSrqWithHandle(std::string(expect, 0, 8)), 1);  // a shorter, matching prefix
  ASSERT_EQ(sim->fireSrq(), 1);
  ASSERT_TRUE(waitEvents(3));
  EXPECT_EQ(events(), 3);
  EXPECT_TRUE(logged("wrong answ srq_repl"));

  // The instrument's own service request (status byte bit 6).
  char cmd[] = "SRQ\n";
  int n = 0;
  ASSERT_EQ(kvtcp_Write(r, 1000, cmd, 4, 0x0002, &n), VI_SUCCESS);
  ASSERT_TRUE(waitEvents(4));
  ViUInt16 stb = 0;
  EXPECT_EQ(kvtcp_ReadSTB(r, 1000, &stb), VI_SUCCESS);
  EXPECT_EQ(stb & 0x40, 0x40);

  // Disconnect closes the channel and the thread ends.
  kvtcp_Disconnect(r);
  EXPECT_EQ(r->S_Intr, 0);
  EXPECT_TRUE(waitUntil([&] { return r->intr_port == 0xFFFF; }));
}

TEST_F(Vxi11Intr, EnablesOnTwoConnectionsGiveConsecutiveHandles) {
  startSim();
  vxi11sim::Options o;
  o.address = "127.0.0.3";
  o.portmap = vxi11sim::PortmapMode::Own;
  vxi11sim::Simulator sim2(o);
  std::string err;
  ASSERT_TRUE(sim2.start(&err)) << err;
  KvTcpInfo* a = connect();
  KvTcpInfo* b = newRecord();
  opened.push_back(b);
  ASSERT_EQ(kvtcp_vxi11_Connect(nullptr, b, "127.0.0.3", "inst0"), VI_SUCCESS);
  ASSERT_EQ(kvtcp_vxi11_EnableEvents(a), VI_SUCCESS);
  ASSERT_EQ(kvtcp_vxi11_EnableEvents(b), VI_SUCCESS);
  uint64_t ha, hb;
  memcpy(&ha, a->intr_handle, 8);
  memcpy(&hb, b->intr_handle, 8);
  EXPECT_EQ(hb, ha + 1);
  EXPECT_EQ(sim2.srqHandle(), std::string(b->intr_handle, 40));
  kvtcp_Close(b);
  sim2.stop();
}

TEST_F(Vxi11Intr, ChannelErrorEndsThreadButNotConnection) {
  vxi11sim::Faults f;
  f.intrChanError = 6;
  KvTcpInfo* r = connectWithEvents(f);
  ASSERT_EQ(r->Connected, 1);
  EXPECT_TRUE(waitUntil([&] { return r->intr_port == 0xFFFF; }));
  EXPECT_EQ(r->S_Intr, 0);
  EXPECT_TRUE(logged("my_resp.error=6"));
  char q[] = "*IDN?\n";
  char in[64] = {};
  int n = 0;
  EXPECT_EQ(kvtcp_Query(r, 1000, q, 6, in, sizeof in - 1, 0x0002, 0, &n), 2);
  EXPECT_STREQ(in, "KVSIM,VXI11-INSTRUMENT,0,1.0\n");
}

TEST_F(Vxi11Intr, DeviceThatNeverConnectsBackEndsThread) {
  vxi11sim::Faults f;
  f.noConnectBack = true;
  KvTcpInfo* r = connectWithEvents(f);
  ASSERT_EQ(r->Connected, 1);
  EXPECT_TRUE(waitUntil([&] { return r->intr_port == 0xFFFF; }, 10000));
  EXPECT_EQ(r->S_Intr, 0);
  ViUInt16 stb = 1;
  sim->setStatusByte(0);
  EXPECT_EQ(kvtcp_ReadSTB(r, 1000, &stb), VI_SUCCESS);
  EXPECT_EQ(stb, 0);
}

TEST_F(Vxi11Intr, CallsRightAfterConnectDoNotInterleaveWithChannelCreation) {
  KvTcpInfo* r = connectWithEvents();
  // Issued while the thread may still be creating the channel.
  for (int i = 0; i < 20; i++) {
    ViUInt16 stb = 0;
    ASSERT_EQ(kvtcp_ReadSTB(r, 2000, &stb), VI_SUCCESS) << i;
  }
  ASSERT_TRUE(waitUntil([&] { return r->S_Intr != 0; }));
  EXPECT_NE(r->intr_port, 0xFFFF);
}

TEST_F(Vxi11Intr, PeerClosingTheChannelDoesNotSpinAndDisconnectEndsThread) {
  KvTcpInfo* r = connectWithEvents();
  ASSERT_TRUE(waitUntil([&] { return r->S_Intr != 0; }));
  sim->stop();  // closes the device's end of every channel
  EXPECT_NE(r->intr_port, 0xFFFF);  // still waiting for the record to go down
  kvtcp_Disconnect(r);
  EXPECT_TRUE(waitUntil([&] { return r->intr_port == 0xFFFF; }));
}

}  // namespace
