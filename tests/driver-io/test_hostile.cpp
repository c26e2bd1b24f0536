// Answers that a well-behaved bridge (and so the simulated one) never gives:
// block chunks that take only part of their elements or none at all, and
// system-state words with bits beyond the two the driver knows.
#include <gtest/gtest.h>

#include <memory>

#include "HiSLIPcommands.h"
#include "TcpVxiAPI.h"
#include "fake_bridge.h"

namespace {

uint32_t W(const fb::Bytes& b, size_t i) { return b.size() >= 4 * (i + 1) ? fb::rd32(&b[4 * i]) : 0; }

// One interface (number 0) connected by hand to the fake.
class DriverHostile : public ::testing::Test {
 protected:
  void SetUp() override {
    srv = std::make_unique<fb::Server>();
    ASSERT_TRUE(srv->ok());
    block = (SHAREDMEMINTF*)calloc(1, sizeof(SHAREDMEMINTF));
    tcpvxiGD = block;
    ASSERT_EQ(0, util_mutex_open(TCPVXI_MUTEX_NAME, &hMutexTcpVxiRM));
    Interfaces[0].GIntf = &block->Intf[0];
    ASSERT_EQ(0, kvtcp_hislip_Connect(&Interfaces[0].kvtcp, "127.0.0.1", "inst0"));
    ASSERT_EQ(0, LockToIPAddr(&Interfaces[0]));
    srv->clearCommands();
  }
  void TearDown() override {
    kvtcp_Close(&Interfaces[0].kvtcp);
    srv.reset();
    util_mutex_close(TCPVXI_MUTEX_NAME, &hMutexTcpVxiRM);
    tcpvxiGD = nullptr;
    free(block);
  }
  void answer(std::function<std::optional<fb::Bytes>(const fb::Bytes&)> f) {
    srv->with([&](fb::Model& m) { m.answer = std::move(f); });
  }
  std::unique_ptr<fb::Server> srv;
  SHAREDMEMINTF* block = nullptr;
};

}  // namespace

// The bridge takes at most 1000 elements per chunk: the move goes on from
// where the bridge stopped, in both directions.
TEST_F(DriverHostile, PartialChunksAdvanceByWhatTheBridgeTook) {
  answer([](const fb::Bytes& c) -> std::optional<fb::Bytes> {
    const uint32_t take = std::min<uint32_t>(W(c, 3), 1000);
    if ((W(c, 0) & 0xFF) == 8) return fb::words({0, take});
    fb::Bytes a = fb::words({0, take});
    for (uint32_t i = 0; i < take; i++) fb::put32(a, W(c, 2) + 4 * i);  // each element holds its address
    fb::put32(a, 0);
    return a;
  });
  std::vector<ViUInt32> data(4500, 7);
  ASSERT_EQ(0, vintfMoveOut32(0, 0, 3, 1, 0x4000, 4500, data.data()));
  auto c = srv->receivedCommands();
  ASSERT_EQ(5u, c.size());
  EXPECT_EQ(4500u, W(c[0], 3));
  EXPECT_EQ(0x4000u + 4000u * 4, W(c[4], 2));
  EXPECT_EQ(500u, W(c[4], 3));
  EXPECT_EQ(16u + 500u * 4, c[4].size()) << "only the elements not yet taken go out again";

  std::vector<ViUInt32> back(4500);
  ASSERT_EQ(0, vintfMoveIn32(0, 0, 3, 1, 0x4000, 4500, back.data()));
  for (size_t k = 0; k < back.size(); k++) ASSERT_EQ(0x4000u + 4 * k, back[k]) << k;
}

// A good status with no element taken would keep a move going for ever: after
// three such chunks in a row the move ends with an error.
TEST_F(DriverHostile, ABridgeThatTakesNothingEndsTheMoveWithAnError) {
  ViUInt16 h[10] = {};
  answer([](const fb::Bytes&) -> std::optional<fb::Bytes> { return fb::words({0, 0}); });
  EXPECT_EQ(VI_ERROR_IO, vintfMoveOut16(0, 0, 2, 1, 0, 10, h));
  EXPECT_EQ(3u, srv->receivedCommands().size());
  srv->clearCommands();
  answer([](const fb::Bytes&) -> std::optional<fb::Bytes> { return fb::words({0, 0, 0}); });
  EXPECT_EQ(VI_ERROR_IO, vintfMoveIn16(0, 0, 2, 1, 0, 10, h));
  EXPECT_EQ(3u, srv->receivedCommands().size());
}

TEST_F(DriverHostile, SystemStateKeepsOnlyTheTwoDefinedBits) {
  for (auto [bits, expect] : {std::pair{7, 3}, {1, 1}, {-2, 2}, {4, 0}}) {
    answer([b = bits](const fb::Bytes&) -> std::optional<fb::Bytes> { return fb::words({0, (uint32_t)b}); });
    ViInt16 v = 0x55;
    EXPECT_EQ(0, vintfGetSysState(0, &v)) << bits;
    EXPECT_EQ(expect, v) << bits;
  }
  EXPECT_EQ(3u, W(srv->receivedCommands().at(0), 0));
}

// Block-read answers of every shape, well-formed or not, each followed on the
// same connection by the next: the status, the element count and the bytes
// that reach the caller's memory (8 bytes of D08 asked for; the rest of the
// buffer must stay untouched).
TEST_F(DriverHostile, BlockReadAnswersOfAnyShapeGiveTheSameResults) {
  auto bytes = [](std::initializer_list<uint32_t> w, const char* data, size_t n, std::initializer_list<uint32_t> tail) {
    fb::Bytes b = fb::words(w);
    b.insert(b.end(), data, data + n);
    for (uint32_t t : tail) fb::put32(b, t);
    return b;
  };
  struct Case {
    const char* what;
    fb::Bytes answer;
    ViStatus status;
    ViInt32 count;
    std::string data;
  };
  const Case cases[] = {
      {"whole words, trailer", bytes({0, 5}, "abcde\0\0\0", 8, {7}), 7, 5, "abcde"},
      {"positive status, no trailer", bytes({1, 2}, "xy\0\0", 4, {}), 1, 2, "xy"},
      {"fewer bytes than counted", bytes({0, 8}, "abcd", 4, {}), VI_ERROR_IO, 4, "abcd"},
      {"length not whole words", bytes({1, 2}, "xy", 2, {}), 1, 2, "xy"},
      {"longer than asked for", bytes({0, 2}, "pq\0\0", 4, {0, 1, 2, 3, 4}), 0, 2, "pq"},
      {"error status alone", fb::words({0xBFFF0038u}), (ViStatus)0xBFFF0038u, -1, ""},
      {"status cut short", fb::Bytes{1, 0}, 1, 0, ""},
      {"whole words again", bytes({0, 3}, "klm\0", 4, {0}), 0, 3, "klm"},
  };
  for (const Case& k : cases) {
    answer([a = k.answer](const fb::Bytes&) -> std::optional<fb::Bytes> { return a; });
    sVxiCmd_INBUFq cmd = {7u | 0x00400000u | 0x00080000u, 12, 0x100, 8};
    char buf[12];
    memset(buf, 'Z', sizeof buf);
    ViInt32 count = -1;
    EXPECT_EQ(k.status, intfWriteCmdReadBuf(&Interfaces[0], &cmd, buf, 8, &count)) << k.what;
    EXPECT_EQ(k.count, count) << k.what;
    EXPECT_EQ(k.data + std::string(sizeof buf - k.data.size(), 'Z'), std::string(buf, sizeof buf)) << k.what;
  }
}
