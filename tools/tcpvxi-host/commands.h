// The host tool's commands: one per line as typed at the prompt, given on
// the command line or with -c, or read from a script.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "driver.h"
#include "names.h"
#include "output.h"

namespace host {

struct Connection;  // a general-transport connection (instr)

struct Session {
  Driver drv;
  unsigned timeout = 2000;  // ms, for Word Serial and instrument commands
  bool verbose = false;
  bool quit = false;
  bool json = false;
  bool keepGoing = true;  // run the rest of a line after a failed command
  bool started = false;  // tcpvxi_start ran (calls before it would crash the driver)
  bool opened = false;   // vintfOpenDevice ran: instruments can be named
  unsigned nIntf = 0;    // interfaces reported by the last open
  std::map<std::string, std::shared_ptr<Connection>> connections;
};

struct Command {
  const char* name;
  const char* usage;
  const char* help;
  bool needsStart;  // refused before 'start'
  std::function<bool(Session&, Out&, Args&)> run;
};

void addSetupCommands(std::vector<Command>& t);
void addDriverCommands(std::vector<Command>& t);
void addTransportCommands(std::vector<Command>& t);
const std::vector<Command>& commands();

// Runs every command of a line; false if one failed.
bool runLine(Session& s, const std::string& line);
// Runs one command given as words.
bool runCommand(Session& s, Args words);

std::string helpText(const std::string& cmd = std::string());

// The driver's log hooks: printed on standard error when on.
void setVerbose(Session& s, bool on);

// Ctrl-C: the current command checks and stops; the tool goes on.
bool interrupted();
void setInterrupted(bool on);
// Sleeps in small steps; false if interrupted.
bool sleepMs(unsigned ms);

// Reports that arrive between commands (interrupts): the interactive
// prompt replaces the printer so that they do not tear the input line.
void asyncPrint(const std::string& text);
void setAsyncPrinter(std::function<void(const std::string&)> printer);

// Instrument names of the opened interfaces, for completion.
std::vector<std::string> instrumentNames(Session& s);

// The argument at `i`, or a Usage error naming what is missing.
const std::string& arg(const Args& a, size_t i, const char* what);
// An interface argument, refused if the last open did not report it.
uint16_t takeIntf(Session& s, const std::string& text);

// An instrument: "<intf> <instr>" or a VISA name alone.  Resolved against
// the driver's list, refused if it names no instrument there.
struct Target {
  uint16_t intf = 0;
  uint32_t index = 0;
  unsigned la = 0;
};
Target takeTarget(Session& s, const Args& a, size_t& pos);

// Hints after a failed driver call.
void driverHint(Session& s, Out& out, ViStatus st);

void closeConnections(Session& s);

}  // namespace host
