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
  // byte and longword views of the 16-bit registers
  EXPECT_EQ(0u, r.read(A16, D08, cfg(8, 0), &v));
  EXPECT_EQ(0xCFu, v);
  EXPECT_EQ(0u, r.read(A16, D08, cfg(8, 1), &v));
  EXPECT_EQ(0xFBu, v);
  EXPECT_EQ(0u, r.read(A16, D32, cfg(8, 0), &v));
  EXPECT_EQ(0xCFFB5210u, v);
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
  EXPECT_EQ(kBerr, r.read(A16, D16, cfg(1, 0), &v)) << "no device at logical address 1";
  EXPECT_EQ(kBerr, r.read(A16, D16, cfg(8, 1), &v)) << "odd address for a 16-bit access";
  EXPECT_EQ(kBerr, r.read(A16, D32, cfg(8, 2), &v));
  EXPECT_EQ(kBerr, r.read(A24, D16, 0x100000, &v));
  EXPECT_EQ(kBerr, r.write(A32, D32, 0x10000000, 1));
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

TEST(BridgeMemory, BusIsBigEndianAndAllWidthsSeeTheSameBytes) {
  Rig r;
  const uint32_t base = 0x20000000;  // memory card
  uint32_t v = 0;
  EXPECT_EQ(0u, r.write(A32, D32, base, 0x11223344));
  EXPECT_EQ(0u, r.read(A32, D08, base, &v));
  EXPECT_EQ(0x11u, v);
  EXPECT_EQ(0u, r.read(A32, D16, base + 2, &v));
  EXPECT_EQ(0x3344u, v);
  EXPECT_EQ(0u, r.write(A32, D08, base + 1, 0xAB));
  EXPECT_EQ(0u, r.write(A32, D16, base + 4, 0x5566FFFF)) << "only the low 16 bits count";
  EXPECT_EQ(0u, r.read(A32, D32, base, &v));
  EXPECT_EQ(0x11AB3344u, v);
  EXPECT_EQ(0u, r.read(A32, D32, base + 4, &v));
  EXPECT_EQ(0xFFFF0000u, v);
  // the last bytes of the 8 MiB window, and just below it
  EXPECT_EQ(0u, r.write(A32, D16, base + 0x7FFFFE, 0x0102));
  EXPECT_EQ(kBerr, r.write(A32, D16, base - 2, 1));
  // command 6 writes like 5
  EXPECT_EQ(0u, r.st({6 | A32 | D16, 1000, base + 8, 0x7777}));
  EXPECT_EQ(0u, r.read(A32, D16, base + 8, &v));
  EXPECT_EQ(0x7777u, v);
}

TEST(BridgeBlocks, IncrementingReadAndWriteWithPaddingAndTrailer) {
  Rig r;
  const uint32_t base = 0x20000000;
  // 5 bytes: padded to 8, trailer at 16
  auto w = r.cmd({8 | A32 | D08 | INC, 11, base, 5, 0x44332211, 0x00000055});
  EXPECT_EQ((std::vector<uint8_t>(words({0, 5}))), w);
  auto a = r.cmd({7 | A32 | D08 | INC, 0, base, 5});
  ASSERT_EQ(20u, a.size());
  EXPECT_EQ(0u, word(a, 0));
  EXPECT_EQ(5u, word(a, 1));
  EXPECT_EQ(0x44332211u, word(a, 2));
  EXPECT_EQ(0x55u, word(a, 3) & 0xFF);
  EXPECT_EQ(0u, word(a, 4));
  // 16-bit elements come back as host-order values of big-endian bus words
  a = r.cmd({7 | A32 | D16 | INC, 0, base, 2});
  ASSERT_EQ(16u, a.size());
  EXPECT_EQ(0x33441122u, word(a, 2));
  uint32_t v = 0;
  r.cmd({8 | A32 | D32 | INC, 10, base + 16, 2, 0xA1A2A3A4, 0xB1B2B3B4});
  EXPECT_EQ(0u, r.read(A32, D32, base + 20, &v));
  EXPECT_EQ(0xB1B2B3B4u, v);
  // the digitizer's ramp read as a block
  a = r.cmd({7 | A24 | D16 | INC, 0, 0x200000 + 2 * 100, 3});
  ASSERT_EQ(8u + 8u + 4u, a.size());
  EXPECT_EQ(100u | 101u << 16, word(a, 2));
  EXPECT_EQ(102u, word(a, 3) & 0xFFFF);
  // count 0: nothing moved, trailer right behind the head
  EXPECT_EQ((std::vector<uint8_t>(words({0, 0, 0}))), r.cmd({7 | A24 | D16 | INC, 0, 0x200000, 0}));
}

TEST(BridgeBlocks, WithoutIncrementAllElementsUseOneAddress) {
  Rig r;
  const uint32_t base = 0x20000000;
  r.cmd({8 | A32 | D16, 10, base, 3, 0x00020001, 0x00000003});
  uint32_t v = 0;
  EXPECT_EQ(0u, r.read(A32, D16, base, &v));
  EXPECT_EQ(3u, v) << "the last element wins";
  EXPECT_EQ(0u, r.read(A32, D16, base + 2, &v));
  EXPECT_EQ(0u, v);
  auto a = r.cmd({7 | A32 | D16, 0, base, 3});
  EXPECT_EQ(3u, word(a, 2) & 0xFFFF);
  EXPECT_EQ(3u, word(a, 2) >> 16);
  EXPECT_EQ(3u, word(a, 3) & 0xFFFF);
}

TEST(BridgeBlocks, FifoRegisterDrainsAndStopsWithABusErrorInTheTrailer) {
  Rig r;
  const uint32_t fifo = cfg(8, 0x20);
  // 4096 ramp samples after reset: read 4000 in one non-incrementing block
  auto a = r.cmd({7 | A16 | D16, 0, fifo, 4000});
  ASSERT_EQ(0u, word(a, 0));
  ASSERT_EQ(4000u, word(a, 1));
  EXPECT_EQ(0u | 1u << 16, word(a, 2));
  EXPECT_EQ(3998u | 3999u << 16, word(a, 2 + 1999));
  // 96 left: asking for 100 moves 96 and the trailer says why it stopped
  a = r.cmd({7 | A16 | D16, 0, fifo, 100});
  ASSERT_EQ(0u, word(a, 0));
  ASSERT_EQ(96u, word(a, 1));
  ASSERT_EQ(8u + 192u + 4u, a.size());
  EXPECT_EQ(kBerr, word(a, 2 + 48));
  uint32_t v = 0;
  EXPECT_EQ(kBerr, r.read(A16, D16, fifo, &v)) << "empty";
  a = r.cmd({7 | A16 | D16, 0, fifo, 4});
  EXPECT_EQ(kBerr, word(a, 0)) << "nothing at all moved: the head carries the error";
  // written elements come out in order, in any width
  EXPECT_EQ((std::vector<uint8_t>(words({0, 3}))), r.cmd({8 | A16 | D32, 10, fifo, 3, 1, 2, 0x03040506}));
  EXPECT_EQ(0u, r.read(A16, D32, fifo, &v));
  EXPECT_EQ(1u, v);
  EXPECT_EQ(0u, r.read(A16, D16, fifo, &v));
  EXPECT_EQ(0u, v);
  EXPECT_EQ(0u, r.read(A16, D16, fifo, &v));
  EXPECT_EQ(2u, v);
  EXPECT_EQ(0u, r.read(A16, D08, fifo, &v));
  EXPECT_EQ(3u, v);
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
