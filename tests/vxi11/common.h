// Helpers shared by the VXI-11 tests: the in-process simulator, a real
// rpcbind, and a fixture that needs its own network namespace (port 111).
#pragma once

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <memory>

#include "rpc_vxi11.h"
#include "sim.h"
#include "testkit.h"

namespace vx {

using kt::eventually;
using kt::newRecord;
constexpr const char* kAddr = "127.0.0.2";
constexpr const char* kIdn = "KVSIM,VXI11-INSTRUMENT,0,1.0\n";
using Got = std::pair<int, std::string>;  // a read's status and bytes

inline std::string pattern(size_t n) {
  std::string s;
  for (size_t i = 0; i < n; i++) s += (char)('A' + i % 26);
  return s;
}

// What "DATA? n" answers: an IEEE 488.2 definite-length block and the terminator.
inline std::string block(size_t n) {
  std::string len = std::to_string(n);
  return "#" + std::to_string(len.size()) + len + pattern(n) + "\n";
}

// A real rpcbind, private to the test's namespace (its socket and lock live
// under a fresh /run).
struct Rpcbind {
  pid_t pid = -1;
  std::string start() {  // empty when it runs, else why not
    if (access("/usr/sbin/rpcbind", X_OK) != 0) return "rpcbind is not installed";
    if (mount("kvrun", "/run", "tmpfs", 0, "mode=755") != 0) return "cannot mount a private /run";
    mkdir("/run/rpcbind", 0755);
    if ((pid = fork()) == 0) {
      execl("/usr/sbin/rpcbind", "rpcbind", "-f", (char*)nullptr);
      _exit(127);
    }
    auto up = [] {
      int fd = kt::connectTo("127.0.0.1", 111);
      return fd >= 0 && close(fd) == 0;
    };
    return pid > 0 && eventually(up) ? "" : "rpcbind did not start";
  }
  ~Rpcbind() {
    if (pid > 0) kill(pid, SIGTERM), waitpid(pid, nullptr, 0);
  }
};

// Every case: an isolated namespace, a captured log, a simulator on kAddr
// with its own portmapper (started by startSim with the faults wanted).
class Vxi11Test : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!getenv("KV_ISOLATED")) GTEST_SKIP() << "needs its own network namespace (tests/isolate.sh): port 111";
    log = std::make_unique<kt::LogCapture>();
    kvtcp_setCallback(nullptr);
  }
  void TearDown() override {
    for (KvTcpInfo* r : opened) kvtcp_Close(r);
    kvtcp_setCallback(nullptr);
    if (sim) sim->stop();
    log.reset();
  }
  void startSim(const vxi11sim::Faults& f = {}, vxi11sim::PortmapMode pm = vxi11sim::PortmapMode::Own) {
    sim = makeSim(kAddr, f, pm);
  }
  static std::unique_ptr<vxi11sim::Simulator> makeSim(const char* addr, const vxi11sim::Faults& f = {},
                                                      vxi11sim::PortmapMode pm = vxi11sim::PortmapMode::Own) {
    vxi11sim::Options o;
    o.address = addr;
    o.portmap = pm;
    o.faults = f;
    auto s = std::make_unique<vxi11sim::Simulator>(o);
    std::string err;
    EXPECT_TRUE(s->start(&err)) << err;
    return s;
  }
  // A connected record (closed after the test); status: where the connect's
  // status goes instead of being expected to succeed.
  KvTcpInfo* connect(const char* inst = "inst0", KvTcpInfo* root = nullptr, int* status = nullptr,
                     const char* addr = kAddr) {
    KvTcpInfo* r = newRecord();
    opened.push_back(r);
    int st = kvtcp_vxi11_Connect(root, r, addr, inst);
    EXPECT_TRUE(status || st == VI_SUCCESS) << st;
    if (status) *status = st;
    return r;
  }
  // Writes a command with END; the NUL behind it is the raw write's slack.
  void send(KvTcpInfo* r, const std::string& cmd) {
    std::string c = cmd + '\0';
    int n = 0;
    ASSERT_EQ(kvtcp_Write(r, 1000, c.data(), (int)cmd.size(), 0x0002, &n), VI_SUCCESS);
    ASSERT_EQ(n, (int)cmd.size());
  }
  // A read into a buffer with a guard behind the count, which must stay untouched.
  Got read(KvTcpInfo* r, int count, ViUInt16 flags = 0x0002, char term = 0, ViUInt32 tmo = 1000) {
    std::vector<char> buf((size_t)count + 16, '#');
    int n = 0, st = kvtcp_Read(r, tmo, buf.data(), count, flags, term, &n);
    EXPECT_EQ(std::string(buf.end() - 16, buf.end()), std::string(16, '#')) << "written past the count";
    EXPECT_TRUE(n >= 0 && n <= count) << n;
    return {st, std::string(buf.data(), (size_t)std::clamp(n, 0, count))};
  }
  Got query(KvTcpInfo* r, std::string q) {
    char in[256];
    int n = 0, st = kvtcp_Query(r, 1000, q.data(), (int)q.size(), in, sizeof in, 0x0002, 0, &n);
    EXPECT_TRUE(n >= 0 && n <= (int)sizeof in) << n;
    return {st, std::string(in, (size_t)std::clamp(n, 0, (int)sizeof in))};
  }
  std::pair<int, int> stb(KvTcpInfo* r, ViUInt32 tmo = 1000) {  // the call's status and the byte
    ViUInt16 b = 0xFFFF;
    int st = kvtcp_ReadSTB(r, tmo, &b);
    return {st, b};
  }
  bool logged(const std::string& text) { return kt::LogCapture::has(text); }

  std::unique_ptr<vxi11sim::Simulator> sim;
  std::vector<KvTcpInfo*> opened;
  std::unique_ptr<kt::LogCapture> log;
};

}  // namespace vx
