// The connection record: mutex names, the (non-blocking) lock rules,
// disconnect and close, the loss-of-connection rule, socket options, name
// resolution and the logging hooks.  Runs isolated: the mutex names are fixed.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <semaphore.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <memory>
#include <string>

#include "kvtcp_internal.h"
#include "log_capture.h"
#include "visa-ipc.h"

namespace {

bool semExists(const std::string& name) { return access(("/dev/shm/sem." + name).c_str(), F_OK) == 0; }

int semValue(HANDLE h) {
  int v = -1;
  sem_getvalue(static_cast<sem_t*>(h), &v);
  return v;
}

std::unique_ptr<KvTcpInfo> zeroed() {
  auto r = std::make_unique<KvTcpInfo>();
  memset(static_cast<void*>(r.get()), 0, sizeof(KvTcpInfo));
  return r;
}

// A socket pair standing in for a channel: the record gets one end, the test
// keeps the other to see what the record sends and when it is closed.
struct Channel {
  int mine = -1, peer = -1;
  Channel() {
    int sv[2];
    if (socketpair(AF_UNIX, SOCK_STREAM, 0, sv) == 0) {
      mine = sv[0];
      peer = sv[1];
    }
  }
  ~Channel() {
    if (peer >= 0) close(peer);
  }
  // True when the record's end has been closed (the peer reads end of file).
  bool closedByRecord() const {
    char b[64];
    for (;;) {
      ssize_t r = recv(peer, b, sizeof b, MSG_DONTWAIT);
      if (r == 0) return true;
      if (r < 0) return false;
    }
  }
  bool received() const {
    char b;
    return recv(peer, &b, 1, MSG_DONTWAIT | MSG_PEEK) == 1;
  }
};

}  // namespace

TEST(ByteOrder, UnconditionalSwaps) {
  EXPECT_EQ(myntohl(0x11223344u), 0x44332211u);
  EXPECT_EQ(myhtonl(0x11223344u), 0x44332211u);
  EXPECT_EQ(myhtons(0x1122), 0x2211);
  EXPECT_EQ(myntohl(myhtonl(0xCAFEF00Du)), 0xCAFEF00Du);
}

// ------------------------------------------------------------ mutex names

TEST(MutexNames, FromHostNameAndAddress) {
  auto r = zeroed();
  open_mutex_core(r.get(), "my-host.lab");
  EXPECT_STREQ(r->coreMutexName, "_kvmy_host_labMutex_Core");
  ASSERT_NE(r->hCoreMutex, nullptr);
  EXPECT_TRUE(semExists("_kvmy_host_labMutex_Core"));
  EXPECT_EQ(semValue(r->hCoreMutex), 1);
  EXPECT_EQ(r->hIntfMutex, nullptr);

  open_mutex_intf(r.get(), "10.1.2.3");
  EXPECT_STREQ(r->intfMutexName, "_kv10_1_2_3Mutex_Intf");
  ASSERT_NE(r->hIntfMutex, nullptr);
  EXPECT_TRUE(semExists("_kv10_1_2_3Mutex_Intf"));

  kvtcp_Close(r.get());
  EXPECT_EQ(r->hCoreMutex, nullptr);
  EXPECT_EQ(r->hIntfMutex, nullptr);
  EXPECT_FALSE(semExists("_kvmy_host_labMutex_Core"));
  EXPECT_FALSE(semExists("_kv10_1_2_3Mutex_Intf"));
}

TEST(MutexNames, SameAddressSharesTheSemaphore) {
  auto a = zeroed(), b = zeroed();
  open_mutex_core(a.get(), "127.0.0.9");
  open_mutex_core(b.get(), "127.0.0.9");
  EXPECT_STREQ(a->coreMutexName, b->coreMutexName);
  ReleaseCoreLock(a.get());  // posts: visible through the other record
  EXPECT_EQ(semValue(b->hCoreMutex), 2);
  kvtcp_Close(a.get());
  kvtcp_Close(b.get());
}

TEST(MutexNames, LongAddressIsTruncatedToTheField) {
  auto r = zeroed();
  std::string longAddr(300, 'h');
  open_mutex_intf(r.get(), longAddr.c_str());
  EXPECT_EQ(strlen(r->intfMutexName), sizeof r->intfMutexName - 1);
  EXPECT_NE(r->hIntfMutex, nullptr);
  kvtcp_Close(r.get());
}

// ------------------------------------------------------------ lock rules

TEST(LockRules, ZeroedRecord) {
  auto r = zeroed();
  EXPECT_EQ(kvtcp_Lock(r.get()), VI_SUCCESS);
  kvtcp_UnLock(r.get());
  EXPECT_EQ(WaitCoreLock(r.get()), VI_ERROR_CONN_LOST);
  EXPECT_EQ(WaitIntfLock(r.get()), VI_ERROR_CONN_LOST);
  ReleaseCoreLock(r.get());  // null handle: nothing to post
  EXPECT_EQ(r->nCoreLocked, 0);
}

TEST(LockRules, Vxi11RecordUsesTheCoreMutexWithoutTakingIt) {
  auto r = zeroed();
  r->tcpType = KVTCP_VXI11;
  open_mutex_core(r.get(), "127.0.0.5");
  open_mutex_intf(r.get(), "127.0.0.5");
  EXPECT_EQ(kvtcp_Lock(r.get()), VI_SUCCESS);
  EXPECT_EQ(semValue(r->hCoreMutex), 1);  // no wait, nothing taken
  EXPECT_EQ(semValue(r->hIntfMutex), 1);
  // The release posts what the wait never took (kept on purpose).
  kvtcp_UnLock(r.get());
  EXPECT_EQ(semValue(r->hCoreMutex), 2);
  EXPECT_EQ(semValue(r->hIntfMutex), 1);
  EXPECT_EQ(r->nCoreLocked, 0);  // never below 0
  r->nCoreLocked = 2;
  kvtcp_UnLock(r.get());
  EXPECT_EQ(r->nCoreLocked, 1);
  kvtcp_Close(r.get());
}

TEST(LockRules, HislipRecordUsesTheInterfaceMutexOnly) {
  auto r = zeroed();
  r->tcpType = KVTCP_HISLIP;
  open_mutex_intf(r.get(), "127.0.0.6");
  EXPECT_EQ(kvtcp_Lock(r.get()), VI_SUCCESS);
  kvtcp_UnLock(r.get());
  EXPECT_EQ(semValue(r->hIntfMutex), 1);  // the interface release does nothing
  EXPECT_EQ(WaitCoreLock(r.get()), VI_ERROR_CONN_LOST);
  kvtcp_Close(r.get());
}

// --------------------------------------------------- disconnect and close

TEST(Close, NeverConnectedClosesOnlyTheOpenMutexes) {
  auto r = zeroed();
  Channel c;
  r->S_Core = c.mine;  // a stray descriptor with Connected 0 is not touched
  open_mutex_intf(r.get(), "127.0.0.7");
  kvtcp_Close(r.get());
  EXPECT_EQ(r->hIntfMutex, nullptr);
  EXPECT_EQ(r->hCoreMutex, nullptr);
  EXPECT_FALSE(semExists("_kv127_0_0_7Mutex_Intf"));
  EXPECT_EQ(r->S_Core, c.mine);
  EXPECT_GE(fcntl(c.mine, F_GETFD), 0);
  close(c.mine);
  kvtcp_Close(r.get());  // twice is harmless
}

TEST(Disconnect, ClosesEverySocketThenOnlyLogs) {
  LogCapture log;
  auto r = zeroed();
  Channel core, abortCh, intr;
  strcpy(r->TcpipAddr, "127.0.0.8");
  r->tcpType = KVTCP_RAW;
  r->Connected = 1;
  r->S_Core = core.mine;
  r->S_Abort = abortCh.mine;
  r->S_Intr = intr.mine;
  open_mutex_intf(r.get(), "127.0.0.8");
  kvtcp_Disconnect(r.get());
  EXPECT_EQ(r->Connected, 0);
  EXPECT_EQ(r->S_Core, 0);
  EXPECT_EQ(r->S_Abort, 0);
  EXPECT_EQ(r->S_Intr, 0);
  EXPECT_TRUE(core.closedByRecord());
  EXPECT_TRUE(abortCh.closedByRecord());
  EXPECT_TRUE(intr.closedByRecord());
  EXPECT_NE(r->hIntfMutex, nullptr);  // kept for a reconnect
  EXPECT_TRUE(log.anyContains("close core socket"));
  EXPECT_TRUE(log.anyContains("close abort socket"));
  EXPECT_TRUE(log.anyContains("close intr socket"));

  log.clear();
  kvtcp_Disconnect(r.get());
  auto lines = log.lines();
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_NE(lines[0].text.find("127.0.0.8"), std::string::npos);
  kvtcp_Close(r.get());
  EXPECT_EQ(r->hIntfMutex, nullptr);
}

TEST(Disconnect, Vxi11WithoutLinkSendsNothing) {
  auto r = zeroed();
  Channel core, intr;
  r->tcpType = KVTCP_VXI11;
  r->Connected = 1;
  r->lid = KVTCP_NO_LINK;
  r->S_Core = core.mine;
  r->S_Intr = intr.mine;
  open_mutex_core(r.get(), "127.0.0.10");
  open_mutex_intf(r.get(), "127.0.0.10");
  kvtcp_Disconnect(r.get());
  EXPECT_FALSE(core.received());  // no link to destroy
  EXPECT_TRUE(core.closedByRecord());
  EXPECT_TRUE(intr.closedByRecord());
  EXPECT_EQ(semValue(r->hCoreMutex), 1);  // no core call, no release
  kvtcp_Close(r.get());
}

TEST(Disconnect, NullRecordIsIgnored) {
  kvtcp_Disconnect(nullptr);
  kvtcp_Close(nullptr);
}

// ------------------------------------------------- loss of connection

TEST(CoreFailure, OtherErrorsDoNotCountAsTimeOuts) {
  auto r = zeroed();
  Channel core;
  r->tcpType = KVTCP_VXI11;
  r->Connected = 1;
  r->lid = KVTCP_NO_LINK;
  r->S_Core = core.mine;
  open_mutex_intf(r.get(), "127.0.0.12");
  EXPECT_EQ(kvtcp_RecordCoreFailure(r.get(), VI_ERROR_TMO), VI_ERROR_TMO);
  EXPECT_EQ(kvtcp_RecordCoreFailure(r.get(), VI_ERROR_IO), VI_ERROR_IO);
  EXPECT_EQ(kvtcp_RecordCoreFailure(r.get(), VI_ERROR_TMO), VI_ERROR_TMO);  // IO broke the run
  EXPECT_EQ(r->Connected, 1);
  // A time-out after a success (LastError back to 0) is a first one again.
  r->LastError = 0;
  EXPECT_EQ(kvtcp_RecordCoreFailure(r.get(), VI_ERROR_TMO), VI_ERROR_TMO);
  EXPECT_EQ(r->Connected, 1);
  kvtcp_Close(r.get());
  EXPECT_EQ(r->S_Core, 0);
}

TEST(CoreFailure, PrepareDrainsAHalfReadReply) {
  auto r = zeroed();
  Channel core;
  r->S_Core = core.mine;
  ASSERT_EQ(send(core.peer, "late reply bytes", 16, 0), 16);
  kvtcp_PrepareCore(r.get());  // clean state: nothing drained
  EXPECT_EQ(CheckForRecv(core.mine, 0), 1);
  r->CoreState = -1;
  kvtcp_PrepareCore(r.get());
  EXPECT_EQ(r->CoreState, 0);
  EXPECT_EQ(CheckForRecv(core.mine, 0), 0);
  close(core.mine);
}

// ---------------------------------------------------------- socket options

TEST(SocketOptions, OnlyRawConnectionsAreTuned) {
  EXPECT_EQ(kvtcp_sock_setNoDelay(nullptr, 1), VI_ERROR_CONN_LOST);
  EXPECT_EQ(kvtcp_sock_setKeepAlive(nullptr, 1), VI_ERROR_CONN_LOST);
  auto r = zeroed();
  int s = socket(AF_INET, SOCK_STREAM, 0);
  ASSERT_GE(s, 0);
  r->S_Core = s;
  EXPECT_EQ(kvtcp_sock_setNoDelay(r.get(), 1), VI_ERROR_CONN_LOST);  // not connected
  r->Connected = 1;
  r->S_Core = 0;
  EXPECT_EQ(kvtcp_sock_setNoDelay(r.get(), 1), VI_ERROR_CONN_LOST);  // no core socket
  r->S_Core = s;

  for (int kind : {KVTCP_HISLIP, KVTCP_VXI11}) {
    r->tcpType = kind;
    EXPECT_EQ(kvtcp_sock_setNoDelay(r.get(), 1), VI_SUCCESS);
    EXPECT_EQ(kvtcp_sock_setKeepAlive(r.get(), 1), VI_SUCCESS);
    EXPECT_EQ(r->SocketNoDelay, 0);
    EXPECT_EQ(r->SocketKeepAlive, 0);
  }
  r->tcpType = KVTCP_RAW;
  EXPECT_EQ(kvtcp_sock_setNoDelay(r.get(), 5), VI_SUCCESS);
  EXPECT_EQ(r->SocketNoDelay, 1);  // normalised
  EXPECT_EQ(kvtcp_sock_setKeepAlive(r.get(), 1), VI_SUCCESS);
  EXPECT_EQ(r->SocketKeepAlive, 1);
  EXPECT_EQ(kvtcp_sock_setNoDelay(r.get(), 0), VI_SUCCESS);
  EXPECT_EQ(r->SocketNoDelay, 0);
  EXPECT_EQ(r->SocketKeepAlive, 1);
  close(s);
}

// ------------------------------------------------------- name resolution

TEST(Resolve, DottedAndLocalNames) {
  char ip[64] = "untouched", host[128] = "untouched";
  kvtcp_toIpAddress("127.0.0.1", ip, host);
  EXPECT_STREQ(ip, "127.0.0.1");
  EXPECT_STREQ(host, "127.0.0.1");
  strcpy(ip, "x");
  kvtcp_toIpAddress("localhost", ip, host);
  EXPECT_STREQ(ip, "127.0.0.1");
  EXPECT_STRNE(host, "");
}

TEST(Resolve, UnknownNameLeavesOutputs) {
  // Isolated: there is no network, so the look-up fails without traffic.
  char ip[64] = "keep-ip", host[128] = "keep-host";
  kvtcp_toIpAddress("no-such-host.invalid", ip, host);
  EXPECT_STREQ(ip, "keep-ip");
  EXPECT_STREQ(host, "keep-host");
  kvtcp_toIpAddress(nullptr, ip, host);
  EXPECT_STREQ(ip, "keep-ip");
}

TEST(Resolve, OutputsAreBoundedByTheRecordFields) {
  std::string longName(200, 'a');
  char ip[64] = "keep", host[128] = "keep";
  kvtcp_toIpAddress(longName.c_str(), ip, host);  // does not resolve, no overrun
  EXPECT_STREQ(ip, "keep");
}

// ---------------------------------------------------------- logging hooks

TEST(Logging, SecondHookHasADefault) {
  EXPECT_NE(pkvFRSpyLog, nullptr);
  // And it is safe to call with any format the primitives use.
  pkvFRSpyLog(2, 0x4000, "%s: nRet = %d\n", "recvClear", 0);
}

TEST(Logging, TransportFormatsStartWithPathAndLine) {
  LogCapture log;
  auto r = zeroed();
  strcpy(r->TcpipAddr, "127.0.0.13");
  kvtcp_Disconnect(r.get());
  auto lines = log.lines();
  ASSERT_EQ(lines.size(), 1u);
  const LogLine& l = lines[0];
  EXPECT_EQ(l.hook, 1);
  EXPECT_EQ(l.level1, 0x4000);
  const std::string path = "common/kvtcp/kvtcp.cpp(%d) ";
  size_t at = l.format.find(path);
  ASSERT_NE(at, std::string::npos) << l.format;
  EXPECT_EQ(l.format.substr(0, at).find('('), std::string::npos);  // nothing before the path
  EXPECT_GT(l.firstInt, 0);  // the source line
  EXPECT_EQ(l.text, l.format.substr(0, at) + "common/kvtcp/kvtcp.cpp(" + std::to_string(l.firstInt) +
                        ") 127.0.0.13");
}

TEST(Logging, NoFirstHookMeansNoCall) {
  kvFSpyLog_t saved = pkvFSpyLog;
  pkvFSpyLog = nullptr;
  auto r = zeroed();
  kvtcp_Disconnect(r.get());  // would crash if the null hook were called
  pkvFSpyLog = saved;
}

TEST(Logging, PrimitivesUseTheSecondHookWithTheFunctionName) {
  LogCapture log;
  Channel c;
  char buf[8];
  int n = -1;
  EXPECT_EQ(recvMin(c.mine, 0, buf, sizeof buf, 1, &n), VI_ERROR_TMO);
  bool found = false;
  for (auto& l : log.lines()) {
    if (l.hook != 2 || l.format.rfind("%s: CheckForRecv error TMO", 0) != 0) continue;
    found = true;
    EXPECT_EQ(l.level1, 2);
    EXPECT_EQ(l.level2, 0x4000);
    EXPECT_EQ(l.text.rfind("recvMin: ", 0), 0u) << l.text;
  }
  EXPECT_TRUE(found);
  close(c.mine);
}
