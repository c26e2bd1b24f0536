// HiSLIP sessions with the simulated bridge: connect and reconnect, the
// negotiated mode, a bridge that goes away, several clients, bridge commands
// and a flood of asynchronous events.
#include "sim_fixture.h"

using namespace simtest;

namespace {

std::atomic<int> gAsyncVendor{0};
void onEvent(pKvTcpInfo r) {
  if (r->hislipAsyncInMsg == 128) gAsyncVendor++;
}

}  // namespace

TEST(SimSession, ConnectQueryCloseConnectAgainAndSynchronizedMode) {
  Sim sim;
  KvTcpInfo* r = newRecord();
  ASSERT_EQ(0, connectHislip(r));
  EXPECT_EQ(1, r->hislipModeOverlap);  // the simulator offers overlapped mode
  ASSERT_TRUE(eventually([&] { return sim->sessionCount() == 1; }));
  std::string a;
  EXPECT_EQ(2, query(r, "*IDN?\n", &a));  // ended by DataEnd
  EXPECT_EQ(kIdn, a);
  kvtcp_Close(r);
  EXPECT_EQ(0, r->Connected);
  EXPECT_TRUE(eventually([&] { return sim->sessionCount() == 0; }));

  // The same record connects again and gets a fresh session.
  ASSERT_EQ(0, connectHislip(r));
  EXPECT_EQ(2, query(r, "*IDN?\n", &a));
  EXPECT_EQ(kIdn, a);
  EXPECT_EQ(2u, sim->stats().sessionsOpened);
  kvtcp_Close(r);

  Sim sync("127.0.0.3", [](bridgesim::ServerOptions& o) { o.overlapMode = false; });
  ASSERT_EQ(0, connectHislip(r, "127.0.0.3"));
  EXPECT_EQ(0, r->hislipModeOverlap);  // taken from the response
  kvtcp_Close(r);
}

// A record may be freed as soon as it is closed: its receive thread has let
// go of it by then (under ASan a late thread would be a use after free).
TEST(SimSession, RecordFreedRightAfterClose) {
  Sim sim;
  for (int i = 0; i < 20; i++) {
    auto r = std::make_unique<KvTcpInfo>();
    ASSERT_EQ(0, connectHislip(r.get()));
    kvtcp_Close(r.get());
  }
}

TEST(SimSession, SimulatorStoppedAndRestarted) {
  Sim sim;
  KvTcpInfo* r = newRecord();
  ASSERT_EQ(0, connectHislip(r));
  std::string a;
  ASSERT_EQ(2, query(r, "*IDN?\n", &a));

  sim.stop();
  // The session is gone: the exchange fails with a transport status, at once
  // or after its time-out, and does not hang.
  int st = query(r, "*IDN?\n", &a, 500);
  EXPECT_TRUE(st == VI_ERROR_CONN_LOST || st == VI_ERROR_TMO) << std::hex << st;
  KvTcpInfo* other = newRecord();
  EXPECT_EQ(VI_ERROR_RSRC_NFOUND, connectHislip(other));  // nothing listens

  kvtcp_Close(r);
  sim.start();
  ASSERT_EQ(0, connectHislip(r));
  ASSERT_EQ(2, query(r, "*IDN?\n", &a));
  EXPECT_EQ(kIdn, a);
  kvtcp_Close(r);
}

TEST(SimSession, SeveralClientsAtOnce) {
  Sim sim;
  constexpr int kClients = 4, kRounds = 25;
  std::atomic<int> good{0};
  std::vector<std::thread> th;
  for (int c = 0; c < kClients; c++) {
    th.emplace_back([&, c] {
      KvTcpInfo* r = newRecord();
      if (connectHislip(r) != 0) return;
      for (int i = 0; i < kRounds; i++) {
        std::string a;
        bool idn = (i + c) % 2 == 0;  // alternating, so that a mixed-up answer would show
        if (query(r, idn ? "*IDN?\n" : "*OPC?\n", &a) == 2 && a == (idn ? kIdn : std::string("1\n"))) good++;
      }
      kvtcp_Close(r);
    });
  }
  for (auto& t : th) t.join();
  EXPECT_EQ(kClients * kRounds, good.load());
  EXPECT_EQ((uint64_t)kClients, sim->stats().sessionsOpened);
}

TEST(SimSession, BridgeCommandsBetweenQueriesAndAFloodOfEvents) {
  Sim sim;
  KvTcpInfo* r = newRecord();
  ASSERT_EQ(0, connectHislip(r));
  sim->clearReceived();
  std::string ans, a;
  ASSERT_GE(bridgeCommand(r, kt::words({3, 0}), &ans), 0);  // system state
  EXPECT_EQ(8u, ans.size());
  EXPECT_EQ(0u, kt::word(ans, 0));
  auto rec = sim->receivedCommands();
  ASSERT_EQ(1u, rec.size());
  EXPECT_EQ((std::vector<uint8_t>{3, 0, 0, 0, 0, 0, 0, 0}), rec[0]);
  ASSERT_EQ(2, query(r, "*IDN?\n", &a));  // instrument data on the same channel
  EXPECT_EQ(kIdn, a);

  // Resource text (command 16): a long answer, status word first.
  ASSERT_GE(bridgeCommand(r, kt::words({16, 0}), &ans, 65536), 0);
  EXPECT_EQ(0u, kt::word(ans, 0));
  std::string text = ans.substr(4);
  while (!text.empty() && text.back() == '\0') text.pop_back();  // word padding
  EXPECT_EQ(sim->bridge().resourceText(), text);

  // Fifty asynchronous reports ahead of an answer: each reaches the handler,
  // and the answer is still read in step.
  kvtcp_setCallback(onEvent);
  sim->updateFaults([](bridgesim::HislipFaults& f) { f.floodAsync = 50; });
  EXPECT_EQ(2, query(r, "*IDN?\n", &a));
  EXPECT_EQ(kIdn, a);
  EXPECT_TRUE(eventually([] { return gAsyncVendor == 50; }));
  EXPECT_EQ(2, query(r, "*OPC?\n", &a));
  EXPECT_EQ("1\n", a);
  kvtcp_setCallback(nullptr);
  kvtcp_Close(r);
}
