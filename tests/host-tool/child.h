// A child process with its standard input on a pipe and its standard output
// and error merged on another, for driving a command-line tool from a test.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace hosttest {

class Child {
 public:
  // Starts argv[0] (a path) with the given arguments; the environment is
  // inherited.
  explicit Child(const std::vector<std::string>& argv);
  ~Child();  // kills the child if it still runs
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;

  bool started() const { return pid_ > 0; }
  void write(const std::string& text);
  void closeInput();
  // Reads output until `text` has appeared, the child closed its output, or
  // limitMs passed (a guard against a hanging child, not a speed check).
  bool waitFor(const std::string& text, int limitMs = 30000);
  // Closes the input, reads everything up to end of output, returns the
  // exit status (128 + signal when killed, -1 when it had to be killed
  // after limitMs).
  int finish(int limitMs = 60000);
  const std::string& output() const { return out_; }

 private:
  bool readSome(int waitMs);
  pid_t pid_ = -1;
  int in_ = -1, out_fd_ = -1;
  bool eof_ = false;
  std::string out_;
};

// Runs a tool to the end with no input; returns the exit status and the
// merged output.
int run(const std::vector<std::string>& argv, std::string* output);

}  // namespace hosttest
