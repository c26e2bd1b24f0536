// The transport's foundation: the connection record (mutex names, the
// non-blocking lock rules, disconnect and close, the loss-of-connection rule,
// socket options, name resolution, the logging hooks) and the socket
// primitives against real peers, with failures injected through the
// send/recv/delay seams.  Runs isolated: the mutex names are fixed.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <algorithm>
#include <regex>
#include <tuple>

#include "testkit.h"
#include "visa-ipc.h"

namespace {

using Log = kt::LogCapture;

int semValue(HANDLE h) {
  int v = -1;
  sem_getvalue(static_cast<sem_t*>(h), &v);
  return v;
}

// A socket pair standing in for a connection: the code under test gets a,
// the test keeps b to see what was sent and when a was closed.
struct Pair {
  int a = -1, b = -1;
  Pair() {
    int sv[2];
    if (socketpair(AF_UNIX, SOCK_STREAM, 0, sv) == 0) a = sv[0], b = sv[1];
  }
  ~Pair() {
    if (a >= 0) close(a);
    if (b >= 0) close(b);
  }
  int give() { return std::exchange(a, -1); }  // a now belongs to the record, which closes it
  void closeB() { close(std::exchange(b, -1)); }
  bool closedWithNothingSent() const {  // b reads end of file at once
    char c;
    return recv(b, &c, 1, MSG_DONTWAIT) == 0;
  }
};

// Seam scripting while an instance lives: each entry of sendErrors or
// recvErrors is an errno to fail the next call with (0: a real call);
// segments are scripted recv results.
struct Seams {
  int sendCalls = 0, recvCalls = 0, sleeps = 0;
  std::deque<int> sendErrors, recvErrors;
  std::deque<std::string> segments;
  int backing = -1;        // real socket that keeps poll ready
  size_t partialSend = 0;  // 0: send all, else at most this much
  static inline Seams* now;

  Seams() {
    now = this;
    kvtcp_sys_send = fakeSend;
    kvtcp_sys_recv = fakeRecv;
    kvtcp_sys_delay_ms = [](ViUInt64) { now->sleeps++; };
  }
  ~Seams() {
    kvtcp_sys_send = send;
    kvtcp_sys_recv = recv;
    kvtcp_sys_delay_ms = util_delay_ms;
  }
  static bool injected(std::deque<int>& q) {
    errno = q.empty() ? 0 : q.front();
    if (!q.empty()) q.pop_front();
    return errno != 0;
  }
  static ssize_t fakeSend(int s, const void* buf, size_t len, int flags) {
    now->sendCalls++;
    if (injected(now->sendErrors)) return -1;
    return send(s, buf, now->partialSend ? std::min(len, now->partialSend) : len, flags);
  }
  static ssize_t fakeRecv(int s, void* buf, size_t len, int flags) {
    now->recvCalls++;
    if (injected(now->recvErrors)) return -1;
    auto& segs = now->segments;
    if (segs.empty()) return recv(s, buf, len, flags);
    std::string seg = segs.front().substr(0, len);
    segs.pop_front();
    memcpy(buf, seg.data(), seg.size());
    char b;
    if (segs.empty() && now->backing >= 0) recv(now->backing, &b, 1, 0);  // done: let poll see silence
    return (ssize_t)seg.size();
  }
  void script(Pair& p, std::vector<std::string> segs) {
    segments.assign(segs.begin(), segs.end());
    backing = p.a;
    send(p.b, "!", 1, 0);
  }
};

std::string pattern(size_t n, int salt = 0) {
  std::string s(n, '\0');
  for (size_t i = 0; i < n; i++) s[i] = (char)('A' + (i * 7 + salt) % 26);
  return s;
}

}  // namespace


// An address longer than the field is cut to it (the form is pinned elsewhere).
TEST(MutexNames, BoundedByTheirField) {
  KvTcpInfo* r = kt::newRecord();
  open_mutex_intf(r, std::string(300, 'h').c_str());
  EXPECT_EQ(strlen(r->intfMutexName), sizeof r->intfMutexName - 1);
  EXPECT_NE(r->hIntfMutex, nullptr);
  kvtcp_Close(r);
  // The byte-order helpers swap unconditionally.
  EXPECT_EQ(myntohl(0x11223344u), 0x44332211u);
  EXPECT_EQ(myhtonl(0x11223344u), 0x44332211u);
  EXPECT_EQ(myhtons(0x1122), 0x2211);
}

// The locks never wait, as designed: they only check that the mutex is there.
// A close releases the mutexes that are open and no descriptor of a record
// that never connected.
TEST(RecordMutexes, LocksTakeNothingReleasesStayBinaryCloseFreesOnlyWhatIsOpen) {
  KvTcpInfo* r = kt::newRecord();
  Pair c;
  r->S_Core = c.a;  // a stray descriptor with Connected 0 is not touched
  // Without any mutex: the record lock passes, the waits report a lost link.
  EXPECT_EQ(kvtcp_Lock(r), VI_SUCCESS);
  kvtcp_UnLock(r);
  EXPECT_EQ(WaitIntfLock(r), VI_ERROR_CONN_LOST);
  EXPECT_EQ(WaitCoreLock(r), VI_ERROR_CONN_LOST);
  ReleaseCoreLock(r);  // null handle: nothing to post
  EXPECT_EQ(r->nCoreLocked, 0);
  kvtcp_Close(r);
  open_mutex_intf(r, "127.0.0.5");  // HiSLIP: the interface mutex only
  EXPECT_EQ(kvtcp_Lock(r), VI_SUCCESS);
  kvtcp_UnLock(r);
  EXPECT_EQ(semValue(r->hIntfMutex), 1);  // the interface release does nothing
  open_mutex_core(r, "127.0.0.5");  // VXI-11: the core mutex wins
  EXPECT_EQ(kvtcp_Lock(r), VI_SUCCESS);
  EXPECT_EQ(semValue(r->hCoreMutex), 1);  // no wait, nothing taken
  // The release posts what the wait never took (kept on purpose), but never
  // beyond 1: the semaphore stays a binary mutex.
  kvtcp_UnLock(r);
  EXPECT_EQ(semValue(r->hCoreMutex), 1);
  ASSERT_EQ(0, util_mutex_lock((MUTEX_TYPE)r->hCoreMutex, 0));
  kvtcp_UnLock(r);
  EXPECT_EQ(semValue(r->hCoreMutex), 1);
  EXPECT_EQ(semValue(r->hIntfMutex), 1);
  EXPECT_EQ(r->nCoreLocked, 0);  // never below 0
  r->nCoreLocked = 2;
  kvtcp_UnLock(r);
  EXPECT_EQ(r->nCoreLocked, 1);
  kvtcp_Close(r);
  EXPECT_EQ(r->hIntfMutex, nullptr);
  EXPECT_EQ(r->hCoreMutex, nullptr);
  EXPECT_NE(access("/dev/shm/sem._kv127_0_0_5Mutex_Intf", F_OK), 0);
  EXPECT_NE(access("/dev/shm/sem._kv127_0_0_5Mutex_Core", F_OK), 0);
  EXPECT_EQ(r->S_Core, c.a);
  EXPECT_GE(fcntl(c.a, F_GETFD), 0);
  kvtcp_Close(r);  // twice is harmless
  kvtcp_Disconnect(nullptr);
  kvtcp_Close(nullptr);
}

TEST(CoreFailure, OtherErrorsDoNotCountAsTimeOuts) {
  KvTcpInfo* r = kt::newRecord();
  Pair core, intr;
  r->tcpType = KVTCP_VXI11;
  r->Connected = 1;
  r->lid = KVTCP_NO_LINK;
  r->S_Core = core.give();
  r->S_Intr = intr.give();
  open_mutex_core(r, "127.0.0.12");
  open_mutex_intf(r, "127.0.0.12");
  // IO breaks a run of time-outs, and so does a success (LastError back to 0).
  EXPECT_EQ(kvtcp_RecordCoreFailure(r, VI_ERROR_TMO), VI_ERROR_TMO);
  EXPECT_EQ(kvtcp_RecordCoreFailure(r, VI_ERROR_IO), VI_ERROR_IO);
  EXPECT_EQ(kvtcp_RecordCoreFailure(r, VI_ERROR_TMO), VI_ERROR_TMO);
  r->LastError = 0;
  EXPECT_EQ(kvtcp_RecordCoreFailure(r, VI_ERROR_TMO), VI_ERROR_TMO);
  EXPECT_EQ(r->Connected, 1);
  // Disconnecting without a link sends nothing and makes no core call.
  kvtcp_Disconnect(r);
  EXPECT_TRUE(core.closedWithNothingSent());
  EXPECT_TRUE(intr.closedWithNothingSent());
  EXPECT_EQ(semValue(r->hCoreMutex), 1);
  kvtcp_Close(r);
}

TEST(SocketOptions, OnlyRawConnectionsAreTuned) {
  EXPECT_EQ(kvtcp_sock_setNoDelay(nullptr, 1), VI_ERROR_CONN_LOST);
  EXPECT_EQ(kvtcp_sock_setKeepAlive(nullptr, 1), VI_ERROR_CONN_LOST);
  KvTcpInfo* r = kt::newRecord();
  int s = socket(AF_INET, SOCK_STREAM, 0);
  const ViStatus LOST = VI_ERROR_CONN_LOST, OK = VI_SUCCESS;
  const int RAW = KVTCP_RAW;
  struct Case { int connected, core, kind, on; ViStatus status; int stored; };
  for (const Case& c : {Case{0, s, RAW, 1, LOST, 0}, Case{1, 0, RAW, 1, LOST, 0},  // not connected, no socket
                        Case{1, s, KVTCP_HISLIP, 1, OK, 0}, Case{1, s, KVTCP_VXI11, 1, OK, 0},
                        Case{1, s, RAW, 5, OK, 1} /* normalised */, Case{1, s, RAW, 0, OK, 0}}) {
    SCOPED_TRACE(testing::Message() << c.connected << c.core << c.kind << c.on);
    r->Connected = c.connected;
    r->S_Core = c.core;
    r->tcpType = c.kind;
    EXPECT_EQ(kvtcp_sock_setNoDelay(r, c.on), c.status);
    EXPECT_EQ(r->SocketNoDelay, c.stored);
    EXPECT_EQ(kvtcp_sock_setKeepAlive(r, c.on), c.status);
    EXPECT_EQ(r->SocketKeepAlive, c.stored);
  }
  close(s);
}

TEST(Resolve, DottedLocalUnknownAndOverlongNames) {
  char ip[64] = "untouched", host[128] = "untouched";
  kvtcp_toIpAddress("127.0.0.1", ip, host);
  EXPECT_STREQ(ip, "127.0.0.1");
  EXPECT_STREQ(host, "127.0.0.1");
  strcpy(ip, "x");
  kvtcp_toIpAddress("localhost", ip, host);
  EXPECT_STREQ(ip, "127.0.0.1");
  EXPECT_STRNE(host, "");
  // Isolated: there is no network, so these fail without traffic and leave
  // the outputs as they were (the long one without overrunning them).
  strcpy(ip, "keep-ip");
  strcpy(host, "keep-host");
  std::string longName(200, 'a');
  for (const char* name : {"no-such-host.invalid", longName.c_str(), (const char*)nullptr}) {
    kvtcp_toIpAddress(name, ip, host);
    EXPECT_STREQ(ip, "keep-ip");
    EXPECT_STREQ(host, "keep-host");
  }
}

TEST(Logging, TransportFormatsStartWithPathAndLine) {
  KvTcpInfo* r = kt::newRecord();
  strcpy(r->TcpipAddr, "127.0.0.13");
  {
    Log log;
    kvtcp_Disconnect(r);
  }
  ASSERT_EQ(Log::lines.size(), 1u);
  const Log::Line& l = Log::lines[0];
  EXPECT_EQ(std::tuple(l.hook, l.level1), std::tuple(1, 0x4000));
  // The source path (nothing before it) and line come first.
  const std::string path = R"([^(]*common/kvtcp/kvtcp\.cpp)";
  EXPECT_TRUE(std::regex_match(l.format, std::regex(path + R"(\(%d\) %s)"))) << l.format;
  EXPECT_TRUE(std::regex_match(l.text, std::regex(path + R"(\([1-9]\d*\) 127\.0\.0\.13)"))) << l.text;
  // Without a first hook nothing is called; the second has a default.
  ASSERT_EQ(pkvFSpyLog, nullptr);
  kvtcp_Disconnect(r);
  ASSERT_NE(pkvFRSpyLog, nullptr);
  pkvFRSpyLog(2, 0x4000, "%s: nRet = %d\n", "recvClear", 0);
}

// The primitives log through the second hook with their own name first; the
// flags are logged on a success only when asked for, and only once.
TEST(Logging, PrimitivesUseTheSecondHookWithTheFunctionName) {
  Log log;
  Pair p;
  char buf[8];
  int n = -1;
  auto withFormat = [](const char* f) {
    std::vector<Log::Line> found;
    std::copy_if(Log::lines.begin(), Log::lines.end(), std::back_inserter(found),
                 [&](auto& l) { return l.format.rfind(f, 0) == 0; });
    return found;
  };
  EXPECT_EQ(recvMin(p.a, 0, buf, sizeof buf, 1, &n), VI_ERROR_TMO);
  auto tmo = withFormat("%s: CheckForRecv error TMO");
  ASSERT_EQ(tmo.size(), 1u);
  EXPECT_EQ(std::tuple(tmo[0].hook, tmo[0].level1, tmo[0].level2), std::tuple(2, 2, 0x4000));
  EXPECT_EQ(tmo[0].text.rfind("recvMin: ", 0), 0u) << tmo[0].text;
  Log::lines.clear();
  send(p.b, "x", 1, 0);
  global_var = 1;
  EXPECT_EQ(CheckForRecv(p.a, 0), 1);
  EXPECT_EQ(global_var, 0);
  EXPECT_EQ(CheckForRecv(p.a, 0), 1);
  EXPECT_EQ(withFormat("%s: socket = %d r = %d nonblock").size(), 1u);
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

TEST(RecvMin, LengthsSegmentsAndTimeOuts) {
  Pair p;
  char buf[100];
  int n = -1;
  // With nothing to read and no time to wait, a wait would be a time-out.
  EXPECT_EQ(recvMin(p.a, 0, buf, 0, 0, &n), VI_SUCCESS);
  EXPECT_EQ(n, 0);
  EXPECT_EQ(recvMin(p.a, 30, buf, sizeof buf, 1, &n), VI_ERROR_TMO);
  EXPECT_EQ(n, 0);
  send(p.b, "abc", 3, 0);
  EXPECT_EQ(recvMin(p.a, 30, buf, sizeof buf, 5, &n), VI_ERROR_TMO);
  EXPECT_EQ(n, 3);  // what did arrive is counted
  // minlen is waited for across segments, each appended ...
  {
    Seams seams;
    seams.script(p, {"0123456789", "abcdefghij"});
    EXPECT_EQ(recvMin(p.a, 1000, buf, sizeof buf, 15, &n), VI_SUCCESS);
    EXPECT_EQ(std::string(buf, n), "0123456789abcdefghij");
  }
  // ... and the whole segment is taken beyond minlen ...
  std::string msg = pattern(40);
  send(p.b, msg.data(), 40, 0);
  EXPECT_EQ(recvMin(p.a, 1000, buf, sizeof buf, 28, &n), VI_SUCCESS);
  EXPECT_EQ(std::string(buf, n), msg);
  send(p.b, msg.data(), 28, 0);
  EXPECT_EQ(recvResp(p.a, 1000, buf, sizeof buf, &n), VI_SUCCESS);  // the 28-byte RPC reply minimum
  EXPECT_EQ(n, 28);
  // ... but never past len, even with minlen above it.
  send(p.b, msg.data(), 40, 0);
  memset(buf, 0, sizeof buf);
  EXPECT_EQ(recvMin(p.a, 1000, buf, 16, 40, &n), VI_SUCCESS);
  EXPECT_EQ(n, 16);
  EXPECT_EQ(buf[16], 0);
}

// ENOBUFS is retried twice on receive, three times on send, each after a pause
// and counted afresh after progress; other errors lose the connection at once.
TEST(NoBufs, RecvRetriedTwiceSendThreeTimes) {
  const int E = ENOBUFS;
  struct Case { bool send; std::deque<int> errors; size_t partial; ViStatus status; int sleeps, calls; };
  for (const Case& c : {Case{false, {E, E}, 0, VI_SUCCESS, 2, 3}, Case{false, {E, E, E}, 0, VI_ERROR_CONN_LOST, 2, 3},
                        Case{false, {ECONNRESET}, 0, VI_ERROR_CONN_LOST, 0, 1},
                        Case{true, {E, E, E}, 0, VI_SUCCESS, 3, 4}, Case{true, {E, E, E, E}, 0, VI_ERROR_CONN_LOST, 3, 4},
                        Case{true, {E, E, E, 0, E, E, E}, 2, VI_SUCCESS, 6, 9},  // 2 + 2 + 1 bytes
                        Case{true, {EPIPE}, 0, VI_ERROR_CONN_LOST, 0, 1}}) {
    SCOPED_TRACE(testing::Message() << (c.send ? "send" : "recv") << " " << c.errors.size());
    Seams seams;
    Pair p;
    char buf[8];
    int n = 0;
    (c.send ? seams.sendErrors : seams.recvErrors) = c.errors;
    seams.partialSend = c.partial;
    if (!c.send) send(p.b, "hello", 5, 0);
    EXPECT_EQ(c.send ? sendAll(p.a, "hello", 5, &n) : recvMin(p.a, 1000, buf, sizeof buf, 5, &n), c.status);
    EXPECT_EQ(seams.sleeps, c.sleeps);
    EXPECT_EQ(c.send ? seams.sendCalls : seams.recvCalls, c.calls);
    if (c.status == VI_SUCCESS) {
      EXPECT_EQ(n, 5);
      if (c.send) {
        EXPECT_EQ(recv(p.b, buf, sizeof buf, 0), 5);
        EXPECT_EQ(std::string(buf, 5), "hello");  // the parts in order
      }
    }
  }
}

// SendHdrData sends maxlen bytes of header and data joined (never more than
// there are); a vanished peer is a lost connection, never a SIGPIPE.
TEST(Send, HeaderAndDataJoinedClosedPeerLostWithoutSignal) {
  Pair p;
  char buf[32];
  for (auto [maxlen, want] : {std::pair{7, "HDR:abc"}, {10, "HDR:abcdef"}, {1000, "HDR:abcdef"}}) {
    EXPECT_EQ(SendHdrData(p.a, "HDR:", 4, "abcdef", 6, maxlen), VI_SUCCESS);
    ssize_t r = recv(p.b, buf, sizeof buf, 0);
    EXPECT_EQ(std::string(buf, r > 0 ? r : 0), want);
  }
  int n = -1;
  EXPECT_EQ(sendAll(p.a, "", 0, &n), VI_SUCCESS);
  EXPECT_EQ(n, 0);
  p.closeB();
  EXPECT_EQ(sendAll(p.a, "abc", 3, &n), VI_ERROR_CONN_LOST);
  EXPECT_EQ(n, 0);
  EXPECT_EQ(sendAll(p.a, "", 0, &n), VI_ERROR_CONN_LOST);  // even an empty send fails there
  EXPECT_EQ(SendHdrData(p.a, "HDR:", 4, "abcdef", 6, 10), VI_ERROR_CONN_LOST);
}

// The last minlen bytes of the final segment, out of a tail of at most 128.
TEST(RecvExact, TailComesFromTheLastSegmentOnly) {
  struct Case { std::vector<std::string> segs; int want; ViStatus status; };
  const std::string a40 = pattern(40), a300 = pattern(300), a100 = pattern(100, 1), b4 = pattern(4, 2),
                    b100 = pattern(100, 2), c1460 = pattern(1460, 5);
  for (const Case& c : {Case{{a40}, 8, VI_SUCCESS}, Case{{a300}, 200, VI_ERROR_IO} /* beyond the tail */,
                        Case{{a300}, 128, VI_SUCCESS}, Case{{"abc"}, 4, VI_ERROR_IO},
                        Case{{a100, b4}, 8, VI_ERROR_IO},  // 104 bytes, but the last segment holds 4
                        Case{{b4, b100}, 8, VI_SUCCESS}, Case{{c1460}, 128, VI_SUCCESS}}) {
    SCOPED_TRACE(testing::Message() << c.segs.size() << " segments, " << c.want);
    Seams seams;
    Pair p;
    seams.script(p, c.segs);
    char buf[128];
    int n = 0;
    EXPECT_EQ(recvExact(p.a, 1000, buf, c.want, &n), c.status);
    EXPECT_TRUE(seams.segments.empty());  // everything drained
    const std::string& last = c.segs.back();
    if (c.status == VI_SUCCESS) {
      EXPECT_EQ(std::string(buf, n), last.substr(last.size() - c.want));
    }
  }
  Pair p;
  char buf[8];
  int n = 0;
  EXPECT_EQ(recvExact(p.a, 20, buf, 4, &n), VI_ERROR_TMO);
  send(p.b, "abc", 3, 0);
  {
    Seams seams;
    seams.recvErrors = {ECONNRESET};
    EXPECT_EQ(recvExact(p.a, 1000, buf, 2, &n), VI_ERROR_CONN_LOST);
  }
  // A closed peer: the tail of what came, then only end of file (no spin).
  send(p.b, "0123456789", 10, 0);
  p.closeB();
  EXPECT_EQ(recvExact(p.a, 1000, buf, 4, &n), VI_SUCCESS);
  EXPECT_EQ(std::string(buf, 4), "6789");
  EXPECT_EQ(recvExact(p.a, 1000, buf, 4, &n), VI_ERROR_IO);
}

TEST(RecvClear, DrainsEverythingPending) {
  Pair p;
  std::string junk = pattern(5000);
  send(p.b, junk.data(), junk.size(), 0);
  recvClear(p.a);
  EXPECT_EQ(CheckForRecv(p.a, 0), 0);
  recvClear(p.a);  // nothing pending: returns at once
  send(p.b, "z", 1, 0);
  p.closeB();
  recvClear(p.a);  // ends on end of file rather than spinning
}

TEST(ConnectTmo, SilentPeerTimesOut) {
  // A listener whose accept queue is full drops further SYNs, so a new
  // connect is neither accepted nor refused.
  int lfd = kt::listenOn("127.0.0.1", 4999);
  sockaddr_in to = kt::addr("127.0.0.1", 4999);
  std::vector<int> fillers;
  bool full = false;
  for (int i = 0; i < 16 && !full; i++) {
    int c = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0);
    connect(c, (sockaddr*)&to, sizeof to);
    fillers.push_back(c);
    pollfd pf{c, POLLOUT, 0};
    full = poll(&pf, 1, 300) == 0;
  }
  if (!full) GTEST_SKIP() << "the accept queue never filled";
  Log log;
  int s = socket(AF_INET, SOCK_STREAM, 0);
  EXPECT_EQ(ConnectTmo(s, &to), VI_ERROR_RSRC_NFOUND);
  EXPECT_TRUE(fcntl(s, F_GETFL) & O_NONBLOCK);  // left non-blocking
  EXPECT_TRUE(log.has("Error Connecting"));
  close(s);
  for (int c : fillers) close(c);
  close(lfd);
}
