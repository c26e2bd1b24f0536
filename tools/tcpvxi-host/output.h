// What a command prints: text for a person, or with --json one JSON object
// per command ({"command", "ok", "status", "name", "meaning", "data", "error"}).
#pragma once

#include <chrono>
#include <cstdint>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "driver.h"

namespace host {

// Guards standard output and error: interrupt reports come on the driver's
// receive thread while a command prints.
std::mutex& outMutex();

std::string jstr(const std::string& s);  // a JSON string literal
std::string jnum(int64_t v);
std::string jnum(uint64_t v);
std::string jnum(double v);
std::string jarr(const std::vector<std::string>& items);  // items already JSON
std::string jobj(const std::vector<std::pair<std::string, std::string>>& fields);

// Text with control bytes shown as \n, \r, \xHH.
std::string printable(const std::string& s);

class Out {
 public:
  explicit Out(bool json) : json_(json) {}
  bool json() const { return json_; }
  void begin(const std::string& command);
  // A value of the result (JSON text), shown in the "data" object.
  void field(const std::string& key, const std::string& jsonValue);
  // A line for a person; not printed in JSON mode.
  void line(const char* fmt, ...) __attribute__((format(printf, 2, 3)));
  // Records a VISA status and prints "what  [NAME (0x...)]" (with the meaning
  // for a failure).  Returns true for a success.
  bool status(ViStatus st, const std::string& what = std::string(), bool print = true);
  // A refusal or failure of the tool itself (no library call made).
  bool fail(const std::string& message);
  // A hint after a failure ("run 'open' first").
  void hint(const std::string& text);
  // Ends the command; in JSON mode prints its object.
  void end(bool ok);

 private:
  bool json_;
  std::string command_;
  bool hasStatus_ = false;
  ViStatus status_ = 0;
  std::vector<std::pair<std::string, std::string>> fields_;
  std::string error_, hint_;
};

// Hex lines of at most `maxBytes` of the data (elements of `width` bytes);
// the rest is counted, not shown.
void hexdump(Out& out, const uint8_t* p, size_t bytes, unsigned width, size_t maxBytes);

// A progress bar on standard error when it is a terminal, and the
// throughput at the end.
class Progress {
 public:
  Progress(Out& out, uint64_t totalBytes);
  void update(uint64_t doneBytes);
  // Prints "N bytes in S s (R MB/s)" and records seconds and bytes_per_s.
  void finish(uint64_t doneBytes);

 private:
  Out& out_;
  uint64_t total_;
  bool bar_;
  std::chrono::steady_clock::time_point t0_;
};

}  // namespace host
