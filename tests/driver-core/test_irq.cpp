// Interrupts end to end: a test interrupt and interrupts raised behind the
// simulated bridges reach the host's callback with the right interface,
// instrument, status/ID and line.
#include "drvcore.h"

using namespace dc;

namespace {

class DrvInterrupts : public SimHost {
 protected:
  DrvInterrupts() : SimHost({"127.0.0.2", "127.0.0.3"}) {}
  void SetUp() override {
    SimHost::SetUp();
    clearEvents();
    vintfUserIRQCallback(onEvent);
  }
};

}  // namespace

// The digitizer (instrument 1, logical address 8) interrupts on line 2.
TEST_F(DrvInterrupts, TestInterruptReachesTheHost) {
  EXPECT_EQ(0, vintfSetExtIntf(0, 4));
  EXPECT_EQ(0, vintfTestIRQ(0, 0x1208));
  ASSERT_TRUE(waitEvents(1));
  Event e = events()[0];
  EXPECT_EQ(VI_EVENT_VXI_VME_INTR, e.type);
  EXPECT_EQ(4, e.intf);
  EXPECT_EQ(1u, e.instr);
  EXPECT_EQ(0x1208u, e.statID);
  EXPECT_EQ(2u, e.line);
  auto c = sim().receivedCommands();
  ASSERT_EQ(1u, c.size());
  EXPECT_EQ((Bytes{17, 0, 0, 0, 0, 0, 0, 0, 0x08, 0x12, 0, 0}), c[0]);

  // The bridge's status is not the result; a number above NIntf is.
  faults([](auto& f) { f.statusCode = 17, f.forcedStatus = (int32_t)0xBFFF003E; });
  EXPECT_EQ(0, vintfTestIRQ(0, 0x18));
  EXPECT_EQ(VI_ERROR_SYSTEM_ERROR, vintfTestIRQ(2, 0x18));
  EXPECT_TRUE(mutexFree());
}

TEST_F(DrvInterrupts, RaisedInterruptsPerInterface) {
  EXPECT_EQ(0, vintfSetExtIntf(1, 9));
  sim(1).sendInterrupt(2, 0x0000FF08);
  ASSERT_TRUE(waitEvents(1));
  EXPECT_EQ(9, events()[0].intf);
  EXPECT_EQ(1u, events()[0].instr);
  EXPECT_EQ(2u, events()[0].line);
  clearEvents();
  // Two pairs in one report: logical address 24 is instrument 3; address 0
  // (line 9, of which the low 3 bits count) is the slot-0 controller.
  sim(0).sendAsyncVendor(report({{1, 0x0000FF18}, {9, 0x0000FF00}}));
  ASSERT_TRUE(waitEvents(2));
  auto ev = events();
  EXPECT_EQ(0, ev[0].intf);
  EXPECT_EQ(3u, ev[0].instr);
  EXPECT_EQ(0xFF18u, ev[0].statID);
  EXPECT_EQ(1u, ev[0].line);
  EXPECT_EQ(0u, ev[1].instr);
  EXPECT_EQ(0xFF00u, ev[1].statID);
  EXPECT_EQ(1u, ev[1].line);
}
