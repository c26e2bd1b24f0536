// Shared by the fuzz targets that drive the transport over socket pairs.
#pragma once

#include <semaphore.h>
#include <stdarg.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include "kvtcp_internal.h"

namespace fuzzkit {

// Reports a broken expectation and stops, so that the fuzzer keeps the input.
[[noreturn]] inline void fail(const char* fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  vfprintf(stderr, fmt, ap);
  va_end(ap);
  fputc('\n', stderr);
  abort();
}

inline HANDLE intfMutex = nullptr;
inline char intfMutexName[sizeof(KvTcpInfo{}.intfMutexName)];

// The interface lock only needs an open handle.  One per process, with a
// name of its own; the name is removed at once (the handle stays valid until
// the process ends), so a crashed run leaves nothing behind.
inline void openMutexOnce(const char* prefix) {
  if (intfMutex) return;
  char base[64];
  snprintf(base, sizeof base, "%s%d", prefix, (int)getpid());
  KvTcpInfo tmp;
  memset(&tmp, 0, sizeof tmp);
  open_mutex_intf(&tmp, base);
  if (!tmp.hIntfMutex) fail("cannot open the interface mutex %s", tmp.intfMutexName);
  intfMutex = tmp.hIntfMutex;
  memcpy(intfMutexName, tmp.intfMutexName, sizeof intfMutexName);
  sem_unlink(intfMutexName);
}

// A HiSLIP record as a fresh connection leaves it, sharing the process's mutex.
inline void prepareHislipRecord(KvTcpInfo* k) {
  k->Connected = 1;
  k->tcpType = KVTCP_HISLIP;
  k->port = HISLIP_PORT;
  k->lid = KVTCP_NO_LINK;
  k->hislipModeOverlap = 1;
  k->hislipOutMesageID = (int)0xFFFFFF00u;
  k->hislipMaximumMessageSize = 0x7FFF0000u;
  k->hIntfMutex = intfMutex;
  memcpy(k->intfMutexName, intfMutexName, sizeof k->intfMutexName);
}

// Writes what fits into the far end without blocking (the inputs are small
// against a socket buffer; anything beyond simply is not sent).  False when
// not everything went.
inline bool feed(int fd, const void* data, size_t n) {
  const char* p = (const char*)data;
  while (n > 0) {
    ssize_t r = send(fd, p, n, MSG_DONTWAIT | MSG_NOSIGNAL);
    if (r <= 0) return false;
    p += r;
    n -= (size_t)r;
  }
  return true;
}

// One channel of a connection: `near` goes into the record, the target plays
// the peer on `far`.  Whatever end is still open closes with the object.
struct Channel {
  int near = -1, far = -1;
  Channel() {
    int sv[2];
    if (socketpair(AF_UNIX, SOCK_STREAM, 0, sv) != 0) return;
    near = sv[0];
    far = sv[1];
  }
  ~Channel() {
    if (near >= 0) close(near);
    if (far >= 0) close(far);
  }
  Channel(const Channel&) = delete;
  Channel& operator=(const Channel&) = delete;
  bool ok() const { return near >= 0; }
};

}  // namespace fuzzkit
