// Single register and memory accesses on the simulated mainframe.
#include "simhost.h"

using namespace sh;

namespace {
using Registers = SimHost;
}  // namespace

// The ID and Device Type registers of every listed instrument, read at all
// three widths, tell what discovery reported for it.
TEST_F(Registers, ConfigurationRegistersAgreeWithTheAttributes) {
  ViUInt32 n = 0;
  ASSERT_EQ(0, vintfGetNumRsrc(0, &n));
  ASSERT_EQ(mainframe().deviceCount(), n);
  for (ViUInt32 i = 0; i < n; i++) {
    SCOPED_TRACE(i);
    const int la = attr16(0, i, VI_ATTR_VXI_LA);
    const ViBusAddress cfg = configBase(la);
    ViUInt16 id = 0, type = 0;
    ASSERT_EQ(0, vintfIn16(0, 0, 1, cfg + 0, &id));
    ASSERT_EQ(0, vintfIn16(0, 1, 1, cfg + 2, &type));
    EXPECT_EQ(attr16(0, i, VI_ATTR_MANF_ID), id & 0xFFF);
    EXPECT_EQ(attr16(0, i, VI_ATTR_VXI_DEV_CLASS), id >> 14);
    EXPECT_EQ(attr16(0, i, VI_ATTR_MODEL_CODE), type & 0xFFF);

    // The same registers through the other widths.
    ViUInt8 hi = 0, lo = 0;
    ASSERT_EQ(0, vintfIn8(0, 0, 1, cfg + 0, &hi));
    ASSERT_EQ(0, vintfIn8(0, 2, 1, cfg + 1, &lo));
    EXPECT_EQ(id, (uint16_t)(hi << 8 | lo));
    ViUInt32 both = 0;
    ASSERT_EQ(0, vintfIn32(0, 0, 1, cfg + 0, &both));
    EXPECT_EQ((uint32_t)id << 16 | type, both);
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

    // A byte write at an odd address, and Poke writes.
    ASSERT_EQ(0, vintfOut8(0, 3, t.space, a + 17, 0xC3));
    EXPECT_EQ(0xC3, busMemory(t.la, off + 17, 1)[0]);
    vintfPoke16(0, kSwap, t.space, a + 40, 0x5566);
    vintfPoke32(0, 0, t.space, a + 44, 0x778899AA);
    vintfPoke8(0, 0, t.space, a + 48, 0xBB);
    EXPECT_EQ((std::vector<uint8_t>{0x66, 0x55}), busMemory(t.la, off + 40, 2));
    EXPECT_EQ((std::vector<uint8_t>{0x77, 0x88, 0x99, 0xAA, 0xBB}), busMemory(t.la, off + 44, 5));
    ViUInt16 peeked = 0;
    vintfPeek16(0, kSwap, t.space, a + 40, &peeked);
    EXPECT_EQ(0x5566, peeked);
    vintfPeek32(0, 0, t.space, a + 44, &l);
    EXPECT_EQ(0x778899AAu, l);
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

// Every width, space and privilege: the command word the bridge receives
// (bits written out here rather than taken from the driver's tables, so a
// wrong table shows), and the bus cycle the simulator runs for a sample.
TEST_F(Registers, CommandWordsForEveryWidthSpaceAndPrivilege) {
  const uint32_t kSpace[4] = {0, 0x00040000, 0x00080000, 0x00100000};
  const uint32_t kPriv[8] = {0x00010000, 0, 0x00030000, 0x00020000, 0x04010000, 0x04000000, 0x00010000, 0};
  const ViBusAddress addr[4] = {0, configBase(kLaDigitizer) + 0x10, attr64(0, need(kLaDigitizer), VI_ATTR_MEM_BASE_64),
                                attr64(0, need(kLaMemory), VI_ATTR_MEM_BASE_64)};
  for (ViUInt16 sp = 1; sp <= 3; sp++) {
    for (ViUInt32 pr = 0; pr < 8; pr++) {
      SCOPED_TRACE(testing::Message() << "space " << sp << " privilege " << pr);
      sim().clearReceived();
      const ViBusAddress a = addr[sp];
      ViUInt8 b;
      ViUInt16 h;
      ViUInt32 w;
      EXPECT_EQ(0, vintfIn8(0, pr, sp, a, &b));
      EXPECT_EQ(0, vintfIn16(0, pr, sp, a, &h));
      EXPECT_EQ(0, vintfIn32(0, pr, sp, a, &w));
      EXPECT_EQ(0, vintfOut8(0, pr, sp, a, 1));
      EXPECT_EQ(0, vintfOut16(0, pr, sp, a, 2));
      EXPECT_EQ(0, vintfOut32(0, pr, sp, a, 3));
      vintfPoke8(0, pr, sp, a, 4);
      vintfPoke16(0, pr, sp, a, 5);
      vintfPoke32(0, pr, sp, a, 6);
      auto c = sim().receivedCommands();
      ASSERT_EQ(9u, c.size());
      const uint32_t bits = kSpace[sp] | kPriv[pr];
      const uint32_t width[3] = {0x00400000u, 0x00800000u, 0x01000000u};
      for (int i = 0; i < 9; i++) {
        // Reads first; Out and the exported Pokes both send an ordinary write.
        EXPECT_EQ((i < 3 ? 4u : 5u) | width[i % 3] | bits, word(c[i], 0)) << i;
        EXPECT_EQ((uint32_t)a, word(c[i], 2)) << i;
        EXPECT_EQ(i < 3 ? 12u : 16u, c[i].size()) << i;
        if (i >= 3) {
          EXPECT_EQ(1000u, word(c[i], 1)) << i;
        }
      }
      EXPECT_EQ(6u, word(c[8], 3));
    }
  }
  // A24 D16 read, swapped, data privileged; only the low 32 bits of the
  // offset reach the bridge.
  sim().clearReceived();
  ViUInt16 v = 0;
  EXPECT_EQ(0, vintfIn16(0, kSwap | 1, 2, addr[2] + 0x100000000ull, &v));
  ASSERT_EQ(1u, sim().receivedCommands().size());
  EXPECT_EQ(0x00880004u, word(sim().receivedCommands()[0], 0));
  EXPECT_EQ((uint32_t)addr[2], word(sim().receivedCommands()[0], 2));
  EXPECT_EQ(0x3D, mainframe().lastCycle().am);
  vintfIn8(0, 4, 3, addr[3] + 1, (ViUInt8*)&v);
  EXPECT_EQ(0x0B, mainframe().lastCycle().am) << "A32 block, non-privileged";
  vintfOut32(0, 3, 2, addr[2] + 8, 1);
  EXPECT_EQ(0x3E, mainframe().lastCycle().am) << "A24 program, privileged";
}

// Calls the driver refuses, or that have nothing to move, send nothing and
// leave their outputs alone.
TEST_F(Registers, RefusedAndEmptyCallsSendNothing) {
  ViUInt16 h = 7;
  ViInt32 n = 9;
  char b[8] = {};
  EXPECT_EQ((ViStatus)0xBFFF004E, vintfIn16(0, 0, 4, 0, &h));
  EXPECT_EQ((ViStatus)0xBFFF004E, vintfOut8(0, 0, 0xFFFF, 0, 1));
  EXPECT_EQ((ViStatus)0xBFFF0091, vintfIn16(0, 8, 2, 0, &h));
  EXPECT_EQ((ViStatus)0xBFFF0091, vintfMoveOut8(0, kSwap | 1, 2, 1, 0, 1, (ViUInt8*)&h));
  // The 8-bit Poke takes the whole mode as the privilege: with the swap bit
  // set it lies outside the table.
  vintfPoke8(0, kSwap | 1, 2, 0, 1);
  // Interface 1 is above the highest index (0); 65536 + 1 wraps to it.
  EXPECT_EQ(VI_ERROR_SYSTEM_ERROR, vintfIn16(1, 0, 2, 0, &h));
  EXPECT_EQ(VI_ERROR_SYSTEM_ERROR, vintfIn16((ViUInt16)(65536 + 1), 0, 2, 0, &h));
  EXPECT_EQ(VI_ERROR_SYSTEM_ERROR, vintfOut32(1, 0, 2, 0, 1));
  vintfPoke16(1, 0, 2, 0, 1);
  vintfPeek16(1, 0, 2, 0, &h);
  EXPECT_EQ(VI_ERROR_SYSTEM_ERROR, vintfMoveIn16(1, 0, 2, 1, 0, 4, &h));
  EXPECT_EQ(7, h);
  EXPECT_EQ(VI_ERROR_SYSTEM_ERROR, vintfWSrd(1, 1, 100, b, 4, 0, 0, &n));
  EXPECT_EQ(VI_ERROR_SYSTEM_ERROR, vintfWScmd2la(1, kLaDmm, 100, 0xFFFF, 0, &h));
  EXPECT_EQ(VI_ERROR_SYSTEM_ERROR, vintfWSclr(0, TCPVXI_MAX_INSTR, 100));
  // Zero counts, with END too; a 64-bit count whose low 32 bits are 0.
  const int dmm = need(kLaDmm);
  EXPECT_EQ(0, vintfWSwrt(0, dmm, 100, b, 0, 3, &n));
  EXPECT_EQ(0, n);
  EXPECT_EQ(0, vintfWSrd(0, dmm, 100, b, 0, 3, '\n', &n));
  EXPECT_EQ(0, n);
  ViUInt32 w = 0;
  EXPECT_EQ(0, vintfMoveIn32(0, kSwap, 2, 1, 0, 0, &w));
  EXPECT_EQ(0, vintfMoveOut16(0, kSwap, 2, 1, 0, 0, nullptr));
  EXPECT_EQ(0, vintfMoveOut8(0, 0, 2, 1, 0, 0x100000000ull, nullptr));
  EXPECT_TRUE(sim().receivedCommands().empty());
  vintfPoke8(0, 3, 2, 0, 1);
  ASSERT_EQ(1u, sim().receivedCommands().size()) << "a Poke inside the table goes out";
  EXPECT_EQ(5u | 0x00400000u | 0x00080000u | 0x00020000u, word(sim().receivedCommands()[0], 0));
}

// A failed read leaves its destination, though the swapped one still swaps
// it; a positive status is a success for a read and passed on by a write; an
// empty answer is a lost connection.
TEST_F(Registers, StatusesOfTheBridgeAnswer) {
  const ViBusAddress a = attr64(0, need(kLaMemory), VI_ATTR_MEM_BASE_64);
  faults([](auto& f) { f.statusCode = 4, f.forcedStatus = (int32_t)0xBFFF003E; });
  ViUInt16 h = 0x1122;
  EXPECT_EQ((ViStatus)0xBFFF003E, vintfIn16(0, kSwap, 3, a, &h));
  EXPECT_EQ(0x2211, h);
  ViUInt32 w = 0x11223344;
  EXPECT_EQ((ViStatus)0xBFFF003E, vintfIn32(0, 0, 3, a, &w));
  EXPECT_EQ(0x11223344u, w);
  faults([](auto& f) { f.forcedStatus = 5; });
  EXPECT_EQ(0, vintfIn32(0, 0, 3, a, &w));
  EXPECT_EQ(0u, w);
  faults([](auto& f) { f.statusCode = 5; });
  EXPECT_EQ(5, vintfOut32(0, 0, 3, a, 1));
  faults([](auto& f) { f = {}, f.emptyCode = 4; });
  w = 0x77;
  EXPECT_EQ(kConnLost, vintfIn32(0, 0, 3, a, &w));
  EXPECT_EQ(0x77u, w);
  EXPECT_TRUE(mutexFree());
}
