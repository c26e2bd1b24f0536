// The register and memory model behind commands 4 to 8.
#include "bsim.h"

using namespace bsim;

TEST(BridgeRegisters, ConfigurationRegistersFollowTheVxiLayout) {
  Rig r;
  // digitizer: register-based (11), A16/A24 (00), manufacturer 0xFFB
  EXPECT_EQ(Read(0, 0xCFFB), r.read(A16, D16, cfg(8, 0)));
  EXPECT_EQ(Read(0, 0x5210), r.read(A16, D16, cfg(8, 2))) << "m = 5, model 0x210";
  EXPECT_EQ(Read(0, 0xC00C), r.read(A16, D16, cfg(8, 4))) << "window active, MODID* high, ready, passed";
  EXPECT_EQ(Read(0, 0x2000), r.read(A16, D16, cfg(8, 6))) << "A24 base 0x200000";
  // multimeter: message-based, A16 only
  EXPECT_EQ(Read(0, 0xBFFB), r.read(A16, D16, cfg(16, 0)));
  EXPECT_EQ(Read(0, 0x400C), r.read(A16, D16, cfg(16, 4)));
  auto [st, v] = r.read(A16, D16, cfg(16, 0x0A));
  EXPECT_EQ(Read(0, 0x1A00), Read(st, v & 0x3E00)) << "DIR and WR, ERR* high, no DOR or RR: " << std::hex << v;
  // counter: message-based with A32 memory (01)
  EXPECT_EQ(Read(0, 0x9FFB), r.read(A16, D16, cfg(24, 0)));
  // device-dependent registers hold what is written
  EXPECT_EQ(0u, r.write(A16, D16, cfg(8, 0x10), 0xBEEF));
  EXPECT_EQ(0u, r.write(A16, D08, cfg(8, 0x11), 0x42));
  EXPECT_EQ(Read(0, 0xBE42), r.read(A16, D16, cfg(8, 0x10)));
  EXPECT_EQ(Read(0, 0xBE), r.read(A16, D08, cfg(8, 0x10))) << "a byte read at an even address: the high half";
}

TEST(BridgeRegisters, NothingDecodedOrMisalignedIsABusError) {
  Rig r;
  // A failed read carries no stale data.
  EXPECT_EQ(Read(kBerr, 0), r.read(A16, D16, 0x1000)) << "below the configuration area";
  EXPECT_EQ(Read(kBerr, 0), r.read(A16, D16, cfg(8, 1))) << "odd address for a 16-bit access";
  EXPECT_EQ(Read(kBerr, 0), r.read(A16, D32, cfg(8, 2)));
  EXPECT_EQ(Read(kBerr, 0), r.read(A24, D16, 0x100000));
  EXPECT_EQ(Read(kBerr, 0), r.read(A16, D16, 0x12345678)) << "A16 has 16 address bits";
  // disabling the window takes the memory off the bus
  EXPECT_EQ(0u, r.write(A16, D16, cfg(8, 4), 0x0000));
  EXPECT_EQ(kBerr, r.read(A24, D16, 0x200000).first);
  EXPECT_EQ(0u, r.write(A16, D16, cfg(8, 4), 0x8000));
  EXPECT_EQ(0u, r.read(A24, D16, 0x200000).first);
  // and moving it moves the memory
  EXPECT_EQ(0u, r.write(A16, D16, cfg(8, 6), 0x8000));
  EXPECT_EQ(kBerr, r.read(A24, D16, 0x200000).first);
  EXPECT_EQ(Read(0, 1), r.read(A24, D16, 0x800002)) << "the digitizer's memory is a ramp of 16-bit words";
}

// The answer's layout (the driver's round trips check the data): data padded to 4, then the trailer.
TEST(BridgeBlocks, PaddingTrailerAndTheFifosPartialEnd) {
  Rig r;
  const uint32_t base = 0x20000000;
  EXPECT_EQ(words({0, 5}), r.cmd({8 | A32 | D08 | INC, 11, base, 5, 0x44332211, 0x55}));
  EXPECT_EQ(words({0, 5, 0x44332211, 0x55, 0}), r.cmd({7 | A32 | D08 | INC, 0, base, 5}));
  EXPECT_EQ(words({0, 0, 0}), r.cmd({7 | A24 | D16 | INC, 0, 0x200000, 0}));
  // The digitizer's FIFO holds 4096 ramp samples after reset: asking for
  // 4100 moves 4096 and the trailer says why it stopped.
  const uint32_t fifo = cfg(8, 0x20);
  auto a = r.cmd({7 | A16 | D16, 0, fifo, 4100});
  ASSERT_EQ(8u + 8192u + 4u, a.size());
  EXPECT_EQ(words({0, 4096}), std::vector<uint8_t>(a.begin(), a.begin() + 8));
  EXPECT_EQ(words({4094u | 4095u << 16, kBerr}), std::vector<uint8_t>(a.end() - 8, a.end()));
  EXPECT_EQ(kBerr, word(r.cmd({7 | A16 | D16, 0, fifo, 4}), 0)) << "nothing at all moved: the head carries the error";
  r.st({2, 0});  // a reset refills it
  EXPECT_EQ(0u | 1u << 16, word(r.cmd({7 | A16 | D16, 0, fifo, 2}), 2));
}

TEST(BridgeBlocks, CountsAreBoundedAndWindowEndsStopTheTransfer) {
  Rig r;
  // more than one chunk's worth is cut to 65520 bytes
  auto a = r.cmd({7 | A32 | D08 | INC, 0, 0x20000000, 100000});
  EXPECT_EQ(65520u, word(a, 1));
  EXPECT_EQ(8u + 65520u + 4u, a.size());
  EXPECT_EQ(16380u, word(r.cmd({7 | A32 | D32 | INC, 0, 0x20000000, 0xFFFFFFFF}), 1));
  // a block write announcing more than a chunk is refused outright
  EXPECT_EQ(kIo, r.st({8 | A32 | D32 | INC, 0, 0x20000000, 16381}));
  // a block running off the end of the counter's 64 KiB window
  const uint32_t end = 0x20800000 + 0x10000;
  a = r.cmd({7 | A32 | D32 | INC, 0, end - 8, 4});
  EXPECT_EQ((std::vector<uint32_t>{0, 2, kBerr}), (std::vector<uint32_t>{word(a, 0), word(a, 1), word(a, 4)}));
  EXPECT_EQ(words({kBerr, 1}), r.cmd({8 | A32 | D32 | INC, 0, end - 4, 2, 7, 8}));
  EXPECT_EQ(Read(0, 7), r.read(A32, D32, end - 4));
}
