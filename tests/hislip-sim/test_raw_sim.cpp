// Raw-socket connections to the simulator's line-oriented instrument port.
#include "sim_fixture.h"

using namespace simtest;

namespace {

constexpr uint16_t kRawPort = 5025;

struct RawSim {
  Sim sim{"127.0.0.2", kRawPort};
  KvTcpInfo* r = newRecord();
  RawSim() { EXPECT_EQ(0, kvtcp_sock_Connect(r, "127.0.0.2", kRawPort)); }
  ~RawSim() { kvtcp_Close(r); }
  int write(const std::string& s) {
    std::vector<char> b(s.begin(), s.end());
    b.resize(s.size() + 1);  // the raw write stores a NUL behind the message
    int n = 0;
    int st = kvtcp_Write(r, kTmo, b.data(), (int)s.size(), KVTCP_FLAG_END, &n);
    EXPECT_EQ((int)s.size(), n);
    return st;
  }
};

}  // namespace

TEST(SimRaw, QueryWithTerminationCharacter) {
  RawSim t;
  EXPECT_EQ(KVTCP_RAW, t.r->tcpType);
  ASSERT_EQ(0, t.write("*IDN?\n"));
  char buf[256];
  int n = 0;
  EXPECT_EQ(1, kvtcp_Read(t.r, kTmo, buf, sizeof buf, KVTCP_FLAG_EOS, '\n', &n));
  EXPECT_EQ(kIdn, std::string(buf, (size_t)n));

  // kvtcp_Query does the same in one call.
  std::string a;
  char q[16] = "*OPC?\n";
  EXPECT_EQ(1, kvtcp_Query(t.r, kTmo, q, 6, buf, sizeof buf, KVTCP_FLAG_EOS, '\n', &n));
  EXPECT_EQ("1\n", std::string(buf, (size_t)n));
}

TEST(SimRaw, ReadWithoutTerminationCharacterWaitsForTheCount) {
  RawSim t;
  ASSERT_EQ(0, t.write("*IDN?\n"));
  char buf[256];
  int n = 0;
  // Exactly the answer's length: all of it.
  EXPECT_EQ(0, kvtcp_Read(t.r, kTmo, buf, (int)kIdn.size(), 0, 0, &n));
  EXPECT_EQ(kIdn, std::string(buf, (size_t)n));

  // More than the answer: what came, then the time-out.
  ASSERT_EQ(0, t.write("*OPC?\n"));
  EXPECT_EQ(kTimeout, kvtcp_Read(t.r, 300, buf, 100, 0, 0, &n));
  EXPECT_EQ("1\n", std::string(buf, (size_t)n));
}

TEST(SimRaw, TwoQueriesInOneWriteGiveBothAnswers) {
  RawSim t;
  ASSERT_EQ(0, t.write("*OPC?\n*OPC?\n"));
  // Wait until both answers are there, so that they come in one piece.
  char buf[64] = {0};
  int n = 0;
  ASSERT_EQ(0, kvtcp_Read(t.r, kTmo, buf, 4, 0, 0, &n));
  EXPECT_EQ("1\n1\n", std::string(buf, 4));
}

TEST(SimRaw, StatusByteAndClearAreNotRawOperations) {
  RawSim t;
  ViUInt16 stb = 0;
  EXPECT_EQ(kNsup, kvtcp_ReadSTB(t.r, kTmo, &stb));
  EXPECT_EQ(0, kvtcp_Clear(t.r, kTmo));
  std::string a;
  ASSERT_EQ(0, t.write("*IDN?\n"));
  char buf[256];
  int n = 0;
  EXPECT_EQ(1, kvtcp_Read(t.r, kTmo, buf, sizeof buf, KVTCP_FLAG_EOS, '\n', &n));
}

TEST(SimRaw, BridgeStoppedIsConnectionLost) {
  RawSim t;
  t.sim.stop();
  char buf[64];
  int n = 0;
  EXPECT_EQ(kLost, kvtcp_Read(t.r, 300, buf, 10, KVTCP_FLAG_EOS, '\n', &n));
  EXPECT_EQ(0, n);
}

TEST(SimRaw, ClosedPortIsNotFound) {
  Sim sim;  // HiSLIP only, no raw port
  KvTcpInfo* r = newRecord();
  EXPECT_EQ(kNotFound, kvtcp_sock_Connect(r, "127.0.0.2", kRawPort));
  EXPECT_EQ(0, r->Connected);
}
