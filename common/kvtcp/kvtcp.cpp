// The connection record: named per-connection mutexes and their (by design
// non-blocking) locks, the event callback, disconnect and close, the
// loss-of-connection rule, connect with time-out, name resolution, socket
// options, and the dispatch of message I/O by connection kind.
#include <arpa/inet.h>
#include <ctype.h>
#include <errno.h>
#include <mutex>
#include <set>
#include <netdb.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <stdio.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include "kvlog.h"
#include "kvtcp_internal.h"
#include "visa-ipc.h"

kvtcpEventHandler user_callback = nullptr;
KvTcpInfo cpintf;
pKvTcpInfo pcpintf = nullptr;

namespace {
// Serialises the closing of a record's socket fields between the caller's
// threads and the receive threads, so a descriptor is closed exactly once.
std::mutex g_sockFieldMutex;
}  // namespace

uint32_t myntohl(uint32_t v) { return __builtin_bswap32(v); }
uint32_t myhtonl(uint32_t v) { return __builtin_bswap32(v); }
uint16_t myhtons(uint16_t v) { return __builtin_bswap16(v); }

// ------------------------------------------------------------ mutexes

static void open_named(char* name, size_t size, const char* pattern, const char* addr, HANDLE* h) {
  snprintf(name, size, pattern, addr ? addr : "");
  // From index 0, so the leading '/' becomes '_' as well.
  for (char* p = name; *p; p++)
    if (!isalnum((unsigned char)*p)) *p = '_';
  MUTEX_TYPE m = nullptr;
  util_mutex_open(name, &m);
  *h = (m == SEM_FAILED) ? nullptr : (HANDLE)m;
}

void open_mutex_core(pKvTcpInfo intf, const char* addr) {
  open_named(intf->coreMutexName, sizeof intf->coreMutexName, "/kv%sMutex_Core", addr, &intf->hCoreMutex);
}

void open_mutex_intf(pKvTcpInfo intf, const char* addr) {
  open_named(intf->intfMutexName, sizeof intf->intfMutexName, "/kv%sMutex_Intf", addr, &intf->hIntfMutex);
}

int WaitCoreLock(pKvTcpInfo intf) { return intf->hCoreMutex ? VI_SUCCESS : VI_ERROR_CONN_LOST; }
void ReleaseCoreLock(pKvTcpInfo intf) {
  util_mutex_unlock((MUTEX_TYPE)intf->hCoreMutex);
  if (intf->nCoreLocked) intf->nCoreLocked = intf->nCoreLocked - 1;
}

int kvtcp_Lock(pKvTcpInfo intf) {
  if (intf->hCoreMutex) return WaitCoreLock(intf);
  if (intf->hIntfMutex) return WaitIntfLock(intf);
  return VI_SUCCESS;
}

void kvtcp_UnLock(pKvTcpInfo intf) {
  if (intf->hCoreMutex)
    ReleaseCoreLock(intf);
  else if (intf->hIntfMutex)
    ReleaseIntfLock(intf);
}

void kvtcp_setCallback(kvtcpEventHandler cb) { kvStore(user_callback, cb); }

// ------------------------------------------------- receive threads

namespace {
std::mutex g_threadMutex;
// Records with a live receive thread.  Receive threads are detached and may
// still be leaving while the process runs its exit handlers, so the set is
// never destroyed: a static object's destructor would free it under them.
std::multiset<const KvTcpInfo*>& threadRecords() {
  static auto* records = new std::multiset<const KvTcpInfo*>;
  return *records;
}
}  // namespace

void kvtcp_ThreadEnter(const KvTcpInfo* intf) {
  std::lock_guard<std::mutex> g(g_threadMutex);
  threadRecords().insert(intf);
}

void kvtcp_ThreadLeave(const KvTcpInfo* intf) {
  std::lock_guard<std::mutex> g(g_threadMutex);
  auto& records = threadRecords();
  auto it = records.find(intf);
  if (it != records.end()) records.erase(it);
}

int kvtcp_WaitThreadGone(const KvTcpInfo* intf, ViUInt32 ms) {
  ViUInt64 start = util_timer_ms();
  for (;;) {
    {
      std::lock_guard<std::mutex> g(g_threadMutex);
      if (threadRecords().count(intf) == 0) return 1;
    }
    if (util_timer_ms() - start > ms) return 0;
    usleep(1000);
  }
}

// ------------------------------------------------------------ sockets

// Descriptors of connections are made and closed under one lock: a number
// freed by a close is then handed out again only after that close is complete
// and seen by whoever reuses it (a receive thread's duplicate, a reconnect's
// socket()), never while a thread still believes it owns it.
void kvtcp_CloseSocketField(SOCKET* s) {
  std::lock_guard<std::mutex> g(g_sockFieldMutex);
  int fd = kvLoad(*s);
  kvStore(*s, 0);
  if (fd > 0) {
    // shutdown first: it wakes a receive thread blocked on this socket.
    shutdown(fd, SHUT_RDWR);
    close(fd);
  }
}

int kvtcp_NewSocket() {
  std::lock_guard<std::mutex> g(g_sockFieldMutex);
  return socket(AF_INET, SOCK_STREAM, 0);
}

// Only after a wait has said a connection is pending, so the lock is never
// held across a blocking accept.
int kvtcp_AcceptSocket(int lsn) {
  std::lock_guard<std::mutex> g(g_sockFieldMutex);
  return accept(lsn, nullptr, nullptr);
}

int kvtcp_DupSocket(int fd) {
  std::lock_guard<std::mutex> g(g_sockFieldMutex);
  return dup(fd);
}

void kvtcp_CloseSocket(int fd) {
  std::lock_guard<std::mutex> g(g_sockFieldMutex);
  if (fd >= 0) close(fd);
}

void kvtcp_OpenSocketField(SOCKET* s) {
  std::lock_guard<std::mutex> g(g_sockFieldMutex);
  kvStore(*s, socket(AF_INET, SOCK_STREAM, 0));
}

int kvtcp_SocketFieldIs(SOCKET* s, dev_t dev, ino_t ino) {
  std::lock_guard<std::mutex> g(g_sockFieldMutex);
  int fd = kvLoad(*s);
  struct stat st;
  return fd > 0 && fstat(fd, &st) == 0 && st.st_dev == dev && st.st_ino == ino;
}

int kvtcp_CloseSocketFieldIfSame(SOCKET* s, dev_t dev, ino_t ino) {
  std::lock_guard<std::mutex> g(g_sockFieldMutex);
  int fd = kvLoad(*s);
  if (fd <= 0) return 0;
  struct stat st;
  if (fstat(fd, &st) != 0 || st.st_dev != dev || st.st_ino != ino) return 0;
  kvStore(*s, 0);
  shutdown(fd, SHUT_RDWR);
  close(fd);
  return 1;
}

void kvtcp_ShutdownSocketField(SOCKET* s) {
  std::lock_guard<std::mutex> g(g_sockFieldMutex);
  int fd = kvLoad(*s);
  if (fd > 0) shutdown(fd, SHUT_RDWR);
}

void kvtcp_Disconnect(pKvTcpInfo intf) {
  if (!intf) return;
  WaitIntfLock(intf);
  KVTCP_LOG("%s", intf->TcpipAddr);
  __atomic_store_n(&intf->Connected, 0, __ATOMIC_RELAXED);
  // A thread in an exchange on the synchronous channel is woken (its waits
  // end at once on a shut-down socket) and then let go of the channel before
  // its descriptor is closed, so that it is never closed under a user, nor
  // reused by another connection while that thread still reads from it.
  if (intf->tcpType == KVTCP_HISLIP) kvtcp_ShutdownSocketField(&intf->S_Core);
  KvExchangeGuard x(intf);
  x.reset();
  if (intf->tcpType == KVTCP_VXI11 && intf->S_Core && intf->lid != KVTCP_NO_LINK) {
    if (intf->S_Intr == 0) {
      // The interrupt thread may not have opened its channel yet.
      ViUInt64 start = util_timer_ms();
      for (;;) {
        ViUInt64 now = util_timer_ms();
        ViUInt64 diff = now > start ? now - start : start - now;
        if (diff > 10) break;
        switch_thread();
        if (__atomic_load_n(&intf->S_Intr, __ATOMIC_ACQUIRE) != 0) break;
      }
    }
    if (WaitCoreLock(intf) == VI_SUCCESS) {
      vxi11DestroyLink(intf->S_Core, intf->lid);
      ReleaseCoreLock(intf);
    }
  }
  if (kvLoad(intf->S_Intr)) {
    KVTCP_LOG("close intr socket");
    kvtcp_CloseSocketField(&intf->S_Intr);
  }
  if (kvLoad(intf->S_Abort)) {
    KVTCP_LOG("close abort socket");
    kvtcp_CloseSocketField(&intf->S_Abort);
  }
  if (kvLoad(intf->S_Core)) {
    KVTCP_LOG("close core socket");
    kvtcp_CloseSocketField(&intf->S_Core);
  }
  ReleaseIntfLock(intf);
}

void kvtcp_Close(pKvTcpInfo intf) {
  if (!intf) return;
  if (kvLoad(intf->Connected)) kvtcp_Disconnect(intf);
  // A closed record may be freed by its owner at once: give a receive thread
  // that is still leaving (its socket was just shut down) a moment to let go
  // of the record.  Never from that thread itself, e.g. a host callback.
  if (!pthread_equal(pthread_self(), intf->hIntrThread)) kvtcp_WaitThreadGone(intf, 1000);
  if (intf->hCoreMutex) {
    util_mutex_close(intf->coreMutexName, (MUTEX_TYPE*)&intf->hCoreMutex);
    intf->hCoreMutex = nullptr;
  }
  if (intf->hIntfMutex) {
    util_mutex_close(intf->intfMutexName, (MUTEX_TYPE*)&intf->hIntfMutex);
    intf->hIntfMutex = nullptr;
  }
}

// ------------------------------------------------- loss of connection

void kvtcp_PrepareCore(pKvTcpInfo intf) {
  if (intf->CoreState < 0) {
    recvClear(intf->S_Core);
    intf->CoreState = 0;
  }
}

int kvtcp_RecordCoreFailure(pKvTcpInfo intf, int status) {
  if (intf->LastError == VI_ERROR_TMO && status == VI_ERROR_TMO) status = VI_ERROR_CONN_LOST;
  intf->LastError = status;
  if (status == VI_ERROR_CONN_LOST) kvtcp_Disconnect(intf);
  intf->CoreState = -1;
  return status;
}

// ------------------------------------------------ connect and resolve

// Non-blocking connect with a one-second wait for writability.  A connect
// that fails at once, or whose socket carries an error once writable (a
// refused port), fails too: reporting a refused connection as connected
// would only move the failure to the first send.
int ConnectTmo(SOCKET s, struct sockaddr_in* addr) {
  ViUInt32 mode = 1;
  set_socket_state(s, &mode);
  int r = connect(s, (struct sockaddr*)addr, sizeof(struct sockaddr_in));
  if (r == -1) {
    bool ok = false;
    if (errno == EINPROGRESS || errno == EINTR) {
      struct pollfd p;
      p.fd = s;
      p.events = POLLOUT;
      p.revents = 0;
      if (poll(&p, 1, 1000) == 1 && !(p.revents & POLLNVAL)) {
        int err = 0;
        socklen_t len = sizeof err;
        ok = getsockopt(s, SOL_SOCKET, SO_ERROR, &err, &len) == 0 && err == 0;
      }
    }
    if (!ok) {
      KVTCP_LOG("Error Connecting");
      return VI_ERROR_RSRC_NFOUND;
    }
  }
  mode = 0;
  set_socket_state(s, &mode);
  return VI_SUCCESS;
}

// Copies are bounded by the record's field sizes (64 and 128 bytes), which
// every caller passes.
void kvtcp_toIpAddress(const char* address, char* ipaddr, char* hostname) {
  if (!address) return;
  struct hostent he, *res = nullptr;
  char tmp[4096];
  int herr = 0;
  if (gethostbyname_r(address, &he, tmp, sizeof tmp, &res, &herr) == 0 && res && res->h_addr_list &&
      res->h_addr_list[0]) {
    struct in_addr a;
    memcpy(&a, res->h_addr_list[0], sizeof a);
    char dotted[INET_ADDRSTRLEN];
    inet_ntop(AF_INET, &a, dotted, sizeof dotted);
    if (ipaddr) snprintf(ipaddr, 64, "%s", dotted);
    if (hostname) snprintf(hostname, 128, "%s", res->h_name ? res->h_name : "");
    return;
  }
  in_addr_t a = inet_addr(address);
  if (a != INADDR_NONE) {
    // Looked up but not copied: both outputs stay as they were, as designed.
    struct hostent he2, *res2 = nullptr;
    gethostbyaddr_r(&a, 4, AF_INET, &he2, tmp, sizeof tmp, &res2, &herr);
  }
}

static int setOneByteOption(pKvTcpInfo intf, int on, int* stored, int level, int opt) {
  if (!intf || !kvLoad(intf->Connected) || !kvLoad(intf->S_Core)) return VI_ERROR_CONN_LOST;
  if (intf->tcpType != KVTCP_RAW) return VI_SUCCESS;
  on = on ? 1 : 0;
  if (on == *stored) return VI_SUCCESS;
  *stored = on;
  char c = (char)on;
  // A one-byte option value, as designed; the system's answer is not used.
  (void)setsockopt(intf->S_Core, level, opt, &c, 1);
  return VI_SUCCESS;
}

int kvtcp_sock_setNoDelay(pKvTcpInfo intf, int on) {
  return setOneByteOption(intf, on, intf ? &intf->SocketNoDelay : nullptr, IPPROTO_TCP, TCP_NODELAY);
}

int kvtcp_sock_setKeepAlive(pKvTcpInfo intf, int on) {
  return setOneByteOption(intf, on, intf ? &intf->SocketKeepAlive : nullptr, SOL_SOCKET, SO_KEEPALIVE);
}

// ------------------------------------------------------ dispatch

static bool usable(pKvTcpInfo intf) { return intf && kvLoad(intf->Connected) && kvLoad(intf->S_Core); }

int kvtcp_Write(pKvTcpInfo intf, ViUInt32 timeout, char* buf, int count, ViUInt16 flags, int* retcount) {
  int dummy;
  if (!retcount) retcount = &dummy;
  *retcount = 0;
  if (!usable(intf)) return VI_ERROR_CONN_LOST;
  switch (intf->tcpType) {
    case KVTCP_RAW: return kvtcp_raw_Write(intf, timeout, buf, count, flags, retcount);
    case KVTCP_VXI11: return kvtcp_vxi11_Write(intf, timeout, buf, count, flags, retcount);
    case KVTCP_HISLIP: {
      // The bridge's own messages share the channel with bridge commands.
      KvExchangeGuard x(intf);
      int st = x.resync(intf);
      if (st < 0) return st;
      return kvtcp_hislip_Write(intf, timeout, buf, count, flags, retcount);
    }
    default: return VI_ERROR_NSUP_OPER;
  }
}

int kvtcp_Read(pKvTcpInfo intf, ViUInt32 timeout, char* buf, int count, ViUInt16 flags, char eos,
               int* retcount) {
  int dummy;
  if (!retcount) retcount = &dummy;
  *retcount = 0;
  if (!usable(intf)) return VI_ERROR_CONN_LOST;
  switch (intf->tcpType) {
    case KVTCP_RAW: return kvtcp_raw_Read(intf, timeout, buf, count, flags, eos, retcount);
    case KVTCP_VXI11: return kvtcp_vxi11_Read(intf, timeout, buf, count, flags, eos, retcount);
    case KVTCP_HISLIP: {
      KvExchangeGuard x(intf);
      int st = x.resync(intf);
      if (st < 0) return st;
      x.resumeHeld(intf);
      kvtcp_syncLeft = KvSyncLeft();
      st = kvtcp_hislip_Read(intf, timeout, buf, count, flags, eos, retcount);
      x.plainReadEnded(st);
      return st;
    }
    default: return VI_ERROR_NSUP_OPER;
  }
}

int kvtcp_Query(pKvTcpInfo intf, ViUInt32 timeout, char* outbuf, int outcount, char* inbuf, int incount,
                ViUInt16 inflags, char eos, int* retcount) {
  int dummy;
  if (!retcount) retcount = &dummy;
  *retcount = 0;
  if (!usable(intf)) return VI_ERROR_CONN_LOST;
  // The query and its answer are one exchange (for HiSLIP; the other kinds
  // never take this lock elsewhere, so it costs them nothing).
  KvExchangeGuard x(intf);
  if (intf->tcpType == KVTCP_HISLIP) {
    int rs = x.resync(intf);
    if (rs < 0) return rs;
    x.resumeHeld(intf);
  }
  int written = 0;
  int st = kvtcp_Write(intf, timeout, outbuf, outcount, 0x0203, &written);
  if (st < 0) return st;
  st = kvtcp_Read(intf, timeout, inbuf, incount, (ViUInt16)(inflags | KVTCP_FLAG_LOCKED), eos, retcount);
  if (intf->tcpType == KVTCP_HISLIP) x.plainReadEnded(st);
  return st;
}

int kvtcp_ReadSTB(pKvTcpInfo intf, ViUInt32 tmo, ViUInt16* stb) {
  if (!usable(intf)) return VI_ERROR_CONN_LOST;
  switch (intf->tcpType) {
    case KVTCP_VXI11: return kvtcp_vxi11_ReadSTB(intf, tmo, stb);
    case KVTCP_HISLIP: return kvtcp_hislip_ReadSTB(intf, tmo, stb);
    default: return VI_ERROR_NSUP_OPER;
  }
}

int kvtcp_Clear(pKvTcpInfo intf, ViUInt32 tmo) {
  if (!usable(intf)) return VI_ERROR_CONN_LOST;
  switch (intf->tcpType) {
    case KVTCP_RAW: return VI_SUCCESS;  // nothing to send on a plain socket
    case KVTCP_VXI11: return kvtcp_vxi11_Clear(intf, tmo);
    default: return kvtcp_hislip_Clear(intf, tmo);
  }
}
