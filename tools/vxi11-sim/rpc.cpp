// ONC RPC record layer of the simulator: record marks, call heads and reply heads, built by hand so
// that faults (a changed transaction id, a late answer) are easy to inject.
#include "rpc.h"

#include <arpa/inet.h>
#include <errno.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

namespace vxi11sim {

uint32_t be(const char* p) {
  uint32_t v;
  memcpy(&v, p, 4);
  return ntohl(v);
}

void putBe(std::string& s, uint32_t v) {
  v = htonl(v);
  s.append((const char*)&v, 4);
}

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
  putBe(s, xid);
  putBe(s, 1);  // REPLY
  putBe(s, 0);  // MSG_ACCEPTED
  putBe(s, 0);  // verifier AUTH_NONE
  putBe(s, 0);
  putBe(s, stat);
  return s;
}

std::string rejectBody(const Call& c, uint32_t stat, uint32_t vers) {
  std::string r = replyHead(c.xid, stat);
  if (stat == PROG_MISMATCH_) {
    putBe(r, vers);
    putBe(r, vers);
  }
  return r;
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

static bool recvAllFd(int fd, char* p, size_t n) {
  while (n) {
    ssize_t r = recv(fd, p, n, 0);
    if (r < 0 && errno == EINTR) continue;
    if (r <= 0) return false;
    p += r;
    n -= (size_t)r;
  }
  return true;
}

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

int listenOn(uint32_t addrNet, uint16_t port, uint16_t* bound, bool doListen) {
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

}  // namespace vxi11sim
