// tcpvxi-host end to end: the real tool loads the real driver, which talks
// HiSLIP to a simulated bridge running in this test process; its commands
// come from -c, its standard input, or a pseudo-terminal as a person types them.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <pty.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <fstream>

#include "simhost.h"
#include "testkit.h"
#ifdef KV_HAVE_VXI11SIM
#include "../../tools/vxi11-sim/sim.h"
#endif

namespace {

const std::string kTool = KV_BUILD_DIR "/tools/tcpvxi-host/tcpvxi-host";
const std::string kLib = KV_BUILD_DIR "/libtcpvxi.so";

// The text a terminal shows after receiving `raw`.  On a "dumb" terminal
// readline redraws a line with carriage returns, backspaces and blanks only.
std::string screenText(const std::string& raw) {
  std::string screen, line;  // the lines above the cursor, the cursor's line
  size_t col = 0;
  for (char c : raw) {
    if (c == '\r') {
      col = 0;
    } else if (c == '\n') {
      screen += line + "\n";
      line.clear();
      col = 0;
    } else if (c == '\b') {
      col -= col > 0;
    } else if (c != '\a') {
      if (line.size() <= col) line.resize(col + 1, ' ');
      line[col++] = c;
    }
  }
  return screen + line + "\n";
}

// The tool as a child process, on pipes (standard output and error merged)
// or on a pseudo-terminal.
struct Child {
  pid_t pid = -1;
  int in = -1, out = -1;
  std::string text;
  size_t pos = 0;  // where waitFor looks for the next text on the screen

  explicit Child(std::vector<std::string> argv, bool terminal = false) {
    int pin[2], pout[2];
    if (!terminal && (pipe2(pin, O_CLOEXEC) != 0 || pipe2(pout, O_CLOEXEC) != 0)) return;
    std::vector<char*> args;
    for (auto& a : argv) args.push_back(a.data());
    args.push_back(nullptr);
    winsize ws{50, 250, 0, 0};  // wide: no line of the test wraps
    pid = terminal ? forkpty(&out, nullptr, nullptr, &ws) : fork();
    if (pid == 0) {
      if (!terminal) {
        dup2(pin[0], 0);
        dup2(pout[1], 1);
        dup2(pout[1], 2);
      }
      setenv("TERM", "dumb", 1);  // no escape sequences to interpret
      execv(args[0], args.data());
      _exit(127);
    }
    if (terminal) {
      in = dup(out);
      return;
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
  // Reads until `want` shows on the screen at or after the line where the
  // previous text ended (a report may rewrite that line); empty: until the
  // end of output.  The limit guards against a hung tool, not a speed check.
  bool waitFor(const std::string& want, int limitMs = 60000) {
    auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(limitMs);
    for (;;) {
      std::string s = want.empty() ? "" : screenText(text);
      size_t at = want.empty() ? std::string::npos : s.find(want, pos);
      if (at != std::string::npos) {
        // From the start of the line the match ends on (a line's own '\n'
        // belongs to it): later output may lengthen that line.
        size_t last = at + want.size() - 1;
        size_t nl = last == 0 ? std::string::npos : s.rfind('\n', last - (s[last] == '\n'));
        pos = nl == std::string::npos ? 0 : nl;
        return true;
      }
      if (std::chrono::steady_clock::now() > end) return false;
      pollfd p{out, POLLIN, 0};
      if (poll(&p, 1, 100) <= 0) continue;
      char buf[4096];
      ssize_t n = read(out, buf, sizeof buf);
      if (n <= 0) return want.empty();  // end of output (a terminal: the tool has gone)
      text.append(buf, (size_t)n);
    }
  }
  std::string why() const { return "screen:\n" + screenText(text); }
  // Closes the input, reads to the end, returns the exit status (-1: hung).
  int finish() {
    close(in);
    in = -1;
    if (!waitFor("")) return -1;
    int st = 0;
    waitpid(pid, &st, 0);
    pid = -1;
    // In sanitizer builds the tool and the driver report there.
    EXPECT_EQ(std::string::npos, text.find("Sanitizer")) << text;
    EXPECT_EQ(std::string::npos, text.find("runtime error")) << text;
    return WIFEXITED(st) ? WEXITSTATUS(st) : 128 + WTERMSIG(st);
  }
};

// The tool with a list of commands (joined by ';', run with -c).
int tool(const std::string& commands, std::string* out, std::vector<std::string> extra = {}) {
  std::vector<std::string> argv = {kTool, "--lib", kLib, "--keep-going"};
  argv.insert(argv.end(), extra.begin(), extra.end());
  if (!commands.empty()) argv.insert(argv.end(), {"-c", commands});
  Child c(argv);
  int rc = c.finish();
  *out = c.text;
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
    bridgesim::ServerOptions o;
    o.rawPort = 5025;  // the raw-socket instrument behind 'instr ...::SOCKET'
    o.verbosity = 0;
    o.logSink = [](const std::string&) {};
    sim_ = std::make_unique<bridgesim::Server>(o);
    sim_->start();
    sh::writeResmanText(kResman);
  }
  std::unique_ptr<bridgesim::Server> sim_;
};

}  // namespace

TEST_F(HostTool, LibraryWithoutTheEntryPointsIsRefused) {
  Child c({kTool, "--lib", "libm.so.6", "-c", "echo loaded"});
  EXPECT_EQ(2, c.finish()) << c.text;
  expectAll(c.text, {"lacks: tcpvxi_start", "_Z10vintfWSclrtjj"});
}

// What a user who mistypes, forgets the file or has no bridge is told; the
// refused commands never reach the library.
TEST_F(HostTool, DiagnosticsSayWhatIsWrong) {
  // Something at 127.0.0.7:4880 that completes TCP connections (the kernel
  // does, from the backlog) but never says a word.
  int quiet = kt::listenOn("127.0.0.7", 4880);
  ASSERT_GE(quiet, 0);
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
  const std::string lock = kt::words({1, 1000});
  bridgesim::HostId other{kt::addr("127.0.0.2", 0).sin_addr.s_addr, 99};
  sim_->bridge().handleCommand(other, (const uint8_t*)lock.data(), lock.size());
  std::string out;
  EXPECT_EQ(0, tool("start;open;stop", &out)) << out;
  expectAll(out, {"TCP-VXI0 127.0.0.1 \"simulated mainframe\": lock-refused: the bridge answers but would not lock"});
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
  size_t first = out.find("0x00000007  [VI_SUCCESS");
  EXPECT_NE(std::string::npos, out.find("0x00000007  [VI_SUCCESS", first + 1)) << out;  // the copy arrived
}

// Commands on standard input (not a terminal), one JSON object per command.
TEST_F(HostTool, JsonObjectPerCommandParsesBack) {
  Child c({kTool, "--lib", kLib, "--json"});
  c.write("start\nopen\nlist\nin16 0 a16 0xD900\nstate 0\nws-query 0 la:99 x\nmovein16 0 a24 0x200000 2\n"
          "bogus\nstop\n");
  EXPECT_EQ(1, c.finish()) << c.text;
  const std::string& out = c.text;
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

// At the prompt on a terminal: completion, interrupt reports (also one
// arriving while a line is half typed), Ctrl-C at the prompt and during a
// long command.  The expected texts are looked for on the screen, in order.
TEST_F(HostTool, TerminalCompletionInterruptReportsAndCtrlC) {
  Child t({kTool, "--lib", kLib}, true);
  ASSERT_GT(t.pid, 0);
  enum Action { Type, Interrupt, CtrlCUntilSeen };
  struct Step {
    Action action;
    std::string keys;
    std::vector<std::string> want;  // in this order on the screen
  } steps[] = {
      {Type, "", {"tcpvxi> "}},
      {Type, "start\nopen\nirq on\n", {"reached, 6 instrument(s)", "tcpvxi> irq on\n[VI_SUCCESS (0x00000000)]\ntcpvxi> "}},
      {Type, "irq-test 0 0xFE10 wait=30000\n",
       {"[interrupt] VI_EVENT_VXI_VME_INTR from interface 0 instrument 2: status/ID 0xFE10", "tcpvxi> "}},
      // Commands complete on the first word, instrument names after it.
      {Type, "ws-q\t", {"tcpvxi> ws-query "}},
      {Type, "VXI0::1\t", {"tcpvxi> ws-query VXI0::16::INSTR "}},
      {Type, "\"*IDN?\"\n", {"\"Simulated,VXI Multimeter", "\ntcpvxi> "}},
      // A report while a line is half typed: on a line of its own above the
      // prompt, the line redrawn below it, what was typed still there.
      {Type, "echo half", {"tcpvxi> echo half"}},
      {Interrupt, "",
       {"\n[interrupt] VI_EVENT_VXI_VME_INTR from interface 0 instrument 2: status/ID 0xFD10, line 1\n"
        "tcpvxi> echo half\n"}},
      {Type, " way\n", {"tcpvxi> echo half way\nhalf way\ntcpvxi> "}},
      // Ctrl-C at the prompt drops the line, not the tool.
      {Type, "echo dropped", {"tcpvxi> echo dropped"}},
      {Type, "\x03", {"tcpvxi> echo dropped^C\ntcpvxi> "}},
      {Type, "echo kept\n", {"tcpvxi> echo kept\nkept\ntcpvxi> "}},
      // Ctrl-C during a long command ends the command; the prompt comes back.
      {Type, "sleep 5000000\n", {"tcpvxi> sleep 5000000\n"}},
      {CtrlCUntilSeen, "\x03", {"error: interrupted", "interrupted\ntcpvxi> "}},
      {Type, "echo back\n", {"tcpvxi> echo back\nback\ntcpvxi> "}},
      {Type, "stop\n", {"tcpvxi> stop\n[VI_SUCCESS (0x00000000)]\ntcpvxi> "}},
  };
  for (auto& s : steps) {
    if (s.action == Interrupt) sim_->sendInterrupt(1, 0xFD10);
    if (s.action == CtrlCUntilSeen) {
      // A Ctrl-C that lands before the command has begun belongs to the
      // prompt: repeat until the command reports it.
      bool seen = false;
      for (int i = 0; i < 100 && !seen; i++) {
        t.write(s.keys);
        seen = t.waitFor(s.want[0], 300);
      }
      ASSERT_TRUE(seen) << t.why();
    }
    if (s.action == Type) t.write(s.keys);
    for (size_t i = s.action == CtrlCUntilSeen; i < s.want.size(); i++)
      ASSERT_TRUE(t.waitFor(s.want[i])) << "waiting for: " << s.want[i] << "\n" << t.why();
  }
  t.write("\x04");  // Ctrl-D at the prompt ends the tool
  EXPECT_EQ(1, t.finish()) << "the interrupted sleep counts as failed\n" << t.why();
}

TEST_F(HostTool, InstrumentsOverHislipAndVxi11) {
  std::string out;
  EXPECT_EQ(0, tool("", &out, {"instr", "TCPIP::127.0.0.1::hislip0::INSTR", "query", "*IDN?"})) << out;
  expectAll(out, {"\"Simulated,LAN-VXI Bridge,"});
  EXPECT_EQ(0, tool("", &out, {"--json", "benchmark", "TCPIP::127.0.0.1::hislip0::INSTR", "count=20"})) << out;
  expectAll(out, {"\"queries\":20", "\"queries_per_s\":", "\"p99\":"});
  EXPECT_EQ(1, tool("", &out, {"instr", "TCPIP::127.0.0.1::hislip0::FOO", "query", "x"})) << out;
  expectAll(out, {"error: not a TCPIP resource"});
  const std::string raw = "instr TCPIP::127.0.0.1::5025::SOCKET ";
  EXPECT_EQ(0, tool(raw + "query *IDN?;" + raw + "write *TST?\\n;" + raw + "read", &out)) << out;
  expectAll(out, {"\"Simulated,LAN-VXI Bridge,SIM0001,1.0\\n\"  [VI_SUCCESS", "\"0\\n\"  [VI_SUCCESS"});
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
