// Answers that a well-behaved bridge never gives, scripted into the simulated
// bridge: block chunks that take only part of their elements or none at all,
// and system-state words with bits beyond the two the driver knows.
#include "simhost.h"

using namespace sh;

namespace {

using Bytes = std::vector<uint8_t>;
using Script = std::function<std::optional<Bytes>(const Bytes&)>;

Bytes words(std::initializer_list<uint32_t> ws) {
  Bytes b;
  for (uint32_t w : ws)
    for (int i = 0; i < 4; i++) b.push_back((uint8_t)(w >> (8 * i)));
  return b;
}

class Hostile : public SimHost {
 protected:
  void answer(Script f) {
    faults([&](bridgesim::CommandFaults& c) {
      c.answer = [f](const uint8_t* cmd, size_t len) { return f(Bytes(cmd, cmd + len)); };
    });
  }
};

}  // namespace

// The bridge takes at most 1000 elements per chunk: the move goes on from
// where the bridge stopped, in both directions.
TEST_F(Hostile, PartialChunksAdvanceByWhatTheBridgeTook) {
  answer([](const Bytes& c) -> std::optional<Bytes> {
    const uint32_t take = std::min<uint32_t>(word(c, 3), 1000);
    Bytes a = words({0, take});
    if ((word(c, 0) & 0xFF) == 8) return a;
    for (uint32_t i = 0; i < take; i++) {
      Bytes e = words({(uint32_t)word(c, 2) + 4 * i});  // each element holds its address
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

// A good status with no element taken would keep a move going for ever: after
// three such chunks in a row the move ends with an error.  System-state bits
// beyond the two defined ones are dropped.
TEST_F(Hostile, NothingTakenEndsTheMoveAndUnknownStateBitsAreDropped) {
  ViUInt16 h[10] = {};
  for (bool out : {true, false}) {
    sim().clearReceived();
    const Bytes none = out ? words({0, 0}) : words({0, 0, 0});  // a read's answer carries its trailer
    answer([none](const Bytes&) -> std::optional<Bytes> { return none; });
    EXPECT_EQ(VI_ERROR_IO, out ? vintfMoveOut16(0, 0, 2, 1, 0, 10, h) : vintfMoveIn16(0, 0, 2, 1, 0, 10, h));
    EXPECT_EQ(3u, sim().receivedCommands().size());
  }
  for (auto [bits, expect] : {std::pair{7, 3}, {1, 1}, {-2, 2}, {4, 0}}) {
    answer([b = bits](const Bytes&) -> std::optional<Bytes> { return words({0, (uint32_t)b}); });
    ViInt16 v = 0x55;
    EXPECT_EQ(0, vintfGetSysState(0, &v)) << bits;
    EXPECT_EQ(expect, v) << bits;
  }
}

// Block-read answers of every shape, well-formed or not, each followed on the
// same connection by the next: the status, the element count and the bytes
// that reach the caller's memory (8 bytes of D08 asked for; the rest of the
// buffer must stay untouched).
TEST_F(Hostile, BlockReadAnswersOfAnyShapeGiveTheSameResults) {
  auto bytes = [](std::initializer_list<uint32_t> w, const char* data, size_t n, std::initializer_list<uint32_t> tail) {
    Bytes b = words(w);
    b.insert(b.end(), data, data + n);
    Bytes t = words(tail);
    b.insert(b.end(), t.begin(), t.end());
    return b;
  };
  struct Case {
    const char* what;
    Bytes answer;
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
      {"error status alone", words({0xBFFF0038u}), (ViStatus)0xBFFF0038u, -1, ""},
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
