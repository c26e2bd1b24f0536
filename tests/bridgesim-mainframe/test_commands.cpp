// Command decoding, the lock rule, system commands, interrupts, the resource
// text and the fault switches where the driver's tests do not reach them.
#include <thread>

#include "bsim.h"
#include "TcpVxiAPIint.h"
#include "inifile.h"

using namespace bsim;
using bridgesim::HostId;

TEST(BridgeLock, FirstHostOwnsTheBridgeUntilItsLastLockingConnectionCloses) {
  Rig r;
  HostId a1{0x0100007F, 11}, a2{0x0100007F, 12}, b{0x0200007F, 21};
  // before anyone locks, every host is served
  EXPECT_EQ(0u, word(r.cmd(words({3, 0}), b), 0));
  EXPECT_EQ(0u, word(r.cmd(words({1, 1000}), a1), 0));
  EXPECT_EQ(0u, word(r.cmd(words({1, 1000}), a2), 0)) << "a second process on the same host";
  EXPECT_EQ(kLocked, word(r.cmd(words({1, 1000}), b), 0));
  EXPECT_EQ(words({kLocked, 0}), r.cmd(words({4 | A16 | D16, 0, cfg(0, 0)}), b)) << "a refused read's shape";
  EXPECT_EQ(kLocked, word(r.cmd(words({16, 0}), b), 0));
  r.b.hostDisconnected(b);  // a stranger leaving changes nothing
  r.b.hostDisconnected(a1);
  EXPECT_EQ(kLocked, word(r.cmd(words({1, 1000}), b), 0));
  r.b.hostDisconnected(a2);
  EXPECT_EQ(0u, word(r.cmd(words({1, 1000}), b), 0));
  EXPECT_EQ(kLocked, word(r.cmd(words({1, 1000}), a1), 0));
}

TEST(BridgeCommands, ResetAndSystemState) {
  Rig r;
  EXPECT_EQ(words({0, 1}), r.cmd({3, 0})) << "configured, no SYSFAIL";
  // a reset puts the configuration registers back and re-enables the windows
  EXPECT_EQ(0u, r.write(A16, D16, cfg(8, 6), 0x1234));
  EXPECT_EQ(0u, r.st({2, 0}));
  EXPECT_EQ(Read(0, 0x2000), r.read(A16, D16, cfg(8, 6))) << "the resource manager placed the digitizer again";
  EXPECT_TRUE(r.read(A16, D16, cfg(8, 4)).second & 0x8000u) << "window enabled";
}

TEST(BridgeCommands, MalformedCommandsGetNegativeStatusOfTheRightShape) {
  Rig r;
  EXPECT_EQ(words({kIo}), r.cmd(std::vector<uint8_t>{}));
  EXPECT_EQ(kIo, word(r.cmd(std::vector<uint8_t>{4, 0, 0}), 0));
  for (uint32_t code : {0u, 9u, 10u, 11u, 18u, 0xFFu}) EXPECT_EQ(kNsup, r.st({code, 0})) << code;
  // truncated records
  EXPECT_EQ(kIo, r.st({4 | A16 | D16, 0}));
  EXPECT_EQ(kIo, r.st({5 | A16 | D16, 0, cfg(0, 0x10)}));
  EXPECT_EQ(kIo, r.st({7 | A24 | D16 | INC, 0, 0x200000}));
  EXPECT_EQ(words({kIo, 0}), r.cmd({8 | A24 | D16 | INC, 0, 0x200000, 4, 0x11112222})) << "4 elements, 2 present";
  EXPECT_EQ(kIo, r.st({17, 0}));
  EXPECT_EQ(kIo, r.st({12 | 16 << 8, 1}));
  EXPECT_EQ(kIo, r.st({13 | 16 << 8, 1, 300, 0}));  // more than 256 bytes
  EXPECT_EQ(kIo, r.st({13 | 16 << 8, 1, 9, 0x41414141}));  // 9 announced, 4 present
  // width and space must each be exactly one
  EXPECT_EQ(kNsup, r.st({4 | A16, 0, cfg(0, 0)}));
  EXPECT_EQ(kNsup, r.st({4 | A16 | D08 | D16, 0, cfg(0, 0)}));
  EXPECT_EQ(kSpace, r.st({4 | D16, 0, cfg(0, 0)}));
  EXPECT_EQ(kSpace, r.st({4 | A16 | A24 | D16, 0, cfg(0, 0)}));
  EXPECT_EQ(words({kSpace, 0, kSpace}), r.cmd({7 | D16, 0, 0, 4}));
  // code 14 without anything to send or read
  EXPECT_EQ(kNsup, r.st({14 | 16 << 8, 1, 0xFFFF}));
  EXPECT_EQ(kNsup, r.st({14 | 16 << 8 | 0x0C000000, 1, 0xFFFF}));
}

// An address nobody holds falls back to line 1 with the status/ID passed whole.
TEST(BridgeCommands, TestInterruptFromAnEmptyAddress) {
  Rig r;
  EXPECT_EQ(words({0}), r.cmd({17, 0, 0x12345677}));
  EXPECT_EQ(std::vector<std::vector<uint8_t>>{words({1, 1, 1, 0x12345677})}, r.takeReports());
}

// The driver reads these keys without checking that they are there (a missing
// one silently keeps the previous value), so every section must hold them all.
TEST(BridgeResources, TextListsEveryDeviceWithEveryKeyTheDriverReads) {
  Rig r;
  auto a = r.cmd({16, 0});
  EXPECT_EQ(0u, word(a, 0));
  std::string text(a.begin() + std::min<size_t>(4, a.size()), a.end());
  EXPECT_EQ(r.b.resourceText(), text);
  EXPECT_EQ(std::string::npos, text.find('\0'));
  IniText t = Ini_New(1);
  ASSERT_NE(nullptr, t);
  sLineTextInput src{(const unsigned char*)text.c_str(), 0};
  Ini_ReadGeneric(t, Ini_LineTextInputFunction, &src);
  int n = 0;
  ASSERT_EQ(1, Ini_GetInt(t, "COMMON", "NumInstr", &n));
  ASSERT_EQ(6, n);
  const char* keys[] = {"INTF_NUM", "VXI_LA", "MAINFRAME_LA", "MANF_ID", "MODEL_CODE", "SLOT", "VXI_DEV_CLASS",
                        "offsetA16", "offsetA24", "offsetA32", "sizeA16", "sizeA24", "sizeA32"};
  for (int i = 1; i <= n; ++i) {
    std::string sec = "INSTR" + std::to_string(i);
    for (const char* k : keys) {
      unsigned v = 0;
      EXPECT_EQ(1, Ini_GetUInt(t, sec.c_str(), k, &v)) << sec << " " << k;
    }
    char name[64] = {};
    EXPECT_EQ(1, Ini_GetStringIntoBuffer(t, sec.c_str(), "RSRC_NAME", name, 63)) << sec;
  }
  Ini_Dispose(t);
}

// Switches the end-to-end tests do not use: every code at once, a forced block read's shape.
TEST(BridgeFaults, ForcedStatusOnEveryCodeKeepsTheAnswersShape) {
  Rig r;
  bridgesim::CommandFaults f;
  f.statusCode = -1;
  f.forcedStatus = int32_t(kIo);
  r.b.setFaults(f);
  EXPECT_EQ(kIo, r.st({3, 0}));
  EXPECT_EQ(words({kIo, 0, kIo}), r.cmd({7 | A24 | D16 | INC, 0, 0x200000, 4}));
  f = {};
  f.inflateCode = 7;
  r.b.setFaults(f);
  auto inf = r.cmd({7 | A24 | D16 | INC, 0, 0x200000, 3});
  ASSERT_EQ(8u + 8u + 4u, inf.size()) << "the claimed count's data and the trailer follow";
  EXPECT_EQ(words({0, 4}), std::vector<uint8_t>(inf.begin(), inf.begin() + 8));
}

TEST(BridgeConcurrency, SessionsWorkInParallelWithoutDisturbingEachOther) {
  Rig r;
  std::vector<std::thread> th;
  std::atomic<int> bad{0};
  for (uint32_t k = 0; k < 4; ++k)
    th.emplace_back([&, k] {
      HostId h{0x0100007F, 100 + k};
      uint32_t base = 0x20000000 + k * 0x1000;  // the memory card's A32 window
      for (uint32_t i = 0; i < 300; ++i) {
        std::vector<uint8_t> c = words({8 | A32 | D32 | INC, 10, base, 4, i, i + 1, i + 2, i + 3});
        if (word(r.cmd(c, h), 0) != 0) ++bad;
        auto a = r.cmd(words({7 | A32 | D32 | INC, 10, base, 4}), h);
        if (word(a, 0) != 0 || word(a, 1) != 4 || word(a, 2) != i || word(a, 5) != i + 3) ++bad;
        if (k == 0) r.wsWrite(16, "*STB?\n");
        if (k == 1) r.cmd(words({17, 0, 0x0100 | i}), h);
      }
    });
  for (auto& t : th) t.join();
  EXPECT_EQ(0, bad.load());
  size_t pairs = 0;  // reports raised together may share one message
  for (auto& rep : r.takeReports()) pairs += word(rep, 1);
  EXPECT_EQ(300u, pairs);
}
