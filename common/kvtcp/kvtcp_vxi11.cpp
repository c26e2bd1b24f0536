// VXI-11 connection kind: a small ONC RPC client over TCP (record marking,
// hand-made messages, no XDR library), portmapper look-up, the device core
// link and its abort channel, and the VXI-11 paths of message read/write,
// status byte and device clear.
#include <arpa/inet.h>
#include <errno.h>
#include <netinet/tcp.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <mutex>

#include "kvlog.h"
#include "kvtcp_internal.h"
#include "rpc_vxi11.h"
#include "visa-ipc.h"

unsigned char rpcrepl_backup[28];

namespace {

// Replies of up to this size are joined on the stack; larger ones (a link
// may accept chunks of up to 2 GiB) go to the heap.
constexpr size_t kStackJoin = 16 * 1024;

std::recursive_mutex g_gates[64];
std::recursive_mutex& vxi11Gate(SOCKET s) { return g_gates[(unsigned)s % 64]; }

uint32_t newXid() { return (((uint32_t)rand() << 16) | (uint32_t)rand()); }

uint32_t wordAt(const void* buf, size_t off) {
  uint32_t v;
  memcpy(&v, (const char*)buf + off, 4);
  return myntohl(v);
}

uint32_t rawWordAt(const void* buf, size_t off) {
  uint32_t v;
  memcpy(&v, (const char*)buf + off, 4);
  return v;
}

void writeCallHead(void* buf, uint32_t total, uint32_t prog, uint32_t vers, uint32_t proc, uint32_t xid) {
  rpc_call_msg h;
  memset(&h, 0, sizeof h);
  h.len = myhtonl(RPC_LAST_FRAGMENT | (total - 4));
  h.xid = xid;  // host order: the server echoes the four bytes unchanged
  h.type = myhtonl(RPC_CALL);
  h.rpcvers = myhtonl(RPC_VERSION);
  h.prog = myhtonl(prog);
  h.vers = myhtonl(vers);
  h.proc = myhtonl(proc);
  memcpy(buf, &h, sizeof h);
}

// recvResp returns once 28 bytes are in.  Keep receiving until the record
// that the mark announces is complete or the buffer is full, so no reply is
// parsed half-received; the unused rest of the buffer is zeroed.
int completeReply(SOCKET s, ViUInt32 tmo, char* buf, int size, int* nRead) {
  if (*nRead >= 4) {
    int64_t want = (int64_t)(wordAt(buf, 0) & ~RPC_LAST_FRAGMENT) + 4;
    if (want > size) want = size;
    while (*nRead < want) {
      int got = 0;
      int st = recvMin(s, tmo, buf + *nRead, (int)(want - *nRead), (int)(want - *nRead), &got);
      *nRead += got;
      if (st < 0) return st;
    }
  }
  if (*nRead < size) memset(buf + *nRead, 0, (size_t)(size - *nRead));
  return VI_SUCCESS;
}

// Checks the reply head of a core call: accept status, then transaction id.
int checkReplyHead(SOCKET S, const char* reply, uint32_t xid, bool withSocket) {
  uint32_t stat = wordAt(reply, offsetof(rpc_reply_msg, stat));
  if (stat != 0) {
    KVTCP_LOG("rpc reply stat %d\n", (int)stat);
    return VI_ERROR_IO;
  }
  uint32_t rx = rawWordAt(reply, offsetof(rpc_reply_msg, xid));
  if (rx != xid) {
    if (withSocket)
      KVTCP_LOG("s = %d rpc reply wrong xid(%X != %X)\n", S, rx, xid);
    else
      KVTCP_LOG("rpc reply wrong xid(%X != %X)\n", rx, xid);
    return VI_ERROR_IO;
  }
  return VI_SUCCESS;
}

void fillGeneric(Device_GenericParms* g, pKvTcpInfo intf, ViUInt32 tmo) {
  memset(g, 0, sizeof *g);
  g->lid = myhtonl(intf->lid);
  g->flags = myhtonl(VXI11_FLAG_END);
  g->lock_timeout = myhtonl(tmo);
  g->io_timeout = myhtonl(tmo);
}

SOCKET newSocket() {
  SOCKET s = kvtcp_NewSocket();
  if (s == 0xFFFF || s < 0) s = 0;  // 0xFFFF is the transport's "no socket"
  return s;
}

void setNoDelay(SOCKET s) {
  if (s <= 0) return;
  char on = 1;
  (void)setsockopt(s, IPPROTO_TCP, TCP_NODELAY, &on, 1);
}

}  // namespace

char* getCoreProcName(int proc) {
  static char name[32];
  const char* n = nullptr;
  switch (proc) {
    case VXI11_CREATE_LINK: n = "CREATE_LINK"; break;
    case VXI11_WRITE: n = "WRITE"; break;
    case VXI11_READ: n = "READ"; break;
    case VXI11_READSTB: n = "READSTB"; break;
    case VXI11_TRIGGER: n = "TRIGGER"; break;
    case VXI11_CLEAR: n = "CLEAR"; break;
    case VXI11_REMOTE: n = "REMOTE"; break;
    case VXI11_LOCAL: n = "LOCAL"; break;
    case VXI11_LOCK: n = "LOCK"; break;
    case VXI11_UNLOCK: n = "UNLOCK"; break;
    case VXI11_ENABLE_SRQ: n = "ENABLE_SRQ"; break;
    case VXI11_DOCMD: n = "DOCMD"; break;
    case VXI11_DESTROY_LINK: n = "DESTROY_LINK"; break;
    case VXI11_CREATE_INTR_CHAN: n = "CREATE_INTR_CHAN"; break;
    case VXI11_DESTROY_INTR_CHAN: n = "DESTROY_INTR_CHAN"; break;
    default: break;
  }
  if (n)
    snprintf(name, sizeof name, "%s", n);
  else
    snprintf(name, sizeof name, "%d", proc);
  return name;
}

// ------------------------------------------------------ request primitives
//
// Callers hold the (deliberately non-blocking) core lock around a request.
// Each exchange also runs under a process-local gate of its socket, so an
// exchange of the interrupt thread (CREATE_INTR_CHAN, sent while the
// connecting thread has already returned) never interleaves with a
// caller's request on the same socket.

int vxi11CoreRequest(SOCKET S, ViUInt32 proc, ViUInt32 timeout, void* sendbuff, int sendsize, void* recvbuf,
                     int recvsize, int* nRead) {
  int dummy;
  if (!nRead) nRead = &dummy;
  *nRead = 0;
  if (!sendbuff || !recvbuf || sendsize < (int)sizeof(rpc_call_msg) || recvsize < (int)sizeof(rpc_reply_msg))
    return VI_ERROR_IO;
  std::lock_guard<std::recursive_mutex> gate(vxi11Gate(S));
  uint32_t xid = newXid();
  writeCallHead(sendbuff, (uint32_t)sendsize, DEVICE_CORE_PROG, DEVICE_CORE_VERS, proc, xid);
  int nWrite = 0;
  int st = sendAll(S, (const char*)sendbuff, sendsize, &nWrite);
  if (st < 0) {
    KVTCP_LOG("?" "?(%s) send s%X error %X wsa %d\n", getCoreProcName((int)proc), S, st, errno);
    return st;
  }
  char* reply = (char*)recvbuf;
  st = recvResp(S, timeout, reply, recvsize, nRead);
  if (st >= 0) st = completeReply(S, timeout, reply, recvsize, nRead);
  if (st < 0) {
    KVTCP_LOG("?" "?(%s) recv s%X error %X wsa %d\n", getCoreProcName((int)proc), S, st, errno);
    return st;
  }
  KVTCP_LOG("(%s) send %d, resp len=%d, nRead=%d XID=0x%X S=%d\n", getCoreProcName((int)proc), sendsize,
            (int)(wordAt(reply, 0) & ~RPC_LAST_FRAGMENT), *nRead, xid, S);
  st = checkReplyHead(S, reply, xid, true);
  if (st < 0) return st;
  memcpy(rpcrepl_backup, reply, sizeof rpcrepl_backup);
  return VI_SUCCESS;
}

int vxi11Core2BufRequest(SOCKET S, ViUInt32 proc, ViUInt32 timeout, void* sendbuff, const int sendsize,
                         void* sendbuff2, const int sendsize2, void* recvbuf, int recvsize, int* nRead) {
  int dummy;
  if (!nRead) nRead = &dummy;
  *nRead = 0;
  if (!sendbuff || !recvbuf || sendsize < (int)sizeof(rpc_call_msg) || sendsize2 < 0 ||
      (sendsize2 > 0 && !sendbuff2) || recvsize < (int)sizeof(rpc_reply_msg) ||
      (int64_t)sendsize + sendsize2 > 0x7FFFFFFF)
    return VI_ERROR_IO;
  size_t total = (size_t)sendsize + (size_t)sendsize2;
  char stackJoin[kStackJoin];
  char* joined = stackJoin;
  if (total > sizeof stackJoin) {
    joined = (char*)malloc(total);
    if (!joined) return VI_ERROR_ALLOC;
  }
  std::lock_guard<std::recursive_mutex> gate(vxi11Gate(S));
  uint32_t xid = newXid();
  writeCallHead(sendbuff, (uint32_t)total, DEVICE_CORE_PROG, DEVICE_CORE_VERS, proc, xid);
  memcpy(joined, sendbuff, (size_t)sendsize);
  if (sendsize2) memcpy(joined + sendsize, sendbuff2, (size_t)sendsize2);
  int nWrite = 0;
  int st = sendAll(S, joined, (int)total, &nWrite);
  if (joined != stackJoin) free(joined);
  if (st < 0) {
    KVTCP_LOG("(%s) send s%X error %X wsa %d\n", getCoreProcName((int)proc), S, st, errno);
    return st;
  }
  char* reply = (char*)recvbuf;
  st = recvResp(S, timeout, reply, recvsize, nRead);
  if (st >= 0) st = completeReply(S, timeout, reply, recvsize, nRead);
  if (st < 0) {
    KVTCP_LOG("send error %X wsa %d\n", st, errno);
    return st;
  }
  KVTCP_LOG("(%s) send %d+%d, resp len=%d, nRead=%d\n", getCoreProcName((int)proc), sendsize, sendsize2,
            (int)(wordAt(reply, 0) & ~RPC_LAST_FRAGMENT), *nRead);
  return checkReplyHead(S, reply, xid, false);
}

int GetPMapVXI11(SOCKET S, unsigned short* port) {
  rpc_portmap_call_msg call;
  memset(&call, 0, sizeof call);
  uint32_t xid = newXid();
  writeCallHead(&call, sizeof call, PMAP_PROG, PMAP_VERS, PMAP_PROC_GETPORT, xid);
  call.prog = myhtonl(DEVICE_CORE_PROG);
  call.vers = myhtonl(DEVICE_CORE_VERS);
  call.prot = myhtonl(IPPROTO_TCP_NUMBER);
  call.port = 0;
  int nWrite = 0;
  int st = sendAll(S, (const char*)&call, sizeof call, &nWrite);
  if (st < 0) return st;
  alignas(8) char reply[sizeof(rpc_portmap_reply_msg)];
  int nRead = 0;
  st = recvResp(S, 1000, reply, sizeof reply, &nRead);
  if (st >= 0) st = completeReply(S, 1000, reply, sizeof reply, &nRead);
  if (st < 0) {
    KVTCP_LOG("s%d return %X\n", S, st);
    return st;
  }
  uint32_t rx = rawWordAt(reply, offsetof(rpc_reply_msg, xid));
  uint32_t p = wordAt(reply, offsetof(rpc_portmap_reply_msg, port));
  // Ports above 65535 are no ports at all: treated like port 0.
  if (rx == xid && p != 0 && p <= 0xFFFF) {
    KVTCP_LOG("s%d return port %d\n", S, (int)p);
    if (port) *port = (unsigned short)p;
    return VI_SUCCESS;
  }
  KVTCP_LOG("s%d rpc reply wrong xid(%X != %X)\n", S, rx, xid);
  return VI_ERROR_IO;
}

// ------------------------------------------------------------------ link

int vxi11CreateLink(SOCKET S, const char* instName, unsigned int* lid, unsigned short* abortPort,
                    unsigned int* maxRecvSize) {
  KVTCP_LOG("S=%X\n", S);
  if (!instName) instName = "";
  size_t n = strlen(instName);
  // A longer name would have to be cut, and would then name another device.
  if (n > VXI11_DEVICE_NAME_MAX) return VI_ERROR_RSRC_NFOUND;
  Create_LinkParms p;
  memset(&p, 0, sizeof p);
  struct sockaddr_in local;
  memset(&local, 0, sizeof local);
  socklen_t len = sizeof local;
  getsockname(S, (struct sockaddr*)&local, &len);
  memcpy(&p.clientId, &local.sin_addr.s_addr, 4);
  p.lockDevice = 0;
  p.lock_timeout = 0;
  p.size = myhtonl((uint32_t)n);
  memcpy(p.device, instName, n);
  int padded = (int)((n + 3) & ~(size_t)3);
  alignas(8) char reply[256];
  int nRead = 0;
  int st = vxi11CoreRequest(S, VXI11_CREATE_LINK, 1000, &p, (int)offsetof(Create_LinkParms, device) + padded,
                            reply, sizeof reply, &nRead);
  if (st < 0) return VI_ERROR_RSRC_NFOUND;
  if (nRead < (int)sizeof(Create_LinkResp) || wordAt(reply, offsetof(Create_LinkResp, error)) != 0)
    return VI_ERROR_IO;
  if (lid) *lid = wordAt(reply, offsetof(Create_LinkResp, lid));
  if (abortPort) *abortPort = (unsigned short)wordAt(reply, offsetof(Create_LinkResp, abortPort));
  if (maxRecvSize) {
    uint32_t m = wordAt(reply, offsetof(Create_LinkResp, maxRecvSize));
    *maxRecvSize = (int32_t)m < 0 ? 0x7FFFFFFFu : m;
  }
  return VI_SUCCESS;
}

int vxi11DestroyLink(SOCKET S, unsigned int lid) {
  KVTCP_LOG("S=%X\n", S);
  Destroy_LinkParms p;
  memset(&p, 0, sizeof p);
  p.lid = myhtonl(lid);
  alignas(8) char reply[256];
  int nRead = 0;
  int st = vxi11CoreRequest(S, VXI11_DESTROY_LINK, 2000, &p, sizeof p, reply, sizeof reply, &nRead);
  if (st < 0) return VI_ERROR_CONN_LOST;
  // The error word as it stands on the wire, not converted.
  return (int)rawWordAt(reply, offsetof(Device_Error, error));
}

// The interrupt thread, registered while it runs (see kvtcp_ThreadEnter).
static void* intrThreadStart(void* X) {
  vxi11InterruptConn(X);
  kvtcp_ThreadLeave((const KvTcpInfo*)X);
  return nullptr;
}

int vxi11FullConnect(pKvTcpInfo intf, const char* name) {
  intf->lid = KVTCP_NO_LINK;
  intf->Addr.sin_family = AF_INET;
  intf->Addr.sin_port = myhtons(PMAP_PORT);

  intf->S_Core = newSocket();
  if (!intf->S_Core || ConnectTmo(intf->S_Core, &intf->Addr) < 0) {
    kvtcp_Disconnect(intf);
    return VI_ERROR_RSRC_NFOUND;
  }
  unsigned short corePort = 0;
  if (GetPMapVXI11(intf->S_Core, &corePort) < 0) {
    kvtcp_Disconnect(intf);
    return VI_ERROR_RSRC_NFOUND;
  }
  intf->Addr.sin_port = myhtons(corePort);
  kvtcp_CloseSocketField(&intf->S_Core);  // done with the portmapper

  intf->S_Core = newSocket();
  KVTCP_LOG("s%d connect to Core port %d", intf->S_Core, (int)corePort);
  intf->port = corePort;
  if (!intf->S_Core || connect(intf->S_Core, (struct sockaddr*)&intf->Addr, sizeof intf->Addr) == -1) {
    KVTCP_LOG("Error Connecting");
    kvtcp_Disconnect(intf);
    return VI_ERROR_RSRC_NFOUND;
  }
  socklen_t len = sizeof intf->myAddr;
  getsockname(intf->S_Core, (struct sockaddr*)&intf->myAddr, &len);

  if (WaitCoreLock(intf) < 0) {
    kvtcp_Disconnect(intf);
    return VI_ERROR_RSRC_NFOUND;
  }
  unsigned short abortPort = 0;
  int st = vxi11CreateLink(intf->S_Core, name, &intf->lid, &abortPort, &intf->maxRecvSize);
  ReleaseCoreLock(intf);
  if (st < 0) {
    kvtcp_Disconnect(intf);
    return VI_ERROR_RSRC_NFOUND;
  }

  intf->Addr.sin_port = myhtons(abortPort);
  if (abortPort) {
    intf->S_Abort = newSocket();
    if (intf->S_Abort) {
      KVTCP_LOG("connect to Abort port %d", (int)abortPort);
      if (connect(intf->S_Abort, (struct sockaddr*)&intf->Addr, sizeof intf->Addr) == -1)
        kvtcp_CloseSocketField(&intf->S_Abort);  // no abort channel: not an error
    }
  }
  kvStore(intf->Connected, 1);

  if (!kvLoad(user_callback)) return VI_SUCCESS;
  memcpy((void*)&cpintf, (const void*)intf, sizeof cpintf);
  pcpintf = &cpintf;
  KVTCP_LOG("create thread for intr");
  __atomic_store_n(&intf->intr_port, (uint16_t)0, __ATOMIC_RELEASE);
  kvtcp_ThreadEnter(intf);
  if (pthread_create(&intf->hIntrThread, nullptr, intrThreadStart, intf) != 0) {
    kvtcp_ThreadLeave(intf);
    // No thread, so nobody would ever publish a port: report it ended.
    __atomic_store_n(&intf->intr_port, (uint16_t)0xFFFF, __ATOMIC_RELEASE);
    return VI_SUCCESS;
  }
  pthread_detach(intf->hIntrThread);
  while (__atomic_load_n(&intf->intr_port, __ATOMIC_ACQUIRE) == 0) switch_thread();
  return VI_SUCCESS;
}

int kvtcp_vxi11_Connect(pKvTcpInfo rootIntf, pKvTcpInfo intf, const char* TcpipAddr, const char* InstName) {
  if (!intf) return VI_ERROR_RSRC_NFOUND;
  if (kvLoad(intf->Connected)) return VI_SUCCESS;
  if (!TcpipAddr) TcpipAddr = "";
  intf->lid = KVTCP_NO_LINK;
  snprintf(intf->TcpipAddr, sizeof intf->TcpipAddr, "%s", TcpipAddr);
  intf->SocketPort = 0;
  intf->tcpType = KVTCP_VXI11;
  if (InstName && *InstName) {
    snprintf(intf->InstName, sizeof intf->InstName, "%s", InstName);
    KVTCP_LOG("%s:%s", intf->TcpipAddr, intf->InstName);
  } else {
    intf->InstName[0] = 0;
    KVTCP_LOG("%s", intf->TcpipAddr);
  }
  if (!intf->hCoreMutex) open_mutex_core(intf, TcpipAddr);
  if (!intf->hIntfMutex) open_mutex_intf(intf, TcpipAddr);
  bool locked = WaitIntfLock(intf) == VI_SUCCESS;
  if (locked) {
    if (kvLoad(intf->Connected)) {
      ReleaseIntfLock(intf);
      return VI_SUCCESS;
    }
    bool ok = true;
    if (rootIntf && kvLoad(rootIntf->Connected) && intf->tcpType == KVTCP_VXI11) {
      // Another link on the root's core channel, made with the root's device
      // name: the shared channel always addresses the root's device.
      ok = WaitCoreLock(rootIntf) == VI_SUCCESS;
      if (ok) {
        int st = vxi11CreateLink(rootIntf->S_Core, rootIntf->InstName, &intf->lid, nullptr, &intf->maxRecvSize);
        ReleaseCoreLock(rootIntf);
        ok = st >= 0;
      }
      if (ok) {
        intf->S_Abort = rootIntf->S_Abort;
        intf->S_Intr = rootIntf->S_Intr;
        intf->port = rootIntf->port;
        intf->S_Core = rootIntf->S_Core;
        memcpy(intf->TcpipAddr, rootIntf->TcpipAddr, sizeof intf->TcpipAddr);
        memcpy(intf->InstName, rootIntf->InstName, sizeof intf->InstName);
        kvStore(intf->Connected, 1);
        KVTCP_LOG("connected!");
      }
    }
    if (ok) {
      if (kvLoad(intf->Connected)) {
        ReleaseIntfLock(intf);
        return VI_SUCCESS;
      }
      memset(&intf->Addr, 0, sizeof intf->Addr);
      intf->Addr.sin_family = AF_INET;
      intf->Addr.sin_addr.s_addr = inet_addr(TcpipAddr);
      // Dotted addresses only: never the broadcast address inet_addr gives a name.
      if (intf->Addr.sin_addr.s_addr != INADDR_NONE && vxi11FullConnect(intf, intf->InstName) == VI_SUCCESS) {
        setNoDelay(intf->S_Core);
        setNoDelay(intf->S_Intr);
        setNoDelay(intf->S_Abort);
        kvStore(intf->Connected, 1);
        ReleaseIntfLock(intf);
        return VI_SUCCESS;
      }
    }
    ReleaseIntfLock(intf);
  }
  KVTCP_LOG("ErroR Connect TCP Interface");
  kvtcp_Disconnect(intf);
  return VI_ERROR_RSRC_NFOUND;
}

// ------------------------------------------------------------ message I/O

int kvtcp_vxi11_Write(pKvTcpInfo intf, ViUInt32 timeout, char* buf, int count, ViUInt16 flags, int* retcount) {
  int status = VI_SUCCESS;
  if (!(flags & KVTCP_FLAG_LOCKED)) {
    status = WaitCoreLock(intf);
    if (status < 0) return status;
  }
  // A link that states a maxRecvSize below 68 would give empty chunks and an
  // endless loop: such links still get 4 bytes per call.
  int64_t limit = ((int64_t)intf->maxRecvSize - 64) & ~(int64_t)3;
  if (limit < 4) limit = 4;
  const char* p = buf;
  int remaining = count;
  while (remaining >= 1) {
    int chunk;
    uint32_t wflags;
    if (remaining <= limit) {
      chunk = remaining;
      wflags = (flags & (KVTCP_FLAG_EOS | KVTCP_FLAG_END)) ? VXI11_FLAG_END : 0;
    } else {
      chunk = (int)limit;
      wflags = 0;
    }
    int64_t padded = ((int64_t)chunk + 3) & ~(int64_t)3;
    alignas(8) char req[256];
    Device_WriteParms wp;
    memset(&wp, 0, sizeof wp);
    wp.lid = myhtonl(intf->lid);
    wp.io_timeout = myhtonl(timeout);
    wp.lock_timeout = myhtonl(timeout);
    wp.flags = myhtonl(wflags);
    wp.size = (int32_t)myhtonl((uint32_t)chunk);
    memcpy(req, &wp, sizeof wp);
    alignas(8) char reply[256];
    int nRead = 0;
    kvtcp_PrepareCore(intf);
    int st;
    if (chunk < 192) {
      KVTCP_RLOG("%s: LINE: %d sizeof(Device_WriteParms) = %d size_send = %d\n", __LINE__,
                 (int)sizeof(Device_WriteParms), chunk);
      memcpy(req + sizeof wp, p, (size_t)chunk);
      memset(req + sizeof wp + chunk, 0, (size_t)(padded - chunk));
      st = vxi11CoreRequest(intf->S_Core, VXI11_WRITE, timeout, req, (int)(sizeof wp + padded), reply,
                            sizeof reply, &nRead);
    } else if (chunk % 4) {
      char* heap = (char*)malloc((size_t)padded);
      if (!heap) {
        status = VI_ERROR_ALLOC;
        break;
      }
      memcpy(heap, p, (size_t)chunk);
      memset(heap + chunk, 0, (size_t)(padded - chunk));
      st = vxi11Core2BufRequest(intf->S_Core, VXI11_WRITE, timeout, req, sizeof wp, heap, (int)padded, reply,
                                sizeof reply, &nRead);
      free(heap);
    } else {
      st = vxi11Core2BufRequest(intf->S_Core, VXI11_WRITE, timeout, req, sizeof wp, (void*)p, chunk, reply,
                                sizeof reply, &nRead);
    }
    if (st < 0) {
      status = kvtcp_RecordCoreFailure(intf, st);
      break;
    }
    intf->LastError = 0;
    if (nRead < (int)sizeof(Device_WriteResp) || wordAt(reply, offsetof(Device_WriteResp, error)) != 0 ||
        wordAt(reply, offsetof(Device_WriteResp, size)) != (uint32_t)chunk) {
      status = VI_ERROR_IO;
      break;
    }
    p += chunk;
    remaining -= chunk;
    *retcount += chunk;
  }
  if (status == VI_SUCCESS && remaining > 0) status = VI_ERROR_IO;
  if (status < 0 || !(flags & KVTCP_FLAG_KEEP)) ReleaseCoreLock(intf);
  return status;
}

namespace {

// Reads and throws away n bytes of a reply (its padding or a surplus).
int discardBytes(SOCKET s, ViUInt32 tmo, int64_t n) {
  char scratch[256];
  while (n > 0) {
    int want = n > (int64_t)sizeof scratch ? (int)sizeof scratch : (int)n;
    int got = 0;
    int st = recvMin(s, tmo, scratch, want, want, &got);
    if (st < 0) return st;
    n -= got;
  }
  return VI_SUCCESS;
}

}  // namespace

int kvtcp_vxi11_Read(pKvTcpInfo intf, ViUInt32 timeout, char* buf, int count, ViUInt16 flags, char eos,
                     int* retcount) {
  Device_ReadParms rp;
  memset(&rp, 0, sizeof rp);
  rp.lid = myhtonl(intf->lid);
  rp.io_timeout = myhtonl(timeout);
  rp.lock_timeout = myhtonl(timeout);
  rp.flags = myhtonl(((flags & KVTCP_FLAG_END) ? VXI11_FLAG_END : 0) |
                     ((flags & KVTCP_FLAG_EOS) ? VXI11_FLAG_TERMCHRSET : 0));
  rp.termChar = (int32_t)myhtonl((uint32_t)(int32_t)(signed char)eos);
  if (!(flags & KVTCP_FLAG_LOCKED)) {
    int st = WaitCoreLock(intf);
    if (st < 0) return st;
  }
  int result = 0;
  int remaining = count < 0 ? 0 : count;
  do {
    rp.requestSize = myhtonl((uint32_t)remaining);
    kvtcp_PrepareCore(intf);
    SOCKET S = intf->S_Core;
    int32_t size = 0, reason = 0;
    int nRead = 0;
    if (remaining <= 215) {
      // One reply holds it all: 40 bytes of head and the padded data.
      alignas(8) char reply[256];
      int rsize = (remaining + 43) & ~3;
      int st = vxi11CoreRequest(S, VXI11_READ, timeout, &rp, sizeof rp, reply, rsize, &nRead);
      if (st < 0) {
        result = kvtcp_RecordCoreFailure(intf, st);
        break;
      }
      intf->LastError = 0;
      size = (int32_t)wordAt(reply, offsetof(Device_ReadResp, size));
      reason = (int32_t)wordAt(reply, offsetof(Device_ReadResp, reason));
      if (wordAt(reply, offsetof(Device_ReadResp, error)) != 0) {
        result = VI_ERROR_IO;
        break;
      }
      // More data than asked for, or than arrived: a broken reply.  Its
      // rest may still be on the socket, so drain before the next call.
      if (size < 0 || size > remaining || (int)sizeof(Device_ReadResp) + size > nRead) {
        intf->CoreState = -1;
        result = VI_ERROR_IO;
        break;
      }
      if (size > 0) memcpy(buf + *retcount, reply + sizeof(Device_ReadResp), (size_t)size);
    } else {
      // Head first, then the data straight into the caller's buffer; the
      // gate keeps the whole exchange together.
      std::lock_guard<std::recursive_mutex> gate(vxi11Gate(S));
      alignas(8) char reply[sizeof(Device_ReadResp)];
      int st = vxi11CoreRequest(S, VXI11_READ, timeout, &rp, sizeof rp, reply, sizeof reply, &nRead);
      if (st < 0) {
        result = kvtcp_RecordCoreFailure(intf, st);
        break;
      }
      intf->LastError = 0;
      uint32_t frag = wordAt(reply, 0) & ~RPC_LAST_FRAGMENT;
      size = (int32_t)wordAt(reply, offsetof(Device_ReadResp, size));
      reason = (int32_t)wordAt(reply, offsetof(Device_ReadResp, reason));
      bool devError = wordAt(reply, offsetof(Device_ReadResp, error)) != 0;
      if (nRead < (int)sizeof(Device_ReadResp) || size < 0 || size > remaining || devError) {
        intf->CoreState = -1;  // whatever follows is drained before the next call
        result = VI_ERROR_IO;
        break;
      }
      int got = 0;
      st = recvMin(S, timeout, buf + *retcount, size, size, &got);
      if (st < 0) {
        result = kvtcp_RecordCoreFailure(intf, st);
        break;
      }
      int64_t rest = (int64_t)frag - 36 - got;
      int64_t padding = (size % 4) ? 4 - (size % 4) : 0;
      st = discardBytes(S, timeout, rest > padding ? rest : padding);
      if (st < 0) {
        result = kvtcp_RecordCoreFailure(intf, st);
        break;
      }
    }
    *retcount += size;
    remaining -= size;
    if (reason == 6 || reason == 4)
      result = 2;
    else if ((flags & KVTCP_FLAG_EOS) && (reason & VXI11_REASON_CHR))
      result = 1;
    else if ((flags & KVTCP_FLAG_END) && (reason & VXI11_REASON_END))
      result = 2;
    else {
      result = 0;
      // A reply with neither data nor a reason would be asked for again
      // and again: a device that answers so is broken.
      if (size == 0 && reason == 0 && remaining >= 1) {
        result = VI_ERROR_IO;
        break;
      }
    }
  } while (result == 0 && remaining >= 1);
  if (result < 0 || !(flags & KVTCP_FLAG_KEEP)) ReleaseCoreLock(intf);
  return result;
}

// ---------------------------------------------------- status byte, clear

int kvtcp_vxi11_ReadSTB(pKvTcpInfo intf, ViUInt32 tmo, ViUInt16* stb) {
  kvtcp_PrepareCore(intf);
  int st = WaitCoreLock(intf);
  if (st < 0) return st;
  Device_GenericParms g;
  fillGeneric(&g, intf, tmo);
  alignas(8) char reply[256];
  int nRead = 0;
  st = vxi11CoreRequest(intf->S_Core, VXI11_READSTB, tmo, &g, sizeof g, reply, sizeof reply, &nRead);
  ReleaseCoreLock(intf);
  if (st < 0) return kvtcp_RecordCoreFailure(intf, st);
  intf->LastError = 0;
  if (wordAt(reply, offsetof(Device_ReadStbResp, error)) != 0) {
    KVTCP_LOG("err1...\n");
    return VI_ERROR_IO;
  }
  if (stb) *stb = (ViUInt16)wordAt(reply, offsetof(Device_ReadStbResp, stb));
  return VI_SUCCESS;
}

int kvtcp_vxi11_Clear(pKvTcpInfo intf, ViUInt32 tmo) {
  int st = WaitCoreLock(intf);
  if (st < 0) return st;
  recvClear(intf->S_Core);
  Device_GenericParms g;
  fillGeneric(&g, intf, tmo);
  alignas(8) char reply[sizeof(Device_Error)];
  int nRead = 0;
  st = vxi11CoreRequest(intf->S_Core, VXI11_CLEAR, tmo, &g, sizeof g, reply, sizeof reply, &nRead);
  if (st < 0) {
    if (intf->LastError == VI_ERROR_TMO && st == VI_ERROR_TMO) st = VI_ERROR_CONN_LOST;
    intf->LastError = st;
    if (st == VI_ERROR_CONN_LOST) kvtcp_Disconnect(intf);  // still under the core lock, by design
  } else {
    intf->LastError = 0;
  }
  ReleaseCoreLock(intf);
  if (st < 0) return st;
  if (wordAt(reply, offsetof(Device_Error, error)) != 0) {
    KVTCP_LOG("err1...\n");
    return VI_ERROR_IO;
  }
  return VI_SUCCESS;
}
