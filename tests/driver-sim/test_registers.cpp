// Single register and memory accesses on the simulated mainframe.
#include "simhost.h"

using namespace sh;

namespace {

using Registers = SimHost;
using Bytes = std::vector<uint8_t>;

// A single read at T's width on interface 0, required to succeed.
template <class T>
T in(ViUInt32 mode, ViUInt16 space, ViBusAddress a) {
  T v = 0;
  ViStatus st;
  if constexpr (sizeof(T) == 1) st = vintfIn8(0, mode, space, a, &v);
  else if constexpr (sizeof(T) == 2) st = vintfIn16(0, mode, space, a, &v);
  else st = vintfIn32(0, mode, space, a, &v);
  EXPECT_EQ(0, st) << std::hex << a;
  return v;
}

}  // namespace

// Every instrument's ID and Device Type registers, at all three widths, agree with discovery.
TEST_F(Registers, ConfigurationRegistersAgreeWithTheAttributes) {
  ViUInt32 n = 0;
  ASSERT_EQ(0, vintfGetNumRsrc(0, &n));
  ASSERT_EQ(mainframe().deviceCount(), n);
  for (ViUInt32 i = 0; i < n; i++) {
    SCOPED_TRACE(i);
    const ViBusAddress cfg = configBase(attr16(0, i, VI_ATTR_VXI_LA));
    const ViUInt16 id = in<ViUInt16>(0, 1, cfg + 0);
    const ViUInt16 type = in<ViUInt16>(1, 1, cfg + 2);
    EXPECT_EQ(attr16(0, i, VI_ATTR_MANF_ID), id & 0xFFF);
    EXPECT_EQ(attr16(0, i, VI_ATTR_VXI_DEV_CLASS), id >> 14);
    EXPECT_EQ(attr16(0, i, VI_ATTR_MODEL_CODE), type & 0xFFF);
    EXPECT_EQ(id >> 8, in<ViUInt8>(0, 1, cfg + 0)) << "the high byte";
    EXPECT_EQ(id & 0xFF, in<ViUInt8>(2, 1, cfg + 1)) << "the low byte";
    EXPECT_EQ((uint32_t)id << 16 | type, in<ViUInt32>(0, 1, cfg + 0));
  }
}

// A24 and A32 memory at every width, with and without the swap bit; the bus is big-endian.
TEST_F(Registers, MemoryWritesReadBackAtEveryWidth) {
  struct Target { int la; ViUInt16 space; };
  for (Target t : {Target{kLaDigitizer, 2}, Target{kLaCounter, 3}, Target{kLaMemory, 3}}) {
    SCOPED_TRACE(t.la);
    const int i = need(t.la);
    const ViUInt16 sp = t.space;
    ASSERT_EQ(sp, attr16(0, i, VI_ATTR_MEM_SPACE));
    const uint32_t off = 0x100;
    const ViBusAddress a = attr64(0, i, VI_ATTR_MEM_BASE_64) + off;

    ASSERT_EQ(0, vintfOut32(0, 0, sp, a, 0x11223344));
    EXPECT_EQ((Bytes{0x11, 0x22, 0x33, 0x44}), busMemory(t.la, off, 4));
    for (int k = 0; k < 4; k++) EXPECT_EQ(0x11 + 0x11 * k, in<ViUInt8>(0, sp, a + k));
    EXPECT_EQ(0x3344, in<ViUInt16>(0, sp, a + 2));
    EXPECT_EQ(0x44332211u, in<ViUInt32>(kSwap, sp, a));

    // Swapped writes land little-endian on the bus.
    ASSERT_EQ(0, vintfOut16(0, kSwap, sp, a + 8, 0xA1B2));
    ASSERT_EQ(0, vintfOut32(0, kSwap | 1, sp, a + 12, 0x01020304));
    EXPECT_EQ((Bytes{0xB2, 0xA1}), busMemory(t.la, off + 8, 2));
    EXPECT_EQ((Bytes{0x04, 0x03, 0x02, 0x01}), busMemory(t.la, off + 12, 4));
    EXPECT_EQ(0xA1B2, in<ViUInt16>(kSwap, sp, a + 8));
    EXPECT_EQ(0x04030201u, in<ViUInt32>(0, sp, a + 12));

    // A byte write at an odd address, and Poke writes read back by Peek.
    ASSERT_EQ(0, vintfOut8(0, 3, sp, a + 17, 0xC3));
    EXPECT_EQ(0xC3, busMemory(t.la, off + 17, 1)[0]);
    vintfPoke16(0, kSwap, sp, a + 40, 0x5566);
    vintfPoke32(0, 0, sp, a + 44, 0x778899AA);
    vintfPoke8(0, 0, sp, a + 48, 0xBB);
    EXPECT_EQ((Bytes{0x66, 0x55}), busMemory(t.la, off + 40, 2));
    EXPECT_EQ((Bytes{0x77, 0x88, 0x99, 0xAA, 0xBB}), busMemory(t.la, off + 44, 5));
    ViUInt16 h = 0;
    ViUInt32 l = 0;
    vintfPeek16(0, kSwap, sp, a + 40, &h);
    vintfPeek32(0, 0, sp, a + 44, &l);
    EXPECT_EQ(0x5566, h);
    EXPECT_EQ(0x778899AAu, l);
  }
}

TEST_F(Registers, BusErrorsAndOtherStatuses) {
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

  // A forced error leaves the destination, though a swapped read still swaps
  // it; a positive status is a success for a read and passed on by a write.
  const ViBusAddress a = attr64(0, need(kLaMemory), VI_ATTR_MEM_BASE_64);
  faults([](auto& f) { f.statusCode = 4, f.forcedStatus = (int32_t)0xBFFF003E; });
  w = 0x1122;
  EXPECT_EQ((ViStatus)0xBFFF003E, vintfIn16(0, kSwap, 3, a, &w));
  EXPECT_EQ(0x2211, w);
  faults([](auto& f) { f.forcedStatus = 5; });
  EXPECT_EQ(0, vintfIn32(0, 0, 3, a, &l));
  EXPECT_EQ(0u, l);
  faults([](auto& f) { f.statusCode = 5; });
  EXPECT_EQ(5, vintfOut32(0, 0, 3, a, 1));
  EXPECT_TRUE(mutexFree());
}

// Every width, space and privilege: the command words (bits written out, not
// taken from the driver's tables), and the bus cycle for a sample.
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
      in<ViUInt8>(pr, sp, a);
      in<ViUInt16>(pr, sp, a);
      in<ViUInt32>(pr, sp, a);
      EXPECT_EQ(0, vintfOut8(0, pr, sp, a, 1));
      EXPECT_EQ(0, vintfOut16(0, pr, sp, a, 2));
      EXPECT_EQ(0, vintfOut32(0, pr, sp, a, 3));
      vintfPoke8(0, pr, sp, a, 4);
      vintfPoke16(0, pr, sp, a, 5);
      vintfPoke32(0, pr, sp, a, 6);
      auto c = sim().receivedCommands();
      ASSERT_EQ(9u, c.size());
      const uint32_t width[3] = {0x00400000u, 0x00800000u, 0x01000000u};
      for (uint32_t i = 0; i < 9; i++) {
        // Out and the exported Pokes both send an ordinary write.
        EXPECT_EQ((i < 3 ? 4u : 5u) | width[i % 3] | kSpace[sp] | kPriv[pr], word(c[i], 0)) << i;
        EXPECT_EQ((uint32_t)a, word(c[i], 2)) << i;
        EXPECT_EQ(i < 3 ? 12u : 16u, c[i].size()) << i;
        if (i >= 3) {
          EXPECT_EQ(1000u, word(c[i], 1)) << i;
          EXPECT_EQ(i - 2, word(c[i], 3)) << i;
        }
      }
    }
  }
  // A24 D16, swapped, data privileged; only the offset's low 32 bits go out.
  sim().clearReceived();
  in<ViUInt16>(kSwap | 1, 2, addr[2] + 0x100000000ull);
  const auto c = sim().receivedCommands();
  ASSERT_EQ(1u, c.size());
  EXPECT_EQ(0x00880004u, word(c[0], 0));
  EXPECT_EQ((uint32_t)addr[2], word(c[0], 2));
  EXPECT_EQ(0x3D, mainframe().lastCycle().am);
  in<ViUInt8>(4, 3, addr[3] + 1);
  EXPECT_EQ(0x0B, mainframe().lastCycle().am) << "A32 block, non-privileged";
  vintfOut32(0, 3, 2, addr[2] + 8, 1);
  EXPECT_EQ(0x3E, mainframe().lastCycle().am) << "A24 program, privileged";
}

// Refused calls, and calls with nothing to move, send nothing and leave their outputs.
TEST_F(Registers, RefusedAndEmptyCallsSendNothing) {
  ViUInt16 h = 7;
  ViInt32 n = 9;
  char b[8] = {};
  EXPECT_EQ((ViStatus)0xBFFF004E, vintfIn16(0, 0, 4, 0, &h));
  EXPECT_EQ((ViStatus)0xBFFF004E, vintfOut8(0, 0, 0xFFFF, 0, 1));
  EXPECT_EQ((ViStatus)0xBFFF0091, vintfIn16(0, 8, 2, 0, &h));
  EXPECT_EQ((ViStatus)0xBFFF0091, vintfMoveOut8(0, kSwap | 1, 2, 1, 0, 1, (ViUInt8*)&h));
  // The 8-bit Poke takes the whole mode, swap bit included, as the privilege.
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
  EXPECT_EQ((std::vector<uint32_t>{5u | 0x00400000u | 0x00080000u | 0x00020000u}), lastHead(5, 1))
      << "a Poke inside the table goes out";
}
