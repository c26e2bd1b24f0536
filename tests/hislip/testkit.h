// Small helpers shared by the HiSLIP, simulated-bridge and VXI-11 tests:
// records that outlive their test, the transport's log, bounded waits and a
// raw HiSLIP message reader/writer that builds headers by hand (so a test
// peer and the client are never wrong in the same way).  Every wait is a
// bound against a hang, not a statement about speed.
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <stdarg.h>
#include <stdio.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <cstring>
#include <deque>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "kvlog.h"
#include "kvtcp_internal.h"

namespace kt {

// A detached receive thread may still look at its record while it leaves,
// so records are never freed.
inline KvTcpInfo* newRecord() {
  static auto* records = new std::deque<KvTcpInfo>;
  static std::mutex m;
  std::lock_guard<std::mutex> g(m);
  return &records->emplace_back();
}

inline bool eventually(const std::function<bool()>& cond, int limitMs = 20000) {
  auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(limitMs);
  while (!cond()) {
    if (std::chrono::steady_clock::now() > end) return cond();
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  return true;
}

// What the library logs through the host's two hooks while an instance lives.
struct LogCapture {
  struct Line {
    int hook, level1, level2;  // hook 1: pkvFSpyLog (one level), 2: pkvFRSpyLog (two)
    std::string format, text;
  };
  static inline std::mutex mu;
  static inline std::vector<Line> lines;
  kvFSpyLog_t savedF = pkvFSpyLog;
  kvFRSpyLog_t savedR = pkvFRSpyLog;

  static void record(int hook, int l1, int l2, const char* fmt, va_list ap) {
    char buf[4096];
    vsnprintf(buf, sizeof buf, fmt, ap);
    std::lock_guard<std::mutex> g(mu);
    lines.push_back({hook, l1, l2, fmt, buf});
  }
  static void hook1(int level, const char* fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    record(1, level, 0, fmt, ap);
    va_end(ap);
  }
  static void hook2(int l1, int l2, const char* fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    record(2, l1, l2, fmt, ap);
    va_end(ap);
  }
  LogCapture() {
    std::lock_guard<std::mutex> g(mu);
    lines.clear();
    pkvFSpyLog = hook1;
    pkvFRSpyLog = hook2;
  }
  ~LogCapture() {
    pkvFSpyLog = savedF;
    pkvFRSpyLog = savedR;
  }
  static bool has(const std::string& text) {
    std::lock_guard<std::mutex> g(mu);
    for (auto& l : lines)
      if (l.text.find(text) != std::string::npos) return true;
    return false;
  }
};

inline sockaddr_in addr(const char* ip, uint16_t port) {
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_port = htons(port);
  inet_pton(AF_INET, ip, &a.sin_addr);
  return a;
}

inline int listenOn(const char* ip, uint16_t port) {
  int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0), one = 1;
  setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
  sockaddr_in a = addr(ip, port);
  if (bind(fd, (sockaddr*)&a, sizeof a) != 0 || listen(fd, 8) != 0) {
    close(fd);
    return -1;
  }
  return fd;
}

inline int connectTo(const char* ip, uint16_t port) {
  int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0), one = 1;
  sockaddr_in a = addr(ip, port);
  if (connect(fd, (sockaddr*)&a, sizeof a) != 0) {
    close(fd);
    return -1;
  }
  setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
  return fd;
}

inline bool readable(int fd, int ms = 5000) {
  pollfd p{fd, POLLIN, 0};
  return poll(&p, 1, ms) == 1;
}

inline bool readFull(int fd, void* buf, size_t n) {
  for (size_t got = 0; got < n;) {
    ssize_t r = readable(fd) ? recv(fd, (char*)buf + got, n - got, 0) : -1;
    if (r <= 0) return false;
    got += (size_t)r;
  }
  return true;
}

// Reads until the peer closes (or nothing comes for a while); returns the bytes.
inline std::string drain(int fd) {
  std::string all;
  char b[4096];
  ssize_t r;
  while (readable(fd) && (r = read(fd, b, sizeof b)) > 0) all.append(b, (size_t)r);
  return all;
}

struct Msg {  // type 0xFF: nothing complete came (closed or time-out)
  bool prologueOk = false;
  uint8_t type = 0xFF, code = 0;
  uint32_t param = 0;  // host order
  uint64_t len = 0;
  std::string data;
};

inline std::string header(uint8_t type, uint8_t code, uint32_t param, uint64_t len) {
  std::string h = {'H', 'S', (char)type, (char)code};
  for (int i = 3; i >= 0; --i) h += (char)(param >> (8 * i));
  for (int i = 7; i >= 0; --i) h += (char)(len >> (8 * i));
  return h;
}

inline Msg readMsg(int fd, bool payload = true) {
  Msg m;
  unsigned char h[16];
  if (!readFull(fd, h, 16)) return m;
  m.prologueOk = h[0] == 'H' && h[1] == 'S';
  m.type = h[2];
  m.code = h[3];
  for (int i = 0; i < 4; ++i) m.param = m.param << 8 | h[4 + i];
  for (int i = 0; i < 8; ++i) m.len = m.len << 8 | h[8 + i];
  if (payload && m.len) {
    m.data.resize(m.len > (64u << 20) ? 0 : m.len);  // never allocate what a broken peer claims
    if (m.data.size() != m.len || !readFull(fd, m.data.data(), m.len)) m.type = 0xFF;
  }
  return m;
}

inline bool sendAllBytes(int fd, const std::string& b) {
  for (size_t off = 0; off < b.size();) {
    ssize_t r = send(fd, b.data() + off, b.size() - off, MSG_NOSIGNAL);
    if (r <= 0) return false;
    off += (size_t)r;
  }
  return true;
}

// len overrides the length field (for malformed messages).
inline bool sendMsg(int fd, uint8_t type, uint8_t code, uint32_t param, const std::string& data = {},
                    std::optional<uint64_t> len = {}) {
  return sendAllBytes(fd, header(type, code, param, len ? *len : data.size()) + data);
}

// Little-endian words, as the bridge commands carry them.
inline std::string words(std::initializer_list<uint32_t> w) {
  std::string b;
  for (uint32_t x : w)
    for (int i = 0; i < 4; ++i) b += (char)(x >> (8 * i));
  return b;
}

inline uint32_t word(const std::string& b, size_t i) {
  uint32_t v = 0xDEADBEEF;
  if (4 * i + 4 <= b.size()) memcpy(&v, b.data() + 4 * i, 4);
  return v;
}

}  // namespace kt
