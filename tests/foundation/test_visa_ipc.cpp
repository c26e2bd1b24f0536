// Platform services: named mutexes, shared segments, timers, paths, sockets,
// dynamic loading and the data helpers.  Runs isolated (private /dev/shm).
#include <dlfcn.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <math.h>
#include <pthread.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <thread>
#include <vector>

#include "visa-ipc.h"
#include "visa-ipc_internal.h"

namespace {

bool shmExists(const std::string& name) { return access(("/dev/shm/" + name).c_str(), F_OK) == 0; }

int semValue(MUTEX_TYPE m) {
  int v = -1;
  sem_getvalue(m, &v);
  return v;
}

double nowMs() {
  struct timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return (double)ts.tv_sec * 1000.0 + (double)ts.tv_nsec / 1e6;
}

}  // namespace


TEST(NamedMutex, NameLengthBoundsAndNullHandles) {
  const std::string n251 = "/" + std::string(250, 'x'), n252 = n251 + "x";
  for (auto [name, valid] : {std::pair{"/a", 1}, {"no-slash and spaces", 1} /* only the length counts */,
                             {n251.c_str(), 1}, {n252.c_str(), 0}, {"/", 0}, {"", 0}, {nullptr, 0}}) {
    EXPECT_EQ(mutex_name_valid(name), valid) << (name ? name : "null");
    // An invalid name leaves the handle untouched.
    MUTEX_TYPE h = reinterpret_cast<MUTEX_TYPE>(0x1234);
    if (!valid) { EXPECT_EQ(util_mutex_open(name, &h), VI_ERROR_ABORT); }
    EXPECT_EQ(h, reinterpret_cast<MUTEX_TYPE>(0x1234));
  }
  EXPECT_EQ(util_mutex_lock(nullptr, 0), VI_ERROR_INV_OBJECT);
  EXPECT_EQ(util_mutexes_lock(1, nullptr, 0), VI_ERROR_INV_OBJECT);
  util_mutex_unlock(nullptr);  // no effect, no crash
  MUTEX_TYPE h = nullptr;
  util_mutex_close("/kvt_none", &h);
  util_mutex_close("/kvt_none", nullptr);
}

TEST(NamedMutex, SeveralLocks) {
  const char* names[3] = {"/kvt_m0", "/kvt_m1", "/kvt_m2"};
  MUTEX_TYPE hs[3] = {};
  for (int i = 0; i < 3; i++) ASSERT_EQ(util_mutex_open(names[i], &hs[i]), VI_SUCCESS);
  for (MUTEX_TYPE h : hs) ASSERT_TRUE(h != nullptr && h != SEM_FAILED);
  // A null handle among them: refused before anything is taken.
  MUTEX_TYPE withNull[3] = {hs[0], nullptr, hs[2]};
  EXPECT_EQ(util_mutexes_lock(3, withNull, 0), VI_ERROR_INV_OBJECT);
  EXPECT_EQ(semValue(hs[0]) + semValue(hs[2]), 2);
  EXPECT_EQ(util_mutexes_lock(0, hs, 0), VI_SUCCESS);  // nothing to wait for
  // Free ones are taken on one pass and marked on the next; the held one is
  // marked at once.  The call succeeds with every semaphore at 0.
  ASSERT_EQ(util_mutex_lock(hs[1], 0), VI_SUCCESS);  // held "elsewhere"
  EXPECT_EQ(util_mutexes_lock(3, hs, 3), VI_SUCCESS);
  for (int i = 0; i < 3; i++) {
    EXPECT_EQ(semValue(hs[i]), 0);
    util_mutex_unlock(hs[i]);
    EXPECT_EQ(semValue(hs[i]), 1);
    util_mutex_close(names[i], &hs[i]);
  }
}


namespace {
struct Mapping {
  HANDLE h = nullptr;
  void* user = nullptr;
  ViStatus fInit = -1;
  Mapping(const char* name, int size) { h = util_map_global(name, size, &user, &fInit); }
  pshared_mem_t rec() const { return static_cast<pshared_mem_t>(h); }
  pshmem_header_t header() const { return static_cast<pshmem_header_t>(rec()->map); }
};

// An unmap that leaves other mappers keeps its record and descriptor (the
// layer's design); the test releases them so the leak checker stays quiet.
void releaseKeptRecord(HANDLE h) {
  close(static_cast<pshared_mem_t>(h)->fd);
  free(h);
}
}  // namespace

TEST(SharedMemory, SizeRoundsUpToWholeKiBAndBadArguments) {
  for (auto [user, want] : {std::pair{463112u, 463872u}, {0u, 1024u}, {1016u, 1024u}, {1017u, 2048u},
                            {0x7FFFFFFFu, 0x80000400u} /* no overflow */})
    EXPECT_EQ(util_segment_size(user), want) << user;
  Mapping m("/kvt_big", 463112);
  ASSERT_NE(m.h, nullptr);
  struct stat st;
  ASSERT_EQ(stat("/dev/shm/kvt_big", &st), 0);
  EXPECT_EQ(st.st_size, 463872);
  memset(m.user, 0x5A, 463112);  // the whole user area is usable
  util_unmap_global(&m.h, m.user);
  std::string tooLong = "/" + std::string(250, 'n');
  for (const char* name : {tooLong.c_str(), "/kvt_bad/slash", (const char*)nullptr})
    EXPECT_EQ(util_map_global(name, 16, &m.user, &m.fInit), nullptr);
  HANDLE none = nullptr;
  util_unmap_global(&none, m.user);  // null handle: nothing
  util_unmap_global(nullptr, nullptr);
}

TEST(SharedMemory, StaleSegments) {
  // A mapper that dies without unmapping leaves the count high: the next
  // mapper finds the old content, and its unmap leaves the segment in place.
  Mapping a("/kvt_keep", 64);
  ASSERT_NE(a.h, nullptr);
  strcpy(static_cast<char*>(a.user), "survives");
  munmap(a.rec()->map, a.rec()->size);
  releaseKeptRecord(a.h);
  Mapping b("/kvt_keep", 64);
  ASSERT_NE(b.h, nullptr);
  EXPECT_EQ(b.fInit, 0);
  EXPECT_STREQ(static_cast<char*>(b.user), "survives");
  EXPECT_EQ(b.header()->link_counter, 2u);
  b.header()->magic = 0x12345678u;  // torn, or not this layer's
  util_unmap_global(&b.h, b.user);
  EXPECT_TRUE(shmExists("kvt_keep"));  // still counted once
  releaseKeptRecord(b.h);
  // A bad magic: zeroed, but not reported as new.
  Mapping m("/kvt_keep", 64);
  ASSERT_NE(m.h, nullptr);
  EXPECT_EQ(m.fInit, 0);
  EXPECT_EQ(m.header()->magic, SHMEM_MAGIC);
  EXPECT_EQ(m.header()->link_counter, 1u);
  EXPECT_EQ(static_cast<char*>(m.user)[0], 0);
  util_unmap_global(&m.h, m.user);
  EXPECT_FALSE(shmExists("kvt_keep"));
}

// The readings of the clock inside the timers lie between two readings taken
// around the calls.  When both fall in the same millisecond, on the same side
// of its half, util_timer_ms is fixed: rounding up from the upper half, down
// from the lower.  Truncation or another clock would show.
TEST(Timer, ClocksRoundToNearestDelayAndDiff) {
  int upper = 0, lower = 0;
  for (int i = 0; i < 2000000 && (upper < 5 || lower < 5); i++) {
    double before = nowMs();
    ViUInt64 t = util_timer_ms(), us = util_timer_us();
    volatile int64_t c = 0;
    util_getcounter(&c);
    double after = nowMs();
    ASSERT_GE((double)t, floor(before + 0.5));
    ASSERT_LE((double)t, floor(after + 0.5));
    ASSERT_GE((double)us, floor(before * 1000 + 0.5));
    ASSERT_LE((double)c, floor(after * 1000 + 0.5));
    ASSERT_LE(us, (ViUInt64)c);
    double fb = before - floor(before), fa = after - floor(after);
    if (floor(before) != floor(after)) continue;
    if (fb >= 0.5 && fa >= 0.5) {
      EXPECT_EQ(t, (ViUInt64)floor(before) + 1);
      upper++;
    } else if (fb < 0.5 && fa < 0.5) {
      EXPECT_EQ(t, (ViUInt64)floor(before));
      lower++;
    }
  }
  EXPECT_GE(upper, 5);
  EXPECT_GE(lower, 5);
  volatile int64_t f = 0;
  util_getfreq(&f);
  EXPECT_EQ(f, 1000000);
  double s0 = nowMs() / 1000.0, s = util_timer_sec(), s1 = nowMs() / 1000.0;
  EXPECT_GE(s, s0 - 1e-9);
  EXPECT_LE(s, s1 + 1e-9);
  double before = nowMs();
  util_delay_ms(20);
  EXPECT_GE(nowMs() - before, 19.9);  // at least its time (no upper bound)
  struct timespec d = diff_timespec({1, 900000000}, {3, 100000000});  // with borrow
  EXPECT_EQ(d.tv_sec, 1);
  EXPECT_EQ(d.tv_nsec, 200000000);
}

TEST(Process, IdentitiesAndKillThread) {
  EXPECT_EQ(util_getpid(), (ViUInt32)getpid());
  EXPECT_EQ(util_gettid(), (ViUInt32)getpid());  // the main thread
  ViUInt32 other = 0;
  std::thread([&] { other = util_gettid(); }).join();
  EXPECT_NE(other, 0u);
  EXPECT_NE(other, util_gettid());
  // kill_thread ends only the calling thread, with 0 as its result whatever
  // the arguments (a body that went on would end with a null result).
  pthread_t t;
  auto body = [](void*) -> void* {
    kill_thread(nullptr, 42);
    return nullptr;
  };
  ASSERT_EQ(pthread_create(&t, nullptr, body, nullptr), 0);
  void* ret = nullptr;
  ASSERT_EQ(pthread_join(t, &ret), 0);
  ASSERT_NE(ret, nullptr);
  EXPECT_EQ(*static_cast<int*>(ret), 0);
}


TEST(SocketState, TogglesNonBlockingAndAsync) {
  int sv[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, sv), 0);
  ViUInt32 on = 7, off = 0;  // any non-zero value switches it on
  set_socket_state(sv[0], &on);
  EXPECT_EQ(fcntl(sv[0], F_GETFL) & (O_NONBLOCK | O_ASYNC), O_NONBLOCK | O_ASYNC);
  set_socket_state(sv[0], &off);
  EXPECT_EQ(fcntl(sv[0], F_GETFL) & (O_NONBLOCK | O_ASYNC), 0);
  set_socket_state(-1, &on);  // a bad descriptor is ignored
  close(sv[0]);
  close(sv[1]);
}

TEST(Transpose, IntDoubleAndShapesLeftAlone) {
  int a[6] = {1, 2, 3, 4, 5, 6};  // 2 rows x 3 columns
  TransposeData(a, 1, 6, 3);
  EXPECT_EQ(std::vector<int>(a, a + 6), (std::vector<int>{1, 4, 2, 5, 3, 6}));
  TransposeData(a, 1, 6, 2);  // and back (now 3 rows x 2 columns)
  const std::vector<int> orig{1, 2, 3, 4, 5, 6};
  EXPECT_EQ(std::vector<int>(a, a + 6), orig);
  double d[6] = {1.5, 2.5, 3.5, 4.5, 5.5, 6.5};
  TransposeData(d, 2, 6, 3);
  EXPECT_EQ(std::vector<double>(d, d + 6), (std::vector<double>{1.5, 4.5, 2.5, 5.5, 3.5, 6.5}));
  // Other types, no columns, fewer elements than one row, a single column.
  for (auto [type, count, columns] : {std::tuple{3, 6, 3}, {0, 6, 3}, {1, 6, 0}, {1, 2, 3}, {1, 6, 1}})
    TransposeData(a, type, count, columns);
  EXPECT_EQ(std::vector<int>(a, a + 6), orig);
}

TEST(FilesAndLoading, ConfigNameExistenceAndOwnLibrary) {
  setenv("HOME", "/home/someone", 1);  // isolated: HOME is a temporary one anyway
  char buf[512];
  util_full_confname("resmantcpvxi.out", buf);
  EXPECT_STREQ(buf, "/home/someone/.config/tarvelo/visa//resmantcpvxi.out");
  EXPECT_EQ(util_file_exist(KV_BUILD_DIR "/libtcpvxi.so"), VI_SUCCESS);
  EXPECT_EQ(util_file_exist("/tmp"), VI_SUCCESS);  // any path stat accepts
  EXPECT_EQ(util_file_exist(KV_BUILD_DIR "/no-such-library.so"), VI_ERROR_RSRC_NFOUND);

  DL_HANDLE h = load_dll(KV_BUILD_DIR "/libtcpvxi.so");
  ASSERT_NE(h, nullptr) << dlerror();
  auto ms = reinterpret_cast<ViUInt64 (*)()>(get_sym_address(h, "util_timer_ms"));
  ASSERT_NE(ms, nullptr);
  double before = nowMs();
  EXPECT_GE((double)ms(), floor(before + 0.5));
  EXPECT_EQ(get_sym_address(h, "no_such_symbol_here"), nullptr);
  EXPECT_EQ(free_dll(h), 0);
  EXPECT_EQ(load_dll(KV_BUILD_DIR "/no-such-library.so"), nullptr);
}
