// Faults below the driver: the driver mutex after a holder that never
// unlocks, and a read from a peer that has closed its side.
#include <gtest/gtest.h>
#include <semaphore.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>

#include "kvtcp_internal.h"
#include "testkit.h"
#include "visa-ipc.h"

namespace {

int semValue(MUTEX_TYPE m) {
  int v = -1;
  sem_getvalue(m, &v);
  return v;
}

std::atomic<int> gRecvCalls{0};
ssize_t countingRecv(int s, void* b, size_t n, int f) {
  gRecvCalls++;
  return recv(s, b, n, f);
}

}  // namespace

// A holder that dies with the mutex: each waiter's lock times out, each goes
// on and unlocks, and the semaphore must come back to 1, not count up.  The
// same for unlocks of a mutex nobody locked and for the several-mutex lock's
// roll-back.
TEST(Faults, DriverMutexStaysBinary) {
  MUTEX_TYPE m = nullptr;
  ASSERT_EQ(0, util_mutex_open("/kvIntegrityMutex", &m));
  ASSERT_EQ(0, util_mutex_lock(m, 1));  // the holder that never unlocks
  EXPECT_EQ(VI_ERROR_TMO, util_mutex_lock(m, 0));  // first waiter gives up...
  EXPECT_EQ(VI_ERROR_TMO, util_mutex_lock(m, 0));  // ...so does the second
  util_mutex_unlock(m);
  util_mutex_unlock(m);
  EXPECT_EQ(1, semValue(m));
  util_mutex_unlock(m);
  util_mutex_unlock(m);
  EXPECT_EQ(1, semValue(m));
  MUTEX_TYPE two[2] = {m, m};
  util_mutexes_lock(2, two, 0);
  EXPECT_LE(semValue(m), 1);

  // Two processes that take and give back the mutex as fast as they can,
  // so that both often unlock it at the same instant: never above 1.
  pid_t kids[2];
  for (pid_t& kid : kids) {
    kid = fork();
    if (kid == 0) {
      int above = 0;
      for (int k = 0; k < 200000; k++) {
        sem_trywait(m);
        util_mutex_unlock(m);
        if (semValue(m) > 1) above++;
      }
      _exit(above ? 1 : 0);
    }
  }
  for (pid_t kid : kids) {
    int status = -1;
    waitpid(kid, &status, 0);
    EXPECT_EQ(0, status) << "a process saw the mutex count above 1";
  }
  EXPECT_LE(semValue(m), 1);
  util_mutex_close("/kvIntegrityMutex", &m);
}

// The peer closes gracefully while a read waits: the read ends with the lost
// connection after its time-out, sleeping rather than spinning on the empty
// reads (a spin makes tens of thousands of them in 300 ms).
TEST(Faults, ReadFromAClosedPeerDoesNotSpin) {
  int l = kt::listenOn("127.0.0.1", 0);
  sockaddr_in a{};
  socklen_t len = sizeof a;
  ASSERT_EQ(0, getsockname(l, (sockaddr*)&a, &len));
  int c = kt::connectTo("127.0.0.1", ntohs(a.sin_port));
  ASSERT_GE(c, 0);
  int p = accept(l, nullptr, nullptr);
  close(p);
  kvtcp_sys_recv = countingRecv;
  char buf[16];
  int n = -1;
  EXPECT_EQ(VI_ERROR_CONN_LOST, recvMin(c, 300, buf, sizeof buf, 16, &n));
  kvtcp_sys_recv = recv;
  EXPECT_EQ(0, n);
  EXPECT_LT(gRecvCalls.load(), 1000);
  close(c);
  close(l);
}
