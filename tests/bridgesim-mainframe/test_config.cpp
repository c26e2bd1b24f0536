// Mainframes described by INI files.
#include "bsim.h"

using namespace bsim;

namespace {
std::string source(const char* rel) { return std::string(KV_SOURCE_DIR) + "/tools/bridge-sim/mainframes/" + rel; }

std::string refusal(const std::string& body) {
  try {
    bridgesim::Bridge b(writeIni("bad.ini", body));
  } catch (const std::runtime_error& e) {
    return e.what();
  }
  return "";
}
}  // namespace

TEST(MainframeIni, DefaultFileDescribesTheBuiltInMainframe) {
  bridgesim::Bridge builtIn, fromFile(source("default.ini"));
  EXPECT_EQ(builtIn.resourceText(), fromFile.resourceText());
  auto& a = builtIn.mainframe();
  auto& b = fromFile.mainframe();
  ASSERT_EQ(a.deviceCount(), b.deviceCount());
  for (size_t i = 0; i < a.deviceCount(); ++i) {
    auto fields = [](const auto& d) {  // what the resource text does not show
      return std::tie(d.kind, d.identity, d.irqLine, d.fifoOffset, d.fifoSamples, d.longword, d.rampMemory, d.reading);
    };
    EXPECT_EQ(fields(a.device(i).desc()), fields(b.device(i).desc())) << a.device(i).desc().name;
  }
}

TEST(MainframeIni, SecondExampleWithFixedWindowsAndAFailedDevice) {
  Rig r(source("example-2.ini"));
  std::string t = r.b.resourceText();
  for (const char* line : {"NumInstr=5\n", "INTF_NUM=2\nRSRC_NAME=VXI1::3::INSTR\n", "VXI_LA=64\n",
                           "offsetA24=4194304\nsizeA24=65536\n", "offsetA32=1073741824\nsizeA32=524288\n"})
    EXPECT_NE(std::string::npos, t.find(line)) << line;
  EXPECT_EQ(words({0, 3}), r.cmd({3, 0})) << "SYSFAIL from the device that failed its self-test";
  auto [st, status] = r.read(A16, D16, cfg(65, 4));
  EXPECT_EQ(Read(0, 0), Read(st, status & 0x0004)) << "Passed clear";
  EXPECT_EQ(Read(0, 0x5F10), r.read(A16, D16, cfg(65, 0))) << "extended class, A32";
  // SYSFAIL inhibit silences it
  EXPECT_EQ(0u, r.write(A16, D16, cfg(65, 4), 0x8002));
  EXPECT_EQ(1u, word(r.cmd({3, 0}), 1));
  // the acquisition card's FIFO at 0x30 with 16 samples
  EXPECT_EQ(16u, word(r.cmd({7 | A16 | D16, 0, cfg(64, 0x30), 20}), 1));
  EXPECT_EQ("Simulated,FastMeter,SIM5,1.0\n", r.query(5, "*IDN?\n"));
}

TEST(MainframeIni, InconsistentDescriptionsAreRefusedWithTheReason) {
  std::string many;
  for (int i = 0; i < 65; ++i) many += "[D" + std::to_string(i) + "]\nLA=" + std::to_string(i) + "\n";
  for (auto [ini, reason] : std::initializer_list<std::pair<std::string, const char*>>{
           {"[A]\nLA=3\n[B]\nLA=3\n", "share logical address 3"}, {"[A]\nLA=3\nCOLOUR=red\n", "unknown key \"COLOUR\""},
           {"[A]\nLA=300\n", "LA"}, {"[A]\nSLOT=1\n", "LA (logical address) is required"},
           {"[A]\nLA=1\nCLASS=fancy\n", "CLASS"}, {"[A]\nLA=1\nIRQ=0\n", "IRQ"}, {"[A]\nLA=1\nFIFO=0x21\n", "FIFO"},
           {"[A]\nLA=1\nSPACE=A24\nM=5\nOFFSET=0x0021\n", "aligned"},
           {"[A]\nLA=1\nSPACE=A24\nM=5\nOFFSET=0x2000\n[B]\nLA=2\nSPACE=A24\nM=1\nOFFSET=0x0000\n", "overlapping"},
           {"[A]\nLA=1\n[a]\nLA=2\n", "twice"}, {"[MAINFRAME]\nINTF_NUM=0\n[A]\nLA=1\n", "INTF_NUM"},
           {"; nothing\n", "no device"}, {many, "more than 64"}})
    EXPECT_NE(std::string::npos, refusal(ini).find(reason)) << ini;
  EXPECT_THROW(bridgesim::Bridge(::testing::TempDir() + "no-such-mainframe.ini"), std::runtime_error);
}

TEST(MainframeIni, ResourceManagerPlacesWindowsAroundFixedOnes) {
  Rig r(writeIni("place.ini",
                 "[Fixed]\nLA=1\nSPACE=A24\nM=7\nOFFSET=0x2000\n"   // 64 KiB at 0x200000
                 "[Big]\nLA=2\nSPACE=A24\nM=3\n"                   // 1 MiB, aligned: 0x300000
                 "[Small]\nLA=3\nSPACE=A24\nM=7\nMEMORY=ramp\n"    // 64 KiB: 0x210000
                 "[Huge]\nLA=4\nSPACE=A32\nM=0\n"));               // 2 GiB: 0x80000000
  std::string t = r.b.resourceText();
  EXPECT_NE(std::string::npos, t.find("VXI_LA=2\n"));
  EXPECT_EQ(Read(0, 0x3000), r.read(A16, D16, cfg(2, 6)));
  EXPECT_EQ(Read(0, 0x2100), r.read(A16, D16, cfg(3, 6)));
  EXPECT_EQ(Read(0, 0x8000), r.read(A16, D16, cfg(4, 6)));
  // 2 GiB of sparse memory: the far end works without making it all
  EXPECT_EQ(0u, r.write(A32, D32, 0xFFFFFFFC, 0x01020304));
  EXPECT_EQ(Read(0, 0x01020304), r.read(A32, D32, 0xFFFFFFFC));
  EXPECT_EQ(Read(0, 3), r.read(A24, D16, 0x210000 + 6));
}
