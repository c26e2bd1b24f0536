// Discovery from the resource manager's file: a missing file, a file without
// a usable count, gaps between sections, unreachable and refusing bridges,
// counts beyond the shared records.
#include "drvcore.h"

using namespace dc;

namespace {

class DrvDiscovery : public ::testing::Test {
 protected:
  void SetUp() override { a = startSim("127.0.0.2"); }
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
  std::unique_ptr<bridgesim::Server> a;
};

}  // namespace

TEST_F(DrvDiscovery, MissingFileMeansNoInterfaces) {
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

TEST_F(DrvDiscovery, NoUsableOrPositiveCountVisitsNothing) {
  for (const char* count : {"", "NumIntf=\n", "NumIntf=two\n"}) {
    writeResmanText(std::string("[COMMON]\n") + count + "[INTF1]\nINTF_NUM=1\nADDR=127.0.0.2\n");
    tcpvxi_start();
    EXPECT_EQ(VI_ERROR_INV_SETUP, vintfFillResources(1)) << count;
    EXPECT_EQ(0, FillRsrcCalled);
    EXPECT_EQ(-1, tcpvxiGD->NIntf);
    uint16_t n = 0xFFFF;
    EXPECT_EQ(0, vintfOpenDevice(&n)) << "open still succeeds, with nothing";
    EXPECT_EQ(0, n);
    EXPECT_EQ(0, FillRsrcCalled) << "and tries again next time";
    resetDriver();
  }
  for (const char* count : {"NumIntf=0\n", "NumIntf=-3\n"}) {
    writeResmanText(std::string("[COMMON]\n") + count + "[INTF1]\nINTF_NUM=1\nADDR=127.0.0.2\n");
    EXPECT_EQ(0, open()) << count;
    EXPECT_EQ(-1, tcpvxiGD->NIntf);
    EXPECT_EQ(1, FillRsrcCalled);
    resetDriver();
  }
  EXPECT_TRUE(a->receivedCommands().empty());
}

TEST_F(DrvDiscovery, GapsAndIncompleteSections) {
  // INTF1 missing: the bridge of INTF2 fills slot 1, but only one interface
  // was accepted, so NIntf is 0 and slot 1 is out of reach.
  writeResmanText("[COMMON]\nNumIntf=2\n[INTF2]\nINTF_NUM=5\nADDR=127.0.0.2\n");
  EXPECT_EQ(1, open());
  EXPECT_EQ(0, tcpvxiGD->NIntf);
  EXPECT_STREQ("127.0.0.2", tcpvxiGD->Intf[1].Addr);
  EXPECT_EQ(6, tcpvxiGD->Intf[1].NInstr);
  EXPECT_STREQ("", tcpvxiGD->Intf[0].Addr);
  uint32_t n = 9;
  EXPECT_EQ(VI_ERROR_SYSTEM_ERROR, vintfGetNumRsrc(1, &n));
  EXPECT_EQ(0, vintfGetNumRsrc(0, &n));
  EXPECT_EQ(0u, n);
  resetDriver();

  // Sections without a number or an address, and an address that fills its
  // field, are left out; a long device name is cut to fit with its NUL.
  writeResmanText("[COMMON]\nNumIntf=4\n[INTF1]\nADDR=127.0.0.2\n[INTF2]\nINTF_NUM=2\n[INTF3]\nINTF_NUM=3\nADDR=" +
                  std::string(64, '1') + "\n[INTF4]\nINTF_NUM=4\nADDR=127.0.0.2\nDEVNAME=" + std::string(80, 'd') +
                  "\n");
  EXPECT_EQ(1, open());
  for (int i = 0; i < 3; i++) EXPECT_STREQ("", tcpvxiGD->Intf[i].Addr) << i;
  EXPECT_EQ(0, tcpvxiGD->Intf[1].intf_no) << "slot stays zeroed";
  EXPECT_STREQ("127.0.0.2", tcpvxiGD->Intf[3].Addr);
  EXPECT_EQ(std::string(63, 'd'), tcpvxiGD->Intf[3].devName);
}

TEST_F(DrvDiscovery, RefusedLockDropsTheInterface) {
  auto b = startSim("127.0.0.3");
  bridgesim::CommandFaults f;
  f.statusCode = 1;
  f.forcedStatus = (int32_t)0xBFFF000F;
  b->setCommandFaults(f);
  writeResman({"127.0.0.3", "127.0.0.2"});
  EXPECT_EQ(1, open());
  EXPECT_EQ(0, tcpvxiGD->NIntf) << "the refusing bridge is not counted";
  EXPECT_EQ(0, Interfaces[0].kvtcp.Connected);
  // Slot positions follow the sections: the reachable bridge is slot 1,
  // beyond NIntf.
  EXPECT_EQ(1, Interfaces[1].kvtcp.Connected);
  EXPECT_FALSE(commandsOf(*b, 1).empty());
  EXPECT_TRUE(commandsOf(*b, 16).empty()) << "no text asked from a refusing bridge";
  resetDriver();
}

TEST_F(DrvDiscovery, OversizedCountStaysInsideTheSharedRecords) {
  // Sections past INTF32 exist but have no record to go to.
  std::string text = "[COMMON]\nNumIntf=40\n[INTF1]\nINTF_NUM=1\nADDR=127.0.0.2\n";
  for (int i = 2; i <= 40; i++)
    text += "[INTF" + std::to_string(i) + "]\nINTF_NUM=" + std::to_string(i) + "\nADDR=127.0.1." + std::to_string(i) + "\n";
  writeResmanText(text);
  EXPECT_EQ(32, open()) << "clamped to the 32 records";
  EXPECT_EQ(31, tcpvxiGD->NIntf);
  EXPECT_EQ(6, tcpvxiGD->Intf[0].NInstr);
}

TEST_F(DrvDiscovery, FillingAgainClosesWhatItForgets) {
  writeResman({"127.0.0.2"});
  EXPECT_EQ(1, open());
  ASSERT_EQ(1, Interfaces[0].kvtcp.Connected);
  a->clearReceived();
  EXPECT_EQ(0, vintfFillResources(0));
  EXPECT_EQ(1, Interfaces[0].kvtcp.Connected) << "connected afresh";
  auto c = a->receivedCommands();
  ASSERT_EQ(2u, c.size());
  EXPECT_EQ((Bytes{1, 0, 0, 0, 0xE8, 3, 0, 0}), c[0]) << "the lock, time-out word 1000";
  EXPECT_EQ((Bytes{16, 0, 0, 0, 0, 0, 0, 0}), c[1]) << "the text request, time-out word 0";
  EXPECT_EQ(6, tcpvxiGD->Intf[0].NInstr);
}
