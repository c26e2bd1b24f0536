// tcpvxi-host: a command-line host for libtcpvxi.so.  It loads the driver as
// a VISA library does (dlopen, entry points by name) and lets a person run
// every driver operation, interactively, from -c or from a script.
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cstdio>
#include <fstream>
#include <iostream>
#include <string>

#include "commands.h"
#include "driver.h"

#ifdef HAVE_READLINE
#include <readline/history.h>
#include <readline/readline.h>
#endif

namespace {

bool readLine(const char* prompt, std::string& line) {
#ifdef HAVE_READLINE
  if (isatty(0)) {
    char* l = readline(prompt);
    if (!l) return false;
    line = l;
    if (*l) add_history(l);
    free(l);
    return true;
  }
#endif
  if (isatty(0)) {
    fputs(prompt, stdout);
    fflush(stdout);
  }
  return static_cast<bool>(std::getline(std::cin, line));
}

}  // namespace

int main(int argc, char** argv) {
  CLI::App app{
      "tcpvxi-host: load libtcpvxi.so the way a VISA library does and run its operations.\n"
      "Without -c or --script it reads commands from standard input (a prompt on a terminal).\n"
      "Type 'help' for the command list.  In scripts, a line starting with '!' is a command\n"
      "that is expected to fail."};
  std::string lib = KV_DEFAULT_LIB;
  std::vector<std::string> cmds;
  std::string script;
  bool verbose = false, keepGoing = false, autoStart = false, listCmds = false;
  app.add_option("-l,--lib", lib, "path of the driver library")->capture_default_str();
  app.add_option("-c,--command", cmds, "run this command (repeatable; ';' separates several)");
  app.add_option("-s,--script", script, "run the commands of this file")->check(CLI::ExistingFile);
  app.add_flag("-v,--verbose", verbose, "print the driver's diagnostics on standard error");
  app.add_flag("-k,--keep-going", keepGoing, "go on after a failed command");
  app.add_flag("--start", autoStart, "run 'start' and 'open' first and 'stop' at the end");
  app.add_flag("--commands", listCmds, "list the commands and exit");
  CLI11_PARSE(app, argc, argv);

  if (listCmds) {
    printf("%s", host::helpText().c_str());
    return 0;
  }

  host::Session s;
  std::string err = s.drv.load(lib);
  if (!err.empty()) {
    fprintf(stderr, "tcpvxi-host: %s\n", err.c_str());
    return 2;
  }
  host::setVerbose(s, verbose);

  int failures = 0;
  auto run = [&](const std::string& line) {
    if (s.quit) return;
    std::string l = line;
    if (!script.empty() || !cmds.empty()) {
      std::string t = l;
      t.erase(0, t.find_first_not_of(" \t"));
      if (!t.empty() && t[0] != '#') printf("> %s\n", t.c_str());
    }
    // A leading '!' marks a command that is expected to fail (a script that
    // shows an error case); it counts as a failure only if it succeeds.
    size_t first = l.find_first_not_of(" \t");
    bool expectFail = first != std::string::npos && l[first] == '!';
    if (expectFail) l.erase(first, 1);
    if (host::runCommand(s, l) == expectFail) {
      if (expectFail) fprintf(stderr, "expected this command to fail\n");
      failures++;
      if (!keepGoing && (!script.empty() || !cmds.empty())) s.quit = true;
    }
  };
  auto runMany = [&](const std::string& text) {
    size_t pos = 0;
    while (pos <= text.size() && !s.quit) {
      size_t semi = text.find(';', pos);
      run(text.substr(pos, semi == std::string::npos ? std::string::npos : semi - pos));
      if (semi == std::string::npos) break;
      pos = semi + 1;
    }
  };

  if (autoStart) {
    run("start");
    run("open");
  }
  if (!cmds.empty()) {
    for (auto& c : cmds) runMany(c);
  } else if (!script.empty()) {
    std::ifstream f(script);
    std::string line;
    while (!s.quit && std::getline(f, line)) run(line);
  } else {
    std::string line;
    while (!s.quit && readLine("tcpvxi> ", line)) run(line);
  }
  if (autoStart) {
    s.quit = false;
    run("stop");
  }
  s.drv.unload();
  return failures ? 1 : 0;
}
