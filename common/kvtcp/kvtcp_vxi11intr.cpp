// VXI-11 interrupt channel: one thread per connection listens, has the
// device create the channel (CREATE_INTR_CHAN), accepts the device's
// connection back and hands every service request that carries this
// connection's handle to the event handler.  EnableEvents gives the device
// that handle.
#include <arpa/inet.h>
#include <errno.h>
#include <poll.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include "kvlog.h"
#include "kvtcp_internal.h"
#include "rpc_vxi11.h"
#include "visa-ipc.h"

uint64_t vxi11_InterruptID = 0x0123456789ABCDEFull;

namespace {

// Longest interrupt call taken apart; anything longer is skipped unread.
constexpr uint32_t kMaxIntrRecord = 4096;

uint32_t beWord(const unsigned char* p) {
  return ((uint32_t)p[0] << 24) | ((uint32_t)p[1] << 16) | ((uint32_t)p[2] << 8) | p[3];
}

bool isConnected(pKvTcpInfo intf) { return __atomic_load_n(&intf->Connected, __ATOMIC_ACQUIRE) != 0; }

// True while the record's S_Intr still is the channel this thread accepted.
bool sameChannel(pKvTcpInfo intf, dev_t dev, ino_t ino) { return kvtcp_SocketFieldIs(&intf->S_Intr, dev, ino); }

// One complete interrupt call (record mark stripped off): compare the
// handle it carries with ours and call the handler on a match.
void handleSrq(pKvTcpInfo intf, const unsigned char* rec, uint32_t len) {
  // Offsets 44 and 48 of the message count the record mark.
  const uint32_t sizeAt = offsetof(Device_SrqParms, size) - 4;
  const uint32_t handleAt = offsetof(Device_SrqParms, handle) - 4;
  bool match = false;
  if (len >= sizeAt + 4) {
    uint32_t hlen = beWord(rec + sizeAt);
    match = hlen >= 1 && hlen <= VXI11_HANDLE_SIZE && handleAt + hlen <= len &&
            memcmp(rec + handleAt, intf->intr_handle, hlen) == 0;
  }
  if (match) {
    KVTCP_LOG("SRQ %s", intf->TcpipAddr);
    kvtcpEventHandler cb = kvLoad(user_callback);
    if (cb) cb(intf);
  } else {
    KVTCP_LOG("wrong answ srq_repl");
  }
}

// Receives the device's interrupt calls until the record is disconnected
// or the channel fails.  No reply is sent: the device does not wait for one.
void receiveLoop(pKvTcpInfo intf, int fd, dev_t dev, ino_t ino) {
  // Calls may arrive split or several in one segment: they are cut out of
  // a stream buffer by their record marks.
  unsigned char stream[kMaxIntrRecord + 4 + 256];
  size_t have = 0;
  uint32_t skip = 0;  // bytes of an oversized call still to be thrown away
  while (isConnected(intf) && sameChannel(intf, dev, ino)) {
    unsigned char chunk[256];
    memset(chunk, 0, sizeof chunk);
    ssize_t r = recv(fd, chunk, sizeof chunk, 0);
    if (!isConnected(intf)) return;
    if (r < 0) {
      if (errno == EINTR) continue;
      KVTCP_LOG("error recv srq_repl");
      return;
    }
    if (r == 0) {
      // The device closed its end.  The channel still counts until the
      // record is disconnected, but waiting for that must not spin.
      while (isConnected(intf) && sameChannel(intf, dev, ino)) util_delay_ms(20);
      return;
    }
    size_t off = 0;
    if (skip) {
      size_t n = (size_t)r < skip ? (size_t)r : skip;
      skip -= (uint32_t)n;
      off = n;
    }
    memcpy(stream + have, chunk + off, (size_t)r - off);
    have += (size_t)r - off;
    while (have >= 4) {
      uint32_t len = beWord(stream) & ~RPC_LAST_FRAGMENT;
      if (len > kMaxIntrRecord) {
        size_t n = have - 4;
        skip = len - (uint32_t)(n < len ? n : len);
        have = 0;
        break;
      }
      if (have < 4 + len) break;
      handleSrq(intf, stream + 4, len);
      memmove(stream, stream + 4 + len, have - 4 - len);
      have -= 4 + len;
    }
  }
}

}  // namespace

void* vxi11InterruptConn(void* X) {
  pKvTcpInfo intf = (pKvTcpInfo)X;
  bool coreHeld = false;
  int lsn = kvtcp_NewSocket();
  int mine = -1;  // the thread's own duplicate of the accepted channel
  dev_t dev = 0;
  ino_t ino = 0;
  do {
    if (lsn == 0xFFFF || lsn < 0) {
      if (lsn == 0xFFFF) kvtcp_CloseSocket(lsn);
      lsn = -1;
      break;
    }
    struct sockaddr_in a;
    memset(&a, 0, sizeof a);
    a.sin_family = AF_INET;
    a.sin_addr = intf->myAddr.sin_addr;
    a.sin_port = 0;
    if (bind(lsn, (struct sockaddr*)&a, sizeof a) != 0) {
      KVTCP_LOG("bind Error\n");
      break;
    }
    socklen_t len = sizeof a;
    if (getsockname(lsn, (struct sockaddr*)&a, &len) != 0) break;
    char text[INET_ADDRSTRLEN] = "";
    inet_ntop(AF_INET, &a.sin_addr, text, sizeof text);
    uint16_t port = myhtons(a.sin_port);
    KVTCP_LOG("listen %s:%d\n", text, (int)port);
    if (listen(lsn, 128) != 0) break;
    if (intf->S_Core == 0) break;

    WaitCoreLock(intf);
    coreHeld = true;
    KVTCP_LOG("start CreateIntrChan\n");
    __atomic_store_n(&intf->intr_port, port, __ATOMIC_RELEASE);

    Device_RemoteFunc rf;
    memset(&rf, 0, sizeof rf);
    memcpy(&rf.hostAddr, &intf->myAddr.sin_addr.s_addr, 4);
    rf.hostPort = myhtonl(port);
    rf.progNum = myhtonl(DEVICE_INTR_PROG);
    rf.progVers = myhtonl(DEVICE_INTR_VERS);
    rf.progFamily = myhtonl(DEVICE_TCP);
    alignas(8) char reply[256];
    int nRead = 0;
    int32_t error = -1;
    if (vxi11CoreRequest(intf->S_Core, VXI11_CREATE_INTR_CHAN, 1000, &rf, sizeof rf, reply, sizeof reply,
                         &nRead) >= 0) {
      uint32_t w;
      memcpy(&w, reply + offsetof(Device_Error, error), 4);
      error = (int32_t)myntohl(w);
    }
    if (error != 0) {
      KVTCP_LOG("my_resp.error=%d", error);
      break;
    }

    KVTCP_LOG("Waiting for client to connect...\n");
    if (!CheckForRecv(lsn, 2000)) break;
    int s = kvtcp_AcceptSocket(lsn);
    if (s == 0xFFFF) {
      kvtcp_CloseSocket(s);
      break;
    }
    if (s < 0) break;
    mine = kvtcp_DupSocket(s);
    struct stat sb;
    if (mine < 0 || fstat(mine, &sb) != 0) {
      kvtcp_CloseSocket(s);
      break;
    }
    dev = sb.st_dev;
    ino = sb.st_ino;
    __atomic_store_n(&intf->S_Intr, s, __ATOMIC_RELEASE);
    kvtcp_CloseSocket(lsn);
    lsn = -1;
    KVTCP_LOG("Client connected.\n");
    ReleaseCoreLock(intf);
    coreHeld = false;

    receiveLoop(intf, mine, dev, ino);
  } while (false);

  __atomic_store_n(&intf->intr_port, (uint16_t)0xFFFF, __ATOMIC_RELEASE);
  if (coreHeld) ReleaseCoreLock(intf);
  KVTCP_LOG("close intr socket");
  // Close the record's field only while it still is the accepted channel
  // (the duplicate keeps its identity from being reused meanwhile).
  if (mine >= 0) {
    kvtcp_CloseSocketFieldIfSame(&intf->S_Intr, dev, ino);
    kvtcp_CloseSocket(mine);
  }
  if (lsn >= 0) kvtcp_CloseSocket(lsn);
  return nullptr;
}

int kvtcp_vxi11_EnableEvents(pKvTcpInfo intf) {
  if (!intf) return VI_ERROR_CONN_LOST;
  Device_EnableSrqParms p;
  memset(&p, 0, sizeof p);
  p.lid = myhtonl(intf->lid);
  p.enable = (int32_t)myhtonl(1);
  p.size = myhtonl(VXI11_HANDLE_SIZE);
  uint64_t id = __atomic_fetch_add(&vxi11_InterruptID, 1, __ATOMIC_RELAXED);
  memcpy(p.handle, &id, sizeof id);  // host byte order, then 32 zero bytes
  memcpy(intf->intr_handle, p.handle, VXI11_HANDLE_SIZE);
  int st = WaitCoreLock(intf);
  if (st < 0) return st;
  alignas(8) char reply[256];
  int nRead = 0;
  st = vxi11CoreRequest(intf->S_Core, VXI11_ENABLE_SRQ, 1000, &p, sizeof p, reply, sizeof reply, &nRead);
  ReleaseCoreLock(intf);
  return st;
}
