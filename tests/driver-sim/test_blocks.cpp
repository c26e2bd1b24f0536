// Block moves against the simulated memory: large random patterns across
// chunk boundaries, the FIFO register, and vintfMove between memory and bus.
#include <random>

#include "simhost.h"

using namespace sh;

namespace {

using Blocks = SimHost;

template <class T>
T bswap(T v) {
  if constexpr (sizeof(T) == 1) return v;
  else if constexpr (sizeof(T) == 2) return (T)__builtin_bswap16(v);
  else return (T)__builtin_bswap32(v);
}

template <class T>
ViStatus moveOut(ViUInt32 mode, ViUInt16 space, bool inc, ViBusAddress a, size_t n, T* buf) {
  if constexpr (sizeof(T) == 1) return vintfMoveOut8(0, mode, space, inc, a, n, buf);
  else if constexpr (sizeof(T) == 2) return vintfMoveOut16(0, mode, space, inc, a, n, buf);
  else return vintfMoveOut32(0, mode, space, inc, a, n, buf);
}
template <class T>
ViStatus moveIn(ViUInt32 mode, ViUInt16 space, bool inc, ViBusAddress a, size_t n, T* buf) {
  if constexpr (sizeof(T) == 1) return vintfMoveIn8(0, mode, space, inc, a, n, buf);
  else if constexpr (sizeof(T) == 2) return vintfMoveIn16(0, mode, space, inc, a, n, buf);
  else return vintfMoveIn32(0, mode, space, inc, a, n, buf);
}

template <class T>
std::vector<T> randomElements(size_t n, uint32_t seed) {
  std::mt19937 g(seed);
  std::vector<T> v(n);
  for (auto& x : v) x = (T)g();
  return v;
}

// Elements as the bus holds them (big-endian), or swapped.
template <class T>
std::vector<uint8_t> busBytes(const std::vector<T>& v, bool swapped) {
  std::vector<uint8_t> b;
  b.reserve(v.size() * sizeof(T));
  for (T x : v)
    for (size_t k = 0; k < sizeof(T); k++) {
      size_t shift = swapped ? 8 * k : 8 * (sizeof(T) - 1 - k);
      b.push_back((uint8_t)((uint64_t)x >> shift));
    }
  return b;
}

size_t chunksFor(size_t bytes) { return (bytes + 65519) / 65520; }

}  // namespace

// Out and back in through the A32 memory card, at sizes on both sides of the
// 65520-byte chunk; the simulated memory must hold exactly what went out.
template <class T>
void roundTrip(bridgesim::Server& sim, ViBusAddress base, uint32_t off, size_t n, uint32_t seed) {
  SCOPED_TRACE(testing::Message() << sizeof(T) * 8 << "-bit, " << n << " elements at +0x" << std::hex << off);
  auto out = randomElements<T>(n, seed);
  const ViBusAddress a = base + off;
  // The 8-bit moves take the whole mode as the privilege: no swap bit there.
  for (bool swapped : {false, true}) {
    if (swapped && sizeof(T) == 1) break;
    SCOPED_TRACE(swapped ? "swapped" : "plain");
    const ViUInt32 mode = swapped ? kSwap : 1;
    sim.clearReceived();
    ASSERT_EQ(0, moveOut<T>(mode, 3, true, a, n, out.data()));
    auto writes = commandsOf(sim, 8);
    EXPECT_EQ(chunksFor(n * sizeof(T)), writes.size());
    for (auto& w : writes) EXPECT_TRUE(word(w, 0) & VXICMD_INC);
    std::vector<uint8_t> held(n * sizeof(T));
    sim.bridge().mainframe().deviceAt(kLaMemory)->memory()->read(off, held.data(), held.size());
    EXPECT_TRUE(busBytes(out, swapped) == held) << "the simulated memory differs from what was written";

    // One slack element behind the buffer: the swapped read fills each
    // element from the one after it.
    std::vector<T> in(n + 1, (T)0x5A5A5A5A);
    sim.clearReceived();
    ASSERT_EQ(0, moveIn<T>(mode, 3, true, a, n, in.data()));
    EXPECT_EQ(chunksFor(n * sizeof(T)), commandsOf(sim, 7).size());
    if (!swapped) {
      EXPECT_TRUE(std::equal(out.begin(), out.end(), in.begin())) << "read back differs";
    } else {
      // Written swapped and read swapped: the values come back, one element
      // early.
      EXPECT_TRUE(std::equal(out.begin() + 1, out.end(), in.begin())) << "read back differs";
    }
    EXPECT_EQ((T)0x5A5A5A5A, in[n]) << "nothing is stored behind the buffer";
  }
}

TEST_F(Blocks, LargeMovesKeepTheirDataAtEveryWidthAndBothOrders) {
  const int mem = need(kLaMemory);
  const ViBusAddress base = attr64(0, mem, VI_ATTR_MEM_BASE_64);
  ASSERT_GE(attr64(0, mem, VI_ATTR_MEM_SIZE_64), 0x400000u);
  uint32_t seed = 1;
  for (size_t n : {65519u, 65520u, 65521u, 2 * 65520u + 3})
    roundTrip<uint8_t>(sim(), base, 0x10001, n, seed++);
  for (size_t n : {32760u, 32761u, 70001u}) roundTrip<uint16_t>(sim(), base, 0x100002, n, seed++);
  for (size_t n : {16379u, 16380u, 16381u, 20000u, 3 * 16380u + 7})
    roundTrip<uint32_t>(sim(), base, 0x200004, n, seed++);
}

// Written plain and read swapped: every element comes back byte-reversed and
// one element early.
TEST_F(Blocks, PlainWriteSwappedReadShiftsAndReverses) {
  const ViBusAddress base = attr64(0, need(kLaMemory), VI_ATTR_MEM_BASE_64);
  auto out = randomElements<uint32_t>(16385, 99);
  ASSERT_EQ(0, vintfMoveOut32(0, 0, 3, 1, base + 0x8000, out.size(), out.data()));
  std::vector<uint32_t> in(out.size() + 1, 0);
  ASSERT_EQ(0, vintfMoveIn32(0, kSwap, 3, 1, base + 0x8000, out.size(), in.data()));
  for (size_t i = 0; i + 1 < out.size(); i++) ASSERT_EQ(bswap(out[i + 1]), in[i]) << i;
}

// The digitizer's sample memory starts as a ramp: 16-bit word k holds k.
TEST_F(Blocks, ReadsTheModelsOwnPatternAcrossChunks) {
  const int dig = need(kLaDigitizer);
  ASSERT_EQ(2, attr16(0, dig, VI_ATTR_MEM_SPACE));
  const ViBusAddress base = attr64(0, dig, VI_ATTR_MEM_BASE_64);
  std::vector<uint16_t> w(40000);
  ASSERT_EQ(0, vintfMoveIn16(0, 0, 2, 1, base, w.size(), w.data()));
  for (size_t k = 0; k < w.size(); k++) ASSERT_EQ((uint16_t)k, w[k]) << k;
  std::vector<uint8_t> b(65521);
  ASSERT_EQ(0, vintfMoveIn8(0, 0, 2, 1, base + 0x10000, b.size(), b.data()));
  EXPECT_EQ(busMemory(kLaDigitizer, 0x10000, b.size()), b);
  std::vector<uint32_t> l(16381);
  ASSERT_EQ(0, vintfMoveIn32(0, 0, 2, 1, base, l.size(), l.data()));
  for (size_t k = 0; k < l.size(); k++) ASSERT_EQ((uint32_t)(2 * k) << 16 | (uint16_t)(2 * k + 1), l[k]) << k;
  // A move that runs off the end of the window stops with a bus error.
  const uint64_t size = attr64(0, dig, VI_ATTR_MEM_SIZE_64);
  std::vector<uint16_t> tail(8, 0);
  EXPECT_EQ(kBusError, vintfMoveIn16(0, 0, 2, 1, base + size + 0x100, tail.size(), tail.data()));
}

// The digitizer's FIFO register: every element from the same address.
TEST_F(Blocks, FifoMovesDoNotIncrement) {
  const ViBusAddress fifo = configBase(kLaDigitizer) + 0x20;
  std::vector<uint16_t> s(4096, 0xFFFF);
  ASSERT_EQ(0, vintfMoveIn16(0, 0, 1, 0, fifo, s.size(), s.data()));
  for (size_t k = 0; k < s.size(); k++) ASSERT_EQ((uint16_t)k, s[k]) << k;
  auto reads = commandsOf(sim(), 7);
  ASSERT_EQ(1u, reads.size());
  EXPECT_EQ(0u, word(reads[0], 0) & VXICMD_INC);
  EXPECT_EQ((uint32_t)fifo, word(reads[0], 2));
  EXPECT_EQ(4096u, word(reads[0], 3));

  uint16_t one = 0;
  EXPECT_EQ(kBusError, vintfMoveIn16(0, 0, 1, 0, fifo, 1, &one)) << "the FIFO is empty now";

  // Longwords in and out again, across a chunk, in order.
  auto out = randomElements<uint32_t>(16390, 7);
  sim().clearReceived();
  ASSERT_EQ(0, vintfMoveOut32(0, 0, 1, 0, fifo, out.size(), out.data()));
  auto writes = commandsOf(sim(), 8);
  ASSERT_EQ(2u, writes.size());
  for (auto& w : writes) {
    EXPECT_EQ(0u, word(w, 0) & VXICMD_INC);
    EXPECT_EQ((uint32_t)fifo, word(w, 2));
  }
  std::vector<uint32_t> in(out.size());
  ASSERT_EQ(0, vintfMoveIn32(0, 0, 1, 0, fifo, in.size(), in.data()));
  EXPECT_EQ(out, in);

  // Bytes, swapped 16-bit words: the swap is a host-side affair only.
  uint8_t bytes[5] = {1, 2, 3, 4, 5}, back[5] = {};
  ASSERT_EQ(0, vintfMoveOut8(0, 0, 1, 0, fifo, 5, bytes));
  ASSERT_EQ(0, vintfMoveIn8(0, 0, 1, 0, fifo, 5, back));
  EXPECT_EQ(0, memcmp(bytes, back, 5));
  uint16_t w16[3] = {0x0102, 0x0304, 0x0506}, r16[4] = {};
  ASSERT_EQ(0, vintfMoveOut16(0, kSwap, 1, 0, fifo, 3, w16));
  ASSERT_EQ(0, vintfMoveIn16(0, 0, 1, 0, fifo, 3, r16));
  EXPECT_EQ(0x0201, r16[0]);
  EXPECT_EQ(0x0403, r16[1]);
  EXPECT_EQ(0x0605, r16[2]);
}

TEST_F(Blocks, MoveBetweenMemoryAndBusAndBusToBus) {
  const ViBusAddress dig = attr64(0, need(kLaDigitizer), VI_ATTR_MEM_BASE_64);
  const ViBusAddress mem = attr64(0, need(kLaMemory), VI_ATTR_MEM_BASE_64);
  auto host = [](const void* p) { return (ViBusAddress)(uintptr_t)p; };

  // Memory to bus, same width, contiguous: block writes.
  auto src = randomElements<uint32_t>(20000, 3);
  ASSERT_EQ(0, vintfMove(0, 0, 0, 1, host(src.data()), 4, 0, 3, 1, mem + 0x1000, 4, src.size()));
  EXPECT_EQ(2u, commandsOf(sim(), 8).size());
  EXPECT_EQ(0u, commandsOf(sim(), 5).size());
  EXPECT_EQ(busBytes(src, false), busMemory(kLaMemory, 0x1000, src.size() * 4));

  // Memory to bus from one fixed element: single writes, a fill.
  sim().clearReceived();
  uint16_t fill = 0xBEEF;
  ASSERT_EQ(0, vintfMove(0, 0, 0, 0, host(&fill), 2, 0, 3, 1, mem + 0x30000, 2, 50));
  EXPECT_EQ(50u, commandsOf(sim(), 5).size());
  EXPECT_EQ(busBytes(std::vector<uint16_t>(50, 0xBEEF), false), busMemory(kLaMemory, 0x30000, 100));

  // Bus to memory with a width change: single reads, zero-extended.
  sim().clearReceived();
  std::vector<uint32_t> wide(300, 0xFFFFFFFF);
  ASSERT_EQ(0, vintfMove(0, 0, 2, 1, dig + 0x200, 2, 0, 0, 1, host(wide.data()), 4, wide.size()));
  EXPECT_EQ(300u, commandsOf(sim(), 4).size());
  for (size_t k = 0; k < wide.size(); k++) ASSERT_EQ(0x100 + k, wide[k]) << k;

  // Bus to memory, same width, contiguous: block reads.
  sim().clearReceived();
  std::vector<uint32_t> back(src.size());
  ASSERT_EQ(0, vintfMove(0, 0, 3, 1, mem + 0x1000, 4, 0, 0, 1, host(back.data()), 4, back.size()));
  EXPECT_EQ(2u, commandsOf(sim(), 7).size());
  EXPECT_EQ(src, back);

  // Bus to bus: the digitizer's ramp into the memory card, element by element.
  sim().clearReceived();
  ASSERT_EQ(0, vintfMove(0, 0, 2, 1, dig + 0x40, 2, 0, 3, 1, mem + 0x50000, 2, 64));
  EXPECT_EQ(64u, commandsOf(sim(), 4).size());
  EXPECT_EQ(64u, commandsOf(sim(), 5).size());
  EXPECT_EQ(busMemory(kLaDigitizer, 0x40, 128), busMemory(kLaMemory, 0x50000, 128));

  // Bus to bus stops at the first failing access.
  sim().clearReceived();
  EXPECT_EQ(kBusError, vintfMove(0, 0, 2, 1, dig, 2, 0, 3, 1, 0x10000000, 2, 10));
  EXPECT_EQ(1u, commandsOf(sim(), 5).size());
}
