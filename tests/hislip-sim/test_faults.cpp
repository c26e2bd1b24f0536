// The simulator's HiSLIP faults: every one ends in the right status, within
// the exchange's time-out, and leaves the client able to go on (or to
// reconnect when the session is gone).
#include "sim_fixture.h"

using namespace simtest;

namespace {

// A connected client on a fresh simulator with one fault switched on.
struct Faulty {
  Sim sim;
  KvTcpInfo* r = newRecord();
  explicit Faulty(const std::function<void(bridgesim::HislipFaults&)>& f) {
    EXPECT_EQ(0, connectHislip(r));
    sim->updateFaults(f);
  }
  ~Faulty() { kvtcp_Close(r); }
  void healAndReconnect() {
    sim->setFaults({});
    kvtcp_Close(r);
    ASSERT_EQ(0, connectHislip(r));
    std::string a;
    ASSERT_EQ(2, query(r, "*IDN?\n", &a));
    EXPECT_EQ(kIdn, a);
  }
};

}  // namespace

TEST(SimFaults, LateAnswerTimesOut) {
  Faulty t([](bridgesim::HislipFaults& f) { f.answerDelayMs = 1500; });
  std::string a;
  EXPECT_EQ(kTimeout, query(t.r, "*IDN?\n", &a, 200));
  EXPECT_TRUE(a.empty());
  // The late answer does arrive; a patient read still gets it.
  char buf[128];
  int n = 0;
  EXPECT_EQ(2, kvtcp_Read(t.r, 10000, buf, 128, KVTCP_FLAG_END, 0, &n));
  EXPECT_EQ(kIdn, std::string(buf, (size_t)n));
  // Status queries are held back as well.
  ViUInt16 stb = 0;
  EXPECT_EQ(kTimeout, kvtcp_ReadSTB(t.r, 200, &stb));
}

TEST(SimFaults, LateBridgeCommandAnswerTimesOut) {
  Faulty t([](bridgesim::HislipFaults& f) { f.answerDelayMs = 1500; });
  uint32_t cmd[2] = {3, 0};
  char ans[64];
  int n = -1;
  EXPECT_EQ(kTimeout, kvtcp_kvhislip_Query(t.r, 200, (const char*)cmd, 8, ans, 64, &n));
  EXPECT_EQ(0, n);
}

TEST(SimFaults, NeverAnsweredRequestsTimeOut) {
  Faulty t([](bridgesim::HislipFaults& f) { f.neverAnswer = true; });
  std::string a;
  EXPECT_EQ(kTimeout, query(t.r, "*IDN?\n", &a, 300));
  EXPECT_EQ(kTimeout, query(t.r, "*IDN?\n", &a, 300));
  ViUInt16 stb = 0;
  EXPECT_EQ(kTimeout, kvtcp_ReadSTB(t.r, 300, &stb));
  EXPECT_EQ(kTimeout, kvtcp_Clear(t.r, 300));
  // The session still stands: once the bridge answers again, a device clear
  // (whose acknowledgement on the synchronous channel is read first) and
  // a fresh session bring the client back.
  t.healAndReconnect();
}

// The session closed inside an answer's header (7), inside its payload (20)
// or inside a bridge command's answer (18): the wait ends as a lost
// connection, and a fresh session works.
TEST(SimFaults, CloseInsideAnAnswerIsConnectionLost) {
  for (int cut : {7, 20, 18}) {
    SCOPED_TRACE(cut);
    Faulty t([cut](bridgesim::HislipFaults& f) { f.closeMidMessage = cut; });
    if (cut == 18) {
      uint32_t cmd[2] = {3, 0};
      char in[64];
      int n = 0;
      EXPECT_EQ(kLost, kvtcp_kvhislip_Query(t.r, 500, (const char*)cmd, 8, in, 64, &n));
    } else {
      std::string a;
      EXPECT_EQ(kLost, query(t.r, "*IDN?\n", &a, 500));
    }
    t.healAndReconnect();
  }
}

TEST(SimFaults, MalformedHeaderIsConnectionLost) {
  LogCapture log;
  Faulty t([](bridgesim::HislipFaults& f) { f.malformedHeader = true; });
  std::string a;
  EXPECT_EQ(kLost, query(t.r, "*IDN?\n", &a));
  EXPECT_TRUE(log.has("Wrong Header"));
  t.healAndReconnect();
}

TEST(SimFaults, ErrorMessageIsAnIoError) {
  LogCapture log;
  Faulty t([](bridgesim::HislipFaults& f) { f.errorReply = 3; });
  std::string a;
  EXPECT_EQ(kIo, query(t.r, "*IDN?\n", &a));
  EXPECT_TRUE(log.has("get Error 3/0, simulated fault"));
  uint32_t cmd[2] = {3, 0};
  char in[64];
  int n = 0;
  EXPECT_EQ(kIo, kvtcp_kvhislip_Query(t.r, kTmo, (const char*)cmd, 8, in, 64, &n));
  // An Error leaves the session up: once the fault is off, it goes on.
  t.sim->setFaults({});
  EXPECT_EQ(2, query(t.r, "*IDN?\n", &a));
  EXPECT_EQ(kIdn, a);
}

TEST(SimFaults, FatalErrorIsConnectionLost) {
  LogCapture log;
  Faulty t([](bridgesim::HislipFaults& f) { f.errorReply = 2; });
  std::string a;
  EXPECT_EQ(kLost, query(t.r, "*IDN?\n", &a));
  EXPECT_TRUE(log.has("get Error 2/0, simulated fault"));
  // The bridge closed the session: the next exchange fails too, and does
  // not hang.
  t.sim->setFaults({});
  EXPECT_EQ(kLost, query(t.r, "*IDN?\n", &a, 300));
  t.healAndReconnect();
}

TEST(SimFaults, ConnectToAnAbsentBridge) {
  LogCapture log;
  KvTcpInfo* r = newRecord();
  EXPECT_EQ(kNotFound, connectHislip(r, "127.0.0.9"));
  EXPECT_EQ(0, r->Connected);
  EXPECT_EQ(0, r->S_Core);
  EXPECT_EQ(0, r->S_Intr);
  EXPECT_TRUE(log.has("ErroR Connect TCP Interface"));
}

TEST(SimFaults, SessionLimitRefusesTheConnect) {
  Sim sim;
  sim.stop();
  sim.opt.maxSessions = 1;
  sim.start();
  KvTcpInfo* a = newRecord();
  KvTcpInfo* b = newRecord();
  ASSERT_EQ(0, connectHislip(a));
  // The second Initialize is answered with FatalError.
  EXPECT_EQ(kNotFound, connectHislip(b));
  EXPECT_EQ(0, b->Connected);
  kvtcp_Close(a);
  ASSERT_TRUE(eventually([&] { return sim->sessionCount() == 0; }));
  EXPECT_EQ(0, connectHislip(b));
  kvtcp_Close(b);
}
