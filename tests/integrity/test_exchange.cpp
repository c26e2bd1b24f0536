// One call, one answer: an answer that comes after its call has given up is
// dropped and never handed to a later call, and Word Serial calls (which
// take no driver mutex) never split another thread's exchange.
#include "integrity.h"

using namespace integ;

namespace {

using Exchange = PatternHost;

}  // namespace

// A register read and a 64 KiB block read whose answers come 2.5 s late
// (after the 2 s transport time-out): the call times out, and every later
// call gets its own answer.
TEST_F(Exchange, LateAnswerIsNeverTakenForTheNextCall) {
  struct Case {
    const char* what;
    std::function<ViStatus()> late;
  };
  std::vector<ViUInt32> sink(16380);
  const Case cases[] = {
      {"register", [&] { ViUInt32 v; return vintfIn32(0, 0, space, base + 0x100, &v); }},
      {"block", [&] { return vintfMoveIn32(0, 0, space, 1, base, sink.size(), sink.data()); }},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    answerDelay(2500);
    EXPECT_EQ(kTmo, c.late());
    answerDelay(0);
    for (uint32_t off : {0x0u, 0x4u, 0x200u, 0x3FFFCu}) EXPECT_TRUE(readChecks(off)) << off;
    EXPECT_TRUE(blockChecks(0x1000, 5000));
  }
}

// Answers withheld for longer than the resynchronisation may wait: the next
// call reports the lost connection, the host reopens, and all is in step.
TEST_F(Exchange, AnswerThatNeverComesCostsTheSessionNotTheData) {
  withheld(true);
  ViUInt32 v = 0;
  EXPECT_EQ(kTmo, vintfIn32(0, 0, space, base + 8, &v));
  withheld(false);
  EXPECT_EQ(kConnLost, vintfIn32(0, 0, space, base + 8, &v));
  EXPECT_EQ(kConnLost, vintfIn32(0, 0, space, base + 8, &v)) << "down until the host reopens";
  ASSERT_EQ(0, vintfTryReopenDevice(0));
  EXPECT_TRUE(readChecks(8));
  EXPECT_TRUE(blockChecks(0, 1000));
}

// Two register threads and a Word Serial thread on one connection: every
// register value and every identity string must be the right one.
TEST_F(Exchange, WordSerialBesideRegisterThreadsKeepsEveryAnswer) {
  const int dmm = need(kLaDmm);
  std::atomic<int> wrong{0}, reads{0};
  std::atomic<bool> wsDone{false};
  auto registers = [&](uint32_t salt) {
    for (uint32_t k = 0; k < 200 || (!wsDone && k < 20000); k++, reads++)
      if (!readChecks(((k * 40503u + salt) % (kPatternBytes / 4)) * 4)) wrong++;
  };
  auto wordSerial = [&] {
    const std::string idn = "Simulated,VXI Multimeter 6.5,SIM1016,2.1\n";
    for (int k = 0; k < 40; k++) {
      char q[] = "*IDN?\n";
      ViInt32 got = 0;
      if (vintfWSwrt(0, dmm, 3000, q, 6, 2, &got) != 0) wrong++;
      std::vector<char> buf(1024 + 256);
      if (vintfWSrd(0, dmm, 3000, buf.data(), 1024, 2, '\n', &got) < 0 || std::string(buf.data(), got) != idn)
        wrong++;
    }
    wsDone = true;
  };
  std::thread a(registers, 1), b(registers, 7), c(wordSerial);
  a.join();
  b.join();
  c.join();
  EXPECT_EQ(0, wrong.load()) << "of " << reads.load() << " register reads and 40 queries";
}
