// Discovery from the resource manager's file: missing, without a usable count,
// with gaps, refusing bridges, and counts beyond the shared records.
#include <gmock/gmock.h>

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
  // Starts the driver on this resource file and opens it: the interface count.
  uint16_t open(const std::string& resman) {
    writeResmanText(resman);
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
  EXPECT_THAT(testing::internal::GetCapturedStderr(), testing::EndsWith("\nHave no resman file TCPVXI\n"));
  EXPECT_EQ(0, n);
  EXPECT_EQ(-1, tcpvxiGD->NIntf);
  EXPECT_EQ(1, FillRsrcCalled);
  uint32_t k;
  EXPECT_EQ(VI_ERROR_SYSTEM_ERROR, vintfGetNumRsrc(0, &k));
}

// No usable count fails the fill (the next open tries again); a count that is
// not positive fills nothing.  Open succeeds either way, with no interface.
TEST_F(DrvDiscovery, NoUsableOrPositiveCountVisitsNothing) {
  struct Count { const char* line; ViStatus fill; int filled; };
  for (const Count& c : {Count{"", VI_ERROR_INV_SETUP, 0}, Count{"NumIntf=\n", VI_ERROR_INV_SETUP, 0},
                         Count{"NumIntf=two\n", VI_ERROR_INV_SETUP, 0}, Count{"NumIntf=0\n", 0, 1},
                         Count{"NumIntf=-3\n", 0, 1}}) {
    SCOPED_TRACE(c.line);
    writeResmanText(std::string("[COMMON]\n") + c.line + "[INTF1]\nINTF_NUM=1\nADDR=127.0.0.2\n");
    tcpvxi_start();
    EXPECT_EQ(c.fill, vintfFillResources(1));
    EXPECT_EQ(c.filled, FillRsrcCalled);
    EXPECT_EQ(-1, tcpvxiGD->NIntf);
    uint16_t n = 0xFFFF;
    EXPECT_EQ(0, vintfOpenDevice(&n));
    EXPECT_EQ(0, n);
    EXPECT_EQ(c.filled, FillRsrcCalled);
    resetDriver();
  }
  EXPECT_TRUE(a->receivedCommands().empty());
}

TEST_F(DrvDiscovery, GapsAndIncompleteSections) {
  // INTF1 missing: the bridge of INTF2 fills slot 1, but only one interface
  // was accepted, so NIntf is 0 and slot 1 is out of reach.
  EXPECT_EQ(1, open("[COMMON]\nNumIntf=2\n[INTF2]\nINTF_NUM=5\nADDR=127.0.0.2\n"));
  EXPECT_EQ(0, tcpvxiGD->NIntf);
  EXPECT_STREQ("127.0.0.2", tcpvxiGD->Intf[1].Addr);
  EXPECT_EQ(6, tcpvxiGD->Intf[1].NInstr);
  EXPECT_STREQ("", tcpvxiGD->Intf[0].Addr);
  resetDriver();

  // Left out: no number, no address, an address filling its field.  A long
  // device name is cut to fit with its NUL.
  EXPECT_EQ(1, open("[COMMON]\nNumIntf=4\n[INTF1]\nADDR=127.0.0.2\n[INTF2]\nINTF_NUM=2\n[INTF3]\nINTF_NUM=3\nADDR=" +
                    std::string(64, '1') + "\n[INTF4]\nINTF_NUM=4\nADDR=127.0.0.2\nDEVNAME=" + std::string(80, 'd') +
                    "\n"));
  for (int i = 0; i < 3; i++) EXPECT_STREQ("", tcpvxiGD->Intf[i].Addr) << i;
  EXPECT_EQ(0, tcpvxiGD->Intf[1].intf_no) << "slot stays zeroed";
  EXPECT_STREQ("127.0.0.2", tcpvxiGD->Intf[3].Addr);
  EXPECT_EQ(std::string(63, 'd'), tcpvxiGD->Intf[3].devName);
}

TEST_F(DrvDiscovery, RefusedLockDropsTheInterface) {
  auto b = startSim("127.0.0.3");
  b->setCommandFaults({.statusCode = 1, .forcedStatus = (int32_t)0xBFFF000F, .answer = {}});
  EXPECT_EQ(1, open("[COMMON]\nNumIntf=2\n[INTF1]\nINTF_NUM=1\nADDR=127.0.0.3\n"
                    "[INTF2]\nINTF_NUM=2\nADDR=127.0.0.2\n"));
  EXPECT_EQ(0, tcpvxiGD->NIntf) << "the refusing bridge is not counted";
  EXPECT_EQ(0, Interfaces[0].kvtcp.Connected);
  // Slots follow the sections: the reachable bridge is slot 1, beyond NIntf.
  EXPECT_EQ(1, Interfaces[1].kvtcp.Connected);
  EXPECT_FALSE(commandsOf(*b, 1).empty());
  EXPECT_TRUE(commandsOf(*b, 16).empty()) << "no text asked from a refusing bridge";
  resetDriver();  // before this bridge goes
}

TEST_F(DrvDiscovery, OversizedCountStaysInsideTheSharedRecords) {
  // Sections past INTF32 exist but have no record to go to.
  std::string text = "[COMMON]\nNumIntf=40\n[INTF1]\nINTF_NUM=1\nADDR=127.0.0.2\n";
  for (int i = 2; i <= 40; i++)
    text += "[INTF" + std::to_string(i) + "]\nINTF_NUM=" + std::to_string(i) + "\nADDR=127.0.1." + std::to_string(i) + "\n";
  EXPECT_EQ(32, open(text)) << "clamped to the 32 records";
  EXPECT_EQ(31, tcpvxiGD->NIntf);
  EXPECT_EQ(6, tcpvxiGD->Intf[0].NInstr);
}

TEST_F(DrvDiscovery, FillingAgainClosesWhatItForgets) {
  EXPECT_EQ(1, open("[COMMON]\nNumIntf=1\n[INTF1]\nINTF_NUM=1\nADDR=127.0.0.2\n"));
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
