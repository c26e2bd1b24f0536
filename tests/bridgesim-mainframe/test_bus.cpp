// The register and memory model behind commands 4 to 8.
#include "bsim.h"

using namespace bsim;

TEST(BridgeRegisters, ConfigurationRegistersFollowTheVxiLayout) {
  Rig r;
  uint32_t v = 0;
  // digitizer: register-based (11), A16/A24 (00), manufacturer 0xFFB
  EXPECT_EQ(0u, r.read(A16, D16, cfg(8, 0), &v));
  EXPECT_EQ(0xCFFBu, v);
  EXPECT_EQ(0u, r.read(A16, D16, cfg(8, 2), &v));
  EXPECT_EQ(0x5210u, v) << "m = 5, model 0x210";
  EXPECT_EQ(0u, r.read(A16, D16, cfg(8, 4), &v));
  EXPECT_EQ(0xC00Cu, v) << "window active, MODID* high, ready, passed";
  EXPECT_EQ(0u, r.read(A16, D16, cfg(8, 6), &v));
  EXPECT_EQ(0x2000u, v) << "A24 base 0x200000";
  // multimeter: message-based, A16 only
  EXPECT_EQ(0u, r.read(A16, D16, cfg(16, 0), &v));
  EXPECT_EQ(0xBFFBu, v);
  EXPECT_EQ(0u, r.read(A16, D16, cfg(16, 4), &v));
  EXPECT_EQ(0x400Cu, v);
  EXPECT_EQ(0u, r.read(A16, D16, cfg(16, 0x0A), &v));
  EXPECT_EQ(0x1200u, v & 0x3600u) << "DIR and WR, ERR* high, no DOR or RR: " << std::hex << v;
  EXPECT_EQ(0x0800u, v & 0x0800u);
  // counter: message-based with A32 memory (01)
  EXPECT_EQ(0u, r.read(A16, D16, cfg(24, 0), &v));
  EXPECT_EQ(0x9FFBu, v);
  // device-dependent registers hold what is written
  EXPECT_EQ(0u, r.write(A16, D16, cfg(8, 0x10), 0xBEEF));
  EXPECT_EQ(0u, r.write(A16, D08, cfg(8, 0x11), 0x42));
  EXPECT_EQ(0u, r.read(A16, D16, cfg(8, 0x10), &v));
  EXPECT_EQ(0xBE42u, v);
}

TEST(BridgeRegisters, NothingDecodedOrMisalignedIsABusError) {
  Rig r;
  uint32_t v = 0x5555;
  EXPECT_EQ(kBerr, r.read(A16, D16, 0x1000, &v)) << "below the configuration area";
  EXPECT_EQ(kBerr, r.read(A16, D16, cfg(8, 1), &v)) << "odd address for a 16-bit access";
  EXPECT_EQ(kBerr, r.read(A16, D32, cfg(8, 2), &v));
  EXPECT_EQ(kBerr, r.read(A24, D16, 0x100000, &v));
  EXPECT_EQ(kBerr, r.read(A16, D16, 0x12345678, &v)) << "A16 has 16 address bits";
  auto a = r.cmd({4 | A16 | D16, 0, 0x1000});
  EXPECT_EQ(0u, word(a, 1)) << "no stale data in a failed read";
  // disabling the window takes the memory off the bus
  EXPECT_EQ(0u, r.write(A16, D16, cfg(8, 4), 0x0000));
  EXPECT_EQ(kBerr, r.read(A24, D16, 0x200000, &v));
  EXPECT_EQ(0u, r.write(A16, D16, cfg(8, 4), 0x8000));
  EXPECT_EQ(0u, r.read(A24, D16, 0x200000, &v));
  // and moving it moves the memory
  EXPECT_EQ(0u, r.write(A16, D16, cfg(8, 6), 0x8000));
  EXPECT_EQ(kBerr, r.read(A24, D16, 0x200000, &v));
  EXPECT_EQ(0u, r.read(A24, D16, 0x800002, &v));
  EXPECT_EQ(1u, v) << "the digitizer's memory is a ramp of 16-bit words";
}

// The driver's round trips check the data; the answer's layout is checked
// here: data padded to a multiple of 4, then the trailer.
TEST(BridgeBlocks, PaddingTrailerAndTheFifosPartialEnd) {
  Rig r;
  const uint32_t base = 0x20000000;
  EXPECT_EQ((std::vector<uint8_t>(words({0, 5}))), r.cmd({8 | A32 | D08 | INC, 11, base, 5, 0x44332211, 0x55}));
  EXPECT_EQ((std::vector<uint8_t>(words({0, 5, 0x44332211, 0x55, 0}))), r.cmd({7 | A32 | D08 | INC, 0, base, 5}));
  EXPECT_EQ((std::vector<uint8_t>(words({0, 0, 0}))), r.cmd({7 | A24 | D16 | INC, 0, 0x200000, 0}));
  // The digitizer's FIFO holds 4096 ramp samples after reset: asking for
  // 4100 moves 4096 and the trailer says why it stopped.
  const uint32_t fifo = cfg(8, 0x20);
  auto a = r.cmd({7 | A16 | D16, 0, fifo, 4100});
  ASSERT_EQ(0u, word(a, 0));
  ASSERT_EQ(4096u, word(a, 1));
  ASSERT_EQ(8u + 8192u + 4u, a.size());
  EXPECT_EQ(4094u | 4095u << 16, word(a, 2 + 2047));
  EXPECT_EQ(kBerr, word(a, 2 + 2048));
  a = r.cmd({7 | A16 | D16, 0, fifo, 4});
  EXPECT_EQ(kBerr, word(a, 0)) << "nothing at all moved: the head carries the error";
  // a reset refills it
  r.st({2, 0});
  a = r.cmd({7 | A16 | D16, 0, fifo, 2});
  EXPECT_EQ(0u | 1u << 16, word(a, 2));
}

TEST(BridgeBlocks, CountsAreBoundedAndWindowEndsStopTheTransfer) {
  Rig r;
  // more than one chunk's worth is cut to 65520 bytes
  auto a = r.cmd({7 | A32 | D08 | INC, 0, 0x20000000, 100000});
  EXPECT_EQ(65520u, word(a, 1));
  EXPECT_EQ(8u + 65520u + 4u, a.size());
  EXPECT_LT(a.size(), 65536u);
  a = r.cmd({7 | A32 | D32 | INC, 0, 0x20000000, 0xFFFFFFFF});
  EXPECT_EQ(16380u, word(a, 1));
  // a block write announcing more than a chunk is refused outright
  EXPECT_EQ(kIo, r.st({8 | A32 | D32 | INC, 0, 0x20000000, 16381}));
  // a block running off the end of the counter's 64 KiB window
  const uint32_t end = 0x20800000 + 0x10000;
  a = r.cmd({7 | A32 | D32 | INC, 0, end - 8, 4});
  EXPECT_EQ(0u, word(a, 0));
  EXPECT_EQ(2u, word(a, 1));
  EXPECT_EQ(kBerr, word(a, 4));
  auto w = r.cmd({8 | A32 | D32 | INC, 0, end - 4, 2, 7, 8});
  EXPECT_EQ(kBerr, word(w, 0));
  EXPECT_EQ(1u, word(w, 1));
  uint32_t v = 0;
  EXPECT_EQ(0u, r.read(A32, D32, end - 4, &v));
  EXPECT_EQ(7u, v);
}
