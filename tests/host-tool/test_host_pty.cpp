// tcpvxi-host at its prompt on a real (pseudo-)terminal: completion, an
// interrupt report arriving while a line is half typed, and Ctrl-C at the
// prompt and during a long command.  The keys go to the terminal exactly as a
// person types them; the expected texts are looked for on the screen those
// keys leave, line by line, in order.
#include <gtest/gtest.h>
#include <poll.h>
#include <pty.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <vector>

#include "simhost.h"

namespace {

const std::string kTool = KV_BUILD_DIR "/tools/tcpvxi-host/tcpvxi-host";
const std::string kLib = KV_BUILD_DIR "/libtcpvxi.so";

// The text a terminal shows after receiving `raw`: the line editor's cursor
// movements and erasures applied, lines joined by '\n'.  Enough of a
// terminal for readline on an xterm.
std::string screenText(const std::string& raw) {
  std::vector<std::string> lines(1);
  size_t row = 0, col = 0;
  for (size_t i = 0; i < raw.size(); i++) {
    char c = raw[i];
    if (row >= lines.size()) lines.resize(row + 1);
    std::string& l = lines[row];
    if (c == '\r') {
      col = 0;
    } else if (c == '\n') {
      row++;
    } else if (c == '\b') {
      col -= col > 0;
    } else if (c == '\x1b' && i + 1 < raw.size() && raw[i + 1] == '[') {
      size_t j = i + 2;
      while (j < raw.size() && !(raw[j] >= 0x40 && raw[j] <= 0x7E)) j++;
      if (j >= raw.size()) break;
      std::string par = raw.substr(i + 2, j - i - 2);
      size_t n = par.empty() || par[0] == '?' ? 0 : std::stoul(par);
      switch (raw[j]) {
        case 'K':  // erase in line
          if (n == 0 && col < l.size()) l.resize(col);
          if (n == 2) l.clear();
          break;
        case 'J':  // erase below
          if (col < l.size()) l.resize(col);
          lines.resize(row + 1);
          break;
        case 'C': col += n ? n : 1; break;
        case 'D': col -= std::min(col, n ? n : 1); break;
        case 'A': row -= std::min(row, n ? n : 1); break;
        case 'B': row += n ? n : 1; break;
        case 'G': col = n ? n - 1 : 0; break;
        case 'P':  // delete characters
          if (col < l.size()) l.erase(col, n ? n : 1);
          break;
        case '@':  // insert blanks
          if (col < l.size()) l.insert(col, n ? n : 1, ' ');
          break;
        default: break;  // modes and colours change no text
      }
      i = j;
    } else if (c == '\x1b') {
      i++;  // a two-byte sequence (keypad modes)
    } else if (c != '\a') {
      if (l.size() <= col) l.resize(col + 1, ' ');
      l[col++] = c;
    }
  }
  std::string s;
  for (auto& l : lines) s += l + "\n";
  return s;
}

// Shows control characters, for failure messages.
std::string visible(const std::string& raw) {
  std::string s;
  for (unsigned char c : raw) {
    if (c == '\n' || (c >= 0x20 && c < 0x7F)) s += (char)c;
    else {
      char b[8];
      snprintf(b, sizeof b, "<%02X>", c);
      s += b;
    }
  }
  return s;
}

struct Terminal {
  pid_t pid = -1;
  int fd = -1;
  std::string raw;
  size_t pos = 0;  // where the next expected text is looked for

  explicit Terminal(std::vector<std::string> argv) {
    winsize ws{};
    ws.ws_row = 50;
    ws.ws_col = 250;  // wide: no line of the test wraps
    std::vector<char*> args;
    for (auto& a : argv) args.push_back(a.data());
    args.push_back(nullptr);
    pid = forkpty(&fd, nullptr, nullptr, &ws);
    if (pid == 0) {
      setenv("TERM", "xterm", 1);
      execv(args[0], args.data());
      _exit(127);
    }
  }
  ~Terminal() {
    if (pid > 0) {
      kill(pid, SIGKILL);
      waitpid(pid, nullptr, 0);
    }
    if (fd >= 0) close(fd);
  }
  void type(const std::string& keys) { EXPECT_EQ(write(fd, keys.data(), keys.size()), (ssize_t)keys.size()); }
  // Reads until `want` shows on the screen, at or after the line where the
  // previous text ended (a report may rewrite that line); the limit only
  // guards against a hung tool, it is not a speed check.
  bool waitFor(const std::string& want, int limitMs = 30000) {
    auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(limitMs);
    for (;;) {
      std::string s = screenText(raw);
      size_t at = s.find(want, pos);
      if (at != std::string::npos) {
        // The start of the line the match ends on (a line's own '\n'
        // belongs to it): later output may lengthen that line.
        size_t last = at + want.size() - 1;
        size_t nl = last == 0 ? std::string::npos : s.rfind('\n', last - (s[last] == '\n'));
        pos = nl == std::string::npos ? 0 : nl;
        return true;
      }
      if (std::chrono::steady_clock::now() > end) return false;
      pollfd p{fd, POLLIN, 0};
      if (poll(&p, 1, 100) <= 0) continue;
      char buf[4096];
      ssize_t n = read(fd, buf, sizeof buf);
      if (n <= 0) return false;  // the tool has gone
      raw.append(buf, (size_t)n);
    }
  }
  std::string why() const { return "screen:\n" + screenText(raw) + "\nreceived:\n" + visible(raw); }
  // The exit status once the tool has ended, -1 when it does not end.
  int exitStatus() {
    for (int i = 0; i < 3000; i++) {
      int st = 0;
      if (waitpid(pid, &st, WNOHANG) == pid) {
        pid = -1;
        return WIFEXITED(st) ? WEXITSTATUS(st) : 128 + WTERMSIG(st);
      }
      pollfd p{fd, POLLIN, 0};
      char buf[4096];
      ssize_t n = poll(&p, 1, 10) == 1 ? read(fd, buf, sizeof buf) : 0;
      if (n > 0) raw.append(buf, (size_t)n);
      else usleep(10000);  // nothing to read, or the terminal closed
    }
    return -1;
  }
};

}  // namespace

TEST(HostToolTerminal, CompletionInterruptReportsAndCtrlC) {
  auto sim = sh::startSim("127.0.0.1");
  sh::writeResmanText("[COMMON]\nNumIntf=1\n[INTF1]\nINTF_NUM=1\nADDR=127.0.0.1\n");
  Terminal t({kTool, "--lib", kLib});
  ASSERT_GT(t.pid, 0);
  enum Action { Type, Interrupt, CtrlCUntilSeen };
  struct Step {
    Action action;
    std::string keys;
    std::vector<std::string> want;  // in this order on the screen
  } steps[] = {
      {Type, "", {"tcpvxi> "}},
      {Type, "start\nopen\nirq on\n", {"reached, 6 instrument(s)", "tcpvxi> irq on\n[VI_SUCCESS (0x00000000)]\ntcpvxi> "}},
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
  };
  for (auto& s : steps) {
    if (s.action == Interrupt) sim->sendInterrupt(1, 0xFD10);
    if (s.action == CtrlCUntilSeen) {
      // A Ctrl-C that lands before the command has begun belongs to the
      // prompt: repeat until the command reports it.
      bool seen = false;
      for (int i = 0; i < 100 && !seen; i++) {
        t.type(s.keys);
        seen = t.waitFor(s.want[0], 300);
      }
      ASSERT_TRUE(seen) << t.why();
    }
    if (s.action == Type) t.type(s.keys);
    for (size_t i = s.action == CtrlCUntilSeen; i < s.want.size(); i++)
      ASSERT_TRUE(t.waitFor(s.want[i])) << "waiting for: " << s.want[i] << "\n" << t.why();
  }
  t.type("stop\n");
  ASSERT_TRUE(t.waitFor("tcpvxi> stop\n[VI_SUCCESS (0x00000000)]\ntcpvxi> ")) << t.why();
  t.type("\x04");  // Ctrl-D at the prompt ends the tool
  int rc = t.exitStatus();
  EXPECT_EQ(1, rc) << "the interrupted sleep counts as failed\n" << t.why();
  // In sanitizer builds the tool and the driver report on the terminal.
  EXPECT_EQ(std::string::npos, t.raw.find("Sanitizer")) << t.why();
  EXPECT_EQ(std::string::npos, t.raw.find("runtime error")) << t.why();
}
