// Word Serial commands 12 to 15 below what the driver shows: protocol register
// bits, byte transfers, refusals, bus errors, a slow instrument's interrupt.
#include <thread>

#include "bsim.h"

using namespace bsim;

namespace {
constexpr unsigned kDmm = 16, kSwitch = 32;
constexpr uint32_t kSend16 = 0x04000000, kSend32 = 0x08000000, kRead16 = 0x10000000, kRead32 = 0x20000000;

// A multimeter slow enough that "not ready yet" is certain right after the query.
const char* kSlowMeter = "[Meter]\nLA=7\nCLASS=message\nKIND=dmm\nMEAS_DELAY_MS=400\nREADING=2.5\nIRQ=6\n";
}  // namespace

TEST(WordSerial, SlowMeasurementAndTriggeredMeasurementWithItsInterrupt) {
  Rig r(writeIni("slow-meter.ini", kSlowMeter));
  EXPECT_EQ(0u, word(r.wsWrite(7, "MEAS:VOLT?\n"), 0));
  EXPECT_EQ(words({kTmo, 0}), r.wsRead(7, 256));
  // while the answer is being made the instrument takes no input (DIR clear)
  EXPECT_EQ(words({kTmo, 0}), r.wsWrite(7, "*CLS\n"));
  EXPECT_EQ(kTmo, r.st({15 | 7 << 8, 1, 0x2000})) << "DOR not set yet";
  EXPECT_EQ(0u, r.st({15 | 7 << 8, 5000, 0x2000})) << "the bridge waits for DOR";
  auto a = r.wsReadReady(7, 256);
  EXPECT_EQ(2u, word(a, 0));
  EXPECT_EQ("+2.500000E+00\n", text(a));

  // Triggered the way the driver does it; when done, request true from LA 7 on line 6.
  r.wsWrite(7, "TRIG:SOUR BUS;INIT\n");
  EXPECT_EQ(0u, r.st({15 | 7 << 8, 1000, 0x1200}));
  EXPECT_EQ(0u, word(r.wsCmd(7, kSend16, 0xEDFF), 0));
  EXPECT_EQ("+2.500000E+00\n", r.query(7, "FETC?\n"));
  std::vector<std::vector<uint8_t>> rep;
  for (int i = 0; i < 5000 && (rep = r.takeReports()).empty(); ++i)
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  EXPECT_EQ(decltype(rep){words({1, 1, 6, 0xFD07})}, rep);
}

TEST(WordSerial, RegisterLevelProtocolByteTransfersRefusalsAndBusErrors) {
  Rig r;
  // what a commander does without the bridge: poll WR, write Data Low, poll RR, read Data Low
  ASSERT_TRUE(r.read(A16, D16, cfg(kDmm, 0x0A)).second & 0x0200) << "WR";
  EXPECT_EQ(0u, r.write(A16, D16, cfg(kDmm, 0x0E), 0xCFFF));
  ASSERT_TRUE(r.read(A16, D16, cfg(kDmm, 0x0A)).second & 0x0400) << "RR";
  EXPECT_EQ(Read(0, 0xFF00), r.read(A16, D16, cfg(kDmm, 0x0E)));
  EXPECT_EQ(kBerr, r.read(A16, D16, cfg(kDmm, 0x0E)).first) << "no response waiting";
  // a longword command as one 32-bit write of Data High and Data Low
  EXPECT_EQ(0u, r.write(A16, D32, cfg(kDmm, 0x0C), 0x0001CFFF));
  EXPECT_EQ(Read(0, 0x0001FF00), r.read(A16, D32, cfg(kDmm, 0x0C)));
  r.wsWrite(kDmm, "*IDN?\n");
  // a command sent alone leaves its response waiting (RR)
  EXPECT_EQ(0u, word(r.wsCmd(kDmm, kSend16, 0xDFFF), 0));
  EXPECT_TRUE(r.read(A16, D16, cfg(kDmm, 0x0A)).second & 0x0400) << "RR";
  EXPECT_EQ(0x1005u, word(r.wsCmd(kDmm, kRead16, 0xFFFF), 1));
  EXPECT_EQ(kTmo, word(r.wsCmd(kDmm, kRead16, 0xFFFF), 0)) << "nothing pending";
  // Byte Request hands out the answer a byte at a time, END on the last
  std::string got;
  for (int i = 0; i < 100; ++i) {
    auto a = r.wsCmd(kDmm, kSend16 | kRead16, 0xDEFF);
    ASSERT_EQ(0u, word(a, 0));
    got += char(word(a, 1) & 0xFF);
    if (word(a, 1) & 0x100) break;
  }
  EXPECT_EQ("Simulated,VXI Multimeter 6.5,SIM1016,2.1\n", got);
  EXPECT_EQ(kTmo, word(r.wsCmd(kDmm, kSend16 | kRead16, 0xDEFF), 0)) << "DOR clear";
  // Byte Available sends a message a byte at a time
  for (char c : std::string("*STB?\n"))
    EXPECT_EQ(0u, word(r.wsCmd(kDmm, kSend16, 0xBC00u | uint8_t(c) | (c == '\n' ? 0x100u : 0u)), 0));
  EXPECT_EQ("0\n", text(r.wsReadReady(kDmm, 256)));
  // an unsupported command sets ERR*; Read Protocol Error reports and clears it
  EXPECT_EQ(0u, word(r.wsCmd(kSwitch, kSend16, 0xC8FF), 0));
  auto [st, resp] = r.read(A16, D16, cfg(kSwitch, 0x0A));
  EXPECT_EQ(Read(0, 0), Read(st, resp & 0x0800)) << "ERR* low";
  EXPECT_EQ(kIo, word(r.wsCmd(kSwitch, kSend16 | kRead16, 0xC8FF), 0)) << "a refused query fails at once";
  EXPECT_EQ(0xFFF8u, word(r.wsCmd(kSwitch, kSend16 | kRead16, 0xCDFF), 1));
  EXPECT_EQ(0xFFFFu, word(r.wsCmd(kSwitch, kSend16 | kRead16, 0xCDFF), 1));
  EXPECT_EQ(kIo, word(r.wsCmd(kSwitch, kSend32 | kRead32, 0x0000CFFF), 0)) << "no longword serial";
  // Word Serial to a register-based device or an empty address is a bus error
  EXPECT_EQ(kBerr, word(r.wsCmd(8, kSend16, 0xFFFF), 0));
  EXPECT_EQ(kBerr, word(r.wsRead(99, 10), 0));
  EXPECT_EQ(kBerr, word(r.wsWrite(99, "*IDN?\n"), 0));
  EXPECT_EQ(kBerr, r.st({15 | 99 << 8, 1, 0x1200}));
}

TEST(WordSerial, AnswersWaitingForReadersGoToTheReportsOnlyWhileSessionsLive) {
  Rig r(writeIni("slow-meter.ini", kSlowMeter));
  bridgesim::HostId h{0x0100007F, 5};
  r.wsWrite(7, "INIT;*TRG\n", h);
  r.b.hostDisconnected(h);
  r.b.hostDisconnected({0x0100007F, 1});
  std::this_thread::sleep_for(std::chrono::milliseconds(600));
  EXPECT_TRUE(r.takeReports().empty()) << "no session left: the report waits";
  r.cmd({3, 0});  // the next command delivers it
  EXPECT_EQ(1u, r.takeReports().size());
}
