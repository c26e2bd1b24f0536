// Word Serial exchanges with a message-based instrument, and the bridge
// itself (logical address 0) reached as a HiSLIP instrument.
#include "fixture.h"

namespace {

constexpr ViUInt32 kInstr = 1;  // index of the message-based instrument
constexpr uint32_t kLaBits = kWsLA << 8;

// Caller buffers with room on both sides: the chunk narrowing deliberately
// reaches up to 256 bytes around the caller's data.
struct Slack {
  std::vector<char> mem = std::vector<char>(2048, '.');
  char* at() { return mem.data() + 512; }
};

}  // namespace

TEST_F(DriverIo, QueryAnsweredAfterBusyAnswers) {
  char q[] = "*IDN?\n";
  ViInt32 n = -1;
  ASSERT_EQ(0, vintfWSwrt(0, kInstr, 1000, q, 6, 2, &n));
  EXPECT_EQ(6, n);
  srv->with([](fb::Model& m) { m.busy = 5; });
  Slack buf;
  ViStatus st = vintfWSrd(0, kInstr, 1000, buf.at(), 100, 2, 0, &n);
  EXPECT_EQ(2, st);  // ended at END
  ASSERT_EQ(15, n);
  EXPECT_EQ("FAKE,MBI,1,1.0\n", std::string(buf.at(), 15));

  auto c = cmds();
  ASSERT_EQ(7u, c.size());
  EXPECT_EQ(13u | kLaBits | 0x02000000u, W(c[0], 0));
  EXPECT_EQ(1u, W(c[0], 1));
  EXPECT_EQ(6u, W(c[0], 2));
  EXPECT_EQ(20u, c[0].size());  // 12 + 6 raised to a multiple of 4
  EXPECT_EQ("*IDN?\n", std::string((const char*)&c[0][12], 6));
  for (size_t i = 1; i < 7; i++) {
    EXPECT_EQ(12u | kLaBits | 0x02000000u, W(c[i], 0));
    EXPECT_EQ(1u, W(c[i], 1));
    EXPECT_EQ(100u, W(c[i], 2));
  }
}

TEST_F(DriverIo, EndIgnoredWithoutTheFlagAndEosSignExtended) {
  // Without the END flag a 40-byte answer ending in END does not stop the
  // read; the next chunk then waits for data and times out.
  srv->with([](fb::Model& m) { m.instr[kWsLA].output = std::string(40, 'x'); });
  Slack buf;
  ViInt32 n = 0;
  EXPECT_EQ(VI_ERROR_TMO, vintfWSrd(0, kInstr, 20, buf.at(), 100, 0, 0, &n));
  EXPECT_EQ(40, n);
  // A termination character of 0x80 or above also sets bits 24-31.
  srv->with([](fb::Model& m) { m.instr[kWsLA].output = "ab\xF0"; });
  EXPECT_EQ(3, vintfWSrd(0, kInstr, 1000, buf.at(), 100, 3, (char)0xF0, &n));
  EXPECT_EQ(3, n);
  EXPECT_EQ(0xFFF0000Cu | kLaBits | 0x03000000u, W(cmds().back(), 0));
}

TEST_F(DriverIo, ZeroCountSendsNothingEvenWithEnd) {
  ViInt32 n = 9;
  char b[4] = {};
  EXPECT_EQ(0, vintfWSwrt(0, kInstr, 100, b, 0, 3, &n));
  EXPECT_EQ(0, n);
  EXPECT_EQ(0, vintfWSrd(0, kInstr, 100, b, 0, 3, '\n', &n));
  EXPECT_EQ(0, n);
  EXPECT_TRUE(cmds().empty());
}

TEST_F(DriverIo, ReadAnswerWithMoreBytesThanAskedFails) {
  srv->with([](fb::Model& m) {
    m.answer = [](const fb::Bytes&) -> std::optional<fb::Bytes> {
      fb::Bytes a = answerOf({2, 20});
      a.resize(8 + 20, 'z');
      return a;
    };
  });
  Slack buf;
  ViInt32 n = 0;
  EXPECT_EQ(VI_ERROR_SYSTEM_ERROR, vintfWSrd(0, kInstr, 1000, buf.at(), 10, 2, 0, &n));
  EXPECT_EQ(0, n);
  EXPECT_EQ('.', buf.at()[0]);
}

TEST_F(DriverIo, TriggerWaitsForReadyAndTimesOutWithoutTriggering) {
  EXPECT_EQ(0, vintfWStrg(0, kInstr, 1000));
  auto c = cmds();
  ASSERT_EQ(2u, c.size());
  EXPECT_EQ(15u | kLaBits, W(c[0], 0));
  EXPECT_EQ(1000u, W(c[0], 1));
  EXPECT_EQ(0x1200u, W(c[0], 2));
  EXPECT_EQ(0xEDFFu, W(c[1], 2));
  EXPECT_EQ(1, srv->with([](fb::Model& m) { return m.instr[kWsLA].triggers; }));

  srv->clearCommands();
  srv->with([](fb::Model& m) { m.instr[kWsLA].respReg = 0x0200; });
  EXPECT_EQ(VI_ERROR_TMO, vintfWStrg(0, kInstr, 30));
  for (auto& m : cmds()) EXPECT_EQ(15u, W(m, 0) & 0xFF);
  EXPECT_EQ(1, srv->with([](fb::Model& m) { return m.instr[kWsLA].triggers; }));

  EXPECT_EQ(0, vintfWSclr(0, kInstr, 1000));
  EXPECT_EQ(1, srv->with([](fb::Model& m) { return m.instr[kWsLA].clears; }));
}

TEST_F(DriverIo, RefusedInterfaceOrInstrumentSendsNothing) {
  char b[8] = {};
  ViInt32 n = 0;
  ViUInt16 r = 0;
  EXPECT_EQ(VI_ERROR_SYSTEM_ERROR, vintfWSrd(1, kInstr, 100, b, 4, 0, 0, &n));
  EXPECT_EQ(VI_ERROR_SYSTEM_ERROR, vintfWScmd2la(1, 0x20, 100, 0xFFFF, 0, &r));
  EXPECT_EQ(VI_ERROR_SYSTEM_ERROR, vintfWSclr(0, TCPVXI_MAX_INSTR, 100));
  EXPECT_TRUE(cmds().empty());
}
