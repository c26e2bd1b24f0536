// Driver-core helpers beside the driver-sim fixture: a driver reset, a
// hand-filled block, interrupt reports and a recorder for the host's callback.
#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <ostream>
#include <utility>

#include "inifile.h"
#include "simhost.h"

namespace dc {

using namespace sh;
using Bytes = std::vector<uint8_t>;

// An interrupt report body: cmd, the pair count, then (line, status/ID) pairs.
inline Bytes report(std::initializer_list<std::pair<uint32_t, uint32_t>> pairs, uint32_t cmd = 1) {
  Bytes b = bytesOf({cmd, (uint32_t)pairs.size()});
  for (auto& p : pairs) {
    Bytes w = bytesOf({p.first, p.second});
    b.insert(b.end(), w.begin(), w.end());
  }
  return b;
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

// The interrupt recorder behind the host's callback.
constexpr uint32_t kIntr = VI_EVENT_VXI_VME_INTR;
struct Event {
  uint32_t type;
  uint16_t intf;
  uint32_t instr;
  uint64_t statID;
  uint64_t line;
  bool operator==(const Event&) const = default;
};
inline void PrintTo(const Event& e, std::ostream* os) {
  *os << "{intf " << e.intf << ", instr " << e.instr << ", statID 0x" << std::hex << e.statID << std::dec
      << ", line " << e.line << (e.type == kIntr ? "}" : ", not an interrupt}");
}
inline std::mutex evMutex;
inline std::condition_variable evCv;
inline std::vector<Event> evList;
inline void onEvent(ViUInt32 type, ViUInt16 intf, ViUInt32 instr, ViAttrState statID, ViAttrState line) {
  std::lock_guard<std::mutex> g(evMutex);
  evList.push_back({type, intf, instr, statID, line});
  evCv.notify_all();
}
// The events so far, taken out of the recorder.
inline std::vector<Event> takeEvents() {
  std::lock_guard<std::mutex> g(evMutex);
  return std::exchange(evList, {});
}
// Waits (bounded, generously) until n events have arrived.
inline bool waitEvents(size_t n) {
  std::unique_lock<std::mutex> l(evMutex);
  return evCv.wait_for(l, std::chrono::seconds(10), [&] { return evList.size() >= n; });
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
