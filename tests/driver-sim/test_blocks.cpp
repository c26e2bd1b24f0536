// Block moves against the simulated memory: large random patterns across
// chunk boundaries (checked against the simulated memory itself), the FIFO
// register, and vintfMove between memory and bus.
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
std::vector<T> randomElements(size_t n, uint32_t salt) {
  std::mt19937 g(salt);
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
void roundTrip(bridgesim::Server& sim, ViBusAddress base, uint32_t off, size_t n, uint32_t salt) {
  SCOPED_TRACE(testing::Message() << sizeof(T) * 8 << "-bit, " << n << " elements at +0x" << std::hex << off);
  auto out = randomElements<T>(n, salt);
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
      // early; the last element is left as it was read, unswapped.
      EXPECT_TRUE(std::equal(out.begin() + 1, out.end(), in.begin())) << "read back differs";
      EXPECT_EQ(bswap(out[n - 1]), in[n - 1]);
    }
    EXPECT_EQ((T)0x5A5A5A5A, in[n]) << "nothing is stored behind the buffer";
  }
}

TEST_F(Blocks, LargeMovesKeepTheirDataAtEveryWidthAndBothOrders) {
  const int mem = need(kLaMemory);
  const ViBusAddress base = attr64(0, mem, VI_ATTR_MEM_BASE_64);
  ASSERT_GE(attr64(0, mem, VI_ATTR_MEM_SIZE_64), 0x400000u);
  uint32_t salt = 1;
  for (size_t n : {65519u, 65520u, 65521u, 2 * 65520u + 3})
    roundTrip<uint8_t>(sim(), base, 0x10001, n, salt++);
  for (size_t n : {32760u, 32761u, 70001u}) roundTrip<uint16_t>(sim(), base, 0x100002, n, salt++);
  for (size_t n : {16379u, 16380u, 16381u, 20000u, 3 * 16380u + 7})
    roundTrip<uint32_t>(sim(), base, 0x200004, n, salt++);
}

// 20000 longwords go out as 16380 + 3620 with bridge time-outs of 4105 and
// 915 ms; 100000 bytes come in as 65520 + 34480 with 6552 and 3448 ms.
TEST_F(Blocks, ChunkSizesAndBridgeTimeOuts) {
  const ViBusAddress base = attr64(0, need(kLaMemory), VI_ATTR_MEM_BASE_64);
  auto data = randomElements<uint32_t>(20000, 5);
  ASSERT_EQ(0, vintfMoveOut32(0, 0, 3, 1, base, data.size(), data.data()));
  auto c = sim().receivedCommands();
  ASSERT_EQ(2u, c.size());
  EXPECT_EQ(8u | 0x01000000u | 0x00100000u | 0x00010000u | VXICMD_INC, word(c[0], 0));
  EXPECT_EQ(4105u, word(c[0], 1));
  EXPECT_EQ((uint32_t)base, word(c[0], 2));
  EXPECT_EQ(16380u, word(c[0], 3));
  EXPECT_EQ(16u + 65520u, c[0].size());
  EXPECT_EQ(915u, word(c[1], 1));
  EXPECT_EQ((uint32_t)base + 16380u * 4, word(c[1], 2));
  EXPECT_EQ(3620u, word(c[1], 3));
  EXPECT_EQ(16u + 3620u * 4, c[1].size());

  sim().clearReceived();
  std::vector<uint8_t> bytes(100000);
  ASSERT_EQ(0, vintfMoveIn8(0, 1, 3, 1, base, bytes.size(), bytes.data()));
  c = sim().receivedCommands();
  ASSERT_EQ(2u, c.size());
  EXPECT_EQ(7u | 0x00400000u | 0x00100000u | VXICMD_INC, word(c[0], 0));
  EXPECT_EQ(65520u, word(c[0], 3));
  EXPECT_EQ(6552u, word(c[0], 1));
  EXPECT_EQ(34480u, word(c[1], 3));
  EXPECT_EQ(3448u, word(c[1], 1));
  EXPECT_EQ((uint32_t)base + 65520u, word(c[1], 2));
  EXPECT_EQ(busBytes(data, false), std::vector<uint8_t>(bytes.begin(), bytes.begin() + 80000));
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
  EXPECT_EQ((std::vector<uint16_t>{0x0201, 0x0403, 0x0605, 0}), std::vector<uint16_t>(r16, r16 + 4));
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

  // Bus to bus stops at the first failing access, and element by element at
  // the first non-zero status, a positive one too.
  sim().clearReceived();
  EXPECT_EQ(kBusError, vintfMove(0, 0, 2, 1, dig, 2, 0, 3, 1, 0x10000000, 2, 10));
  EXPECT_EQ(1u, commandsOf(sim(), 5).size());
  sim().clearReceived();
  faults([](auto& f) { f.statusCode = 5, f.forcedStatus = 1; });
  EXPECT_EQ(1, vintfMove(0, 0, 0, 0, host(&fill), 2, 0, 3, 1, mem, 2, 4));
  EXPECT_EQ(1u, sim().receivedCommands().size());

  // Memory to memory: widths converted, no traffic; a source that does not
  // increment repeats its one element.
  sim().clearReceived();
  uint32_t s32[3] = {0x11112222, 0x33334444, 0x55556666};
  uint16_t d16[3] = {};
  EXPECT_EQ(0, vintfMove(0, 0, 0, 1, host(s32), 4, 0, 0, 1, host(d16), 2, 3));
  EXPECT_EQ(0x2222, d16[0]);
  EXPECT_EQ(0x6666, d16[2]);
  uint8_t one = 0x7F;
  uint32_t d32[3] = {};
  EXPECT_EQ(0, vintfMove(0, 0, 0, 0, host(&one), 1, 0, 0, 1, host(d32), 4, 3));
  EXPECT_EQ(0x7Fu, d32[2]);
  EXPECT_TRUE(sim().receivedCommands().empty());
}

// A chunk that fails stops the move: the second chunk runs off the end of
// the counter's 64 KiB window, the highest in A32.
TEST_F(Blocks, FailingChunkStopsTheMove) {
  const ViBusAddress base = attr64(0, need(kLaCounter), VI_ATTR_MEM_BASE_64);
  ASSERT_EQ(0x10000u, attr64(0, need(kLaCounter), VI_ATTR_MEM_SIZE_64));
  std::vector<uint8_t> d(200000, 0xA5);
  EXPECT_EQ(kBusError, vintfMoveOut8(0, 0, 3, 1, base, d.size(), d.data()));
  EXPECT_EQ(2u, sim().receivedCommands().size());
  EXPECT_EQ(kBusError, vintfMoveIn8(0, 0, 3, 1, base, d.size(), d.data()));
  EXPECT_EQ(4u, sim().receivedCommands().size());
}
