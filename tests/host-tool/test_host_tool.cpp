// tcpvxi-host end to end: the real tool loads the real driver, which talks
// HiSLIP to a simulated bridge running in this test process.
#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <regex>
#include <thread>

#include "simhost.h"
#include "testkit.h"
#ifdef KV_HAVE_VXI11SIM
#include "../../tools/vxi11-sim/sim.h"
#endif

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
int tool(const std::string& commands, std::string* out, std::string lib = kLib,
         std::vector<std::string> extra = {}) {
  std::vector<std::string> argv = {kTool, "--lib", lib, "--keep-going"};
  argv.insert(argv.end(), extra.begin(), extra.end());
  if (!commands.empty()) argv.insert(argv.end(), {"-c", commands});
  Child c(argv);
  int rc = c.finish();
  *out = c.text;
  // In sanitizer builds the tool and the driver report there.
  EXPECT_EQ(std::string::npos, out->find("Sanitizer")) << *out;
  EXPECT_EQ(std::string::npos, out->find("runtime error")) << *out;
  return rc;
}

const std::string kResman = "[COMMON]\nNumIntf=1\n[INTF1]\nINTF_NUM=1\nADDR=127.0.0.1\nDEVNAME=simulated mainframe\n";

using sh::resmanPath;

void expectAll(const std::string& out, const std::vector<std::string>& want) {
  for (auto& w : want) EXPECT_NE(std::string::npos, out.find(w)) << "missing: " << w << "\n" << out;
}

class HostTool : public ::testing::Test {
 protected:
  void SetUp() override {
    sim_ = sh::startSim("127.0.0.1");
    sh::writeResmanText(kResman);
  }
  std::unique_ptr<bridgesim::Server> sim_;
};

}  // namespace

TEST_F(HostTool, LibraryWithoutTheEntryPointsIsRefused) {
  std::string out;
  EXPECT_EQ(2, tool("echo loaded", &out, "libm.so.6")) << out;
  expectAll(out, {"lacks: tcpvxi_start", "_Z10vintfWSclrtjj"});
}

// What a user who mistypes, forgets the file or has no bridge is told; the
// refused commands never reach the library.
TEST_F(HostTool, DiagnosticsSayWhatIsWrong) {
  // Something at 127.0.0.7:4880 that completes TCP connections (the kernel
  // does, from the backlog) but never says a word.
  int quiet = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in qa = kt::addr("127.0.0.7", 4880);
  ASSERT_EQ(0, bind(quiet, (sockaddr*)&qa, sizeof qa));
  ASSERT_EQ(0, listen(quiet, 16));
  struct Case {
    const char* resman;  // null: no file
    std::string commands;
    int rc;
    std::vector<std::string> want;
  } cases[] = {
      {nullptr, "start;open;stop", 0,
       {"resmantcpvxi.out (missing)", "0 interface(s)  [VI_SUCCESS", "hint: no resource file"}},
      {nullptr, "check", 1, {"problem: the resource file cannot be read", "1 problem(s) found"}},
      {"[COMMON]\nNumIntf=1\n[INTF1]\nINTF_NUM=1\nADDR=127.0.0.5\n", "start;open;stop", 0,
       {"TCP-VXI0 127.0.0.5 \"\": refused: nothing listens on 127.0.0.5:4880"}},
      {"[COMMON]\nNumIntf=1\n[INTF1]\nINTF_NUM=1\nADDR=127.0.0.7\n", "start;open;stop;check", 1,
       {"TCP-VXI0 127.0.0.7 \"\": silent: 127.0.0.7:4880 accepts connections but gives no HiSLIP answer",
        "problem: [INTF1] silent: 127.0.0.7:4880", "hint: 'check' diagnoses"}},
      {"[COMMON]\nNumIntf=2\n[INTF1]\nADDR=127.0.0.1\n", "check", 1,
       {"[INTF1] has no INTF_NUM", "[INTF1] 127.0.0.1 \"\": reached", "NumIntf=2"}},
      {kResman.c_str(), "in16 0 a16 0", 1, {"error: the driver is not started", "hint: run 'start'"}},
      {kResman.c_str(),
       "start;open;ws-query VXI0::99::INSTR x;attr 0 6;ws-stb 0 la:7;in16 1 a16 0;ws-clr VXI1::16::INSTR;"
       "out16 0 a16 0xC000 0x12345;in16 0 a24 0x1000000;in32 0 a16 2;stop",
       1,
       {"no instrument VXI0::99::INSTR on TCP-VXI0: its logical addresses are 0, 8, 16, 24, 32, 40",
        "no instrument 6 on TCP-VXI0: it has 6 instrument(s), indexes 0 to 5",
        "no instrument la:7 on TCP-VXI0", "no interface 1: the driver has 1 interface(s)",
        "the driver has no interface 1", "value 0x12345 is out of range (at most 0xFFFF",
        "offset 0x1000000 is out of range", "not aligned"}},
      {kResman.c_str(), "echo \"unterminated", 1, {"unterminated double quote"}},
  };
  for (auto& c : cases) {
    std::remove(resmanPath().c_str());
    if (c.resman) sh::writeResmanText(c.resman);
    std::string out;
    EXPECT_EQ(c.rc, tool(c.commands, &out)) << c.commands << "\n" << out;
    expectAll(out, c.want);
  }
  close(quiet);
}

// Another host (127.0.0.2) holds the bridge's lock: open says so.
TEST_F(HostTool, OpenTellsALockRefusedBridge) {
  using namespace kt;
  auto from2 = [] {
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in me = addr("127.0.0.2", 0), bridge = addr("127.0.0.1", 4880);
    EXPECT_EQ(0, bind(fd, (sockaddr*)&me, sizeof me));
    EXPECT_EQ(0, connect(fd, (sockaddr*)&bridge, sizeof bridge));
    return fd;
  };
  int fd = from2(), afd = from2();
  ASSERT_TRUE(sendMsg(fd, 0, 0, 0x01000E76, "inst0"));  // Initialize
  Msg init = readMsg(fd);
  ASSERT_EQ(1, init.type);
  ASSERT_TRUE(sendMsg(afd, 17, 0, init.param & 0xFFFF));  // AsyncInitialize
  ASSERT_EQ(18, readMsg(afd).type);
  ASSERT_TRUE(sendMsg(fd, 128, 0, 0, words({1, 1000})));  // lock the bridge to 127.0.0.2
  ASSERT_EQ(128, readMsg(fd).type);
  std::string out;
  EXPECT_EQ(0, tool("start;open;stop", &out)) << out;
  expectAll(out, {"TCP-VXI0 127.0.0.1 \"simulated mainframe\": lock-refused: the bridge answers but would not lock"});
  close(fd);
  close(afd);
}

TEST_F(HostTool, ConfigEditsTheFileWithABackup) {
  std::remove(resmanPath().c_str());
  std::string out;
  EXPECT_EQ(0, tool("config add 127.0.0.1 mainframe;config add 127.0.0.9;config remove 127.0.0.9;"
                    "!config add localhost;!config remove 10.0.0.1", &out)) << out;
  std::ifstream f(resmanPath()), b(resmanPath() + ".bak");
  std::string now((std::istreambuf_iterator<char>(f)), {}), bak((std::istreambuf_iterator<char>(b)), {});
  EXPECT_EQ("[COMMON]\nNumIntf=1\n[INTF1]\nINTF_NUM=1\nADDR=127.0.0.1\nDEVNAME=mainframe\n", now);
  EXPECT_NE(std::string::npos, bak.find("ADDR=127.0.0.9")) << bak;
  EXPECT_EQ(0, tool("start;open;stop", &out)) << out;
  expectAll(out, {"TCP-VXI0 127.0.0.1 \"mainframe\": reached, 6 instrument(s)"});
}

// Quotes and escapes, statuses by name and meaning, the decoded state, and
// the entry points that have no other command.
TEST_F(HostTool, GrammarStatusesAndEveryEntryPoint) {
  std::string out;
  EXPECT_EQ(0, tool("start;open;echo \"a b\" 'c\\n' \\x41\\;;ws-write VXI0::16::INSTR \"*SRE 16\\n\";"
                    "!in16 0 a16 0xD900;state TCP-VXI0;peek16 0 a16 0xC000;poke16 0 a16 0xC41E 0;"
                    "peek8 0 a16 0xC001;poke8 0 a16 0xC41E 0;peek32 0 a16 0xC000;poke32 0 a24 0x200000 7;"
                    "in32 0 a24 0x200000;irq-add 0 16;irq-del 0 16;initvxi 0 1;inithost 0;"
                    "!set-attr 0 la:16 VI_ATTR_SLOT 3;copy 0 a24 0x200000 0x200010 1 32;in32 0 a24 0x200010;"
                    "status VI_ERROR_INV_MODE;stop",
                    &out))
      << out;
  expectAll(out, {"\na b c\\\\n A;\n", "wrote 8 byte(s)  [VI_SUCCESS",
                  "[VI_ERROR_BERR (0xBFFF0038)] bus error", "SYSFAIL", "0xBFFB  (Peek reports no status)",
                  "0x00000007  [VI_SUCCESS", "[VI_ERROR_ATTR_READONLY (0xBFFF001F)]",
                  "0xBFFF0091 VI_ERROR_INV_MODE: invalid mode"});
  EXPECT_EQ(2u, [&] {
    size_t n = 0;
    for (size_t p = out.find("0x00000007  [VI_SUCCESS"); p != std::string::npos;
         p = out.find("0x00000007  [VI_SUCCESS", p + 1))
      n++;
    return n;
  }()) << out;  // the copy reached the second address
}

TEST_F(HostTool, JsonObjectPerCommandParsesBack) {
  std::string out;
  tool("start;open;list;in16 0 a16 0xD900;state 0;ws-query 0 la:99 x;movein16 0 a24 0x200000 2;bogus;stop", &out,
       kLib, {"--json"});
  std::string file = std::string(getenv("HOME")) + "/out.json";
  std::ofstream(file) << out;
  // Each line one object; print command, ok and name for the checks below.
  std::string py = "/usr/bin/python3 -c 'import json,sys\nfor l in open(sys.argv[1]):\n o=json.loads(l)\n"
                   " print(o[\"command\"].split()[0], o[\"ok\"], o.get(\"name\"), len(o[\"data\"]), "
                   "o.get(\"error\",\"\")[:20])' " + file;
  FILE* p = popen(py.c_str(), "r");
  ASSERT_NE(nullptr, p);
  std::string parsed;
  char buf[512];
  while (fgets(buf, sizeof buf, p)) parsed += buf;
  EXPECT_EQ(0, pclose(p)) << out;
  EXPECT_EQ("start True VI_SUCCESS 0 \nopen True VI_SUCCESS 4 \nlist True VI_SUCCESS 1 \n"
            "in16 False VI_ERROR_BERR 1 \nstate True VI_SUCCESS 3 \nws-query False None 0 no instrument la:99 \n"
            "movein16 True VI_SUCCESS 5 \nbogus False None 0 unknown command 'bog\nstop True VI_SUCCESS 0 \n",
            parsed)
      << out;
}

TEST_F(HostTool, BlockMovesThroughFilesAndTheSwapWarning) {
  std::string home = getenv("HOME");
  std::string data(40000, 0);
  for (size_t i = 0; i < data.size(); i++) data[i] = (char)(i * 7 + i / 256);
  std::ofstream(home + "/in.bin", std::ios::binary) << data;
  std::string out;
  EXPECT_EQ(0, tool("start;open;moveout32 0 a24 0x200000 file:" + home + "/in.bin;movein32 0 a24 0x200000 10000 file=" +
                        home + "/out.bin;movein16 0 a24 0x200000 4 --swap;movein8 0 a24 0x200000 40000 hex=16;stop",
                    &out))
      << out;
  std::ifstream f(home + "/out.bin", std::ios::binary);
  std::string back((std::istreambuf_iterator<char>(f)), {});
  EXPECT_TRUE(back == data) << "file round trip differs: " << back.size() << " bytes\n" << out;
  expectAll(out, {"40000 bytes in", "MB/s)", "note: a byte-swapped block read shifts by one element",
                  "... 39984 more byte(s) not shown"});
  EXPECT_EQ(std::string::npos, out.find("  000010:")) << "hex is bounded";
}

TEST_F(HostTool, InterruptReportsAndCtrlCLeaveTheToolRunning) {
  Child c({kTool, "--lib", kLib});
  ASSERT_GT(c.pid, 0);
  c.write("start\nopen\nirq on\nirq-test 0 0xFD10 wait=30000\necho sleeping\nsleep 600000\n");
  EXPECT_TRUE(c.waitFor("[interrupt] VI_EVENT_VXI_VME_INTR from interface 0 instrument 2: status/ID 0xFD10"))
      << c.text;
  ASSERT_TRUE(c.waitFor("sleeping")) << c.text;
  // Ctrl-C during the long sleep ends the sleep, not the tool.  (Repeated:
  // one that lands before the sleep has begun is dropped with its line.)
  for (int i = 0; i < 100 && !c.waitFor("error: interrupted", 200); i++) kill(c.pid, SIGINT);
  c.write("echo still here\nirq off\nstop\n");
  EXPECT_TRUE(c.waitFor("still here")) << c.text;
  EXPECT_EQ(1, c.finish()) << c.text;  // the interrupted sleep counts as failed
}

TEST_F(HostTool, InstrumentsOverHislipAndVxi11) {
  std::string out;
  EXPECT_EQ(0, tool("", &out, kLib, {"instr", "TCPIP::127.0.0.1::hislip0::INSTR", "query", "*IDN?"})) << out;
  expectAll(out, {"\"Simulated,LAN-VXI Bridge,"});
  EXPECT_EQ(0, tool("", &out, kLib, {"--json", "benchmark", "TCPIP::127.0.0.1::hislip0::INSTR", "count=20"})) << out;
  expectAll(out, {"\"queries\":20", "\"queries_per_s\":", "\"p99\":"});
  EXPECT_EQ(1, tool("", &out, kLib, {"instr", "TCPIP::127.0.0.1::hislip0::FOO", "query", "x"})) << out;
  expectAll(out, {"error: not a TCPIP resource"});
  // A raw socket instrument: answers each line with "echo:" and the line.
  int ls = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in sa{};
  sa.sin_family = AF_INET;
  sa.sin_port = htons(5025);
  sa.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  ASSERT_EQ(0, bind(ls, (sockaddr*)&sa, sizeof sa));
  listen(ls, 1);
  std::thread raw([ls] {
    int c = accept(ls, nullptr, nullptr);
    std::string line;
    char ch;
    while (c >= 0 && read(c, &ch, 1) == 1)
      if (ch != '\n') line += ch;
      else {
        std::string a = "echo:" + line + "\n";
        if (write(c, a.data(), a.size()) < 0) break;
        line.clear();
      }
    close(c);
  });
  EXPECT_EQ(0, tool("instr TCPIP::127.0.0.1::5025::SOCKET query \"a b\";instr TCPIP::127.0.0.1::5025::SOCKET write x\\n;"
                    "instr TCPIP::127.0.0.1::5025::SOCKET read",
                    &out))
      << out;
  raw.join();
  close(ls);
  expectAll(out, {"\"echo:a b\\n\"  [VI_SUCCESS", "\"echo:x\\n\"  [VI_SUCCESS"});
#ifdef KV_HAVE_VXI11SIM
  vxi11sim::Options o;
  o.portmap = vxi11sim::PortmapMode::Own;
  vxi11sim::Simulator vxi(o);
  std::string why;
  ASSERT_TRUE(vxi.start(&why)) << why;
  const std::string r = "instr TCPIP::127.0.0.1::inst0::INSTR ";
  EXPECT_EQ(0, tool(r + "query *IDN?;" + r + "stb;" + r + "clear;" + r + "query-block \"ECHO? #15hello\";" + r + "close",
                    &out))
      << out;
  expectAll(out, {"status byte 0x", "device clear  [VI_SUCCESS", "block of 5 byte(s)  [VI_SUCCESS"});
#endif
}
