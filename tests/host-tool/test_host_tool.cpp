// tcpvxi-host end to end: the real tool loads the real driver, which talks
// HiSLIP to a simulated bridge running in this test process.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <regex>

#include "sim.h"

namespace {

const std::string kTool = KV_BUILD_DIR "/tools/tcpvxi-host/tcpvxi-host";
const std::string kLib = KV_BUILD_DIR "/libtcpvxi.so";

// The tool as a child process: commands on its standard input, standard
// output and error merged on one pipe.
struct Child {
  pid_t pid = -1;
  int in = -1, out = -1;
  std::string text;
  explicit Child(std::vector<std::string> argv) {
    int pin[2], pout[2];
    if (pipe2(pin, O_CLOEXEC) != 0 || pipe2(pout, O_CLOEXEC) != 0) return;
    std::vector<char*> args;
    for (auto& a : argv) args.push_back(a.data());
    args.push_back(nullptr);
    pid = fork();
    if (pid == 0) {
      dup2(pin[0], 0);
      dup2(pout[1], 1);
      dup2(pout[1], 2);
      execv(args[0], args.data());
      _exit(127);
    }
    close(pin[0]);
    close(pout[1]);
    in = pin[1];
    out = pout[0];
    signal(SIGPIPE, SIG_IGN);
  }
  ~Child() {
    if (pid > 0) {
      kill(pid, SIGKILL);
      waitpid(pid, nullptr, 0);
    }
    if (in >= 0) close(in);
    if (out >= 0) close(out);
  }
  void write(const std::string& s) { EXPECT_EQ(::write(in, s.data(), s.size()), (ssize_t)s.size()); }
  // Reads until `want` has appeared (empty: until end of output); the limit
  // guards against a hanging child, it is not a speed check.
  bool waitFor(const std::string& want, int limitMs = 60000) {
    auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(limitMs);
    while (want.empty() || text.find(want) == std::string::npos) {
      if (std::chrono::steady_clock::now() > end) return false;
      pollfd p{out, POLLIN, 0};
      if (poll(&p, 1, 100) <= 0) continue;
      char buf[4096];
      ssize_t n = read(out, buf, sizeof buf);
      if (n <= 0) return want.empty();  // end of output
      text.append(buf, (size_t)n);
    }
    return true;
  }
  // Closes the input, reads to the end, returns the exit status (-1: hung).
  int finish() {
    close(in);
    in = -1;
    if (!waitFor("")) return -1;
    int st = 0;
    waitpid(pid, &st, 0);
    pid = -1;
    return WIFEXITED(st) ? WEXITSTATUS(st) : 128 + WTERMSIG(st);
  }
};

// The tool with a list of commands (joined by ';', run with -c).
int tool(const std::string& commands, std::string* out, std::string lib = kLib) {
  Child c({kTool, "--lib", lib, "--keep-going", "-c", commands});
  int rc = c.finish();
  *out = c.text;
  // In sanitizer builds the tool and the driver report there.
  EXPECT_EQ(std::string::npos, out->find("Sanitizer")) << *out;
  EXPECT_EQ(std::string::npos, out->find("runtime error")) << *out;
  return rc;
}

// One instrument as the bridge describes it in its resource text.
struct Instr {
  unsigned index = 0;
  std::string name;
  unsigned la = 0, manfId = 0, modelCode = 0, devClass = 0, offA24 = 0, sizeA24 = 0;
};

// The [INSTRn] sections of the bridge's resource text, in order.
std::vector<Instr> instruments(const std::string& text) {
  std::vector<Instr> v;
  for (size_t at = text.find("\n[INSTR"); at != std::string::npos; at = text.find("\n[INSTR", at + 1)) {
    std::string sec = text.substr(at, text.find("\n[", at + 1) - at) + "\n";
    auto val = [&](const std::string& key) {
      size_t k = sec.find("\n" + key + "="), b = k + key.size() + 2;
      return k == std::string::npos ? std::string() : sec.substr(b, sec.find('\n', b) - b);
    };
    auto u = [&](const char* key) { return (unsigned)strtoul(val(key).c_str(), nullptr, 0); };
    v.push_back({(unsigned)v.size(), val("RSRC_NAME"), u("VXI_LA"), u("MANF_ID"), u("MODEL_CODE"),
                 u("VXI_DEV_CLASS"), u("offsetA24"), u("sizeA24")});
  }
  return v;
}

void writeResmanFile(const std::string& body) {
  std::string dir = std::string(getenv("HOME"));  // isolated: a temporary one
  for (const char* d : {"/.config", "/tarvelo", "/visa"}) mkdir((dir += d).c_str(), 0700);
  std::ofstream(dir + "/resmantcpvxi.out") << body;
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
    writeResmanFile("[COMMON]\nNumIntf=1\n[INTF1]\nINTF_NUM=1\nADDR=127.0.0.1\nDEVNAME=simulated mainframe\n");
    instr_ = instruments(sim_->bridge().resourceText());
    ASSERT_FALSE(instr_.empty());
  }
  const Instr* find(const std::function<bool(const Instr&)>& pred) {
    auto it = std::find_if(instr_.begin(), instr_.end(), pred);
    return it == instr_.end() ? nullptr : &*it;
  }
  std::unique_ptr<bridgesim::Server> sim_;
  std::vector<Instr> instr_;
};

}  // namespace

TEST_F(HostTool, EveryEntryPointResolves) {
  std::string out;
  EXPECT_EQ(0, tool("echo loaded", &out)) << out;
  EXPECT_NE(std::string::npos, out.find("loaded")) << out;
  EXPECT_EQ(std::string::npos, out.find("lacks")) << out;
  // A library without the entry points is refused with exit status 2 and
  // the names it lacks.
  EXPECT_EQ(2, tool("echo loaded", &out, "libm.so.6")) << out;
  EXPECT_NE(std::string::npos, out.find("lacks: tcpvxi_start")) << out;
  EXPECT_NE(std::string::npos, out.find("_Z10vintfWSclrtjj")) << out;
  EXPECT_EQ(std::string::npos, out.find("loaded"));
}

TEST_F(HostTool, MissingResourceFileOrUnreachableBridge) {
  std::remove((std::string(getenv("HOME")) + "/.config/tarvelo/visa/resmantcpvxi.out").c_str());
  std::string out;
  EXPECT_EQ(1, tool("start;open;list;in16 0 a16 0xC000;stop", &out)) << out;
  EXPECT_NE(std::string::npos, out.find("\nHave no resman file TCPVXI\n")) << out;
  EXPECT_NE(std::string::npos, out.find("0 interface(s)  [VI_SUCCESS")) << out;
  EXPECT_EQ(std::string::npos, out.find("interface 0 ")) << out;
  EXPECT_NE(std::string::npos, out.find("[VI_ERROR_SYSTEM_ERROR (0xBFFF0000)]")) << out;  // no interface 0

  writeResmanFile("[COMMON]\nNumIntf=1\n[INTF1]\nINTF_NUM=1\nADDR=127.0.0.5\nDEVNAME=absent\n");
  EXPECT_EQ(1, tool("start;open;list;in16 0 a16 0xC000;stop", &out)) << out;  // the read fails
  EXPECT_NE(std::string::npos, out.find("1 interface(s)  [VI_SUCCESS")) << out;
  EXPECT_NE(std::string::npos, out.find("interface 0 (TCP-VXI0): 0 instrument(s)")) << out;
  EXPECT_NE(std::string::npos, out.find("[VI_ERROR_CONN_LOST (0xBFFF00A6)]")) << out;
}

// The list and each instrument's ID and device type registers (A16 0xC000 +
// 0x40 * LA) agree with the bridge's resource text.
TEST_F(HostTool, ListAndConfigurationRegistersAgreeWithTheResourceText) {
  std::string cmds = "start;open;list";
  for (auto& i : instr_) {
    char c[96];
    snprintf(c, sizeof c, ";in16 0 a16 0x%X;in16 0 a16 0x%X", 0xC000 + 0x40 * i.la, 0xC002 + 0x40 * i.la);
    cmds += c;
  }
  std::string out;
  EXPECT_EQ(0, tool(cmds + ";stop", &out)) << out;
  EXPECT_NE(std::string::npos, out.find("1 interface(s)  [VI_SUCCESS")) << out;
  EXPECT_NE(std::string::npos,
            out.find("interface 0 (TCP-VXI0): " + std::to_string(instr_.size()) + " instrument(s)"))
      << out;
  // Values printed by the register commands: "0x1234  [VI_SUCCESS (0x00000000)]".
  static const std::regex re("\\n0x([0-9A-F]+)  \\[VI_SUCCESS");
  std::vector<unsigned> regs;
  for (std::sregex_iterator m(out.begin(), out.end(), re), e; m != e; ++m)
    regs.push_back((unsigned)strtoul((*m)[1].str().c_str(), nullptr, 16));
  ASSERT_EQ(regs.size(), 2 * instr_.size()) << out;
  for (auto& i : instr_) {
    char line[128];
    snprintf(line, sizeof line, "  [%u] \"%s\"", i.index, i.name.c_str());
    EXPECT_NE(std::string::npos, out.find(line)) << line << "\n" << out;
    snprintf(line, sizeof line, "LA %u (0x%X)", i.la, i.la);
    EXPECT_NE(std::string::npos, out.find(line)) << line << "\n" << out;
    unsigned id = regs[2 * i.index], type = regs[2 * i.index + 1];
    EXPECT_EQ(i.manfId, id & 0xFFF) << i.name;
    EXPECT_EQ(i.devClass, id >> 14) << i.name;
    EXPECT_EQ(i.modelCode & 0xFFF, type & 0xFFF) << i.name;
  }
}

TEST_F(HostTool, BlockMoveRoundTripAndWordSerialQuery) {
  const Instr* mem = find([](const Instr& i) { return i.sizeA24 >= 64; });
  ASSERT_NE(nullptr, mem) << "the mainframe has no A24 memory";
  const Instr* mb = find([](const Instr& i) { return i.devClass == 2 && i.la != 0; });
  if (!mb) mb = find([](const Instr& i) { return i.devClass == 2; });
  ASSERT_NE(nullptr, mb) << "no message-based instrument in the mainframe";
  char cmd[320];
  snprintf(cmd, sizeof cmd,
           "start;open;moveout32 0 a24 0x%X 0x11223344,0x55667788,0xDEADBEEF,0x01020304;"
           "movein32 0 a24 0x%X 4;movein8 0 a24 0x%X 4;ws-query 0 %u *IDN?;stop",
           mem->offA24, mem->offA24, mem->offA24, mb->index);
  std::string out;
  EXPECT_EQ(0, tool(cmd, &out)) << out;
  EXPECT_NE(std::string::npos, out.find("4 element(s)  [VI_SUCCESS")) << out;
  EXPECT_NE(std::string::npos, out.find("  000000: 11223344 55667788 deadbeef 01020304")) << out;
  // The same bytes, one at a time: VXI memory is big-endian on the bus.
  EXPECT_NE(std::string::npos, out.find("  000000: 11 22 33 44")) << out;
  EXPECT_NE(std::string::npos, out.find("wrote 6 byte(s)  [VI_SUCCESS")) << out;
  // maker,model,serial,firmware (the line feed is shown escaped); a read
  // that ends on END reports a positive (success) status.
  static const std::regex idn("\"[^\",]+,[^\",]+,[^\",]+,[^\",]+(\\\\n)?\"  \\[(VI_SUCCESS|ended at END)");
  EXPECT_TRUE(std::regex_search(out, idn)) << out;
}

TEST_F(HostTool, TestInterruptReachesTheCallback) {
  Child c({kTool, "--lib", kLib, "--keep-going"});
  ASSERT_GT(c.pid, 0);
  c.write("start\nopen\nirq on\nirq-test 0 0x1234\n");
  // The report comes on the driver's receive thread, some time after the
  // command's own answer.
  EXPECT_TRUE(c.waitFor("[interrupt] event 0xBFFF2021")) << c.text;
  c.write("irq off\nstop\nquit\n");
  EXPECT_EQ(0, c.finish()) << c.text;
  EXPECT_NE(std::string::npos, c.text.find("status/ID 0x1234")) << c.text;
}
