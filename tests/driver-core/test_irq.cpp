// Interrupts end to end: a test interrupt and interrupts raised behind the
// bridge reach the host's callback with the right interface, instrument,
// status/ID and line.
#include <thread>

#include "drvcore.h"

using namespace dc;

namespace {

class DrvInterrupts : public ::testing::Test {
 protected:
  void SetUp() override {
    resetDriver();
    clearEvents();
    a = std::make_unique<mb::Bridge>("127.0.0.2");
    b = std::make_unique<mb::Bridge>("127.0.0.3");
    ASSERT_TRUE(a->ok() && b->ok());
    a->set([](auto& s) {
      s.text = "[COMMON]\nNumInstr=3\n" + instr(1, "VXI0::0::INSTR", 0) + instr(2, "VXI0::24::INSTR", 24) +
               instr(3, "VXI0::40::INSTR", 40);
    });
    b->set([](auto& s) { s.text = "[COMMON]\nNumInstr=1\n" + instr(1, "VXI1::8::INSTR", 8); });
    writeResman(resmanFor({"127.0.0.2", "127.0.0.3"}));
    tcpvxi_start();
    uint16_t n = 0;
    ASSERT_EQ(0, vintfOpenDevice(&n));
    ASSERT_EQ(2, n);
    vintfUserIRQCallback(onEvent);
  }
  void TearDown() override {
    resetDriver();
    a.reset();
    b.reset();
  }
  std::unique_ptr<mb::Bridge> a, b;
};

}  // namespace

TEST_F(DrvInterrupts, TestInterruptReachesTheHost) {
  a->set([](auto& s) { s.testIrqLine = 3; });
  EXPECT_EQ(0, vintfSetExtIntf(0, 4));
  EXPECT_EQ(0, vintfTestIRQ(0, 0x1218));
  ASSERT_TRUE(waitEvents(1));
  Event e = events()[0];
  EXPECT_EQ(VI_EVENT_VXI_VME_INTR, e.type);
  EXPECT_EQ(4, e.intf);
  EXPECT_EQ(1u, e.instr);
  EXPECT_EQ(0x1218u, e.statID);
  EXPECT_EQ(3u, e.line);
  auto c = a->commands();
  ASSERT_FALSE(c.empty());
  EXPECT_EQ((mb::Bytes{17, 0, 0, 0, 0, 0, 0, 0, 0x18, 0x12, 0, 0}), c.back());
}

TEST_F(DrvInterrupts, TestInterruptIgnoresTheBridgeStatus) {
  a->set([](auto& s) { s.answer = [](const mb::Bytes&) { return std::optional<mb::Bytes>(mb::Bytes{0x3E, 0, 0xFF, 0xBF}); }; });
  EXPECT_EQ(0, vintfTestIRQ(0, 0x18));
  EXPECT_EQ(VI_ERROR_SYSTEM_ERROR, vintfTestIRQ(2, 0x18));
  EXPECT_TRUE(mutexFree());
}

TEST_F(DrvInterrupts, RaisedInterruptsPerInterface) {
  EXPECT_EQ(0, vintfSetExtIntf(1, 9));
  b->sendAsync(mb::report({{2, 0x0000FF08}}));
  ASSERT_TRUE(waitEvents(1));
  EXPECT_EQ(9, events()[0].intf);
  EXPECT_EQ(0u, events()[0].instr);
  EXPECT_EQ(2u, events()[0].line);
  clearEvents();
  // The two-pair report; the second pair's address is unknown and goes to
  // the instrument at logical address 0.
  a->sendAsync(mb::report({{1, 0x0000FF18}, {9, 0x0000FF33}}));
  ASSERT_TRUE(waitEvents(2));
  auto ev = events();
  EXPECT_EQ(0, ev[0].intf);
  EXPECT_EQ(1u, ev[0].instr);
  EXPECT_EQ(0xFF18u, ev[0].statID);
  EXPECT_EQ(1u, ev[0].line);
  EXPECT_EQ(0u, ev[1].instr);
  EXPECT_EQ(0xFF33u, ev[1].statID);
  EXPECT_EQ(1u, ev[1].line);
}

TEST_F(DrvInterrupts, NullCallbackStopsDelivery) {
  vintfUserIRQCallback(nullptr);
  const KvTcpInfo& k = Interfaces[0].kvtcp;
  auto arrived = [&](uint32_t statID) {
    for (int i = 0; i < 10000; i++) {
      uint32_t v;
      memcpy(&v, (const char*)k.hislipAsyncCmdData + 12, 4);
      if (v == statID) return true;
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return false;
  };
  a->sendAsync(mb::report({{1, 0x1128}}));
  ASSERT_TRUE(arrived(0x1128));
  // Reports on one channel are handled one after the other: once the next
  // one has arrived, the handling of the first is over.
  a->sendAsync(mb::report({{1, 0x2228}}));
  ASSERT_TRUE(arrived(0x2228));
  vintfUserIRQCallback(onEvent);
  a->sendAsync(mb::report({{5, 0x3318}}));
  ASSERT_TRUE(waitEvents(1));
  for (auto& e : events()) EXPECT_NE(0x1128u, e.statID) << "delivered although no callback was set";
  EXPECT_EQ(0x3318u, events().back().statID);
}
