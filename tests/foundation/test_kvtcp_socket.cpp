// Socket primitives against real loopback peers, with failures injected
// through the send/recv/delay seams.
#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <deque>
#include <numeric>
#include <string>
#include <thread>
#include <vector>

#include "kvtcp_internal.h"
#include "log_capture.h"
#include "visa-ipc.h"

namespace {

struct Pair {
  int a = -1, b = -1;
  Pair() {
    int sv[2];
    if (socketpair(AF_UNIX, SOCK_STREAM, 0, sv) == 0) {
      a = sv[0];
      b = sv[1];
    }
  }
  ~Pair() {
    if (a >= 0) close(a);
    if (b >= 0) close(b);
  }
  void closeB() {
    close(b);
    b = -1;
  }
};

std::string readAll(int fd) {
  std::string out;
  char buf[4096];
  for (;;) {
    ssize_t r = recv(fd, buf, sizeof buf, 0);
    if (r <= 0) return out;
    out.append(buf, (size_t)r);
  }
}

// A loopback TCP listener on an ephemeral port.
struct Listener {
  int fd = -1;
  sockaddr_in addr{};
  explicit Listener(int backlog = 8) {
    fd = socket(AF_INET, SOCK_STREAM, 0);
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    addr.sin_port = 0;
    bind(fd, (sockaddr*)&addr, sizeof addr);
    socklen_t len = sizeof addr;
    getsockname(fd, (sockaddr*)&addr, &len);
    listen(fd, backlog);
  }
  ~Listener() {
    if (fd >= 0) close(fd);
  }
};

// Seam scripting: restores the real calls when it goes out of scope.
struct Seams {
  static inline int sendCalls, recvCalls, sleeps;
  static inline std::deque<int> sendErrors;  // errno to fail with, or 0 for a real call
  static inline std::deque<int> recvErrors;
  static inline std::deque<std::string> segments;  // scripted recv results
  static inline int backing = -1;                   // real socket that keeps poll ready
  static inline size_t partialSend;                 // 0: send all, else at most this much

  Seams() {
    sendCalls = recvCalls = sleeps = 0;
    sendErrors.clear();
    recvErrors.clear();
    segments.clear();
    backing = -1;
    partialSend = 0;
    kvtcp_sys_send = fakeSend;
    kvtcp_sys_recv = fakeRecv;
    kvtcp_sys_delay_ms = fakeDelay;
  }
  ~Seams() {
    kvtcp_sys_send = send;
    kvtcp_sys_recv = recv;
    kvtcp_sys_delay_ms = util_delay_ms;
  }
  static ssize_t fakeSend(int s, const void* buf, size_t len, int flags) {
    sendCalls++;
    if (!sendErrors.empty()) {
      int e = sendErrors.front();
      sendErrors.pop_front();
      if (e) {
        errno = e;
        return -1;
      }
    }
    if (partialSend && len > partialSend) len = partialSend;
    return send(s, buf, len, flags);
  }
  static ssize_t fakeRecv(int s, void* buf, size_t len, int flags) {
    recvCalls++;
    if (!recvErrors.empty()) {
      int e = recvErrors.front();
      recvErrors.pop_front();
      if (e) {
        errno = e;
        return -1;
      }
    }
    if (!segments.empty()) {
      std::string seg = segments.front();
      segments.pop_front();
      if (seg.size() > len) seg.resize(len);
      memcpy(buf, seg.data(), seg.size());
      if (segments.empty() && backing >= 0) {
        char b;
        recv(backing, &b, 1, 0);  // the script is done: let poll see silence
      }
      return (ssize_t)seg.size();
    }
    return recv(s, buf, len, flags);
  }
  static void fakeDelay(ViUInt64) { sleeps++; }

  // Scripts recv on p.a to return these segments in turn.
  void script(Pair& p, std::vector<std::string> segs) {
    for (auto& s : segs) segments.push_back(s);
    backing = p.a;
    send(p.b, "!", 1, 0);
  }
};

std::string pattern(size_t n, int seed = 0) {
  std::string s(n, '\0');
  for (size_t i = 0; i < n; i++) s[i] = (char)('A' + (i * 7 + seed) % 26);
  return s;
}

}  // namespace

// ------------------------------------------------------------ CheckForRecv

TEST(CheckForRecv, PollsAndWaits) {
  Pair p;
  EXPECT_EQ(CheckForRecv(p.a, 0), 0);
  EXPECT_EQ(CheckForRecv(p.a, 20), 0);
  ASSERT_EQ(send(p.b, "x", 1, 0), 1);
  EXPECT_EQ(CheckForRecv(p.a, 0), 1);
  EXPECT_EQ(CheckForRecv(p.a, 2500), 1);
  char c;
  ASSERT_EQ(recv(p.a, &c, 1, 0), 1);
  p.closeB();
  EXPECT_EQ(CheckForRecv(p.a, 0), 1);  // end of file is ready too
  EXPECT_EQ(CheckForRecv(-1, 0), 0);
}

TEST(CheckForRecv, WakesWhenDataArrivesDuringTheWait) {
  Pair p;
  std::thread t([&] {
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    send(p.b, "late", 4, 0);
  });
  EXPECT_EQ(CheckForRecv(p.a, 30000), 1);
  t.join();
}

TEST(CheckForRecv, DescriptorAbove1023) {
  struct rlimit rl;
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &rl), 0);
  if (rl.rlim_cur <= 1500) {
    if (rl.rlim_max != RLIM_INFINITY && rl.rlim_max <= 1500) GTEST_SKIP() << "descriptor limit too low";
    rl.rlim_cur = 2048;
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &rl), 0);
  }
  Pair p;
  ASSERT_EQ(dup2(p.a, 1500), 1500);
  EXPECT_EQ(CheckForRecv(1500, 0), 0);
  ASSERT_EQ(send(p.b, "hi", 2, 0), 2);
  EXPECT_EQ(CheckForRecv(1500, 1000), 1);
  char buf[4];
  int n = 0;
  EXPECT_EQ(recvMin(1500, 1000, buf, sizeof buf, 2, &n), VI_SUCCESS);
  EXPECT_EQ(n, 2);
  close(1500);
}

TEST(CheckForRecv, FlagsAreLoggedOnceOnSuccess) {
  LogCapture log;
  Pair p;
  send(p.b, "x", 1, 0);
  global_var = 1;
  EXPECT_EQ(CheckForRecv(p.a, 0), 1);
  EXPECT_EQ(global_var, 0);
  EXPECT_EQ(CheckForRecv(p.a, 0), 1);
  int n = 0;
  for (auto& l : log.lines())
    if (l.format.rfind("%s: socket = %d r = %d nonblock", 0) == 0) n++;
  EXPECT_EQ(n, 1);
}

// ----------------------------------------------------------------- recvMin

TEST(RecvMin, ZeroLengthReturnsAtOnce) {
  Pair p;
  char buf[1];
  int n = -1;
  // With nothing to read and no time to wait, a wait would be a time-out.
  EXPECT_EQ(recvMin(p.a, 0, buf, 0, 0, &n), VI_SUCCESS);
  EXPECT_EQ(n, 0);
}

TEST(RecvMin, TakesTheWholeSegmentBeyondMinlen) {
  Pair p;
  std::string msg = pattern(40);
  ASSERT_EQ(send(p.b, msg.data(), 40, 0), 40);
  char buf[100];
  int n = 0;
  EXPECT_EQ(recvMin(p.a, 1000, buf, sizeof buf, 28, &n), VI_SUCCESS);
  EXPECT_EQ(n, 40);
  EXPECT_EQ(std::string(buf, 40), msg);
}

TEST(RecvMin, WaitsForMinlenAcrossSegmentsButNotForTheBuffer) {
  Pair p;
  std::thread t([&] {
    send(p.b, "0123456789", 10, 0);
    std::this_thread::sleep_for(std::chrono::milliseconds(30));
    send(p.b, "abcdefghij", 10, 0);
  });
  char buf[100];
  int n = 0;
  EXPECT_EQ(recvMin(p.a, 5000, buf, sizeof buf, 15, &n), VI_SUCCESS);
  t.join();
  EXPECT_EQ(n, 20);
  EXPECT_EQ(std::string(buf, 20), "0123456789abcdefghij");
  // recvResp: the 28-byte minimum of the RPC replies.
  std::string reply = pattern(28);
  send(p.b, reply.data(), 28, 0);
  n = -1;
  EXPECT_EQ(recvResp(p.a, 1000, buf, sizeof buf, &n), VI_SUCCESS);
  EXPECT_EQ(n, 28);
}

TEST(RecvMin, NeverWritesPastLen) {
  Pair p;
  std::string msg = pattern(64);
  send(p.b, msg.data(), 64, 0);
  char buf[32];
  memset(buf, 0, sizeof buf);
  int n = 0;
  EXPECT_EQ(recvMin(p.a, 1000, buf, 16, 40, &n), VI_SUCCESS);  // minlen above len
  EXPECT_EQ(n, 16);
  EXPECT_EQ(buf[16], 0);
}

TEST(RecvMin, TimeOutPerWait) {
  Pair p;
  char buf[8];
  int n = -1;
  EXPECT_EQ(recvMin(p.a, 30, buf, sizeof buf, 1, &n), VI_ERROR_TMO);
  EXPECT_EQ(n, 0);
  send(p.b, "abc", 3, 0);
  EXPECT_EQ(recvMin(p.a, 30, buf, sizeof buf, 5, &n), VI_ERROR_TMO);
  EXPECT_EQ(n, 3);  // what did arrive is counted
}

TEST(RecvMin, ClosedPeerEndsWithConnectionLost) {
  Pair p;
  send(p.b, "abcde", 5, 0);
  p.closeB();
  char buf[16];
  int n = -1;
  EXPECT_EQ(recvMin(p.a, 50, buf, sizeof buf, 10, &n), VI_ERROR_CONN_LOST);
  EXPECT_EQ(n, 5);
  // Already closed before the call, with a zero time-out too.
  EXPECT_EQ(recvMin(p.a, 0, buf, sizeof buf, 1, &n), VI_ERROR_CONN_LOST);
  EXPECT_EQ(n, 0);
}

TEST(RecvMin, ClosedTcpPeer) {
  Listener l;
  int c = socket(AF_INET, SOCK_STREAM, 0);
  ASSERT_EQ(connect(c, (sockaddr*)&l.addr, sizeof l.addr), 0);
  int s = accept(l.fd, nullptr, nullptr);
  ASSERT_GE(s, 0);
  send(s, "xy", 2, 0);
  close(s);
  char buf[16];
  int n = -1;
  EXPECT_EQ(recvMin(c, 100, buf, sizeof buf, 4, &n), VI_ERROR_CONN_LOST);
  EXPECT_EQ(n, 2);
  close(c);
}

TEST(RecvMin, NoBufsRetriedTwice) {
  {
    Seams seams;
    Pair p;
    send(p.b, "data", 4, 0);
    seams.recvErrors = {ENOBUFS, ENOBUFS};
    char buf[8];
    int n = 0;
    EXPECT_EQ(recvMin(p.a, 1000, buf, sizeof buf, 4, &n), VI_SUCCESS);
    EXPECT_EQ(n, 4);
    EXPECT_EQ(Seams::sleeps, 2);
    EXPECT_EQ(Seams::recvCalls, 3);
  }
  {
    Seams seams;
    Pair p;
    send(p.b, "data", 4, 0);
    seams.recvErrors = {ENOBUFS, ENOBUFS, ENOBUFS};
    char buf[8];
    int n = 0;
    EXPECT_EQ(recvMin(p.a, 1000, buf, sizeof buf, 4, &n), VI_ERROR_CONN_LOST);
    EXPECT_EQ(Seams::sleeps, 2);
    EXPECT_EQ(Seams::recvCalls, 3);
  }
  {
    Seams seams;
    Pair p;
    send(p.b, "data", 4, 0);
    seams.recvErrors = {ECONNRESET};
    char buf[8];
    int n = 0;
    EXPECT_EQ(recvMin(p.a, 1000, buf, sizeof buf, 4, &n), VI_ERROR_CONN_LOST);
    EXPECT_EQ(Seams::sleeps, 0);
  }
}

// ------------------------------------------------------------------ sendAll

TEST(SendAll, LargeBufferArrivesWhole) {
  Pair p;
  std::string msg = pattern(1 << 20, 3);
  std::string got;
  std::thread reader([&] { got = readAll(p.b); });
  int n = 0;
  EXPECT_EQ(sendAll(p.a, msg.data(), (int)msg.size(), &n), VI_SUCCESS);
  EXPECT_EQ(n, (int)msg.size());
  shutdown(p.a, SHUT_WR);
  reader.join();
  EXPECT_EQ(got, msg);
}

TEST(SendAll, ClosedPeerIsConnectionLostWithoutSignal) {
  Pair p;
  p.closeB();
  int n = -1;
  EXPECT_EQ(sendAll(p.a, "abc", 3, &n), VI_ERROR_CONN_LOST);
  EXPECT_EQ(n, 0);
  EXPECT_EQ(sendAll(p.a, "", 0, &n), VI_ERROR_CONN_LOST);  // even an empty send fails there
  Pair live;
  EXPECT_EQ(sendAll(live.a, "", 0, &n), VI_SUCCESS);
  EXPECT_EQ(n, 0);
}

TEST(SendAll, NoBufsRetriedThreeTimes) {
  {
    Seams seams;
    Pair p;
    seams.sendErrors = {ENOBUFS, ENOBUFS, ENOBUFS};
    int n = 0;
    EXPECT_EQ(sendAll(p.a, "hello", 5, &n), VI_SUCCESS);
    EXPECT_EQ(n, 5);
    EXPECT_EQ(Seams::sleeps, 3);
    EXPECT_EQ(Seams::sendCalls, 4);
  }
  {
    Seams seams;
    Pair p;
    seams.sendErrors = {ENOBUFS, ENOBUFS, ENOBUFS, ENOBUFS};
    int n = 0;
    EXPECT_EQ(sendAll(p.a, "hello", 5, &n), VI_ERROR_CONN_LOST);
    EXPECT_EQ(Seams::sleeps, 3);
    EXPECT_EQ(Seams::sendCalls, 4);
  }
  {
    // A partial send in between starts the count afresh.
    Seams seams;
    Pair p;
    Seams::partialSend = 2;
    seams.sendErrors = {ENOBUFS, ENOBUFS, ENOBUFS, 0, ENOBUFS, ENOBUFS, ENOBUFS};
    int n = 0;
    EXPECT_EQ(sendAll(p.a, "hello", 5, &n), VI_SUCCESS);
    EXPECT_EQ(n, 5);
    EXPECT_EQ(Seams::sleeps, 6);
    char buf[8];
    EXPECT_EQ(recv(p.b, buf, sizeof buf, 0), 5);
  }
  {
    Seams seams;
    Pair p;
    seams.sendErrors = {EPIPE};
    int n = 0;
    EXPECT_EQ(sendAll(p.a, "hello", 5, &n), VI_ERROR_CONN_LOST);
    EXPECT_EQ(Seams::sleeps, 0);
  }
}

// --------------------------------------------------------------- recvExact

TEST(RecvExact, LastBytesOfOneReply) {
  Pair p;
  std::string msg = pattern(40);
  send(p.b, msg.data(), 40, 0);
  char buf[16];
  int n = 0;
  EXPECT_EQ(recvExact(p.a, 1000, buf, 8, &n), VI_SUCCESS);
  EXPECT_EQ(n, 8);
  EXPECT_EQ(std::string(buf, 8), msg.substr(32));
  EXPECT_EQ(CheckForRecv(p.a, 0), 0);  // drained
}

TEST(RecvExact, MinimumLengths) {
  Pair p;
  std::string msg = pattern(300);
  send(p.b, msg.data(), 300, 0);
  char buf[256];
  int n = 0;
  EXPECT_EQ(recvExact(p.a, 1000, buf, 200, &n), VI_ERROR_IO);  // beyond the tail
  send(p.b, msg.data(), 300, 0);
  EXPECT_EQ(recvExact(p.a, 1000, buf, 128, &n), VI_SUCCESS);
  EXPECT_EQ(n, 128);
  EXPECT_EQ(std::string(buf, 128), msg.substr(172));
  send(p.b, "abc", 3, 0);
  EXPECT_EQ(recvExact(p.a, 1000, buf, 4, &n), VI_ERROR_IO);
  EXPECT_EQ(recvExact(p.a, 20, buf, 4, &n), VI_ERROR_TMO);
}

TEST(RecvExact, TailComesFromTheLastSegmentOnly) {
  {
    Seams seams;
    Pair p;
    std::string a = pattern(100, 1), b = pattern(4, 2);
    seams.script(p, {a, b});
    char buf[16];
    int n = 0;
    // 104 bytes in all, but the last segment holds only 4.
    EXPECT_EQ(recvExact(p.a, 1000, buf, 8, &n), VI_ERROR_IO);
  }
  {
    Seams seams;
    Pair p;
    std::string a = pattern(4, 1), b = pattern(100, 2);
    seams.script(p, {a, b});
    char buf[16];
    int n = 0;
    EXPECT_EQ(recvExact(p.a, 1000, buf, 8, &n), VI_SUCCESS);
    EXPECT_EQ(n, 8);
    EXPECT_EQ(std::string(buf, 8), b.substr(92));
  }
  {
    Seams seams;
    Pair p;
    std::string a = pattern(1460, 5);
    seams.script(p, {a});
    char buf[128];
    int n = 0;
    EXPECT_EQ(recvExact(p.a, 1000, buf, 128, &n), VI_SUCCESS);
    EXPECT_EQ(std::string(buf, 128), a.substr(1460 - 128));
  }
}

TEST(RecvExact, ClosedPeerDoesNotSpin) {
  Pair p;
  send(p.b, "0123456789", 10, 0);
  p.closeB();
  char buf[8];
  int n = 0;
  EXPECT_EQ(recvExact(p.a, 1000, buf, 4, &n), VI_SUCCESS);
  EXPECT_EQ(std::string(buf, 4), "6789");
  EXPECT_EQ(recvExact(p.a, 1000, buf, 4, &n), VI_ERROR_IO);  // only end of file left
}

TEST(RecvExact, RecvErrorIsConnectionLost) {
  Seams seams;
  Pair p;
  send(p.b, "abc", 3, 0);
  seams.recvErrors = {ECONNRESET};
  char buf[8];
  int n = 0;
  EXPECT_EQ(recvExact(p.a, 1000, buf, 2, &n), VI_ERROR_CONN_LOST);
}

// --------------------------------------------------------------- recvClear

TEST(RecvClear, DrainsEverythingPending) {
  Pair p;
  std::string junk = pattern(5000);
  std::thread t([&] { send(p.b, junk.data(), junk.size(), 0); });
  t.join();
  recvClear(p.a);
  EXPECT_EQ(CheckForRecv(p.a, 0), 0);
  recvClear(p.a);  // nothing pending: returns at once
  send(p.b, "z", 1, 0);
  p.closeB();
  recvClear(p.a);  // ends on end of file rather than spinning
}

// ------------------------------------------------------------- SendHdrData

TEST(SendHdrData, SendsMaxlenBytesOfHeaderAndData) {
  Pair p;
  const char hdr[4] = {'H', 'D', 'R', ':'};
  const char data[6] = {'a', 'b', 'c', 'd', 'e', 'f'};
  EXPECT_EQ(SendHdrData(p.a, hdr, 4, data, 6, 7), VI_SUCCESS);
  char buf[32];
  EXPECT_EQ(recv(p.b, buf, sizeof buf, 0), 7);
  EXPECT_EQ(std::string(buf, 7), "HDR:abc");
  EXPECT_EQ(SendHdrData(p.a, hdr, 4, data, 6, 10), VI_SUCCESS);
  EXPECT_EQ(recv(p.b, buf, sizeof buf, 0), 10);
  EXPECT_EQ(std::string(buf, 10), "HDR:abcdef");
  // A count beyond the joined buffer sends only what is there.
  EXPECT_EQ(SendHdrData(p.a, hdr, 4, data, 6, 1000), VI_SUCCESS);
  EXPECT_EQ(recv(p.b, buf, sizeof buf, 0), 10);
  p.closeB();
  EXPECT_EQ(SendHdrData(p.a, hdr, 4, data, 6, 10), VI_ERROR_CONN_LOST);
}

// -------------------------------------------------------------- ConnectTmo

TEST(ConnectTmo, ConnectsAndRestoresBlocking) {
  Listener l;
  int s = socket(AF_INET, SOCK_STREAM, 0);
  EXPECT_EQ(ConnectTmo(s, &l.addr), VI_SUCCESS);
  EXPECT_EQ(fcntl(s, F_GETFL) & O_NONBLOCK, 0);
  int a = accept(l.fd, nullptr, nullptr);
  EXPECT_GE(a, 0);
  close(a);
  close(s);
}

TEST(ConnectTmo, ClosedPortFails) {
  sockaddr_in addr{};
  {
    Listener l;  // take a free port, then give it up
    addr = l.addr;
  }
  int s = socket(AF_INET, SOCK_STREAM, 0);
  EXPECT_EQ(ConnectTmo(s, &addr), VI_ERROR_RSRC_NFOUND);
  close(s);
}

TEST(ConnectTmo, SilentPeerTimesOut) {
  // A listener whose accept queue is full drops further SYNs, so a new
  // connect is neither accepted nor refused.
  Listener l(0);
  std::vector<int> fillers;
  bool full = false;
  for (int i = 0; i < 16 && !full; i++) {
    int c = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0);
    connect(c, (sockaddr*)&l.addr, sizeof l.addr);
    fillers.push_back(c);
    pollfd pf{c, POLLOUT, 0};
    if (poll(&pf, 1, 300) == 0) full = true;
  }
  if (!full) GTEST_SKIP() << "the accept queue never filled";
  LogCapture log;
  int s = socket(AF_INET, SOCK_STREAM, 0);
  auto t0 = std::chrono::steady_clock::now();
  EXPECT_EQ(ConnectTmo(s, &l.addr), VI_ERROR_RSRC_NFOUND);
  EXPECT_LT(std::chrono::steady_clock::now() - t0, std::chrono::seconds(30));  // generous bound
  EXPECT_TRUE(fcntl(s, F_GETFL) & O_NONBLOCK);  // left non-blocking
  EXPECT_TRUE(log.anyContains("Error Connecting"));
  close(s);
  for (int c : fillers) close(c);
}
