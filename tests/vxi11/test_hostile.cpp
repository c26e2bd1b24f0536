// Replies no honest device sends, from a scripted loopback peer: more data
// than asked for, a reply trickling in byte by byte, an empty reply without
// a reason.  Each must end in a clear status, never in an overflow or a hang.
#include <netinet/tcp.h>

#include "common.h"

using namespace vx;

namespace {

using Responder = std::function<std::string(const std::string& xid, uint32_t proc)>;

uint32_t be(const std::string& s, size_t off) {
  uint32_t v;
  memcpy(&v, s.data() + off, 4);
  return ntohl(v);
}

void putBe(std::string& s, uint32_t v) {
  v = htonl(v);
  s.append((const char*)&v, 4);
}

// Reply head (record mark filled in later) for a given raw xid.
std::string head(const std::string& xid) {
  std::string s(4, '\0');
  s += xid;
  for (uint32_t w : {1u, 0u, 0u, 0u, 0u}) putBe(s, w);
  return s;
}

std::string marked(std::string body) {
  uint32_t mark = htonl(0x80000000u | (uint32_t)(body.size() - 4));
  memcpy(&body[0], &mark, 4);
  return body;
}

// One connection; every call record is answered by the responder, sent in
// pieces of `piece` bytes.
class ScriptedPeer {
 public:
  ScriptedPeer(Responder r, size_t piece) : respond_(std::move(r)), piece_(piece) {
    lsn_ = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    inet_pton(AF_INET, "127.0.0.5", &a.sin_addr);
    bind(lsn_, (sockaddr*)&a, sizeof a);
    listen(lsn_, 1);
    socklen_t len = sizeof addr_;
    getsockname(lsn_, (sockaddr*)&addr_, &len);
    thread_ = std::thread([this] { run(); });
  }
  ~ScriptedPeer() {
    shutdown(lsn_, SHUT_RDWR);
    if (conn_ >= 0) shutdown(conn_, SHUT_RDWR);
    thread_.join();
    close(lsn_);
    if (conn_ >= 0) close(conn_);
  }
  sockaddr_in addr_{};

 private:
  void run() {
    conn_ = accept(lsn_, nullptr, nullptr);
    if (conn_ < 0) return;
    int one = 1;
    setsockopt(conn_, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
    for (;;) {
      char m[4];
      if (recv(conn_, m, 4, MSG_WAITALL) != 4) return;
      uint32_t len;
      memcpy(&len, m, 4);
      len = ntohl(len) & 0x7FFFFFFFu;
      std::string body(len, '\0');
      if (len && recv(conn_, &body[0], len, MSG_WAITALL) != (ssize_t)len) return;
      std::string reply = respond_(body.substr(0, 4), be(body, 20));
      for (size_t off = 0; off < reply.size(); off += piece_) {
        send(conn_, reply.data() + off, std::min(piece_, reply.size() - off), MSG_NOSIGNAL);
        if (piece_ < reply.size()) std::this_thread::sleep_for(std::chrono::milliseconds(1));
      }
    }
  }
  Responder respond_;
  size_t piece_;
  int lsn_ = -1;
  int conn_ = -1;
  std::thread thread_;
};

std::string readReply(const std::string& xid, int32_t size, int32_t reason, size_t dataBytes) {
  std::string s = head(xid);
  putBe(s, 0);
  putBe(s, (uint32_t)reason);
  putBe(s, (uint32_t)size);
  s.append((dataBytes + 3) & ~(size_t)3, 'z');
  return marked(s);
}

class Vxi11Hostile : public Vxi11Test {
 protected:
  KvTcpInfo* attach(ScriptedPeer& peer) {
    KvTcpInfo* r = newRecord();
    opened.push_back(r);
    open_mutex_core(r, "127.0.0.5");
    r->S_Core = socket(AF_INET, SOCK_STREAM, 0);
    EXPECT_EQ(::connect(r->S_Core, (sockaddr*)&peer.addr_, sizeof peer.addr_), 0);
    r->tcpType = KVTCP_VXI11;
    r->lid = 1;
    r->maxRecvSize = 1024;
    r->Connected = 1;
    return r;
  }
};

TEST_F(Vxi11Hostile, MoreDataThanAskedForIsAnIoError) {
  for (int count : {10, 300}) {
    SCOPED_TRACE(count);
    ScriptedPeer peer([&](const std::string& xid, uint32_t) { return readReply(xid, count + 100, 4, count + 100); },
                      4096);
    KvTcpInfo* r = attach(peer);
    std::vector<char> buf((size_t)count + 200, '#');
    int n = -1;
    EXPECT_EQ(kvtcp_Read(r, 1000, buf.data(), count, 0x0002, 0, &n), VI_ERROR_IO);
    EXPECT_EQ(n, 0);
    EXPECT_EQ(r->CoreState, -1);  // the rest is drained before the next call
    for (size_t i = (size_t)count; i < buf.size(); i++) ASSERT_EQ(buf[i], '#') << i;
    kvtcp_Close(r);
  }
}

TEST_F(Vxi11Hostile, RepliesTricklingInAreAssembled) {
  for (int count : {7, 215, 300}) {
    SCOPED_TRACE(count);
    ScriptedPeer peer([&](const std::string& xid, uint32_t) { return readReply(xid, count, 4, (size_t)count); }, 1);
    KvTcpInfo* r = attach(peer);
    std::vector<char> buf((size_t)count, '#');
    int n = -1;
    EXPECT_EQ(kvtcp_Read(r, 1000, buf.data(), count, 0x0002, 0, &n), 2);
    EXPECT_EQ(n, count);
    EXPECT_EQ(std::string(buf.begin(), buf.end()), std::string((size_t)count, 'z'));
    kvtcp_Close(r);
  }
}

TEST_F(Vxi11Hostile, EmptyReplyWithoutReasonDoesNotLoop) {
  int calls = 0;
  ScriptedPeer peer([&](const std::string& xid, uint32_t) {
    calls++;
    return readReply(xid, 0, 0, 0);
  }, 4096);
  KvTcpInfo* r = attach(peer);
  char buf[32];
  int n = -1;
  EXPECT_EQ(kvtcp_Read(r, 1000, buf, sizeof buf, 0x0002, 0, &n), VI_ERROR_IO);
  EXPECT_EQ(n, 0);
  EXPECT_EQ(calls, 1);
}

TEST_F(Vxi11Hostile, ShortCreateLinkReplyIsRefused) {
  ScriptedPeer peer([](const std::string& xid, uint32_t) {
    std::string s = head(xid);
    putBe(s, 0);  // error only: lid, abort port and maxRecvSize missing
    return marked(s);
  }, 4096);
  int s = socket(AF_INET, SOCK_STREAM, 0);
  ASSERT_EQ(::connect(s, (sockaddr*)&peer.addr_, sizeof peer.addr_), 0);
  unsigned int lid = 42, maxRecv = 42;
  unsigned short abortPort = 42;
  EXPECT_EQ(vxi11CreateLink(s, "inst0", &lid, &abortPort, &maxRecv), VI_ERROR_IO);
  EXPECT_EQ(lid, 42u);
  close(s);
}

}  // namespace
