// Captures what the library logs through the host's two hooks.
#ifndef KV_TEST_LOG_CAPTURE_H
#define KV_TEST_LOG_CAPTURE_H

#include <stdarg.h>
#include <stdio.h>

#include <mutex>
#include <string>
#include <vector>

#include "kvlog.h"

struct LogLine {
  int hook;       // 1: pkvFSpyLog, 2: pkvFRSpyLog
  int level1;     // level (first hook) or level1 (second hook)
  int level2;     // second hook only
  std::string format;
  std::string text;  // the rendered line
  int firstInt;      // the first variadic argument when the format starts with an int
};

class LogCapture {
 public:
  LogCapture() {
    std::lock_guard<std::mutex> g(mu());
    current() = this;
    savedF_ = pkvFSpyLog;
    savedR_ = pkvFRSpyLog;
    pkvFSpyLog = &first;
    pkvFRSpyLog = &second;
  }
  ~LogCapture() {
    std::lock_guard<std::mutex> g(mu());
    pkvFSpyLog = savedF_;
    pkvFRSpyLog = savedR_;
    current() = nullptr;
  }
  std::vector<LogLine> lines() {
    std::lock_guard<std::mutex> g(mu());
    return lines_;
  }
  void clear() {
    std::lock_guard<std::mutex> g(mu());
    lines_.clear();
  }
  int count(int hook) {
    int n = 0;
    for (auto& l : lines())
      if (l.hook == hook) n++;
    return n;
  }
  bool anyContains(const std::string& s) {
    for (auto& l : lines())
      if (l.text.find(s) != std::string::npos) return true;
    return false;
  }

 private:
  static std::mutex& mu() {
    static std::mutex m;
    return m;
  }
  static LogCapture*& current() {
    static LogCapture* c = nullptr;
    return c;
  }
  static void record(int hook, int l1, int l2, const char* fmt, va_list ap) {
    va_list cp;
    va_copy(cp, ap);
    char buf[4096];
    vsnprintf(buf, sizeof buf, fmt, ap);
    // Formats of the first hook start with "path(%d) ": take that int.
    int first = 0;
    if (hook == 1) first = va_arg(cp, int);
    va_end(cp);
    std::lock_guard<std::mutex> g(mu());
    if (current()) current()->lines_.push_back({hook, l1, l2, fmt, buf, first});
  }
  static void first(int level, const char* fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    record(1, level, 0, fmt, ap);
    va_end(ap);
  }
  static void second(int l1, int l2, const char* fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    record(2, l1, l2, fmt, ap);
    va_end(ap);
  }
  std::vector<LogLine> lines_;
  kvFSpyLog_t savedF_;
  kvFRSpyLog_t savedR_;
};

#endif
