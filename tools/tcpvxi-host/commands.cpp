#include "commands.h"

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <thread>

#include "status.h"

namespace host {

namespace {

std::atomic<bool> g_interrupted{false};
std::function<void(const std::string&)> g_printer;
std::mutex g_printerMutex;

void logHook(int level, const char* fmt, ...) {
  std::lock_guard<std::mutex> g(outMutex());
  fprintf(stderr, "[log %x] ", level);
  va_list ap;
  va_start(ap, fmt);
  vfprintf(stderr, fmt, ap);
  va_end(ap);
  size_t n = strlen(fmt);
  if (n == 0 || fmt[n - 1] != '\n') fputc('\n', stderr);
}

void rLogHook(int level1, int level2, const char* fmt, ...) {
  std::lock_guard<std::mutex> g(outMutex());
  fprintf(stderr, "[log %x/%x] ", level1, level2);
  va_list ap;
  va_start(ap, fmt);
  vfprintf(stderr, fmt, ap);
  va_end(ap);
  size_t n = strlen(fmt);
  if (n == 0 || fmt[n - 1] != '\n') fputc('\n', stderr);
}

void silentRLog(int, int, const char*, ...) {}

const char* kGrammar =
    "Grammar: words are separated by blanks; ';' separates commands; '#' starts a comment.\n"
    "  \"double quotes\" group words and keep escapes: \\n \\r \\t \\0 \\xHH \\\\ \\\" \\' \\;\n"
    "  'single quotes' group words literally.  Example: ws-write VXI0::16::INSTR \"*SRE 16\\n\"\n"
    "Numbers: decimal or 0x hex, checked against their range.  Address spaces: a16, a24, a32.\n"
    "Interfaces: 0, 1, ... or TCP-VXI0.  Instruments: '<intf> <instr>' where <instr> is the index in\n"
    "  the interface's list, la:N (logical address) or VXI0::N::INSTR; or the VISA name alone\n"
    "  (VXI<intf>::<la>::INSTR).  'list' shows them after 'open'.\n"
    "Widths are in bits (8, 16, 32).  --swap sets bit 31 of the mode (byte swap); mode=N (0-7) is\n"
    "  the access privilege.  Every command takes --json on the tool's command line.\n";

}  // namespace

bool interrupted() { return g_interrupted.load(); }
void setInterrupted(bool on) { g_interrupted = on; }

bool sleepMs(unsigned ms) {
  auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);
  while (std::chrono::steady_clock::now() < end) {
    if (interrupted()) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(std::min<unsigned>(ms, 20)));
  }
  return true;
}

void asyncPrint(const std::string& text) {
  std::lock_guard<std::mutex> p(g_printerMutex);
  if (g_printer) {
    g_printer(text);
    return;
  }
  std::lock_guard<std::mutex> g(outMutex());
  printf("%s\n", text.c_str());
  fflush(stdout);
}

void setAsyncPrinter(std::function<void(const std::string&)> printer) {
  std::lock_guard<std::mutex> p(g_printerMutex);
  g_printer = std::move(printer);
}

const std::string& arg(const Args& a, size_t i, const char* what) {
  if (i >= a.size()) throw Usage(std::string("missing ") + what);
  return a[i];
}

const std::vector<Command>& commands() {
  static const std::vector<Command> table = [] {
    std::vector<Command> t;
    addSetupCommands(t);
    addDriverCommands(t);
    addTransportCommands(t);
    t.push_back({"timeout", "timeout <ms>", "time-out of Word Serial and instrument commands (default 2000)", false,
                 [](Session& s, Out& out, Args& a) {
                   s.timeout = (unsigned)number(arg(a, 1, "milliseconds"), "time-out", 3600000);
                   out.field("timeout_ms", jnum((uint64_t)s.timeout));
                   return true;
                 }});
    t.push_back({"sleep", "sleep <ms>", "wait (for interrupts to arrive); Ctrl-C ends the wait", false,
                 [](Session&, Out& out, Args& a) {
                   if (sleepMs((unsigned)number(arg(a, 1, "milliseconds"), "milliseconds", 86400000))) return true;
                   return out.fail("interrupted");
                 }});
    t.push_back({"echo", "echo <text>...", "print the words (shows how a line is split)", false,
                 [](Session&, Out& out, Args& a) {
                   std::string txt;
                   std::vector<std::string> w;
                   for (size_t i = 1; i < a.size(); i++) {
                     if (i > 1) txt += ' ';
                     txt += printable(a[i]);
                     w.push_back(jstr(a[i]));
                   }
                   out.line("%s", txt.c_str());
                   out.field("words", jarr(w));
                   return true;
                 }});
    t.push_back({"verbose", "verbose on|off", "print the driver's diagnostics on standard error", false,
                 [](Session& s, Out&, Args& a) {
                   setVerbose(s, arg(a, 1, "on or off") == "on");
                   return true;
                 }});
    t.push_back({"help", "help [command]", "the commands and the grammar", false, [](Session&, Out& out, Args& a) {
                   std::string h = helpText(a.size() > 1 ? a[1] : std::string());
                   if (out.json()) out.field("text", jstr(h));
                   else fputs(h.c_str(), stdout);
                   return h.rfind("no such command", 0) != 0;
                 }});
    t.push_back({"quit", "quit", "leave the tool", false, [](Session& s, Out&, Args&) {
                   s.quit = true;
                   return true;
                 }});
    return t;
  }();
  return table;
}

std::string helpText(const std::string& cmd) {
  std::string t;
  for (const auto& c : commands()) {
    if (!cmd.empty() && cmd != c.name) continue;
    char line[512];
    if (strlen(c.usage) > 44)
      snprintf(line, sizeof line, "  %s\n  %-44s %s\n", c.usage, "", c.help);
    else
      snprintf(line, sizeof line, "  %-44s %s\n", c.usage, c.help);
    t += line;
  }
  if (t.empty()) return "no such command: " + cmd + "\n";
  if (cmd.empty()) t = std::string(kGrammar) + "Commands:\n" + t;
  return t;
}

void setVerbose(Session& s, bool on) {
  s.verbose = on;
  if (s.drv.spyLog) *s.drv.spyLog = on ? logHook : nullptr;
  // The second hook is called without a test: never leave it null.
  if (s.drv.rSpyLog) *s.drv.rSpyLog = on ? rLogHook : silentRLog;
}

bool runCommand(Session& s, Args a) {
  if (a.empty()) return true;
  Out out(s.json);
  std::string line;
  for (auto& w : a) line += (line.empty() ? "" : " ") + w;
  out.begin(line);
  const Command* c = nullptr;
  for (const auto& k : commands())
    if (a[0] == k.name) c = &k;
  if (!c) {
    out.fail("unknown command '" + a[0] + "' (try: help)");
    out.end(false);
    return false;
  }
  bool ok = false;
  try {
    if (c->needsStart && !s.started) {
      out.fail("the driver is not started");
      out.hint("run 'start' and 'open' first, or give --start on the command line");
    } else {
      ok = c->run(s, out, a);
    }
  } catch (const Usage& e) {
    out.fail(e.what());
    if (!s.json) {
      std::lock_guard<std::mutex> g(outMutex());
      fprintf(stderr, "usage: %s\n", c->usage);
    }
    ok = false;
  }
  out.end(ok);
  return ok;
}

bool runLine(Session& s, const std::string& line) {
  std::vector<Args> cmds;
  try {
    cmds = parseLine(line);
  } catch (const Usage& e) {
    Out out(s.json);
    out.begin(line);
    out.fail(e.what());
    out.end(false);
    return false;
  }
  bool ok = true;
  for (auto& c : cmds) {
    if (s.quit || interrupted()) break;
    // A leading '!' marks a command that is expected to fail (a script that
    // shows an error case); it counts as a failure only if it succeeds.
    bool expectFail = c[0][0] == '!';
    if (expectFail) c[0].erase(0, 1);
    if (expectFail && c[0].empty()) c.erase(c.begin());
    bool good = runCommand(s, c) != expectFail;
    if (!good && expectFail) {
      std::lock_guard<std::mutex> g(outMutex());
      fprintf(stderr, "expected this command to fail\n");
    }
    ok = ok && good;
    if (!good && !s.keepGoing) break;
  }
  return ok;
}

}  // namespace host
