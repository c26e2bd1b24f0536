// Helpers for driving the simulated bridge with hand-built commands.
#ifndef TESTS_BSIM_H
#define TESTS_BSIM_H

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdint>
#include <algorithm>
#include <cstring>
#include <fstream>
#include <initializer_list>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "bridge.h"
#include "mainframe.h"

namespace bsim {

inline constexpr uint32_t kTmo = 0xBFFF0015, kBerr = 0xBFFF0038, kIo = 0xBFFF003E, kNsup = 0xBFFF0067,
                          kLocked = 0xBFFF000F, kSpace = 0xBFFF004E;
inline constexpr uint32_t A16 = 0x40000, A24 = 0x80000, A32 = 0x100000;
inline constexpr uint32_t D08 = 0x400000, D16 = 0x800000, D32 = 0x1000000, INC = 0x08000000;

inline std::vector<uint8_t> words(std::initializer_list<uint32_t> w) {
  std::vector<uint8_t> v;
  for (uint32_t x : w)
    for (int i = 0; i < 4; ++i) v.push_back(uint8_t(x >> (8 * i)));
  return v;
}

inline uint32_t word(const std::vector<uint8_t>& a, size_t i) {
  if (a.size() < 4 * i + 4) {
    ADD_FAILURE() << "answer of " << a.size() << " bytes has no word " << i;
    return 0xDEADBEEF;
  }
  uint32_t x;
  std::memcpy(&x, a.data() + 4 * i, 4);
  return x;
}

// The text of a Word Serial read answer (status, count, bytes).
inline std::string text(const std::vector<uint8_t>& a) {
  if (a.size() < 8) return "<short>";
  return std::string(a.begin() + 8, a.begin() + 8 + std::min<size_t>(word(a, 1), a.size() - 8));
}

// A single read's status and value, compared as one.
using Read = std::pair<uint32_t, uint32_t>;

// A bridge plus the interrupt reports it broadcasts.
struct Rig {
  explicit Rig(const std::string& ini = std::string()) : b(ini) {
    b.broadcastAsync = [this](const std::vector<uint8_t>& body) {
      std::lock_guard<std::mutex> g(m);
      reports.push_back(body);
    };
  }
  std::vector<uint8_t> cmd(const std::vector<uint8_t>& c, bridgesim::HostId h = {0x0100007F, 1}) {
    return b.handleCommand(h, c.data(), c.size());
  }
  std::vector<uint8_t> cmd(std::initializer_list<uint32_t> w) { return cmd(words(w)); }
  uint32_t st(std::initializer_list<uint32_t> w) { return word(cmd(w), 0); }

  // single accesses
  Read read(uint32_t space, uint32_t width, uint32_t addr) {
    auto a = cmd({4 | space | width, 0, addr});
    return {word(a, 0), word(a, 1)};
  }
  uint32_t write(uint32_t space, uint32_t width, uint32_t addr, uint32_t v) {
    return st({5 | space | width, 1000, addr, v});
  }
  // Word Serial
  std::vector<uint8_t> wsWrite(unsigned la, const std::string& s, bridgesim::HostId h = {0x0100007F, 1}) {
    auto c = words({13u | la << 8 | 0x02000000u, 1, uint32_t(s.size())});  // with END
    c.insert(c.end(), s.begin(), s.end());
    while (c.size() % 4) c.push_back(0);
    return cmd(c, h);
  }
  std::vector<uint8_t> wsRead(unsigned la, uint32_t count, uint32_t mods = 0, uint32_t tmo = 1) {
    return cmd({12u | la << 8 | mods, tmo, count});
  }
  // Polls a Word Serial read until it is no longer busy; returns the answer.
  std::vector<uint8_t> wsReadReady(unsigned la, uint32_t count, uint32_t mods = 0) {
    for (int i = 0; i < 100000; ++i) {
      auto a = wsRead(la, count, mods, 5);
      if (word(a, 0) != kTmo) return a;
    }
    ADD_FAILURE() << "the instrument never answered";
    return {};
  }
  std::string query(unsigned la, const std::string& q) {
    EXPECT_EQ(0u, word(wsWrite(la, q), 0));
    auto a = wsReadReady(la, 256);
    return word(a, 0) & 0x80000000u ? "<error>" : text(a);
  }
  std::vector<uint8_t> wsCmd(unsigned la, uint32_t mods, uint32_t command, uint32_t tmo = 1) {
    return cmd({14u | la << 8 | mods, tmo, command});
  }
  std::vector<std::vector<uint8_t>> takeReports() {
    std::lock_guard<std::mutex> g(m);
    return std::exchange(reports, {});
  }

  // Declared before the bridge: its timer thread may report until the
  // bridge is gone.
  std::mutex m;
  std::vector<std::vector<uint8_t>> reports;
  bridgesim::Bridge b;
};

// A mainframe description in a temporary file; the process id keeps
// parallel runs from several build trees apart.
inline std::string writeIni(const std::string& name, const std::string& body) {
  std::string path = ::testing::TempDir() + std::to_string(getpid()) + "-" + name;
  std::ofstream(path) << body;
  return path;
}

// Configuration register address of a logical address.
inline uint32_t cfg(unsigned la, unsigned off) { return 0xC000 + 0x40 * la + off; }

}  // namespace bsim

#endif
