// tcpvxi-host end to end: the real tool loads the real driver, which talks
// HiSLIP to a simulated bridge running in this test process.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <map>
#include <regex>
#include <sstream>

#include "child.h"
#include "sim.h"

using hosttest::Child;

namespace {

const std::string kTool = KV_BUILD_DIR "/tools/tcpvxi-host/tcpvxi-host";
const std::string kLib = KV_BUILD_DIR "/libtcpvxi.so";

// One instrument as the bridge describes it in its resource text.
struct Instr {
  unsigned index = 0;
  std::string name;
  unsigned la = 0, manfId = 0, modelCode = 0, devClass = 0;
  unsigned long offA24 = 0, sizeA24 = 0;
};

std::string lower(std::string s) {
  for (char& c : s) c = (char)tolower((unsigned char)c);
  return s;
}

std::string trim(const std::string& s) {
  size_t b = s.find_first_not_of(" \t\r"), e = s.find_last_not_of(" \t\r");
  return b == std::string::npos ? std::string() : s.substr(b, e - b + 1);
}

// Just enough INI for the bridge's text: [section] and name=value lines.
std::map<std::string, std::map<std::string, std::string>> parseIni(const std::string& text) {
  std::map<std::string, std::map<std::string, std::string>> ini;
  std::istringstream in(text);
  std::string line, sec;
  while (std::getline(in, line)) {
    line = trim(line);
    if (line.size() > 2 && line[0] == '[' && line.back() == ']') {
      sec = lower(trim(line.substr(1, line.size() - 2)));
    } else if (auto eq = line.find('='); eq != std::string::npos) {
      ini[sec][lower(trim(line.substr(0, eq)))] = trim(line.substr(eq + 1));
    }
  }
  return ini;
}

std::vector<Instr> instruments(const std::string& text) {
  auto ini = parseIni(text);
  std::vector<Instr> v;
  int n = atoi(ini["common"]["numinstr"].c_str());
  for (int j = 1; j <= n && j <= 64; j++) {
    auto& s = ini["instr" + std::to_string(j)];
    if (s.empty()) continue;
    auto u = [&](const char* k) { return strtoul(s[k].c_str(), nullptr, 0); };
    Instr i;
    i.index = (unsigned)v.size();
    i.name = s["rsrc_name"];
    i.la = (unsigned)u("vxi_la");
    i.manfId = (unsigned)u("manf_id");
    i.modelCode = (unsigned)u("model_code");
    i.devClass = (unsigned)u("vxi_dev_class");
    i.offA24 = u("offseta24");
    i.sizeA24 = u("sizea24");
    v.push_back(i);
  }
  return v;
}

void writeResmanFile(const std::string& body) {
  const char* home = getenv("HOME");
  ASSERT_NE(nullptr, home);
  std::string dir = std::string(home) + "/.config";
  mkdir(dir.c_str(), 0700);
  dir += "/tarvelo";
  mkdir(dir.c_str(), 0700);
  dir += "/visa";
  mkdir(dir.c_str(), 0700);
  std::ofstream f(dir + "/resmantcpvxi.out");
  f << body;
}

const char kOneBridge[] =
    "[COMMON]\nNumIntf=1\n[INTF1]\nINTF_NUM=1\nADDR=127.0.0.1\nDEVNAME=simulated mainframe\n";

// The tool with a list of commands (joined by ';', run with -c).
int tool(const std::string& commands, std::string* out) {
  int rc = hosttest::run({kTool, "--lib", kLib, "--keep-going", "-c", commands}, out);
  // In sanitizer builds the tool and the driver report there.
  EXPECT_EQ(std::string::npos, out->find("Sanitizer")) << *out;
  EXPECT_EQ(std::string::npos, out->find("runtime error")) << *out;
  return rc;
}

class HostTool : public ::testing::Test {
 protected:
  void SetUp() override {
    bridgesim::ServerOptions o;
    o.address = "127.0.0.1";
    o.verbosity = 0;
    o.logSink = [](const std::string&) {};
    sim_ = std::make_unique<bridgesim::Server>(o);
    sim_->start();
    writeResmanFile(kOneBridge);
    instr_ = instruments(sim_->bridge().resourceText());
  }

  // The checks below need the mainframe model behind the bridge.
  bool mainframe() {
    uint32_t cmd[2] = {3, 0};
    auto a = sim_->bridge().handleCommand(bridgesim::HostId{}, reinterpret_cast<const uint8_t*>(cmd), 8);
    int32_t st = -1;
    if (a.size() >= 4) memcpy(&st, a.data(), 4);
    return st >= 0 && !instr_.empty();
  }

  const Instr* find(const std::function<bool(const Instr&)>& pred) {
    for (auto& i : instr_)
      if (pred(i)) return &i;
    return nullptr;
  }

  std::unique_ptr<bridgesim::Server> sim_;
  std::vector<Instr> instr_;
};

#define NEED_MAINFRAME()                                                                          \
  do {                                                                                            \
    if (!mainframe())                                                                             \
      GTEST_SKIP() << "the simulated bridge has no mainframe model yet: every bridge command, the " \
                      "lock included, is refused, so the driver offers no interface";             \
  } while (0)

// Value printed by the register commands: "0x1234  [VI_SUCCESS (0x00000000)]".
bool registerValue(const std::string& out, unsigned* v) {
  std::smatch m;
  static const std::regex re("\\n0x([0-9A-F]+)  \\[VI_SUCCESS");
  if (!std::regex_search(out, m, re)) return false;
  *v = (unsigned)strtoul(m[1].str().c_str(), nullptr, 16);
  return true;
}

}  // namespace

TEST_F(HostTool, EveryEntryPointResolves) {
  std::string out;
  EXPECT_EQ(0, tool("echo loaded", &out)) << out;
  EXPECT_NE(std::string::npos, out.find("loaded")) << out;
  EXPECT_EQ(std::string::npos, out.find("lacks")) << out;

  // A library without the entry points is refused with exit status 2 and
  // the names it lacks.
  EXPECT_EQ(2, hosttest::run({kTool, "--lib", "libm.so.6", "-c", "echo loaded"}, &out)) << out;
  EXPECT_NE(std::string::npos, out.find("lacks: tcpvxi_start")) << out;
  EXPECT_NE(std::string::npos, out.find("_Z10vintfWSclrtjj")) << out;
  EXPECT_EQ(std::string::npos, out.find("loaded"));
}

TEST_F(HostTool, WithoutResourceFileThereIsNoInterface) {
  std::string home = getenv("HOME");
  std::remove((home + "/.config/tarvelo/visa/resmantcpvxi.out").c_str());
  std::string out;
  EXPECT_EQ(1, tool("start;open;list;in16 0 a16 0xC000;stop", &out)) << out;
  EXPECT_NE(std::string::npos, out.find("\nHave no resman file TCPVXI\n")) << out;
  EXPECT_NE(std::string::npos, out.find("0 interface(s)  [VI_SUCCESS")) << out;
  EXPECT_EQ(std::string::npos, out.find("interface 0 ")) << out;
  // Interface 0 does not exist.
  EXPECT_NE(std::string::npos, out.find("[VI_ERROR_SYSTEM_ERROR (0xBFFF0000)]")) << out;
}

TEST_F(HostTool, UnreachableBridgeIsListedWithoutInstruments) {
  writeResmanFile("[COMMON]\nNumIntf=1\n[INTF1]\nINTF_NUM=1\nADDR=127.0.0.5\nDEVNAME=absent\n");
  std::string out;
  EXPECT_EQ(1, tool("start;open;list;in16 0 a16 0xC000;stop", &out)) << out;  // the read fails
  EXPECT_NE(std::string::npos, out.find("1 interface(s)  [VI_SUCCESS")) << out;
  EXPECT_NE(std::string::npos, out.find("interface 0 (TCP-VXI0): 0 instrument(s)")) << out;
  EXPECT_NE(std::string::npos, out.find("[VI_ERROR_CONN_LOST (0xBFFF00A6)]")) << out;
}

TEST_F(HostTool, ListShowsTheSimulatedInstruments) {
  NEED_MAINFRAME();
  std::string out;
  EXPECT_EQ(0, tool("start;open;list;stop", &out)) << out;
  EXPECT_NE(std::string::npos, out.find("1 interface(s)  [VI_SUCCESS")) << out;
  EXPECT_NE(std::string::npos,
            out.find("interface 0 (TCP-VXI0): " + std::to_string(instr_.size()) + " instrument(s)"))
      << out;
  for (auto& i : instr_) {
    char line[128];
    snprintf(line, sizeof line, "  [%u] \"%s\"", i.index, i.name.c_str());
    EXPECT_NE(std::string::npos, out.find(line)) << line << "\n" << out;
    snprintf(line, sizeof line, "LA %u (0x%X)", i.la, i.la);
    EXPECT_NE(std::string::npos, out.find(line)) << line << "\n" << out;
  }
}

TEST_F(HostTool, ConfigurationRegistersAgreeWithTheResourceText) {
  NEED_MAINFRAME();
  for (auto& i : instr_) {
    char cmd[128];
    unsigned base = 0xC000 + 0x40 * i.la;
    snprintf(cmd, sizeof cmd, "start;open;in16 0 a16 0x%X", base);
    std::string out;
    EXPECT_EQ(0, tool(std::string(cmd) + ";stop", &out)) << out;
    unsigned id = 0;
    ASSERT_TRUE(registerValue(out, &id)) << out;
    EXPECT_EQ(i.manfId, id & 0xFFF) << i.name;
    EXPECT_EQ(i.devClass, id >> 14) << i.name;

    snprintf(cmd, sizeof cmd, "start;open;in16 0 a16 0x%X", base + 2);
    EXPECT_EQ(0, tool(std::string(cmd) + ";stop", &out)) << out;
    unsigned type = 0;
    ASSERT_TRUE(registerValue(out, &type)) << out;
    EXPECT_EQ(i.modelCode & 0xFFF, type & 0xFFF) << i.name;
  }
}

TEST_F(HostTool, BlockMoveRoundTrip) {
  NEED_MAINFRAME();
  const Instr* mem = find([](const Instr& i) { return i.sizeA24 >= 64; });
  if (!mem) GTEST_SKIP() << "the mainframe has no A24 memory";
  char cmd[256];
  snprintf(cmd, sizeof cmd,
           "start;open;moveout32 0 a24 0x%lX 0x11223344,0x55667788,0xDEADBEEF,0x01020304;"
           "movein32 0 a24 0x%lX 4;movein8 0 a24 0x%lX 4;stop",
           mem->offA24, mem->offA24, mem->offA24);
  std::string out;
  EXPECT_EQ(0, tool(cmd, &out)) << out;
  EXPECT_NE(std::string::npos, out.find("4 element(s)  [VI_SUCCESS")) << out;
  EXPECT_NE(std::string::npos, out.find("  000000: 11223344 55667788 deadbeef 01020304")) << out;
  // The same bytes, one at a time: VXI memory is big-endian on the bus.
  EXPECT_NE(std::string::npos, out.find("  000000: 11 22 33 44")) << out;
}

TEST_F(HostTool, WordSerialQuery) {
  NEED_MAINFRAME();
  const Instr* mb = find([](const Instr& i) { return i.devClass == 2 && i.la != 0; });
  if (!mb) mb = find([](const Instr& i) { return i.devClass == 2; });
  ASSERT_NE(nullptr, mb) << "no message-based instrument in the mainframe";
  std::string out;
  EXPECT_EQ(0, tool("start;open;ws-query 0 " + std::to_string(mb->index) + " *IDN?;stop", &out)) << out;
  EXPECT_NE(std::string::npos, out.find("wrote 6 byte(s)  [VI_SUCCESS")) << out;
  // maker,model,serial,firmware (the line feed is shown escaped)
  // A read that ends on END reports a positive (success) status.
  static const std::regex idn("\"[^\",]+,[^\",]+,[^\",]+,[^\",]+(\\\\n)?\"  \\[(VI_SUCCESS|ended at END)");
  EXPECT_TRUE(std::regex_search(out, idn)) << out;
}

TEST_F(HostTool, TestInterruptReachesTheCallback) {
  NEED_MAINFRAME();
  Child c({kTool, "--lib", kLib, "--keep-going"});
  ASSERT_TRUE(c.started());
  c.write("start\nopen\nirq on\nirq-test 0 0x1234\n");
  // The report comes on the driver's receive thread, some time after the
  // command's own answer.
  EXPECT_TRUE(c.waitFor("[interrupt] event 0xBFFF2021")) << c.output();
  c.write("irq off\nstop\nquit\n");
  EXPECT_EQ(0, c.finish()) << c.output();
  EXPECT_NE(std::string::npos, c.output().find("status/ID 0x1234")) << c.output();
}
