// The rig, the first open of many bridges (in a fresh process each round,
// since the instrument list is filled once per process), and several
// processes sharing one bridge.
#include <fcntl.h>
#include <semaphore.h>
#include <stdio.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "TcpVxiAPI.h"
#include "floor.h"
#include "paths.h"

namespace bpaths {

std::string resmanFile() { return std::string(getenv("HOME")) + "/.config/tarvelo/visa/resmantcpvxi.out"; }

void writeResman(const std::vector<std::string>& addrs) {
  std::filesystem::create_directories(std::string(getenv("HOME")) + "/.config/tarvelo/visa");
  std::string t = "[COMMON]\nNumIntf=" + std::to_string(addrs.size()) + "\n";
  for (size_t i = 0; i < addrs.size(); i++)
    t += "[INTF" + std::to_string(i + 1) + "]\nINTF_NUM=" + std::to_string(i + 1) + "\nADDR=" + addrs[i] +
         "\nDEVNAME=mainframe " + std::to_string(i) + "\n";
  std::ofstream(resmanFile(), std::ios::binary) << t;
}

bool Rig::start(const std::vector<std::string>& addrs, const std::string& mainframeIni, bool openDriver) {
  try {
    for (auto& a : addrs) {
      bridgesim::ServerOptions o;
      o.address = a;
      o.verbosity = 0;
      o.recordLimit = 0;
      o.mainframeIni = mainframeIni;
      o.logSink = [](const std::string&) {};
      sims.push_back(std::make_unique<bridgesim::Server>(o));
      sims.back()->start();
    }
  } catch (const std::exception& e) {
    fprintf(stderr, "bench_paths: simulator: %s (run through tests/isolate.sh)\n", e.what());
    return false;
  }
  writeResman(addrs);
  if (!openDriver) return true;
  tcpvxi_start();
  driverUp = true;
  ViUInt16 n = 0;
  if (vintfOpenDevice(&n) != 0 || n != addrs.size()) {
    fail("the driver did not open every bridge");
    return false;
  }
  return true;
}

Rig::~Rig() {
  if (driverUp) tcpvxi_stop();
  sims.clear();
}

int Rig::instrument(int intf, int la) {
  ViUInt32 n = 0;
  if (vintfGetNumRsrc((ViUInt16)intf, &n) != 0) return -1;
  for (ViUInt32 i = 0; i < n; i++) {
    ViUInt16 v = 0;
    if (vintfGetRsrcAttr((ViUInt16)intf, i, VI_ATTR_VXI_LA, &v) == 0 && v == la) return (int)i;
  }
  return -1;
}

uint64_t Rig::memBase(int intf, int la) {
  int i = instrument(intf, la);
  ViUInt64 base = 0;
  if (i < 0 || vintfGetRsrcAttr((ViUInt16)intf, (ViUInt32)i, VI_ATTR_MEM_BASE_64, &base) != 0) return 0;
  return base;
}

// ------------------------------------------------------------ first open

namespace {

const int kBridges = 32, kInstruments = 64;

std::string bridgeAddr(int i) { return "127.0.1." + std::to_string(i + 1); }

// A mainframe of 64 devices: the controller and 63 register-based ones.
std::string writeBigMainframe() {
  std::string path = std::string(getenv("HOME")) + "/bench-mainframe.ini";
  std::ofstream f(path);
  f << "[MAINFRAME]\nNAME=big\nINTF_NUM=1\nBOARD=0\n";
  f << "[Controller]\nLA=0\nSLOT=0\nCLASS=message\nKIND=controller\nMANF_ID=0xFFB\nMODEL_CODE=0x001\n";
  for (int i = 1; i < kInstruments; i++)
    f << "[Dev" << i << "]\nLA=" << i << "\nSLOT=" << (i % 13) << "\nCLASS=register\nMANF_ID=0xFFB\nMODEL_CODE=0x"
      << std::hex << (0x100 + i) << std::dec << "\nSPACE=A24\nM=12\n";
  return path;
}

// The floor of the first open: for every bridge, the same hand-shake, lock
// command and resource-text command over plain sockets, and nothing else.
extern "C" __attribute__((noinline)) int floorOpenAll(floorc::Client* c, int n, size_t* textBytes) {
  std::vector<uint8_t> text(256 * 1024);
  *textBytes = 0;
  for (int i = 0; i < n; i++) {
    if (!c[i].open(bridgeAddr(i).c_str())) return -1;
    uint32_t lock[2] = {1, 1000}, rm[2] = {16, 0};
    int32_t st = 0;
    if (c[i].exchange(lock, 8, nullptr, 0, &st, 4) != 4 || st < 0) return -1;
    long len = c[i].exchange(rm, 8, nullptr, 0, text.data(), text.size());
    if (len < 4) return -1;
    *textBytes += (size_t)len - 4;
  }
  return 0;
}

// Runs a command and returns what it printed.
std::string capture(const std::string& cmd) {
  std::string out;
  FILE* p = popen(cmd.c_str(), "r");
  if (!p) return out;
  char buf[4096];
  size_t k;
  while ((k = fread(buf, 1, sizeof buf, p)) > 0) out.append(buf, k);
  pclose(p);
  return out;
}

double field(const std::string& s, const char* key) {
  size_t at = s.find(key);
  return at == std::string::npos ? -1 : atof(s.c_str() + at + strlen(key));
}

}  // namespace

int runOpen(const Options& o, const char* self) {
  Rig rig;
  std::vector<std::string> addrs;
  for (int i = 0; i < kBridges; i++) addrs.push_back(bridgeAddr(i));
  if (!rig.start(addrs, writeBigMainframe(), false)) return 1;
  const char* wrap = getenv("BENCH_OPEN_WRAP");  // e.g. a valgrind command line, run once at the end
  for (int r = 0; r < o.rounds; r++) {
    std::string d = capture(std::string(self) + " open-child driver");
    std::string f = capture(std::string(self) + " open-child floor");
    double dn = field(d, "ns="), fn = field(f, "ns=");
    if (dn < 0 || fn < 0) return fail("a first-open child failed");
    emit("open", r, {{"driver", dn}, {"floor", fn}, {"instruments", field(d, "instr=")}});
  }
  if (wrap && *wrap) capture(std::string(wrap) + " " + self + " open-child driver");
  return 0;
}

int runOpenChild(int argc, char** argv) {
  std::string what = argc > 2 ? argv[2] : "driver";
  if (what == "floor") {
    std::vector<floorc::Client> c(kBridges);
    size_t bytes = 0;
    double t0 = nowNs();
    int st = floorOpenAll(c.data(), kBridges, &bytes);
    double t1 = nowNs();
    for (auto& x : c) x.closeAll();
    if (st != 0) return fail("floor open failed");
    printf("ns=%.0f text=%zu\n", t1 - t0, bytes);
    return 0;
  }
  tcpvxi_start();
  ViUInt16 n = 0;
  double t0 = nowNs();
  ViStatus st = vintfOpenDevice(&n);
  double t1 = nowNs();
  ViUInt32 total = 0;
  for (ViUInt16 i = 0; i < n; i++) {
    ViUInt32 k = 0;
    vintfGetNumRsrc(i, &k);
    total += k;
  }
  tcpvxi_stop();
  if (st != 0 || n != kBridges) return fail("driver open failed");
  printf("ns=%.0f instr=%u\n", t1 - t0, total);
  return 0;
}

// ------------------------------------------------------------ processes

namespace {
const int kProcs = 4;
const char* kFloorSem = "/kvbench_floor";
}  // namespace

extern "C" int floorIn16(floorc::Client* c, bool designWay, uint16_t* v);

int runMulti(const Options& o, const char* self) {
  Rig rig;
  if (!rig.start({"127.0.0.1"}, "", false)) return 1;
  const int n = o.quick ? 300 : 2000;
  sem_unlink(kFloorSem);
  for (int r = 0; r < o.rounds; r++) {
    double rate[2];
    for (int k = 0; k < 2; k++) {
      const char* kind = k == 0 ? "driver" : "floor";
      // Every child sets up, then waits for the common start time.
      double start = nowNs() + 0.5e9;
      std::vector<FILE*> kids;
      for (int i = 0; i < kProcs; i++) {
        std::string cmd = std::string(self) + " multi-child " + kind + " " + std::to_string(n) + " " +
                          std::to_string((long long)start);
        kids.push_back(popen(cmd.c_str(), "r"));
      }
      double end = 0;
      bool ok = true;
      for (FILE* p : kids) {
        char line[128] = {0};
        if (!p || !fgets(line, sizeof line, p)) ok = false;
        double e = ok ? field(line, "end=") : -1;
        if (e < 0) ok = false;
        end = std::max(end, e);
        if (p) pclose(p);
      }
      if (!ok) return fail("a child process failed");
      rate[k] = kProcs * n / ((end - start) / 1e9);
    }
    emit("multi", r, {{"driver", rate[0]}, {"floor", rate[1]}});
  }
  sem_unlink(kFloorSem);
  return 0;
}

int runMultiChild(int argc, char** argv) {
  if (argc < 5) return fail("multi-child driver|floor N START");
  bool driver = std::string(argv[2]) == "driver";
  int n = atoi(argv[3]);
  double start = atof(argv[4]);
  floorc::Client c;
  sem_t* sem = nullptr;
  if (driver) {
    tcpvxi_start();
    ViUInt16 k = 0;
    if (vintfOpenDevice(&k) != 0 || k != 1) return fail("driver open failed");
  } else {
    sem = sem_open(kFloorSem, O_CREAT, 0600, 1);
    if (sem == SEM_FAILED || !c.open("127.0.0.1")) return fail("floor set-up failed");
  }
  while (nowNs() < start) usleep(200);
  for (int i = 0; i < n; i++) {
    ViUInt16 v = 0;
    int st;
    if (driver) {
      st = vintfIn16(0, 0, 1, 0xC000, &v);
    } else {
      sem_wait(sem);
      st = floorIn16(&c, true, &v);
      sem_post(sem);
    }
    if (st != 0) return fail("exchange failed");
  }
  printf("end=%.0f\n", nowNs());
  fflush(stdout);
  if (driver) tcpvxi_stop();
  c.closeAll();
  return 0;
}

}  // namespace bpaths
