// Shared helpers of the driver-core tests: a driver reset, a hand-filled
// shared block, interrupt report bodies and a recorder for the host's
// interrupt callback.  The host-side helpers come with the simulated-bridge
// fixture of the driver-sim tests.
#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>

#include "inifile.h"
#include "simhost.h"

namespace dc {

using namespace sh;
using Bytes = std::vector<uint8_t>;

inline void put32(Bytes& b, uint32_t v) {
  const size_t n = b.size();
  b.resize(n + 4);
  memcpy(b.data() + n, &v, 4);
}

// An interrupt report body: cmd, then (line, status/ID) pairs.
inline Bytes report(std::initializer_list<std::pair<uint32_t, uint32_t>> pairs, uint32_t cmd = 1) {
  Bytes b;
  put32(b, cmd);
  put32(b, (uint32_t)pairs.size());
  for (auto& p : pairs) put32(b, p.first), put32(b, p.second);
  return b;
}

// One instrument section of a bridge's resource text.
inline std::string instr(int n, const std::string& name, int la) {
  return "[INSTR" + std::to_string(n) + "]\nINTF_NUM=1\nRSRC_NAME=" + name + "\nVXI_LA=" + std::to_string(la) +
         "\nMAINFRAME_LA=0\nMANF_ID=4095\nMODEL_CODE=1234\nSLOT=" + std::to_string(n) +
         "\nVXI_DEV_CLASS=2\noffsetA16=49152\nsizeA16=64\noffsetA24=0\nsizeA24=0\noffsetA32=0\nsizeA32=0\n";
}

// Parses a bridge text the way discovery does.
inline IniText parseText(const std::string& text) {
  IniText doc = Ini_New(1);
  sLineTextInput src{(const unsigned char*)text.c_str(), 0};
  Ini_ReadGeneric(doc, Ini_LineTextInputFunction, &src);
  return doc;
}

// Brings the driver back to its loaded state, whatever a case left behind.
inline void resetDriver() {
  vintfUserIRQCallback(nullptr);
  if (tcpvxiGD) tcpvxi_stop();
  for (auto& i : Interfaces) kvtcp_Close(&i.kvtcp);
  memset((void*)Interfaces, 0, sizeof Interfaces);
  FillRsrcCalled = 0;
  tcpvxiGD = nullptr;
  hMapObject = nullptr;
}

// --------------------------------------------------- interrupt recorder

struct Event {
  uint32_t type;
  uint16_t intf;
  uint32_t instr;
  uint64_t statID;
  uint64_t line;
};
struct Recorder {
  std::mutex m;
  std::condition_variable cv;
  std::vector<Event> ev;
};
inline Recorder& rec() {
  static Recorder r;
  return r;
}
inline void onEvent(ViUInt32 type, ViUInt16 intf, ViUInt32 instr, ViAttrState statID, ViAttrState line) {
  std::lock_guard<std::mutex> g(rec().m);
  rec().ev.push_back({type, intf, instr, statID, line});
  rec().cv.notify_all();
}
inline std::vector<Event> events() {
  std::lock_guard<std::mutex> g(rec().m);
  return rec().ev;
}
inline void clearEvents() {
  std::lock_guard<std::mutex> g(rec().m);
  rec().ev.clear();
}
// Waits (bounded, generously) until n events have arrived.
inline bool waitEvents(size_t n) {
  std::unique_lock<std::mutex> l(rec().m);
  return rec().cv.wait_for(l, std::chrono::seconds(10), [&] { return rec().ev.size() >= n; });
}

// A block and a driver mutex filled by hand: no network, no discovery.
class HandFilled : public ::testing::Test {
 protected:
  void SetUp() override {
    block = (SHAREDMEMINTF*)calloc(1, sizeof(SHAREDMEMINTF));
    tcpvxiGD = block;
    ASSERT_EQ(0, util_mutex_open(TCPVXI_MUTEX_NAME, &hMutexTcpVxiRM));
    for (int i = 0; i < TCPVXI_MAX_INTF; i++) {
      Interfaces[i].GIntf = &block->Intf[i];
      Interfaces[i].idx = i;
    }
    block->NIntf = 1;
  }
  void TearDown() override {
    vintfUserIRQCallback(nullptr);
    util_mutex_close(TCPVXI_MUTEX_NAME, &hMutexTcpVxiRM);
    memset((void*)Interfaces, 0, sizeof Interfaces);
    tcpvxiGD = nullptr;
    free(block);
  }
  SHAREDMEMINTF* block = nullptr;
};

}  // namespace dc
