// The general instrument transport: HiSLIP, VXI-11 and raw-socket
// instruments by VISA TCPIP resource name, with text and IEEE 488.2 block
// messages, status byte, device clear and a query benchmark.
#include <arpa/inet.h>
#include <netdb.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <fstream>

#include "commands.h"
#include "kvtcp.h"
#include "status.h"

namespace host {

struct Connection {
  KvTcpInfo rec{};
  TcpipResource res;
  ~Connection() = default;
};

namespace {

// The transport's entry points, resolved by their exported names in the
// library that the tool loaded.
struct Kv {
  decltype(&kvtcp_hislip_Connect) hislipConnect = nullptr;
  decltype(&kvtcp_vxi11_Connect) vxi11Connect = nullptr;
  decltype(&kvtcp_sock_Connect) sockConnect = nullptr;
  decltype(&kvtcp_Write) write = nullptr;
  decltype(&kvtcp_Read) read = nullptr;
  decltype(&kvtcp_ReadSTB) readSTB = nullptr;
  decltype(&kvtcp_Clear) clear = nullptr;
  decltype(&kvtcp_Close) close = nullptr;
};

const Kv& kv(Session& s) {
  static Kv k;
  static bool done = false;
  if (!done) {
    auto get = [&](auto& fn, const char* name) {
      fn = reinterpret_cast<std::remove_reference_t<decltype(fn)>>(s.drv.symbol(name));
      if (!fn) throw Usage(std::string("the library lacks ") + name);
    };
    get(k.hislipConnect, "_Z20kvtcp_hislip_ConnectP10_KvTcpInfoPKcS2_");
    get(k.vxi11Connect, "_Z19kvtcp_vxi11_ConnectP10_KvTcpInfoS0_PKcS2_");
    get(k.sockConnect, "_Z18kvtcp_sock_ConnectP10_KvTcpInfoPKct");
    get(k.write, "_Z11kvtcp_WriteP10_KvTcpInfojPcitPi");
    get(k.read, "_Z10kvtcp_ReadP10_KvTcpInfojPcitcPi");
    get(k.readSTB, "_Z13kvtcp_ReadSTBP10_KvTcpInfojPt");
    get(k.clear, "_Z11kvtcp_ClearP10_KvTcpInfoj");
    get(k.close, "_Z11kvtcp_CloseP10_KvTcpInfo");
    done = true;
  }
  return k;
}

// The transport takes dotted IPv4 addresses only: names are resolved here.
std::string ipv4(const std::string& host) {
  in_addr a{};
  if (inet_pton(AF_INET, host.c_str(), &a) == 1) return host;
  addrinfo hints{}, *res = nullptr;
  hints.ai_family = AF_INET;
  if (getaddrinfo(host.c_str(), nullptr, &hints, &res) != 0 || !res) throw Usage("cannot resolve " + host);
  char b[INET_ADDRSTRLEN];
  inet_ntop(AF_INET, &((sockaddr_in*)res->ai_addr)->sin_addr, b, sizeof b);
  freeaddrinfo(res);
  return b;
}

Connection* connection(Session& s, Out& out, const std::string& name) {
  auto it = s.connections.find(name);
  if (it != s.connections.end()) return it->second.get();
  TcpipResource r = parseTcpip(name);
  const Kv& k = kv(s);
  auto c = std::make_shared<Connection>();
  c->res = r;
  std::string ip = ipv4(r.host);
  ViStatus st = r.kind == TcpipResource::HiSLIP  ? k.hislipConnect(&c->rec, ip.c_str(), r.device.c_str())
                : r.kind == TcpipResource::VXI11 ? k.vxi11Connect(nullptr, &c->rec, ip.c_str(), r.device.c_str())
                                                 : k.sockConnect(&c->rec, ip.c_str(), r.port);
  if (st < 0) {
    k.close(&c->rec);
    out.status(st, "connect " + name);
    const char* how = r.kind == TcpipResource::HiSLIP ? "HiSLIP on port 4880"
                      : r.kind == TcpipResource::VXI11 ? "VXI-11 (portmapper on port 111)"
                                                        : "a plain socket";
    out.hint(std::string("nothing answered ") + how + " at " + ip + " (is the instrument on? 'rpcinfo -p " + ip +
             "' lists VXI-11 services)");
    return nullptr;
  }
  s.connections[name] = c;
  return c.get();
}

const char* kindName(const TcpipResource& r) {
  return r.kind == TcpipResource::HiSLIP ? "hislip" : r.kind == TcpipResource::VXI11 ? "vxi11" : "socket";
}

ViStatus writeText(Session& s, Connection* c, std::string text, int* done) {
  // One spare byte: the raw-socket write stores a NUL behind the data.
  text.push_back('\0');
  return kv(s).write(&c->rec, s.timeout, text.data(), (int)text.size() - 1, KVTCP_FLAG_END, done);
}

// Reads one message: up to END (HiSLIP, VXI-11) or a line feed.
ViStatus readText(Session& s, Connection* c, size_t max, std::string* text) {
  std::vector<char> buf(max + 1);
  int got = 0;
  ViStatus st = kv(s).read(&c->rec, s.timeout, buf.data(), (int)max, KVTCP_FLAG_END | KVTCP_FLAG_EOS, '\n', &got);
  text->assign(buf.data(), (size_t)std::clamp(got, 0, (int)max));
  return st;
}

constexpr size_t kMaxBlock = 256u << 20;

// An IEEE 488.2 binary block: "#" digit count, the length, the data; or
// "#0" data up to END.  The header may come in pieces.
ViStatus readBlock(Session& s, Connection* c, Out& out, std::string* data) {
  const Kv& k = kv(s);
  bool raw = c->res.kind == TcpipResource::Socket;
  std::vector<char> buf;
  size_t have = 0, need = 2, start = 0;
  bool headerDone = false, indefinite = false;
  ViStatus st = 0;
  Progress prog(out, 0);
  while (true) {
    if (interrupted()) return (ViStatus)0xBFFF0030;  // VI_ERROR_ABORT
    size_t want = indefinite ? 65536 : need - have;
    if (want == 0) break;
    want = std::min<size_t>(want, 1u << 20);
    if (buf.size() < have + want + 1) buf.resize(have + want + 1);
    int got = 0;
    // A raw socket has no END: read exact counts.  Otherwise stop at END.
    st = k.read(&c->rec, s.timeout, buf.data() + have, (int)want, raw ? 0 : KVTCP_FLAG_END, 0, &got);
    if (st < 0) return st;
    have += (size_t)std::max(got, 0);
    bool end = !raw && st == 2;
    if (!headerDone && have >= 2) {
      if (buf[0] != '#' || buf[1] < '0' || buf[1] > '9')
        throw Usage("the answer is not an IEEE 488.2 block (it starts with \"" +
                    printable(std::string(buf.data(), std::min<size_t>(have, 16))) + "\")");
      size_t nd = (size_t)(buf[1] - '0');
      if (nd == 0) {
        indefinite = true;
        headerDone = true;
        start = 2;
      } else if (have >= 2 + nd) {
        uint64_t len = 0;
        for (size_t i = 0; i < nd; i++) {
          if (buf[2 + i] < '0' || buf[2 + i] > '9') throw Usage("bad length digits in the block header");
          len = len * 10 + (uint64_t)(buf[2 + i] - '0');
        }
        if (len > kMaxBlock) throw Usage("the block announces " + std::to_string(len) + " bytes (256 MiB at most)");
        headerDone = true;
        start = 2 + nd;
        need = start + len;
      } else {
        need = 2 + nd;
      }
    } else if (!headerDone) {
      need = 2;
    }
    if (have > kMaxBlock + 16) throw Usage("the block is larger than 256 MiB");
    if (headerDone && !indefinite) prog.update(have);
    if (end || (headerDone && !indefinite && have >= need)) break;
    if (got == 0 && raw) break;
  }
  size_t stop = indefinite ? have : std::min(have, need);
  if (indefinite && stop > start && buf[stop - 1] == '\n') stop--;
  data->assign(buf.data() + start, stop > start ? stop - start : 0);
  prog.finish(data->size());
  // The terminator behind a definite block belongs to the same message.
  if (!indefinite && !raw && st != 2 && st >= 0) {
    char t[8];
    int got = 0;
    k.read(&c->rec, 200, t, sizeof t, KVTCP_FLAG_END, 0, &got);
  }
  return st < 0 ? st : 0;
}

double pct(std::vector<double>& v, double p) {
  if (v.empty()) return 0;
  size_t i = (size_t)std::min<double>((double)v.size() - 1, p / 100.0 * (double)v.size());
  return v[i];
}

bool benchmark(Session& s, Out& out, Connection* c, Args& a) {
  std::string v, q = "*IDN?";
  unsigned n = takeOption(a, "count", &v) ? (unsigned)number(v, "count", 10000000) : 100;
  if (takeOption(a, "query", &v)) q = v;
  if (q.empty() || q.back() != '\n') q += '\n';
  std::vector<double> lat;
  std::string last;
  ViStatus st = 0;
  auto t0 = std::chrono::steady_clock::now();
  for (unsigned i = 0; i < n && st >= 0 && !interrupted(); i++) {
    auto a0 = std::chrono::steady_clock::now();
    int done = 0;
    std::string ans;
    st = writeText(s, c, q, &done);
    if (st >= 0) st = readText(s, c, 1 << 16, &ans);
    if (ans.empty() && st >= 0) st = (ViStatus)0xBFFF003E;  // an answer is expected: a silent one is an error
    last = ans;
    if (st >= 0) lat.push_back(std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - a0).count());
  }
  double secs = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
  std::sort(lat.begin(), lat.end());
  double qps = secs > 0 ? (double)lat.size() / secs : 0;
  if (!lat.empty()) out.line("last answer: \"%s\"", printable(last).c_str());
  out.line("%zu queries of \"%s\" in %.3f s: %.1f queries/s", lat.size(), printable(q).c_str(), secs, qps);
  out.line("latency ms: min %.3f  p50 %.3f  p90 %.3f  p99 %.3f  max %.3f", lat.empty() ? 0 : lat.front(),
           pct(lat, 50), pct(lat, 90), pct(lat, 99), lat.empty() ? 0 : lat.back());
  out.field("queries", jnum((uint64_t)lat.size()));
  out.field("seconds", jnum(secs));
  out.field("queries_per_s", jnum(qps));
  out.field("latency_ms", jobj({{"min", jnum(lat.empty() ? 0 : lat.front())}, {"p50", jnum(pct(lat, 50))},
                                {"p90", jnum(pct(lat, 90))}, {"p99", jnum(pct(lat, 99))},
                                {"max", jnum(lat.empty() ? 0 : lat.back())}}));
  if (interrupted()) return out.fail("interrupted");
  return out.status(st < 0 ? st : 0);
}

bool instr(Session& s, Out& out, Args& a) {
  std::string name = arg(a, 1, "resource (TCPIP::host::hislip0::INSTR, ...::inst0::INSTR, ...::port::SOCKET)");
  std::string verb = arg(a, 2, "operation (write, read, query, query-block, read-block, stb, clear, benchmark, close)");
  parseTcpip(name);  // refuse a bad name before anything else
  out.field("resource", jstr(name));
  if (verb == "close") {
    auto it = s.connections.find(name);
    if (it == s.connections.end()) return out.fail(name + " is not open");
    kv(s).close(&it->second->rec);
    s.connections.erase(it);
    return out.status(0, "closed");
  }
  static const char* verbs[] = {"write", "read", "query", "query-block", "read-block", "stb", "clear", "benchmark"};
  if (std::find(std::begin(verbs), std::end(verbs), verb) == std::end(verbs))
    throw Usage("unknown operation " + verb);
  Connection* c = connection(s, out, name);
  if (!c) return false;
  out.field("protocol", jstr(kindName(c->res)));
  const Kv& k = kv(s);
  if (verb == "benchmark") return benchmark(s, out, c, a);
  if (verb == "stb") {
    ViUInt16 stb = 0;
    ViStatus st = k.readSTB(&c->rec, s.timeout, &stb);
    char b[48];
    snprintf(b, sizeof b, "status byte 0x%02X", stb);
    out.field("stb", jnum((uint64_t)stb));
    bool ok = out.status(st, b);
    if (ok && c->res.kind == TcpipResource::HiSLIP) {
      // The transport's HiSLIP status byte comes from the answer's slot after
      // it has been claimed, so it reads 0xFFFF whatever the instrument said;
      // that is how the transport is meant to behave, so say so here.
      std::string w = "over HiSLIP the transport reports 0xFFFF for every status byte; query *STB? for the real one";
      out.line("note: %s", w.c_str());
      out.field("warning", jstr(w));
    }
    return ok;
  }
  if (verb == "clear") return out.status(k.clear(&c->rec, s.timeout), "device clear");
  std::string file, hex;
  bool toFile = takeOption(a, "file", &file);
  bool wantHex = takeOption(a, "hex", &hex) || takeFlag(a, "hex");
  if (verb == "write" || verb == "query" || verb == "query-block") {
    std::string text = arg(a, 3, "text");
    if (verb != "write" && (text.empty() || text.back() != '\n')) text += '\n';
    int done = 0;
    ViStatus st = writeText(s, c, text, &done);
    out.field("written", jnum((int64_t)done));
    if (verb == "write" || st < 0) return out.status(st, "wrote " + std::to_string(done) + " byte(s)");
  }
  if (verb == "read" || verb == "query") {
    size_t max = a.size() > 3 && verb == "read" ? (size_t)number(a[3], "max", 1 << 24) : 1 << 16;
    std::string ans;
    ViStatus st = readText(s, c, max, &ans);
    out.field("text", jstr(ans));
    return out.status(st < 0 ? st : 0, "\"" + printable(ans) + "\"");
  }
  std::string data;
  ViStatus st = readBlock(s, c, out, &data);
  out.field("length", jnum((uint64_t)data.size()));
  bool ok = out.status(st, "block of " + std::to_string(data.size()) + " byte(s)");
  if (toFile) {
    std::ofstream f(file, std::ios::binary | std::ios::trunc);
    f.write(data.data(), (std::streamsize)data.size());
    if (!f) return out.fail("cannot write " + file);
    out.line("wrote %zu bytes to %s", data.size(), file.c_str());
  }
  if (wantHex || (!toFile && data.size() <= 64)) {
    size_t limit = hex == "all" ? data.size() : hex.empty() ? 4096 : (size_t)number(hex, "hex", kMaxBlock);
    hexdump(out, reinterpret_cast<const uint8_t*>(data.data()), data.size(), 1, limit);
  }
  return ok;
}

}  // namespace

void closeConnections(Session& s) {
  if (s.connections.empty()) return;
  const Kv& k = kv(s);
  for (auto& [n, c] : s.connections) k.close(&c->rec);
  s.connections.clear();
}

void addTransportCommands(std::vector<Command>& t) {
  t.push_back({"instr",
               "instr <resource> write <text> | read [max] | query <text> | query-block <text> [file=PATH] [hex] |\n"
               "        read-block [file=PATH] [hex] | stb | clear | benchmark [count=N] [query=TEXT] | close",
               "an instrument over HiSLIP (TCPIP::host::hislip0::INSTR), VXI-11 (TCPIP::host::inst0::INSTR)\n"
               "  or a raw socket (TCPIP::host::5025::SOCKET); the connection stays open until 'close'",
               false, instr});
  t.push_back({"benchmark", "benchmark <resource> [count=N] [query=TEXT]",
               "queries per second and latency percentiles of an instrument", false,
               [](Session& s, Out& out, Args& a) {
                 Args b = {"instr", arg(a, 1, "resource"), "benchmark"};
                 b.insert(b.end(), a.begin() + 2, a.end());
                 return instr(s, out, b);
               }});
}

}  // namespace host
