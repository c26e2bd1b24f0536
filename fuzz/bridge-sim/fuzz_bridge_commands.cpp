// Arbitrary bridge command payloads into the simulated bridge, several per
// input and from two hosts (so the lock rule is exercised both ways).  The
// bridge must answer every one without crashing or hanging, and neither its
// answers nor its interrupt reports may grow past what the protocol allows.
//
// Input: a sequence of records
//   [flags] [len lo] [len hi] [len payload bytes]
// flags bit 0 picks the host (two addresses, one session each), bit 1 ends
// that host's session after the command (which frees a lock it held).
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "bridge.h"

namespace {

// Word Serial commands (codes 12 to 15) wait for their instrument as long as
// their time-out word says (up to ten seconds): capped here at 1 ms, the same
// waiting code costs microseconds.
constexpr uint32_t kMaxWsTmo = 1;

// Largest answer: one block-read chunk of 65520 bytes with its 8-byte head
// and 4-byte trailer (count inflation, which adds an element, is off here).
constexpr size_t kMaxAnswer = 8 + 65520 + 4;
// An interrupt report carries at most 32 pairs.
constexpr size_t kMaxReport = 8 + 32 * 8;

// The simulator's default mainframe file with a short digitizer FIFO:
// refilling 4096 samples on every power-on would take most of each run.
// Written once per process to a file of its own, removed at exit.
struct MainframeFile {
  char path[32] = "/tmp/fuzz-mainframe-XXXXXX";
  MainframeFile() {
    std::ifstream in(KV_SOURCE_DIR "/tools/bridge-sim/mainframes/default.ini");
    std::string text{std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
    size_t at = text.find("FIFO_SAMPLES=4096");
    int fd = at == std::string::npos ? -1 : mkstemp(path);
    if (fd >= 0) text.replace(at, strlen("FIFO_SAMPLES=4096"), "FIFO_SAMPLES=16");
    if (fd < 0 || write(fd, text.data(), text.size()) != (ssize_t)text.size()) {
      perror("fuzz mainframe file");
      abort();
    }
    close(fd);
  }
  ~MainframeFile() { unlink(path); }
};

[[noreturn]] void fail(const char* what, size_t n) {
  fprintf(stderr, "bridge simulator: %s (%zu bytes)\n", what, n);
  abort();
}

uint32_t le32(const uint8_t* p) { return uint32_t(p[0]) | uint32_t(p[1]) << 8 | uint32_t(p[2]) << 16 | uint32_t(p[3]) << 24; }

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  // A new bridge per input: every run starts from the power-on state, so a
  // finding replays from its input alone.
  static const MainframeFile mainframe;
  bridgesim::Bridge bridge(mainframe.path);
  bridge.broadcastAsync = [&](const std::vector<uint8_t>& body) {
    if (body.size() < 8 || body.size() > kMaxReport || body.size() % 8 != 0) fail("malformed interrupt report", body.size());
    if (le32(body.data()) != 1 || 8 + 8 * size_t(le32(body.data() + 4)) != body.size())
      fail("interrupt report head does not match its size", body.size());
  };
  const bridgesim::HostId hosts[2] = {{0x0100007F, 1}, {0x0200007F, 2}};  // 127.0.0.1 and 127.0.0.2

  std::vector<uint8_t> cmd;
  size_t pos = 0;
  int commands = 0;
  while (pos + 3 <= size && commands < 64) {
    uint8_t flags = data[pos];
    size_t len = data[pos + 1] | size_t(data[pos + 2]) << 8;
    pos += 3;
    if (len > size - pos) len = size - pos;
    // A copy of exactly len bytes, so a read past the payload is caught.
    cmd.assign(data + pos, data + pos + len);
    pos += len;
    uint32_t code = cmd.size() >= 4 ? le32(cmd.data()) & 0xFF : 0;
    if (code >= 12 && code <= 15 && cmd.size() >= 8 && le32(cmd.data() + 4) > kMaxWsTmo) {
      uint32_t t = le32(cmd.data() + 4) & kMaxWsTmo;
      memcpy(cmd.data() + 4, &t, 4);
    }
    const bridgesim::HostId& host = hosts[flags & 1];
    std::vector<uint8_t> answer = bridge.handleCommand(host, cmd.empty() ? nullptr : cmd.data(), cmd.size());
    if (answer.size() > kMaxAnswer) fail("answer larger than one block chunk", answer.size());
    // Word Serial reads (12) and the resource text (16) answer in bytes.
    if (answer.size() % 4 != 0 && code != 12 && code != 16) fail("answer not made of whole words", answer.size());
    if (flags & 2) bridge.hostDisconnected(host);
    ++commands;
  }
  bridge.hostDisconnected(hosts[0]);
  bridge.hostDisconnected(hosts[1]);
  return 0;
}
