// Connection layer of the simulated bridge: listeners, accept loop, connection registry, raw and control ports.
// Also start/stop, error messages and the public Server methods; HiSLIP
// sessions themselves live in hislip_session.cpp.
//
// Threads: one accept thread polls every listener; each accepted connection
// gets a thread of its own.  A HiSLIP connection becomes the synchronous
// channel of a new session (first message Initialize) or the asynchronous
// channel of an existing one (AsyncInitialize).  The synchronous thread
// answers Data/DataEnd through the session's instrument and vendor-specific
// messages through the Bridge; the asynchronous thread answers status
// queries, device clears, size and lock requests.  Unsolicited messages
// (service requests, interrupt reports) are written to the asynchronous
// socket by whichever thread raises them, under the session's async mutex.
//
// Descriptor ownership: only a connection's own thread closes its socket,
// and it first clears the descriptor in the registry under the registry
// mutex; every other thread shuts a connection down through the registry,
// so a descriptor number that the system has handed out again is never
// touched.
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <deque>
#include <map>
#include <mutex>
#include <stdexcept>
#include <thread>

#include "server_impl.h"

namespace bridgesim {

bool isLoopbackAddress(const std::string& dotted) {
  in_addr a{};
  if (inet_pton(AF_INET, dotted.c_str(), &a) != 1) return false;
  return (ntohl(a.s_addr) >> 24) == 127;
}

namespace srv {

ssize_t sysRecv(int fd, void* b, size_t n) {
  for (;;) {
    ssize_t r = ::recv(fd, b, n, 0);
    if (r < 0 && errno == EINTR) continue;
    return r;
  }
}

bool sendVec(int fd, iovec* iov, int n) {
  while (n > 0) {
    msghdr mh{};
    mh.msg_iov = iov;
    mh.msg_iovlen = static_cast<size_t>(n);
    ssize_t r = ::sendmsg(fd, &mh, MSG_NOSIGNAL);
    if (r < 0) {
      if (errno == EINTR) continue;
      return false;
    }
    size_t left = static_cast<size_t>(r);
    while (n > 0 && left >= iov->iov_len) {
      left -= iov->iov_len;
      ++iov;
      --n;
    }
    if (n > 0) {
      iov->iov_base = static_cast<char*>(iov->iov_base) + left;
      iov->iov_len -= left;
    }
  }
  return true;
}

// Header and payload leave in one system call.
bool sendMessage(int fd, const uint8_t* hdr, const void* payload, size_t len) {
  iovec iov[2];
  iov[0].iov_base = const_cast<uint8_t*>(hdr);
  iov[0].iov_len = kHeaderSize;
  iov[1].iov_base = const_cast<void*>(payload);
  iov[1].iov_len = len;
  return sendVec(fd, iov, len ? 2 : 1);
}

bool sendRaw(int fd, const void* p, size_t n) {
  iovec iov{const_cast<void*>(p), n};
  return sendVec(fd, &iov, 1);
}

void setNoDelay(int fd) {
  int one = 1;
  setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
}

// Half-closes, then reads and throws away what the peer still sends for a
// short while, so that the peer gets to read our last bytes.
void lingerClose(int fd) {
  ::shutdown(fd, SHUT_WR);
  auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(kLingerMs);
  size_t total = 0;
  char scratch[4096];
  while (total < kLingerBytes) {
    auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now()).count();
    if (left <= 0) break;
    pollfd p{fd, POLLIN, 0};
    int r = ::poll(&p, 1, static_cast<int>(left));
    if (r < 0 && errno == EINTR) continue;
    if (r <= 0) break;
    ssize_t n = sysRecv(fd, scratch, sizeof scratch);
    if (n <= 0) break;
    total += static_cast<size_t>(n);
  }
}

std::string timestamp() {
  timespec ts{};
  clock_gettime(CLOCK_REALTIME, &ts);
  tm t{};
  localtime_r(&ts.tv_sec, &t);
  char b[96];
  snprintf(b, sizeof b, "%04d-%02d-%02d %02d:%02d:%02d.%03d ", t.tm_year + 1900, t.tm_mon + 1, t.tm_mday, t.tm_hour,
           t.tm_min, t.tm_sec, static_cast<int>(ts.tv_nsec / 1000000) % 1000);
  return b;
}

std::string hexDump(const uint8_t* p, size_t n, size_t max) {
  std::string s;
  char b[4];
  for (size_t i = 0; i < n && i < max; ++i) {
    snprintf(b, sizeof b, "%02X", p[i]);
    if (i) s += ' ';
    s += b;
  }
  if (n > max) s += " ...";
  return s;
}

const char* typeName(uint8_t t) {
  static const char* names[] = {"Initialize",
                                "InitializeResponse",
                                "FatalError",
                                "Error",
                                "AsyncLock",
                                "AsyncLockResponse",
                                "Data",
                                "DataEnd",
                                "DeviceClearComplete",
                                "DeviceClearAcknowledge",
                                "AsyncRemoteLocalControl",
                                "AsyncRemoteLocalResponse",
                                "Trigger",
                                "Interrupted",
                                "AsyncInterrupted",
                                "AsyncMaximumMessageSize",
                                "AsyncMaximumMessageSizeResponse",
                                "AsyncInitialize",
                                "AsyncInitializeResponse",
                                "AsyncDeviceClear",
                                "AsyncServiceRequest",
                                "AsyncStatusQuery",
                                "AsyncStatusResponse",
                                "AsyncDeviceClearAcknowledge",
                                "AsyncLockInfo",
                                "AsyncLockInfoResponse"};
  if (t < sizeof names / sizeof names[0]) return names[t];
  return t >= 128 ? "VendorSpecific" : "unknown";
}

uint32_t le32(const uint8_t* p, size_t n, size_t off) {
  if (off + 4 > n) return 0;
  return uint32_t(p[off]) | uint32_t(p[off + 1]) << 8 | uint32_t(p[off + 2]) << 16 | uint32_t(p[off + 3]) << 24;
}

void putLe32(std::vector<uint8_t>& v, uint32_t x) {
  for (int i = 0; i < 4; ++i) v.push_back(static_cast<uint8_t>(x >> (8 * i)));
}

}  // namespace srv

void Server::Impl::log(int level, const char* fmt, ...) {
  if (!logs(level)) return;
  char msg[1024];
  va_list ap;
  va_start(ap, fmt);
  vsnprintf(msg, sizeof msg, fmt, ap);
  va_end(ap);
  std::string line = timestamp() + msg + "\n";
  std::lock_guard<std::mutex> g(logMutex);
  if (opt.logSink)
    opt.logSink(line);
  else
    fputs(line.c_str(), stderr);
}

int Server::Impl::listenOn(const std::string& addr, uint16_t port, uint16_t* bound, const char* what) {
  sockaddr_in sa{};
  sa.sin_family = AF_INET;
  sa.sin_port = htons(port);
  if (inet_pton(AF_INET, addr.c_str(), &sa.sin_addr) != 1)
    throw std::runtime_error("not a dotted IPv4 address: \"" + addr + "\"");
  int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) throw std::runtime_error(std::string("socket: ") + strerror(errno));
  int one = 1;
  setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
  if (::bind(fd, reinterpret_cast<sockaddr*>(&sa), sizeof sa) != 0 || ::listen(fd, 64) != 0) {
    int e = errno;
    ::close(fd);
    throw std::runtime_error(std::string("cannot listen for ") + what + " on " + addr + ":" + std::to_string(port) +
                             ": " + strerror(e));
  }
  socklen_t len = sizeof sa;
  getsockname(fd, reinterpret_cast<sockaddr*>(&sa), &len);
  *bound = ntohs(sa.sin_port);
  return fd;
}

void Server::Impl::closeListeners() {
  for (int* fd : {&lsHislip, &lsRaw, &lsControl, &wake[0], &wake[1]}) {
    if (*fd >= 0) ::close(*fd);
    *fd = -1;
  }
}

void Server::Impl::start() {
  if (running) return;
  stopping = false;
  try {
    if (::pipe2(wake, O_CLOEXEC) != 0) throw std::runtime_error(std::string("pipe: ") + strerror(errno));
    lsHislip = listenOn(opt.address, opt.port, &portHislip, "HiSLIP");
    if (opt.rawPort) lsRaw = listenOn(opt.address, opt.rawPort, &portRaw, "the raw-socket instrument");
    if (opt.controlPort) {
      // The control port never leaves the loopback network.
      std::string a = isLoopbackAddress(opt.address) ? opt.address : "127.0.0.1";
      lsControl = listenOn(a, opt.controlPort, &portControl, "control");
    }
  } catch (...) {
    closeListeners();
    throw;
  }
  running = true;
  acceptThread = std::thread([this] { acceptLoop(); });
  log(1, "listening for HiSLIP on %s:%u", opt.address.c_str(), portHislip);
  if (portRaw) log(1, "raw-socket instrument on %s:%u", opt.address.c_str(), portRaw);
  if (portControl) log(1, "control port on %u (loopback)", portControl);
}

void Server::Impl::stop() {
  if (!running.exchange(false)) return;
  {
    std::lock_guard<std::mutex> g(sleepMutex);
    stopping = true;
  }
  sleepCv.notify_all();
  char c = 'x';
  if (::write(wake[1], &c, 1) < 0) {
  }
  if (acceptThread.joinable()) acceptThread.join();
  closeListeners();
  std::vector<std::thread> threads;
  {
    std::lock_guard<std::mutex> g(connMutex);
    for (auto& [id, cn] : conns) {
      if (cn->fd >= 0) ::shutdown(cn->fd, SHUT_RDWR);
      threads.push_back(std::move(cn->th));
    }
  }
  for (auto& t : threads)
    if (t.joinable()) t.join();
  {
    std::lock_guard<std::mutex> g(connMutex);
    conns.clear();
  }
  {
    std::lock_guard<std::mutex> g(sessMutex);
    sessions.clear();
  }
  portHislip = portRaw = portControl = 0;
  log(1, "stopped");
}

void Server::Impl::acceptLoop() {
  pollfd fds[4];
  ConnKind kinds[4];
  int n = 0;
  fds[n++] = {wake[0], POLLIN, 0};
  fds[n] = {lsHislip, POLLIN, 0};
  kinds[n++] = ConnKind::Hislip;
  if (lsRaw >= 0) {
    fds[n] = {lsRaw, POLLIN, 0};
    kinds[n++] = ConnKind::Raw;
  }
  if (lsControl >= 0) {
    fds[n] = {lsControl, POLLIN, 0};
    kinds[n++] = ConnKind::Control;
  }
  while (!stopping) {
    int r = ::poll(fds, static_cast<nfds_t>(n), 1000);
    if (stopping) break;
    if (r < 0 && errno != EINTR) std::this_thread::sleep_for(std::chrono::milliseconds(10));
    if (r > 0 && (fds[0].revents & POLLIN)) break;
    for (int i = 1; r > 0 && i < n; ++i) {
      if (!(fds[i].revents & POLLIN)) continue;
      sockaddr_in peer{};
      socklen_t len = sizeof peer;
      int fd = ::accept4(fds[i].fd, reinterpret_cast<sockaddr*>(&peer), &len, SOCK_CLOEXEC);
      if (fd < 0) {
        // Out of descriptors: back off instead of spinning on poll.
        if (errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM)
          std::this_thread::sleep_for(std::chrono::milliseconds(20));
        continue;
      }
      setNoDelay(fd);
      spawn(kinds[i], fd, peer);
    }
    reapDone();
  }
}

void Server::Impl::spawn(ConnKind kind, int fd, const sockaddr_in& peer) {
  std::lock_guard<std::mutex> g(connMutex);
  auto c = std::make_unique<Conn>();
  c->id = nextConn++;
  c->fd = fd;
  c->peer = peer;
  c->kind = kind;
  Conn* cp = c.get();
  c->th = std::thread([this, cp] {
    try {
      runConn(*cp);
    } catch (const std::exception& e) {
      log(0, "connection %llu: %s", static_cast<unsigned long long>(cp->id), e.what());
    }
    finishConn(*cp);
  });
  conns.emplace(c->id, std::move(c));
}

void Server::Impl::finishConn(Conn& c) {
  int fd;
  {
    std::lock_guard<std::mutex> g(connMutex);
    fd = c.fd;
    c.fd = -1;
  }
  if (fd >= 0) ::close(fd);
  c.done = true;
}

void Server::Impl::reapDone() {
  std::vector<std::thread> finished;
  {
    std::lock_guard<std::mutex> g(connMutex);
    for (auto it = conns.begin(); it != conns.end();) {
      if (it->second->done) {
        finished.push_back(std::move(it->second->th));
        it = conns.erase(it);
      } else {
        ++it;
      }
    }
  }
  for (auto& t : finished)
    if (t.joinable()) t.join();
}

void Server::Impl::shutdownConn(uint64_t id) {
  std::lock_guard<std::mutex> g(connMutex);
  auto it = conns.find(id);
  if (it != conns.end() && it->second->fd >= 0) ::shutdown(it->second->fd, SHUT_RDWR);
}

bool Server::Impl::sleepFor(int ms) {
  std::unique_lock<std::mutex> lk(sleepMutex);
  return !sleepCv.wait_for(lk, std::chrono::milliseconds(ms), [this] { return stopping.load(); });
}

void Server::Impl::runConn(Conn& c) {
  switch (c.kind) {
    case ConnKind::Hislip:
      runHislip(c);
      break;
    case ConnKind::Raw:
      runRaw(c);
      break;
    case ConnKind::Control:
      runControl(c);
      break;
  }
}

std::string Server::Impl::errorText(const char* text) {
  std::string t(text);
  if (t.size() < 28) t.append(28 - t.size(), ' ');
  if (t.size() > 255) t.resize(255);
  return t;
}

bool Server::Impl::sendError(int fd, uint8_t type, uint8_t code, const char* text) {
  std::string t = errorText(text);
  uint8_t hdr[kHeaderSize];
  encodeHeader(hdr, type, code, 0, t.size());
  ++stErrors;
  log(1, "sending %s %u: %s", typeName(type), code, text);
  return sendMessage(fd, hdr, t.data(), t.size());
}

void Server::Impl::fatal(int fd, uint8_t code, const char* text) {
  sendError(fd, FatalError, code, text);
  lingerClose(fd);
}

void Server::Impl::runRaw(Conn& c) {
  ++stRaw;
  log(1, "raw-socket connection %llu opened", static_cast<unsigned long long>(c.id));
  MessageInstrument instr;
  Reader rd(c.fd);
  std::string line;
  for (;;) {
    int r = rd.readLine(line, kRawLineLimit);
    if (r == 0) break;
    if (r < 0) {
      instr.execute("\x01OVERLONG");  // queues "Undefined header"
      continue;
    }
    std::string resp = instr.execute(line);
    log(2, "raw: \"%s\" -> %zu bytes", line.substr(0, 80).c_str(), resp.size());
    if (!resp.empty() && !sendRaw(c.fd, resp.data(), resp.size())) break;
  }
  log(1, "raw-socket connection %llu closed", static_cast<unsigned long long>(c.id));
}

void Server::Impl::runControl(Conn& c) {
  if ((ntohl(c.peer.sin_addr.s_addr) >> 24) != 127) return;  // loopback peers only
  Reader rd(c.fd);
  std::string line;
  for (;;) {
    int r = rd.readLine(line, kControlLineLimit);
    if (r == 0) break;
    std::string reply;
    if (r < 0) {
      reply = "ERR line too long\n";
    } else {
      std::string t = line;
      while (!t.empty() && (t.back() == ' ' || t.back() == '\t')) t.pop_back();
      if (t == "quit" || t == "exit") {
        sendRaw(c.fd, "OK bye\n", 7);
        break;
      }
      log(1, "control: %s", t.c_str());
      reply = owner->control(t);
    }
    if (!sendRaw(c.fd, reply.data(), reply.size())) break;
  }
}

// ---------------------------------------------------------------- Server

Server::Server(ServerOptions o) : impl_(std::make_unique<Impl>(this, std::move(o))) {}

Server::~Server() {
  stop();
  if (impl_) impl_->bridge->broadcastAsync = nullptr;
}

void Server::start() { impl_->start(); }
void Server::stop() { impl_->stop(); }

uint16_t Server::port() const { return impl_->portHislip; }
uint16_t Server::rawPort() const { return impl_->portRaw; }
uint16_t Server::controlPort() const { return impl_->portControl; }

Bridge& Server::bridge() { return *impl_->bridge; }

void Server::setFaults(const HislipFaults& f) {
  std::lock_guard<std::mutex> g(impl_->faultMutex);
  impl_->faults = f;
}

HislipFaults Server::faults() const { return impl_->peekFaults(); }

void Server::updateFaults(const std::function<void(HislipFaults&)>& edit) {
  std::lock_guard<std::mutex> g(impl_->faultMutex);
  edit(impl_->faults);
}

void Server::setCommandFaults(const CommandFaults& f) { impl_->bridge->setFaults(f); }
CommandFaults Server::commandFaults() const { return impl_->bridge->faults(); }

std::vector<std::vector<uint8_t>> Server::receivedCommands() const {
  std::lock_guard<std::mutex> g(impl_->recMutex);
  return {impl_->received.begin(), impl_->received.end()};
}

void Server::clearReceived() {
  std::lock_guard<std::mutex> g(impl_->recMutex);
  impl_->received.clear();
  impl_->receivedBytes = 0;
}

size_t Server::sessionCount() const {
  std::lock_guard<std::mutex> g(impl_->sessMutex);
  return impl_->sessions.size();
}

ServerStats Server::stats() const {
  ServerStats s;
  s.sessionsOpened = impl_->stSessionsOpened;
  s.sessionsNow = sessionCount();
  s.bridgeCommands = impl_->stBridgeCommands;
  s.dataMessages = impl_->stData;
  s.asyncMessages = impl_->stAsync;
  s.errorsSent = impl_->stErrors;
  s.asyncSent = impl_->stAsyncSent;
  s.rawConnections = impl_->stRaw;
  return s;
}

void Server::sendServiceRequest() { impl_->serviceRequestAll(); }

void Server::sendAsyncVendor(const std::vector<uint8_t>& body) { impl_->broadcastVendor(body); }

void Server::sendInterrupt(uint32_t irqLine, uint32_t statId) {
  impl_->broadcastVendor(Impl::interruptReport(irqLine, statId));
}

}  // namespace bridgesim
