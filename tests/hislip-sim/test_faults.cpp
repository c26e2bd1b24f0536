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

TEST(SimFaults, LateAnswersTimeOutAndArriveLater) {
  Faulty t([](bridgesim::HislipFaults& f) { f.answerDelayMs = 1500; });
  std::string a;
  EXPECT_EQ(VI_ERROR_TMO, query(t.r, "*IDN?\n", &a, 200));
  EXPECT_TRUE(a.empty());
  // The late answer does arrive; a patient read still gets it.
  char buf[128];
  int n = 0;
  EXPECT_EQ(2, kvtcp_Read(t.r, 10000, buf, 128, KVTCP_FLAG_END, 0, &n));
  EXPECT_EQ(kIdn, std::string(buf, (size_t)n));
  ViUInt16 stb = 0;
  EXPECT_EQ(VI_ERROR_TMO, kvtcp_ReadSTB(t.r, 200, &stb));  // status queries are held back too
  uint32_t cmd[2] = {3, 0};
  n = -1;
  EXPECT_EQ(VI_ERROR_TMO, kvtcp_kvhislip_Query(t.r, 200, (const char*)cmd, 8, buf, 64, &n));
  EXPECT_EQ(0, n);
}

TEST(SimFaults, NeverAnsweredRequestsTimeOut) {
  Faulty t([](bridgesim::HislipFaults& f) { f.neverAnswer = true; });
  std::string a;
  EXPECT_EQ(VI_ERROR_TMO, query(t.r, "*IDN?\n", &a, 300));
  EXPECT_EQ(VI_ERROR_TMO, query(t.r, "*IDN?\n", &a, 300));
  ViUInt16 stb = 0;
  EXPECT_EQ(VI_ERROR_TMO, kvtcp_ReadSTB(t.r, 300, &stb));
  EXPECT_EQ(VI_ERROR_TMO, kvtcp_Clear(t.r, 300));
  t.healAndReconnect();
}



// The session closed inside an answer's header (7), inside its payload (20)
// or inside a bridge command's answer (18): the wait ends as a lost
// connection, and a fresh session works.
TEST(SimFaults, CloseInsideAnAnswerIsConnectionLost) {
  for (int cut : {7, 20, 18}) {
    SCOPED_TRACE(cut);
    Faulty t([cut](bridgesim::HislipFaults& f) { f.closeMidMessage = cut; });
    std::string a;
    if (cut == 18)
      EXPECT_EQ(VI_ERROR_CONN_LOST, bridgeCommand(t.r, kt::words({3, 0}), &a, 64, 500));
    else
      EXPECT_EQ(VI_ERROR_CONN_LOST, query(t.r, "*IDN?\n", &a, 500));
    t.healAndReconnect();
  }
}

TEST(SimFaults, SessionLimitRefusesTheConnect) {
  Sim sim("127.0.0.2", [](bridgesim::ServerOptions& o) { o.maxSessions = 1; });
  KvTcpInfo* a = newRecord();
  KvTcpInfo* b = newRecord();
  ASSERT_EQ(0, connectHislip(a));
  EXPECT_EQ(VI_ERROR_RSRC_NFOUND, connectHislip(b));  // Initialize answered with FatalError
  EXPECT_EQ(0, b->Connected);
  kvtcp_Close(a);
  ASSERT_TRUE(eventually([&] { return sim->sessionCount() == 0; }));
  EXPECT_EQ(0, connectHislip(b));
  kvtcp_Close(b);
}
