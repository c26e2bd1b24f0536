// The driver against the simulated bridge (tools/bridge-sim): discovery of
// the simulated mainframe, its interrupts, and reopening after the simulator
// restarts.
#include "drvcore.h"
#include "sim.h"

using namespace dc;

namespace {

std::unique_ptr<bridgesim::Server> startSim(const char* ip) {
  bridgesim::ServerOptions o;
  o.address = ip;
  o.verbosity = 0;
  o.logSink = [](const std::string&) {};
  auto s = std::make_unique<bridgesim::Server>(o);
  s->start();
  return s;
}

class DrvSimulator : public ::testing::Test {
 protected:
  void SetUp() override {
    resetDriver();
    clearEvents();
    sim = startSim("127.0.0.2");
    // The simulated mainframe must bind itself to a host first; until it
    // does, no interface of it can be listed.
    INTFINFO probe{};
    ASSERT_EQ(0, kvtcp_hislip_Connect(&probe.kvtcp, "127.0.0.2", "inst0"));
    ViStatus lock = LockToIPAddr(&probe);
    kvtcp_Close(&probe.kvtcp);
    if (lock < 0) GTEST_SKIP() << "the simulated mainframe refuses the lock command (status 0x" << std::hex << lock
                               << "): the mainframe model is not there yet";
    writeResman(resmanFor({"127.0.0.2"}));
    tcpvxi_start();
    uint16_t n = 0;
    ASSERT_EQ(0, vintfOpenDevice(&n));
    ASSERT_EQ(1, n);
  }
  void TearDown() override {
    resetDriver();
    sim.reset();
  }
  std::unique_ptr<bridgesim::Server> sim;
};

}  // namespace

TEST_F(DrvSimulator, DiscoveryMatchesTheBridgeText) {
  IniText doc = parseText(sim->bridge().resourceText());
  SHAREDINTFINFO expect{};
  int n = drvReadInstruments(0, &expect, doc);
  Ini_Dispose(doc);
  ASSERT_GT(n, 0) << "the simulated mainframe lists no instrument";
  uint32_t k = 0;
  EXPECT_EQ(0, vintfGetNumRsrc(0, &k));
  EXPECT_EQ((uint32_t)n, k);
  for (int i = 0; i < n; i++) {
    EXPECT_EQ(0, memcmp(&expect.Instr[i], &tcpvxiGD->Intf[0].Instr[i], sizeof(RmInstrInfo))) << i;
    std::string name(expect.Instr[i].attr_RSRC_NAME, strnlen(expect.Instr[i].attr_RSRC_NAME, 24));
    EXPECT_EQ(name, attrStr(0, i, VI_ATTR_RSRC_NAME));
  }
  auto c = sim->receivedCommands();
  ASSERT_GE(c.size(), 2u);
  EXPECT_EQ(1u, c[c.size() - 2][0]);
  EXPECT_EQ(16u, c.back()[0]);
}

TEST_F(DrvSimulator, InterruptsReachTheHost) {
  vintfUserIRQCallback(onEvent);
  const SHAREDINTFINFO& g = tcpvxiGD->Intf[0];
  ASSERT_GT(g.NInstr, 0);
  int last = g.NInstr - 1;
  uint32_t la = (uint16_t)g.Instr[last].attr_VXI_LA & 0xFF;
  int expectIdx = last;
  for (int i = 0; i < g.NInstr; i++)
    if (((uint16_t)g.Instr[i].attr_VXI_LA & 0xFF) == la) {
      expectIdx = i;
      break;
    }
  sim->sendInterrupt(3, 0xAB00 | la);
  ASSERT_TRUE(waitEvents(1));
  EXPECT_EQ((uint32_t)expectIdx, events()[0].instr);
  EXPECT_EQ(0xAB00u | la, events()[0].statID);
  EXPECT_EQ(3u, events()[0].line);
  clearEvents();
  EXPECT_EQ(0, vintfTestIRQ(0, (ViUInt16)(0xCD00 | la)));
  ASSERT_TRUE(waitEvents(1));
  EXPECT_EQ(0xCD00u | la, events()[0].statID & 0xFFFF);
}
