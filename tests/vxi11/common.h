// Helpers shared by the VXI-11 tests: an isolated-namespace guard, the
// in-process simulator, log capture, bounded waits and a real rpcbind.
#pragma once

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "kvlog.h"
#include "kvtcp_internal.h"
#include "rpc_vxi11.h"
#include "sim.h"

namespace vx {

constexpr const char* kAddr = "127.0.0.2";

// Records outlive each test: a detached interrupt thread may still look at
// its record while it leaves, so they are never freed.
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

// Polls a condition for at most ms milliseconds (a bound, not a timing check).
inline bool waitUntil(const std::function<bool()>& pred, int ms = 5000) {
  auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);
  while (!pred()) {
    if (std::chrono::steady_clock::now() > end) return pred();
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  return true;
}

inline bool portOpen(const char* addr, uint16_t port) {
  int fd = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_port = htons(port);
  inet_pton(AF_INET, addr, &a.sin_addr);
  bool ok = connect(fd, (sockaddr*)&a, sizeof a) == 0;
  close(fd);
  return ok;
}

// A real rpcbind, private to the test's namespace (its socket and lock live
// under a fresh /run).
struct Rpcbind {
  pid_t pid = -1;
  bool start(std::string* why) {
    if (access("/usr/sbin/rpcbind", X_OK) != 0) return *why = "rpcbind is not installed", false;
    if (mount("kvrun", "/run", "tmpfs", 0, "mode=755") != 0) return *why = "cannot mount a private /run", false;
    mkdir("/run/rpcbind", 0755);
    pid = fork();
    if (pid == 0) {
      execl("/usr/sbin/rpcbind", "rpcbind", "-f", (char*)nullptr);
      _exit(127);
    }
    if (pid < 0) return *why = "fork failed", false;
    if (!waitUntil([] { return portOpen("127.0.0.1", 111); }, 5000)) return *why = "rpcbind did not start", false;
    return true;
  }
  ~Rpcbind() {
    if (pid > 0) {
      kill(pid, SIGTERM);
      waitpid(pid, nullptr, 0);
    }
  }
};

// Every case: an isolated namespace, a captured log, a simulator on kAddr
// with its own portmapper (started by startSim with the faults wanted).
class Vxi11Test : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!getenv("KV_ISOLATED")) GTEST_SKIP() << "needs its own network namespace (tests/isolate.sh): port 111";
    {
      std::lock_guard<std::mutex> g(logMutex);
      logLines.clear();
    }
    pkvFSpyLog = captureLog;
    kvtcp_setCallback(nullptr);
  }
  void TearDown() override {
    for (KvTcpInfo* r : opened) kvtcp_Close(r);
    kvtcp_setCallback(nullptr);
    if (sim) sim->stop();
    pkvFSpyLog = nullptr;
  }

  void startSim(const vxi11sim::Faults& f = {}, vxi11sim::PortmapMode pm = vxi11sim::PortmapMode::Own,
                const char* addr = kAddr) {
    vxi11sim::Options o;
    o.address = addr;
    o.portmap = pm;
    o.faults = f;
    sim = std::make_unique<vxi11sim::Simulator>(o);
    std::string err;
    ASSERT_TRUE(sim->start(&err)) << err;
  }

  KvTcpInfo* connect(const char* inst = "inst0", KvTcpInfo* root = nullptr, int* status = nullptr) {
    KvTcpInfo* r = newRecord();
    opened.push_back(r);
    int st = kvtcp_vxi11_Connect(root, r, kAddr, inst);
    if (status)
      *status = st;
    else
      EXPECT_EQ(st, VI_SUCCESS);
    return r;
  }

  std::unique_ptr<vxi11sim::Simulator> sim;
  std::vector<KvTcpInfo*> opened;
};

}  // namespace vx
