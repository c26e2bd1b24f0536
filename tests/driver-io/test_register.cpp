// Single register reads and writes: the command words the bridge receives,
// byte swaps, the interface and argument checks.
#include "fixture.h"

namespace {

// The bits every space and privilege must put on the wire (written out here
// rather than taken from the driver's tables, so a wrong table shows).
const uint32_t kSpace[4] = {0, 0x00040000, 0x00080000, 0x00100000};
const uint32_t kPriv[8] = {0x00010000, 0, 0x00030000, 0x00020000, 0x04010000, 0x04000000, 0x00010000, 0};

}  // namespace

TEST_F(DriverIo, In16SwappedPrivilegedA24SendsDocumentedWordAndSwaps) {
  srv->with([](fb::Model& m) { m.store(2, 0x10, 2, 0x1234); });
  ViUInt16 v = 0;
  // Only the low 32 bits of the offset reach the bridge.
  EXPECT_EQ(0, vintfIn16(0, 0x80000001u, 2, 0x100000010ull, &v));
  EXPECT_EQ(0x3412, v);
  auto c = cmds();
  ASSERT_EQ(1u, c.size());
  ASSERT_EQ(12u, c[0].size());
  EXPECT_EQ(0x00880004u, W(c[0], 0));
  EXPECT_EQ(0x10u, W(c[0], 2));
}

TEST_F(DriverIo, CommandWordsForEveryWidthSpaceAndPrivilege) {
  for (ViUInt16 sp = 1; sp <= 3; sp++) {
    for (ViUInt32 pr = 0; pr < 8; pr++) {
      srv->clearCommands();
      ViUInt8 b;
      ViUInt16 h;
      ViUInt32 w;
      ASSERT_EQ(0, vintfIn8(0, pr, sp, 0x100, &b));
      ASSERT_EQ(0, vintfIn16(0, pr, sp, 0x100, &h));
      ASSERT_EQ(0, vintfIn32(0, pr, sp, 0x100, &w));
      ASSERT_EQ(0, vintfOut8(0, pr, sp, 0x100, 1));
      ASSERT_EQ(0, vintfOut16(0, pr, sp, 0x100, 2));
      ASSERT_EQ(0, vintfOut32(0, pr, sp, 0x100, 3));
      vintfPoke8(0, pr, sp, 0x100, 4);
      vintfPoke16(0, pr, sp, 0x100, 5);
      vintfPoke32(0, pr, sp, 0x100, 6);
      auto c = cmds();
      ASSERT_EQ(9u, c.size());
      uint32_t bits = kSpace[sp] | kPriv[pr];
      SCOPED_TRACE(testing::Message() << "space " << sp << " privilege " << pr);
      EXPECT_EQ(4u | 0x00400000u | bits, W(c[0], 0));
      EXPECT_EQ(4u | 0x00800000u | bits, W(c[1], 0));
      EXPECT_EQ(4u | 0x01000000u | bits, W(c[2], 0));
      // Out and the exported Pokes both send an ordinary write (code 5).
      for (int i : {3, 6}) EXPECT_EQ(5u | 0x00400000u | bits, W(c[i], 0));
      for (int i : {4, 7}) EXPECT_EQ(5u | 0x00800000u | bits, W(c[i], 0));
      for (int i : {5, 8}) EXPECT_EQ(5u | 0x01000000u | bits, W(c[i], 0));
      for (int i = 3; i < 9; i++) {
        ASSERT_EQ(16u, c[i].size());
        EXPECT_EQ(1000u, W(c[i], 1));
        EXPECT_EQ(0x100u, W(c[i], 2));
      }
      EXPECT_EQ(6u, W(c[8], 3));
    }
  }
}

TEST_F(DriverIo, PeekReadsThroughInAndPokeWrites) {
  srv->with([](fb::Model& m) { m.store(2, 0x40, 4, 0xCAFEF00D); });
  ViUInt32 w = 0;
  vintfPeek32(0, 0x80000000u, 2, 0x40, &w);
  EXPECT_EQ(0x0DF0FECAu, w);
  ViUInt16 h = 0;
  vintfPeek16(0, 0, 2, 0x40, &h);
  EXPECT_EQ(0xCAFE, h);
  vintfPoke16(0, 0x80000000u, 2, 0x50, 0x1234);
  EXPECT_EQ(0x3412u, srv->with([](fb::Model& m) { return m.load(2, 0x50, 2); }));
}

TEST_F(DriverIo, InterfaceAboveHighestIndexIsRefusedWithoutTraffic) {
  ViUInt16 h = 7;
  EXPECT_EQ(VI_ERROR_SYSTEM_ERROR, vintfIn16(1, 0, 2, 0, &h));
  EXPECT_EQ(7, h);
  EXPECT_EQ(VI_ERROR_SYSTEM_ERROR, vintfOut32(1, 0, 2, 0, 1));
  vintfPoke16(1, 0, 2, 0, 1);
  vintfPeek16(1, 0, 2, 0, &h);
  EXPECT_EQ(VI_ERROR_SYSTEM_ERROR, vintfMoveIn16(1, 0, 2, 1, 0, 4, &h));
  EXPECT_TRUE(cmds().empty());
  // The 16-bit number wraps: 65536 + 1 is interface 1, refused as well.
  EXPECT_EQ(VI_ERROR_SYSTEM_ERROR, vintfIn16((ViUInt16)(65536 + 1), 0, 2, 0, &h));
  EXPECT_TRUE(cmds().empty());
}

TEST_F(DriverIo, ArgumentsOutsideTheTablesAreRefused) {
  ViUInt16 h = 0;
  EXPECT_EQ((ViStatus)0xBFFF006E, vintfIn16(0, 0, 4, 0, &h));
  EXPECT_EQ((ViStatus)0xBFFF006E, vintfOut8(0, 0, 0xFFFF, 0, 1));
  EXPECT_EQ((ViStatus)0xBFFF0091, vintfIn16(0, 8, 2, 0, &h));
  EXPECT_EQ((ViStatus)0xBFFF0091, vintfMoveOut8(0, 0x80000001u, 2, 1, 0, 1, (ViUInt8*)&h));
  // The 8-bit Poke takes the whole mode as the privilege: with the swap bit
  // set it lies outside the table and nothing is sent.
  vintfPoke8(0, 0x80000001u, 2, 0, 1);
  EXPECT_TRUE(cmds().empty());
  vintfPoke8(0, 3, 2, 0, 1);
  auto c = cmds();
  ASSERT_EQ(1u, c.size());
  EXPECT_EQ(5u | 0x00400000u | 0x00080000u | 0x00020000u, W(c[0], 0));
}

TEST_F(DriverIo, FailedReadLeavesDestinationButStillSwaps) {
  srv->with([](fb::Model& m) {
    m.answer = [](const fb::Bytes&) -> std::optional<fb::Bytes> { return answerOf({0xBFFF003Eu, 0x9999}); };
  });
  ViUInt16 h = 0x1122;
  EXPECT_EQ((ViStatus)0xBFFF003E, vintfIn16(0, 0x80000000u, 2, 0, &h));
  EXPECT_EQ(0x2211, h);
  ViUInt32 w = 0x11223344;
  EXPECT_EQ((ViStatus)0xBFFF003E, vintfIn32(0, 0, 2, 0, &w));
  EXPECT_EQ(0x11223344u, w);
  // A positive status is a success for a read and is passed on by a write.
  srv->with([](fb::Model& m) {
    m.answer = [](const fb::Bytes& c) -> std::optional<fb::Bytes> {
      return (W(c, 0) & 0xFF) == 4 ? answerOf({5, 0x77}) : answerOf({5});
    };
  });
  EXPECT_EQ(0, vintfIn32(0, 0, 2, 0, &w));
  EXPECT_EQ(0x77u, w);
  EXPECT_EQ(5, vintfOut32(0, 0, 2, 0, 1));
  // An empty answer is a lost connection.
  srv->with([](fb::Model& m) {
    m.answer = [](const fb::Bytes&) -> std::optional<fb::Bytes> { return fb::Bytes{}; };
  });
  EXPECT_EQ(VI_ERROR_CONN_LOST, vintfIn32(0, 0, 2, 0, &w));
  EXPECT_EQ(0x77u, w);
}
