// Word Serial with the simulated instruments, and with the bridge itself (LA 0) over HiSLIP.
#include "simhost.h"

using namespace sh;

namespace {

using Words = std::vector<uint32_t>;
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
  struct Reply { ViStatus st; std::string text; };
  Reply receive(int instr, ViInt32 max = 1000, ViUInt16 flags = kEnd, char eos = '\n', ViUInt32 tmo = kTimeout) {
    std::vector<char> buf(max + 512, '#');
    ViInt32 got = -1;
    ViStatus st = vintfWSrd(0, instr, tmo, buf.data(), max, flags, eos, &got);
    EXPECT_GE(got, 0);
    const size_t n = got > 0 ? got : 0;
    EXPECT_EQ(std::string(buf.size() - n, '#'), std::string(buf.begin() + n, buf.end())) << "stored past the count";
    return {st, std::string(buf.data(), n)};
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
constexpr uint32_t kDmmBits = kLaDmm << 8;

}  // namespace

TEST_F(WordSerial, IdentityQueryAndItsBridgeCommands) {
  ASSERT_EQ(0, send(dmm, "*IDN?\n"));
  Reply r = receive(dmm);
  EXPECT_EQ(2, r.st & 3) << "ended at END, not at a termination character";
  EXPECT_EQ(kDmmIdn + "\n", r.text);
  // A write with END, 12 + 6 bytes raised to a multiple of 4.
  const auto write = commandsOf(sim(), 13).at(0);
  EXPECT_EQ((Words{13u | kDmmBits | VXICMD_WS_END, 1, 6}), head(write, 3));
  EXPECT_EQ(20u, write.size());
  EXPECT_EQ(0, memcmp(write.data() + 12, "*IDN?\n", 6));
  EXPECT_EQ((Words{12u | kDmmBits | VXICMD_WS_END}), lastHead(12, 1));
  // A slow reading: the driver asks again while the bridge answers "not ready".
  EXPECT_EQ("+1.234500E+00\n", query(dmm, "MEAS:VOLT:DC?"));
}

TEST_F(WordSerial, BusyAnswersAreRetriedForEveryKindOfExchange) {
  faults([](auto& f) { f.busyTries = 3; });
  ASSERT_EQ(0, send(dmm, "*IDN?"));
  EXPECT_EQ(4u, commandsOf(sim(), 13).size()) << "three busy answers, then the write";
  faults([](auto& f) { f.busyTries = 4; });
  EXPECT_EQ(kDmmIdn + "\n", receive(dmm).text);
  EXPECT_EQ(5u, commandsOf(sim(), 12).size());
  faults([](auto& f) { f.busyTries = 2; });
  ViUInt16 resp = 0;
  EXPECT_EQ(0, vintfWScmd(0, dmm, kTimeout, 0xDFFF, 1, &resp));
  EXPECT_EQ(0x1005, resp) << "Read Protocol: 488.2 instrument, longword, interrupter";
  EXPECT_EQ(3u, commandsOf(sim(), 14).size());
}

// Reads that stop at the termination character, at END, at the count, or at
// the time-out (the count still tells what came).  A character of 0x80 or
// above sets bits 24-31 too.
TEST_F(WordSerial, ReadsStopAtTheTerminationCharacterOrAtEnd) {
  // What is sent first; the read; the end bits of a success (or the error),
  // the text, and the read's command word when it matters.
  struct Read { const char* send; ViInt32 max; ViUInt16 flags; char eos; ViUInt32 tmo;
                ViStatus st; std::string text; uint32_t cmd; };
  const Read reads[] = {
      {"*IDN?", 1000, kEos, ',', kTimeout, 1, "Simulated,", 0},
      {nullptr, 1000, kEos | kEnd, ',', kTimeout, 1, "VXI Multimeter 6.5,",
       12u | kDmmBits | (uint32_t)',' << 16 | VXICMD_WS_EOS | VXICMD_WS_END},
      {nullptr, 1000, kEos | kEnd, 'Q', kTimeout, 2, "SIM1016,2.1\n", 0},
      {"*IDN?;*IDN?", 50, 0, 0, kTimeout, 0, kDmmIdn + ";Simulated", 0},
      {nullptr, 1000, kEnd, 0, kTimeout, 2, ",VXI Multimeter 6.5,SIM1016,2.1\n", 0},
      {"*IDN?", 100, 0, 0, 50, kTmo, kDmmIdn + "\n", 0},
      {"*IDN?", 100, kEos | kEnd, (char)0xF0, kTimeout, 2, kDmmIdn + "\n",
       0xFFF0000Cu | kDmmBits | VXICMD_WS_EOS | VXICMD_WS_END},
  };
  for (const Read& k : reads) {
    SCOPED_TRACE(k.text);
    if (k.send) {
      ASSERT_EQ(0, send(dmm, k.send));
    }
    Reply r = receive(dmm, k.max, k.flags, k.eos, k.tmo);
    EXPECT_EQ(k.st, r.st < 0 ? r.st : r.st & 3);
    EXPECT_EQ(k.text, r.text);
    if (k.cmd) {
      EXPECT_EQ((Words{k.cmd}), lastHead(12, 1));
    }
  }

  // An answer with more bytes than asked for fails the read; nothing is stored.
  ASSERT_EQ(0, send(dmm, "*IDN?"));
  faults([](auto& f) { f.inflateCode = 12; });
  const Reply r = receive(dmm, 10, kEnd, 0);
  EXPECT_EQ(VI_ERROR_SYSTEM_ERROR, r.st);
  EXPECT_EQ("", r.text);
}

// 200 bytes: the remainder narrows to -56, so both chunks go out as 256 bytes,
// the second from 56 bytes before the buffer (separators in the slack keep the
// message well-formed).
TEST_F(WordSerial, TwoHundredBytesReachIntoTheSlack) {
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
  EXPECT_EQ((Words{13u | kDmmBits, 1, 256}), head(writes[0], 3));
  EXPECT_EQ(0, memcmp(writes[0].data() + 12, msg, 256));
  EXPECT_EQ((Words{13u | kDmmBits | VXICMD_WS_END, 1, 256}), head(writes[1], 3));
  EXPECT_EQ(0, memcmp(writes[1].data() + 12, msg - 56, 256));
  EXPECT_EQ("12;12\n", receive(dmm).text) << "the instrument saw the message twice";

  // 200 bytes in: the chunk asks for 256, so 205 arrive, five in the slack.
  std::string expect = kDmmIdn;
  for (int k = 1; k < 5; k++) expect += ";" + kDmmIdn;
  ASSERT_EQ(0, send(dmm, "*IDN?;*IDN?;*IDN?;*IDN?;*IDN?"));
  sim().clearReceived();
  std::vector<char> in(200 + 56, '#');
  EXPECT_EQ(2, vintfWSrd(0, dmm, kTimeout, in.data(), 200, kEnd, '\n', &got) & 3);
  EXPECT_EQ(205, got);
  EXPECT_EQ(expect + "\n#", std::string(in.data(), 206));
  ASSERT_EQ(1u, commandsOf(sim(), 12).size());
  EXPECT_EQ((Words{12u | kDmmBits | VXICMD_WS_END, 1, 256}), lastHead(12, 3));
}

TEST_F(WordSerial, StatusByteClearAndTrigger) {
  const Words readStb{14u | kDmmBits | VXICMD_WS_SEND16 | VXICMD_WS_RESP16, 1, 0xCFFF};
  ViUInt16 stb = 0xFFFF;
  ASSERT_EQ(0, vintfWSreadSTB(0, dmm, kTimeout, &stb));
  EXPECT_EQ(0, stb);
  EXPECT_EQ(readStb, lastHead(14, 3));
  ASSERT_EQ(0, send(dmm, "BOGUS"));
  ASSERT_EQ(0, vintfWSreadSTB(0, dmm, kTimeout, &stb));
  EXPECT_EQ(0x04, stb) << "error queue not empty";
  ASSERT_EQ(0, send(dmm, "*IDN?"));
  ASSERT_EQ(0, vintfWSreadSTB(0, dmm, kTimeout, &stb));
  EXPECT_EQ(0x14, stb) << "and a message available";

  // Clear wants no response, and drops the unread answer.
  ASSERT_EQ(0, vintfWSclr(0, dmm, kTimeout));
  EXPECT_EQ((Words{14u | kDmmBits | VXICMD_WS_SEND16, 1, 0xFFFF}), lastHead(14, 3));
  ASSERT_EQ(0, vintfWSreadSTB(0, dmm, kTimeout, &stb));
  EXPECT_EQ(0x04, stb);
  EXPECT_EQ(kTmo, receive(dmm, 100, kEnd, '\n', 100).st);
  EXPECT_EQ("-113,\"Undefined header\"\n", query(dmm, "SYST:ERR?"));

  // Trigger waits until the instrument is ready, then starts the armed measurement.
  ASSERT_EQ(0, send(dmm, "TRIG:SOUR BUS;INIT"));
  sim().clearReceived();
  ASSERT_EQ(0, vintfWStrg(0, dmm, kTimeout));
  EXPECT_EQ((Words{15u | kDmmBits, kTimeout, 0x1200}), lastHead(15, 3));
  ASSERT_EQ(1u, commandsOf(sim(), 14).size());
  EXPECT_EQ((Words{14u | kDmmBits | VXICMD_WS_SEND16, 1, 0xEDFF}), lastHead(14, 3));
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
  EXPECT_EQ((Words{14u | kLaSwitch << 8 | VXICMD_WS_SEND16}), lastHead(14, 1));
  r16 = 0;
  ASSERT_EQ(0, vintfWSresp(0, sw, kTimeout, &r16));
  EXPECT_EQ(0x1001, r16);
  EXPECT_EQ((Words{14u | kLaSwitch << 8 | VXICMD_WS_RESP16}), lastHead(14, 1));

  // Longword serial: the multimeter answers below the command's high half.
  ViUInt32 r32 = 0;
  ASSERT_EQ(0, vintfWSLcmd(0, dmm, kTimeout, 0xABCDDFFF, 1, &r32));
  EXPECT_EQ(0xABCD1005u, r32);
  EXPECT_EQ((Words{14u | kDmmBits | VXICMD_WS_SEND32 | VXICMD_WS_RESP32, 1, 0xABCDDFFF}), lastHead(14, 3));
  ASSERT_EQ(0, vintfWSLcmd(0, dmm, kTimeout, 0x1234DFFF, 0, nullptr));
  ASSERT_EQ(0, vintfWSLresp(0, dmm, kTimeout, &r32));
  EXPECT_EQ(0x12341005u, r32);
  EXPECT_EQ((Words{14u | kDmmBits | VXICMD_WS_RESP32, kTimeout}), lastHead(14, 2))
      << "the longword response carries the caller's time-out";

  // An instrument without longword serial refuses, and reports why.
  EXPECT_LT(vintfWSLcmd(0, counter, kTimeout, 0x0000DFFF, 1, &r32), 0);
  ASSERT_EQ(0, vintfWScmd(0, counter, kTimeout, 0xCDFF, 1, &r16));
  EXPECT_EQ(0xFFF8, r16) << "Read Protocol Error: unsupported command";
}

// The bridge's own messages, status byte and clear go as HiSLIP messages.
TEST_F(WordSerial, BridgeItselfThroughHislipDataMessages) {
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

  // An answer read in pieces with register reads in between: each register
  // read gets its own value, and the pieces join up to the whole answer.
  ViUInt16 id = 0, again = 0;
  ASSERT_EQ(0, vintfIn16(0, 0, 1, configBase(kLaBridge), &id));
  ASSERT_EQ(0, send(bridge, "*IDN?\n"));
  std::string pieces;
  for (int k = 0; k < 4; k++) {
    pieces += receive(bridge, 10, kEnd).text;
    EXPECT_EQ(0, vintfIn16(0, 0, 1, configBase(kLaBridge), &again));
    EXPECT_EQ(id, again) << k;
  }
  EXPECT_EQ("Simulated,LAN-VXI Bridge,SIM0001,1.0\n", pieces);

  // Commands and responses still go to logical address 0 as bridge commands.
  ViUInt16 resp = 0;
  EXPECT_EQ(0, vintfWScmd(0, bridge, kTimeout, 0xDFFF, 1, &resp));
  EXPECT_EQ(0x9001, resp) << "the slot-0 controller is a commander";
  ASSERT_EQ(1u, commandsOf(sim(), 14).size());
  EXPECT_EQ((Words{14u | VXICMD_WS_SEND16 | VXICMD_WS_RESP16}), lastHead(14, 1));
}
