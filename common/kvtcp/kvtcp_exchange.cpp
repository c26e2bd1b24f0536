// Exchanges on a connection's synchronous channel: one command out, its
// answer in, never interleaved with another thread's, and never followed by
// an exchange that could take a stale answer for its own.
//
// The connection record's layout is fixed (hosts allocate it), so what this
// needs lives beside the record, in a table keyed by its address.
#include <errno.h>
#include <poll.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>

#include <atomic>
#include <mutex>
#include <unordered_map>

#include "kvlog.h"
#include "kvtcp_internal.h"
#include "visa-ipc.h"

thread_local KvSyncLeft kvtcp_syncLeft;

struct KvExchange {
  // A recursive lock made of a plain mutex and its owner: the nested guards
  // of one exchange (command, answer, the driver around them) then cost a
  // comparison each instead of a lock and an unlock.
  std::mutex lock;
  std::atomic<const void*> owner{nullptr};  // the owning thread's marker, or null
  int depth = 0;            // nesting of the owning thread's guards
  uint32_t owed = 0;        // whole answers still to come that nobody will read
  uint64_t skip = 0;        // unread bytes of a message already begun
  bool lost = false;        // the message framing is lost: only a new session helps
  bool abandon = false;     // the answer in progress belongs to an exchange that is over
  char* buf = nullptr;      // scratch for joined commands and long answers, grown on demand
  size_t cap = 0;
  // Plain messages that bridge commands met on the channel, oldest first,
  // waiting for the plain reader: the rest of one a plain read had begun, and
  // instrument answers that came late.  Each keeps its header and the bytes
  // still to read, from bytes + pos to bytes + len.
  struct Held {
    sHiSPLIP_Header hdr;
    char* bytes;
    uint32_t len, pos;
  } held[8];
  int heldCount = 0;
  bool heldCurrent = false;  // held[0] is the record's message in progress
  bool awaiting = false;     // a bridge command went out; its answer is next
};

namespace {

// How long an out-of-step connection may take to deliver what it still owes
// before it is given up: the bridge commands' own transport time-out.
constexpr ViUInt64 kResyncMs = 2000;

// The longest plain message held in memory for its reader; a longer one,
// or more of them than the FIFO takes, costs the session instead.
constexpr uint32_t kHeldMax = 16u << 20;
constexpr int kHeldSlots = (int)(sizeof(KvExchange::held) / sizeof(KvExchange::held[0]));

void dropHeld(KvExchange* x) {
  for (int i = 0; i < x->heldCount; i++) free(x->held[i].bytes);
  x->heldCount = 0;
  x->heldCurrent = false;
}

void popHeld(KvExchange* x) {
  free(x->held[0].bytes);
  for (int i = 1; i < x->heldCount; i++) x->held[i - 1] = x->held[i];
  x->heldCount--;
  x->heldCurrent = false;
}

std::mutex g_tableMutex;

// Never destroyed: a record may be used by detached threads while the
// process runs its exit handlers.  Entries live as long as the process (one
// small entry per record address ever used); a record reused at the same
// address starts from a clean state at its next connect.
std::unordered_map<const KvTcpInfo*, KvExchange*>& table() {
  static auto* t = new std::unordered_map<const KvTcpInfo*, KvExchange*>;
  return *t;
}

KvExchange* exchangeOf(const KvTcpInfo* intf) {
  // Entries are never removed, so the thread's last look-up stays valid:
  // the nested guards of one exchange cost no lock of the table.
  static thread_local const KvTcpInfo* lastKey = nullptr;
  static thread_local KvExchange* lastX = nullptr;
  if (intf == lastKey) return lastX;
  std::lock_guard<std::mutex> g(g_tableMutex);
  auto& t = table();
  auto it = t.find(intf);
  KvExchange* x;
  if (it != t.end()) {
    x = it->second;
  } else {
    x = new KvExchange;
    t.insert(std::make_pair(intf, x));
  }
  lastKey = intf;
  lastX = x;
  return x;
}

// Waits until s has input or the deadline passes.  False on time-out.
bool waitInput(SOCKET s, ViUInt64 deadline) {
  for (;;) {
    ViUInt64 now = util_timer_ms();
    if (now >= deadline) return false;
    struct pollfd p;
    p.fd = s;
    p.events = POLLIN;
    p.revents = 0;
    int r = poll(&p, 1, (int)(deadline - now));
    if (r > 0) return !(p.revents & POLLNVAL);
    if (r < 0 && errno != EINTR) return false;
  }
}

// Reads and throws away n bytes.  False when they do not come in time or the
// channel fails or closes.
bool discard(SOCKET s, uint64_t n, ViUInt64 deadline) {
  char scratch[4096];
  while (n > 0) {
    if (!waitInput(s, deadline)) return false;
    size_t want = n < sizeof scratch ? (size_t)n : sizeof scratch;
    ssize_t r = recv(s, scratch, want, 0);
    if (r < 0 && errno == EINTR) continue;
    if (r <= 0) return false;
    n -= (uint64_t)r;
  }
  return true;
}

// Reads exactly n bytes into buf.
bool readExact(SOCKET s, void* buf, size_t n, ViUInt64 deadline) {
  size_t got = 0;
  while (got < n) {
    if (!waitInput(s, deadline)) return false;
    ssize_t r = recv(s, (char*)buf + got, n - got, 0);
    if (r < 0 && errno == EINTR) continue;
    if (r <= 0) return false;
    got += (size_t)r;
  }
  return true;
}

// Reads the payload of the plain message whose header h was just read and
// queues it for the plain reader.  False when it does not come in time, is
// too long, or the FIFO is full.
bool holdFromWire(KvExchange* x, SOCKET s, const sHiSPLIP_Header& h, ViUInt64 deadline) {
  uint32_t n = h.dataLen;
  if (x->heldCount == kHeldSlots || n > kHeldMax) return false;
  char* bytes = (char*)malloc(n ? n : 1);
  if (!bytes || !readExact(s, bytes, n, deadline)) {
    free(bytes);
    return false;
  }
  x->held[x->heldCount++] = KvExchange::Held{h, bytes, n, 0};
  return true;
}

bool isPlain(const sHiSPLIP_Header& h) { return h.msg == HISLIP_Data || h.msg == HISLIP_DataEnd; }

}  // namespace

namespace {
// Any address unique to the thread serves as its marker.
thread_local char g_threadMarker;
}  // namespace

KvExchangeGuard::KvExchangeGuard(pKvTcpInfo intf) : x_(exchangeOf(intf)) {
  const void* me = &g_threadMarker;
  // Only this thread can have stored its own marker, so seeing it means
  // this thread holds the lock already.
  if (x_->owner.load(std::memory_order_relaxed) != me) {
    x_->lock.lock();
    x_->owner.store(me, std::memory_order_relaxed);
  }
  x_->depth++;
}

KvExchangeGuard::~KvExchangeGuard() {
  if (--x_->depth == 0) {
    x_->awaiting = false;
    x_->owner.store(nullptr, std::memory_order_relaxed);
    x_->lock.unlock();
  }
}

bool KvExchangeGuard::outermost() const { return x_->depth == 1; }

void KvExchangeGuard::reset() {
  x_->owed = 0;
  x_->skip = 0;
  x_->lost = false;
  x_->abandon = false;
  dropHeld(x_);
}

// Resynchronisation.  Every bridge command is answered by exactly one HiSLIP
// message, so the channel's position is known exactly: how many answers are
// still owed and how much of a begun message is unread.  Those are read and
// dropped here, framed by their headers, within kResyncMs.  A drain keeps a
// slow bridge usable (its late answer is simply skipped), while a device
// clear would depend on the bridge's clear support and a reconnect would cost
// every late answer the whole session.  Only when the owed answers do not
// come in time, or the framing itself is lost (a header cut short or
// broken), is the session given up: it is disconnected and the call gets
// VI_ERROR_CONN_LOST, upon which the host reopens the interface as designed.
int KvExchangeGuard::resync(pKvTcpInfo intf) {
  if (!outermost()) return VI_SUCCESS;
  if (x_->abandon) {
    intf->hislipInHdr.msg = 0;
    x_->abandon = false;
  }
  if (!x_->owed && !x_->skip && !x_->lost) return VI_SUCCESS;
  SOCKET s = intf->S_Core;
  ViUInt64 deadline = util_timer_ms() + kResyncMs;
  bool ok = !x_->lost && s > 0;
  if (ok && x_->skip) {
    ok = discard(s, x_->skip, deadline);
    if (ok) x_->skip = 0;
  }
  while (ok && x_->owed) {
    sHiSPLIP_Header h;
    ok = readExact(s, &h, sizeof h, deadline) && h.Prologue[0] == 'H' && h.Prologue[1] == 'S' && h.dataLenHigh == 0;
    if (!ok) break;
    h.dataLen = wireSwap32(h.dataLen);
    // Bridge answers are vendor-specific messages; an instrument's answer
    // that came late in between is kept for its reader.
    if (isPlain(h)) {
      ok = holdFromWire(x_, s, h, deadline);
      continue;
    }
    x_->owed--;
    ok = discard(s, h.dataLen, deadline);
  }
  if (ok) {
    KVTCP_LOG("stale answer dropped");
    return VI_SUCCESS;
  }
  KVTCP_LOG("out of step, session given up");
  kvtcp_Disconnect(intf);
  reset();
  return VI_ERROR_CONN_LOST;
}

void KvExchangeGuard::ended(pKvTcpInfo intf, int status) {
  sHiSPLIP_Header* in = &intf->hislipInHdr;
  if (status >= 0) {
    // An answer longer than the caller's buffer: its rest is nobody's.  The
    // message stays "in progress" for the caller to see until the next
    // exchange; what is really left on the wire is what the read says.
    if (in->msg != 0) {
      if (kvtcp_syncLeft.state == KvSyncLeft::kBytes) x_->skip += kvtcp_syncLeft.bytes;
      x_->abandon = true;
    }
    return;
  }
  switch (kvtcp_syncLeft.state) {
    case KvSyncLeft::kWhole: x_->owed++; break;
    case KvSyncLeft::kBytes: x_->skip += kvtcp_syncLeft.bytes; break;
    case KvSyncLeft::kLost: x_->lost = true; break;
    default: break;
  }
}

void KvExchangeGuard::sendFailed() { x_->lost = true; }

// A plain read owes nothing when no message came (there may be none to
// come), but one cut short leaves a known rest on the channel, where the
// next read would take it for a header.  A broken header is left as it is:
// the read already reported the lost connection, and the host reopens.
void KvExchangeGuard::plainReadEnded(int status) {
  if (outermost() && status < 0 && kvtcp_syncLeft.state == KvSyncLeft::kBytes) x_->skip += kvtcp_syncLeft.bytes;
}

// A message an exchange left half-read is that exchange's (abandon): the
// next resynchronisation drops it.  Any other message in progress is a
// plain reader's.  It goes to the front of the FIFO: it is older than
// anything still on the channel.
int KvExchangeGuard::setAside(pKvTcpInfo intf) {
  sHiSPLIP_Header* in = &intf->hislipInHdr;
  if (in->msg == 0 || x_->abandon) return VI_SUCCESS;
  if (x_->heldCurrent) {  // still in memory: only its place changes
    x_->held[0].hdr = *in;
    x_->heldCurrent = false;
    in->msg = 0;
    return VI_SUCCESS;
  }
  // A plain read starts from the FIFO while it holds anything, so a message
  // begun on the channel means the FIFO is empty here.
  if (x_->heldCount > 0 || !holdFromWire(x_, intf->S_Core, *in, util_timer_ms() + kResyncMs)) {
    KVTCP_LOG("rest of a message in progress did not come, session given up");
    kvtcp_Disconnect(intf);
    reset();
    return VI_ERROR_CONN_LOST;
  }
  in->msg = 0;
  return VI_SUCCESS;
}

void KvExchangeGuard::resumeHeld(pKvTcpInfo intf) {
  if (!x_->heldCount || x_->heldCurrent || !outermost() || intf->hislipInHdr.msg != 0) return;
  intf->hislipInHdr = x_->held[0].hdr;
  x_->heldCurrent = true;
}

void KvExchangeGuard::forgetHeld() { dropHeld(x_); }

void KvExchangeGuard::commandSent() { x_->awaiting = true; }

int kvtcp_TakeBytes(pKvTcpInfo intf, ViUInt32 timeout, char* buf, int len, bool queued, int* n) {
  KvExchange* x = exchangeOf(intf);
  if (!x->heldCurrent)
    return queued ? recvMinQueued(intf->S_Core, timeout, buf, len, len, n)
                  : recvMin(intf->S_Core, timeout, buf, len, len, n);
  KvExchange::Held& h = x->held[0];
  uint32_t avail = h.len - h.pos;
  uint32_t take = len < 0 ? 0 : ((uint32_t)len < avail ? (uint32_t)len : avail);
  memcpy(buf, h.bytes + h.pos, take);
  h.pos += take;
  if (h.pos == h.len) popHeld(x);
  *n = (int)take;
  return VI_SUCCESS;
}

int kvtcp_AnswerHeader(pKvTcpInfo intf, const sHiSPLIP_Header* h) {
  KvExchange* x = exchangeOf(intf);
  if (!x->awaiting || !isPlain(*h)) {
    x->awaiting = false;
    return 0;
  }
  return holdFromWire(x, intf->S_Core, *h, util_timer_ms() + kResyncMs) ? 1 : -1;
}

// Grows to the largest size asked for and stays there: a connection that
// moves blocks keeps one chunk's worth (64 KiB and a little) for its life.
char* KvExchangeGuard::buffer(size_t n) {
  if (n > x_->cap) {
    char* b = (char*)realloc(x_->buf, n);
    if (!b) return nullptr;
    x_->buf = b;
    x_->cap = n;
  }
  return x_->buf;
}
