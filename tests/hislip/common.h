// Helpers shared by the HiSLIP and raw-socket tests.
#pragma once

#include <stdarg.h>
#include <stdio.h>

#include <deque>
#include <mutex>
#include <string>
#include <vector>

#include "kvlog.h"
#include "kvtcp_internal.h"

namespace hs {

// Records outlive each test and the process's exit handlers: a detached
// receive thread may still look at its record while it is leaving, so they
// are never freed.
inline KvTcpInfo* newRecord() {
  static auto* records = new std::deque<KvTcpInfo>;
  return &records->emplace_back();
}

inline std::mutex logMutex;
inline std::vector<std::string> logLines;

inline void captureLog(int, const char* fmt, ...) {
  char buf[1024];
  va_list ap;
  va_start(ap, fmt);
  vsnprintf(buf, sizeof buf, fmt, ap);
  va_end(ap);
  std::lock_guard<std::mutex> g(logMutex);
  logLines.emplace_back(buf);
}

inline bool logged(const std::string& text) {
  std::lock_guard<std::mutex> g(logMutex);
  for (auto& l : logLines)
    if (l.find(text) != std::string::npos) return true;
  return false;
}

struct LogCapture {
  LogCapture() {
    std::lock_guard<std::mutex> g(logMutex);
    logLines.clear();
    pkvFSpyLog = captureLog;
  }
  ~LogCapture() { pkvFSpyLog = nullptr; }
};

}  // namespace hs
