// The host tool's command language: one command per line, as typed at the
// prompt, given with -c, or read from a script.
#pragma once

#include <string>
#include <vector>

#include "driver.h"

namespace host {

struct Session {
  Driver drv;
  unsigned wsTimeout = 2000;  // ms, for the Word Serial commands
  bool verbose = false;
  bool quit = false;
};

// Splits a line into words; double quotes group, \n \r \t \\ \" escape.
std::vector<std::string> tokenize(const std::string& line);

// Runs one command line.  Returns false when the command failed (bad usage or
// a negative VISA status).
bool runCommand(Session& s, const std::string& line);

// The help text of every command (or of one).
std::string helpText(const std::string& cmd = std::string());

// Installs or removes the log hooks that print the driver's diagnostics.
void setVerbose(Session& s, bool on);

}  // namespace host
