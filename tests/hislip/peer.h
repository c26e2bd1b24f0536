// A scripted HiSLIP server for the transport tests: listens on loopback,
// accepts the synchronous and then the asynchronous channel, answers
// Initialize and AsyncInitialize as told, then plays a script.  Every read
// waits at most a few seconds, so a broken client fails a test, never hangs it.
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <dirent.h>
#include <functional>
#include <optional>
#include <string>
#include <thread>

#include <gtest/gtest.h>

namespace hs {

struct Msg {
  uint8_t type = 0xFF;  // 0xFF: nothing came (closed or time-out)
  int8_t code = 0;
  uint32_t param = 0;  // host order
  uint8_t paramBytes[4] = {};
  uint64_t len = 0;
  std::string data;
};

inline int listenOn(const char* ip, uint16_t port) {
  int fd = socket(AF_INET, SOCK_STREAM, 0);
  int one = 1;
  setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_port = htons(port);
  a.sin_addr.s_addr = inet_addr(ip);
  if (bind(fd, (sockaddr*)&a, sizeof a) != 0 || listen(fd, 8) != 0) {
    ADD_FAILURE() << "cannot listen on " << ip << ":" << port << ": " << strerror(errno);
    close(fd);
    return -1;
  }
  return fd;
}

inline bool readable(int fd, int ms = 5000) {
  pollfd p{fd, POLLIN, 0};
  return poll(&p, 1, ms) == 1;
}

inline int acceptOne(int lfd) { return readable(lfd) ? accept(lfd, nullptr, nullptr) : -1; }

inline bool readFull(int fd, void* buf, size_t n) {
  size_t got = 0;
  while (got < n) {
    if (!readable(fd)) return false;
    ssize_t r = recv(fd, (char*)buf + got, n - got, 0);
    if (r <= 0) return false;
    got += (size_t)r;
  }
  return true;
}

inline Msg readMsg(int fd, bool payload = true) {
  Msg m;
  unsigned char h[16];
  if (!readFull(fd, h, 16)) return m;
  EXPECT_EQ(0, memcmp(h, "HS", 2));
  m.type = h[2];
  m.code = (int8_t)h[3];
  memcpy(m.paramBytes, h + 4, 4);
  m.param = ntohl(*(uint32_t*)(h + 4));
  m.len = ((uint64_t)ntohl(*(uint32_t*)(h + 8)) << 32) | ntohl(*(uint32_t*)(h + 12));
  if (payload && m.len) {
    m.data.resize(m.len);
    if (!readFull(fd, m.data.data(), m.len)) m.type = 0xFF;
  }
  return m;
}

// len overrides the length field (for malformed messages).
inline void sendMsg(int fd, uint8_t type, int8_t code, uint32_t param, const std::string& data = {},
                    std::optional<uint64_t> len = {}) {
  uint64_t l = len ? *len : data.size();
  std::string out(16, '\0');
  out[0] = 'H';
  out[1] = 'S';
  out[2] = (char)type;
  out[3] = (char)code;
  uint32_t w[3] = {htonl(param), htonl((uint32_t)(l >> 32)), htonl((uint32_t)l)};
  memcpy(out.data() + 4, w, 12);
  out += data;
  EXPECT_EQ((ssize_t)out.size(), send(fd, out.data(), out.size(), MSG_NOSIGNAL));
}

// Waits until the client has closed fd (or a few seconds passed).
inline void waitClosed(int fd) {
  char b[4096];
  while (readable(fd) && recv(fd, b, sizeof b, 0) > 0) {
  }
}

struct Handshake {
  uint8_t initType = 1;      // answer to Initialize
  std::string initText;      // its payload (an error text)
  int8_t initCode = 1;       // overlap bit
  uint8_t session[2] = {0x12, 0x34};
  uint8_t asyncType = 18;    // answer to AsyncInitialize
};

class Peer {
 public:
  explicit Peer(uint16_t port = 4880) : lfd(listenOn("127.0.0.1", port)) {}
  ~Peer() {
    join();
    if (lfd >= 0) close(lfd);
  }
  void run(std::function<void(Peer&)> script, Handshake h = {}) {
    th = std::thread([this, script, h] { serve(h, script); });
  }
  void join() {
    if (th.joinable()) th.join();
  }
  // Connections waiting to be accepted (should be none after a no-op connect).
  bool pending() { return readable(lfd, 0); }

  int lfd;
  int sync = -1, async = -1;
  Msg init, asyncInit;

 private:
  void serve(Handshake h, const std::function<void(Peer&)>& script) {
    sync = acceptOne(lfd);
    async = acceptOne(lfd);
    if (sync < 0 || async < 0) {
      ADD_FAILURE() << "client did not open both channels";
      return finish();
    }
    init = readMsg(sync);
    if (h.initType == 1) {
      uint32_t p = (0x0100u << 16) | (h.session[0] << 8) | h.session[1];
      sendMsg(sync, 1, h.initCode, p);
    } else {
      sendMsg(sync, h.initType, 0, 0, h.initText);
      return finish();
    }
    asyncInit = readMsg(async);
    sendMsg(async, h.asyncType, 0, 0x0E76);
    if (h.asyncType != 18) return finish();
    script(*this);
    finish();
  }
  void finish() {
    if (sync >= 0) waitClosed(sync);
    if (sync >= 0) close(sync);
    if (async >= 0) close(async);
    sync = async = -1;
  }
  std::thread th;
};

// Waits (a few seconds at most) until cond holds; returns whether it did.
template <class F>
bool eventually(F cond) {
  for (int i = 0; i < 1000; i++) {
    if (cond()) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return cond();
}

inline int openFds() {
  int n = 0;
  if (DIR* d = opendir("/proc/self/fd")) {
    while (readdir(d)) n++;
    closedir(d);
  }
  return n;
}

}  // namespace hs
