// The interrupt channel end to end: channel creation, enable SRQ and its handle,
// service requests with our own and a foreign handle, set-up failures.
#include <atomic>

#include "common.h"

using namespace vx;

namespace {

std::atomic<int> gEvents{0};
std::atomic<pKvTcpInfo> gEventRecord{nullptr};

std::string handle(uint64_t id) {  // the id in host order, then zeros
  std::string h(40, '\0');
  memcpy(&h[0], &id, 8);
  return h;
}

void onEvent(pKvTcpInfo intf) {
  gEventRecord = intf;
  gEvents++;
}

class Vxi11Intr : public Vxi11Test {
 protected:
  KvTcpInfo* connectWithEvents(const vxi11sim::Faults& f = {}) {
    gEvents = 0;
    startSim(f);
    kvtcp_setCallback(onEvent);
    KvTcpInfo* r = connect();
    EXPECT_NE(r->intr_port, 0);  // the connect waited for the thread's port
    return r;
  }
  bool threadEnded(KvTcpInfo* r) { return eventually([&] { return r->intr_port == 0xFFFF; }, 10000) && !r->S_Intr; }
};

TEST_F(Vxi11Intr, ServiceRequestReachesHandlerOnlyWithOurHandle) {
  KvTcpInfo* r = connectWithEvents();
  for (int i = 0; i < 20; i++)  // issued while the thread may still be creating the channel
    ASSERT_EQ(stb(r, 2000).first, VI_SUCCESS) << i;
  ASSERT_TRUE(sim->waitForInterruptChannel(5000));
  ASSERT_TRUE(eventually([&] { return r->S_Intr != 0; }));
  EXPECT_NE(r->intr_port, 0xFFFF);
  EXPECT_EQ(pcpintf, &cpintf);
  EXPECT_EQ(cpintf.lid, r->lid);

  uint64_t id = vxi11_InterruptID;
  ASSERT_EQ(kvtcp_vxi11_EnableEvents(r), VI_SUCCESS);
  EXPECT_EQ(vxi11_InterruptID, id + 1);
  std::string expect = handle(id);
  EXPECT_EQ(sim->srqHandle(), expect);
  EXPECT_EQ(std::string(r->intr_handle, 40), expect);

  ASSERT_EQ(sim->fireSrq(), 1);
  ASSERT_TRUE(eventually([] { return gEvents == 1; }));
  EXPECT_EQ(gEventRecord, r);
  EXPECT_TRUE(logged("SRQ 127.0.0.2"));

  // A foreign handle is dropped; a matching call sent after it proves that
  // the foreign one has been looked at (the channel is one ordered stream).
  std::string other = expect;
  other[0] ^= 1;
  ASSERT_EQ(sim->fireSrqWithHandle(other), 1);
  ASSERT_EQ(sim->fireSrqWithHandle(std::string(expect, 0, 8)), 1);  // a shorter, matching prefix
  ASSERT_EQ(sim->fireSrq(), 1);
  ASSERT_TRUE(eventually([] { return gEvents >= 3; }));
  EXPECT_EQ(gEvents, 3);
  EXPECT_TRUE(logged("wrong answ srq_repl"));

  send(r, "SRQ\n");  // the instrument's own service request (status byte bit 6)
  ASSERT_TRUE(eventually([] { return gEvents == 4; }));
  auto [st, byte] = stb(r);
  EXPECT_EQ(std::make_pair(st, byte & 0x40), std::make_pair(VI_SUCCESS, 0x40));

  kvtcp_Disconnect(r);  // closes the channel; the thread ends
  EXPECT_EQ(r->S_Intr, 0);
  EXPECT_TRUE(threadEnded(r));
}

TEST_F(Vxi11Intr, EnablesOnTwoConnectionsGiveConsecutiveHandles) {
  startSim();
  auto sim2 = makeSim("127.0.0.3");  // a device of its own, so a wrong link id would be refused
  KvTcpInfo* a = connect();
  KvTcpInfo* b = connect("inst0", nullptr, nullptr, "127.0.0.3");
  uint64_t id = vxi11_InterruptID;
  ASSERT_EQ(kvtcp_vxi11_EnableEvents(a), VI_SUCCESS);
  ASSERT_EQ(kvtcp_vxi11_EnableEvents(b), VI_SUCCESS);
  EXPECT_EQ(std::string(b->intr_handle, 40), handle(id + 1));
  EXPECT_EQ(sim2->srqHandle(), handle(id + 1));
  kvtcp_Close(b);
  sim2->stop();
}

// A CREATE_INTR_CHAN error, or a device that never connects back: the thread ends, the link goes on.
TEST_F(Vxi11Intr, ChannelSetUpFailuresEndTheThreadButNotTheConnection) {
  vxi11sim::Faults error, silent;
  error.intrChanError = 6;
  silent.noConnectBack = true;
  for (const auto& f : {silent, error}) {
    KvTcpInfo* r = connectWithEvents(f);
    EXPECT_TRUE(threadEnded(r));
    EXPECT_EQ(logged("my_resp.error=6"), f.intrChanError == 6);
    EXPECT_EQ(query(r, "*IDN?\n"), Got(2, kIdn));
    kvtcp_Close(r);
    sim->stop();
  }
}

TEST_F(Vxi11Intr, PeerClosingTheChannelDoesNotSpinAndDisconnectEndsThread) {
  KvTcpInfo* r = connectWithEvents();
  ASSERT_TRUE(eventually([&] { return r->S_Intr != 0; }));
  sim->stop();  // closes the device's end of every channel
  EXPECT_NE(r->intr_port, 0xFFFF);  // still waiting for the record to go down
  kvtcp_Disconnect(r);
  EXPECT_TRUE(threadEnded(r));
}

}  // namespace
