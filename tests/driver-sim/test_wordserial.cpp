// Word Serial with the simulated message-based instruments, and the bridge
// itself (logical address 0) through HiSLIP data messages.
#include "simhost.h"

using namespace sh;

namespace {

constexpr ViUInt32 kTimeout = 3000;
constexpr ViUInt16 kEnd = 2, kEos = 1;

class WordSerial : public SimHost {
 protected:
  void SetUp() override {
    SimHost::SetUp();
    if (HasFatalFailure()) return;
    dmm = need(kLaDmm);
    counter = need(kLaCounter);
    sw = need(kLaSwitch);
    bridge = need(kLaBridge);
  }

  // A whole message with END; returns the status, checks the count.
  ViStatus send(int instr, std::string msg) {
    ViInt32 got = -1;
    ViStatus st = vintfWSwrt(0, instr, kTimeout, msg.data(), (ViInt32)msg.size(), kEnd, &got);
    if (st >= 0) {
      EXPECT_EQ((ViInt32)msg.size(), got);
    }
    return st;
  }
  struct Reply {
    ViStatus st;
    std::string text;
  };
  Reply receive(int instr, ViInt32 max = 1000, ViUInt16 flags = kEnd, char eos = '\n', ViUInt32 tmo = kTimeout) {
    std::vector<char> buf(max + 512, '#');
    ViInt32 got = -1;
    ViStatus st = vintfWSrd(0, instr, tmo, buf.data(), max, flags, eos, &got);
    EXPECT_GE(got, 0);
    return {st, std::string(buf.data(), got > 0 ? got : 0)};
  }
  std::string query(int instr, const std::string& q) {
    EXPECT_EQ(0, send(instr, q));
    Reply r = receive(instr);
    EXPECT_GE(r.st, 0);
    return r.text;
  }

  int dmm = -1, counter = -1, sw = -1, bridge = -1;
};

const std::string kDmmIdn = "Simulated,VXI Multimeter 6.5,SIM1016,2.1";

}  // namespace

TEST_F(WordSerial, IdentityQueryAndItsBridgeCommands) {
  Reply r{};
  ASSERT_EQ(0, send(dmm, "*IDN?\n"));
  r = receive(dmm);
  EXPECT_EQ(2, r.st & 3) << "ended at END, not at a termination character";
  EXPECT_EQ(kDmmIdn + "\n", r.text);

  // What went over the wire for the multimeter: a write with END, reads of
  // its logical address.
  auto writes = commandsOf(sim(), 13);
  ASSERT_GE(writes.size(), 1u);
  EXPECT_EQ(13u | kLaDmm << 8 | VXICMD_WS_END, word(writes[0], 0));
  EXPECT_EQ(1u, word(writes[0], 1));
  EXPECT_EQ(6u, word(writes[0], 2));
  EXPECT_EQ(20u, writes[0].size()) << "12 + 6 raised to a multiple of 4";
  EXPECT_EQ(0, memcmp(writes[0].data() + 12, "*IDN?\n", 6));
  auto reads = commandsOf(sim(), 12);
  ASSERT_GE(reads.size(), 1u);
  EXPECT_EQ(12u | kLaDmm << 8 | VXICMD_WS_END, word(reads[0], 0));
  // A slow measurement keeps the bridge answering "not ready" until the
  // reading is there; the driver asks again until its own time-out.
  EXPECT_EQ("+1.234500E+00\n", query(dmm, "MEAS:VOLT:DC?"));
}

TEST_F(WordSerial, BusyAnswersAreRetriedForEveryKindOfExchange) {
  bridgesim::CommandFaults f;
  f.busyTries = 3;
  sim().setCommandFaults(f);
  ASSERT_EQ(0, send(dmm, "*IDN?"));
  EXPECT_EQ(4u, commandsOf(sim(), 13).size()) << "three busy answers, then the write";
  f.busyTries = 4;
  sim().setCommandFaults(f);
  Reply r = receive(dmm);
  EXPECT_EQ(kDmmIdn + "\n", r.text);
  EXPECT_EQ(5u, commandsOf(sim(), 12).size());

  f.busyTries = 2;
  sim().setCommandFaults(f);
  ViUInt16 resp = 0;
  EXPECT_EQ(0, vintfWScmd(0, dmm, kTimeout, 0xDFFF, 1, &resp));
  EXPECT_EQ(0x1005, resp) << "Read Protocol: 488.2 instrument, longword, interrupter";
  EXPECT_EQ(3u, commandsOf(sim(), 14).size());

  // More busy answers than the time-out allows: the driver gives up.
  f.busyTries = 1000000;
  sim().setCommandFaults(f);
  EXPECT_EQ(kTmo, vintfWScmd(0, dmm, 50, 0xDFFF, 1, &resp));
  sim().setCommandFaults({});
}

TEST_F(WordSerial, ReadsStopAtTheTerminationCharacterOrAtEnd) {
  ASSERT_EQ(0, send(dmm, "*IDN?"));
  Reply r = receive(dmm, 1000, kEos, ',');
  EXPECT_EQ(1, r.st & 3);
  EXPECT_EQ("Simulated,", r.text);
  r = receive(dmm, 1000, kEos | kEnd, ',');
  EXPECT_EQ(1, r.st & 3);
  EXPECT_EQ("VXI Multimeter 6.5,", r.text);
  auto reads = commandsOf(sim(), 12);
  ASSERT_FALSE(reads.empty());
  EXPECT_EQ(12u | kLaDmm << 8 | (uint32_t)',' << 16 | VXICMD_WS_EOS | VXICMD_WS_END, word(reads.back(), 0));
  // A termination character that does not come: END ends the read.
  r = receive(dmm, 1000, kEos | kEnd, 'Q');
  EXPECT_EQ(2, r.st & 3);
  EXPECT_EQ("SIM1016,2.1\n", r.text);

  // Without either flag the read goes on until the count is reached.
  ASSERT_EQ(0, send(dmm, "*IDN?;*IDN?"));
  r = receive(dmm, 50, 0);
  EXPECT_EQ(kDmmIdn + ";Simulated", r.text);
  r = receive(dmm, 1000, kEnd);
  EXPECT_EQ(",VXI Multimeter 6.5,SIM1016,2.1\n", r.text);
  // Nor does END end it without the flag: the next chunk waits and times
  // out, and the count still tells what came.
  ASSERT_EQ(0, send(dmm, "*IDN?"));
  r = receive(dmm, 100, 0, 0, 50);
  EXPECT_EQ(kTmo, r.st);
  EXPECT_EQ(kDmmIdn + "\n", r.text);

  // A termination character of 0x80 or above also sets bits 24-31.
  ASSERT_EQ(0, send(dmm, "*IDN?"));
  EXPECT_EQ(2, receive(dmm, 100, kEos | kEnd, (char)0xF0).st & 3);
  EXPECT_EQ(0xFFF0000Cu | kLaDmm << 8 | VXICMD_WS_EOS | VXICMD_WS_END, word(commandsOf(sim(), 12).back(), 0));

  // An answer with more bytes than asked for fails the read, and nothing
  // is stored.
  ASSERT_EQ(0, send(dmm, "*IDN?"));
  faults([](auto& f) { f.inflateCode = 12; });
  std::vector<char> buf(512, '.');
  ViInt32 got = -1;
  EXPECT_EQ(VI_ERROR_SYSTEM_ERROR, vintfWSrd(0, dmm, kTimeout, buf.data(), 10, kEnd, 0, &got));
  EXPECT_EQ(0, got);
  EXPECT_EQ('.', buf[0]);
}

// 200 bytes: the remainder narrows to -56, so both chunks go out as 256
// bytes, the second starting 56 bytes before the buffer.  The slack around
// the message is filled with separators so that the instrument still gets a
// well-formed message.
TEST_F(WordSerial, TwoHundredByteWriteReachesIntoTheSlack) {
  std::vector<char> region(56 + 200 + 56, ';');
  char* msg = region.data() + 56;
  std::string text = "*ESE 12;";
  text += std::string(200 - text.size() - 6, ' ') + ";*ESE?";
  memcpy(msg, text.data(), 200);
  ViInt32 got = -1;
  ASSERT_EQ(0, vintfWSwrt(0, dmm, kTimeout, msg, 200, kEnd, &got));
  EXPECT_EQ(200, got);
  auto writes = commandsOf(sim(), 13);
  ASSERT_EQ(2u, writes.size());
  EXPECT_EQ(256u, word(writes[0], 2));
  EXPECT_EQ(0u, word(writes[0], 0) & VXICMD_WS_END);
  EXPECT_EQ(0, memcmp(writes[0].data() + 12, msg, 256));
  EXPECT_EQ(256u, word(writes[1], 2));
  EXPECT_EQ(VXICMD_WS_END, word(writes[1], 0) & VXICMD_WS_END);
  EXPECT_EQ(0, memcmp(writes[1].data() + 12, msg - 56, 256));
  EXPECT_EQ("12;12\n", receive(dmm).text) << "the instrument saw the message twice";
}

// 200 bytes in: the chunk asks for 256, so an answer of 205 bytes arrives
// whole, the last five in the slack behind the 200.
TEST_F(WordSerial, TwoHundredByteReadTakesAWholeChunk) {
  std::string expect;
  for (int k = 0; k < 5; k++) expect += (k ? ";" : "") + kDmmIdn;
  expect += "\n";
  ASSERT_EQ(205u, expect.size());
  ASSERT_EQ(0, send(dmm, "*IDN?;*IDN?;*IDN?;*IDN?;*IDN?"));
  sim().clearReceived();
  std::vector<char> region(200 + 56, '#');
  ViInt32 got = -1;
  ViStatus st = vintfWSrd(0, dmm, kTimeout, region.data(), 200, kEnd, '\n', &got);
  EXPECT_EQ(2, st & 3);
  EXPECT_EQ(205, got);
  EXPECT_EQ(expect, std::string(region.data(), 205));
  EXPECT_EQ('#', region[205]);
  auto reads = commandsOf(sim(), 12);
  ASSERT_EQ(1u, reads.size());
  EXPECT_EQ(256u, word(reads[0], 2));
}

TEST_F(WordSerial, StatusByteClearAndTrigger) {
  ViUInt16 stb = 0xFFFF;
  ASSERT_EQ(0, vintfWSreadSTB(0, dmm, kTimeout, &stb));
  EXPECT_EQ(0, stb);
  ASSERT_EQ(0, send(dmm, "BOGUS"));
  ASSERT_EQ(0, vintfWSreadSTB(0, dmm, kTimeout, &stb));
  EXPECT_EQ(0x04, stb) << "error queue not empty";
  ASSERT_EQ(0, send(dmm, "*IDN?"));
  ASSERT_EQ(0, vintfWSreadSTB(0, dmm, kTimeout, &stb));
  EXPECT_EQ(0x14, stb) << "and a message available";
  auto cr = commandsOf(sim(), 14);
  ASSERT_FALSE(cr.empty());
  EXPECT_EQ(14u | kLaDmm << 8 | VXICMD_WS_SEND16 | VXICMD_WS_RESP16, word(cr.back(), 0));
  EXPECT_EQ(0xCFFFu, word(cr.back(), 2));

  // Clear drops the unread answer.
  ASSERT_EQ(0, vintfWSclr(0, dmm, kTimeout));
  ASSERT_EQ(0, vintfWSreadSTB(0, dmm, kTimeout, &stb));
  EXPECT_EQ(0x04, stb);
  cr = commandsOf(sim(), 14);
  ASSERT_GE(cr.size(), 2u);
  const auto& clr = cr[cr.size() - 2];
  EXPECT_EQ(14u | kLaDmm << 8 | VXICMD_WS_SEND16, word(clr, 0)) << "Clear wants no response";
  EXPECT_EQ(0xFFFFu, word(clr, 2));
  EXPECT_EQ(kTmo, receive(dmm, 100, kEnd, '\n', 100).st);
  EXPECT_EQ("-113,\"Undefined header\"\n", query(dmm, "SYST:ERR?"));

  // Trigger: waits for the instrument to be ready, then starts the armed
  // measurement, whose reading FETCh? returns.
  ASSERT_EQ(0, send(dmm, "TRIG:SOUR BUS;INIT"));
  sim().clearReceived();
  ASSERT_EQ(0, vintfWStrg(0, dmm, kTimeout));
  auto waits = commandsOf(sim(), 15);
  ASSERT_GE(waits.size(), 1u);
  EXPECT_EQ(15u | kLaDmm << 8, word(waits[0], 0));
  EXPECT_EQ(kTimeout, word(waits[0], 1));
  EXPECT_EQ(0x1200u, word(waits[0], 2));
  auto trig = commandsOf(sim(), 14);
  ASSERT_EQ(1u, trig.size());
  EXPECT_EQ(0xEDFFu, word(trig[0], 2));
  EXPECT_EQ("+1.234500E+00\n", query(dmm, "FETC?"));
  // Not armed: the trigger is ignored, and the instrument says so.
  ASSERT_EQ(0, vintfWStrg(0, dmm, kTimeout));
  EXPECT_EQ("-211,\"Trigger ignored\"\n", query(dmm, "SYST:ERR?"));
  // Never ready: the trigger times out without being sent.
  faults([](auto& f) { f.busyTries = 1000000; });
  sim().clearReceived();
  EXPECT_EQ(kTmo, vintfWStrg(0, dmm, 30));
  EXPECT_TRUE(commandsOf(sim(), 14).empty());
  EXPECT_FALSE(commandsOf(sim(), 15).empty());
}

TEST_F(WordSerial, SixteenAndThirtyTwoBitCommandsAndResponses) {
  ViUInt16 r16 = 0;
  ASSERT_EQ(0, vintfWScmd2la(0, kLaDmm, kTimeout, 0xDFFF, 1, &r16));
  EXPECT_EQ(0x1005, r16);
  ASSERT_EQ(0, vintfWScmd(0, counter, kTimeout, 0xDFFF, 1, &r16));
  EXPECT_EQ(0x1001, r16) << "the counter has no longword serial";

  // Command now, response later.
  ASSERT_EQ(0, vintfWScmd(0, sw, kTimeout, 0xDFFF, 0, nullptr));
  r16 = 0;
  ASSERT_EQ(0, vintfWSresp(0, sw, kTimeout, &r16));
  EXPECT_EQ(0x1001, r16);
  auto cr = commandsOf(sim(), 14);
  ASSERT_GE(cr.size(), 2u);
  EXPECT_EQ(14u | kLaSwitch << 8 | VXICMD_WS_SEND16, word(cr[cr.size() - 2], 0));
  EXPECT_EQ(14u | kLaSwitch << 8 | VXICMD_WS_RESP16, word(cr.back(), 0));

  // Longword serial: the simulated multimeter answers the 16-bit response
  // below the command's high half.
  ViUInt32 r32 = 0;
  ASSERT_EQ(0, vintfWSLcmd(0, dmm, kTimeout, 0xABCDDFFF, 1, &r32));
  EXPECT_EQ(0xABCD1005u, r32);
  cr = commandsOf(sim(), 14);
  EXPECT_EQ(14u | kLaDmm << 8 | VXICMD_WS_SEND32 | VXICMD_WS_RESP32, word(cr.back(), 0));
  EXPECT_EQ(0xABCDDFFFu, word(cr.back(), 2));
  ASSERT_EQ(0, vintfWSLcmd(0, dmm, kTimeout, 0x1234DFFF, 0, nullptr));
  r32 = 0;
  ASSERT_EQ(0, vintfWSLresp(0, dmm, kTimeout, &r32));
  EXPECT_EQ(0x12341005u, r32);
  cr = commandsOf(sim(), 14);
  EXPECT_EQ(14u | kLaDmm << 8 | VXICMD_WS_RESP32, word(cr.back(), 0));
  EXPECT_EQ(kTimeout, word(cr.back(), 1)) << "the longword response carries the caller's time-out";

  // An instrument without longword serial refuses, and reports why.
  EXPECT_LT(vintfWSLcmd(0, counter, kTimeout, 0x0000DFFF, 1, &r32), 0);
  ASSERT_EQ(0, vintfWScmd(0, counter, kTimeout, 0xCDFF, 1, &r16));
  EXPECT_EQ(0xFFF8, r16) << "Read Protocol Error: unsupported command";
}

// The bridge itself is a HiSLIP instrument: its messages, status byte and
// clear go as HiSLIP messages, not as bridge commands.
TEST_F(WordSerial, BridgeItselfThroughHislipDataMessages) {
  ASSERT_EQ(0, attr16(0, bridge, VI_ATTR_VXI_LA));
  const auto before = sim().stats();
  ASSERT_EQ(0, send(bridge, "*IDN?\n"));
  Reply r = receive(bridge, 256, kEnd);
  EXPECT_GE(r.st, 0);
  EXPECT_EQ("Simulated,LAN-VXI Bridge,SIM0001,1.0\n", r.text);
  ViUInt16 stb = 0xFFFF;
  ASSERT_EQ(0, send(bridge, "*SRE 4;BOGUS"));
  EXPECT_GE(vintfWSreadSTB(0, bridge, kTimeout, &stb), 0);
  EXPECT_EQ(0x04, stb & 0x04);
  EXPECT_GE(vintfWSclr(0, bridge, kTimeout), 0);
  EXPECT_TRUE(sim().receivedCommands().empty()) << "no bridge command for logical address 0";
  EXPECT_GE(sim().stats().dataMessages, before.dataMessages + 2);
  EXPECT_EQ(before.bridgeCommands, sim().stats().bridgeCommands);

  // Commands and responses still go to logical address 0 as bridge commands.
  ViUInt16 resp = 0;
  EXPECT_EQ(0, vintfWScmd(0, bridge, kTimeout, 0xDFFF, 1, &resp));
  EXPECT_EQ(0x9001, resp) << "the slot-0 controller is a commander";
  auto cr = commandsOf(sim(), 14);
  ASSERT_EQ(1u, cr.size());
  EXPECT_EQ(0u, (word(cr[0], 0) >> 8) & 0xFF);
}
