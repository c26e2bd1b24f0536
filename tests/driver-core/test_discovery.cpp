// Discovery from the resource manager's file: a missing file, a file without
// a usable count, gaps between sections, unreachable and refusing bridges,
// counts beyond the shared records.
#include "drvcore.h"

using namespace dc;

namespace {

class DrvDiscovery : public ::testing::Test {
 protected:
  void SetUp() override {
    resetDriver();
    a = std::make_unique<mb::Bridge>("127.0.0.2");
    ASSERT_TRUE(a->ok());
    a->set([](auto& s) { s.text = "[COMMON]\nNumInstr=1\n" + instr(1, "VXI0::0::INSTR", 0); });
  }
  void TearDown() override {
    resetDriver();
    a.reset();
  }
  uint16_t open() {
    tcpvxi_start();
    uint16_t n = 0xFFFF;
    EXPECT_EQ(0, vintfOpenDevice(&n));
    return n;
  }
  std::unique_ptr<mb::Bridge> a;
};

}  // namespace

TEST_F(DrvDiscovery, MissingFileMeansNoInterfaces) {
  std::remove(resmanPath().c_str());
  tcpvxi_start();
  testing::internal::CaptureStderr();
  uint16_t n = 0xFFFF;
  EXPECT_EQ(0, vintfOpenDevice(&n));
  std::string err = testing::internal::GetCapturedStderr();
  EXPECT_EQ(0, n);
  EXPECT_EQ(-1, tcpvxiGD->NIntf);
  EXPECT_EQ(1, FillRsrcCalled);
  const std::string msg = "\nHave no resman file TCPVXI\n";
  ASSERT_EQ(28u, msg.size());
  ASSERT_GE(err.size(), msg.size());
  EXPECT_EQ(msg, err.substr(err.size() - msg.size())) << err;
  uint32_t k;
  EXPECT_EQ(VI_ERROR_SYSTEM_ERROR, vintfGetNumRsrc(0, &k));
}

TEST_F(DrvDiscovery, NoUsableCountIsAnInvalidSetup) {
  for (const char* count : {"", "NumIntf=\n", "NumIntf=two\n"}) {
    writeResman(std::string("[COMMON]\n") + count + "[INTF1]\nINTF_NUM=1\nADDR=127.0.0.2\n");
    tcpvxi_start();
    EXPECT_EQ(VI_ERROR_INV_SETUP, vintfFillResources(1)) << count;
    EXPECT_EQ(0, FillRsrcCalled);
    EXPECT_EQ(-1, tcpvxiGD->NIntf);
    uint16_t n = 0xFFFF;
    EXPECT_EQ(0, vintfOpenDevice(&n)) << "open still succeeds, with nothing";
    EXPECT_EQ(0, n);
    EXPECT_EQ(0, FillRsrcCalled) << "and tries again next time";
    EXPECT_TRUE(a->commands().empty());
    resetDriver();
  }
}

TEST_F(DrvDiscovery, ZeroOrNegativeCountVisitsNothing) {
  for (const char* count : {"NumIntf=0\n", "NumIntf=-3\n"}) {
    writeResman(std::string("[COMMON]\n") + count + "[INTF1]\nINTF_NUM=1\nADDR=127.0.0.2\n");
    EXPECT_EQ(0, open()) << count;
    EXPECT_EQ(-1, tcpvxiGD->NIntf);
    EXPECT_EQ(1, FillRsrcCalled);
    resetDriver();
  }
  EXPECT_TRUE(a->commands().empty());
}

TEST_F(DrvDiscovery, GapBetweenSectionsShiftsTheCount) {
  // INTF1 missing: the bridge of INTF2 fills slot 1, but only one interface
  // was accepted, so NIntf is 0 and slot 1 is out of reach.
  writeResman("[COMMON]\nNumIntf=2\n[INTF2]\nINTF_NUM=5\nADDR=127.0.0.2\n");
  EXPECT_EQ(1, open());
  EXPECT_EQ(0, tcpvxiGD->NIntf);
  EXPECT_STREQ("127.0.0.2", tcpvxiGD->Intf[1].Addr);
  EXPECT_EQ(1, tcpvxiGD->Intf[1].NInstr);
  EXPECT_STREQ("", tcpvxiGD->Intf[0].Addr);
  uint32_t n = 9;
  EXPECT_EQ(VI_ERROR_SYSTEM_ERROR, vintfGetNumRsrc(1, &n));
  EXPECT_EQ(0, vintfGetNumRsrc(0, &n));
  EXPECT_EQ(0u, n);
}

TEST_F(DrvDiscovery, SectionsWithoutNumberOrAddressAreLeftOut) {
  writeResman("[COMMON]\nNumIntf=3\n[INTF1]\nADDR=127.0.0.2\n[INTF2]\nINTF_NUM=2\n"
              "[INTF3]\nINTF_NUM=3\nADDR=127.0.0.2\n");
  EXPECT_EQ(1, open());
  EXPECT_EQ(0, tcpvxiGD->Intf[0].intf_no);
  EXPECT_STREQ("", tcpvxiGD->Intf[0].Addr);
  EXPECT_EQ(0, tcpvxiGD->Intf[1].intf_no) << "slot stays zeroed";
  EXPECT_STREQ("127.0.0.2", tcpvxiGD->Intf[2].Addr);
  EXPECT_STREQ("", tcpvxiGD->Intf[2].devName);
}

TEST_F(DrvDiscovery, UnreachableBridgeIsListedWithoutInstruments) {
  // Nothing listens on 127.0.0.9.
  writeResman(resmanFor({"127.0.0.9", "127.0.0.2"}));
  EXPECT_EQ(2, open());
  EXPECT_EQ(1, tcpvxiGD->NIntf) << "counted although unconnected";
  EXPECT_EQ(0, Interfaces[0].kvtcp.Connected);
  uint32_t n = 9;
  EXPECT_EQ(0, vintfGetNumRsrc(0, &n));
  EXPECT_EQ(0u, n);
  EXPECT_EQ(0, vintfGetNumRsrc(1, &n));
  EXPECT_EQ(1u, n);
  ViInt16 st;
  EXPECT_LT(vintfGetSysState(0, &st), 0);
}

TEST_F(DrvDiscovery, RefusedLockDropsTheInterface) {
  auto b = std::make_unique<mb::Bridge>("127.0.0.3");
  ASSERT_TRUE(b->ok());
  b->set([](auto& s) { s.lockStatus = (int32_t)0xBFFF000F; });
  writeResman(resmanFor({"127.0.0.3", "127.0.0.2"}));
  EXPECT_EQ(1, open());
  EXPECT_EQ(0, tcpvxiGD->NIntf) << "the refusing bridge is not counted";
  EXPECT_EQ(0, Interfaces[0].kvtcp.Connected);
  // Slot positions follow the sections: the reachable bridge is slot 1,
  // beyond NIntf.
  EXPECT_EQ(1, Interfaces[1].kvtcp.Connected);
  auto c = b->commands();
  ASSERT_GE(c.size(), 1u);
  EXPECT_EQ(1u, mb::word(c[0], 0));
  for (auto& cmd : c) EXPECT_NE(16u, mb::word(cmd, 0)) << "no text asked from a refusing bridge";
}

TEST_F(DrvDiscovery, OversizedCountsStayInsideTheSharedRecords) {
  // Sections past INTF32 exist but have no record to go to.
  std::string text = "[COMMON]\nNumIntf=40\n[INTF1]\nINTF_NUM=1\nADDR=127.0.0.2\n";
  for (int i = 2; i <= 40; i++)
    text += "[INTF" + std::to_string(i) + "]\nINTF_NUM=" + std::to_string(i) + "\nADDR=127.0.1." + std::to_string(i) + "\n";
  writeResman(text);
  std::string bridgeText = "[COMMON]\nNumInstr=100\n";
  for (int i = 1; i <= 100; i++) bridgeText += instr(i, "VXI0::" + std::to_string(i) + "::INSTR", i);
  a->set([&](auto& s) { s.text = bridgeText; });
  EXPECT_EQ(32, open()) << "clamped to the 32 records";
  EXPECT_EQ(31, tcpvxiGD->NIntf);
  EXPECT_EQ(64, tcpvxiGD->Intf[0].NInstr);
  EXPECT_EQ("VXI0::64::INSTR", attrStr(0, 63, VI_ATTR_RSRC_NAME));
  uint16_t v;
  EXPECT_EQ(VI_ERROR_INV_OBJECT, vintfGetRsrcAttr(0, 64, VI_ATTR_VXI_LA, &v));
}

TEST_F(DrvDiscovery, AddressThatFillsItsFieldIsLeftOut) {
  std::string addr(64, '1');
  writeResman("[COMMON]\nNumIntf=2\n[INTF1]\nINTF_NUM=1\nADDR=" + addr + "\nDEVNAME=" + std::string(80, 'd') +
              "\n[INTF2]\nINTF_NUM=2\nADDR=127.0.0.2\nDEVNAME=" + std::string(80, 'd') + "\n");
  EXPECT_EQ(1, open());
  EXPECT_STREQ("", tcpvxiGD->Intf[0].Addr);
  EXPECT_EQ(std::string(63, 'd'), tcpvxiGD->Intf[1].devName) << "a long name is cut to fit with its NUL";
}

TEST_F(DrvDiscovery, FillingAgainClosesWhatItForgets) {
  writeResman(resmanFor({"127.0.0.2"}));
  EXPECT_EQ(1, open());
  ASSERT_EQ(1, Interfaces[0].kvtcp.Connected);
  a->clear();
  EXPECT_EQ(0, vintfFillResources(0));
  EXPECT_EQ(1, Interfaces[0].kvtcp.Connected) << "connected afresh";
  ASSERT_EQ(2u, a->commands().size());
  EXPECT_EQ(1u, tcpvxiGD->Intf[0].NInstr);
}
