// The driver used the way a host uses it, against simulated bridges on
// 127.0.0.2 and 127.0.0.3 (every case has a network namespace of its own): a
// resource-manager file, tcpvxi_start, vintfOpenDevice, attribute look-ups.
#pragma once

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "HiSLIPcommands.h"
#include "TcpVxiAPI.h"
#include "TcpVxiAPIint.h"
#include "mainframe/mainframe.h"
#include "sim.h"

namespace sh {

constexpr ViStatus kBusError = (ViStatus)0xBFFF0038;
constexpr ViStatus kTmo = (ViStatus)0xBFFF0015;
constexpr ViStatus kConnLost = (ViStatus)0xBFFF00A6;
constexpr ViUInt32 kSwap = 0x80000000u;

// Logical addresses of the default simulated mainframe (instruments 0 to 5).
constexpr int kLaBridge = 0, kLaDigitizer = 8, kLaDmm = 16, kLaCounter = 24, kLaSwitch = 32, kLaMemory = 40;

inline std::string resmanPath() { return std::string(getenv("HOME")) + "/.config/tarvelo/visa/resmantcpvxi.out"; }

inline void writeResmanText(const std::string& text) {
  std::filesystem::create_directories(std::string(getenv("HOME")) + "/.config/tarvelo/visa");
  std::ofstream(resmanPath(), std::ios::binary) << text;
}

// "[INTFn]" sections for the given addresses, numbered from 1.
inline void writeResman(const std::vector<std::string>& addrs) {
  std::string t = "[COMMON]\nNumIntf=" + std::to_string(addrs.size()) + "\n";
  for (size_t i = 0; i < addrs.size(); i++)
    t += "[INTF" + std::to_string(i + 1) + "]\nINTF_NUM=" + std::to_string(i + 1) + "\nADDR=" + addrs[i] +
         "\nDEVNAME=mainframe " + std::to_string(i) + "\n";
  writeResmanText(t);
}

inline std::unique_ptr<bridgesim::Server> startSim(const char* ip) {
  bridgesim::ServerOptions o;
  o.address = ip;
  o.verbosity = 0;
  o.logSink = [](const std::string&) {};
  auto s = std::make_unique<bridgesim::Server>(o);
  s->start();
  return s;
}

inline uint32_t word(const std::vector<uint8_t>& b, size_t i) {
  uint32_t v = 0;
  if (b.size() >= 4 * (i + 1)) memcpy(&v, &b[4 * i], 4);
  return v;
}

// The first n words of a command.
inline std::vector<uint32_t> head(const std::vector<uint8_t>& c, size_t n) {
  std::vector<uint32_t> w;
  for (size_t i = 0; i < n; i++) w.push_back(word(c, i));
  return w;
}

// Little-endian words as bytes, as the bridge's answers carry them.
inline std::vector<uint8_t> bytesOf(std::initializer_list<uint32_t> ws) {
  std::vector<uint8_t> b;
  for (uint32_t w : ws)
    for (int i = 0; i < 4; i++) b.push_back((uint8_t)(w >> (8 * i)));
  return b;
}

// Commands of one code among those the bridge received.
inline std::vector<std::vector<uint8_t>> commandsOf(const bridgesim::Server& s, uint32_t code) {
  std::vector<std::vector<uint8_t>> r;
  for (auto& c : s.receivedCommands())
    if ((word(c, 0) & 0xFF) == code) r.push_back(c);
  return r;
}

inline uint16_t attr16(uint16_t intf, uint32_t n, uint32_t id) {
  uint16_t v = 0xEEEE;
  EXPECT_EQ(0, vintfGetRsrcAttr(intf, n, id, &v)) << std::hex << id;
  return v;
}
inline uint64_t attr64(uint16_t intf, uint32_t n, uint32_t id) {
  uint64_t v = ~0ull;
  EXPECT_EQ(0, vintfGetRsrcAttr(intf, n, id, &v)) << std::hex << id;
  return v;
}

// True while the driver mutex is free (takes and gives it back).
inline bool mutexFree() {
  if (util_mutex_lock(hMutexTcpVxiRM, 0) != 0) return false;
  util_mutex_unlock(hMutexTcpVxiRM);
  return true;
}

// The index of the instrument at logical address la, as a host finds it; -1 if none.
inline int instrumentAt(uint16_t intf, int la) {
  ViUInt32 n = 0;
  if (vintfGetNumRsrc(intf, &n) != 0) return -1;
  for (ViUInt32 i = 0; i < n; i++)
    if (attr16(intf, i, VI_ATTR_VXI_LA) == la) return (int)i;
  return -1;
}

// A16 address of a device's configuration registers.
inline ViBusAddress configBase(int la) { return 0xC000u + 0x40u * (unsigned)la; }

// Simulators on the given addresses, the driver started and opened on them.
class SimHost : public ::testing::Test {
 protected:
  explicit SimHost(std::vector<std::string> addrs = {"127.0.0.2"}) : addrs_(std::move(addrs)) {}

  void SetUp() override {
    for (auto& a : addrs_) sims.push_back(startSim(a.c_str()));
    writeResman(addrs_);
    tcpvxi_start();
    ViUInt16 n = 0;
    ASSERT_EQ(0, vintfOpenDevice(&n));
    ASSERT_EQ(addrs_.size(), n);
    for (size_t i = 0; i < addrs_.size(); i++) ASSERT_EQ(1, Interfaces[i].kvtcp.Connected) << i;
    for (auto& s : sims) s->clearReceived();
  }
  void TearDown() override {
    vintfUserIRQCallback(nullptr);
    if (tcpvxiGD) tcpvxi_stop();
    for (auto& s : sims) s.reset();
  }

  bridgesim::Server& sim(size_t i = 0) { return *sims[i]; }
  bridgesim::Mainframe& mainframe(size_t i = 0) { return sims[i]->bridge().mainframe(); }
  // The simulated memory behind a device's window, in bus (big-endian) order.
  std::vector<uint8_t> busMemory(int la, uint32_t off, size_t n, size_t i = 0) {
    std::vector<uint8_t> v(n);
    mainframe(i).deviceAt(la)->memory()->read(off, v.data(), n);
    return v;
  }
  // Bridge-command faults of simulator i, edited in place.
  void faults(const std::function<void(bridgesim::CommandFaults&)>& edit, size_t i = 0) {
    bridgesim::CommandFaults f = sims[i]->commandFaults();
    edit(f);
    sims[i]->setCommandFaults(f);
  }
  // The first n words of the last command of this code simulator i received.
  std::vector<uint32_t> lastHead(uint32_t code, size_t n, size_t i = 0) {
    auto c = commandsOf(*sims[i], code);
    return c.empty() ? std::vector<uint32_t>{} : head(c.back(), n);
  }
  // The instrument's index, required to exist.
  int need(int la, uint16_t intf = 0) {
    int i = instrumentAt(intf, la);
    EXPECT_GE(i, 0) << "no instrument at logical address " << la;
    return i;
  }

  std::vector<std::string> addrs_;
  std::vector<std::unique_ptr<bridgesim::Server>> sims;
};

}  // namespace sh
