// The HiSLIP client against the simulated bridge where a scripted peer falls
// short: several clients at once, bridge commands between queries and a flood
// of asynchronous events (faults and reconnects: the scripted-peer suites).
#include <gtest/gtest.h>

#include "instrument.h"
#include "simhost.h"  // the simulated bridge as every driver and transport suite starts it
#include "testkit.h"

using kt::eventually;
using kt::newRecord;

namespace {

const std::string kIdn = std::string(bridgesim::kIdentity) + "\n";

// A query over Data/DataEnd: its status and the answer as far as it was read.
std::pair<int, std::string> query(KvTcpInfo* r, const std::string& q) {
  std::vector<char> o(q.begin(), q.end()), in(520, 0);
  o.resize(q.size() + 8, 0);
  int n = 0;
  int st = kvtcp_Query(r, 2000, o.data(), (int)q.size(), in.data(), 512, KVTCP_FLAG_END, 0, &n);
  return {st, std::string(in.data(), (size_t)std::max(0, std::min(n, 512)))};
}

// One bridge command (a HiSLIP vendor-specific message) and its answer.
int bridgeCommand(KvTcpInfo* r, const std::string& cmd, std::string* answer, int cap = 1024) {
  std::vector<char> in((size_t)cap + 4, 0);
  int n = 0;
  int st = kvtcp_kvhislip_Query(r, 2000, cmd.data(), (int)cmd.size(), in.data(), cap, &n);
  answer->assign(in.data(), (size_t)std::max(0, std::min(n, cap)));
  return st;
}

std::atomic<int> gAsyncVendor{0};
void onEvent(pKvTcpInfo r) {
  if (r->hislipAsyncInMsg == 128) gAsyncVendor++;
}

}  // namespace

TEST(SimSession, SeveralClientsAtOnce) {
  auto sim = sh::startSim("127.0.0.2");
  constexpr int kClients = 4, kRounds = 25;
  std::atomic<int> good{0};
  std::vector<std::thread> th;
  for (int c = 0; c < kClients; c++) {
    th.emplace_back([&, c] {
      KvTcpInfo* r = newRecord();
      if (kvtcp_hislip_Connect(r, "127.0.0.2", "inst0") != 0) return;
      for (int i = 0; i < kRounds; i++) {
        bool idn = (i + c) % 2 == 0;  // alternating, so that a mixed-up answer would show
        if (query(r, idn ? "*IDN?\n" : "*OPC?\n") == std::pair(2, idn ? kIdn : std::string("1\n"))) good++;
      }
      kvtcp_Close(r);
    });
  }
  for (auto& t : th) t.join();
  EXPECT_EQ(kClients * kRounds, good.load());
  EXPECT_EQ((uint64_t)kClients, sim->stats().sessionsOpened);
}

TEST(SimSession, BridgeCommandsBetweenQueriesAndAFloodOfEvents) {
  auto sim = sh::startSim("127.0.0.2");
  KvTcpInfo* r = newRecord();
  ASSERT_EQ(0, kvtcp_hislip_Connect(r, "127.0.0.2", "inst0"));
  // Resource text (command 16): a long answer, status word first.
  std::string ans;
  ASSERT_GE(bridgeCommand(r, kt::words({16, 0}), &ans, 65536), 0);
  EXPECT_EQ(0u, kt::word(ans, 0));
  std::string text = ans.substr(4);
  while (!text.empty() && text.back() == '\0') text.pop_back();  // word padding
  EXPECT_EQ(sim->bridge().resourceText(), text);
  ASSERT_EQ(std::pair(2, kIdn), query(r, "*IDN?\n"));  // instrument data on the same channel

  // Fifty asynchronous reports ahead of an answer: each reaches the handler,
  // and the answer is still read in step.
  kvtcp_setCallback(onEvent);
  sim->updateFaults([](bridgesim::HislipFaults& f) { f.floodAsync = 50; });
  EXPECT_EQ(std::pair(2, kIdn), query(r, "*IDN?\n"));
  EXPECT_TRUE(eventually([] { return gAsyncVendor == 50; }));
  EXPECT_EQ(std::pair(2, std::string("1\n")), query(r, "*OPC?\n"));
  kvtcp_setCallback(nullptr);
  kvtcp_Close(r);
}
