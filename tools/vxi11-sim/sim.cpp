// The simulator's life: start and stop, the listeners, one thread per connection, the test hooks and the fault switches.
#include <arpa/inet.h>
#include <errno.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>

#include "impl.h"
#include "vxi11.h"

namespace vxi11sim {

void Simulator::Impl::log(int level, const char* fmt, ...) {
  if (opt.verbosity < level) return;
  timespec ts{};
  clock_gettime(CLOCK_REALTIME, &ts);
  tm t{};
  localtime_r(&ts.tv_sec, &t);
  char line[1024];
  va_list ap;
  va_start(ap, fmt);
  vsnprintf(line, sizeof line, fmt, ap);
  va_end(ap);
  // One write per line, so the lines of several connections do not mix.
  fprintf(stderr, "%04d-%02d-%02d %02d:%02d:%02d.%03d vxi11-sim: %s\n", t.tm_year + 1900, t.tm_mon + 1, t.tm_mday,
          t.tm_hour, t.tm_min, t.tm_sec, (int)(ts.tv_nsec / 1000000), line);
}

void Simulator::Impl::pause(unsigned ms) {
  std::unique_lock<std::mutex> g(m);
  cv.wait_for(g, std::chrono::milliseconds(ms), [&] { return stopping.load(); });
}

Faults Simulator::Impl::faultsCopy() const {
  std::lock_guard<std::mutex> g(m);
  return faults;
}

void Simulator::Impl::serve(int fd, Kind kind) {
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
      sendRecord(fd, portmapReply(c));
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

void Simulator::Impl::acceptLoop() {
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
