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

TEST_F(DriverIo, ThreeHundredByteWriteSendsEndOnlyWithTheLastChunk) {
  Slack buf;
  for (int i = 0; i < 300; i++) buf.at()[i] = (char)('a' + i % 26);
  ViInt32 n = 0;
  ASSERT_EQ(0, vintfWSwrt(0, kInstr, 1000, buf.at(), 300, 1, &n));
  EXPECT_EQ(300, n);
  auto c = cmds();
  ASSERT_EQ(2u, c.size());
  EXPECT_EQ(13u | kLaBits, W(c[0], 0));
  EXPECT_EQ(256u, W(c[0], 2));
  EXPECT_EQ(268u, c[0].size());
  EXPECT_EQ(13u | kLaBits | 0x02000000u, W(c[1], 0));
  EXPECT_EQ(44u, W(c[1], 2));
  auto msgs = srv->with([](fb::Model& m) { return m.instr[kWsLA].messages; });
  ASSERT_EQ(1u, msgs.size());
  EXPECT_EQ(std::string(buf.at(), 300), msgs[0]);
}

TEST_F(DriverIo, TwoHundredByteWriteNarrowsTheRemainder) {
  Slack buf;
  for (int i = -256; i < 456; i++) buf.at()[i] = (char)(i & 0x7F);
  ViInt32 n = 0;
  ASSERT_EQ(0, vintfWSwrt(0, kInstr, 1000, buf.at(), 200, 2, &n));
  // -56 after the first chunk, then a full chunk that starts 56 bytes before
  // the buffer and is taken as the last.
  EXPECT_EQ(200, n);
  auto c = cmds();
  ASSERT_EQ(2u, c.size());
  EXPECT_EQ(13u | kLaBits, W(c[0], 0));
  EXPECT_EQ(256u, W(c[0], 2));
  EXPECT_EQ(std::string(buf.at(), 256), std::string((const char*)&c[0][12], 256));
  EXPECT_EQ(13u | kLaBits | 0x02000000u, W(c[1], 0));
  EXPECT_EQ(256u, W(c[1], 2));
  EXPECT_EQ(std::string(buf.at() - 56, 256), std::string((const char*)&c[1][12], 256));
}

TEST_F(DriverIo, ReadsStopAtEosOrEndAndCarryLongMessages) {
  srv->with([](fb::Model& m) { m.instr[kWsLA].output = "hello\nworld\n"; });
  Slack buf;
  ViInt32 n = 0;
  EXPECT_EQ(1, vintfWSrd(0, kInstr, 1000, buf.at(), 100, 1, '\n', &n));
  EXPECT_EQ(6, n);
  EXPECT_EQ("hello\n", std::string(buf.at(), 6));
  EXPECT_EQ(12u | kLaBits | ('\n' << 16) | 0x01000000u, W(cmds().back(), 0));

  // 300 bytes: a 256-byte chunk, then 44 ending at END.
  char q[] = "DATA? 300";
  ASSERT_EQ(0, vintfWSwrt(0, kInstr, 1000, q, 9, 2, &n));
  srv->clearCommands();
  EXPECT_EQ(2, vintfWSrd(0, kInstr, 1000, buf.at(), 300, 2, 0, &n));
  EXPECT_EQ(300, n);
  EXPECT_EQ('A', buf.at()[0]);
  EXPECT_EQ((char)('A' + 299 % 26), buf.at()[299]);
  auto c = cmds();
  ASSERT_EQ(2u, c.size());
  EXPECT_EQ(256u, W(c[0], 2));
  EXPECT_EQ(44u, W(c[1], 2));

  // 200 bytes: the narrowed remainder asks for a full 256.
  char q2[] = "DATA? 200";
  ASSERT_EQ(0, vintfWSwrt(0, kInstr, 1000, q2, 9, 2, &n));
  srv->clearCommands();
  EXPECT_EQ(2, vintfWSrd(0, kInstr, 1000, buf.at(), 200, 2, 0, &n));
  EXPECT_EQ(200, n);
  c = cmds();
  ASSERT_EQ(1u, c.size());
  EXPECT_EQ(256u, W(c[0], 2));
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

TEST_F(DriverIo, CommandsAndResponses) {
  ViUInt16 r = 0;
  EXPECT_EQ(0, vintfWScmd(0, kInstr, 1000, 0xDFFF, 1, &r));
  EXPECT_EQ(0xABCD, r);
  ViUInt16 stb = 0;
  EXPECT_EQ(0, vintfWSreadSTB(0, kInstr, 1000, &stb));
  EXPECT_EQ(0x34, stb);
  EXPECT_EQ(0, vintfWSresp(0, kInstr, 1000, &r));
  ViUInt32 lr = 0;
  EXPECT_EQ(0, vintfWSLcmd(0, kInstr, 1000, 0x12345678, 1, &lr));
  EXPECT_EQ(0xABCDu, lr);
  EXPECT_EQ(0, vintfWSLresp(0, kInstr, 777, &lr));
  EXPECT_EQ(0, vintfWScmd2la(0, 0x31, 1000, 0xFCFF, 0, nullptr));
  auto c = cmds();
  ASSERT_EQ(6u, c.size());
  EXPECT_EQ(14u | kLaBits | 0x14000000u, W(c[0], 0));
  EXPECT_EQ(0xDFFFu, W(c[0], 2));
  EXPECT_EQ(14u | kLaBits | 0x14000000u, W(c[1], 0));
  EXPECT_EQ(0xCFFFu, W(c[1], 2));
  EXPECT_EQ(14u | kLaBits | 0x10000000u, W(c[2], 0));
  EXPECT_EQ(0xFFFFu, W(c[2], 2));
  EXPECT_EQ(14u | kLaBits | 0x28000000u, W(c[3], 0));
  EXPECT_EQ(0x12345678u, W(c[3], 2));
  EXPECT_EQ(14u | kLaBits | 0x20000000u, W(c[4], 0));
  EXPECT_EQ(777u, W(c[4], 1));  // alone among them with the caller's time-out
  EXPECT_EQ(14u | 0x3100u | 0x04000000u, W(c[5], 0));
  for (int i : {0, 1, 2, 3, 5}) EXPECT_EQ(1u, W(c[i], 1));
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

TEST_F(DriverIo, BusyInstrumentTimesOut) {
  srv->with([](fb::Model& m) { m.busy = 1 << 30; });
  ViUInt16 r = 5;
  EXPECT_EQ(VI_ERROR_TMO, vintfWScmd(0, kInstr, 30, 0xDFFF, 1, &r));
  EXPECT_EQ(5, r);
  char b[8] = "abc";
  ViInt32 n = 0;
  EXPECT_EQ(VI_ERROR_TMO, vintfWSwrt(0, kInstr, 30, b, 3, 2, &n));
  EXPECT_EQ(0, n);
  EXPECT_GT(cmds().size(), 2u);
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

TEST_F(DriverIo, BridgeItselfGoesThroughTheTransport) {
  char q[] = "*IDN?\n";
  ViInt32 n = 0;
  EXPECT_EQ(0, vintfWSwrt(0, 0, 1000, q, 6, 2, &n));
  EXPECT_EQ(6, n);
  Slack buf;
  EXPECT_EQ(2, vintfWSrd(0, 0, 1000, buf.at(), 100, 2, 0, &n));
  EXPECT_EQ("FAKE,BRIDGE,0,2.0\n", std::string(buf.at(), n));
  ViUInt16 stb = 0;
  EXPECT_EQ(0, vintfWSreadSTB(0, 0, 1000, &stb));
  EXPECT_EQ(0xFFFF, stb);  // what the HiSLIP status query delivers
  EXPECT_EQ(0, vintfWSclr(0, 0, 1000));
  EXPECT_TRUE(cmds().empty());  // no bridge commands for any of these
  auto seen = srv->with([](fb::Model& m) { return std::make_tuple(m.bridgeMessages, m.statusQueries, m.deviceClears); });
  ASSERT_EQ(1u, std::get<0>(seen).size());
  EXPECT_EQ("*IDN?\n", std::get<0>(seen)[0]);
  EXPECT_EQ(1, std::get<1>(seen));
  EXPECT_EQ(1, std::get<2>(seen));
  // Commands and responses still go to logical address 0 as bridge commands.
  ViUInt16 r = 0;
  EXPECT_EQ(0, vintfWScmd(0, 0, 1000, 0xDFFF, 1, &r));
  ASSERT_EQ(1u, cmds().size());
  EXPECT_EQ(14u | 0x14000000u, W(cmds()[0], 0));
}
