// The driver's core without a network: the line source, instrument records,
// attributes, the event handler and interface numbers on a hand-filled block.
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

// The instrument records of a text's sections, read as discovery reads them.
SHAREDINTFINFO records(const std::string& sections, int* accepted = nullptr, int numInstr = 1) {
  IniText doc = parseText("[COMMON]\nNumInstr=" + std::to_string(numInstr) + "\n" + sections);
  SHAREDINTFINFO g{};
  const int n = drvReadInstruments(0, &g, doc);
  Ini_Dispose(doc);
  if (accepted) *accepted = n;
  return g;
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


TEST(DrvInstruments, KeysSpacesAndClasses) {
  // A24 wins over A32, A16 when neither has a size; base and size follow.
  const std::string head = "[INSTR1]\nINTF_NUM=1\nRSRC_NAME=x\nVXI_LA=1\nMAINFRAME_LA=0\nMANF_ID=1\n"
                           "MODEL_CODE=1\nSLOT=3\nVXI_DEV_CLASS=1\noffsetA16=16\nsizeA16=64\noffsetA24=24\n"
                           "offsetA32=32\n";
  struct Space { const char* sizes; int space, base, size; };
  for (const Space& c : {Space{"sizeA24=100\nsizeA32=200\n", 2, 24, 100},
                         Space{"sizeA24=0\nsizeA32=200\n", 3, 32, 200}, Space{"sizeA24=0\nsizeA32=0\n", 1, 16, 64}}) {
    const RmInstrInfo r = records(head + c.sizes).Instr[0];
    EXPECT_EQ(c.space, (int)r.attr_MEM_SPACE) << c.sizes;
    EXPECT_EQ(c.base, (int)r.attr_MEM_BASE) << c.sizes;
    EXPECT_EQ(c.size, (int)r.attr_MEM_SIZE) << c.sizes;
    EXPECT_EQ(3, r.attr_SLOT);
    EXPECT_EQ(16, r.offsetA16);
    EXPECT_EQ(64, r.sizeA16);
  }
  // The class starts behind the last colon.
  struct Cls { const char* name; ViUInt32 idx; };
  for (const Cls& c : {Cls{"VXI0::24::INSTR", 10}, Cls{"NOCOLON", 0}, Cls{":ONLYFIRST", 0},
                       Cls{"ABCDEFGHIJKLMNOPQRSTUVW:", 24} /* a colon in the 24th character */})
    EXPECT_EQ(c.idx, records("[INSTR1]\nINTF_NUM=1\nRSRC_NAME=" + std::string(c.name) + "\n")
                         .Instr[0]
                         .IdxAttr_RSRC_CLASS)
        << c.name;

  // A missing key carries the last value read over.
  RmInstrInfo r = records("[INSTR1]\nINTF_NUM=9\nRSRC_NAME=n\nMANF_ID=4095\nSLOT=4\n").Instr[0];
  EXPECT_EQ(9, r.attr_VXI_LA) << "the first key takes INTF_NUM's value";
  EXPECT_EQ(9, r.attr_MAINFRAME_LA);
  EXPECT_EQ(4095, r.attr_MODEL_CODE);
  EXPECT_EQ(4, r.attr_VXI_DEV_CLASS);
  EXPECT_EQ(4u, r.sizeA32);
  EXPECT_EQ(2u, r.attr_MEM_SPACE) << "sizeA24 carried over as 4";
  // The tab makes "MODEL_CODE=" an empty item: the previous key carries over.
  int n = 0;
  r = records("[INSTR1]\nINTF_NUM=1\nRSRC_NAME=n\nVXI_LA=5\nMAINFRAME_LA=0\nMANF_ID=4095\nMODEL_CODE=\t77\n", &n)
          .Instr[0];
  EXPECT_EQ(1, n);
  EXPECT_EQ(4095, r.attr_MODEL_CODE);
}

// Without INTF_NUM a section is skipped; every other sets the interface number.
TEST(DrvInstruments, SkippedSectionsKeepRecordsDense) {
  int n = 0;
  const SHAREDINTFINFO g = records(
      "[INSTR1]\nINTF_NUM=1\nRSRC_NAME=a\n[INSTR2]\nRSRC_NAME=b\n[INSTR3]\nINTF_NUM=7\nRSRC_NAME=c\n", &n, 3);
  EXPECT_EQ(2, n);
  EXPECT_EQ(2, g.NInstr);
  EXPECT_EQ(7, g.intf_no);
  EXPECT_STREQ("a", g.Instr[0].attr_RSRC_NAME);
  EXPECT_STREQ("c", g.Instr[1].attr_RSRC_NAME);
}

TEST(DrvInstruments, CountsAboveTheRecordCapacityAreClamped) {
  std::string text = "[COMMON]\nNumInstr=2000000000\n";
  for (int i = 1; i <= 70; i++) text += "[INSTR" + std::to_string(i) + "]\nINTF_NUM=1\nRSRC_NAME=i" + std::to_string(i) + "\n";
  IniText doc = parseText(text);
  // A guard record behind the one under test catches a write past it.
  struct { SHAREDINTFINFO g, guard; } two{};
  memset(&two.guard, 0x5A, sizeof two.guard);
  EXPECT_EQ(64, drvReadInstruments(0, &two.g, doc));
  Ini_Dispose(doc);
  EXPECT_EQ(64, two.g.NInstr);
  EXPECT_STREQ("i64", two.g.Instr[63].attr_RSRC_NAME);
  const std::vector<uint8_t> pattern(sizeof two.guard, 0x5A);
  EXPECT_EQ(0, memcmp(pattern.data(), &two.guard, pattern.size()));
}


class DrvAttributes : public HandFilled {
 protected:
  void SetUp() override {
    HandFilled::SetUp();
    block->Intf[1].NInstr = 2;
    // Values that show a field read at the wrong width.
    block->Intf[1].Instr[1] = RmInstrInfo{
        .attr_RSRC_NAME = "VXI0::24::INSTR", .IdxAttr_RSRC_CLASS = 10, .attr_VXI_LA = 24,
        .attr_VXI_TRIG_STATUS = 0x11111111, .attr_VXI_VME_INTR_STATUS = 0x22222222,
        .attr_VXI_VME_SYSFAIL_STATE = 1, .attr_VXI_DEV_CLASS = 2, .attr_MAINFRAME_LA = -1, .attr_MANF_ID = 0xFFF,
        .attr_MEM_BASE = 0x123456789ULL, .attr_MEM_SIZE = 0x40000, .attr_MEM_SPACE = 2, .attr_MODEL_CODE = 1234,
        .attr_SLOT = 3, .attr_CMDR_LA = 5, .attr_IMMEDIATE_SERV = 1, .attr_MANF_NAME = "maker",
        .attr_MODEL_NAME = "model", .attr_VXI_TRIG_SUPPORT = 0x33333333, .offsetA16 = 0, .sizeA16 = 0,
        .offsetA24 = 0, .sizeA24 = 0, .offsetA32 = 0, .sizeA32 = 0};
  }
  // The bytes the call wrote into a buffer of 0xEE (a string with its NUL).
  std::vector<uint8_t> raw(uint32_t id, uint16_t intf = 1, uint32_t n = 1) {
    uint8_t buf[80];
    memset(buf, 0xEE, sizeof buf);
    EXPECT_EQ(0, vintfGetRsrcAttr(intf, n, id, buf)) << std::hex << id;
    size_t used = sizeof buf;
    while (used && buf[used - 1] == 0xEE) used--;
    return std::vector<uint8_t>(buf, buf + used);
  }
  template <typename T>
  static std::vector<uint8_t> bytes(T v) {
    return std::vector<uint8_t>((const uint8_t*)&v, (const uint8_t*)&v + sizeof v);
  }
  static std::vector<uint8_t> str(const std::string& s) {
    return std::vector<uint8_t>(s.c_str(), s.c_str() + s.size() + 1);
  }
};

TEST_F(DrvAttributes, EveryAttributeHasItsWidth) {
  const std::pair<uint32_t, std::vector<uint8_t>> cases[] = {
      {VI_ATTR_CMDR_LA, bytes<uint16_t>(5)}, {VI_ATTR_VXI_DEV_CLASS, bytes<uint16_t>(2)},
      {VI_ATTR_MAINFRAME_LA, bytes<uint16_t>(0xFFFF)}, {VI_ATTR_VXI_VME_INTR_STATUS, bytes<uint32_t>(0x22222222)},
      {VI_ATTR_VXI_TRIG_STATUS, bytes<uint32_t>(0x11111111)}, {VI_ATTR_VXI_VME_SYSFAIL_STATE, bytes<uint16_t>(1)},
      {VI_ATTR_MEM_BASE_64, bytes<uint64_t>(0x123456789ULL)}, {VI_ATTR_MEM_SIZE_64, bytes<uint64_t>(0x40000)},
      {VI_ATTR_VXI_LA, bytes<uint16_t>(24)}, {VI_ATTR_MANF_ID, bytes<uint16_t>(0xFFF)},
      {VI_ATTR_MEM_SPACE, bytes<uint16_t>(2)}, {VI_ATTR_MODEL_CODE, bytes<uint16_t>(1234)},
      {VI_ATTR_SLOT, bytes<uint16_t>(3)}, {VI_ATTR_IMMEDIATE_SERV, bytes<uint16_t>(1)},
      {VI_ATTR_INTF_TYPE, bytes<uint16_t>(2)}, {VI_ATTR_VXI_TRIG_SUPPORT, bytes<uint32_t>(0x33333333)},
      {VI_ATTR_RSRC_NAME, str("VXI0::24::INSTR")}, {VI_ATTR_RSRC_CLASS, str("INSTR")},
      {VI_ATTR_MANF_NAME, str("maker")}, {VI_ATTR_MODEL_NAME, str("model")},
      {VI_ATTR_INTF_INST_NAME, str("TCP-VXI1")}};
  for (auto& [id, want] : cases) EXPECT_EQ(want, raw(id)) << std::hex << id;
}

// Strings, instrument indexes and interface numbers never reach past their records.
TEST_F(DrvAttributes, ReadsStayInsideTheRecords) {
  RmInstrInfo& r = block->Intf[1].Instr[1];
  memcpy(r.attr_RSRC_NAME, "ABCDEFGHIJKLMNOPQRSTUVWX", 24);  // no NUL
  r.IdxAttr_RSRC_CLASS = 0x7FFFFFFF;                         // a broken block
  memset(r.attr_MANF_NAME, 'm', 64);
  EXPECT_EQ(str("ABCDEFGHIJKLMNOPQRSTUVWX"), raw(VI_ATTR_RSRC_NAME));
  EXPECT_EQ(str(""), raw(VI_ATTR_RSRC_CLASS));
  EXPECT_EQ(str(std::string(64, 'm')), raw(VI_ATTR_MANF_NAME));

  uint64_t v;
  EXPECT_EQ(0, vintfGetRsrcAttr(1, 2, VI_ATTR_VXI_LA, &v)) << "the count itself passes (zeroed record)";
  EXPECT_EQ(VI_ERROR_INV_OBJECT, vintfGetRsrcAttr(1, 3, VI_ATTR_VXI_LA, &v));
  EXPECT_EQ(VI_ERROR_INV_OBJECT, vintfGetRsrcAttr(1, 0xFFFFFFFFu, VI_ATTR_VXI_LA, &v));
  block->Intf[1].NInstr = 64;
  EXPECT_EQ(VI_ERROR_INV_OBJECT, vintfGetRsrcAttr(1, 64, VI_ATTR_VXI_LA, &v)) << "never past the records";
  EXPECT_EQ(VI_ERROR_SYSTEM_ERROR, vintfGetRsrcAttr(2, 0, VI_ATTR_VXI_LA, &v));
  EXPECT_EQ(VI_ERROR_USER_BUF, vintfGetRsrcAttr(1, 0, VI_ATTR_VXI_LA, nullptr));
  EXPECT_EQ(VI_ERROR_NSUP_ATTR, vintfGetRsrcAttr(1, 0, 0x3FFF0001u, &v));
  // The instrument count needs this process's connection to the bridge.
  block->Intf[1].NInstr = 2;
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
  EXPECT_TRUE(mutexFree());
}


class DrvEventHandler : public HandFilled {
 protected:
  void SetUp() override {
    HandFilled::SetUp();
    SHAREDINTFINFO& g = block->Intf[0];
    g.NInstr = 4;
    const ViInt16 la[] = {0, 5, 6, 24};
    for (int i = 0; i < 4; i++) g.Instr[i].attr_VXI_LA = la[i];
    Interfaces[0].ext_intf_no = 0x10007;  // the host's number, cut to 16 bits: 7
    takeEvents();
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

// The status/ID's low byte is the address: unknown ones go to the controller
// at 0, or nowhere; of two at one address the lower index.  Lines keep 3 bits.
TEST_F(DrvEventHandler, AddressesFindTheirInstruments) {
  deliver(report({{2, 0x77}, {3, 0x06}}));
  EXPECT_EQ((std::vector<Event>{{kIntr, 7, 0, 0x77, 2}, {kIntr, 7, 2, 0x06, 3}}), takeEvents());
  block->Intf[0].Instr[0].attr_VXI_LA = 1;
  block->Intf[0].Instr[3].attr_VXI_LA = 6;
  deliver(report({{2, 0x77}, {15, 0xABCD1206}}));
  EXPECT_EQ((std::vector<Event>{{kIntr, 7, 2, 0xABCD1206, 7}}), takeEvents());
}

TEST_F(DrvEventHandler, IgnoredClearedAndHostileReports) {
  deliver(report({{1, 0x05}}, 2));   // not an interrupt report
  deliver(report({{1, 0x05}}), 20);  // not a vendor message
  KvTcpInfo foreign{};
  memcpy(foreign.hislipAsyncCmdData, report({{1, 0x05}}).data(), 16);
  foreign.hislipAsyncInMsg = 128;
  tcpEventHandler(&foreign);
  tcpEventHandler(nullptr);
  EXPECT_TRUE(takeEvents().empty());

  // A count far beyond the body: only the pairs the received body holds
  // (zeros: address 0, the controller).
  deliver(bytesOf({1, 0xFFFFFFFFu}));
  EXPECT_EQ((size_t)((KVTCP_ASYNC_DATA - 8) / 8), takeEvents().size());

  // A host that clears its callback stops delivery between pairs.
  vintfUserIRQCallback([](ViUInt32 t, ViUInt16 i, ViUInt32 n, ViAttrState s, ViAttrState l) {
    onEvent(t, i, n, s, l);
    vintfUserIRQCallback(nullptr);
  });
  deliver(report({{1, 0x05}, {1, 0x06}, {1, 0x18}}));
  EXPECT_EQ(1u, takeEvents().size());
  deliver(report({{1, 0x05}}));
  EXPECT_TRUE(takeEvents().empty());
}


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

TEST_F(DrvDiscipline, SetExtIntfAndAnUnconnectedBridge) {
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

  // A bridge this process is not connected to gives the transport's error.
  ViInt16 state = 5;
  EXPECT_LT(vintfGetSysState(0, &state), 0);
  EXPECT_EQ(-1, state);
  EXPECT_LT(vintfResetVXI(1), 0);
  EXPECT_EQ(0, vintfTestIRQ(1, 0x18)) << "the test interrupt reports no error";
  EXPECT_TRUE(mutexFree());
}
