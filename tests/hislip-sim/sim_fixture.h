// The transport against the simulated bridge: one bridge per case.
#pragma once

#include <gtest/gtest.h>

#include "instrument.h"
#include "sim.h"
#include "testkit.h"

namespace simtest {

using kt::eventually;
using kt::newRecord;
constexpr int kTmo = 2000;
inline const std::string kIdn = std::string(bridgesim::kIdentity) + "\n";

// One simulated bridge at `address`, HiSLIP on 4880, quiet.
struct Sim {
  bridgesim::ServerOptions opt;
  std::unique_ptr<bridgesim::Server> server;

  explicit Sim(const char* address = "127.0.0.2", const std::function<void(bridgesim::ServerOptions&)>& tune = {}) {
    opt.address = address;
    opt.verbosity = 0;
    opt.logSink = [](const std::string&) {};
    if (tune) tune(opt);
    start();
  }
  void start() {
    server = std::make_unique<bridgesim::Server>(opt);
    server->start();
  }
  void stop() { server->stop(); }
  bridgesim::Server* operator->() { return server.get(); }
};

inline int connectHislip(KvTcpInfo* r, const char* addr = "127.0.0.2") { return kvtcp_hislip_Connect(r, addr, "inst0"); }

// A query over Data/DataEnd; the answer (as far as it was read) goes to `out`.
inline int query(KvTcpInfo* r, const std::string& q, std::string* out, int tmo = kTmo, int cap = 512) {
  std::vector<char> o(q.begin(), q.end()), in((size_t)cap + 8, 0);
  o.resize(q.size() + 8, 0);
  int n = 0;
  int st = kvtcp_Query(r, tmo, o.data(), (int)q.size(), in.data(), cap, KVTCP_FLAG_END, 0, &n);
  if (out) out->assign(in.data(), (size_t)std::max(0, std::min(n, cap)));
  return st;
}

// One bridge command (a HiSLIP vendor-specific message) and its answer.
inline int bridgeCommand(KvTcpInfo* r, const std::string& cmd, std::string* answer, int cap = 1024, int tmo = kTmo) {
  std::vector<char> in((size_t)cap + 4, 0);
  int n = 0;
  int st = kvtcp_kvhislip_Query(r, tmo, cmd.data(), (int)cmd.size(), in.data(), cap, &n);
  if (answer) answer->assign(in.data(), (size_t)std::max(0, std::min(n, cap)));
  return st;
}

}  // namespace simtest
