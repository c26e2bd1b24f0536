// Block moves against the simulated memory, the FIFO register, vintfMove, and
// answers a well-behaved bridge never gives (scripted into the simulator).
#include <random>

#include "simhost.h"

using namespace sh;

namespace {

using Bytes = std::vector<uint8_t>;
using Words = std::vector<uint32_t>;

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
Bytes busBytes(const std::vector<T>& v, bool swapped) {
  Bytes b;
  for (T x : v)
    for (size_t k = 0; k < sizeof(T); k++)
      b.push_back((uint8_t)((uint64_t)x >> (swapped ? 8 * k : 8 * (sizeof(T) - 1 - k))));
  return b;
}

size_t chunksFor(size_t bytes) { return (bytes + 65519) / 65520; }

class Blocks : public SimHost {
 protected:
  // Out and back in through the A32 memory card, which must hold what went out.
  template <class T>
  void roundTrip(ViBusAddress base, uint32_t off, size_t n, uint32_t salt) {
    SCOPED_TRACE(testing::Message() << sizeof(T) * 8 << "-bit, " << n << " elements at +0x" << std::hex << off);
    auto out = randomElements<T>(n, salt);
    const ViBusAddress a = base + off;
    // The 8-bit moves take the whole mode as the privilege: no swap bit there.
    for (bool swapped : {false, true}) {
      if (swapped && sizeof(T) == 1) break;
      SCOPED_TRACE(swapped ? "swapped" : "plain");
      const ViUInt32 mode = swapped ? kSwap : 1;
      sim().clearReceived();
      ASSERT_EQ(0, moveOut<T>(mode, 3, true, a, n, out.data()));
      auto writes = commandsOf(sim(), 8);
      EXPECT_EQ(chunksFor(n * sizeof(T)), writes.size());
      for (auto& w : writes) EXPECT_TRUE(word(w, 0) & VXICMD_INC);
      EXPECT_TRUE(busBytes(out, swapped) == busMemory(kLaMemory, off, n * sizeof(T))) << "memory differs";

      // A slack element: the swapped read fills each element from the next.
      std::vector<T> in(n + 1, (T)0x5A5A5A5A);
      sim().clearReceived();
      ASSERT_EQ(0, moveIn<T>(mode, 3, true, a, n, in.data()));
      EXPECT_EQ(chunksFor(n * sizeof(T)), commandsOf(sim(), 7).size());
      if (!swapped) {
        EXPECT_TRUE(std::equal(out.begin(), out.end(), in.begin())) << "read back differs";
      } else {
        // The values come back one element early; the last one stays unswapped.
        EXPECT_TRUE(std::equal(out.begin() + 1, out.end(), in.begin())) << "read back differs";
        EXPECT_EQ(busBytes(std::vector<T>{out[n - 1]}, true), busBytes(std::vector<T>{in[n - 1]}, false));
      }
      EXPECT_EQ((T)0x5A5A5A5A, in[n]) << "nothing is stored behind the buffer";
    }
  }
  // From now on every bridge command gets the answer this script gives.
  void answer(std::function<std::optional<Bytes>(const Bytes&)> f) {
    faults([&](bridgesim::CommandFaults& c) {
      c.answer = [f](const uint8_t* cmd, size_t len) { return f(Bytes(cmd, cmd + len)); };
    });
  }
};

}  // namespace

TEST_F(Blocks, LargeMovesKeepTheirDataAtEveryWidthAndBothOrders) {
  const int mem = need(kLaMemory);
  const ViBusAddress base = attr64(0, mem, VI_ATTR_MEM_BASE_64);
  ASSERT_GE(attr64(0, mem, VI_ATTR_MEM_SIZE_64), 0x400000u);
  uint32_t salt = 1;
  for (size_t n : {65519u, 65520u, 65521u, 2 * 65520u + 3})
    roundTrip<uint8_t>(base, 0x10001, n, salt++);
  for (size_t n : {32760u, 32761u, 70001u}) roundTrip<uint16_t>(base, 0x100002, n, salt++);
  for (size_t n : {16379u, 16380u, 16381u, 20000u, 3 * 16380u + 7})
    roundTrip<uint32_t>(base, 0x200004, n, salt++);
}

// Chunks of 65520 bytes, each with a bridge time-out of n / 4 + 10 ms.
TEST_F(Blocks, ChunkSizesTimeOutsAndAFailingChunk) {
  const ViBusAddress base = attr64(0, need(kLaMemory), VI_ATTR_MEM_BASE_64);
  auto data = randomElements<uint32_t>(20000, 5);
  ASSERT_EQ(0, vintfMoveOut32(0, 0, 3, 1, base, data.size(), data.data()));
  auto c = sim().receivedCommands();
  ASSERT_EQ(2u, c.size());
  const uint32_t out = 8u | 0x01000000u | 0x00100000u | 0x00010000u | VXICMD_INC;
  EXPECT_EQ((Words{out, 4105, (uint32_t)base, 16380}), head(c[0], 4));
  EXPECT_EQ((Words{out, 915, (uint32_t)base + 16380u * 4, 3620}), head(c[1], 4));
  EXPECT_EQ(16u + 65520u, c[0].size());
  EXPECT_EQ(16u + 3620u * 4, c[1].size());

  sim().clearReceived();
  std::vector<uint8_t> bytes(100000);
  ASSERT_EQ(0, vintfMoveIn8(0, 1, 3, 1, base, bytes.size(), bytes.data()));
  c = sim().receivedCommands();
  ASSERT_EQ(2u, c.size());
  const uint32_t in = 7u | 0x00400000u | 0x00100000u | VXICMD_INC;
  EXPECT_EQ((Words{in, 6552, (uint32_t)base, 65520}), head(c[0], 4)) << "an 8-bit read gets n / 10 ms";
  EXPECT_EQ((Words{in, 3448, (uint32_t)base + 65520u, 34480}), head(c[1], 4));
  EXPECT_EQ(busBytes(data, false), std::vector<uint8_t>(bytes.begin(), bytes.begin() + 80000));

  // A failing chunk stops the move: the second runs off the counter's window,
  // the highest in A32.
  sim().clearReceived();
  const ViBusAddress ctr = attr64(0, need(kLaCounter), VI_ATTR_MEM_BASE_64);
  ASSERT_EQ(0x10000u, attr64(0, need(kLaCounter), VI_ATTR_MEM_SIZE_64));
  std::vector<uint8_t> d(200000, 0xA5);
  EXPECT_EQ(kBusError, vintfMoveOut8(0, 0, 3, 1, ctr, d.size(), d.data()));
  EXPECT_EQ(2u, sim().receivedCommands().size());
  EXPECT_EQ(kBusError, vintfMoveIn8(0, 0, 3, 1, ctr, d.size(), d.data()));
  EXPECT_EQ(4u, sim().receivedCommands().size());
}

// The digitizer's FIFO register: every element from the same address.
TEST_F(Blocks, FifoMovesDoNotIncrement) {
  const ViBusAddress fifo = configBase(kLaDigitizer) + 0x20;
  std::vector<uint16_t> s(4096, 0xFFFF);
  ASSERT_EQ(0, vintfMoveIn16(0, 0, 1, 0, fifo, s.size(), s.data()));
  for (size_t k = 0; k < s.size(); k++) ASSERT_EQ((uint16_t)k, s[k]) << k;
  ASSERT_EQ(1u, commandsOf(sim(), 7).size());
  EXPECT_EQ((Words{7u | 0x00800000u | 0x00040000u | 0x00010000u, 1034, (uint32_t)fifo, 4096}), lastHead(7, 4))
      << "no increment";

  uint16_t one = 0;
  EXPECT_EQ(kBusError, vintfMoveIn16(0, 0, 1, 0, fifo, 1, &one)) << "the FIFO is empty now";

  // Longwords in and out again, across a chunk, in order.
  auto out = randomElements<uint32_t>(16390, 7);
  sim().clearReceived();
  ASSERT_EQ(0, vintfMoveOut32(0, 0, 1, 0, fifo, out.size(), out.data()));
  ASSERT_EQ(2u, commandsOf(sim(), 8).size());
  EXPECT_EQ((Words{8u | 0x01000000u | 0x00040000u | 0x00010000u, 12, (uint32_t)fifo, 10}), lastHead(8, 4))
      << "the second chunk from the same address";
  std::vector<uint32_t> in(out.size());
  ASSERT_EQ(0, vintfMoveIn32(0, 0, 1, 0, fifo, in.size(), in.data()));
  EXPECT_EQ(out, in);

  // Bytes too.
  uint8_t bytes[5] = {1, 2, 3, 4, 5}, back[5] = {};
  ASSERT_EQ(0, vintfMoveOut8(0, 0, 1, 0, fifo, 5, bytes));
  ASSERT_EQ(0, vintfMoveIn8(0, 0, 1, 0, fifo, 5, back));
  EXPECT_EQ(0, memcmp(bytes, back, 5));
}

TEST_F(Blocks, MoveBetweenMemoryAndBusAndBusToBus) {
  const ViBusAddress dig = attr64(0, need(kLaDigitizer), VI_ATTR_MEM_BASE_64);
  const ViBusAddress mem = attr64(0, need(kLaMemory), VI_ATTR_MEM_BASE_64);
  auto host = [](const void* p) { return (ViBusAddress)(uintptr_t)p; };
  // Single reads, single writes, block reads and block writes since the last look.
  auto traffic = [&] {
    Words n;
    for (uint32_t code : {4, 5, 7, 8}) n.push_back((uint32_t)commandsOf(sim(), code).size());
    sim().clearReceived();
    return n;
  };

  // Memory to bus, same width, contiguous: block writes.
  auto src = randomElements<uint32_t>(20000, 3);
  ASSERT_EQ(0, vintfMove(0, 0, 0, 1, host(src.data()), 4, 0, 3, 1, mem + 0x1000, 4, src.size()));
  EXPECT_EQ((Words{0, 0, 0, 2}), traffic());
  EXPECT_EQ(busBytes(src, false), busMemory(kLaMemory, 0x1000, src.size() * 4));

  // Memory to bus from one fixed element: single writes, a fill.
  uint16_t fill = 0xBEEF;
  ASSERT_EQ(0, vintfMove(0, 0, 0, 0, host(&fill), 2, 0, 3, 1, mem + 0x30000, 2, 50));
  EXPECT_EQ((Words{0, 50, 0, 0}), traffic());
  EXPECT_EQ(busBytes(std::vector<uint16_t>(50, 0xBEEF), false), busMemory(kLaMemory, 0x30000, 100));

  // Bus to memory with a width change: single reads, zero-extended.
  std::vector<uint32_t> wide(300, 0xFFFFFFFF);
  ASSERT_EQ(0, vintfMove(0, 0, 2, 1, dig + 0x200, 2, 0, 0, 1, host(wide.data()), 4, wide.size()));
  EXPECT_EQ((Words{300, 0, 0, 0}), traffic());
  for (size_t k = 0; k < wide.size(); k++) ASSERT_EQ(0x100 + k, wide[k]) << k;

  // Bus to memory, same width, contiguous: block reads.
  std::vector<uint32_t> back(src.size());
  ASSERT_EQ(0, vintfMove(0, 0, 3, 1, mem + 0x1000, 4, 0, 0, 1, host(back.data()), 4, back.size()));
  EXPECT_EQ((Words{0, 0, 2, 0}), traffic());
  EXPECT_EQ(src, back);

  // Bus to bus: the digitizer's ramp into the memory card, element by element.
  ASSERT_EQ(0, vintfMove(0, 0, 2, 1, dig + 0x40, 2, 0, 3, 1, mem + 0x50000, 2, 64));
  EXPECT_EQ((Words{64, 64, 0, 0}), traffic());
  EXPECT_EQ(busMemory(kLaDigitizer, 0x40, 128), busMemory(kLaMemory, 0x50000, 128));

  // Element by element stops at the first non-zero status, a positive one too.
  EXPECT_EQ(kBusError, vintfMove(0, 0, 2, 1, dig, 2, 0, 3, 1, 0x10000000, 2, 10));
  EXPECT_EQ((Words{1, 1, 0, 0}), traffic());
  faults([](auto& f) { f.statusCode = 5, f.forcedStatus = 1; });
  EXPECT_EQ(1, vintfMove(0, 0, 0, 0, host(&fill), 2, 0, 3, 1, mem, 2, 4));
  EXPECT_EQ((Words{0, 1, 0, 0}), traffic());

  // Memory to memory: widths converted, no traffic; a fixed source repeats.
  uint32_t s32[3] = {0x11112222, 0x33334444, 0x55556666};
  uint16_t d16[3] = {};
  EXPECT_EQ(0, vintfMove(0, 0, 0, 1, host(s32), 4, 0, 0, 1, host(d16), 2, 3));
  EXPECT_EQ((std::vector<uint16_t>{0x2222, 0x4444, 0x6666}), std::vector<uint16_t>(d16, d16 + 3));
  uint8_t one = 0x7F;
  uint32_t d32[3] = {};
  EXPECT_EQ(0, vintfMove(0, 0, 0, 0, host(&one), 1, 0, 0, 1, host(d32), 4, 3));
  EXPECT_EQ(0x7Fu, d32[2]);
  EXPECT_TRUE(sim().receivedCommands().empty());
}

using Hostile = Blocks;

// The bridge takes at most 1000 elements per chunk: the move goes on from there.
TEST_F(Hostile, PartialChunksAdvanceByWhatTheBridgeTook) {
  answer([](const Bytes& c) -> std::optional<Bytes> {
    const uint32_t take = std::min<uint32_t>(word(c, 3), 1000);
    Bytes a = bytesOf({0, take});
    if ((word(c, 0) & 0xFF) == 8) return a;
    for (uint32_t i = 0; i < take; i++) {
      Bytes e = bytesOf({(uint32_t)word(c, 2) + 4 * i});  // each element holds its address
      a.insert(a.end(), e.begin(), e.end());
    }
    a.resize(a.size() + 4, 0);  // the trailer
    return a;
  });
  std::vector<ViUInt32> data(4500, 7);
  ASSERT_EQ(0, vintfMoveOut32(0, 0, 3, 1, 0x4000, 4500, data.data()));
  auto c = sim().receivedCommands();
  ASSERT_EQ(5u, c.size());
  EXPECT_EQ(4500u, word(c[0], 3));
  EXPECT_EQ(0x4000u + 4000u * 4, word(c[4], 2));
  EXPECT_EQ(500u, word(c[4], 3));
  EXPECT_EQ(16u + 500u * 4, c[4].size()) << "only the elements not yet taken go out again";

  std::vector<ViUInt32> back(4500);
  ASSERT_EQ(0, vintfMoveIn32(0, 0, 3, 1, 0x4000, 4500, back.data()));
  for (size_t k = 0; k < back.size(); k++) ASSERT_EQ(0x4000u + 4 * k, back[k]) << k;
}

// Three chunks in a row with nothing taken end the move, which would otherwise
// never end.  System-state bits beyond the two defined ones are dropped.
TEST_F(Hostile, NothingTakenEndsTheMoveAndUnknownStateBitsAreDropped) {
  ViUInt16 h[10] = {};
  for (bool out : {true, false}) {
    sim().clearReceived();
    const Bytes none = out ? bytesOf({0, 0}) : bytesOf({0, 0, 0});  // a read's answer carries its trailer
    answer([none](const Bytes&) -> std::optional<Bytes> { return none; });
    EXPECT_EQ(VI_ERROR_IO, out ? vintfMoveOut16(0, 0, 2, 1, 0, 10, h) : vintfMoveIn16(0, 0, 2, 1, 0, 10, h));
    EXPECT_EQ(3u, sim().receivedCommands().size());
  }
  for (auto [bits, expect] : {std::pair{7, 3}, {1, 1}, {-2, 2}, {4, 0}}) {
    answer([b = bits](const Bytes&) -> std::optional<Bytes> { return bytesOf({0, (uint32_t)b}); });
    ViInt16 v = 0x55;
    EXPECT_EQ(0, vintfGetSysState(0, &v)) << bits;
    EXPECT_EQ(expect, v) << bits;
  }
}

// Block-read answers of every shape, one after the other on one connection:
// status, count and the bytes that reach the caller (8 of D08 asked for).
TEST_F(Hostile, BlockReadAnswersOfAnyShapeGiveTheSameResults) {
  auto bytes = [](std::initializer_list<uint32_t> w, const char* data, size_t n, std::initializer_list<uint32_t> tail) {
    Bytes b = bytesOf(w);
    b.insert(b.end(), data, data + n);
    Bytes t = bytesOf(tail);
    b.insert(b.end(), t.begin(), t.end());
    return b;
  };
  struct Case { const char* what; Bytes answer; ViStatus status; ViInt32 count; std::string data; };
  const Case cases[] = {
      {"whole words, trailer", bytes({0, 5}, "abcde\0\0\0", 8, {7}), 7, 5, "abcde"},
      {"positive status, no trailer", bytes({1, 2}, "xy\0\0", 4, {}), 1, 2, "xy"},
      {"fewer bytes than counted", bytes({0, 8}, "abcd", 4, {}), VI_ERROR_IO, 4, "abcd"},
      {"longer than asked for, no trailer", bytes({0, 100}, "abcdefghijklmnop", 16, {}), VI_ERROR_IO, 8, "abcdefgh"},
      {"length not whole words", bytes({1, 2}, "xy", 2, {}), 1, 2, "xy"},
      {"longer than asked for", bytes({0, 2}, "pq\0\0", 4, {0, 1, 2, 3, 4}), 0, 2, "pq"},
      {"error status alone", bytesOf({0xBFFF0038u}), (ViStatus)0xBFFF0038u, -1, ""},
      {"status cut short", Bytes{1, 0}, 1, 0, ""},
      {"whole words again", bytes({0, 3}, "klm\0", 4, {0}), 0, 3, "klm"},
  };
  for (const Case& k : cases) {
    answer([a = k.answer](const Bytes&) -> std::optional<Bytes> { return a; });
    sVxiCmd_INBUFq cmd = {7u | 0x00400000u | 0x00080000u, 12, 0x100, 8};
    char buf[12];
    memset(buf, 'Z', sizeof buf);
    ViInt32 count = -1;
    EXPECT_EQ(k.status, intfWriteCmdReadBuf(&Interfaces[0], &cmd, buf, 8, &count)) << k.what;
    EXPECT_EQ(k.count, count) << k.what;
    EXPECT_EQ(k.data + std::string(sizeof buf - k.data.size(), 'Z'), std::string(buf, sizeof buf)) << k.what;
  }
}
