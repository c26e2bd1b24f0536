// tcpvxi-host: a command-line host for libtcpvxi.so.  It loads the driver as
// a VISA library does (dlopen, entry points by name) and lets a person run
// every driver operation and talk to HiSLIP, VXI-11 and raw-socket
// instruments: one command from the command line, several with -c, a
// script, or interactively with completion.
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <csignal>
#include <cstdio>
#include <fstream>
#include <iostream>
#include <string>

#include "commands.h"
#include "driver.h"
#include "interactive.h"
#include "tcpvxi_version.h"

namespace {

void onSigint(int) {
  host::setInterrupted(true);
  host::interactiveWake();
}

}  // namespace

int main(int argc, char** argv) {
  CLI::App app{
      "tcpvxi-host: load libtcpvxi.so the way a VISA library does and run its operations, or talk to\n"
      "HiSLIP, VXI-11 and raw-socket instruments.  Give one command after the options\n"
      "(tcpvxi-host instr TCPIP::127.0.0.1::hislip0::INSTR query \"*IDN?\"), several with -c, a script\n"
      "with --script, or none for a prompt.  'tcpvxi-host help' lists the commands and the grammar.\n"
      "In scripts, a line starting with '!' is a command that is expected to fail."};
  std::string lib = KV_DEFAULT_LIB;
  std::vector<std::string> cmds;
  std::string script;
  bool verbose = false, keepGoing = false, autoStart = false, listCmds = false, json = false;
  unsigned timeout = 2000;
  app.add_option("-l,--lib", lib, "path of the driver library")->capture_default_str();
  app.add_option("-c,--command", cmds, "run this line (repeatable; ';' separates commands)");
  app.add_option("-s,--script", script, "run the lines of this file")->check(CLI::ExistingFile);
  app.add_option("-t,--timeout", timeout, "time-out of Word Serial and instrument commands, ms")
      ->capture_default_str();
  app.add_flag("-j,--json", json, "one JSON object per command on standard output");
  app.add_flag("-v,--verbose", verbose, "print the driver's diagnostics on standard error");
  app.add_flag("-k,--keep-going", keepGoing, "go on after a failed command");
  app.add_flag("--start", autoStart, "run 'start' and 'open' first and 'stop' at the end");
  app.add_flag("--commands", listCmds, "list the commands and exit");
  app.set_version_flag("-V,--version", std::string("tcpvxi-host ") + TCPVXI_VERSION);
  // Everything after the first word that is not an option is the command.
  app.prefix_command();
  app.footer(
      "A command may follow the options: tcpvxi-host [OPTIONS] COMMAND [ARGUMENTS...]\nExamples:\n"
      "  tcpvxi-host check                                  what is wrong with the set-up\n"
      "  tcpvxi-host config add 192.168.1.20 mainframe      add a bridge to the resource file\n"
      "  tcpvxi-host --start list                           the instruments behind every bridge\n"
      "  tcpvxi-host --start ws-query VXI0::16::INSTR '*IDN?'\n"
      "  tcpvxi-host --json --start in16 0 a16 0xC000\n"
      "  tcpvxi-host benchmark TCPIP::127.0.0.1::hislip0::INSTR count=1000");
  CLI11_PARSE(app, argc, argv);
  std::vector<std::string> words = app.remaining();

  if (listCmds) {
    printf("%s", host::helpText().c_str());
    return 0;
  }

  host::Session s;
  s.json = json;
  s.timeout = timeout;
  std::string err = s.drv.load(lib);
  if (!err.empty()) {
    fprintf(stderr, "tcpvxi-host: %s\n", err.c_str());
    return 2;
  }
  host::setVerbose(s, verbose);
  // Ctrl-C stops the command that runs, not the tool.
  struct sigaction sa {};
  sa.sa_handler = onSigint;
  sigaction(SIGINT, &sa, nullptr);

  bool batch = !script.empty() || !cmds.empty() || !words.empty();
  s.keepGoing = keepGoing || !batch;
  int failures = 0;
  auto run = [&](const std::string& line) {
    if (s.quit) return;
    std::string l = line;
    size_t first = l.find_first_not_of(" \t");
    if (first == std::string::npos) return;
    // Scripts show each command before its output; their comments and
    // echoes speak for themselves.
    if (batch && !json && l[first] != '#' && words.empty() && l.compare(first, 5, "echo ") != 0)
      printf("> %s\n", l.c_str() + first);
    host::setInterrupted(false);
    bool ok = host::runLine(s, l);
    if (host::interrupted()) {
      fprintf(stderr, "interrupted\n");
      if (batch) s.quit = true;  // a script stops at Ctrl-C; the prompt goes on
    }
    if (!ok) {
      failures++;
      if (!keepGoing && batch) s.quit = true;
    }
  };

  if (autoStart) {
    run("start");
    run("open");
  }
  if (!words.empty()) {
    // The shell split the words already; escapes in them (\n, \x41) still
    // count, so each word is quoted back for the command parser.
    std::string line;
    for (auto& w : words) {
      for (char c : w) {
        if (c == ' ' || c == '\t' || c == ';' || c == '#' || c == '"' || c == '\'') line += '\\';
        line += c;
      }
      line += ' ';
    }
    if (!s.quit && !host::runLine(s, line)) failures++;
  } else if (!cmds.empty()) {
    for (auto& c : cmds) run(c);
  } else if (!script.empty()) {
    std::ifstream f(script);
    std::string line;
    while (!s.quit && std::getline(f, line)) run(line);
  } else if (isatty(0)) {
    host::interactive(s, run);
  } else {
    std::string line;
    while (!s.quit && std::getline(std::cin, line)) run(line);
  }
  if (autoStart && s.started) {
    s.quit = false;
    run("stop");
  }
  host::closeConnections(s);
  s.drv.unload();
  return failures ? 1 : 0;
}
