// HiSLIP connection kind (TCP port 4880): connection set-up over the
// synchronous and asynchronous channels, the receive thread of the
// asynchronous channel with its ring of received headers, the bridge's
// vendor-specific exchange, and the HiSLIP workers behind kvtcp_Write,
// kvtcp_Read, kvtcp_ReadSTB and kvtcp_Clear.
#include <arpa/inet.h>
#include <errno.h>
#include <netinet/tcp.h>
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include "kvlog.h"
#include "kvtcp_internal.h"
#include "visa-ipc.h"

namespace {

constexpr uint32_t kFirstMessageId = 0xFFFFFF00u;
constexpr uint32_t kDefaultMaxMessageSize = 0x7FFF0000u;
constexpr int kFirstSendMax = 0x3FFF0;  // header and this much payload go out in one send
constexpr ViUInt32 kConnectTmo = 2000;
constexpr ViUInt32 kErrorTextTmo = 200;
constexpr uint32_t kSlotTaken = 0xFFFFFFFFu;

bool isConnected(pKvTcpInfo intf) { return __atomic_load_n(&intf->Connected, __ATOMIC_ACQUIRE) != 0; }

// Message ids advance by 2 and wrap.  A write and a status query may take
// ids from different threads at once (the query needs no exchange), so the
// id is taken and advanced in one atomic step: no two messages share an id.
uint32_t nextMessageId(pKvTcpInfo intf) {
  return (uint32_t)__atomic_fetch_add(&intf->hislipOutMesageID, 2, __ATOMIC_RELAXED);
}

void resetMessageId(pKvTcpInfo intf) {
  __atomic_store_n(&intf->hislipOutMesageID, (int)kFirstMessageId, __ATOMIC_RELAXED);
}

// ---------------------------------------------------- the ring of slots
//
// The receive thread stores headers; callers take them.  A slot is free
// while its type byte is 0.  The first 32-bit word of a slot (prologue, type,
// control code) is only ever written or taken as a whole, atomically.

volatile uint32_t* slotWord(pKvTcpInfo intf, int i) {
  return reinterpret_cast<volatile uint32_t*>(&intf->hislipAsyncIn[i]);
}

unsigned char slotType(pKvTcpInfo intf, int i) {
  return __atomic_load_n(&intf->hislipAsyncIn[i].msg, __ATOMIC_ACQUIRE);
}

unsigned char wordType(uint32_t w) {
  unsigned char b[4];
  memcpy(b, &w, 4);
  return b[2];
}

void freeSlot(pKvTcpInfo intf, int i) { __atomic_store_n(&intf->hislipAsyncIn[i].msg, 0, __ATOMIC_RELEASE); }

// Bytes 4-15 first, the word with the type last, so a poller never sees a
// half-written header.  With all eight slots taken the message is dropped.
void storeAsync(pKvTcpInfo intf, const sHiSPLIP_Header& h) {
  for (int i = 0; i < KVTCP_ASYNC_SLOTS; i++) {
    if (slotType(intf, i) != 0) continue;
    volatile sHiSPLIP_Header* s = &intf->hislipAsyncIn[i];
    __atomic_store_n(&s->param, h.param, __ATOMIC_RELAXED);
    __atomic_store_n(&s->dataLenHigh, h.dataLenHigh, __ATOMIC_RELAXED);
    __atomic_store_n(&s->dataLen, h.dataLen, __ATOMIC_RELAXED);
    uint32_t w;
    memcpy(&w, &h, 4);
    __atomic_store_n(slotWord(intf, i), w, __ATOMIC_RELEASE);
    return;
  }
}

// Polls the ring for a header of the wanted type until tmo ms have passed.
// Returns the slot index, its first word now holding 0xFFFFFFFF, or -1.
int pollAsync(pKvTcpInfo intf, ViUInt32 tmo, unsigned char wanted) {
  ViUInt64 start = util_timer_ms();
  for (;;) {
    ViUInt64 now = util_timer_ms();
    ViUInt64 diff = now >= start ? now - start : start - now;
    if (diff > tmo) return -1;
    switch_thread();
    for (int i = 0; i < KVTCP_ASYNC_SLOTS; i++) {
      if (slotType(intf, i) == 0) continue;
      uint32_t w = __atomic_exchange_n(slotWord(intf, i), kSlotTaken, __ATOMIC_ACQ_REL);
      // Another caller holds this slot right now and will put its word back.
      if (w == kSlotTaken) continue;
      if (wordType(w) == wanted) return i;
      __atomic_store_n(slotWord(intf, i), w, __ATOMIC_RELEASE);
    }
  }
}

// Control code of a taken slot, read from the slot after the exchange (so
// always 0xFF, sign-extended): that is the value handed back, as designed.
ViUInt16 takenCode(pKvTcpInfo intf, int i) {
  return (ViUInt16)(ViInt16)__atomic_load_n(&intf->hislipAsyncIn[i].code, __ATOMIC_ACQUIRE);
}

// ------------------------------------------------------ receive thread

struct AsyncStart {
  pKvTcpInfo intf;
  int fd;  // the thread's own duplicate of S_Intr
  dev_t dev;
  ino_t ino;
};

// Takes a duplicate of the record's asynchronous channel and its identity.
bool takeChannel(pKvTcpInfo intf, AsyncStart* st) {
  st->intf = intf;
  st->fd = -1;
  int s = __atomic_load_n(&intf->S_Intr, __ATOMIC_ACQUIRE);
  if (s <= 0) return false;
  int fd = kvtcp_DupSocket(s);
  if (fd < 0) return false;
  struct stat sb;
  if (fstat(fd, &sb) != 0) {
    kvtcp_CloseSocket(fd);
    return false;
  }
  st->fd = fd;
  st->dev = sb.st_dev;
  st->ino = sb.st_ino;
  return true;
}

// True while the record's S_Intr still is the channel this thread serves.
bool sameChannel(const AsyncStart& st) { return kvtcp_SocketFieldIs(&st.intf->S_Intr, st.dev, st.ino); }

// Exactly n bytes: n, 0 when the channel closed first, -1 on an error.
ssize_t recvAll(int fd, void* buf, size_t n) {
  size_t got = 0;
  while (got < n) {
    ssize_t r = recv(fd, (char*)buf + got, n - got, MSG_WAITALL);
    if (r < 0) {
      if (errno == EINTR) continue;
      return -1;
    }
    if (r == 0) return 0;
    got += (size_t)r;
  }
  return (ssize_t)got;
}

void asyncLoop(const AsyncStart& st) {
  pKvTcpInfo intf = st.intf;
  for (;;) {
    // Leave once the record is down or has moved on to another channel.
    if (!isConnected(intf) || !sameChannel(st)) break;
    sHiSPLIP_Header h;
    ssize_t r = recvAll(st.fd, &h, sizeof h);
    if (!isConnected(intf)) break;
    if (r < 0) {
      KVTCP_LOG("error recv AsyncChan");
      break;
    }
    if (r == 0) break;  // closed: an empty read would only repeat for ever
    if (h.Prologue[0] != 'H' || h.Prologue[1] != 'S' || h.dataLenHigh != 0) break;
    uint32_t len = wireSwap32(h.dataLen);
    h.dataLen = len;

    switch (h.msg) {
      case HISLIP_AsyncInterrupted:
        if (len) goto leave;
        continue;
      case HISLIP_AsyncMaximumMessageSizeResponse: {
        if (len != 8) goto leave;
        uint32_t v[2];
        r = recvAll(st.fd, v, sizeof v);
        if (!isConnected(intf)) goto leave;
        if (r != (ssize_t)sizeof v) {
          KVTCP_LOG("error recv AsyncChan");
          goto leave;
        }
        kvStore(intf->hislipMaximumMessageSize, v[0] == 0 ? wireSwap32(v[1]) : kDefaultMaxMessageSize);
        continue;
      }
      case HISLIP_AsyncServiceRequest: {
        kvtcpEventHandler cb = kvLoad(user_callback);
        if (cb) {
          intf->hislipAsyncInMsg = HISLIP_AsyncServiceRequest;
          cb(intf);
        }
        sHiSPLIP_Header q;
        memset(&q, 0, sizeof q);
        q.msg = HISLIP_AsyncStatusQuery;
        if (hislip_SendBuf(st.fd, &q, 0, nullptr) < 0) {
          KVTCP_LOG("error send AsyncStatusQuery");
          goto leave;
        }
        // Its answer is swallowed below.
        __atomic_add_fetch(&intf->hislipWaitAsyncStatus, 1, __ATOMIC_ACQ_REL);
        continue;
      }
      case HISLIP_AsyncStatusResponse:
        if (__atomic_load_n(&intf->hislipWaitAsyncStatus, __ATOMIC_ACQUIRE)) {
          __atomic_sub_fetch(&intf->hislipWaitAsyncStatus, 1, __ATOMIC_ACQ_REL);
          continue;
        }
        break;
      case HISLIP_AsyncDeviceClearAcknowledge:
      case HISLIP_AsyncLockInfoResponse:
        break;
      case HISLIP_VendorSpecific: {
        if (len > KVTCP_ASYNC_DATA) goto leave;  // never past hislipAsyncCmdData
        if (len) {
          r = recvAll(st.fd, intf->hislipAsyncCmdData, len);
          if (!isConnected(intf)) goto leave;
          if (r < 0) {
            KVTCP_LOG("error recv AsyncChan");
            goto leave;
          }
          if (r == 0) goto leave;
        }
        kvtcpEventHandler cb = kvLoad(user_callback);
        if (cb) {
          intf->hislipAsyncInMsg = HISLIP_VendorSpecific;
          cb(intf);
        }
        continue;
      }
      default:
        continue;  // not for us; a payload, if any, is not read
    }
    // Stored answers carry no payload.
    if (len) break;
    storeAsync(intf, h);
  }
leave:
  // Close the record's field only while it is still our socket (we hold a
  // duplicate, so its identity cannot have been reused), then our duplicate.
  if (kvtcp_CloseSocketFieldIfSame(&intf->S_Intr, st.dev, st.ino)) KVTCP_LOG("close intr socket");
  kvtcp_CloseSocket(st.fd);
}

void* asyncThreadStart(void* p) {
  AsyncStart st = *(AsyncStart*)p;
  free(p);
  asyncLoop(st);
  kvtcp_ThreadLeave(st.intf);
  return nullptr;
}

// Sends msg with an empty payload on the asynchronous channel.
int sendAsync(pKvTcpInfo intf, unsigned char msg, uint32_t param) {
  SOCKET s = __atomic_load_n(&intf->S_Intr, __ATOMIC_ACQUIRE);
  // The receive thread closes the channel when it leaves; fd 0 is never ours.
  if (s <= 0) return VI_ERROR_CONN_LOST;
  sHiSPLIP_Header h;
  memset(&h, 0, sizeof h);
  h.msg = msg;
  h.param = param;
  return hislip_Query(s, 0, &h, 0, nullptr, nullptr);
}

}  // namespace

// ------------------------------------------------------------- messages

// Vendor-specific payloads are rounded up to 32 bits; the up to three extra
// bytes come from behind the caller's payload, which must have that slack.
int hislip_SendBuf(SOCKET s, sHiSPLIP_Header* hdr, int len, const void* data) {
  return hislip_SendParts(s, hdr, nullptr, 0, data, len, nullptr);
}

// Header and payload go out with one send: the header is joined to (the
// first part of) the payload with one copy.  Up to kJoinOnStack bytes (every
// register command and Word Serial chunk) are joined on the stack, so that
// no exchange allocates; a block write is not copied at all.
int hislip_SendParts(SOCKET s, sHiSPLIP_Header* hdr, const void* head, int headLen, const void* data, int dataLen,
                     KvExchangeGuard* x) {
  constexpr int kJoinOnStack = 1024;
  hdr->Prologue[0] = 'H';
  hdr->Prologue[1] = 'S';
  hdr->dataLenHigh = 0;
  // A header must never announce bytes that are not sent.
  if (headLen < 0 || !head) headLen = 0;
  if (dataLen < 0 || !data) dataLen = 0;
  int len = headLen + dataLen;
  if (hdr->msg == HISLIP_VendorSpecific) len = (int)(((unsigned)len + 3u) & ~3u);
  hdr->dataLen = wireSwap32((uint32_t)len);
  int n = 0;
  if (len == 0) return sendAll(s, (const char*)hdr, sizeof *hdr, &n);

  char onStack[sizeof(sHiSPLIP_Header) + kJoinOnStack];
  if (head && headLen <= kJoinOnStack && len > kJoinOnStack) {
    // A command record with a long block of data (a block write): header
    // and record, then the caller's data straight from its memory, then the
    // rounding bytes as zeros.  The kernel joins the parts (MSG_MORE).
    static const char zeros[4] = {0, 0, 0, 0};
    int pad = len - headLen - dataLen;
    memcpy(onStack, hdr, sizeof *hdr);
    memcpy(onStack + sizeof *hdr, head, (size_t)headLen);
    int st = sendAllMore(s, onStack, (int)sizeof *hdr + headLen, &n);
    if (st >= 0) st = pad ? sendAllMore(s, (const char*)data, dataLen, &n) : sendAll(s, (const char*)data, dataLen, &n);
    if (st >= 0 && pad) st = sendAll(s, zeros, pad, &n);
    if (st < 0) KVTCP_LOG("send s%X error %X wsa %d\n", s, (unsigned)st, errno);
    return st;
  }
  int first = len < kFirstSendMax ? len : kFirstSendMax;
  size_t joinedLen = sizeof *hdr + (size_t)first;
  char* owned = nullptr;
  char* joined = onStack;
  if (first > kJoinOnStack) {
    joined = x ? x->buffer(joinedLen) : (owned = (char*)malloc(joinedLen));
    if (!joined) return VI_ERROR_ALLOC;
  }
  memcpy(joined, hdr, sizeof *hdr);
  char* p = joined + sizeof *hdr;
  if (headLen) memcpy(p, head, (size_t)headLen);
  // The rest of the first send: data, then (only for a payload this short)
  // the rounding bytes.  These come from behind the caller's data when a
  // single part is sent, as the caller's slack allows; after a head they
  // are zeros.
  int fromData = first - headLen;
  if (head && fromData > dataLen) {
    if (dataLen) memcpy(p + headLen, data, (size_t)dataLen);
    memset(p + headLen + dataLen, 0, (size_t)(fromData - dataLen));
  } else if (fromData > 0) {
    memcpy(p + headLen, data, (size_t)fromData);
  }
  int st = sendAll(s, joined, (int)joinedLen, &n);
  if (st < 0)
    KVTCP_LOG("send s%X error %X wsa %d\n", s, (unsigned)st, errno);
  else if (len > first)
    st = sendAll(s, (const char*)data + (first - headLen), len - first, &n);
  if (owned) free(owned);
  return st;
}

int hislip_Query(SOCKET s, ViUInt32 tmo, sHiSPLIP_Header* outHdr, int len, const void* data,
                 sHiSPLIP_Header* inHdr) {
  if (outHdr) {
    int st = hislip_SendBuf(s, outHdr, len, data);
    if (st < 0) return st;
  }
  if (!inHdr) return VI_SUCCESS;

  int n = 0;
  int st = recvMin(s, tmo, (char*)inHdr, sizeof *inHdr, sizeof *inHdr, &n);
  if (st < 0) {
    // Not a byte of the header yet: the whole message may still come.
    kvtcp_syncLeft.state = n == 0 ? KvSyncLeft::kWhole : KvSyncLeft::kLost;
    KVTCP_LOG("recv s%X error %X wsa %d\n", s, (unsigned)st, errno);
    return st;
  }
  if (n != (int)sizeof *inHdr || inHdr->Prologue[0] != 'H' || inHdr->Prologue[1] != 'S' ||
      inHdr->dataLenHigh != 0) {
    kvtcp_syncLeft.state = KvSyncLeft::kLost;
    uint32_t w[3];
    memcpy(w, inHdr, sizeof w);
    KVTCP_LOG("Wrong Header, get %08X%08X%08X\n", wireSwap32(w[0]), wireSwap32(w[1]), wireSwap32(w[2]));
    return VI_ERROR_CONN_LOST;
  }
  inHdr->dataLen = wireSwap32(inHdr->dataLen);
  if (inHdr->msg != HISLIP_FatalError && inHdr->msg != HISLIP_Error) return VI_SUCCESS;

  uint32_t elen = inHdr->dataLen;
  if (elen > 255) {
    kvtcp_syncLeft = {KvSyncLeft::kBytes, elen};
    KVTCP_LOG("Wrong errLen, get Error %d/%d, msg len %d\n", inHdr->msg, inHdr->code, (int)elen);
    return VI_ERROR_CONN_LOST;
  }
  char text[256];
  n = 0;
  // Only the text itself is read, never bytes of the message behind it.
  st = recvMin(s, kErrorTextTmo, text, (int)elen, (int)elen, &n);
  if (st >= 0 && elen > 0 && elen < 28) {
    // The text is read as a reply of at least 28 bytes, so a shorter one
    // ends in that read's time-out.  Wait it out without taking more bytes.
    util_delay_ms(kErrorTextTmo);
    st = VI_ERROR_TMO;
  }
  if (st < 0) {
    kvtcp_syncLeft = {KvSyncLeft::kBytes, elen - (uint32_t)n};
    KVTCP_LOG("recv s%X error %X wsa %d\n", s, (unsigned)st, errno);
    return st;
  }
  text[n] = 0;
  KVTCP_LOG("get Error %d/%d, %s\n", inHdr->msg, inHdr->code, text);
  return inHdr->msg == HISLIP_Error ? VI_ERROR_IO : VI_ERROR_CONN_LOST;
}

// ------------------------------------------------------------ connect

// Thread body for a record whose S_Intr is open: takes its own duplicate of
// the channel first.  kvtcp_hislip_Connect takes the duplicate itself before
// the thread starts, so a quick disconnect and reconnect cannot hand a late
// thread the next connection's channel.
void* hislipAsyncRecvThread(void* intf) {
  AsyncStart st;
  if (!takeChannel((pKvTcpInfo)intf, &st)) return nullptr;
  asyncLoop(st);
  return nullptr;
}

int kvtcp_hislip_Connect(pKvTcpInfo intf, const char* TcpipAddr, const char* subaddr) {
  if (!intf) return VI_ERROR_RSRC_NFOUND;
  if (kvLoad(intf->Connected)) return VI_SUCCESS;
  if (!TcpipAddr) TcpipAddr = "";

  intf->lid = KVTCP_NO_LINK;
  snprintf(intf->TcpipAddr, sizeof intf->TcpipAddr, "%s", TcpipAddr);
  intf->port = HISLIP_PORT;
  intf->tcpType = KVTCP_HISLIP;
  intf->InstName[0] = 0;
  intf->hislipSessionID = 0;
  intf->hislipModeOverlap = 1;
  resetMessageId(intf);
  kvStore(intf->hislipMaximumMessageSize, kDefaultMaxMessageSize);
  kvStore(intf->hislipWaitAsyncStatus, 0);
  // A new session has no message in progress and no answers waiting.
  memset(&intf->hislipInHdr, 0, sizeof intf->hislipInHdr);
  for (int i = 0; i < KVTCP_ASYNC_SLOTS; i++) __atomic_store_n(slotWord(intf, i), 0u, __ATOMIC_RELEASE);
  KVTCP_LOG("%s:HISLIP", intf->TcpipAddr);

  if (!intf->hIntfMutex) open_mutex_intf(intf, TcpipAddr);
  // No exchange of another thread may run on a channel being set up, and a
  // new session owes nothing.
  KvExchangeGuard x(intf);
  x.reset();
  bool locked = WaitIntfLock(intf) == VI_SUCCESS;
  if (locked && kvLoad(intf->Connected)) {
    ReleaseIntfLock(intf);
    return VI_SUCCESS;
  }

  auto setUp = [&]() -> bool {
    if (!locked) return false;
    memset(&intf->Addr, 0, sizeof intf->Addr);
    intf->Addr.sin_family = AF_INET;
    intf->Addr.sin_addr.s_addr = inet_addr(TcpipAddr);
    intf->Addr.sin_port = myhtons(HISLIP_PORT);
    // Dotted addresses only; never the broadcast address inet_addr gives a name.
    if (intf->Addr.sin_addr.s_addr == INADDR_NONE) return false;
    // Made under the closers' lock: a receive thread of an earlier session
    // may still look at the descriptor number it had.
    kvtcp_OpenSocketField(&intf->S_Core);
    if (kvLoad(intf->S_Core) == 0xFFFF) kvStore(intf->S_Core, 0);  // the designed test; -1 fails in the connect
    kvtcp_OpenSocketField(&intf->S_Intr);
    if (kvLoad(intf->S_Intr) == 0xFFFF) kvStore(intf->S_Intr, 0);
    if (intf->S_Core == 0 || intf->S_Intr == 0) return false;
    if (ConnectTmo(intf->S_Core, &intf->Addr) < 0) return false;
    if (ConnectTmo(intf->S_Intr, &intf->Addr) < 0) return false;

    char off = 0, on = 1;
    intf->SocketKeepAlive = 0;
    (void)setsockopt(intf->S_Core, SOL_SOCKET, SO_KEEPALIVE, &off, 1);
    (void)setsockopt(intf->S_Intr, SOL_SOCKET, SO_KEEPALIVE, &off, 1);
    intf->SocketNoDelay = 1;
    (void)setsockopt(intf->S_Intr, IPPROTO_TCP, TCP_NODELAY, &on, 1);

    sHiSPLIP_Header h, r;
    memset(&h, 0, sizeof h);
    memset(&r, 0, sizeof r);
    h.msg = HISLIP_Initialize;
    static const unsigned char kInitParam[4] = {0x01, 0x00, 0x0E, 0x76};  // version 1.0, vendor id
    memcpy(&h.param, kInitParam, 4);
    int sublen = subaddr ? (int)strlen(subaddr) : 0;
    if (hislip_Query(intf->S_Core, kConnectTmo, &h, sublen, subaddr, &r) < 0) return false;
    if (r.msg != HISLIP_InitializeResponse) {
      KVTCP_LOG("Wait InitializeResponse, get unexpected %d\n", r.msg);
      return false;
    }
    intf->hislipSessionID = r.params16[1];  // kept in wire order, echoed as received
    intf->hislipModeOverlap = r.code & 1;
    KVTCP_LOG("connected HISLIP Syn Channel");

    memset(&h, 0, sizeof h);
    memset(&r, 0, sizeof r);
    h.msg = HISLIP_AsyncInitialize;
    h.params16[1] = intf->hislipSessionID;
    if (hislip_Query(intf->S_Intr, kConnectTmo, &h, 0, nullptr, &r) < 0) return false;
    if (r.msg != HISLIP_AsyncInitializeResponse) {
      KVTCP_LOG("Wait hislipAsyncInitializeResponse, get unexpected %d\n", r.msg);
      return false;
    }
    KVTCP_LOG("connected HISLIP ASync Channel");

    AsyncStart* st = (AsyncStart*)malloc(sizeof(AsyncStart));
    if (!st) return false;
    if (!takeChannel(intf, st)) {
      free(st);
      return false;
    }
    // Connected before the thread runs: it leaves at once on a record that
    // is not connected.
    __atomic_store_n(&intf->Connected, 1, __ATOMIC_RELEASE);
    pthread_attr_t attr;
    pthread_attr_init(&attr);
    pthread_attr_setdetachstate(&attr, PTHREAD_CREATE_DETACHED);  // never joined
    pthread_t tid;
    kvtcp_ThreadEnter(intf);
    int rc = pthread_create(&tid, &attr, asyncThreadStart, st);
    pthread_attr_destroy(&attr);
    if (rc != 0) {
      kvtcp_ThreadLeave(intf);
      kvStore(intf->Connected, 0);
      kvtcp_CloseSocket(st->fd);
      free(st);
      return false;
    }
    intf->hIntrThread = tid;
    return true;
  };

  if (!setUp()) {
    ReleaseIntfLock(intf);
    KVTCP_LOG("ErroR Connect TCP Interface");
    if (kvLoad(intf->S_Core) < 0) kvStore(intf->S_Core, 0);  // a failed socket() left -1
    if (kvLoad(intf->S_Intr) < 0) kvStore(intf->S_Intr, 0);
    kvtcp_Disconnect(intf);
    return VI_ERROR_RSRC_NFOUND;
  }
  KVTCP_LOG("connected HISLIP");
  ReleaseIntfLock(intf);
  return VI_SUCCESS;
}

// ----------------------------------------------------- bridge exchange

namespace {

// A bridge command (head, then data) as one vendor-specific message.
// The command out, on a channel whose exchange guard x the caller holds.
int sendCommand(pKvTcpInfo intf, const char* head, int headLen, const char* data, int dataLen, ViUInt16 flags,
                KvExchangeGuard& x) {
  sHiSPLIP_Header h;
  memset(&h, 0, sizeof h);  // the parameter of a vendor-specific message is sent as 0
  h.msg = HISLIP_VendorSpecific;
  int st = x.setAside(intf);
  if (st < 0) return st;
  if (!(flags & KVTCP_FLAG_LOCKED)) {
    st = WaitIntfLock(intf);
    if (st < 0) return st;
  }
  st = hislip_SendParts(intf->S_Core, &h, head, headLen, data, dataLen, &x);
  if (st < 0)
    x.sendFailed();
  else
    x.commandSent();
  if (st < 0 || !(flags & KVTCP_FLAG_KEEP)) ReleaseIntfLock(intf);
  return st;
}

bool usableHislip(pKvTcpInfo intf) { return intf && isConnected(intf) && kvLoad(intf->S_Core); }

// A bridge command (head, then data) as one vendor-specific message.
int kvhislipWriteParts(pKvTcpInfo intf, const char* head, int headLen, const char* data, int dataLen,
                       ViUInt16 flags, int* retcount) {
  int dummy;
  if (!retcount) retcount = &dummy;
  *retcount = 0;
  if (!usableHislip(intf)) return VI_ERROR_CONN_LOST;
  if (intf->tcpType != KVTCP_HISLIP) return VI_ERROR_NSUP_OPER;
  KvExchangeGuard x(intf);
  int rs = x.resync(intf);
  if (rs < 0) return rs;
  int st = sendCommand(intf, head, headLen, data, dataLen, flags, x);
  if (st >= 0) *retcount = (head ? headLen : 0) + (data && dataLen > 0 ? dataLen : 0);
  return st;
}

}  // namespace

int kvtcp_kvhislip_Write(pKvTcpInfo intf, const char* buf, int count, ViUInt16 flags, int* retcount) {
  int st = kvhislipWriteParts(intf, nullptr, 0, buf, count, flags, retcount);
  if (st >= 0 && retcount) *retcount = count;
  return st;
}

int kvtcp_kvhislip_Query(pKvTcpInfo intf, ViUInt32 timeout, const char* outbuf, int outcount, char* inbuf,
                         int incount, int* retcount) {
  return kvtcp_kvhislip_QueryParts(intf, timeout, nullptr, 0, outbuf, outcount, inbuf, incount, retcount);
}

int kvtcp_kvhislip_QueryParts(pKvTcpInfo intf, ViUInt32 timeout, const char* head, int headLen, const char* data,
                              int dataLen, char* inbuf, int incount, int* retcount) {
  int dummy;
  if (!retcount) retcount = &dummy;
  if (!intf || !isConnected(intf) || !kvLoad(intf->S_Core)) return VI_ERROR_CONN_LOST;
  *retcount = 0;
  // The command and its answer form one exchange: no other thread of this
  // process sends or reads on the channel in between.
  // Under this one guard the write and the read go straight to their
  // workers, with the checks kvtcp_kvhislip_Write and kvtcp_Read make.
  KvExchangeGuard x(intf);
  int st = x.resync(intf);
  if (st < 0) return st;
  if (!usableHislip(intf)) return VI_ERROR_CONN_LOST;
  if (intf->tcpType != KVTCP_HISLIP) return VI_ERROR_NSUP_OPER;
  st = sendCommand(intf, head, headLen, data, dataLen, KVTCP_FLAG_KEEP, x);
  if (st >= 0) {
    kvtcp_syncLeft = KvSyncLeft();
    st = usableHislip(intf) ? kvtcp_hislip_Read(intf, timeout, inbuf, incount, KVTCP_FLAG_LOCKED, 0, retcount)
                            : VI_ERROR_CONN_LOST;
    x.ended(intf, st);
  }
  return st;
}

// ------------------------------------------------------------- workers

int kvtcp_hislip_Write(pKvTcpInfo intf, ViUInt32 timeout, char* buf, int count, ViUInt16 flags, int* retcount) {
  (void)timeout;
  sHiSPLIP_Header h;
  memset(&h, 0, sizeof h);
  h.msg = (flags & (KVTCP_FLAG_EOS | KVTCP_FLAG_END)) ? HISLIP_DataEnd : HISLIP_Data;
  h.param = wireSwap32(nextMessageId(intf));
  if (!(flags & KVTCP_FLAG_LOCKED)) {
    int st = WaitIntfLock(intf);
    if (st < 0) return st;
  }
  // One message however long: the server's maximum message size is not applied.
  int st = hislip_SendBuf(intf->S_Core, &h, count, buf);
  if (st < 0 || !(flags & KVTCP_FLAG_KEEP)) ReleaseIntfLock(intf);
  if (st >= 0) *retcount = count < 0 ? 0 : count;
  return st;
}

// One message may be read over several calls: hislipInHdr keeps the header
// of the message in progress (type 0: none), its dataLen what is still unread.
namespace {

// The header of the next message, unless one is in progress already.
int beginMessage(pKvTcpInfo intf, ViUInt32 timeout, ViUInt16 flags) {
  sHiSPLIP_Header* in = &intf->hislipInHdr;
  if (in->msg != 0) return VI_SUCCESS;
  if (!(flags & KVTCP_FLAG_LOCKED)) {
    int st = WaitIntfLock(intf);
    if (st < 0) return st;
  }
  int st, late;
  do {
    st = hislip_Query(intf->S_Core, timeout, nullptr, 0, nullptr, in);
    if (st < 0) {
      in->msg = 0;
      ReleaseIntfLock(intf);
      return st;
    }
    late = kvtcp_AnswerHeader(intf, in);  // 1: an instrument's late answer, held
  } while (late > 0);
  if (late < 0) {
    kvtcp_syncLeft.state = KvSyncLeft::kLost;
    in->msg = 0;
    ReleaseIntfLock(intf);
    return VI_ERROR_CONN_LOST;
  }
  if (in->msg != HISLIP_Data && in->msg != HISLIP_DataEnd && in->msg != HISLIP_VendorSpecific) {
    kvtcp_syncLeft = {KvSyncLeft::kBytes, in->dataLen};
    KVTCP_LOG("Wait Data/DataEnd, get unexpected %d\n", in->msg);
    in->msg = 0;
    ReleaseIntfLock(intf);
    return VI_ERROR_CONN_LOST;
  }
  return VI_SUCCESS;
}

}  // namespace

int kvtcp_hislip_Begin(pKvTcpInfo intf, ViUInt32 timeout, uint32_t* left) {
  *left = 0;
  if (!intf || !isConnected(intf) || !intf->S_Core) return VI_ERROR_CONN_LOST;
  if (intf->tcpType != KVTCP_HISLIP) return VI_ERROR_NSUP_OPER;
  KvExchangeGuard x(intf);
  int st = x.resync(intf);
  if (st < 0) return st;
  st = beginMessage(intf, timeout, KVTCP_FLAG_LOCKED);
  if (st < 0) return st;
  *left = intf->hislipInHdr.dataLen;
  return VI_SUCCESS;
}

int kvtcp_hislip_Read(pKvTcpInfo intf, ViUInt32 timeout, char* buf, int count, ViUInt16 flags, char eos,
                      int* retcount) {
  if (!buf || count < 0) count = 0;
  sHiSPLIP_Header* in = &intf->hislipInHdr;
  int begun = beginMessage(intf, timeout, flags);
  if (begun < 0) return begun;
  intf->hislipInMesageID = (int)wireSwap32(in->param);

  uint32_t remaining = in->dataLen;
  int n = 0;
  int st;
  bool lastValid = false;
  char last = 0;
  uint32_t left = remaining;  // unread bytes of the message should a read fail
  if (remaining >= (uint32_t)count) {
    st = kvtcp_TakeBytes(intf, timeout, buf, count, true, &n);
    left = remaining - (uint32_t)n;
    if (n > 0) {
      lastValid = true;
      last = buf[n - 1];
    }
    uint32_t pad = remaining - (uint32_t)count;
    if (st >= 0 && in->msg == HISLIP_VendorSpecific && pad >= 1 && pad <= 3) {
      // The sender's padding to 32 bits.  As designed, this read's count
      // replaces the one above: the call reports (and consumes) the padding.
      char scratch[4];
      st = kvtcp_TakeBytes(intf, timeout, scratch, (int)pad, false, &n);
      left = pad - (uint32_t)n;
      lastValid = n > 0;
      if (lastValid) last = scratch[n - 1];
    }
  } else {
    st = kvtcp_TakeBytes(intf, timeout, buf, (int)remaining, true, &n);
    left = remaining - (uint32_t)n;
    if (n > 0) {
      lastValid = true;
      last = buf[n - 1];
    }
  }
  *retcount = n;
  if (st < 0) {
    kvtcp_syncLeft = {KvSyncLeft::kBytes, left};
    in->msg = 0;
    ReleaseIntfLock(intf);
    KVTCP_LOG("recv s%X error %X wsa %d\n", intf->S_Core, (unsigned)st, errno);
    return st;
  }

  // What really is still on the wire (the padding rule above makes the
  // header's count differ from it).
  kvtcp_syncLeft = {KvSyncLeft::kBytes, left};
  int result = 0;
  in->dataLen = remaining - (uint32_t)n;
  if (in->dataLen == 0) {
    if (in->msg == HISLIP_DataEnd)
      result = 2;
    else if ((flags & KVTCP_FLAG_EOS) && lastValid && last == eos)
      result = 1;
    in->msg = 0;
  }
  if (!(flags & KVTCP_FLAG_KEEP)) ReleaseIntfLock(intf);
  return result;
}

int kvtcp_hislip_ReadSTB(pKvTcpInfo intf, ViUInt32 tmo, ViUInt16* stb) {
  int st = sendAsync(intf, HISLIP_AsyncStatusQuery, wireSwap32(nextMessageId(intf)));
  if (st < 0) return st;
  int i = pollAsync(intf, tmo, HISLIP_AsyncStatusResponse);
  if (i < 0) return VI_ERROR_TMO;
  ViUInt16 v = takenCode(intf, i);
  if (stb) *stb = v;
  freeSlot(intf, i);
  return VI_SUCCESS;
}

int kvtcp_hislip_Clear(pKvTcpInfo intf, ViUInt32 tmo) {
  // The whole clear is one exchange; stale answers go first, or the
  // acknowledgement would be looked for among them.
  KvExchangeGuard x(intf);
  int st = x.resync(intf);
  if (st < 0) return st;
  st = sendAsync(intf, HISLIP_AsyncDeviceClear, 0);
  if (st < 0) return st;
  int i = pollAsync(intf, tmo, HISLIP_AsyncDeviceClearAcknowledge);
  if (i < 0) return VI_ERROR_TMO;
  signed char feature = (signed char)takenCode(intf, i);
  // Every answer still waiting belongs to the time before the clear.
  for (int k = 0; k < KVTCP_ASYNC_SLOTS; k++) freeSlot(intf, k);

  sHiSPLIP_Header h, r;
  memset(&h, 0, sizeof h);
  memset(&r, 0, sizeof r);
  h.msg = HISLIP_DeviceClearComplete;
  h.code = feature;
  st = WaitIntfLock(intf);
  if (st < 0) return st;
  st = hislip_Query(intf->S_Core, tmo, &h, 0, nullptr, &r);
  ReleaseIntfLock(intf);
  if (st < 0) return st;
  if (r.msg != HISLIP_DeviceClearAcknowledge) return VI_ERROR_CONN_LOST;
  resetMessageId(intf);
  // A message that was being read when the clear came is abandoned.
  intf->hislipInHdr.msg = 0;
  x.forgetHeld();
  return VI_SUCCESS;
}
