// A host process for the integrity tests: loads the driver's shared library
// with dlopen, as a VISA host does.
//   integrity_peer reload <base> <space>
//       start, open, read; stop, dlclose, dlopen, start, open, read again:
//       prints "round N: ok" per round when the read is right.
//   integrity_peer load <base> <space> <instr> <idn> <rounds> <peers>
//       three threads (register reads, block reads, and Word Serial to
//       instrument <instr>: Read Protocol, whose response must not change,
//       and identity queries answered with <idn> unless it is "-") check
//       every answer, once <peers> processes have opened the driver;
//       prints "calls=C mismatches=M".
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

namespace {

typedef void (*voidFn)(void);
typedef int32_t (*openFn)(uint16_t*);
typedef int32_t (*in32Fn)(uint16_t, uint32_t, uint16_t, uint64_t, uint32_t*);
typedef int32_t (*moveIn32Fn)(uint16_t, uint32_t, uint16_t, uint16_t, uint64_t, uint64_t, uint32_t*);
typedef int32_t (*wsWrtFn)(uint16_t, uint32_t, uint32_t, char*, int32_t, uint16_t, int32_t*);
typedef int32_t (*wsCmdFn)(uint16_t, uint32_t, uint32_t, uint16_t, uint16_t, uint16_t*);
typedef int32_t (*wsRdFn)(uint16_t, uint32_t, uint32_t, char*, int32_t, uint16_t, char, int32_t*);

// The pattern the tests write into the simulated memory card.
uint32_t patternAt(uint32_t off) { return 0x5A000000u + off; }

struct Driver {
  void* h = nullptr;
  voidFn start, stop;
  openFn open;
  in32Fn in32;
  moveIn32Fn moveIn32;
  wsWrtFn wsWrt;
  wsRdFn wsRd;
  wsCmdFn wsCmd;
  bool load(const char* lib) {
    h = dlopen(lib, RTLD_NOW | RTLD_LOCAL);
    if (!h) return false;
    start = (voidFn)dlsym(h, "tcpvxi_start");
    stop = (voidFn)dlsym(h, "tcpvxi_stop");
    open = (openFn)dlsym(h, "vintfOpenDevice");
    in32 = (in32Fn)dlsym(h, "vintfIn32");
    moveIn32 = (moveIn32Fn)dlsym(h, "vintfMoveIn32");
    wsWrt = (wsWrtFn)dlsym(h, "_Z10vintfWSwrttjjPcitPi");
    wsRd = (wsRdFn)dlsym(h, "_Z9vintfWSrdtjjPcitcPi");
    wsCmd = (wsCmdFn)dlsym(h, "_Z10vintfWScmdtjjttPt");
    return start && stop && open && in32 && moveIn32 && wsWrt && wsRd && wsCmd;
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
