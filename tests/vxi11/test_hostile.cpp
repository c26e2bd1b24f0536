// Replies no honest device sends, from a scripted loopback peer: each must end
// in a clear status, never in an overflow or a hang.
#include <atomic>

#include "common.h"

using namespace vx;

namespace {

// One connection on 127.0.0.5; every call record is answered with the same
// reply (accepted, success, then `words` and `dataBytes` of 'z' padded to a
// word), sent in pieces of `piece` bytes.
class ScriptedPeer {
 public:
  ScriptedPeer(std::vector<uint32_t> words, size_t dataBytes, size_t piece)
      : words_(std::move(words)), dataBytes_(dataBytes), piece_(piece) {
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
  std::atomic<int> calls{0};

 private:
  std::string reply(const std::string& xid) {
    std::vector<uint32_t> w = {0, 0, htonl(1), 0, 0, 0, 0};  // mark, xid, reply, accepted, no verifier, success
    for (uint32_t x : words_) w.push_back(htonl(x));
    std::string s((const char*)w.data(), 4 * w.size());
    s.replace(4, 4, xid);
    s.append((dataBytes_ + 3) & ~(size_t)3, 'z');
    uint32_t mark = htonl(0x80000000u | (uint32_t)(s.size() - 4));
    memcpy(&s[0], &mark, 4);
    return s;
  }
  void run() {
    if ((conn_ = accept(lsn_, nullptr, nullptr)) < 0) return;
    for (;;) {
      uint32_t len;
      if (recv(conn_, &len, 4, MSG_WAITALL) != 4) return;
      std::string body(ntohl(len) & 0x7FFFFFFFu, '\0');
      if (body.size() < 24 || recv(conn_, &body[0], body.size(), MSG_WAITALL) != (ssize_t)body.size()) return;
      calls++;
      std::string out = reply(body.substr(0, 4));
      for (size_t off = 0; off < out.size(); off += piece_) {
        send(conn_, out.data() + off, std::min(piece_, out.size() - off), MSG_NOSIGNAL);
        if (piece_ < out.size()) std::this_thread::sleep_for(std::chrono::milliseconds(1));
      }
    }
  }
  std::vector<uint32_t> words_;
  size_t dataBytes_, piece_;
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

// One read of `count` bytes, answered by one reply of `size` bytes.
TEST_F(Vxi11Hostile, ReadRepliesOfEveryShape) {
  const struct {
    int count, size, reason;
    size_t piece;
    int status, coreState;
  } rows[] = {
      {10, 110, 4, 4096, VI_ERROR_IO, -1},  // more than asked for: the rest is drained before the next call
      {10, 12, 4, 4096, VI_ERROR_IO, -1},   // more than asked for, all of it within one reply buffer
      {300, 400, 4, 4096, VI_ERROR_IO, -1},
      {7, 7, 4, 1, 2, 0},  // trickling in byte by byte
      {215, 215, 4, 1, 2, 0},
      {300, 300, 4, 1, 2, 0},
      {32, 0, 0, 4096, VI_ERROR_IO, 0},  // empty and no reason: an error, not a second call
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(std::to_string(row.count) + " asked, " + std::to_string(row.size) + " sent");
    ScriptedPeer peer({0, (uint32_t)row.reason, (uint32_t)row.size}, (size_t)row.size, row.piece);
    KvTcpInfo* r = attach(peer);
    std::vector<char> buf((size_t)row.size + 200, '#');
    int n = -1;
    EXPECT_EQ(kvtcp_Read(r, 1000, buf.data(), row.count, 0x0002, 0, &n), row.status);
    EXPECT_EQ(n, row.status == VI_ERROR_IO ? 0 : row.count);
    EXPECT_EQ(r->CoreState, row.coreState);
    EXPECT_EQ(std::string(buf.data(), (size_t)n), std::string((size_t)n, 'z'));
    EXPECT_EQ(std::count(buf.begin() + row.count, buf.end(), '#'), (long)buf.size() - row.count)
        << "nothing written past the count";
    EXPECT_EQ(peer.calls.load(), 1);
    kvtcp_Close(r);
  }
}

TEST_F(Vxi11Hostile, ShortCreateLinkReplyIsRefused) {
  ScriptedPeer peer({0}, 0, 4096);  // the error word only: lid, abort port and maxRecvSize are missing
  int s = peer.dial();
  ASSERT_GE(s, 0);
  unsigned int lid = 42, maxRecv = 42;
  unsigned short abortPort = 42;
  EXPECT_EQ(vxi11CreateLink(s, "inst0", &lid, &abortPort, &maxRecv), VI_ERROR_IO);
  EXPECT_EQ(lid, 42u);
  close(s);
}

}  // namespace
