// Transport internals shared between the kvtcp source files (and reachable by
// the white-box tests through the static archive; none of this is exported).
#ifndef KV_KVTCP_INTERNAL_H
#define KV_KVTCP_INTERNAL_H

#include <sys/types.h>

#include "kvtcp.h"

// Fields that threads share without a lock (Connected, the socket fields a
// receive thread closes, the callback pointers, the size fields) are read
// and written whole, as relaxed atomics: no torn value and no data race,
// with no ordering beyond that asked of them.
template <class T>
inline T kvLoad(const T& v) {
  return __atomic_load_n(&v, __ATOMIC_RELAXED);
}
template <class T, class U>
inline void kvStore(T& v, U x) {
  __atomic_store_n(&v, (T)x, __ATOMIC_RELAXED);
}

// Set while the first successful CheckForRecv should log the socket flags.
extern int global_var;
// The one event callback of the process (null: no event delivery).
extern kvtcpEventHandler user_callback;

// System-call seams, so tests can inject failures such as ENOBUFS.  They
// point at send, recv and util_delay_ms unless a test replaces them.
extern ssize_t (*kvtcp_sys_send)(int s, const void* buf, size_t len, int flags);
extern ssize_t (*kvtcp_sys_recv)(int s, void* buf, size_t len, int flags);
extern void (*kvtcp_sys_delay_ms)(ViUInt64 ms);

// recvMin that first takes already queued bytes without waiting.
int recvMinQueued(SOCKET s, ViUInt32 tmo, char* buf, int len, int minlen, int* nRead);

// Socket connect with a one-second time-out (non-blocking connect + wait).
int ConnectTmo(SOCKET s, struct sockaddr_in* addr);

// Wire (big-endian) order of a 32-bit word, inline for the exchange paths;
// myntohl and myhtonl are the exported equivalents.
inline uint32_t wireSwap32(uint32_t v) { return __builtin_bswap32(v); }

// Named per-connection mutexes and the (deliberately non-blocking) locks.
void open_mutex_core(pKvTcpInfo intf, const char* addr);
void open_mutex_intf(pKvTcpInfo intf, const char* addr);
// Neither wait takes the lock: mutual exclusion is the driver's process-wide
// mutex.  ReleaseCoreLock still posts the core semaphore; all are kept as
// designed and must stay paired this way.  The interface pair is inline:
// every exchange passes through it.
inline int WaitIntfLock(pKvTcpInfo intf) { return intf->hIntfMutex ? VI_SUCCESS : VI_ERROR_CONN_LOST; }
inline void ReleaseIntfLock(pKvTcpInfo intf) { (void)intf; }
int WaitCoreLock(pKvTcpInfo intf);
void ReleaseCoreLock(pKvTcpInfo intf);

// Loss-of-connection rule of every VXI-11 core call, applied after the call:
// two time-outs in a row become VI_ERROR_CONN_LOST (and a disconnect); the
// status is recorded in LastError and CoreState is set to -1 on failure.
// Returns the (possibly promoted) status.
int kvtcp_RecordCoreFailure(pKvTcpInfo intf, int status);
// Before a core call: drain a half-read reply left by an earlier failure.
void kvtcp_PrepareCore(pKvTcpInfo intf);

// A new TCP socket into *s (-1 on failure), made under the lock of the
// closers below, so that a receive thread looking at the number it had sees
// either its old socket or none, never one being made.
void kvtcp_OpenSocketField(SOCKET* s);
// Closes *s (if open) and sets it to 0, atomically with respect to the other
// closers of the same field, so one descriptor is never closed twice.
void kvtcp_CloseSocketField(SOCKET* s);
// Making, accepting, duplicating and closing a connection's descriptor, under
// the same lock as the above.
int kvtcp_NewSocket();
int kvtcp_AcceptSocket(int lsn);
int kvtcp_DupSocket(int fd);
void kvtcp_CloseSocket(int fd);
// Closes *s only if it still refers to the socket object (dev, ino) that the
// caller knows (a receive thread holds a dup of it, so the identity cannot
// be reused meanwhile).  Returns 1 when it closed the field.
int kvtcp_CloseSocketFieldIfSame(SOCKET* s, dev_t dev, ino_t ino);
// 1 while *s still refers to that socket object.  Looked at under the same
// lock as the closers, so the descriptor cannot be closed (and reused)
// while it is looked at.
int kvtcp_SocketFieldIs(SOCKET* s, dev_t dev, ino_t ino);

// What the calling thread's last failed read on a HiSLIP synchronous channel
// left on the wire: nothing known (kNone), the whole message that was being
// waited for (kWhole: not a byte of it had come), `bytes` unread bytes of a
// begun message (kBytes), or an unknown position (kLost: a header cut short
// or broken).  Written by the HiSLIP read path, read by the exchange guard.
struct KvSyncLeft {
  enum { kNone, kWhole, kBytes, kLost };
  int state = kNone;
  uint32_t bytes = 0;
};
extern thread_local KvSyncLeft kvtcp_syncLeft;

// The in-process exchange lock of one connection, with its resynchronisation
// state, kept beside the record (whose layout is fixed) and keyed by it.
// Every use of a HiSLIP synchronous channel holds it, so a command and its
// answer are never split by another thread's traffic; it nests on one thread.
struct KvExchange;
class KvExchangeGuard {
 public:
  explicit KvExchangeGuard(pKvTcpInfo intf);
  ~KvExchangeGuard();
  KvExchangeGuard(const KvExchangeGuard&) = delete;
  KvExchangeGuard& operator=(const KvExchangeGuard&) = delete;
  // True for the thread's outermost guard of this connection.
  bool outermost() const;
  // Before an exchange: drops what earlier exchanges left unread (answers
  // that came too late, the rest of a longer answer).  0, or
  // VI_ERROR_CONN_LOST after giving the session up (then disconnected).
  int resync(pKvTcpInfo intf);
  // After an exchange whose command went out: notes what its status leaves
  // unread on the channel.
  void ended(pKvTcpInfo intf, int status);
  // The command itself did not go out whole: the channel's position is lost.
  void sendFailed();
  // After a plain read or query (outermost guard only; inside another
  // exchange that exchange accounts): notes the rest of a message it began
  // and could not finish.
  void plainReadEnded(int status);
  // Before a bridge command goes out: a message that a plain read has begun
  // and not finished (an instrument answer read in pieces) would otherwise be
  // taken for the command's answer.  Its rest is read off the channel and
  // held for the plain reader.  0, or VI_ERROR_CONN_LOST after giving the
  // session up (the rest did not come in time, or is too long to hold).
  int setAside(pKvTcpInfo intf);
  // At the start of a plain read or query: a held message becomes the
  // message in progress again, so plain reads see messages in wire order.
  void resumeHeld(pKvTcpInfo intf);
  // A device clear abandons the held messages with the one in progress.
  void forgetHeld();
  // A bridge command went out whole: the next message begun in this
  // exchange is its answer (see kvtcp_AnswerHeader).
  void commandSent();
  // A new session (or none): nothing owed.
  void reset();
  // The connection's own scratch buffer, at least n bytes, kept from one
  // exchange to the next so that exchanges allocate nothing once it has
  // grown.  Valid while this guard is held; null if it cannot grow.
  char* buffer(size_t n);

 private:
  KvExchange* x_;
};

// len bytes of the message in progress, for a read under the connection's
// guard: from memory when it is a held one (see setAside), else from the
// channel (queued: most likely there already, taken without a wait first).
int kvtcp_TakeBytes(pKvTcpInfo intf, ViUInt32 timeout, char* buf, int len, bool queued, int* n);

// For the header h just read (dataLen in host order): 1 when it is a plain
// message met while a bridge command's answer is awaited (bridge answers are
// vendor-specific), now held for the plain reader, so that the next header
// is to be read; 0 when h is the message to read; -1 when a plain message
// could not be held (the channel's position is lost).
int kvtcp_AnswerHeader(pKvTcpInfo intf, const sHiSPLIP_Header* h);

// Shuts *s down (if open) without closing it, so that a thread blocked on it
// wakes up; the descriptor stays valid until it is closed.
void kvtcp_ShutdownSocketField(SOCKET* s);

// Receive threads (HiSLIP asynchronous channel, VXI-11 interrupt channel)
// register while they run, so the driver can make sure none of them still
// runs in the library when the host stops it and unloads the library.
// Enter is called by the creator before the thread starts, Leave by the
// thread as its last action.  Wait returns 1 once no thread of the record
// runs, 0 after ms milliseconds.
void kvtcp_ThreadEnter(const KvTcpInfo* intf);
void kvtcp_ThreadLeave(const KvTcpInfo* intf);
int kvtcp_WaitThreadGone(const KvTcpInfo* intf, ViUInt32 ms);

// Per-kind workers behind the public read/write/status/clear dispatchers.
// The dispatchers have already checked the record and zeroed *retcount.
int kvtcp_raw_Write(pKvTcpInfo intf, ViUInt32 timeout, char* buf, int count, ViUInt16 flags, int* retcount);
int kvtcp_raw_Read(pKvTcpInfo intf, ViUInt32 timeout, char* buf, int count, ViUInt16 flags, char eos,
                   int* retcount);
int kvtcp_hislip_Write(pKvTcpInfo intf, ViUInt32 timeout, char* buf, int count, ViUInt16 flags, int* retcount);
int kvtcp_hislip_Read(pKvTcpInfo intf, ViUInt32 timeout, char* buf, int count, ViUInt16 flags, char eos,
                      int* retcount);
int kvtcp_hislip_ReadSTB(pKvTcpInfo intf, ViUInt32 tmo, ViUInt16* stb);
int kvtcp_hislip_Clear(pKvTcpInfo intf, ViUInt32 tmo);
int kvtcp_vxi11_Write(pKvTcpInfo intf, ViUInt32 timeout, char* buf, int count, ViUInt16 flags, int* retcount);
int kvtcp_vxi11_Read(pKvTcpInfo intf, ViUInt32 timeout, char* buf, int count, ViUInt16 flags, char eos,
                     int* retcount);
int kvtcp_vxi11_ReadSTB(pKvTcpInfo intf, ViUInt32 tmo, ViUInt16* stb);
int kvtcp_vxi11_Clear(pKvTcpInfo intf, ViUInt32 tmo);

// sendAll for a part of a message whose rest follows at once: the kernel
// holds it back (MSG_MORE) so that the parts leave in full segments.
int sendAllMore(SOCKET s, const char* buf, int len, int* nWrite);

// HiSLIP internals.
int hislip_SendBuf(SOCKET s, sHiSPLIP_Header* hdr, int len, const void* data);
// One message whose payload is head followed by data (either may be empty),
// sent as hislip_SendBuf sends one payload.  Small messages are joined on
// the stack and sent at once; with a head, long data goes out from where it
// is, behind the header and head (no copy); a long single payload is joined
// in x's buffer (x may be null: a temporary one is allocated).
int hislip_SendParts(SOCKET s, sHiSPLIP_Header* hdr, const void* head, int headLen, const void* data, int dataLen,
                     KvExchangeGuard* x);
// Waits for the header of the answer on a HiSLIP synchronous channel (unless
// a message is in progress already) and reports the unread length of its
// payload, reading none of it; kvtcp_Read then takes the payload in parts.
int kvtcp_hislip_Begin(pKvTcpInfo intf, ViUInt32 timeout, uint32_t* left);
// kvtcp_kvhislip_Query with the command given in two parts (a record and
// the data behind it), so that callers need not join them first.
int kvtcp_kvhislip_QueryParts(pKvTcpInfo intf, ViUInt32 timeout, const char* head, int headLen, const char* data,
                              int dataLen, char* inbuf, int incount, int* retcount);
int hislip_Query(SOCKET s, ViUInt32 tmo, sHiSPLIP_Header* outHdr, int len, const void* data,
                 sHiSPLIP_Header* inHdr);
void* hislipAsyncRecvThread(void* intf);

// VXI-11 interrupt thread body.
void* vxi11InterruptConn(void* X);

#endif
