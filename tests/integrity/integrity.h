// Shared by the integrity tests: the simulated bridge with a memory card
// filled with a pattern in which every 32-bit word names its own address, so
// an answer that belongs to another call can never pass for the right one.
#pragma once

#include <atomic>
#include <thread>

#include "simhost.h"

namespace integ {

using namespace sh;

// The word at byte offset off of the pattern.
inline uint32_t patternAt(uint32_t off) { return 0x5A000000u + off; }

class PatternHost : public SimHost {
 protected:
  void SetUp() override {
    SimHost::SetUp();
    if (HasFatalFailure()) return;
    const int mem = need(kLaMemory);
    base = attr64(0, mem, VI_ATTR_MEM_BASE_64);
    space = attr16(0, mem, VI_ATTR_MEM_SPACE);
    std::vector<ViUInt32> words(kPatternBytes / 4);
    for (uint32_t k = 0; k < words.size(); k++) words[k] = patternAt(4 * k);
    ASSERT_EQ(0, vintfMoveOut32(0, 0, space, 1, base, words.size(), words.data()));
  }

  // One register read of the pattern: true when status and value are right.
  bool readChecks(uint32_t off) {
    ViUInt32 v = 0;
    return vintfIn32(0, 0, space, base + off, &v) == VI_SUCCESS && v == patternAt(off);
  }
  // One block read of n words of the pattern from off: true when all right.
  bool blockChecks(uint32_t off, size_t n) {
    std::vector<ViUInt32> v(n);
    if (vintfMoveIn32(0, 0, space, 1, base + off, n, v.data()) != VI_SUCCESS) return false;
    for (size_t k = 0; k < n; k++)
      if (v[k] != patternAt(off + 4 * (uint32_t)k)) return false;
    return true;
  }
  void answerDelay(int ms) {
    sim().updateFaults([ms](bridgesim::HislipFaults& f) { f.answerDelayMs = ms; });
  }
  void withheld(bool on) {
    sim().updateFaults([on](bridgesim::HislipFaults& f) { f.neverAnswer = on; });
  }

  static constexpr uint32_t kPatternBytes = 0x40000;
  ViBusAddress base = 0;
  ViUInt16 space = 0;
};

}  // namespace integ
