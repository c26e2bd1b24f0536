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
