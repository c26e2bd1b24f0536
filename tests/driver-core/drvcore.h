// Shared helpers of the driver-core tests: the resource file, a driver reset
// between cases, a hand-filled shared block, and a recorder for the host's
// interrupt callback.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <string>
#include <vector>

#include "HiSLIPcommands.h"
#include "TcpVxiAPI.h"
#include "TcpVxiAPIint.h"
#include "inifile.h"
#include "mini_bridge.h"

namespace dc {

inline std::string resmanPath() {
  return std::string(getenv("HOME")) + "/.config/tarvelo/visa/resmantcpvxi.out";
}

inline void writeResman(const std::string& text) {
  std::filesystem::create_directories(std::string(getenv("HOME")) + "/.config/tarvelo/visa");
  std::ofstream(resmanPath(), std::ios::binary) << text;
}

// "[INTFn]" sections for the given addresses, numbered from 1.
inline std::string resmanFor(std::initializer_list<const char*> addrs) {
  std::string t = "[COMMON]\nNumIntf=" + std::to_string(addrs.size()) + "\n";
  int i = 0;
  for (const char* a : addrs) {
    t += "[INTF" + std::to_string(i + 1) + "]\nINTF_NUM=" + std::to_string(i + 1) + "\nADDR=" + a +
         "\nDEVNAME=mainframe " + std::to_string(i) + "\n";
    i++;
  }
  return t;
}

// One instrument section of a bridge's resource text.
inline std::string instr(int n, const std::string& name, int la, const std::string& extra = "") {
  return "[INSTR" + std::to_string(n) + "]\nINTF_NUM=1\nRSRC_NAME=" + name + "\nVXI_LA=" + std::to_string(la) +
         "\nMAINFRAME_LA=0\nMANF_ID=4095\nMODEL_CODE=1234\nSLOT=" + std::to_string(n) +
         "\nVXI_DEV_CLASS=2\noffsetA16=49152\nsizeA16=64\noffsetA24=0\nsizeA24=0\noffsetA32=0\nsizeA32=0\n" + extra;
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

inline uint16_t attr16(uint16_t intf, uint32_t n, uint32_t id) {
  uint16_t v = 0xEEEE;
  EXPECT_EQ(0, vintfGetRsrcAttr(intf, n, id, &v)) << std::hex << id;
  return v;
}
inline std::string attrStr(uint16_t intf, uint32_t n, uint32_t id) {
  char buf[128];
  memset(buf, 'X', sizeof buf);
  EXPECT_EQ(0, vintfGetRsrcAttr(intf, n, id, buf)) << std::hex << id;
  return std::string(buf, strnlen(buf, sizeof buf));
}

// True while the driver mutex is free (takes and gives it back).
inline bool mutexFree() {
  if (util_mutex_lock(hMutexTcpVxiRM, 0) != 0) return false;
  util_mutex_unlock(hMutexTcpVxiRM);
  return true;
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
    resetDriver();
    block = (SHAREDMEMINTF*)calloc(1, sizeof(SHAREDMEMINTF));
    tcpvxiGD = block;
    ASSERT_EQ(0, util_mutex_open(TCPVXI_MUTEX_NAME, &hMutexTcpVxiRM));
    for (int i = 0; i < TCPVXI_MAX_INTF; i++) {
      Interfaces[i].GIntf = &block->Intf[i];
      Interfaces[i].idx = i;
    }
    block->NIntf = 1;
    clearEvents();
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

// Parses a bridge text the way discovery does.
inline IniText parseText(const std::string& text) {
  IniText doc = Ini_New(1);
  sLineTextInput src{(const unsigned char*)text.c_str(), 0};
  Ini_ReadGeneric(doc, Ini_LineTextInputFunction, &src);
  return doc;
}

}  // namespace dc
