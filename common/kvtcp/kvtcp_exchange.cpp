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
  // A plain read's message set aside by a bridge command (null: none): its
  // header, and the bytes still to read from held + heldPos to heldLen.
  char* held = nullptr;
  uint32_t heldLen = 0, heldPos = 0;
  sHiSPLIP_Header heldHdr{};
  bool heldCurrent = false;  // the held message is the record's message in progress
};

namespace {

// How long an out-of-step connection may take to deliver what it still owes
// before it is given up: the bridge commands' own transport time-out.
constexpr ViUInt64 kResyncMs = 2000;

// The longest rest of a plain read's message that is held in memory when a
// bridge command interrupts it; a longer one costs the session instead.
constexpr uint32_t kHeldMax = 16u << 20;

void dropHeld(KvExchange* x) {
  free(x->held);
  x->held = nullptr;
  x->heldLen = x->heldPos = 0;
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
    x_->owed--;
    ok = discard(s, wireSwap32(h.dataLen), deadline);
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
  if (status < 0 && kvtcp_syncLeft.state == KvSyncLeft::kBytes) x_->skip += kvtcp_syncLeft.bytes;
}

// A message an exchange left half-read is that exchange's (abandon): the
// next resynchronisation drops it.  Any other message in progress is a
// plain reader's.
int KvExchangeGuard::setAside(pKvTcpInfo intf) {
  sHiSPLIP_Header* in = &intf->hislipInHdr;
  if (in->msg == 0 || x_->abandon) return VI_SUCCESS;
  if (x_->heldCurrent) {  // still in memory: only its place changes
    x_->heldHdr = *in;
    x_->heldCurrent = false;
    in->msg = 0;
    return VI_SUCCESS;
  }
  uint32_t n = in->dataLen;
  char* rest = n <= kHeldMax ? (char*)malloc(n ? n : 1) : nullptr;
  bool ok = rest && readExact(intf->S_Core, rest, n, util_timer_ms() + kResyncMs);
  if (!ok) {
    free(rest);
    KVTCP_LOG("rest of a message in progress did not come, session given up");
    kvtcp_Disconnect(intf);
    reset();
    return VI_ERROR_CONN_LOST;
  }
  x_->held = rest;
  x_->heldLen = n;
  x_->heldPos = 0;
  x_->heldHdr = *in;
  in->msg = 0;
  return VI_SUCCESS;
}

void KvExchangeGuard::resumeHeld(pKvTcpInfo intf) {
  if (!x_->held || x_->heldCurrent || !outermost() || intf->hislipInHdr.msg != 0) return;
  intf->hislipInHdr = x_->heldHdr;
  x_->heldCurrent = true;
}

void KvExchangeGuard::forgetHeld() { dropHeld(x_); }

int kvtcp_TakeHeld(pKvTcpInfo intf, char* buf, int n) {
  KvExchange* x = exchangeOf(intf);
  if (!x->heldCurrent) return -1;
  uint32_t avail = x->heldLen - x->heldPos;
  uint32_t take = n < 0 ? 0 : ((uint32_t)n < avail ? (uint32_t)n : avail);
  memcpy(buf, x->held + x->heldPos, take);
  x->heldPos += take;
  if (x->heldPos == x->heldLen) dropHeld(x);
  return (int)take;
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
