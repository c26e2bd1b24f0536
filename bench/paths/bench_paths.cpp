// Every data path of the driver beside its floor, in the same process and
// the same run, against the simulated bridge on loopback.  Each path is
// measured in interleaved rounds (driver, floor, driver, floor, ...) and each
// round keeps its median; bench/compare.py turns the rounds into ratios with
// their spread, runs the instruction counts under callgrind and prints the
// table.  Nothing here asserts a time.
//
//   bench_paths reg|block|ws|open|multi [--rounds N] [--quick]
//   bench_paths count reg|block|ws N (for callgrind: each path N times, both ways)
//   bench_paths open-child ADDRS...  (one first open in a fresh process)
//   bench_paths multi-child driver|floor N
//
// Output: one JSON object per line, {"path": ..., "round": ..., ...}.
// Runs in its own network namespace (tests/isolate.sh): it uses port 4880.
#include <fcntl.h>
#include <semaphore.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <time.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "TcpVxiAPI.h"
#include "floor.h"
#include "paths.h"
#include "sim.h"

using namespace bpaths;

namespace {

// ------------------------------------------------------------ registers

const uint32_t kRegCmd = 4u | 0x00800000u | 0x00040000u | 0x00010000u;  // single read, A16, D16, data
const uint32_t kRegAddr = 0xC000;                                      // ID register of the bridge (LA 0)

extern "C" __attribute__((noinline)) int floorIn16(floorc::Client* c, bool designWay, uint16_t* v) {
  uint32_t cmd[3] = {kRegCmd, 0, kRegAddr};
  uint32_t ans[2] = {0, 0};
  long n = c->exchange(cmd, sizeof cmd, nullptr, 0, ans, sizeof ans, nullptr, designWay);
  if (n != 8 || (int32_t)ans[0] < 0) return -1;
  *v = (uint16_t)ans[1];
  return 0;
}

int runReg(const Options& o) {
  Rig rig;
  if (!rig.start({"127.0.0.1"})) return 1;
  floorc::Client fl;
  if (!fl.open("127.0.0.1")) return fail("floor client cannot connect");
  const int n = o.quick ? 300 : 3000;
  std::vector<double> all[3];
  for (int r = 0; r < o.rounds; r++) {
    std::vector<double> d, fd, fp;
    for (int i = 0; i < n; i++) {
      ViUInt16 v = 0;
      double t0 = nowNs();
      ViStatus st = vintfIn16(0, 0, 1, kRegAddr, &v);
      double t1 = nowNs();
      if (st != 0) return fail("vintfIn16 failed");
      uint16_t w = 0;
      if (floorIn16(&fl, true, &w) != 0) return fail("floor exchange failed");
      double t2 = nowNs();
      if (floorIn16(&fl, false, &w) != 0) return fail("floor exchange failed");
      double t3 = nowNs();
      d.push_back(t1 - t0);
      fd.push_back(t2 - t1);
      fp.push_back(t3 - t2);
    }
    emit("reg", r, {{"driver", median(d)}, {"floor_design", median(fd)}, {"floor", median(fp)}});
    all[0].insert(all[0].end(), d.begin(), d.end());
    all[1].insert(all[1].end(), fd.begin(), fd.end());
    all[2].insert(all[2].end(), fp.begin(), fp.end());
  }
  const char* names[3] = {"driver", "floor_design", "floor"};
  for (int k = 0; k < 3; k++)
    emit("reg_pct", 0,
         {{std::string(names[k]) + "_p50", pct(all[k], 0.5)},
          {std::string(names[k]) + "_p90", pct(all[k], 0.9)},
          {std::string(names[k]) + "_p99", pct(all[k], 0.99)},
          {std::string(names[k]) + "_p999", pct(all[k], 0.999)}});
  fl.closeAll();
  return 0;
}

// ------------------------------------------------------------ blocks

const uint32_t kChunk32 = 16380;  // elements of D32 per bridge message

// The floor of a block move: the driver's chunks and commands, each sent
// with one call, each answer received straight into the caller's memory.
extern "C" __attribute__((noinline)) int floorMove32(floorc::Client* c, bool out, uint32_t addr, uint32_t* buf,
                                                     uint32_t count) {
  // D32, A32, data, incrementing
  uint32_t cmdWord = (out ? 8u : 7u) | 0x01000000u | 0x00100000u | 0x00010000u | 0x08000000u;
  while (count) {
    uint32_t n = count < kChunk32 ? count : kChunk32;
    uint32_t tmo = n / 4 + 10;
    uint32_t head[4] = {cmdWord, tmo, addr, n};
    if (out) {
      uint32_t ans[2];
      if (c->exchange(head, 16, buf, (size_t)n * 4, ans, 8) != 8 || (int32_t)ans[0] < 0) return -1;
      n = ans[1];
    } else {
      uint8_t h[16];
      floorc::hislipHeader(h, 128, 0, 16);
      iovec v[2] = {{h, 16}, {head, 16}};
      uint32_t ah[2];
      if (!floorc::sendv(c->sync, v, 2) || !floorc::recvAll(c->sync, h, 16) || !floorc::recvAll(c->sync, ah, 8))
        return -1;
      if ((int32_t)ah[0] < 0 || ah[1] > n) return -1;
      int32_t trailer;
      if (!floorc::recvAll(c->sync, buf, (size_t)ah[1] * 4) || !floorc::recvAll(c->sync, &trailer, 4)) return -1;
      n = ah[1];
    }
    if (n == 0) return -1;
    addr += n * 4;
    buf += n;
    count -= n;
  }
  return 0;
}

double threadCpuNs() {
  timespec t;
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
  return (double)t.tv_sec * 1e9 + (double)t.tv_nsec;
}

// The default mainframe and a 64 MiB memory card in A32 (window code 5).
std::string writeBlockMainframe() {
  std::string path = std::string(getenv("HOME")) + "/bench-block.ini";
  std::ofstream(path) << "[Controller]\nLA=0\nSLOT=0\nCLASS=message\nKIND=controller\n"
                      << "[Memory]\nLA=40\nSLOT=6\nCLASS=memory\nKIND=memory\nSPACE=A32\nM=5\n";
  return path;
}

int runBlock(const Options& o) {
  Rig rig;
  if (!rig.start({"127.0.0.1"}, writeBlockMainframe())) return 1;
  floorc::Client fl;
  if (!fl.open("127.0.0.1")) return fail("floor client cannot connect");
  uint64_t base = rig.memBase(0, kLaMemory);
  if (!base) return fail("no memory card in the simulated mainframe");
  const size_t big = o.quick ? (8u << 20) : (64u << 20);
  std::vector<uint32_t> buf(big / 4);
  for (size_t i = 0; i < buf.size(); i++) buf[i] = (uint32_t)i;
  struct Case {
    const char* name;
    size_t bytes;
    int reps;
  };
  std::vector<Case> cases = {{"big", big, 2}};
  for (size_t kb : {1, 4, 16, 64, 256, 1024, 4096})
    cases.push_back({"sweep", kb * 1024, (int)std::max<size_t>(3, (o.quick ? 2u : 16u) * 1024 / kb)});
  for (int r = 0; r < o.rounds; r++) {
    for (const Case& c : cases) {
      for (int out = 1; out >= 0; out--) {
        std::vector<double> dt, ft, dc, fc;
        ViUInt32 count = (ViUInt32)(c.bytes / 4);
        for (int k = 0; k < c.reps; k++) {
          double w0 = nowNs(), c0 = threadCpuNs();
          ViStatus st = out ? vintfMoveOut32(0, 0, 3, 1, base, count, buf.data())
                            : vintfMoveIn32(0, 0, 3, 1, base, count, buf.data());
          double w1 = nowNs(), c1 = threadCpuNs();
          if (st != 0) return fail("driver block move failed");
          if (floorMove32(&fl, out, (uint32_t)base, buf.data(), count) != 0) return fail("floor block move failed");
          double w2 = nowNs(), c2 = threadCpuNs();
          dt.push_back(w1 - w0);
          ft.push_back(w2 - w1);
          dc.push_back(c1 - c0);
          fc.push_back(c2 - c1);
        }
        std::string path = std::string("block_") + (out ? "out" : "in") + (c.bytes == big ? "" : "_sweep");
        emit(path, r,
             {{"bytes", (double)c.bytes},
              {"driver", median(dt)},
              {"floor", median(ft)},
              {"driver_cpu", median(dc)},
              {"floor_cpu", median(fc)}});
      }
    }
  }
  fl.closeAll();
  return 0;
}

// ------------------------------------------------------------ Word Serial

const uint32_t kWsChunk = 256;

// The floor of a Word Serial write: the same 256-byte write commands, END
// with the last; a "not ready" answer is asked again, as the driver does.
extern "C" __attribute__((noinline)) int floorWsWrite(floorc::Client* c, int la, const char* p, size_t n,
                                                      bool designWay = false) {
  size_t done = 0;
  while (done < n) {
    uint32_t k = (uint32_t)std::min<size_t>(kWsChunk, n - done);
    bool last = done + k == n;
    uint32_t head[3] = {13u | (uint32_t)la << 8 | (last ? 0x02000000u : 0u), 1, k};
    uint32_t ans[2];
    if (c->exchange(head, 12, p + done, k, ans, 8, nullptr, designWay) != 8) return -1;
    if ((int32_t)ans[0] == (int32_t)0xBFFF0015) continue;
    if ((int32_t)ans[0] < 0 || ans[1] == 0 || ans[1] > k) return -1;
    done += ans[1];
  }
  return 0;
}

// The floor of a Word Serial read up to END: 256-byte read commands.
extern "C" __attribute__((noinline)) long floorWsRead(floorc::Client* c, int la, char* p, size_t cap,
                                                      bool designWay = false) {
  size_t got = 0;
  uint8_t ans[8 + kWsChunk];
  while (got < cap) {
    uint32_t want = (uint32_t)std::min<size_t>(kWsChunk, cap - got);
    uint32_t head[3] = {12u | (uint32_t)la << 8 | 0x02000000u, 1, want};
    long len = c->exchange(head, 12, nullptr, 0, ans, sizeof ans, nullptr, designWay);
    if (len < 8) return -1;
    int32_t st;
    uint32_t k;
    memcpy(&st, ans, 4);
    memcpy(&k, ans + 4, 4);
    if (st == (int32_t)0xBFFF0015) continue;
    if (st < 0 || k > want || (long)k > len - 8) return -1;
    memcpy(p + got, ans + 8, k);
    got += k;
    if (st & 2) break;
  }
  return (long)got;
}

int runWs(const Options& o) {
  Rig rig;
  if (!rig.start({"127.0.0.1"})) return 1;
  floorc::Client fl;
  if (!fl.open("127.0.0.1")) return fail("floor client cannot connect");
  int idx = rig.instrument(0, kLaSwitch);
  if (idx < 0) return fail("no message-based switch in the simulated mainframe");
  // 64 KiB of blanks and a newline: a message the instrument takes whole
  // and executes at no cost.  The read side asks for many *IDN? at once and
  // reads back their joined answers (a little more than 64 KiB).
  std::string blank(64 * 1024 - 1, ' ');
  blank += '\n';
  std::string many;
  while (many.size() < 12000) many += "*IDN?;";
  many += "\n";
  const size_t cap = 128 * 1024;
  std::vector<char> in(cap);
  const int reps = o.quick ? 1 : 3, idnReps = o.quick ? 50 : 300;
  for (int r = 0; r < o.rounds; r++) {
    std::vector<double> dw, fw, fwd, dr, fr, frd, di, fi;
    for (int k = 0; k < reps; k++) {
      ViInt32 ret = 0;
      double t0 = nowNs();
      if (vintfWSwrt(0, idx, 2000, blank.data(), (ViInt32)blank.size(), 2, &ret) < 0) return fail("WS write failed");
      double t1 = nowNs();
      if (floorWsWrite(&fl, kLaSwitch, blank.data(), blank.size()) != 0) return fail("floor WS write failed");
      double t2 = nowNs();
      if (floorWsWrite(&fl, kLaSwitch, blank.data(), blank.size(), true) != 0) return fail("floor WS write failed");
      double t2d = nowNs();
      dw.push_back(t1 - t0);
      fw.push_back(t2 - t1);
      fwd.push_back(t2d - t2);

      if (vintfWSwrt(0, idx, 2000, many.data(), (ViInt32)many.size(), 2, &ret) < 0) return fail("WS write failed");
      double t3 = nowNs();
      if (ViStatus s = vintfWSrd(0, idx, 2000, in.data(), (ViInt32)cap, 2, 0, &ret); s < 0 || ret < 65536) {
        fprintf(stderr, "status %X, %d bytes\n", (unsigned)s, (int)ret);
        return fail("WS read failed");
      }
      double t4 = nowNs();
      if (floorWsWrite(&fl, kLaSwitch, many.data(), many.size()) != 0) return fail("floor WS write failed");
      double t5 = nowNs();
      if (floorWsRead(&fl, kLaSwitch, in.data(), cap) < 65536) return fail("floor WS read failed");
      double t6 = nowNs();
      if (floorWsWrite(&fl, kLaSwitch, many.data(), many.size()) != 0) return fail("floor WS write failed");
      double t7 = nowNs();
      if (floorWsRead(&fl, kLaSwitch, in.data(), cap, true) < 65536) return fail("floor WS read failed");
      double t8 = nowNs();
      dr.push_back((t4 - t3) * 65536.0 / (double)ret);
      fr.push_back((t6 - t5) * 65536.0 / (double)ret);
      frd.push_back((t8 - t7) * 65536.0 / (double)ret);
    }
    for (int k = 0; k < idnReps; k++) {
      char q[] = "*IDN?\n";
      char a[256];
      ViInt32 ret = 0;
      double t0 = nowNs();
      if (vintfWSwrt(0, idx, 2000, q, 6, 2, &ret) < 0 || vintfWSrd(0, idx, 2000, a, sizeof a, 2, 0, &ret) < 0)
        return fail("*IDN? through the driver failed");
      double t1 = nowNs();
      if (floorWsWrite(&fl, kLaSwitch, q, 6) != 0 || floorWsRead(&fl, kLaSwitch, a, sizeof a) <= 0)
        return fail("*IDN? through the floor failed");
      double t2 = nowNs();
      di.push_back(t1 - t0);
      fi.push_back(t2 - t1);
    }
    emit("ws", r,
         {{"driver_write", median(dw)},
          {"floor_write", median(fw)},
          {"floor_write_design", median(fwd)},
          {"driver_read", median(dr)},
          {"floor_read", median(fr)},
          {"floor_read_design", median(frd)},
          {"driver_idn", median(di)},
          {"floor_idn", median(fi)}});
  }
  fl.closeAll();
  return 0;
}

// ------------------------------------------------------------ counting

// Runs each path n times, driver and floor, for an instruction count under
// callgrind (bench/compare.py reads the inclusive cost of each function).
int runCount(const std::string& what, int n) {
  Rig rig;
  if (!rig.start({"127.0.0.1"}, what == "block" ? writeBlockMainframe() : "")) return 1;
  floorc::Client fl;
  if (!fl.open("127.0.0.1")) return fail("floor client cannot connect");
  if (what == "reg") {
    for (int i = 0; i < n; i++) {
      ViUInt16 v = 0;
      uint16_t w = 0;
      if (vintfIn16(0, 0, 1, kRegAddr, &v) != 0 || floorIn16(&fl, true, &w) != 0) return fail("exchange failed");
    }
  } else if (what == "block") {
    uint64_t base = rig.memBase(0, kLaMemory);
    std::vector<uint32_t> buf(256 * 1024);  // 1 MiB
    ViUInt32 count = (ViUInt32)buf.size();
    for (int i = 0; i < n; i++) {
      if (vintfMoveOut32(0, 0, 3, 1, base, count, buf.data()) != 0 ||
          vintfMoveIn32(0, 0, 3, 1, base, count, buf.data()) != 0 ||
          floorMove32(&fl, true, (uint32_t)base, buf.data(), count) != 0 ||
          floorMove32(&fl, false, (uint32_t)base, buf.data(), count) != 0)
        return fail("block move failed");
    }
  } else if (what == "ws") {
    int idx = rig.instrument(0, kLaSwitch);
    std::string blank(64 * 1024 - 1, ' ');
    blank += '\n';
    char q[] = "*IDN?\n";
    char a[256];
    for (int i = 0; i < n; i++) {
      ViInt32 ret = 0;
      if (vintfWSwrt(0, idx, 2000, blank.data(), (ViInt32)blank.size(), 2, &ret) < 0 ||
          floorWsWrite(&fl, kLaSwitch, blank.data(), blank.size()) != 0)
        return fail("WS write failed");
      if (vintfWSwrt(0, idx, 2000, q, 6, 2, &ret) < 0 || vintfWSrd(0, idx, 2000, a, sizeof a, 2, 0, &ret) < 0 ||
          floorWsWrite(&fl, kLaSwitch, q, 6) != 0 || floorWsRead(&fl, kLaSwitch, a, sizeof a) <= 0)
        return fail("*IDN? failed");
    }
  }
  fl.closeAll();
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  signal(SIGPIPE, SIG_IGN);
  if (argc < 2) {
    fprintf(stderr, "usage: bench_paths reg|block|ws|open|multi [--rounds N] [--quick]\n");
    return 2;
  }
  std::string mode = argv[1];
  Options o = parseOptions(argc, argv);
  if (mode == "reg") return runReg(o);
  if (mode == "count" && argc > 3) return runCount(argv[2], atoi(argv[3]));
  if (mode == "block") return runBlock(o);
  if (mode == "ws") return runWs(o);
  if (mode == "open") return runOpen(o, argv[0]);
  if (mode == "open-child") return runOpenChild(argc, argv);
  if (mode == "multi") return runMulti(o, argv[0]);
  if (mode == "multi-child") return runMultiChild(argc, argv);
  fprintf(stderr, "unknown mode %s\n", mode.c_str());
  return 2;
}
