// A host process for the integrity tests: loads the driver's shared library
// with dlopen, as a VISA host does.
//   reload BASE SPACE: three rounds of dlopen, start, open, one checked read,
//       stop, dlclose; "round N: ok" each.
//   load BASE SPACE INSTR IDN ROUNDS PEERS: once PEERS processes have opened
//       the driver, register, block and Word Serial threads (identity queries
//       unless IDN is "-") check every answer; "calls=C mismatches=M".
#include <dlfcn.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "TcpVxiAPI.h"

namespace {

// The pattern the tests write into the simulated memory card.
uint32_t patternAt(uint32_t off) { return 0x5A000000u + off; }

// The entry points, resolved by name as a host does (the Word Serial ones by
// their C++ names); the header only lends their types.
struct Driver {
  void* h = nullptr;
  decltype(&tcpvxi_start) start, stop;
  decltype(&vintfOpenDevice) open;
  decltype(&vintfIn32) in32;
  decltype(&vintfMoveIn32) moveIn32;
  decltype(&vintfWSwrt) wsWrt;
  decltype(&vintfWSrd) wsRd;
  decltype(&vintfWScmd) wsCmd;
  template <class F>
  bool sym(F* f, const char* name) {
    return (*f = (F)dlsym(h, name)) != nullptr;
  }
  bool load(const char* lib) {
    h = dlopen(lib, RTLD_NOW | RTLD_LOCAL);
    return h && sym(&start, "tcpvxi_start") && sym(&stop, "tcpvxi_stop") && sym(&open, "vintfOpenDevice") &&
           sym(&in32, "vintfIn32") && sym(&moveIn32, "vintfMoveIn32") &&
           sym(&wsWrt, "_Z10vintfWSwrttjjPcitPi") && sym(&wsRd, "_Z9vintfWSrdtjjPcitcPi") &&
           sym(&wsCmd, "_Z10vintfWScmdtjjttPt");
  }
};

bool readOk(Driver& d, uint64_t base, uint16_t space, uint32_t off) {
  uint32_t v = 0;
  return d.in32(0, 0, space, base + off, &v) == 0 && v == patternAt(off);
}

int reload(uint64_t base, uint16_t space) {
  for (int round = 1; round <= 3; round++) {
    Driver d;
    if (!d.load(DRIVER_LIB)) {
      printf("round %d: load failed\n", round);
      return 2;
    }
    d.start();
    uint16_t n = 0;
    int32_t st = d.open(&n);
    bool ok = st == 0 && n == 1 && readOk(d, base, space, 0x40 * round);
    printf("round %d: %s (open %d, %u interfaces)\n", round, ok ? "ok" : "FAILED", (int)st, (unsigned)n);
    d.stop();
    dlclose(d.h);
  }
  return 0;
}

// Waits (at most 30 s) until `peers` processes have arrived, each leaving a
// mark in HOME.
bool barrier(int peers) {
  std::string dir = std::string(getenv("HOME") ? getenv("HOME") : "/tmp") + "/integrity-barrier";
  mkdir(dir.c_str(), 0700);
  fclose(fopen((dir + "/" + std::to_string(getpid())).c_str(), "w"));
  for (int waited = 0; waited < 30000; waited += 5) {
    int n = 0;
    if (DIR* d = opendir(dir.c_str())) {
      while (struct dirent* e = readdir(d)) n += e->d_name[0] != '.';
      closedir(d);
    }
    if (n >= peers) return true;
    usleep(5000);
  }
  return false;
}

int load(uint64_t base, uint16_t space, uint32_t dmm, const std::string& idn, int rounds, int peers) {
  Driver d;
  if (!d.load(DRIVER_LIB)) return 2;
  d.start();
  uint16_t n = 0;
  if (d.open(&n) != 0 || n != 1) return 3;
  // Every process fills the shared block on its first open, which a Word
  // Serial call of another process (it takes no driver mutex) would see
  // half done and refuse: the load starts once all have opened.
  if (!barrier(peers)) return 5;
  std::atomic<long> calls{0}, wrong{0}, wrongReg{0}, wrongBlk{0}, wrongWs{0};
  auto registers = [&](uint32_t salt) {
    for (int k = 0; k < rounds * 20; k++, calls++)
      if (!readOk(d, base, space, ((uint32_t)k * 40503u + salt) % 0x10000 * 4)) wrong++, wrongReg++;
  };
  auto blocks = [&] {
    std::vector<uint32_t> v(3000);
    for (int k = 0; k < rounds; k++, calls++) {
      uint32_t off = (uint32_t)(k * 4096) % 0x30000;
      bool ok = d.moveIn32(0, 0, space, 1, base + off, v.size(), v.data()) == 0;
      for (size_t i = 0; ok && i < v.size(); i++) ok = v[i] == patternAt(off + 4 * (uint32_t)i);
      if (!ok) wrong++, wrongBlk++;
    }
  };
  const uint16_t kReadProtocol = 0xDFFF;
  uint16_t protocol = 0;
  if (d.wsCmd(0, dmm, 5000, kReadProtocol, 1, &protocol) != 0) return 4;
  auto wordSerial = [&] {
    for (int k = 0; k < rounds; k++, calls++) {
      uint16_t resp = 0;
      int32_t c = d.wsCmd(0, dmm, 5000, kReadProtocol, 1, &resp);
      if (c != 0 || resp != protocol) {
        if (!wrongWs) fprintf(stderr, "first wrong response: %d 0x%X (not 0x%X)\n", c, resp, protocol);
        wrong++, wrongWs++;
      }
      if (idn == "-") continue;
      char q[] = "*IDN?\n";
      int32_t got = 0;
      std::vector<char> buf(1024 + 256);
      int32_t w = d.wsWrt(0, dmm, 5000, q, 6, 2, &got);
      int32_t r = d.wsRd(0, dmm, 5000, buf.data(), 1024, 2, '\n', &got);
      std::string reply(buf.data(), (size_t)(got > 0 ? got : 0));
      if (w != 0 || r < 0 || reply != idn + "\n") {
        if (!wrongWs) fprintf(stderr, "first wrong reply: write %d read %d \"%s\"\n", w, r, reply.c_str());
        wrong++, wrongWs++;
      }
    }
  };
  std::thread a(registers, 3u), b(blocks), c(wordSerial);
  a.join();
  b.join();
  c.join();
  d.stop();
  printf("registers %ld, blocks %ld, word serial %ld wrong\n", wrongReg.load(), wrongBlk.load(), wrongWs.load());
  printf("calls=%ld mismatches=%ld\n", calls.load(), wrong.load());
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  setvbuf(stdout, nullptr, _IOLBF, 0);
  if (argc >= 4 && !strcmp(argv[1], "reload")) return reload(strtoull(argv[2], 0, 0), (uint16_t)atoi(argv[3]));
  if (argc >= 8 && !strcmp(argv[1], "load"))
    return load(strtoull(argv[2], 0, 0), (uint16_t)atoi(argv[3]), (uint32_t)atoi(argv[4]), argv[5], atoi(argv[6]),
                atoi(argv[7]));
  fprintf(stderr, "usage: integrity_peer reload BASE SPACE | load BASE SPACE INSTR IDN ROUNDS PEERS\n");
  return 1;
}
