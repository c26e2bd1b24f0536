// Socket primitives: every byte the transport moves passes through here.
// They turn socket results into VISA status codes, put a millisecond time-out
// on every wait, and retry a send or receive that fails for lack of buffers.
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <poll.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include "kvlog.h"
#include "kvtcp_internal.h"
#include "visa-ipc.h"

int global_var = 1;

ssize_t (*kvtcp_sys_send)(int, const void*, size_t, int) = send;
ssize_t (*kvtcp_sys_recv)(int, void*, size_t, int) = recv;
void (*kvtcp_sys_delay_ms)(ViUInt64) = util_delay_ms;

namespace {
constexpr int kSegment = 1460;  // one Ethernet TCP segment
constexpr int kTail = 128;

void logSocketFlags(const char* func, SOCKET s, int r) {
  int fl = fcntl(s, F_GETFL, 0);
  int fdfl = fcntl(s, F_GETFD, 0);
  pkvFRSpyLog(2, 0x4000, "%s: socket = %d r = %d nonblock = 0x%X fd_flags = 0x%X\n", func, s, r,
              fl & O_NONBLOCK, fdfl);
}
// Pause between the empty reads of a closed peer: short against any
// time-out, long enough not to load the processor.
constexpr ViUInt64 kEmptyReadPauseMs = 5;

bool bothWaysShut(SOCKET s) {
  struct pollfd p;
  p.fd = s;
  p.events = POLLIN;
  p.revents = 0;
  return poll(&p, 1, 0) == 1 && (p.revents & (POLLHUP | POLLNVAL));
}

}  // namespace

// Waits for input with poll rather than select, so descriptors above 1023
// work too; the read and exceptional conditions of select map to POLLIN and
// POLLPRI (errors and hang-ups are reported as ready, as select does).
int CheckForRecv(SOCKET s, ViUInt32 tmo) {
  struct pollfd p;
  p.fd = s;
  p.events = POLLIN | POLLPRI;
  p.revents = 0;
  errno = 0;
  int r = poll(&p, 1, tmo > (ViUInt32)INT_MAX ? INT_MAX : (int)tmo);
  if (r == 1 && (p.revents & POLLNVAL)) r = -1;  // select would fail with EBADF
  if (r == 1) {
    // Cleared by exactly one thread, so the line is written once.
    if (kvLoad(global_var) && __atomic_exchange_n(&global_var, 0, __ATOMIC_RELAXED)) logSocketFlags(__func__, s, r);
    return 1;
  }
  int saved = errno;
  logSocketFlags(__func__, s, r);
  errno = saved;
  return 0;
}

namespace {
int sendAllFlags(SOCKET s, const char* buf, int len, int flags, int* nWrite) {
  int dummy;
  if (!nWrite) nWrite = &dummy;
  *nWrite = 0;
  int retry = 0;
  for (;;) {
    ssize_t r = kvtcp_sys_send(s, buf, len > 0 ? (size_t)len : 0, MSG_NOSIGNAL | flags);
    if (r != -1) {
      *nWrite += (int)r;
      buf += r;
      len -= (int)r;
      retry = 0;
      if (len <= 0) return VI_SUCCESS;
      continue;
    }
    int err = errno;
    if (err == EINTR) continue;  // a signal is not a broken connection
    KVTCP_RLOG("%s: send errno = 0x%X socket = %d\n", err, s);
    if (err == ENOBUFS && ++retry <= 3) {
      kvtcp_sys_delay_ms(1);
      continue;
    }
    return VI_ERROR_CONN_LOST;
  }
}
}  // namespace

int sendAll(SOCKET s, const char* buf, int len, int* nWrite) { return sendAllFlags(s, buf, len, 0, nWrite); }

int sendAllMore(SOCKET s, const char* buf, int len, int* nWrite) {
  return sendAllFlags(s, buf, len, MSG_MORE, nWrite);
}

// A peer that has closed makes every wait succeed at once with an empty
// read.  Empty reads are still taken as "wait again", but once they have
// gone on for longer than the time-out the connection counts as lost, and
// meanwhile the loop sleeps between tries instead of burning a core.  A
// socket shut down in both directions (this side closed it, e.g. a
// disconnect from another thread) can never deliver again: lost at once.
int recvMin(SOCKET s, ViUInt32 tmo, char* buf, int len, int minlen, int* nRead) {
  int dummy;
  if (!nRead) nRead = &dummy;
  *nRead = 0;
  if (len <= 0) return VI_SUCCESS;
  if (minlen > len) minlen = len;  // never wait for bytes the buffer cannot hold
  int remaining = len;
  int retry = 0;
  ViUInt64 emptySince = 0;
  bool empty = false;
  for (;;) {
    if (!CheckForRecv(s, tmo)) {
      KVTCP_RLOG("%s: CheckForRecv error TMO = %d errno = 0x%X socket = %d len = %d, len_copy = %d, minlen = %d\n",
                 (int)tmo, errno, s, remaining, len, minlen);
      return VI_ERROR_TMO;
    }
    ssize_t r = kvtcp_sys_recv(s, buf, (size_t)remaining, 0);
    if (r != -1) {
      if (r == 0) {
        ViUInt64 now = util_timer_ms();
        if (!empty) {
          empty = true;
          emptySince = now;
        }
        if (now - emptySince > tmo || bothWaysShut(s)) {
          KVTCP_RLOG("%s: recv errno = 0x%X socket\n", ECONNRESET, s);
          return VI_ERROR_CONN_LOST;
        }
        util_delay_ms(kEmptyReadPauseMs);
      } else {
        empty = false;
      }
      *nRead += (int)r;
      buf += r;
      remaining -= (int)r;
      retry = 0;
    } else {
      int err = errno;
      if (err == EINTR) continue;
      if (err == ENOBUFS && ++retry <= 2) {
        kvtcp_sys_delay_ms(1);
        continue;
      }
      KVTCP_RLOG("%s: recv errno = 0x%X socket\n", err, s);
      return VI_ERROR_CONN_LOST;
    }
    if (*nRead >= minlen) return VI_SUCCESS;
  }
}

int recvResp(SOCKET s, ViUInt32 tmo, char* buf, int len, int* nRead) {
  if (nRead) *nRead = 0;
  return recvMin(s, tmo, buf, len, 28, nRead);
}

// Drains what the peer sent and hands back the last minlen bytes of the final
// segment.  Only for short replies: the tail never spans segments.
int recvExact(SOCKET s, ViUInt32 tmo, char* buf, int minlen, int* nRead) {
  int dummy;
  if (!nRead) nRead = &dummy;
  *nRead = 0;
  if (minlen < 0) minlen = 0;
  char chunk[kSegment];
  char tail[kTail];
  int tailLen = 0;
  if (!CheckForRecv(s, tmo)) {
    KVTCP_LOG("recv s%X error TMO\n", s);
    return VI_ERROR_TMO;
  }
  auto takeSegment = [&](ssize_t r) {
    if (r <= kTail) {
      memcpy(tail, chunk, (size_t)r);
      tailLen = (int)r;
    } else {
      memcpy(tail, chunk + r - kTail, kTail);
      tailLen = kTail;
    }
  };
  ssize_t r = kvtcp_sys_recv(s, chunk, kSegment, 0);
  if (r == -1) {
    KVTCP_LOG("recv s%X error %d\n", s, errno);
    return VI_ERROR_CONN_LOST;
  }
  takeSegment(r);
  *nRead = tailLen;
  for (;;) {
    if (!CheckForRecv(s, 0)) {
      if (tailLen < minlen) return VI_ERROR_IO;
      *nRead = minlen;
      memcpy(buf, tail + tailLen - minlen, (size_t)minlen);
      return VI_SUCCESS;
    }
    r = kvtcp_sys_recv(s, chunk, kSegment, 0);
    if (r == -1) {
      KVTCP_LOG("recv s%X error %d\n", s, errno);
      return VI_ERROR_CONN_LOST;
    }
    if (r == 0) {
      // The peer closed: nothing more will come, so finish with what is here
      // rather than polling a closed socket for ever.
      if (tailLen < minlen) return VI_ERROR_IO;
      *nRead = minlen;
      memcpy(buf, tail + tailLen - minlen, (size_t)minlen);
      return VI_SUCCESS;
    }
    takeSegment(r);
    *nRead += tailLen;
  }
}

void recvClear(SOCKET s) {
  char scratch[kSegment];
  for (;;) {
    if (!CheckForRecv(s, 0)) return;
    memset(scratch, 0, 8);
    ssize_t r = kvtcp_sys_recv(s, scratch, kSegment, 0);
    KVTCP_RLOG("%s: nRet = %d\n", (int)r);
    uint32_t w0, w1;
    memcpy(&w0, scratch, 4);
    memcpy(&w1, scratch + 4, 4);
    KVTCP_LOG("recv s%X %d, %08X %08X\n", s, (int)r, w0, w1);
    if (r <= 0) return;
  }
}

// One send of maxlen bytes from header + data joined.  maxlen is bounded by
// the joined size, so a caller's larger count never sends stray memory.
int SendHdrData(SOCKET s, const void* hdr, int hdrsize, const void* buf, int bsize, int maxlen) {
  if (hdrsize < 0) hdrsize = 0;
  if (bsize < 0 || !buf) bsize = 0;
  size_t total = (size_t)hdrsize + (size_t)bsize;
  char* joined = (char*)malloc(total ? total : 1);
  if (!joined) return VI_ERROR_ALLOC;
  if (hdrsize) memcpy(joined, hdr, (size_t)hdrsize);
  if (bsize) memcpy(joined + hdrsize, buf, (size_t)bsize);
  size_t n = maxlen < 0 ? 0 : (size_t)maxlen;
  if (n > total) n = total;
  ssize_t r = kvtcp_sys_send(s, joined, n, MSG_NOSIGNAL);
  free(joined);
  if (r == -1) {
    KVTCP_LOG("send s%X error %d\n", s, (int)r);
    return VI_ERROR_CONN_LOST;
  }
  return VI_SUCCESS;
}

// recvMin for bytes that are most likely queued already (the payload of a
// message whose header was just read): takes them without a wait first,
// which saves one system call per exchange, and waits only for the rest.
int recvMinQueued(SOCKET s, ViUInt32 tmo, char* buf, int len, int minlen, int* nRead) {
  int dummy;
  if (!nRead) nRead = &dummy;
  *nRead = 0;
  if (len <= 0) return VI_SUCCESS;
  if (minlen > len) minlen = len;
  ssize_t r = kvtcp_sys_recv(s, buf, (size_t)len, MSG_DONTWAIT);
  if (r <= 0) return recvMin(s, tmo, buf, len, minlen, nRead);
  if (r >= minlen) {
    *nRead = (int)r;
    return VI_SUCCESS;
  }
  int more = 0;
  int st = recvMin(s, tmo, buf + r, len - (int)r, minlen - (int)r, &more);
  *nRead = (int)r + more;
  return st;
}
