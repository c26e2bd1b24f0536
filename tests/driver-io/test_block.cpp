// Block moves: chunk sizes and bridge time-outs, data integrity in both
// directions (incrementing and FIFO), swaps, failures mid-transfer, and the
// paths of the general move.
#include <random>

#include "fixture.h"

namespace {

template <class T>
std::vector<T> randomData(size_t n, unsigned seed) {
  std::mt19937 g(seed);
  std::vector<T> v(n);
  for (auto& x : v) x = (T)g();
  return v;
}

}  // namespace

TEST_F(DriverIo, MoveOut32ChunksAndTimeOutsAndDataArrive) {
  auto data = randomData<ViUInt32>(20000, 1);
  ASSERT_EQ(0, vintfMoveOut32(0, 0, 3, 1, 0x100000, 20000, data.data()));
  auto c = cmds();
  ASSERT_EQ(2u, c.size());
  EXPECT_EQ(8u | 0x01000000u | 0x00100000u | 0x00010000u | 0x08000000u, W(c[0], 0));
  EXPECT_EQ(4105u, W(c[0], 1));
  EXPECT_EQ(0x100000u, W(c[0], 2));
  EXPECT_EQ(16380u, W(c[0], 3));
  EXPECT_EQ(16u + 65520u, c[0].size());
  EXPECT_EQ(915u, W(c[1], 1));
  EXPECT_EQ(0x100000u + 16380u * 4, W(c[1], 2));
  EXPECT_EQ(3620u, W(c[1], 3));
  EXPECT_EQ(16u + 3620u * 4, c[1].size());

  std::vector<ViUInt32> back(20000);
  ASSERT_EQ(0, vintfMoveIn32(0, 0, 3, 1, 0x100000, 20000, back.data()));
  EXPECT_EQ(data, back);
}

TEST_F(DriverIo, MoveIn8ChunksWithTheEightBitTimeOut) {
  auto data = randomData<ViUInt8>(100000, 2);
  ASSERT_EQ(0, vintfMoveOut8(0, 1, 2, 1, 0x10000, 100000, data.data()));
  srv->clearCommands();
  std::vector<ViUInt8> back(100000);
  ASSERT_EQ(0, vintfMoveIn8(0, 1, 2, 1, 0x10000, 100000, back.data()));
  auto c = cmds();
  ASSERT_EQ(2u, c.size());
  EXPECT_EQ(7u | 0x00400000u | 0x00080000u | 0x08000000u, W(c[0], 0));
  EXPECT_EQ(65520u, W(c[0], 3));
  EXPECT_EQ(6552u, W(c[0], 1));
  EXPECT_EQ(34480u, W(c[1], 3));
  EXPECT_EQ(3448u, W(c[1], 1));
  EXPECT_EQ(0x10000u + 65520u, W(c[1], 2));
  EXPECT_EQ(data, back);
}

TEST_F(DriverIo, ZeroCountSendsNothing) {
  ViUInt32 w = 0;
  EXPECT_EQ(0, vintfMoveIn32(0, 0x80000000u, 2, 1, 0, 0, &w));
  EXPECT_EQ(0, vintfMoveOut16(0, 0x80000000u, 2, 1, 0, 0, nullptr));
  EXPECT_EQ(0, vintfMoveOut8(0, 0, 2, 1, 0, 0x100000000ull, nullptr));  // low 32 bits: 0
  EXPECT_TRUE(cmds().empty());
}

TEST_F(DriverIo, SwappedMoveInShiftsByOneElementAndLeavesTheLast) {
  srv->with([](fb::Model& m) {
    m.store(2, 0x0, 2, 0x1122);
    m.store(2, 0x2, 2, 0x3344);
    m.store(2, 0x100, 4, 0x11223344);
    m.store(2, 0x104, 4, 0x55667788);
    m.store(2, 0x108, 4, 0x99AABBCC);
  });
  ViUInt16 h[2] = {};
  EXPECT_EQ(0, vintfMoveIn16(0, 0x80000000u, 2, 1, 0, 2, h));
  EXPECT_EQ(0x4433, h[0]);
  EXPECT_EQ(0x3344, h[1]);
  ViUInt32 w[3] = {};
  EXPECT_EQ(0, vintfMoveIn32(0, 0x80000000u, 2, 1, 0x100, 3, w));
  EXPECT_EQ(0x88776655u, w[0]);
  EXPECT_EQ(0xCCBBAA99u, w[1]);
  EXPECT_EQ(0x99AABBCCu, w[2]);
}

TEST_F(DriverIo, SwappedMoveOutSendsASwappedCopy) {
  ViUInt16 h[3] = {0x1122, 0x3344, 0x5566};
  EXPECT_EQ(0, vintfMoveOut16(0, 0x80000000u, 2, 1, 0x40, 3, h));
  EXPECT_EQ(0x1122, h[0]);  // the caller's buffer is untouched
  EXPECT_EQ(0x2211u, srv->with([](fb::Model& m) { return m.load(2, 0x40, 2); }));
  EXPECT_EQ(0x6655u, srv->with([](fb::Model& m) { return m.load(2, 0x44, 2); }));
  ViUInt32 w[2] = {0x11223344, 0xA0B0C0D0};
  EXPECT_EQ(0, vintfMoveOut32(0, 0x80000000u, 2, 1, 0x80, 2, w));
  EXPECT_EQ(0xD0C0B0A0u, srv->with([](fb::Model& m) { return m.load(2, 0x84, 4); }));
}

TEST_F(DriverIo, PartialChunksAdvanceByWhatTheBridgeTook) {
  srv->with([](fb::Model& m) { m.maxTake = 1000; });
  auto data = randomData<ViUInt32>(4500, 4);
  ASSERT_EQ(0, vintfMoveOut32(0, 0, 3, 1, 0x4000, 4500, data.data()));
  auto c = cmds();
  ASSERT_EQ(5u, c.size());
  EXPECT_EQ(4500u, W(c[0], 3));
  EXPECT_EQ(0x4000u + 4000u * 4, W(c[4], 2));
  EXPECT_EQ(500u, W(c[4], 3));
  std::vector<ViUInt32> back(4500);
  ASSERT_EQ(0, vintfMoveIn32(0, 0, 3, 1, 0x4000, 4500, back.data()));
  EXPECT_EQ(data, back);
}

TEST_F(DriverIo, ABridgeThatTakesNothingEndsTheMoveWithAnError) {
  srv->with([](fb::Model& m) {
    m.answer = [](const fb::Bytes&) -> std::optional<fb::Bytes> { return answerOf({0, 0}); };
  });
  ViUInt16 h[10] = {};
  EXPECT_EQ(VI_ERROR_IO, vintfMoveOut16(0, 0, 2, 1, 0, 10, h));
  EXPECT_EQ(3u, cmds().size());
  srv->clearCommands();
  srv->with([](fb::Model& m) {
    m.answer = [](const fb::Bytes&) -> std::optional<fb::Bytes> { return answerOf({0, 0, 0}); };
  });
  EXPECT_EQ(VI_ERROR_IO, vintfMoveIn16(0, 0, 2, 1, 0, 10, h));
  EXPECT_EQ(3u, cmds().size());
}

TEST_F(DriverIo, NegativeChunkStatusStopsTheMove) {
  int n = 0;
  srv->with([&n](fb::Model& m) {
    m.answer = [&n](const fb::Bytes& c) -> std::optional<fb::Bytes> {
      if (++n == 2) return answerOf({0xBFFF003Eu, 0});
      return answerOf({0, W(c, 3)});
    };
  });
  std::vector<ViUInt8> d(200000);
  EXPECT_EQ((ViStatus)0xBFFF003E, vintfMoveOut8(0, 0, 2, 1, 0, d.size(), d.data()));
  EXPECT_EQ(2u, cmds().size());
}

TEST_F(DriverIo, MoveBetweenMemoryConvertsWidthsWithoutTraffic) {
  ViUInt32 src[3] = {0x11112222, 0x33334444, 0x55556666};
  ViUInt16 dst[3] = {};
  EXPECT_EQ(0, vintfMove(0, 0, 0, 1, (ViBusAddress)(uintptr_t)src, 4, 0, 0, 1, (ViBusAddress)(uintptr_t)dst, 2, 3));
  EXPECT_EQ(0x2222, dst[0]);
  EXPECT_EQ(0x6666, dst[2]);
  // A source that does not increment repeats its one element.
  ViUInt8 one = 0x7F;
  ViUInt32 wide[3] = {};
  EXPECT_EQ(0, vintfMove(0, 0, 0, 0, (ViBusAddress)(uintptr_t)&one, 1, 0, 0, 1, (ViBusAddress)(uintptr_t)wide, 4, 3));
  EXPECT_EQ(0x7Fu, wide[2]);
  EXPECT_TRUE(cmds().empty());
}

TEST_F(DriverIo, ElementwiseMoveStopsAtTheFirstNonZeroStatus) {
  srv->with([](fb::Model& m) {
    m.answer = [](const fb::Bytes&) -> std::optional<fb::Bytes> { return answerOf({1}); };
  });
  ViUInt16 src[4] = {};
  EXPECT_EQ(1, vintfMove(0, 0, 0, 0, (ViBusAddress)(uintptr_t)src, 2, 0, 2, 1, 0, 2, 4));
  EXPECT_EQ(1u, cmds().size());
}
