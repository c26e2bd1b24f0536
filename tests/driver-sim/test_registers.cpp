// Single register and memory accesses on the simulated mainframe.
#include "simhost.h"

using namespace sh;

namespace {

using Registers = SimHost;

uint16_t swap16(uint16_t v) { return (uint16_t)(v << 8 | v >> 8); }
uint32_t swap32(uint32_t v) { return __builtin_bswap32(v); }

}  // namespace

// The ID and Device Type registers of every listed instrument, read at all
// three widths, tell what discovery reported for it; the Offset register
// places its memory where VI_ATTR_MEM_BASE_64 says.
TEST_F(Registers, ConfigurationRegistersAgreeWithTheAttributes) {
  ViUInt32 n = 0;
  ASSERT_EQ(0, vintfGetNumRsrc(0, &n));
  ASSERT_EQ(mainframe().deviceCount(), n);
  for (ViUInt32 i = 0; i < n; i++) {
    SCOPED_TRACE(i);
    const int la = attr16(0, i, VI_ATTR_VXI_LA);
    const ViBusAddress cfg = configBase(la);
    ViUInt16 id = 0, type = 0, offset = 0;
    ASSERT_EQ(0, vintfIn16(0, 0, 1, cfg + 0, &id));
    ASSERT_EQ(0, vintfIn16(0, 1, 1, cfg + 2, &type));
    ASSERT_EQ(0, vintfIn16(0, 0, 1, cfg + 6, &offset));
    EXPECT_EQ(attr16(0, i, VI_ATTR_MANF_ID), id & 0xFFF);
    EXPECT_EQ(attr16(0, i, VI_ATTR_VXI_DEV_CLASS), id >> 14);
    EXPECT_EQ(attr16(0, i, VI_ATTR_MODEL_CODE), type & 0xFFF);

    // Address space bits of the ID register against the memory attributes.
    const uint16_t space = attr16(0, i, VI_ATTR_MEM_SPACE);
    const uint64_t base = attr64(0, i, VI_ATTR_MEM_BASE_64), size = attr64(0, i, VI_ATTR_MEM_SIZE_64);
    if (space == 2) {
      EXPECT_EQ(0, (id >> 12) & 3);
      EXPECT_EQ(base, (uint64_t)offset << 8);
      EXPECT_EQ(size, 1ull << (23 - (type >> 12)));
    } else if (space == 3) {
      EXPECT_EQ(1, (id >> 12) & 3);
      EXPECT_EQ(base, (uint64_t)offset << 16);
      EXPECT_EQ(size, 1ull << (31 - (type >> 12)));
    } else {
      EXPECT_EQ(1, space);
      EXPECT_EQ(3, (id >> 12) & 3);
      EXPECT_EQ(configBase(la), base);
      EXPECT_EQ(64u, size);
    }

    // The same registers through the other widths, the swap bit and Peek.
    ViUInt8 hi = 0, lo = 0;
    ASSERT_EQ(0, vintfIn8(0, 0, 1, cfg + 0, &hi));
    ASSERT_EQ(0, vintfIn8(0, 2, 1, cfg + 1, &lo));
    EXPECT_EQ(id, (uint16_t)(hi << 8 | lo));
    ViUInt32 both = 0;
    ASSERT_EQ(0, vintfIn32(0, 0, 1, cfg + 0, &both));
    EXPECT_EQ((uint32_t)id << 16 | type, both);
    ASSERT_EQ(0, vintfIn32(0, kSwap, 1, cfg + 0, &both));
    EXPECT_EQ(swap32((uint32_t)id << 16 | type), both);
    ViUInt16 swapped = 0;
    ASSERT_EQ(0, vintfIn16(0, kSwap | 1, 1, cfg + 0, &swapped));
    EXPECT_EQ(swap16(id), swapped);
    ViUInt16 peeked = 0;
    vintfPeek16(0, 0, 1, cfg + 2, &peeked);
    EXPECT_EQ(type, peeked);
  }
}

// Writes and reads of A24 and A32 memory at every width, with and without
// the swap bit; the bus holds the data big-endian.
TEST_F(Registers, MemoryWritesReadBackAtEveryWidth) {
  struct Target {
    int la;
    ViUInt16 space;
  };
  for (Target t : {Target{kLaDigitizer, 2}, Target{kLaCounter, 3}, Target{kLaMemory, 3}}) {
    SCOPED_TRACE(t.la);
    const int i = need(t.la);
    ASSERT_EQ(t.space, attr16(0, i, VI_ATTR_MEM_SPACE));
    const ViBusAddress base = attr64(0, i, VI_ATTR_MEM_BASE_64);
    const uint32_t off = 0x100;
    const ViBusAddress a = base + off;

    ASSERT_EQ(0, vintfOut32(0, 0, t.space, a, 0x11223344));
    EXPECT_EQ((std::vector<uint8_t>{0x11, 0x22, 0x33, 0x44}), busMemory(t.la, off, 4));
    for (int k = 0; k < 4; k++) {
      ViUInt8 b = 0;
      ASSERT_EQ(0, vintfIn8(0, 0, t.space, a + k, &b));
      EXPECT_EQ(0x11 + 0x11 * k, b);
    }
    ViUInt16 w = 0;
    ASSERT_EQ(0, vintfIn16(0, 0, t.space, a + 2, &w));
    EXPECT_EQ(0x3344, w);
    ViUInt32 l = 0;
    ASSERT_EQ(0, vintfIn32(0, kSwap, t.space, a, &l));
    EXPECT_EQ(0x44332211u, l);

    // Swapped writes land little-endian on the bus.
    ASSERT_EQ(0, vintfOut16(0, kSwap, t.space, a + 8, 0xA1B2));
    ASSERT_EQ(0, vintfOut32(0, kSwap | 1, t.space, a + 12, 0x01020304));
    EXPECT_EQ((std::vector<uint8_t>{0xB2, 0xA1}), busMemory(t.la, off + 8, 2));
    EXPECT_EQ((std::vector<uint8_t>{0x04, 0x03, 0x02, 0x01}), busMemory(t.la, off + 12, 4));
    ASSERT_EQ(0, vintfIn16(0, kSwap, t.space, a + 8, &w));
    EXPECT_EQ(0xA1B2, w);
    ASSERT_EQ(0, vintfIn32(0, 0, t.space, a + 12, &l));
    EXPECT_EQ(0x04030201u, l);

    // Byte writes at odd addresses and Poke writes, under every privilege.
    for (ViUInt32 mode = 0; mode < 8; mode++) {
      ASSERT_EQ(0, vintfOut8(0, mode, t.space, a + 17 + 2 * mode, (ViUInt8)(0xC0 + mode))) << mode;
      EXPECT_EQ(0xC0 + mode, busMemory(t.la, off + 17 + 2 * mode, 1)[0]);
    }
    vintfPoke16(0, kSwap, t.space, a + 40, 0x5566);
    vintfPoke32(0, 0, t.space, a + 44, 0x778899AA);
    vintfPoke8(0, 0, t.space, a + 48, 0xBB);
    EXPECT_EQ((std::vector<uint8_t>{0x66, 0x55}), busMemory(t.la, off + 40, 2));
    EXPECT_EQ((std::vector<uint8_t>{0x77, 0x88, 0x99, 0xAA, 0xBB}), busMemory(t.la, off + 44, 5));

    // Only the low 32 bits of the bus address reach the bridge.
    ASSERT_EQ(0, vintfIn32(0, 0, t.space, a + 0x100000000ull, &l));
    EXPECT_EQ(0x11223344u, l);
  }
}

TEST_F(Registers, AddressesNobodyDecodesAreBusErrors) {
  // The counter's window is the highest in A32: nothing lies behind it.
  const int ctr = need(kLaCounter);
  const ViBusAddress memEnd = attr64(0, ctr, VI_ATTR_MEM_BASE_64) + attr64(0, ctr, VI_ATTR_MEM_SIZE_64);
  ASSERT_LT(attr64(0, need(kLaMemory), VI_ATTR_MEM_BASE_64), memEnd);
  ASSERT_EQ(-1, instrumentAt(0, 100)) << "logical address 100 must be empty";

  ViUInt16 w = 0x1357;
  EXPECT_EQ(kBusError, vintfIn16(0, 0, 2, 0x000000, &w));
  EXPECT_EQ(0x1357, w) << "a failed read leaves the destination";
  EXPECT_EQ(kBusError, vintfIn16(0, 0, 1, 0x0000, &w));
  EXPECT_EQ(kBusError, vintfIn16(0, 0, 1, configBase(100), &w));
  EXPECT_EQ(kBusError, vintfOut32(0, 0, 3, 0x10000000, 1));
  EXPECT_EQ(kBusError, vintfOut8(0, 0, 3, memEnd, 1));
  ViUInt32 l = 0x2468;
  EXPECT_EQ(kBusError, vintfIn32(0, 0, 3, memEnd - 2, &l));
  EXPECT_EQ(0x2468u, l);
  // The window's last longword is still there.
  EXPECT_EQ(0, vintfIn32(0, 0, 3, memEnd - 4, &l));
}

// The command words, addresses and data that the bridge received, and the
// bus cycles it ran for them.
TEST_F(Registers, CommandWordsForASampleOfWidthsSpacesAndPrivileges) {
  const ViBusAddress a24 = attr64(0, need(kLaDigitizer), VI_ATTR_MEM_BASE_64);
  const ViBusAddress a32 = attr64(0, need(kLaMemory), VI_ATTR_MEM_BASE_64);
  struct Case {
    const char* what;
    uint32_t code, mode, space;
    ViBusAddress addr;
    uint32_t width;
    uint32_t expectCmd;
    uint8_t expectAm;
  };
  const Case cases[] = {
      {"A16 D16 read, data non-privileged", 4, 0, 1, configBase(kLaDmm), 2, 0x00850004, 0x29},
      {"A16 D16 read, data privileged", 4, 1, 1, configBase(kLaDmm), 2, 0x00840004, 0x2D},
      {"A24 D08 write, program privileged", 5, 3, 2, a24 + 3, 1, 0x004A0005, 0x3E},
      {"A24 D32 write, 64-bit non-privileged", 5, 6, 2, a24 + 8, 4, 0x01090005, 0x39},
      {"A32 D32 read, program non-privileged", 4, 2, 3, a32 + 4, 4, 0x01130004, 0x0A},
      {"A32 D16 write, block privileged", 5, 5, 3, a32 + 2, 2, 0x04900005, 0x0F},
      {"A32 D08 read, block non-privileged", 4, 4, 3, a32 + 1, 1, 0x04510004, 0x0B},
      {"A24 D16 read, swapped, data privileged", 4, kSwap | 1, 2, a24, 2, 0x00880004, 0x3D},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    sim().clearReceived();
    ViStatus st = -1;
    if (c.code == 4) {
      ViUInt8 b;
      ViUInt16 w;
      ViUInt32 l;
      st = c.width == 1   ? vintfIn8(0, c.mode, c.space, c.addr, &b)
           : c.width == 2 ? vintfIn16(0, c.mode, c.space, c.addr, &w)
                          : vintfIn32(0, c.mode, c.space, c.addr, &l);
    } else {
      st = c.width == 1   ? vintfOut8(0, c.mode, c.space, c.addr, 0x5A)
           : c.width == 2 ? vintfOut16(0, c.mode, c.space, c.addr, 0x5A6B)
                          : vintfOut32(0, c.mode, c.space, c.addr, 0x5A6B7C8D);
    }
    EXPECT_EQ(0, st);
    auto got = sim().receivedCommands();
    ASSERT_EQ(1u, got.size());
    EXPECT_EQ(c.expectCmd, word(got[0], 0)) << std::hex << word(got[0], 0);
    EXPECT_EQ((uint32_t)c.addr, word(got[0], 2));
    if (c.code == 4) {
      EXPECT_EQ(12u, got[0].size());
    } else {
      ASSERT_EQ(16u, got[0].size());
      EXPECT_EQ(1000u, word(got[0], 1));
      const uint32_t data = c.width == 1 ? 0x5A : c.width == 2 ? 0x5A6B : 0x5A6B7C8D;
      EXPECT_EQ(data, word(got[0], 3));
    }
    EXPECT_EQ(c.expectAm, mainframe().lastCycle().am) << std::hex << (int)mainframe().lastCycle().am;
  }
  // Poke goes out as an ordinary write.
  sim().clearReceived();
  vintfPoke32(0, 0, 3, a32 + 0x40, 7);
  auto got = sim().receivedCommands();
  ASSERT_EQ(1u, got.size());
  EXPECT_EQ(0x01110005u, word(got[0], 0));
}
