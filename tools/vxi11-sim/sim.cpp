// The simulator's server: a thread per listener and per connection, RPC
// records cut by their record marks, call heads taken apart by hand and
// arguments and results through the rpcgen-made XDR routines.  Replies are
// built by hand too, so faults (a changed transaction id, a late answer) are
// easy to inject.
#include "sim.h"

#include <arpa/inet.h>
#include <ctype.h>
#include <errno.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <map>
#include <mutex>
#include <thread>

#include <rpc/pmap_clnt.h>
#include <rpc/rpcb_clnt.h>
#include <rpc/rpc.h>

#include "vxi11.h"

namespace vxi11sim {

namespace {

constexpr uint32_t kMaxRecord = 64u << 20;   // longest call accepted
constexpr size_t kMaxInput = 16u << 20;      // longest message buffered
constexpr size_t kMaxData = 16u << 20;       // largest DATA? answer

// RPC accept states and VXI-11 error codes used here.
constexpr uint32_t SUCCESS_ = 0, PROG_UNAVAIL_ = 1, PROG_MISMATCH_ = 2, PROC_UNAVAIL_ = 3, GARBAGE_ = 4;
constexpr int32_t ERR_INVALID_LINK = 4, ERR_CHANNEL = 6, ERR_NSUP = 8, ERR_RESOURCES = 9, ERR_TMO = 15;

enum class Kind { Core, Abort, Portmap };

bool isLoopback(uint32_t hostOrder) { return (hostOrder >> 24) == 127; }

struct Call {
  uint32_t xid = 0, prog = 0, vers = 0, proc = 0;
  const char* args = nullptr;
  size_t argLen = 0;
};

uint32_t be(const char* p) {
  uint32_t v;
  memcpy(&v, p, 4);
  return ntohl(v);
}

void putBe(std::string& s, uint32_t v) {
  v = htonl(v);
  s.append((const char*)&v, 4);
}

// Takes the call head apart; false for anything that is not a call.
bool parseCall(const std::string& body, Call* c) {
  const char* p = body.data();
  size_t n = body.size();
  if (n < 40) return false;
  c->xid = be(p);
  if (be(p + 4) != 0 || be(p + 8) != 2) return false;
  c->prog = be(p + 12);
  c->vers = be(p + 16);
  c->proc = be(p + 20);
  size_t off = 24;
  for (int i = 0; i < 2; i++) {  // credential, then verifier
    if (off + 8 > n) return false;
    uint32_t len = be(p + off + 4);
    if (len > 400) return false;
    off += 8 + ((len + 3) & ~3u);
    if (off > n) return false;
  }
  c->args = p + off;
  c->argLen = n - off;
  return true;
}

std::string replyHead(uint32_t xid, uint32_t stat) {
  std::string s;
  putBe(s, xid);  // the caller's bytes go back as they came (see sendReply)
  putBe(s, 1);    // REPLY
  putBe(s, 0);    // MSG_ACCEPTED
  putBe(s, 0);    // verifier AUTH_NONE
  putBe(s, 0);
  putBe(s, stat);
  return s;
}

template <class T>
bool encode(xdrproc_t proc, T* v, size_t room, std::string* out) {
  std::vector<char> buf(room + 64);
  XDR x;
  xdrmem_create(&x, buf.data(), (u_int)buf.size(), XDR_ENCODE);
  bool ok = proc(&x, v, 0);
  if (ok) out->append(buf.data(), xdr_getpos(&x));
  xdr_destroy(&x);
  return ok;
}

template <class T>
bool decode(xdrproc_t proc, const Call& c, T* v) {
  memset(v, 0, sizeof *v);
  XDR x;
  xdrmem_create(&x, (char*)c.args, (u_int)c.argLen, XDR_DECODE);
  bool ok = proc(&x, v, 0);
  xdr_destroy(&x);
  if (!ok) xdr_free(proc, (char*)v);
  return ok;
}

bool sendAllFd(int fd, const char* p, size_t n) {
  while (n) {
    ssize_t r = send(fd, p, n, MSG_NOSIGNAL);
    if (r < 0) {
      if (errno == EINTR) continue;
      return false;
    }
    p += r;
    n -= (size_t)r;
  }
  return true;
}

bool sendRecord(int fd, const std::string& body) {
  std::string rec;
  putBe(rec, 0x80000000u | (uint32_t)body.size());
  rec += body;
  return sendAllFd(fd, rec.data(), rec.size());
}

bool recvAllFd(int fd, char* p, size_t n) {
  while (n) {
    ssize_t r = recv(fd, p, n, 0);
    if (r < 0 && errno == EINTR) continue;
    if (r <= 0) return false;
    p += r;
    n -= (size_t)r;
  }
  return true;
}

// One RPC record, its fragments joined; false on a closed or broken stream.
bool readRecord(int fd, std::string* body) {
  body->clear();
  for (;;) {
    char m[4];
    if (!recvAllFd(fd, m, 4)) return false;
    uint32_t mark = be(m);
    uint32_t len = mark & 0x7FFFFFFFu;
    if (body->size() + len > kMaxRecord) return false;
    size_t at = body->size();
    body->resize(at + len);
    if (len && !recvAllFd(fd, &(*body)[at], len)) return false;
    if (mark & 0x80000000u) return true;
  }
}

int listenOn(uint32_t addrNet, uint16_t port, uint16_t* bound, bool doListen = true) {
  int fd = socket(AF_INET, SOCK_STREAM, 0);
  if (fd < 0) return -1;
  int one = 1;
  setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_addr.s_addr = addrNet;
  a.sin_port = htons(port);
  if (bind(fd, (sockaddr*)&a, sizeof a) != 0 || (doListen && listen(fd, 64) != 0)) {
    close(fd);
    return -1;
  }
  socklen_t len = sizeof a;
  getsockname(fd, (sockaddr*)&a, &len);
  if (bound) *bound = ntohs(a.sin_port);
  return fd;
}

bool portmapperAnswers(uint32_t addrNet) {
  int fd = socket(AF_INET, SOCK_STREAM, 0);
  if (fd < 0) return false;
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_addr.s_addr = addrNet;
  a.sin_port = htons(111);
  bool ok = connect(fd, (sockaddr*)&a, sizeof a) == 0;
  close(fd);
  return ok;
}

// Registers with rpcbind under the address actually served (a plain
// portmapper registration would be answered with the loopback address
// 127.0.0.1, which this simulator need not listen on).
bool registerTcp(uint32_t addrNet, u_long prog, u_long vers, uint16_t port) {
  netconfig* nc = getnetconfigent("tcp");
  if (!nc) return false;
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_addr.s_addr = addrNet;
  a.sin_port = htons(port);
  netbuf nb{};
  nb.buf = &a;
  nb.len = nb.maxlen = sizeof a;
  rpcb_unset(prog, vers, nc);
  bool ok = rpcb_set(prog, vers, nc, &nb);
  freenetconfigent(nc);
  return ok;
}

void unregisterTcp(u_long prog, u_long vers) {
  netconfig* nc = getnetconfigent("tcp");
  if (!nc) return;
  rpcb_unset(prog, vers, nc);
  freenetconfigent(nc);
}

std::string upper(std::string s) {
  for (auto& ch : s) ch = (char)toupper((unsigned char)ch);
  return s;
}

std::string trim(const std::string& s) {
  size_t b = s.find_first_not_of(" \t\r\n");
  if (b == std::string::npos) return "";
  size_t e = s.find_last_not_of(" \t\r\n");
  return s.substr(b, e - b + 1);
}

}  // namespace

struct Simulator::Impl {
  Options opt;
  uint32_t addrNet = 0;
  int coreFd = -1, abortFd = -1, pmapFd = -1, pmapUdpFd = -1, refusedFd = -1;
  uint16_t corePort = 0, abortPortNo = 0, reportedAbort = 0;
  bool rpcbind = false;
  int wake[2] = {-1, -1};
  std::thread acceptThread;
  std::atomic<bool> stopping{false};

  mutable std::mutex m;
  std::condition_variable cv;
  Faults faults;
  std::vector<std::thread> threads;
  std::vector<int> connFds;

  // Instrument and link state, under m.
  struct Link {
    int conn;
    bool srq = false;
    std::string handle;
  };
  struct Conn {
    int fd;
    int intrFd = -1;
  };
  std::map<int, Conn> conns;  // by connection number
  int nextConn = 1;
  std::map<int32_t, Link> linkMap;
  int32_t nextLid = 0x100;
  std::string input, output;
  uint8_t stb = 0, sre = 0;
  int clears = 0, triggers = 0, aborts = 0;
  std::vector<WriteRecord> writeLog;
  std::vector<int> callLog;
  std::vector<std::string> names;
  std::vector<int32_t> destroyed;
  std::string lastHandle;

  void log(int level, const char* fmt, ...) __attribute__((format(printf, 3, 4))) {
    if (opt.verbosity < level) return;
    va_list ap;
    va_start(ap, fmt);
    fprintf(stderr, "vxi11-sim: ");
    vfprintf(stderr, fmt, ap);
    fprintf(stderr, "\n");
    va_end(ap);
  }

  // Sleeps up to ms, or less when the simulator stops.
  void pause(unsigned ms) {
    std::unique_lock<std::mutex> g(m);
    cv.wait_for(g, std::chrono::milliseconds(ms), [&] { return stopping.load(); });
  }

  void sendReply(int fd, const Call& c, uint32_t stat, const std::string& result, const Faults& f) {
    uint32_t xid = c.xid;
    if (c.prog == DEVICE_CORE && (f.wrongXidProc == -1 || f.wrongXidProc == (int)c.proc)) xid += 1;
    if (c.prog == DEVICE_CORE && f.lateProc == (int)c.proc && f.lateMs) pause(f.lateMs);
    sendRecord(fd, replyHead(xid, stat) + result);
  }

  void reject(int fd, const Call& c, uint32_t stat) {
    std::string r;
    if (stat == PROG_MISMATCH_) {
      putBe(r, c.prog == PMAPPROG ? 2 : 1);
      putBe(r, c.prog == PMAPPROG ? 2 : 1);
    }
    sendRecord(fd, replyHead(c.xid, stat) + r);
  }

  // ------------------------------------------------------- instrument

  void execute(const std::string& raw, bool* srq) {
    std::string cmd = trim(raw);
    if (cmd.empty()) return;
    std::string key = upper(cmd);
    std::string arg;
    size_t sp = cmd.find_first_of(" \t");
    if (sp != std::string::npos) {
      arg = trim(cmd.substr(sp + 1));
      key = upper(cmd.substr(0, sp));
    }
    if (key == "*IDN?") {
      output += "KVSIM,VXI11-INSTRUMENT,0,1.0\n";
    } else if (key == "*RST") {
      stb = 0;
      sre = 0;
      output.clear();
    } else if (key == "*CLS") {
      stb = 0;
    } else if (key == "*STB?") {
      output += std::to_string(stb) + "\n";
    } else if (key == "*OPC?") {
      output += "1\n";
    } else if (key == "*SRE") {
      sre = (uint8_t)atoi(arg.c_str());
    } else if (key == "*SRE?") {
      output += std::to_string(sre) + "\n";
    } else if (key == "*TRG") {
      triggers++;
    } else if (key == "ECHO?") {
      output += arg + "\n";
    } else if (key == "DATA?") {
      long n = atol(arg.c_str());
      if (n < 0) n = 0;
      if ((size_t)n > kMaxData) n = (long)kMaxData;
      for (long i = 0; i < n; i++) output += (char)('A' + i % 26);
    } else if (key == "STB") {
      stb = (uint8_t)atoi(arg.c_str());
    } else if (key == "SRQ") {
      stb |= 0x40;
      *srq = true;
    }
  }

  // ------------------------------------------------------- core calls

  int32_t checkLid(int32_t lid) const { return linkMap.count(lid) ? 0 : ERR_INVALID_LINK; }

  void coreCall(int connNo, int fd, const Call& c) {
    Faults f;
    {
      std::lock_guard<std::mutex> g(m);
      f = faults;
      callLog.push_back((int)c.proc);
    }
    int32_t injected = f.deviceErrorProc == (int)c.proc ? f.deviceError : 0;
    std::string res;
    bool srq = false;
    log(1, "core call %u", c.proc);
    switch (c.proc) {
      case 0:
        break;
      case 10: {  // create_link
        Create_LinkParms p;
        if (!decode((xdrproc_t)xdr_Create_LinkParms, c, &p)) return reject(fd, c, GARBAGE_);
        Create_LinkResp r{};
        {
          std::lock_guard<std::mutex> g(m);
          names.push_back(p.device ? p.device : "");
          if (!injected) {
            r.lid = nextLid++;
            linkMap[(int32_t)r.lid] = Link{connNo, false, std::string()};
          }
        }
        r.error = injected;
        r.abortPort = reportedAbort;
        r.maxRecvSize = f.maxRecvSize;
        log(1, "create_link \"%s\" -> lid %ld", p.device ? p.device : "", (long)r.lid);
        xdr_free((xdrproc_t)xdr_Create_LinkParms, (char*)&p);
        encode((xdrproc_t)xdr_Create_LinkResp, &r, 0, &res);
        break;
      }
      case 11: {  // device_write
        Device_WriteParms p;
        if (!decode((xdrproc_t)xdr_Device_WriteParms, c, &p)) return reject(fd, c, GARBAGE_);
        Device_WriteResp r{};
        {
          std::lock_guard<std::mutex> g(m);
          std::string data(p.data.data_val ? p.data.data_val : "", p.data.data_len);
          writeLog.push_back(WriteRecord{(int32_t)p.lid, (int32_t)p.flags, data});
          r.error = injected ? injected : checkLid((int32_t)p.lid);
          if (!r.error && input.size() + data.size() > kMaxInput) r.error = ERR_RESOURCES;
          if (!r.error) {
            input += data;
            r.size = data.size();
            if (p.flags & 8) {  // END: the message is complete
              std::string msg;
              msg.swap(input);
              size_t b = 0;
              while (b <= msg.size()) {
                size_t e = msg.find_first_of(";\n", b);
                if (e == std::string::npos) e = msg.size();
                execute(msg.substr(b, e - b), &srq);
                b = e + 1;
              }
            }
          }
        }
        log(2, "write %u bytes flags 0x%lx", p.data.data_len, (long)p.flags);
        xdr_free((xdrproc_t)xdr_Device_WriteParms, (char*)&p);
        encode((xdrproc_t)xdr_Device_WriteResp, &r, 0, &res);
        break;
      }
      case 12: {  // device_read
        Device_ReadParms p;
        if (!decode((xdrproc_t)xdr_Device_ReadParms, c, &p)) return reject(fd, c, GARBAGE_);
        Device_ReadResp r{};
        std::string data;
        {
          std::lock_guard<std::mutex> g(m);
          r.error = injected ? injected : checkLid((int32_t)p.lid);
          if (!r.error && output.empty()) r.error = ERR_TMO;  // nothing to read
          if (!r.error) {
            size_t n = std::min<size_t>(p.requestSize, output.size());
            if (p.flags & 0x80) {
              size_t t = output.find((char)p.termChar);
              if (t != std::string::npos && t < n) {
                n = t + 1;
                r.reason |= 2;
              }
            }
            if (n == p.requestSize) r.reason |= 1;
            if (n == output.size()) r.reason |= 4;
            data = output.substr(0, n);
            output.erase(0, n);
          }
        }
        r.data.data_len = (u_int)data.size();
        r.data.data_val = data.data();
        log(2, "read %zu bytes reason %ld", data.size(), (long)r.reason);
        encode((xdrproc_t)xdr_Device_ReadResp, &r, data.size(), &res);
        break;
      }
      case 13: {  // device_readstb
        Device_GenericParms p;
        if (!decode((xdrproc_t)xdr_Device_GenericParms, c, &p)) return reject(fd, c, GARBAGE_);
        Device_ReadStbResp r{};
        {
          std::lock_guard<std::mutex> g(m);
          r.error = injected ? injected : checkLid((int32_t)p.lid);
          if (!r.error) {
            r.stb = stb;
            stb &= (uint8_t)~0x40;  // like a serial poll: the request is taken
          }
        }
        encode((xdrproc_t)xdr_Device_ReadStbResp, &r, 0, &res);
        break;
      }
      case 14:    // device_trigger
      case 15:    // device_clear
      case 16:    // device_remote
      case 17: {  // device_local
        Device_GenericParms p;
        if (!decode((xdrproc_t)xdr_Device_GenericParms, c, &p)) return reject(fd, c, GARBAGE_);
        Device_Error r{};
        {
          std::lock_guard<std::mutex> g(m);
          r.error = injected ? injected : checkLid((int32_t)p.lid);
          if (!r.error && c.proc == 14) triggers++;
          if (!r.error && c.proc == 15) {
            clears++;
            input.clear();
            output.clear();
          }
        }
        encode((xdrproc_t)xdr_Device_Error, &r, 0, &res);
        break;
      }
      case 18: {  // device_lock
        Device_LockParms p;
        if (!decode((xdrproc_t)xdr_Device_LockParms, c, &p)) return reject(fd, c, GARBAGE_);
        Device_Error r{};
        std::lock_guard<std::mutex> g(m);
        r.error = injected ? injected : checkLid((int32_t)p.lid);
        encode((xdrproc_t)xdr_Device_Error, &r, 0, &res);
        break;
      }
      case 19:    // device_unlock
      case 23: {  // destroy_link
        Device_Link lid = 0;
        if (!decode((xdrproc_t)xdr_Device_Link, c, &lid)) return reject(fd, c, GARBAGE_);
        Device_Error r{};
        {
          std::lock_guard<std::mutex> g(m);
          r.error = injected ? injected : checkLid((int32_t)lid);
          if (!r.error && c.proc == 23) {
            linkMap.erase((int32_t)lid);
            destroyed.push_back((int32_t)lid);
          }
        }
        log(1, "%s lid %ld", c.proc == 23 ? "destroy_link" : "unlock", (long)lid);
        encode((xdrproc_t)xdr_Device_Error, &r, 0, &res);
        break;
      }
      case 20: {  // device_enable_srq
        Device_EnableSrqParms p;
        if (!decode((xdrproc_t)xdr_Device_EnableSrqParms, c, &p)) return reject(fd, c, GARBAGE_);
        Device_Error r{};
        {
          std::lock_guard<std::mutex> g(m);
          r.error = injected ? injected : checkLid((int32_t)p.lid);
          if (!r.error) {
            Link& l = linkMap[(int32_t)p.lid];
            l.srq = p.enable;
            l.handle.assign(p.handle.handle_val ? p.handle.handle_val : "", p.handle.handle_len);
            lastHandle = l.handle;
          }
        }
        xdr_free((xdrproc_t)xdr_Device_EnableSrqParms, (char*)&p);
        encode((xdrproc_t)xdr_Device_Error, &r, 0, &res);
        break;
      }
      case 22: {  // device_docmd: no commands are known
        Device_DocmdParms p;
        if (!decode((xdrproc_t)xdr_Device_DocmdParms, c, &p)) return reject(fd, c, GARBAGE_);
        xdr_free((xdrproc_t)xdr_Device_DocmdParms, (char*)&p);
        Device_DocmdResp r{};
        r.error = injected ? injected : ERR_NSUP;
        encode((xdrproc_t)xdr_Device_DocmdResp, &r, 0, &res);
        break;
      }
      case 25: {  // create_intr_chan
        Device_RemoteFunc p;
        if (!decode((xdrproc_t)xdr_Device_RemoteFunc, c, &p)) return reject(fd, c, GARBAGE_);
        Device_Error r{};
        r.error = injected ? injected : f.intrChanError;
        uint32_t host = (uint32_t)p.hostAddr;
        log(1, "create_intr_chan %u.%u.%u.%u:%u", host >> 24, (host >> 16) & 255, (host >> 8) & 255,
            host & 255, (unsigned)p.hostPort);
        if (!r.error && (!isLoopback(host) || p.progFamily != DEVICE_TCP)) r.error = ERR_CHANNEL;
        if (!r.error && !f.noConnectBack) {
          int s = socket(AF_INET, SOCK_STREAM, 0);
          sockaddr_in a{};
          a.sin_family = AF_INET;
          a.sin_addr.s_addr = htonl(host);
          a.sin_port = htons((uint16_t)p.hostPort);
          if (s < 0 || connect(s, (sockaddr*)&a, sizeof a) != 0) {
            if (s >= 0) close(s);
            r.error = ERR_CHANNEL;
          } else {
            std::lock_guard<std::mutex> g(m);
            Conn& cn = conns[connNo];
            if (cn.intrFd >= 0) close(cn.intrFd);
            cn.intrFd = s;
            cv.notify_all();
          }
        }
        encode((xdrproc_t)xdr_Device_Error, &r, 0, &res);
        break;
      }
      case 26: {  // destroy_intr_chan
        Device_Error r{};
        {
          std::lock_guard<std::mutex> g(m);
          Conn& cn = conns[connNo];
          if (cn.intrFd >= 0) {
            close(cn.intrFd);
            cn.intrFd = -1;
          } else {
            r.error = ERR_CHANNEL;
          }
        }
        encode((xdrproc_t)xdr_Device_Error, &r, 0, &res);
        break;
      }
      default:
        return reject(fd, c, PROC_UNAVAIL_);
    }
    sendReply(fd, c, SUCCESS_, res, f);
    if (srq) fireSrqImpl(nullptr);
  }

  void abortCall(int fd, const Call& c) {
    std::string res;
    if (c.proc == 1) {
      Device_Link lid = 0;
      if (!decode((xdrproc_t)xdr_Device_Link, c, &lid)) return reject(fd, c, GARBAGE_);
      Device_Error r{};
      {
        std::lock_guard<std::mutex> g(m);
        aborts++;
        r.error = checkLid((int32_t)lid);
      }
      encode((xdrproc_t)xdr_Device_Error, &r, 0, &res);
    } else if (c.proc != 0) {
      return reject(fd, c, PROC_UNAVAIL_);
    }
    sendRecord(fd, replyHead(c.xid, SUCCESS_) + res);
  }

  // The portmapper's answer to one call, as the body of a reply.
  void portmapCall(int fd, const Call& c) {
    std::string reply = portmapReply(c);
    sendRecord(fd, reply);
  }

  // Portmapper over UDP: one call per datagram, no record mark (libtirpc's
  // classic clients ask this way).
  void portmapDatagram() {
    char buf[1500];
    sockaddr_in from{};
    socklen_t flen = sizeof from;
    ssize_t n = recvfrom(pmapUdpFd, buf, sizeof buf, 0, (sockaddr*)&from, &flen);
    if (n <= 0) return;
    Call c;
    std::string body(buf, (size_t)n);
    if (!parseCall(body, &c)) return;
    std::string reply = portmapReply(c);
    sendto(pmapUdpFd, reply.data(), reply.size(), 0, (sockaddr*)&from, flen);
  }

  std::string rejectBody(const Call& c, uint32_t stat) {
    std::string r = replyHead(c.xid, stat);
    if (stat == PROG_MISMATCH_) {
      putBe(r, 2);
      putBe(r, 2);
    }
    return r;
  }

  std::string portmapReply(const Call& c) {
    if (c.prog != PMAPPROG) return rejectBody(c, PROG_UNAVAIL_);
    if (c.vers != PMAPVERS) return rejectBody(c, PROG_MISMATCH_);
    std::string res;
    if (c.proc == 3) {  // GETPORT
      pmap q{};
      if (!decode((xdrproc_t)xdr_pmap, c, &q)) return rejectBody(c, GARBAGE_);
      Faults f = this->faultsCopy();
      u_long port = 0;
      if (q.pm_prot == IPPROTO_TCP && q.pm_prog == DEVICE_CORE && q.pm_vers == DEVICE_CORE_VERSION)
        port = corePort;
      else if (q.pm_prot == IPPROTO_TCP && q.pm_prog == DEVICE_ASYNC && q.pm_vers == DEVICE_ASYNC_VERSION)
        port = reportedAbort;
      if (f.getportZero) port = 0;
      log(1, "GETPORT prog 0x%lx -> %lu", (unsigned long)q.pm_prog, (unsigned long)port);
      putBe(res, (uint32_t)port);
    } else if (c.proc == 4) {  // DUMP: an empty list
      putBe(res, 0);
    } else if (c.proc != 0) {
      return rejectBody(c, PROC_UNAVAIL_);
    }
    return replyHead(c.xid, SUCCESS_) + res;
  }

  Faults faultsCopy() const {
    std::lock_guard<std::mutex> g(m);
    return faults;
  }

  void serve(int fd, Kind kind) {
    int connNo = 0;
    if (kind == Kind::Core) {
      std::lock_guard<std::mutex> g(m);
      connNo = nextConn++;
      conns[connNo] = Conn{fd};
    }
    std::string body;
    while (!stopping && readRecord(fd, &body)) {
      Call c;
      if (!parseCall(body, &c)) break;
      if (kind == Kind::Core) {
        if (c.prog != DEVICE_CORE)
          reject(fd, c, PROG_UNAVAIL_);
        else if (c.vers != DEVICE_CORE_VERSION)
          reject(fd, c, PROG_MISMATCH_);
        else
          coreCall(connNo, fd, c);
      } else if (kind == Kind::Abort) {
        if (c.prog != DEVICE_ASYNC)
          reject(fd, c, PROG_UNAVAIL_);
        else if (c.vers != DEVICE_ASYNC_VERSION)
          reject(fd, c, PROG_MISMATCH_);
        else
          abortCall(fd, c);
      } else {
        portmapCall(fd, c);
      }
    }
    std::lock_guard<std::mutex> g(m);
    if (kind == Kind::Core) {
      // A client that goes away leaves its links and its channel behind.
      for (auto it = linkMap.begin(); it != linkMap.end();)
        it = it->second.conn == connNo ? linkMap.erase(it) : std::next(it);
      auto it = conns.find(connNo);
      if (it != conns.end()) {
        if (it->second.intrFd >= 0) close(it->second.intrFd);
        conns.erase(it);
      }
    }
    connFds.erase(std::remove(connFds.begin(), connFds.end(), fd), connFds.end());
    close(fd);
  }

  void acceptLoop() {
    for (;;) {
      pollfd p[5];
      int n = 0;
      p[n++] = {wake[0], POLLIN, 0};
      if (pmapUdpFd >= 0) p[n++] = {pmapUdpFd, POLLIN, 0};
      p[n++] = {coreFd, POLLIN, 0};
      if (abortFd >= 0) p[n++] = {abortFd, POLLIN, 0};
      if (pmapFd >= 0) p[n++] = {pmapFd, POLLIN, 0};
      if (poll(p, (nfds_t)n, -1) < 0) {
        if (errno == EINTR) continue;
        return;
      }
      if (stopping || (p[0].revents & POLLIN)) return;
      for (int i = 1; i < n; i++) {
        if (!(p[i].revents & POLLIN)) continue;
        if (p[i].fd == pmapUdpFd) {
          portmapDatagram();
          continue;
        }
        int s = accept(p[i].fd, nullptr, nullptr);
        if (s < 0) continue;
        int one = 1;
        setsockopt(s, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
        Kind k = p[i].fd == coreFd ? Kind::Core : p[i].fd == abortFd ? Kind::Abort : Kind::Portmap;
        std::lock_guard<std::mutex> g(m);
        connFds.push_back(s);
        threads.emplace_back([this, s, k] { serve(s, k); });
      }
    }
  }

  int fireSrqImpl(const std::string* handle) {
    std::lock_guard<std::mutex> g(m);
    int sent = 0;
    for (auto& [lid, l] : linkMap) {
      if (!l.srq) continue;
      auto it = conns.find(l.conn);
      if (it == conns.end() || it->second.intrFd < 0) continue;
      static std::atomic<uint32_t> xid{0x5100};
      std::string body;
      putBe(body, xid++);
      putBe(body, 0);  // CALL
      putBe(body, 2);
      putBe(body, DEVICE_INTR);
      putBe(body, DEVICE_INTR_VERSION);
      putBe(body, device_intr_srq);
      for (int i = 0; i < 4; i++) putBe(body, 0);  // AUTH_NONE credential and verifier
      Device_SrqParms p{};
      std::string h = handle ? *handle : l.handle;
      p.handle.handle_len = (u_int)h.size();
      p.handle.handle_val = h.data();
      encode((xdrproc_t)xdr_Device_SrqParms, &p, h.size(), &body);
      log(1, "device_intr_srq to link %d", (int)lid);
      if (sendRecord(it->second.intrFd, body)) sent++;
    }
    return sent;
  }
};

Simulator::Simulator(Options options) : impl_(new Impl) {
  impl_->opt = options;
  impl_->faults = options.faults;
}

Simulator::~Simulator() { stop(); }

bool Simulator::start(std::string* error) {
  Impl& s = *impl_;
  auto fail = [&](const std::string& e) {
    if (error) *error = e;
    stop();
    return false;
  };
  in_addr a{};
  if (inet_pton(AF_INET, s.opt.address.c_str(), &a) != 1) return fail("bad address " + s.opt.address);
  if (!isLoopback(ntohl(a.s_addr))) return fail("only loopback addresses (127.0.0.0/8) are served");
  s.addrNet = a.s_addr;
  s.stopping = false;
  if (pipe(s.wake) != 0) return fail("pipe failed");
  s.coreFd = listenOn(s.addrNet, s.opt.corePort, &s.corePort);
  if (s.coreFd < 0) return fail("cannot listen on the core port: " + std::string(strerror(errno)));
  switch (s.faults.abort) {
    case AbortMode::Normal:
      s.abortFd = listenOn(s.addrNet, 0, &s.abortPortNo);
      if (s.abortFd < 0) return fail("cannot listen on the abort port");
      s.reportedAbort = s.abortPortNo;
      break;
    case AbortMode::None:
      s.reportedAbort = 0;
      break;
    case AbortMode::Refused:
      // Bound but never listening: connections to it are refused.
      s.refusedFd = listenOn(s.addrNet, 0, &s.reportedAbort, false);
      if (s.refusedFd < 0) return fail("cannot reserve a port");
      break;
  }
  PortmapMode pm = s.opt.portmap;
  if (pm == PortmapMode::Auto) pm = portmapperAnswers(s.addrNet) ? PortmapMode::Rpcbind : PortmapMode::Own;
  if (pm == PortmapMode::Rpcbind) {
    if (!registerTcp(s.addrNet, DEVICE_CORE, DEVICE_CORE_VERSION, s.corePort))
      return fail("cannot register with rpcbind");
    if (s.reportedAbort) registerTcp(s.addrNet, DEVICE_ASYNC, DEVICE_ASYNC_VERSION, s.reportedAbort);
    s.rpcbind = true;
  } else if (pm == PortmapMode::Own) {
    s.pmapFd = listenOn(s.addrNet, 111, nullptr);
    if (s.pmapFd < 0) return fail("cannot listen on port 111: " + std::string(strerror(errno)));
    s.pmapUdpFd = socket(AF_INET, SOCK_DGRAM, 0);
    sockaddr_in u{};
    u.sin_family = AF_INET;
    u.sin_addr.s_addr = s.addrNet;
    u.sin_port = htons(111);
    if (s.pmapUdpFd < 0 || bind(s.pmapUdpFd, (sockaddr*)&u, sizeof u) != 0)
      return fail("cannot bind UDP port 111: " + std::string(strerror(errno)));
  }
  s.log(1, "core port %u, abort port %u, portmapper: %s", s.corePort, s.reportedAbort,
        s.rpcbind ? "rpcbind" : s.pmapFd >= 0 ? "own" : "none");
  s.acceptThread = std::thread([&s] { s.acceptLoop(); });
  return true;
}

void Simulator::stop() {
  Impl& s = *impl_;
  {
    std::lock_guard<std::mutex> g(s.m);
    s.stopping = true;
    s.cv.notify_all();
  }
  if (s.wake[1] >= 0) {
    char b = 1;
    (void)!write(s.wake[1], &b, 1);
  }
  if (s.acceptThread.joinable()) s.acceptThread.join();
  std::vector<std::thread> ts;
  {
    std::lock_guard<std::mutex> g(s.m);
    for (int fd : s.connFds) shutdown(fd, SHUT_RDWR);
    ts.swap(s.threads);
  }
  for (auto& t : ts) t.join();  // each connection closes its own socket
  for (auto& [n, c] : s.conns)
    if (c.intrFd >= 0) close(c.intrFd);
  s.conns.clear();
  if (s.rpcbind) {
    unregisterTcp(DEVICE_CORE, DEVICE_CORE_VERSION);
    if (s.reportedAbort) unregisterTcp(DEVICE_ASYNC, DEVICE_ASYNC_VERSION);
    s.rpcbind = false;
  }
  for (int* fd : {&s.coreFd, &s.abortFd, &s.pmapFd, &s.pmapUdpFd, &s.refusedFd, &s.wake[0], &s.wake[1]}) {
    if (*fd >= 0) close(*fd);
    *fd = -1;
  }
}

uint16_t Simulator::corePort() const { return impl_->corePort; }
uint16_t Simulator::abortPort() const { return impl_->reportedAbort; }
bool Simulator::usesRpcbind() const { return impl_->rpcbind; }
bool Simulator::servesPortmap() const { return impl_->pmapFd >= 0; }

void Simulator::setFaults(const Faults& f) {
  std::lock_guard<std::mutex> g(impl_->m);
  impl_->faults = f;
}
Faults Simulator::faults() const { return impl_->faultsCopy(); }

#define KV_SIM_GET(type, expr)             \
  std::lock_guard<std::mutex> g(impl_->m); \
  return (type)(impl_->expr)

std::vector<WriteRecord> Simulator::writes() const { KV_SIM_GET(std::vector<WriteRecord>, writeLog); }
std::vector<int> Simulator::calls() const { KV_SIM_GET(std::vector<int>, callLog); }
std::vector<std::string> Simulator::deviceNames() const { KV_SIM_GET(std::vector<std::string>, names); }
std::vector<int32_t> Simulator::destroyedLinks() const { KV_SIM_GET(std::vector<int32_t>, destroyed); }
uint8_t Simulator::statusByte() const { KV_SIM_GET(uint8_t, stb); }
int Simulator::clearCount() const { KV_SIM_GET(int, clears); }
int Simulator::triggerCount() const { KV_SIM_GET(int, triggers); }
int Simulator::abortCount() const { KV_SIM_GET(int, aborts); }
std::string Simulator::srqHandle() const { KV_SIM_GET(std::string, lastHandle); }

std::vector<int32_t> Simulator::links() const {
  std::lock_guard<std::mutex> g(impl_->m);
  std::vector<int32_t> v;
  for (auto& [lid, l] : impl_->linkMap) v.push_back(lid);
  return v;
}

void Simulator::clearRecords() {
  std::lock_guard<std::mutex> g(impl_->m);
  impl_->writeLog.clear();
  impl_->callLog.clear();
  impl_->names.clear();
  impl_->destroyed.clear();
}

void Simulator::setStatusByte(uint8_t stb) {
  std::lock_guard<std::mutex> g(impl_->m);
  impl_->stb = stb;
}

bool Simulator::waitForInterruptChannel(int ms) const {
  std::unique_lock<std::mutex> g(impl_->m);
  return impl_->cv.wait_for(g, std::chrono::milliseconds(ms), [&] {
    for (auto& [n, c] : impl_->conns)
      if (c.intrFd >= 0) return true;
    return false;
  });
}

int Simulator::fireSrq() { return impl_->fireSrqImpl(nullptr); }
int Simulator::fireSrqWithHandle(const std::string& handle) { return impl_->fireSrqImpl(&handle); }

bool parseFault(const std::string& text, Faults* f) {
  std::string name = text, value;
  size_t eq = text.find('=');
  if (eq != std::string::npos) {
    name = text.substr(0, eq);
    value = text.substr(eq + 1);
  }
  auto num = [&](const std::string& v, long* out) {
    if (v.empty()) return false;
    char* end = nullptr;
    *out = strtol(v.c_str(), &end, 0);
    return *end == 0;
  };
  auto pair = [&](long* a, long* b) {
    size_t colon = value.find(':');
    return colon != std::string::npos && num(value.substr(0, colon), a) && num(value.substr(colon + 1), b);
  };
  long a = 0, b = 0;
  if (name == "device-error" && pair(&a, &b)) {
    f->deviceErrorProc = (int)a;
    f->deviceError = (int32_t)b;
  } else if (name == "wrong-xid" && num(value, &a)) {
    f->wrongXidProc = (int)a;
  } else if (name == "getport-zero" && value.empty()) {
    f->getportZero = true;
  } else if (name == "huge-maxrecv" && value.empty()) {
    f->maxRecvSize = 0xFFFFFFFFu;
  } else if (name == "max-recv" && num(value, &a) && a >= 0) {
    f->maxRecvSize = (uint32_t)a;
  } else if (name == "no-abort" && value.empty()) {
    f->abort = AbortMode::None;
  } else if (name == "refused-abort" && value.empty()) {
    f->abort = AbortMode::Refused;
  } else if (name == "late" && pair(&a, &b) && b >= 0) {
    f->lateProc = (int)a;
    f->lateMs = (unsigned)b;
  } else if (name == "no-connect-back" && value.empty()) {
    f->noConnectBack = true;
  } else if (name == "intr-chan-error" && num(value, &a)) {
    f->intrChanError = (int32_t)a;
  } else {
    return false;
  }
  return true;
}

}  // namespace vxi11sim
