// A tiny LAN-to-VXI bridge for the driver-core tests: a HiSLIP server on
// port 4880 of one loopback address that answers the bridge commands the
// driver's core sends (lock, reset, state, resource text, test interrupt)
// from settings the test controls, records every command, and can push
// interrupt reports on every asynchronous channel.  Every socket wait is
// bounded so that a broken client fails a test instead of hanging it.
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cstdint>
#include <cstring>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace mb {

using Bytes = std::vector<uint8_t>;

inline void put32(Bytes& b, uint32_t v) {
  uint8_t t[4];
  memcpy(t, &v, 4);
  b.insert(b.end(), t, t + 4);
}
inline uint32_t word(const Bytes& b, size_t i) {
  uint32_t v = 0;
  if (b.size() >= 4 * (i + 1)) memcpy(&v, &b[4 * i], 4);
  return v;
}

// An interrupt report body: cmd 1, then (line, status/ID) pairs.
inline Bytes report(std::initializer_list<std::pair<uint32_t, uint32_t>> pairs, uint32_t cmd = 1) {
  Bytes b;
  put32(b, cmd);
  put32(b, (uint32_t)pairs.size());
  for (auto& p : pairs) {
    put32(b, p.first);
    put32(b, p.second);
  }
  return b;
}

class Bridge {
 public:
  // What the bridge answers; the test may change it at any time.
  struct Settings {
    std::string text = "[COMMON]\nNumInstr=0\n";  // resource text (command 16)
    int32_t lockStatus = 0;                       // answer to the lock command
    int32_t state = 0;                            // system state bits (command 3)
    uint32_t testIrqLine = 1;                     // line of the report a test interrupt raises
    // Overrides every answer when it returns a value (an empty one: no bytes).
    std::function<std::optional<Bytes>(const Bytes&)> answer;
  };

  explicit Bridge(const char* ip) {
    lfd_ = socket(AF_INET, SOCK_STREAM, 0);
    int one = 1;
    setsockopt(lfd_, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(4880);
    a.sin_addr.s_addr = inet_addr(ip);
    ok_ = bind(lfd_, (sockaddr*)&a, sizeof a) == 0 && listen(lfd_, 16) == 0;
    if (ok_) acceptor_ = std::thread([this] { acceptLoop(); });
  }
  ~Bridge() { stop(); }

  bool ok() const { return ok_; }

  // Closes the listener and every session, joins every thread.
  void stop() {
    if (stop_.exchange(true)) return;
    if (acceptor_.joinable()) acceptor_.join();
    close(lfd_);
    std::vector<std::thread> ts;
    {
      std::lock_guard<std::mutex> g(m_);
      for (int fd : fds_) shutdown(fd, SHUT_RDWR);
      ts.swap(threads_);
    }
    for (auto& t : ts) t.join();
    std::lock_guard<std::mutex> g(m_);
    for (int fd : fds_) close(fd);
    fds_.clear();
    async_.clear();
  }

  void set(const std::function<void(Settings&)>& edit) {
    std::lock_guard<std::mutex> g(m_);
    edit(s_);
  }
  std::vector<Bytes> commands() {
    std::lock_guard<std::mutex> g(m_);
    return cmds_;
  }
  void clear() {
    std::lock_guard<std::mutex> g(m_);
    cmds_.clear();
  }
  int asyncChannels() {
    std::lock_guard<std::mutex> g(m_);
    return (int)async_.size();
  }
  // A vendor-specific message with this body on every asynchronous channel.
  void sendAsync(const Bytes& body) {
    std::lock_guard<std::mutex> g(m_);
    for (int fd : async_) sendMsg(fd, 128, 0, 0, body);
  }

 private:
  static bool waitIn(int fd, const std::atomic<bool>& stop) {
    for (;;) {
      if (stop) return false;
      pollfd p{fd, POLLIN, 0};
      int r = poll(&p, 1, 50);
      if (r > 0) return true;
      if (r < 0 && errno != EINTR) return false;
    }
  }
  bool recvAll(int fd, void* buf, size_t n) {
    auto* p = (uint8_t*)buf;
    while (n) {
      if (!waitIn(fd, stop_)) return false;
      ssize_t r = recv(fd, p, n, 0);
      if (r <= 0) return false;
      p += r;
      n -= (size_t)r;
    }
    return true;
  }
  static void sendMsg(int fd, uint8_t type, uint8_t code, uint32_t param, const Bytes& body) {
    uint8_t h[16] = {'H', 'S', type, code};
    uint32_t be = htonl(param);
    memcpy(h + 4, &be, 4);
    be = htonl((uint32_t)body.size());
    memcpy(h + 12, &be, 4);
    Bytes m(h, h + 16);
    m.insert(m.end(), body.begin(), body.end());
    size_t off = 0;
    while (off < m.size()) {
      ssize_t r = send(fd, m.data() + off, m.size() - off, MSG_NOSIGNAL);
      if (r <= 0) return;
      off += (size_t)r;
    }
  }

  void acceptLoop() {
    while (waitIn(lfd_, stop_)) {
      int fd = accept(lfd_, nullptr, nullptr);
      if (fd < 0) continue;
      std::lock_guard<std::mutex> g(m_);
      fds_.push_back(fd);
      threads_.emplace_back([this, fd] { serve(fd); });
    }
  }

  Bytes answerOf(const Bytes& c, bool& irq, uint32_t& irqLine) {
    std::lock_guard<std::mutex> g(m_);
    cmds_.push_back(c);
    if (s_.answer)
      if (auto r = s_.answer(c)) return *r;
    Bytes a;
    switch (word(c, 0) & 0xFF) {
      case 1: put32(a, (uint32_t)s_.lockStatus); break;
      case 3:
        put32(a, 0);
        put32(a, (uint32_t)s_.state);
        break;
      case 16:
        put32(a, 0);
        a.insert(a.end(), s_.text.begin(), s_.text.end());
        break;
      case 17:
        put32(a, 0);
        irq = true;
        irqLine = s_.testIrqLine;
        break;
      default: put32(a, 0); break;
    }
    return a;
  }

  void serve(int fd) {
    uint8_t h[16];
    bool isAsync = false;
    while (recvAll(fd, h, 16)) {
      if (h[0] != 'H' || h[1] != 'S') break;
      uint32_t len;
      memcpy(&len, h + 12, 4);
      len = ntohl(len);
      if (len > (1u << 20)) break;
      Bytes body(len);
      if (len && !recvAll(fd, body.data(), len)) break;
      switch (h[2]) {
        case 0: {  // Initialize: version 1.0, session id 1, overlapped mode
          std::lock_guard<std::mutex> g(m_);
          sendMsg(fd, 1, 1, 0x01000001u, {});
          break;
        }
        case 17: {  // AsyncInitialize
          std::lock_guard<std::mutex> g(m_);
          isAsync = true;
          async_.push_back(fd);
          sendMsg(fd, 18, 0, 0x0E76u, {});
          break;
        }
        case 15: {  // AsyncMaximumMessageSize
          Bytes v;
          put32(v, 0);
          put32(v, htonl(1u << 20));
          std::lock_guard<std::mutex> g(m_);
          sendMsg(fd, 16, 0, 0, v);
          break;
        }
        case 21: {  // AsyncStatusQuery
          std::lock_guard<std::mutex> g(m_);
          sendMsg(fd, 22, 0, 0, {});
          break;
        }
        case 128: {
          if (isAsync) break;
          bool irq = false;
          uint32_t line = 0;
          Bytes a = answerOf(body, irq, line);
          std::lock_guard<std::mutex> g(m_);
          sendMsg(fd, 128, 0, 0, a);
          // A test interrupt: the bridge acknowledges it and reports it on
          // the asynchronous channels, as a real one would.
          if (irq)
            for (int afd : async_) sendMsg(afd, 128, 0, 0, report({{line, word(body, 2)}}));
          break;
        }
        default: break;
      }
    }
    std::lock_guard<std::mutex> g(m_);
    for (size_t i = 0; i < async_.size(); i++)
      if (async_[i] == fd) async_.erase(async_.begin() + (long)i);
    // The descriptor itself is closed by stop(), so it is never reused
    // while another thread may still name it.
    shutdown(fd, SHUT_RDWR);
  }

  int lfd_ = -1;
  bool ok_ = false;
  std::atomic<bool> stop_{false};
  std::thread acceptor_;
  std::mutex m_;
  std::vector<std::thread> threads_;
  std::vector<int> fds_;
  std::vector<int> async_;
  std::vector<Bytes> cmds_;
  Settings s_;
};

}  // namespace mb
