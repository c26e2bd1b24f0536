// Replies no honest device sends, from a scripted loopback peer: more data
// than asked for, a reply trickling in byte by byte, an empty reply without
// a reason, a short create_link reply.  Each must end in a clear status,
// never in an overflow or a hang.
#include "common.h"

using namespace vx;

namespace {

// Builds a reply for (raw xid, procedure).
using Responder = std::function<std::string(const std::string& xid, uint32_t proc)>;

void putBe(std::string& s, uint32_t v) {
  for (int i = 3; i >= 0; --i) s += (char)(v >> (8 * i));
}

// A reply record: mark, xid, accepted with success, then the given words and
// `dataBytes` of 'z' padded to a word.
std::string reply(const std::string& xid, std::initializer_list<uint32_t> words, size_t dataBytes = 0) {
  std::string s(4, '\0');
  s += xid;
  for (uint32_t w : {1u, 0u, 0u, 0u, 0u}) putBe(s, w);
  for (uint32_t w : words) putBe(s, w);
  s.append((dataBytes + 3) & ~(size_t)3, 'z');
  uint32_t mark = htonl(0x80000000u | (uint32_t)(s.size() - 4));
  memcpy(&s[0], &mark, 4);
  return s;
}

std::string readReply(const std::string& xid, int32_t size, int32_t reason, size_t dataBytes) {
  return reply(xid, {0, (uint32_t)reason, (uint32_t)size}, dataBytes);
}

// One connection on 127.0.0.5; every call record is answered by the
// responder, sent in pieces of `piece` bytes.
class ScriptedPeer {
 public:
  ScriptedPeer(Responder r, size_t piece) : respond_(std::move(r)), piece_(piece) {
    thread_ = std::thread([this] { run(); });
  }
  ~ScriptedPeer() {
    shutdown(lsn_, SHUT_RDWR);
    if (conn_ >= 0) shutdown(conn_, SHUT_RDWR);
    thread_.join();
    close(lsn_);
    if (conn_ >= 0) close(conn_);
  }
  int dial() { return kt::connectTo("127.0.0.5", 5555); }

 private:
  void run() {
    if ((conn_ = accept(lsn_, nullptr, nullptr)) < 0) return;
    for (;;) {
      uint32_t len;
      if (recv(conn_, &len, 4, MSG_WAITALL) != 4) return;
      std::string body(ntohl(len) & 0x7FFFFFFFu, '\0');
      if (body.size() < 24 || recv(conn_, &body[0], body.size(), MSG_WAITALL) != (ssize_t)body.size()) return;
      uint32_t proc;
      memcpy(&proc, body.data() + 20, 4);
      std::string out = respond_(body.substr(0, 4), ntohl(proc));
      for (size_t off = 0; off < out.size(); off += piece_) {
        send(conn_, out.data() + off, std::min(piece_, out.size() - off), MSG_NOSIGNAL);
        if (piece_ < out.size()) std::this_thread::sleep_for(std::chrono::milliseconds(1));
      }
    }
  }
  Responder respond_;
  size_t piece_;
  int lsn_ = kt::listenOn("127.0.0.5", 5555), conn_ = -1;
  std::thread thread_;
};

class Vxi11Hostile : public Vxi11Test {
 protected:
  KvTcpInfo* attach(ScriptedPeer& peer) {
    KvTcpInfo* r = newRecord();
    opened.push_back(r);
    open_mutex_core(r, "127.0.0.5");
    r->S_Core = peer.dial();
    EXPECT_GE(r->S_Core, 0);
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
  ScriptedPeer peer([&](const std::string& xid, uint32_t) { return calls++, readReply(xid, 0, 0, 0); }, 4096);
  KvTcpInfo* r = attach(peer);
  char buf[32];
  int n = -1;
  EXPECT_EQ(kvtcp_Read(r, 1000, buf, sizeof buf, 0x0002, 0, &n), VI_ERROR_IO);
  EXPECT_EQ(n, 0);
  EXPECT_EQ(calls, 1);
}

TEST_F(Vxi11Hostile, ShortCreateLinkReplyIsRefused) {
  // The error word only: lid, abort port and maxRecvSize are missing.
  ScriptedPeer peer([](const std::string& xid, uint32_t) { return reply(xid, {0}); }, 4096);
  int s = peer.dial();
  ASSERT_GE(s, 0);
  unsigned int lid = 42, maxRecv = 42;
  unsigned short abortPort = 42;
  EXPECT_EQ(vxi11CreateLink(s, "inst0", &lid, &abortPort, &maxRecv), VI_ERROR_IO);
  EXPECT_EQ(lid, 42u);
  close(s);
}

}  // namespace
