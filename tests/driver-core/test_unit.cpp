// The driver's core without a network: the line source over a bridge text,
// instruments from a parsed text, the attribute table, the event handler on
// a hand-filled record, and the interface-number discipline.
#include "drvcore.h"

using namespace dc;

namespace {

std::vector<std::string> lines(const std::string& text, int maxLen = 255) {
  std::vector<std::string> out;
  sLineTextInput src{(const unsigned char*)text.c_str(), 0};
  std::vector<char> buf(maxLen + 1);
  for (int guard = 0; guard < 1000; guard++) {
    int end = 0, num = -7;
    EXPECT_EQ(0, Ini_LineTextInputFunction(&src, buf.data(), maxLen, &end, &num));
    if (end) {
      EXPECT_EQ(0, num);
      EXPECT_EQ('\0', buf[0]);
      break;
    }
    EXPECT_EQ(-7, num) << "the line number is not set for a line that was read";
    out.emplace_back(buf.data());
  }
  return out;
}

}  // namespace

TEST(DrvLineSource, LinesBlanksTabsAndOverlongLines) {
  EXPECT_EQ((std::vector<std::string>{"[COMMON]", "NumInstr=1 "}), lines("\r\n  [COMMON]\r\n\n\n   NumInstr=1 \n"));
  EXPECT_TRUE(lines(" \t\r\n").empty());
  // A tab ends the line; the rest is a line of its own.
  EXPECT_EQ((std::vector<std::string>{"VXI_LA=", "24", "SLOT=3"}), lines("VXI_LA=\t24\nSLOT=3"));
  auto l = lines(std::string(300, 'a') + "\nnext", 255);
  EXPECT_EQ((std::vector<std::string>{std::string(255, 'a'), "next"}), l) << "cut, the rest dropped";
}

// ------------------------------------------------ instruments from a text

TEST(DrvInstruments, AttributeTableFromText) {
  std::string text = "[COMMON]\nNumInstr=2\n" + instr(1, "VXI0::0::INSTR", 0) +
                     "[INSTR2]\nINTF_NUM=7\nRSRC_NAME=VXI0::24::INSTR\nVXI_LA=24\nMAINFRAME_LA=0\n"
                     "MANF_ID=4095\nMODEL_CODE=1234\nSLOT=3\nVXI_DEV_CLASS=2\noffsetA16=49152\nsizeA16=64\n"
                     "offsetA24=2097152\nsizeA24=262144\noffsetA32=0\nsizeA32=0\n";
  IniText doc = parseText(text);
  SHAREDINTFINFO g{};
  EXPECT_EQ(2, drvReadInstruments(0, &g, doc));
  Ini_Dispose(doc);
  EXPECT_EQ(2, g.NInstr);
  EXPECT_EQ(7, g.intf_no) << "every accepted instrument overwrites the interface number";
  // The keys the simulated bridge's text cannot tell apart (the driver-sim
  // tests check the others against the simulated registers).
  const RmInstrInfo& r = g.Instr[1];
  EXPECT_EQ(10u, r.IdxAttr_RSRC_CLASS);
  EXPECT_EQ(3, r.attr_SLOT);
  EXPECT_EQ(49152, r.offsetA16);
  EXPECT_EQ(64, r.sizeA16);
  EXPECT_EQ(2u, r.attr_MEM_SPACE);
  EXPECT_EQ(2097152u, (uint64_t)r.attr_MEM_BASE);
  EXPECT_EQ(262144u, (uint64_t)r.attr_MEM_SIZE);
  EXPECT_EQ(1u, g.Instr[0].attr_MEM_SPACE) << "A16 when neither A24 nor A32 has a size";
  EXPECT_EQ(49152u, (uint64_t)g.Instr[0].attr_MEM_BASE);
  EXPECT_EQ(64u, (uint64_t)g.Instr[0].attr_MEM_SIZE);
}

// One instrument section with the given keys, read as discovery reads it.
static RmInstrInfo one(const std::string& keys, int* accepted = nullptr) {
  IniText doc = parseText("[COMMON]\nNumInstr=1\n[INSTR1]\n" + keys);
  SHAREDINTFINFO g{};
  int n = drvReadInstruments(0, &g, doc);
  Ini_Dispose(doc);
  if (accepted) *accepted = n;
  return g.Instr[0];
}

TEST(DrvInstruments, SpacesClassesAndMissingKeys) {
  // A24 wins over A32, A16 when neither has a size.
  const std::string head = "INTF_NUM=1\nRSRC_NAME=x\nVXI_LA=1\nMAINFRAME_LA=0\nMANF_ID=1\nMODEL_CODE=1\nSLOT=1\n"
                           "VXI_DEV_CLASS=1\noffsetA16=16\nsizeA16=0\noffsetA24=24\noffsetA32=32\n";
  struct Space { const char* sizes; int space, base; };
  for (const Space& c : {Space{"sizeA16=1\nsizeA24=100\nsizeA32=200\n", 2, 24},
                         Space{"sizeA16=1\nsizeA24=0\nsizeA32=200\n", 3, 32},
                         Space{"sizeA16=0\nsizeA24=0\nsizeA32=0\n", 1, 16}}) {
    RmInstrInfo r = one(head + c.sizes);
    EXPECT_EQ(c.space, (int)r.attr_MEM_SPACE) << c.sizes;
    EXPECT_EQ(c.base, (int)r.attr_MEM_BASE) << c.sizes;
  }
  // The class starts behind the last colon.
  struct Cls { const char* name; ViUInt32 idx; };
  for (const Cls& c : {Cls{"VXI0::24::INSTR", 10}, Cls{"NOCOLON", 0}, Cls{":ONLYFIRST", 0},
                       Cls{"ABCDEFGHIJKLMNOPQRSTUVW:", 24} /* a colon in the 24th character */})
    EXPECT_EQ(c.idx, one("INTF_NUM=1\nRSRC_NAME=" + std::string(c.name) + "\n").IdxAttr_RSRC_CLASS) << c.name;

  // A missing key carries the last value read over.
  RmInstrInfo r = one("INTF_NUM=9\nRSRC_NAME=n\nMANF_ID=4095\nSLOT=4\n");
  EXPECT_EQ(9, r.attr_VXI_LA) << "the first key takes INTF_NUM's value";
  EXPECT_EQ(9, r.attr_MAINFRAME_LA);
  EXPECT_EQ(4095, r.attr_MODEL_CODE);
  EXPECT_EQ(4, r.attr_VXI_DEV_CLASS);
  EXPECT_EQ(4u, r.sizeA32);
  EXPECT_EQ(2u, r.attr_MEM_SPACE) << "sizeA24 carried over as 4";
  // "MODEL_CODE=\t77" parses as an item with an empty value and a line "77"
  // that is not an item: the model code carries the previous key over.
  int n = 0;
  r = one("INTF_NUM=1\nRSRC_NAME=n\nVXI_LA=5\nMAINFRAME_LA=0\nMANF_ID=4095\nMODEL_CODE=\t77\n", &n);
  EXPECT_EQ(1, n);
  EXPECT_EQ(4095, r.attr_MODEL_CODE);
}

TEST(DrvInstruments, SkippedSectionsKeepRecordsDense) {
  IniText doc = parseText("[COMMON]\nNumInstr=3\n" + instr(1, "a", 1) + "[INSTR2]\nRSRC_NAME=b\n" +
                          instr(3, "c", 3));
  SHAREDINTFINFO g{};
  EXPECT_EQ(2, drvReadInstruments(0, &g, doc));
  Ini_Dispose(doc);
  EXPECT_STREQ("a", g.Instr[0].attr_RSRC_NAME);
  EXPECT_STREQ("c", g.Instr[1].attr_RSRC_NAME);
}

TEST(DrvInstruments, CountsAboveTheRecordCapacityAreClamped) {
  std::string text = "[COMMON]\nNumInstr=2000000000\n";
  for (int i = 1; i <= 70; i++) text += "[INSTR" + std::to_string(i) + "]\nINTF_NUM=1\nRSRC_NAME=i" + std::to_string(i) + "\n";
  IniText doc = parseText(text);
  // Guard records around the one under test catch a write past it.
  struct {
    SHAREDINTFINFO g;
    SHAREDINTFINFO guard;
  } two{};
  memset(&two.guard, 0x5A, sizeof two.guard);
  EXPECT_EQ(64, drvReadInstruments(0, &two.g, doc));
  Ini_Dispose(doc);
  EXPECT_EQ(64, two.g.NInstr);
  EXPECT_STREQ("i64", two.g.Instr[63].attr_RSRC_NAME);
  SHAREDINTFINFO pattern;
  memset(&pattern, 0x5A, sizeof pattern);
  EXPECT_EQ(0, memcmp(&pattern, &two.guard, sizeof pattern));
}

// ----------------------------------------------------------- attributes

class DrvAttributes : public HandFilled {
 protected:
  void SetUp() override {
    HandFilled::SetUp();
    SHAREDINTFINFO& g = block->Intf[1];
    g.NInstr = 2;
    RmInstrInfo& r = g.Instr[1];
    strcpy(r.attr_RSRC_NAME, "VXI0::24::INSTR");
    r.IdxAttr_RSRC_CLASS = 10;
    r.attr_VXI_LA = 24;
    r.attr_VXI_TRIG_STATUS = 0x11111111;
    r.attr_VXI_VME_INTR_STATUS = 0x22222222;
    r.attr_VXI_VME_SYSFAIL_STATE = 1;
    r.attr_VXI_DEV_CLASS = 2;
    r.attr_MAINFRAME_LA = -1;
    r.attr_MANF_ID = 0xFFF;
    r.attr_MEM_BASE = 0x123456789ULL;
    r.attr_MEM_SIZE = 0x40000;
    r.attr_MEM_SPACE = 2;
    r.attr_MODEL_CODE = 1234;
    r.attr_SLOT = 3;
    r.attr_CMDR_LA = 5;
    r.attr_IMMEDIATE_SERV = 1;
    strcpy(r.attr_MANF_NAME, "maker");
    strcpy(r.attr_MODEL_NAME, "model");
    r.attr_VXI_TRIG_SUPPORT = 0x33333333;
  }
  // The bytes the call wrote into a buffer of 0xEE.
  std::vector<uint8_t> raw(uint32_t id, uint16_t intf = 1, uint32_t n = 1) {
    uint8_t buf[16];
    memset(buf, 0xEE, sizeof buf);
    EXPECT_EQ(0, vintfGetRsrcAttr(intf, n, id, buf)) << std::hex << id;
    size_t used = sizeof buf;
    while (used && buf[used - 1] == 0xEE) used--;
    return std::vector<uint8_t>(buf, buf + used);
  }
  template <typename T>
  static std::vector<uint8_t> bytes(T v) {
    std::vector<uint8_t> b(sizeof v);
    memcpy(b.data(), &v, sizeof v);
    return b;
  }
};

TEST_F(DrvAttributes, NumericAttributesHaveTheirWidths) {
  const std::pair<uint32_t, std::vector<uint8_t>> cases[] = {
      {VI_ATTR_CMDR_LA, bytes<uint16_t>(5)}, {VI_ATTR_VXI_DEV_CLASS, bytes<uint16_t>(2)},
      {VI_ATTR_MAINFRAME_LA, bytes<uint16_t>(0xFFFF)}, {VI_ATTR_VXI_VME_INTR_STATUS, bytes<uint32_t>(0x22222222)},
      {VI_ATTR_VXI_TRIG_STATUS, bytes<uint32_t>(0x11111111)}, {VI_ATTR_VXI_VME_SYSFAIL_STATE, bytes<uint16_t>(1)},
      {VI_ATTR_MEM_BASE_64, bytes<uint64_t>(0x123456789ULL)}, {VI_ATTR_MEM_SIZE_64, bytes<uint64_t>(0x40000)},
      {VI_ATTR_VXI_LA, bytes<uint16_t>(24)}, {VI_ATTR_MANF_ID, bytes<uint16_t>(0xFFF)},
      {VI_ATTR_MEM_SPACE, bytes<uint16_t>(2)}, {VI_ATTR_MODEL_CODE, bytes<uint16_t>(1234)},
      {VI_ATTR_SLOT, bytes<uint16_t>(3)}, {VI_ATTR_IMMEDIATE_SERV, bytes<uint16_t>(1)},
      {VI_ATTR_INTF_TYPE, bytes<uint16_t>(2)}, {VI_ATTR_VXI_TRIG_SUPPORT, bytes<uint32_t>(0x33333333)}};
  for (auto& [id, want] : cases) EXPECT_EQ(want, raw(id)) << std::hex << id;
}

TEST_F(DrvAttributes, Strings) {
  EXPECT_EQ("VXI0::24::INSTR", attrStr(1, 1, VI_ATTR_RSRC_NAME));
  EXPECT_EQ("INSTR", attrStr(1, 1, VI_ATTR_RSRC_CLASS));
  EXPECT_EQ("maker", attrStr(1, 1, VI_ATTR_MANF_NAME));
  EXPECT_EQ("model", attrStr(1, 1, VI_ATTR_MODEL_NAME));
  block->NIntf = 3;
  EXPECT_EQ("TCP-VXI3", attrStr(3, 0, VI_ATTR_INTF_INST_NAME));
}

TEST_F(DrvAttributes, StringReadsStayInsideTheirFields) {
  RmInstrInfo& r = block->Intf[1].Instr[1];
  memcpy(r.attr_RSRC_NAME, "ABCDEFGHIJKLMNOPQRSTUVWX", 24);  // no NUL
  r.IdxAttr_RSRC_CLASS = 0x7FFFFFFF;                         // a broken block
  memset(r.attr_MANF_NAME, 'm', 64);
  EXPECT_EQ("ABCDEFGHIJKLMNOPQRSTUVWX", attrStr(1, 1, VI_ATTR_RSRC_NAME));
  EXPECT_EQ("", attrStr(1, 1, VI_ATTR_RSRC_CLASS));
  EXPECT_EQ(std::string(64, 'm'), attrStr(1, 1, VI_ATTR_MANF_NAME));
}

TEST_F(DrvAttributes, IndexChecks) {
  uint64_t v;
  EXPECT_EQ(0, vintfGetRsrcAttr(1, 2, VI_ATTR_VXI_LA, &v)) << "the count itself passes (zeroed record)";
  EXPECT_EQ(VI_ERROR_INV_OBJECT, vintfGetRsrcAttr(1, 3, VI_ATTR_VXI_LA, &v));
  EXPECT_EQ(VI_ERROR_INV_OBJECT, vintfGetRsrcAttr(1, 0xFFFFFFFFu, VI_ATTR_VXI_LA, &v));
  block->Intf[1].NInstr = 64;
  EXPECT_EQ(VI_ERROR_INV_OBJECT, vintfGetRsrcAttr(1, 64, VI_ATTR_VXI_LA, &v)) << "never past the records";
  EXPECT_EQ(VI_ERROR_SYSTEM_ERROR, vintfGetRsrcAttr(2, 0, VI_ATTR_VXI_LA, &v));
  EXPECT_EQ(VI_ERROR_USER_BUF, vintfGetRsrcAttr(1, 0, VI_ATTR_VXI_LA, nullptr));
  EXPECT_EQ(VI_ERROR_NSUP_ATTR, vintfGetRsrcAttr(1, 0, 0x3FFF0001u, &v));
  EXPECT_TRUE(mutexFree());
}

TEST_F(DrvAttributes, NumRsrcNeedsThisProcessConnection) {
  uint32_t n = 99;
  EXPECT_EQ(0, vintfGetNumRsrc(1, &n));
  EXPECT_EQ(0u, n) << "not connected in this process";
  Interfaces[1].kvtcp.Connected = 1;
  EXPECT_EQ(0, vintfGetNumRsrc(1, &n));
  Interfaces[1].kvtcp.Connected = 0;
  EXPECT_EQ(2u, n);
  n = 99;
  EXPECT_EQ(VI_ERROR_SYSTEM_ERROR, vintfGetNumRsrc(2, &n));
  EXPECT_EQ(0u, n);
}

// ------------------------------------------------------- event handler

class DrvEventHandler : public HandFilled {
 protected:
  void SetUp() override {
    HandFilled::SetUp();
    SHAREDINTFINFO& g = block->Intf[0];
    g.NInstr = 4;
    g.Instr[0].attr_VXI_LA = 0;
    g.Instr[1].attr_VXI_LA = 5;
    g.Instr[2].attr_VXI_LA = 6;
    g.Instr[3].attr_VXI_LA = 24;
    Interfaces[0].ext_intf_no = 0x10007;
    clearEvents();
    vintfUserIRQCallback(onEvent);
  }
  void deliver(const Bytes& body, unsigned char type = 128) {
    KvTcpInfo& k = Interfaces[0].kvtcp;
    memset(k.hislipAsyncCmdData, 0, sizeof k.hislipAsyncCmdData);
    memcpy(k.hislipAsyncCmdData, body.data(), std::min(body.size(), sizeof k.hislipAsyncCmdData));
    k.hislipAsyncInMsg = type;
    tcpEventHandler(&k);
  }
};

TEST_F(DrvEventHandler, UnknownAddressFallsBackToSlotZeroOrIsDropped) {
  deliver(report({{2, 0x77}}));
  ASSERT_EQ(1u, events().size());
  EXPECT_EQ(0u, events()[0].instr);
  EXPECT_EQ(7, events()[0].intf) << "the host's number, cut to 16 bits";
  clearEvents();
  block->Intf[0].Instr[0].attr_VXI_LA = 1;  // no controller at address 0 any more
  deliver(report({{2, 0x77}, {3, 0x06}}));
  ASSERT_EQ(1u, events().size());
  EXPECT_EQ(2u, events()[0].instr);
  clearEvents();
  block->Intf[0].Instr[3].attr_VXI_LA = 6;  // two instruments at one address: the lower index
  deliver(report({{7, 0xABCD1206}}));
  ASSERT_EQ(1u, events().size());
  EXPECT_EQ(2u, events()[0].instr);
  EXPECT_EQ(0xABCD1206u, events()[0].statID) << "passed whole";
  EXPECT_EQ(7u, events()[0].line);
}

TEST_F(DrvEventHandler, IgnoredMessages) {
  deliver(report({{1, 0x05}}, 2));
  deliver(report({{1, 0x05}}), 20);
  KvTcpInfo foreign{};
  memcpy(foreign.hislipAsyncCmdData, report({{1, 0x05}}).data(), 16);
  foreign.hislipAsyncInMsg = 128;
  tcpEventHandler(&foreign);
  tcpEventHandler(nullptr);
  EXPECT_TRUE(events().empty());
  vintfUserIRQCallback(nullptr);
  deliver(report({{1, 0x05}}));
  EXPECT_TRUE(events().empty());
}

TEST_F(DrvEventHandler, HostileCountIsBoundedByTheReceivedBody) {
  Bytes body;
  put32(body, 1);
  put32(body, 0xFFFFFFFFu);
  for (int i = 0; i < 200; i++) {
    put32(body, 1);
    put32(body, 0x05);
  }
  deliver(body);
  EXPECT_EQ((size_t)((KVTCP_ASYNC_DATA - 8) / 8), events().size());
}

namespace {
void stopAfterFirst(ViUInt32 t, ViUInt16 i, ViUInt32 n, ViAttrState s, ViAttrState l) {
  onEvent(t, i, n, s, l);
  vintfUserIRQCallback(nullptr);
}
}  // namespace

TEST_F(DrvEventHandler, ClearedCallbackStopsBetweenPairs) {
  vintfUserIRQCallback(stopAfterFirst);
  deliver(report({{1, 0x05}, {1, 0x06}, {1, 0x18}}));
  EXPECT_EQ(1u, events().size());
}

// ------------------------------------------------- interface numbers

using DrvDiscipline = HandFilled;

TEST_F(DrvDiscipline, NIntfIsTheHighestIndexInclusive) {
  block->Intf[0].intf_no = 33;
  block->Intf[1].intf_no = 32;
  uint16_t ext = 0xFFFF;
  EXPECT_EQ(0, vintfGetExtIntf(0, &ext));
  EXPECT_EQ(0, ext) << "above 32 reads as 0";
  EXPECT_EQ(0, vintfGetExtIntf(1, &ext));
  EXPECT_EQ(32, ext);
  EXPECT_EQ(VI_ERROR_SYSTEM_ERROR, vintfGetExtIntf(2, &ext));
  ext = 0;
  // The host's 16-bit number wraps: 65536 + 1 is interface 1.
  using Fn = ViStatus (*)(unsigned, ViUInt16*);
  EXPECT_EQ(0, ((Fn)(void*)vintfGetExtIntf)(65536 + 1, &ext));
  EXPECT_EQ(32, ext);
  block->NIntf = -1;
  EXPECT_EQ(VI_ERROR_SYSTEM_ERROR, vintfGetExtIntf(0, &ext));
  EXPECT_EQ(VI_ERROR_SYSTEM_ERROR, vintfResetVXI(0));
  ViInt16 state = 5;
  EXPECT_EQ(VI_ERROR_SYSTEM_ERROR, vintfGetSysState(0, &state));
  EXPECT_EQ(VI_ERROR_SYSTEM_ERROR, vintfTestIRQ(0, 0));
  EXPECT_TRUE(mutexFree());
}

TEST_F(DrvDiscipline, SetExtIntfKeepsTheMutexWhenRefused) {
  EXPECT_EQ(0, vintfSetExtIntf(1, 0xBEEF));
  EXPECT_EQ(0xBEEF, Interfaces[1].ext_intf_no);
  uint16_t ext = 0;
  block->Intf[1].intf_no = 4;
  EXPECT_EQ(0, vintfGetExtIntf(1, &ext));
  EXPECT_EQ(4, ext) << "reads the shared number, not the one just set";
  EXPECT_TRUE(mutexFree());
  EXPECT_EQ(VI_ERROR_SYSTEM_ERROR, vintfSetExtIntf(2, 1));
  EXPECT_FALSE(mutexFree()) << "the refusing path leaves the mutex held";
  util_mutex_unlock(hMutexTcpVxiRM);
  EXPECT_TRUE(mutexFree());
}

TEST_F(DrvDiscipline, NotConnectedBridgeGivesTheTransportError) {
  ViInt16 state = 5;
  ViStatus st = vintfGetSysState(0, &state);
  EXPECT_LT(st, 0);
  EXPECT_EQ(-1, state);
  EXPECT_LT(vintfResetVXI(1), 0);
  EXPECT_EQ(0, vintfTestIRQ(1, 0x18)) << "the test interrupt reports no error";
  EXPECT_TRUE(mutexFree());
}
