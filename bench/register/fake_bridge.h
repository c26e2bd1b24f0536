// A minimal LAN-to-VXI bridge for the register benchmark: a HiSLIP server on
// one loopback address that records every bridge command, answers register
// reads and writes from a small big-endian memory, and lets a caller replace
// any answer.  Every socket wait is bounded.
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cstdint>
#include <cstring>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <thread>
#include <vector>

namespace fb {

using Bytes = std::vector<uint8_t>;

inline uint32_t rd32(const uint8_t* p) {
  uint32_t v;
  memcpy(&v, p, 4);
  return v;
}
// Grows the vector first and copies into it: GCC 12 at -O2 misreads an
// insert from a small array as an overflow.
inline void put32(Bytes& b, uint32_t v) {
  const size_t n = b.size();
  b.resize(n + 4);
  memcpy(b.data() + n, &v, 4);
}
inline Bytes words(std::initializer_list<uint32_t> w) {
  Bytes b;
  for (uint32_t x : w) put32(b, x);
  return b;
}

struct Model {
  std::mutex m;
  std::map<uint64_t, uint8_t> mem;  // (space << 32 | address) -> byte
  // Replaces the model's answer whenever it returns one.
  std::function<std::optional<Bytes>(const Bytes&)> answer;

  uint32_t load(int space, uint32_t a, int w) {
    uint32_t v = 0;
    for (int i = 0; i < w; i++) v = v << 8 | mem[(uint64_t)space << 32 | (a + i)];
    return v;
  }
  void store(int space, uint32_t a, int w, uint32_t v) {
    for (int i = w - 1; i >= 0; i--, v >>= 8) mem[(uint64_t)space << 32 | (a + i)] = (uint8_t)v;
  }
};

// One bridge command in, one answer payload out.
inline Bytes handle(Model& md, const Bytes& c) {
  if (md.answer)
    if (auto r = md.answer(c)) return *r;
  const uint32_t cmd = c.size() >= 4 ? rd32(c.data()) : 0, s = cmd & 0x001C0000u;
  const int sp = s == 0x00040000u ? 1 : s == 0x00080000u ? 2 : 3;
  const int w = (cmd & 0x00400000u) ? 1 : (cmd & 0x00800000u) ? 2 : 4;
  switch (cmd & 0xFF) {
    case 4:
      if (c.size() >= 12) return words({0, md.load(sp, rd32(&c[8]), w)});
      return words({0xBFFF003Eu, 0});
    case 5:
    case 6:
      if (c.size() >= 16) md.store(sp, rd32(&c[8]), w, rd32(&c[12]));
      return words({0});
    default: return words({0});
  }
}

inline bool waitReadable(int fd, int ms) {
  pollfd p{fd, POLLIN, 0};
  return poll(&p, 1, ms) == 1;
}

inline void sendMsg(int fd, uint8_t type, uint8_t code, uint32_t paramNet, const void* data, size_t len) {
  Bytes out(16 + len);
  out[0] = 'H';
  out[1] = 'S';
  out[2] = type;
  out[3] = code;
  memcpy(&out[4], &paramNet, 4);
  uint32_t lo = htonl((uint32_t)len);
  memcpy(&out[12], &lo, 4);
  if (len) memcpy(out.data() + 16, data, len);
  (void)send(fd, out.data(), out.size(), MSG_NOSIGNAL);
}

class Server {
 public:
  explicit Server(const char* ip = "127.0.0.1", uint16_t port = 4880) {
    lfd_ = socket(AF_INET, SOCK_STREAM, 0);
    int one = 1;
    setsockopt(lfd_, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(port);
    a.sin_addr.s_addr = inet_addr(ip);
    ok_ = bind(lfd_, (sockaddr*)&a, sizeof a) == 0 && listen(lfd_, 16) == 0;
    if (ok_) acceptor_ = std::thread([this] { acceptLoop(); });
  }
  ~Server() {
    stop_ = true;
    if (acceptor_.joinable()) acceptor_.join();
    std::vector<std::thread> ts;
    {
      std::lock_guard<std::mutex> g(tm_);
      ts.swap(threads_);
    }
    for (auto& t : ts) t.join();
    for (int fd : fds_) close(fd);  // only after every thread is done with it
    close(lfd_);
  }
  bool ok() const { return ok_; }

  std::vector<Bytes> receivedCommands() {
    std::lock_guard<std::mutex> g(md_.m);
    return cmds_;
  }
  void clearCommands() {
    std::lock_guard<std::mutex> g(md_.m);
    cmds_.clear();
  }
  // Runs f under the model's lock (to set the answer or look at memory).
  template <class F>
  auto with(F f) {
    std::lock_guard<std::mutex> g(md_.m);
    return f(md_);
  }

 private:
  bool readFull(int fd, void* buf, size_t n) {
    for (size_t got = 0; got < n;) {
      if (stop_) return false;
      if (!waitReadable(fd, 50)) continue;
      ssize_t r = recv(fd, (char*)buf + got, n - got, 0);
      if (r <= 0) return false;
      got += (size_t)r;
    }
    return true;
  }
  // One message; false at the end of the connection or on a broken header.
  bool readMsg(int fd, uint8_t& type, Bytes& body) {
    uint8_t h[16];
    if (!readFull(fd, h, 16) || h[0] != 'H' || h[1] != 'S' || rd32(h + 8) != 0) return false;
    uint32_t len = ntohl(rd32(h + 12));
    if (len > (1u << 20)) return false;  // far more than any bridge command
    type = h[2];
    body.resize(len);
    return len == 0 || readFull(fd, body.data(), len);
  }

  void acceptLoop() {
    while (!stop_) {
      if (!waitReadable(lfd_, 50)) continue;
      int fd = accept(lfd_, nullptr, nullptr);
      if (fd < 0) continue;
      int one = 1;
      setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
      std::lock_guard<std::mutex> g(tm_);
      fds_.push_back(fd);
      threads_.emplace_back([this, fd] { serve(fd); });
    }
  }

  void serve(int fd) {
    uint8_t type;
    Bytes body;
    bool async = false;
    while (readMsg(fd, type, body)) {
      if (type == 0) {  // Initialize: version 1.0, a new session id
        sendMsg(fd, 1, 1, htonl(0x01000000u | (uint16_t)++sessions_), nullptr, 0);
      } else if (type == 17) {  // AsyncInitialize
        async = true;
        sendMsg(fd, 18, 0, htonl(0x0E76), nullptr, 0);
      } else if (type == 15) {  // AsyncMaximumMessageSize
        Bytes v = words({0, htonl(1u << 20)});
        sendMsg(fd, 16, 0, 0, v.data(), v.size());
      } else if (type == 21) {  // AsyncStatusQuery
        sendMsg(fd, 22, 0, 0, nullptr, 0);
      } else if (type == 128 && !async) {
        Bytes a;
        {
          std::lock_guard<std::mutex> g(md_.m);
          cmds_.push_back(body);
          a = handle(md_, body);
        }
        sendMsg(fd, 128, 0, 0, a.data(), a.size());
      }
    }
    shutdown(fd, SHUT_RDWR);
  }

  int lfd_ = -1;
  bool ok_ = false;
  std::atomic<bool> stop_{false};
  std::atomic<int> sessions_{0};
  std::thread acceptor_;
  std::mutex tm_;
  std::vector<std::thread> threads_;
  std::vector<int> fds_;
  Model md_;
  std::vector<Bytes> cmds_;
};

}  // namespace fb
