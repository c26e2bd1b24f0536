// HiSLIP sessions with the simulated bridge: connect and reconnect, several
// clients, queries over Data/DataEnd, pieces, status byte, device clear,
// bridge commands and asynchronous events.
#include "sim_fixture.h"

using namespace simtest;

namespace {

// Events delivered by the receive threads.
struct Event {
  KvTcpInfo* rec;
  unsigned char type;
  std::vector<uint8_t> body;
};
std::mutex gEvMutex;
std::vector<Event> gEvents;

void onEvent(pKvTcpInfo r) {
  Event e{r, r->hislipAsyncInMsg, {}};
  if (e.type == 128) e.body.assign(r->hislipAsyncCmdData, r->hislipAsyncCmdData + 16);
  std::lock_guard<std::mutex> g(gEvMutex);
  gEvents.push_back(std::move(e));
}

size_t eventCount(unsigned char type) {
  std::lock_guard<std::mutex> g(gEvMutex);
  size_t n = 0;
  for (auto& e : gEvents) n += e.type == type;
  return n;
}

struct EventCapture {
  EventCapture() {
    std::lock_guard<std::mutex> g(gEvMutex);
    gEvents.clear();
    kvtcp_setCallback(onEvent);
  }
  ~EventCapture() { kvtcp_setCallback(nullptr); }
};

}  // namespace

TEST(SimSession, ConnectQueryCloseAndConnectAgain) {
  Sim sim;
  KvTcpInfo* r = newRecord();
  ASSERT_EQ(0, connectHislip(r));
  EXPECT_EQ(1, r->Connected);
  EXPECT_EQ(KVTCP_HISLIP, r->tcpType);
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
}

TEST(SimSession, SynchronizedModeIsTakenFromTheResponse) {
  Sim sim("127.0.0.3");
  sim.stop();
  sim.opt.overlapMode = false;
  sim.start();
  KvTcpInfo* r = newRecord();
  ASSERT_EQ(0, connectHislip(r, "127.0.0.3"));
  EXPECT_EQ(0, r->hislipModeOverlap);
  kvtcp_Close(r);
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
  EXPECT_TRUE(st == kLost || st == kTimeout) << std::hex << st;
  // While nothing listens, a connect is refused.
  KvTcpInfo* other = newRecord();
  EXPECT_EQ(kNotFound, connectHislip(other));
  EXPECT_EQ(0, other->Connected);

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
        // Alternate two queries so that a mixed-up answer would show.
        bool idn = (i + c) % 2 == 0;
        int st = query(r, idn ? "*IDN?\n" : "*OPC?\n", &a);
        if (st == 2 && a == (idn ? kIdn : std::string("1\n"))) good++;
      }
      kvtcp_Close(r);
    });
  }
  for (auto& t : th) t.join();
  EXPECT_EQ(kClients * kRounds, good.load());
  EXPECT_EQ((uint64_t)kClients, sim->stats().sessionsOpened);
}

TEST(SimSession, AnswerReadInPieces) {
  Sim sim;
  KvTcpInfo* r = newRecord();
  ASSERT_EQ(0, connectHislip(r));
  char q[16] = "*IDN?\n";
  int n = 0;
  ASSERT_EQ(0, kvtcp_Write(r, kTmo, q, 6, KVTCP_FLAG_END, &n));
  std::string got;
  std::vector<int> results;
  for (int i = 0; i < 10; i++) {
    char piece[10];
    int st = kvtcp_Read(r, kTmo, piece, 10, KVTCP_FLAG_END, 0, &n);
    ASSERT_GE(st, 0);
    ASSERT_LE(n, 10);
    got.append(piece, (size_t)n);
    results.push_back(st);
    if (st == 2) break;
  }
  EXPECT_EQ(kIdn, got);
  // Every piece but the last reports "more to come".
  ASSERT_EQ((kIdn.size() + 9) / 10, results.size());
  for (size_t i = 0; i + 1 < results.size(); i++) EXPECT_EQ(0, results[i]);
  EXPECT_EQ(0, r->hislipInHdr.msg);  // the message is finished

  // The termination character ends a read at the end of a message too.
  ASSERT_EQ(0, kvtcp_Write(r, kTmo, q, 6, KVTCP_FLAG_END, &n));
  char all[128];
  EXPECT_EQ(2, kvtcp_Read(r, kTmo, all, 128, KVTCP_FLAG_EOS, '\n', &n));  // DataEnd wins over eos
  kvtcp_Close(r);
}

TEST(SimSession, BridgeCommandRoundTrip) {
  Sim sim;
  KvTcpInfo* r = newRecord();
  ASSERT_EQ(0, connectHislip(r));
  sim->clearReceived();
  std::vector<uint8_t> ans;
  // System state (command 3): an 8-byte command.
  ASSERT_GE(bridgeCommand(r, {3, 0}, &ans), 0);
  ASSERT_GE(ans.size(), 4u);
  EXPECT_EQ(0u, ans.size() % 4);
  auto rec = sim->receivedCommands();
  ASSERT_EQ(1u, rec.size());
  EXPECT_EQ((std::vector<uint8_t>{3, 0, 0, 0, 0, 0, 0, 0}), rec[0]);
  // Interleaved with instrument data on the same channel.
  std::string a;
  ASSERT_EQ(2, query(r, "*IDN?\n", &a));
  EXPECT_EQ(kIdn, a);

  if (!sim.hasMainframe()) {
    kvtcp_Close(r);
    GTEST_SKIP() << "the bridge has no mainframe model yet (every command answers a negative status)";
  }
  EXPECT_EQ(8u, ans.size());
  EXPECT_EQ(0u, le32(ans, 0));

  // Resource text (command 16): status word, then the text the bridge holds.
  ASSERT_GE(bridgeCommand(r, {16, 0}, &ans, 65536), 0);
  ASSERT_GE(ans.size(), 4u);
  EXPECT_EQ(0u, le32(ans, 0));
  std::string text(ans.begin() + 4, ans.end());
  while (!text.empty() && text.back() == '\0') text.pop_back();  // word padding
  EXPECT_EQ(sim->bridge().resourceText(), text);
  kvtcp_Close(r);
}

TEST(SimSession, ServiceRequestRaisedByTheInstrument) {
  Sim sim;
  EventCapture ev;
  KvTcpInfo* r = newRecord();
  ASSERT_EQ(0, connectHislip(r));
  // Enable the error-queue bit for service requests, then cause an error.
  std::string a;
  char sre[16] = "*SRE 4\n";
  int n = 0;
  ASSERT_EQ(0, kvtcp_Write(r, kTmo, sre, 7, KVTCP_FLAG_END, &n));
  char bad[16] = "NOPE\n";
  ASSERT_EQ(0, kvtcp_Write(r, kTmo, bad, 5, KVTCP_FLAG_END, &n));
  EXPECT_TRUE(eventually([] { return eventCount(20) == 1; }));
  EXPECT_EQ(2, query(r, "*STB?\n", &a));
  EXPECT_EQ("68\n", a);  // RQS/MSS and the error-queue bit
  kvtcp_Close(r);
}

TEST(SimSession, FloodOfInterruptsBeforeAnAnswer) {
  Sim sim;
  EventCapture ev;
  KvTcpInfo* r = newRecord();
  ASSERT_EQ(0, connectHislip(r));
  sim->updateFaults([](bridgesim::HislipFaults& f) { f.floodAsync = 50; });
  std::string a;
  EXPECT_EQ(2, query(r, "*IDN?\n", &a));
  EXPECT_EQ(kIdn, a);
  EXPECT_TRUE(eventually([] { return eventCount(128) == 50; }));
  EXPECT_EQ(2, query(r, "*IDN?\n", &a));
  kvtcp_Close(r);
}
