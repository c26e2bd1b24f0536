// Two bridges at once, and a bridge that goes away in the middle of a session
// and comes back.
#include "simhost.h"

using namespace sh;

namespace {

class TwoBridges : public SimHost {
 protected:
  TwoBridges() : SimHost({"127.0.0.2", "127.0.0.3"}) {}
};

using Vanishing = SimHost;

}  // namespace

TEST_F(TwoBridges, EachInterfaceReachesItsOwnMainframe) {
  for (ViUInt16 intf : {0, 1}) {
    ViUInt32 n = 0;
    ASSERT_EQ(0, vintfGetNumRsrc(intf, &n));
    EXPECT_EQ(mainframe(intf).deviceCount(), n);
    EXPECT_STREQ(addrs_[intf].c_str(), tcpvxiGD->Intf[intf].Addr);
  }
  // The same address on both buses, different data.
  const ViBusAddress a0 = attr64(0, need(kLaMemory, 0), VI_ATTR_MEM_BASE_64) + 0x40;
  const ViBusAddress a1 = attr64(1, need(kLaMemory, 1), VI_ATTR_MEM_BASE_64) + 0x40;
  ASSERT_EQ(a0, a1);
  std::vector<uint32_t> d0(5000), d1(5000);
  for (size_t k = 0; k < d0.size(); k++) d0[k] = (uint32_t)k, d1[k] = ~(uint32_t)k;
  ASSERT_EQ(0, vintfMoveOut32(0, 0, 3, 1, a0, d0.size(), d0.data()));
  ASSERT_EQ(0, vintfMoveOut32(1, 0, 3, 1, a1, d1.size(), d1.data()));
  ASSERT_EQ(0, vintfOut16(1, 0, 3, a1 + 0x100000, 0x4242));
  std::vector<uint32_t> back(5000);
  ASSERT_EQ(0, vintfMoveIn32(0, 0, 3, 1, a0, back.size(), back.data()));
  EXPECT_EQ(d0, back);
  ASSERT_EQ(0, vintfMoveIn32(1, 0, 3, 1, a1, back.size(), back.data()));
  EXPECT_EQ(d1, back);
  ViUInt16 w = 0;
  ASSERT_EQ(0, vintfIn16(0, 0, 3, a0 + 0x100000, &w));
  EXPECT_EQ(0, w) << "the write to interface 1 stayed on its own bus";
  EXPECT_EQ(3u, sim(0).receivedCommands().size());
  EXPECT_EQ(3u, sim(1).receivedCommands().size());

}

// The simulator stops: the next access reports a lost connection, Word
// Serial too; after a restart vintfTryReopenDevice brings the interface back.
TEST_F(Vanishing, BridgeThatDisappearsAndComesBack) {
  const int dmm = need(kLaDmm);
  const ViBusAddress mem = attr64(0, need(kLaMemory), VI_ATTR_MEM_BASE_64);
  ASSERT_EQ(0, vintfOut32(0, 0, 3, mem, 0xCAFEF00D));

  sims[0]->stop();
  sims[0].reset();
  ViUInt16 w = 0x7777;
  ViStatus st = vintfIn16(0, 0, 1, configBase(kLaDmm), &w);
  EXPECT_EQ(kConnLost, st) << std::hex << st;
  EXPECT_EQ(0x7777, w);
  ViUInt16 r = 0;
  EXPECT_LT(vintfWScmd(0, dmm, 200, 0xDFFF, 1, &r), 0);
  ViUInt32 l[4] = {};
  EXPECT_LT(vintfMoveIn32(0, 0, 3, 1, mem, 4, l), 0);

  sims[0] = startSim("127.0.0.2");
  EXPECT_EQ(0, vintfTryReopenDevice(0));
  EXPECT_EQ(1, Interfaces[0].kvtcp.Connected);
  ASSERT_EQ(0, vintfIn16(0, 0, 1, configBase(kLaDmm), &w));
  EXPECT_EQ(0xFFB, w & 0xFFF);
  // A fresh simulator: fresh memory.
  ViUInt32 v = 1;
  ASSERT_EQ(0, vintfIn32(0, 0, 3, mem, &v));
  EXPECT_EQ(0u, v);
  ViUInt16 resp = 0;
  EXPECT_EQ(0, vintfWScmd(0, dmm, 3000, 0xDFFF, 1, &resp));
  EXPECT_EQ(0x1005, resp);
  // And the reopened connection was bound to this host first.
  auto c = sims[0]->receivedCommands();
  ASSERT_FALSE(c.empty());
  EXPECT_EQ(1u, word(c[0], 0));
}
