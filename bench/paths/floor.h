// The floors the driver is measured against: a plain-socket HiSLIP client
// that sends exactly the bridge commands the driver sends and reads the same
// answers, with nothing of the driver around it (no mutex, no record, no
// logging, no copy).  Two ways of receiving are offered: the least the
// kernel needs (header, then payload, blocking), and the driver's own way
// (a readiness wait before each of the two receives), so that the cost of
// that pattern can be told apart from the cost of the driver's code.
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

namespace floorc {

inline void hislipHeader(uint8_t* h, uint8_t type, uint32_t paramNet, uint32_t len) {
  h[0] = 'H';
  h[1] = 'S';
  h[2] = type;
  h[3] = 0;
  memcpy(h + 4, &paramNet, 4);
  memset(h + 8, 0, 4);
  uint32_t be = htonl(len);
  memcpy(h + 12, &be, 4);
}

inline bool sendv(int fd, iovec* v, int n) {
  msghdr m{};
  m.msg_iov = v;
  m.msg_iovlen = (size_t)n;
  while (m.msg_iovlen) {
    ssize_t r = sendmsg(fd, &m, MSG_NOSIGNAL);
    if (r <= 0) return false;
    while (m.msg_iovlen && (size_t)r >= m.msg_iov->iov_len) {
      r -= (ssize_t)m.msg_iov->iov_len;
      m.msg_iov++;
      m.msg_iovlen--;
    }
    if (m.msg_iovlen) {
      m.msg_iov->iov_base = (char*)m.msg_iov->iov_base + r;
      m.msg_iov->iov_len -= (size_t)r;
    }
  }
  return true;
}

inline bool recvAll(int fd, void* p, size_t n) {
  char* c = (char*)p;
  while (n) {
    ssize_t r = recv(fd, c, n, 0);
    if (r <= 0) return false;
    c += r;
    n -= (size_t)r;
  }
  return true;
}

inline bool waitIn(int fd) {
  pollfd p{fd, POLLIN, 0};
  return poll(&p, 1, 2000) == 1;
}

inline int connectTcp(const char* ip, uint16_t port, bool nodelay) {
  int fd = socket(AF_INET, SOCK_STREAM, 0);
  if (nodelay) {
    int one = 1;
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
  }
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_port = htons(port);
  a.sin_addr.s_addr = inet_addr(ip);
  if (connect(fd, (sockaddr*)&a, sizeof a) != 0) {
    close(fd);
    return -1;
  }
  return fd;
}

// One HiSLIP session with a bridge: both channels opened as the driver
// opens them (Nagle left on for the synchronous one, as the driver does).
struct Client {
  int sync = -1, async = -1;
  std::vector<uint8_t> scratch;

  bool open(const char* ip) {
    sync = connectTcp(ip, 4880, false);
    async = connectTcp(ip, 4880, true);
    if (sync < 0 || async < 0) return false;
    uint8_t h[16];
    hislipHeader(h, 0, htonl(0x01000E76u), 5);
    iovec v[2] = {{h, 16}, {(void*)"inst0", 5}};
    if (!sendv(sync, v, 2) || !recvAll(sync, h, 16) || h[2] != 1) return false;
    uint32_t session = (uint32_t)h[6] << 8 | h[7];
    hislipHeader(h, 17, htonl(session), 0);
    iovec a[1] = {{h, 16}};
    return sendv(async, a, 1) && recvAll(async, h, 16) && h[2] == 18;
  }
  void closeAll() {
    if (sync >= 0) close(sync);
    if (async >= 0) close(async);
    sync = async = -1;
  }

  // A bridge command (head + optional data, padded to 32 bits) out with one
  // call; the answer in: its header, then `want` payload bytes into `ans`,
  // the rest of the payload (beyond `want`) into `tail`.  Returns the
  // payload length or -1.
  long exchange(const void* head, size_t headLen, const void* data, size_t dataLen, void* ans, size_t want,
                void* tail = nullptr, bool designWay = false) {
    uint8_t h[16];
    static const uint8_t zeros[4] = {0, 0, 0, 0};
    size_t pad = (4 - (headLen + dataLen) % 4) % 4;
    hislipHeader(h, 128, 0, (uint32_t)(headLen + dataLen + pad));
    iovec v[4] = {{h, 16}, {(void*)head, headLen}, {(void*)data, dataLen}, {(void*)zeros, pad}};
    if (!sendv(sync, v, 4)) return -1;
    if (designWay && !waitIn(sync)) return -1;
    if (!recvAll(sync, h, 16)) return -1;
    uint32_t len;
    memcpy(&len, h + 12, 4);
    len = ntohl(len);
    size_t first = len < want ? len : want;
    if (designWay && first && !waitIn(sync)) return -1;
    if (first && !recvAll(sync, ans, first)) return -1;
    if (len > first) {
      void* rest = tail;
      if (!rest) {
        scratch.resize(len - first);
        rest = scratch.data();
      }
      if (!recvAll(sync, rest, len - first)) return -1;
    }
    return (long)len;
  }
};

}  // namespace floorc
