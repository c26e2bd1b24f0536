// Helpers shared by the transport-against-simulator tests.
#pragma once

#include <gtest/gtest.h>
#include <stdarg.h>
#include <stdio.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <deque>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "kvlog.h"
#include "kvtcp_internal.h"
#include "instrument.h"
#include "sim.h"

namespace simtest {

constexpr int kTmo = 2000;
constexpr int kLost = (int)0xBFFF00A6;
constexpr int kTimeout = (int)0xBFFF0015;
constexpr int kIo = (int)0xBFFF003E;
constexpr int kNotFound = (int)0xBFFF0011;
constexpr int kNsup = (int)0xBFFF0067;

inline const std::string kIdn = std::string(bridgesim::kIdentity) + "\n";

// Connection records are never freed: a receive thread that is leaving may
// still look at its record after the test has finished with it.
inline KvTcpInfo* newRecord() {
  static auto* records = new std::deque<KvTcpInfo>;
  static std::mutex m;
  std::lock_guard<std::mutex> g(m);
  return &records->emplace_back();
}

// Waits for a condition that another thread makes true.  The bound is only
// there so that a broken build fails instead of hanging; it is not a
// statement about speed.
inline bool eventually(const std::function<bool()>& cond, int limitMs = 20000) {
  auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(limitMs);
  while (!cond()) {
    if (std::chrono::steady_clock::now() > end) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  return true;
}

// The transport's diagnostics, collected for the assertions on messages.
struct LogCapture {
  static std::mutex& mutex() {
    static std::mutex m;
    return m;
  }
  static std::vector<std::string>& lines() {
    static std::vector<std::string> l;
    return l;
  }
  static void hook(int, const char* fmt, ...) {
    char buf[1024];
    va_list ap;
    va_start(ap, fmt);
    vsnprintf(buf, sizeof buf, fmt, ap);
    va_end(ap);
    std::lock_guard<std::mutex> g(mutex());
    lines().emplace_back(buf);
  }
  LogCapture() {
    std::lock_guard<std::mutex> g(mutex());
    lines().clear();
    pkvFSpyLog = hook;
  }
  ~LogCapture() { pkvFSpyLog = nullptr; }
  bool has(const std::string& text) const {
    std::lock_guard<std::mutex> g(mutex());
    for (auto& l : lines())
      if (l.find(text) != std::string::npos) return true;
    return false;
  }
};

// One simulated bridge at `address`, HiSLIP on 4880, quiet.
struct Sim {
  bridgesim::ServerOptions opt;
  std::unique_ptr<bridgesim::Server> server;

  explicit Sim(const char* address = "127.0.0.2", uint16_t rawPort = 0) {
    opt.address = address;
    opt.rawPort = rawPort;
    opt.verbosity = 0;
    opt.logSink = [](const std::string&) {};
    start();
  }
  void start() {
    server = std::make_unique<bridgesim::Server>(opt);
    server->start();
  }
  void stop() {
    if (server) server->stop();
  }
  bridgesim::Server* operator->() { return server.get(); }

  // True when the bridge answers a system-state query with success, i.e. a
  // mainframe model stands behind it.
  bool hasMainframe() {
    uint32_t cmd[2] = {3, 0};
    auto a = server->bridge().handleCommand(bridgesim::HostId{}, reinterpret_cast<const uint8_t*>(cmd), 8);
    int32_t st = -1;
    if (a.size() >= 4) memcpy(&st, a.data(), 4);
    return st >= 0;
  }
};

inline int connectHislip(KvTcpInfo* r, const char* addr = "127.0.0.2") { return kvtcp_hislip_Connect(r, addr, "inst0"); }

// A query over Data/DataEnd; the answer (as far as it was read) goes to `out`.
inline int query(KvTcpInfo* r, const std::string& q, std::string* out, int tmo = kTmo, int cap = 512) {
  std::vector<char> o(q.begin(), q.end());
  o.resize(q.size() + 8, 0);  // slack: a raw-socket write stores a NUL behind the message
  std::vector<char> in((size_t)cap + 8, 0);
  int n = 0;
  int st = kvtcp_Query(r, tmo, o.data(), (int)q.size(), in.data(), cap, KVTCP_FLAG_END, 0, &n);
  if (out) out->assign(in.data(), (size_t)std::max(0, std::min(n, cap)));
  return st;
}

// One bridge command (a HiSLIP vendor-specific message) and its answer.
inline int bridgeCommand(KvTcpInfo* r, const std::vector<uint32_t>& words, std::vector<uint8_t>* answer,
                         int cap = 1024) {
  std::vector<uint8_t> in((size_t)cap + 4, 0);
  int n = 0;
  int st = kvtcp_kvhislip_Query(r, kTmo, reinterpret_cast<const char*>(words.data()), (int)(words.size() * 4),
                                reinterpret_cast<char*>(in.data()), cap, &n);
  if (answer) answer->assign(in.begin(), in.begin() + std::max(0, std::min(n, cap)));
  return st;
}

inline uint32_t le32(const std::vector<uint8_t>& v, size_t off) {
  uint32_t x = 0;
  if (off + 4 <= v.size()) memcpy(&x, v.data() + off, 4);
  return x;
}

}  // namespace simtest
