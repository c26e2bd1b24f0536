// VXI-11 through the transport (kvtcp_Query of *IDN?, and a bulk read of
// DATA? answers) beside an independent client (liblxi on libtirpc) and a
// plain-socket floor that sends the very same ONC RPC records and reads the
// replies with no layer around them.  All three talk to the in-process
// VXI-11 simulator, each over its own link, in interleaved rounds.
//
//   bench_vxi11 [--rounds N] [--quick]
//
// Output: JSON lines as bench_paths prints them.  Runs in its own network
// namespace (tests/isolate.sh): the simulator's portmapper takes port 111.
#include <lxi.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "../paths/floor.h"
#include "kvtcp.h"
#include "sim.h"

namespace {

// Shared with bench_paths' helpers, kept small here.
double nowNs() {
  timespec t;
  clock_gettime(CLOCK_MONOTONIC, &t);
  return (double)t.tv_sec * 1e9 + (double)t.tv_nsec;
}
double median(std::vector<double> v) {
  std::sort(v.begin(), v.end());
  return v.empty() ? 0 : v[v.size() / 2];
}

const char* kAddr = "127.0.0.1";
constexpr uint32_t kCore = 0x0607AF;

void be(std::string& s, uint32_t v) {
  uint32_t n = htonl(v);
  s.append((const char*)&n, 4);
}
uint32_t rdBe(const uint8_t* p) {
  uint32_t v;
  memcpy(&v, p, 4);
  return ntohl(v);
}

// A plain ONC RPC client of the core channel: one record per call, written
// with one send; each reply read as its record mark, then its body.
struct RpcFloor {
  int fd = -1;
  uint32_t xid = 1, lid = 0;
  std::vector<uint8_t> reply;

  std::string call(uint32_t proc, const std::string& args) {
    std::string r;
    be(r, 0);  // record mark, filled below
    be(r, xid++);
    be(r, 0);  // CALL
    be(r, 2);
    be(r, kCore);
    be(r, 1);
    be(r, proc);
    for (int i = 0; i < 4; i++) be(r, 0);  // AUTH_NULL credentials and verifier
    r += args;
    uint32_t mark = htonl(0x80000000u | (uint32_t)(r.size() - 4));
    memcpy(&r[0], &mark, 4);
    return r;
  }
  // One reply record (a single fragment); returns its body after the
  // 24-byte accepted-reply header, or null.
  const uint8_t* exchange(const std::string& rec, size_t* len) {
    iovec v[1] = {{(void*)rec.data(), rec.size()}};
    uint8_t m[4];
    if (!floorc::sendv(fd, v, 1) || !floorc::recvAll(fd, m, 4)) return nullptr;
    uint32_t n = rdBe(m) & 0x7FFFFFFFu;
    reply.resize(n);
    if (n < 24 || !floorc::recvAll(fd, reply.data(), n)) return nullptr;
    *len = n - 24;
    return reply.data() + 24;
  }
  bool open(uint16_t port) {
    fd = floorc::connectTcp(kAddr, port, false);
    if (fd < 0) return false;
    std::string a;
    be(a, 1);  // client id
    be(a, 0);  // no lock
    be(a, 0);
    be(a, 5);
    a += std::string("inst0\0\0\0", 8);
    size_t n;
    const uint8_t* p = exchange(call(10, a), &n);
    if (!p || n < 16 || rdBe(p) != 0) return false;
    lid = rdBe(p + 4);
    return true;
  }
  bool write(const std::string& msg) {
    std::string a;
    for (uint32_t w : {lid, 2000u, 2000u, 8u, (uint32_t)msg.size()}) be(a, w);
    a += msg;
    a.append((4 - msg.size() % 4) % 4, '\0');
    size_t n;
    const uint8_t* p = exchange(call(11, a), &n);
    return p && n >= 8 && rdBe(p) == 0 && rdBe(p + 4) == msg.size();
  }
  // Reads until END; returns the bytes read or -1.  Each reply's data goes
  // straight into buf: the record mark, the reply header and the three
  // words before the data first, then the data, then its padding.
  long read(char* buf, size_t cap) {
    size_t got = 0;
    for (;;) {
      std::string a;
      for (uint32_t w : {lid, (uint32_t)(cap - got), 2000u, 2000u, 0u, 0u}) be(a, w);
      std::string rec = call(12, a);
      iovec v[1] = {{(void*)rec.data(), rec.size()}};
      uint8_t h[4 + 24 + 12];
      if (!floorc::sendv(fd, v, 1) || !floorc::recvAll(fd, h, sizeof h)) return -1;
      uint32_t n = rdBe(h) & 0x7FFFFFFFu;
      const uint8_t* p = h + 28;
      uint32_t reason = rdBe(p + 4), len = rdBe(p + 8);
      if (rdBe(p) != 0 || n < 36 || len > n - 36 || len > cap - got) return -1;
      if (!floorc::recvAll(fd, buf + got, len)) return -1;
      uint8_t pad[4];
      if (n - 36 - len > sizeof pad || !floorc::recvAll(fd, pad, n - 36 - len)) return -1;
      got += len;
      if (reason & 4 || got == cap) return (long)got;
    }
  }
};

extern "C" pKvTcpInfo newRecord() {
  static std::vector<KvTcpInfo*> keep;
  keep.push_back(new KvTcpInfo());
  return keep.back();
}

void emit(const char* path, int round, double driver, double lxi, double floorNs) {
  printf("{\"path\": \"%s\", \"round\": %d, \"driver\": %.1f, \"liblxi\": %.1f, \"floor\": %.1f}\n", path, round,
         driver, lxi, floorNs);
  fflush(stdout);
}

int fail(const char* why) {
  fprintf(stderr, "bench_vxi11: %s\n", why);
  return 1;
}

}  // namespace

int main(int argc, char** argv) {
  int rounds = 5;
  bool quick = false;
  for (int i = 1; i < argc; i++) {
    if (!strcmp(argv[i], "--rounds") && i + 1 < argc) rounds = atoi(argv[++i]);
    if (!strcmp(argv[i], "--quick")) quick = true;
  }
  vxi11sim::Options o;
  o.address = kAddr;
  o.portmap = vxi11sim::PortmapMode::Own;
  vxi11sim::Simulator sim(o);
  std::string err;
  if (!sim.start(&err)) return fail(err.c_str());

  RpcFloor fl;
  if (!fl.open(sim.corePort())) return fail("floor cannot create a link");
  if (lxi_init() != LXI_OK) return fail("liblxi init failed");
  int dev = lxi_connect(kAddr, 0, "inst0", 2000, VXI11);
  if (dev < 0) return fail("liblxi cannot connect");
  pKvTcpInfo kv = newRecord();
  if (kvtcp_vxi11_Connect(nullptr, kv, kAddr, "inst0") != 0) return fail("transport cannot connect");

  const size_t bulk = quick ? 64 * 1024 : 1024 * 1024;
  const std::string dataq = "DATA? " + std::to_string(bulk);
  // The instrument answers a definite-length block: "#", the count of
  // length digits, the length, the bytes and a newline.
  const size_t answer = 2 + std::to_string(bulk).size() + bulk + 1;
  std::vector<char> buf(answer + 64);
  const int nq = quick ? 100 : 500, nb = quick ? 3 : 10;
  for (int r = 0; r < rounds; r++) {
    std::vector<double> d, l, f;
    for (int i = 0; i < nq; i++) {
      char q[] = "*IDN?\0";
      char a[256];
      int n = 0;
      double t0 = nowNs();
      int st = kvtcp_Query(kv, 2000, q, 5, a, sizeof a, 0x0002, 0, &n);
      double t1 = nowNs();
      int m = (lxi_send(dev, "*IDN?", 5, 2000) == 5) ? lxi_receive(dev, a, sizeof a, 2000) : -1;
      double t2 = nowNs();
      bool ok = fl.write("*IDN?") && fl.read(a, sizeof a) > 0;
      double t3 = nowNs();
      if (st < 0 || n <= 0 || m <= 0 || !ok) return fail("*IDN? failed");
      d.push_back(t1 - t0);
      l.push_back(t2 - t1);
      f.push_back(t3 - t2);
    }
    emit("vxi11_query", r, median(d), median(l), median(f));
    d.clear(), l.clear(), f.clear();
    // Each client takes each place in the order equally often: on one CPU
    // what the simulator still does after an answer would otherwise always
    // fall into the same client's next timing.
    std::vector<std::function<bool()>> clients = {
        [&] {
          std::string q = dataq + '\0';
          int n = 0;
          if (kvtcp_Write(kv, 2000, q.data(), (int)dataq.size(), 0x0002, &n) < 0) return false;
          double t0 = nowNs();
          int st = kvtcp_Read(kv, 2000, buf.data(), (int)buf.size(), 0x0002, 0, &n);
          d.push_back(nowNs() - t0);
          return st >= 0 && (size_t)n == answer;
        },
        [&] {
          if (lxi_send(dev, dataq.c_str(), (int)dataq.size(), 2000) != (int)dataq.size()) return false;
          double t0 = nowNs();
          int m = lxi_receive(dev, buf.data(), (int)buf.size(), 2000);
          l.push_back(nowNs() - t0);
          return m == (int)answer;
        },
        [&] {
          if (!fl.write(dataq)) return false;
          double t0 = nowNs();
          long k = fl.read(buf.data(), buf.size());
          f.push_back(nowNs() - t0);
          return k == (long)answer;
        }};
    for (int i = 0; i < 3 * nb; i++)
      for (int k = 0; k < 3; k++)
        if (!clients[(size_t)(i + k) % 3]()) return fail("bulk read failed");
    emit("vxi11_bulk", r, median(d), median(l), median(f));
  }
  lxi_disconnect(dev);
  kvtcp_Close(kv);
  close(fl.fd);
  sim.stop();
  return 0;
}
