// Platform services: named mutexes, shared segments, timers, paths, sockets,
// dynamic loading and the data helpers.  Runs isolated (private /dev/shm).
#include <dlfcn.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <semaphore.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <math.h>

#include <string>
#include <thread>
#include <vector>

#include "visa-ipc.h"

namespace {

bool shmFileExists(const std::string& name) {
  std::string n = name[0] == '/' ? name.substr(1) : name;
  return access(("/dev/shm/" + n).c_str(), F_OK) == 0;
}

bool semFileExists(const std::string& name) { return shmFileExists("sem." + (name[0] == '/' ? name.substr(1) : name)); }

int semValue(MUTEX_TYPE m) {
  int v = -1;
  sem_getvalue(m, &v);
  return v;
}

// Runs fn in a forked child and returns its exit code (fn's result).
template <typename F>
int inChild(F fn) {
  pid_t pid = fork();
  if (pid == 0) _exit(fn());
  int st = 0;
  waitpid(pid, &st, 0);
  return WIFEXITED(st) ? WEXITSTATUS(st) : 255;
}

// The fixture closes (and so unlinks) every mutex a test opened.
class NamedMutex : public ::testing::Test {
 protected:
  MUTEX_TYPE open(const char* name) {
    MUTEX_TYPE h = nullptr;
    EXPECT_EQ(util_mutex_open(name, &h), VI_SUCCESS);
    EXPECT_NE(h, nullptr);
    EXPECT_NE(h, SEM_FAILED);
    opened_.push_back({name, h});
    return h;
  }
  void TearDown() override {
    for (auto& [n, h] : opened_) util_mutex_close(n.c_str(), &h);
  }
  std::vector<std::pair<std::string, MUTEX_TYPE>> opened_;
};

}  // namespace

// ------------------------------------------------------------ named mutex

TEST(MutexName, LengthBounds) {
  EXPECT_EQ(mutex_name_valid("/a"), 1);
  EXPECT_EQ(mutex_name_valid("/"), 0);
  EXPECT_EQ(mutex_name_valid(""), 0);
  EXPECT_EQ(mutex_name_valid(nullptr), 0);
  EXPECT_EQ(mutex_name_valid("no-slash and spaces"), 1);  // only the length counts
  std::string n251 = "/" + std::string(250, 'x');
  std::string n252 = n251 + "x";
  EXPECT_EQ(mutex_name_valid(n251.c_str()), 1);
  EXPECT_EQ(mutex_name_valid(n252.c_str()), 0);
}

TEST(MutexName, InvalidNameLeavesHandleUntouched) {
  MUTEX_TYPE h = reinterpret_cast<MUTEX_TYPE>(0x1234);
  EXPECT_EQ(util_mutex_open("/", &h), VI_ERROR_ABORT);
  EXPECT_EQ(h, reinterpret_cast<MUTEX_TYPE>(0x1234));
  std::string n252 = "/" + std::string(251, 'y');
  EXPECT_EQ(util_mutex_open(n252.c_str(), &h), VI_ERROR_ABORT);
  EXPECT_EQ(h, reinterpret_cast<MUTEX_TYPE>(0x1234));
}

TEST_F(NamedMutex, LockUnlockAndTimeOut) {
  MUTEX_TYPE h = open("/kvt_lock");
  EXPECT_TRUE(semFileExists("/kvt_lock"));
  EXPECT_EQ(semValue(h), 1);  // created unlocked
  EXPECT_EQ(util_mutex_lock(h, 0), VI_SUCCESS);
  EXPECT_EQ(semValue(h), 0);
  // Held (by ourselves): a zero time-out gives up after one try, a one-second
  // time-out after spinning.
  EXPECT_EQ(util_mutex_lock(h, 0), VI_ERROR_TMO);
  EXPECT_EQ(util_mutex_lock(h, 1), VI_ERROR_TMO);
  util_mutex_unlock(h);
  EXPECT_EQ(semValue(h), 1);
  EXPECT_EQ(util_mutex_lock(h, 3), VI_SUCCESS);
  util_mutex_unlock(h);
}

TEST(NamedMutexNull, NullHandles) {
  EXPECT_EQ(util_mutex_lock(nullptr, 0), VI_ERROR_INV_OBJECT);
  EXPECT_EQ(static_cast<uint32_t>(util_mutex_lock(nullptr, 0)), 0xBFFF000Eu);
  util_mutex_unlock(nullptr);  // no effect, no crash
  MUTEX_TYPE h = nullptr;
  util_mutex_close("/kvt_none", &h);
  util_mutex_close("/kvt_none", nullptr);
  EXPECT_EQ(util_mutexes_lock(1, nullptr, 0), VI_ERROR_INV_OBJECT);
}

TEST_F(NamedMutex, HeldByAnotherProcess) {
  MUTEX_TYPE h = open("/kvt_xproc");
  int toParent[2], toChild[2];
  ASSERT_EQ(pipe(toParent), 0);
  ASSERT_EQ(pipe(toChild), 0);
  pid_t pid = fork();
  if (pid == 0) {
    MUTEX_TYPE c = nullptr;
    util_mutex_open("/kvt_xproc", &c);
    int ok = util_mutex_lock(c, 2) == VI_SUCCESS;
    char b = ok ? 'L' : 'F';
    (void)!write(toParent[1], &b, 1);
    (void)!read(toChild[0], &b, 1);  // hold it until the parent has tried
    util_mutex_unlock(c);
    _exit(ok ? 0 : 1);
  }
  char b = 0;
  ASSERT_EQ(read(toParent[0], &b, 1), 1);
  ASSERT_EQ(b, 'L');
  EXPECT_EQ(util_mutex_lock(h, 1), VI_ERROR_TMO);
  (void)!write(toChild[1], "g", 1);
  int st = 0;
  waitpid(pid, &st, 0);
  EXPECT_TRUE(WIFEXITED(st) && WEXITSTATUS(st) == 0);
  EXPECT_EQ(util_mutex_lock(h, 2), VI_SUCCESS);  // released by the child
  util_mutex_unlock(h);
  for (int fd : {toParent[0], toParent[1], toChild[0], toChild[1]}) close(fd);
}

TEST_F(NamedMutex, SecondOpenDoesNotReset) {
  MUTEX_TYPE h = open("/kvt_reopen");
  ASSERT_EQ(util_mutex_lock(h, 0), VI_SUCCESS);
  // Another process opening the same name must find it held.
  int rc = inChild([] {
    MUTEX_TYPE c = nullptr;
    util_mutex_open("/kvt_reopen", &c);
    return util_mutex_lock(c, 0) == VI_ERROR_TMO ? 0 : 1;
  });
  EXPECT_EQ(rc, 0);
  MUTEX_TYPE h2 = nullptr;
  EXPECT_EQ(util_mutex_open("/kvt_reopen", &h2), VI_SUCCESS);
  EXPECT_EQ(semValue(h2), 0);
  util_mutex_unlock(h);
}

TEST(NamedMutexClose, CloseUnlinksAndClearsHandle) {
  MUTEX_TYPE h = nullptr;
  ASSERT_EQ(util_mutex_open("/kvt_close", &h), VI_SUCCESS);
  ASSERT_TRUE(semFileExists("/kvt_close"));
  util_mutex_close("/kvt_close", &h);
  EXPECT_EQ(h, nullptr);
  EXPECT_FALSE(semFileExists("/kvt_close"));
  // A later open creates a fresh, unlocked semaphore.
  ASSERT_EQ(util_mutex_open("/kvt_close", &h), VI_SUCCESS);
  EXPECT_EQ(semValue(h), 1);
  util_mutex_close("/kvt_close", &h);
}

TEST_F(NamedMutex, SeveralLocksTakeFreeOnesAndMarkHeldOnes) {
  MUTEX_TYPE hs[3] = {open("/kvt_m0"), open("/kvt_m1"), open("/kvt_m2")};
  ASSERT_EQ(util_mutex_lock(hs[1], 0), VI_SUCCESS);  // held "elsewhere"
  // Free ones are taken on one pass and marked on the next; the held one is
  // marked at once.  The call succeeds with every semaphore at 0.
  EXPECT_EQ(util_mutexes_lock(3, hs, 3), VI_SUCCESS);
  for (auto h : hs) EXPECT_EQ(semValue(h), 0);
  for (auto h : hs) util_mutex_unlock(h);
  for (auto h : hs) EXPECT_EQ(semValue(h), 1);
}

TEST_F(NamedMutex, SeveralLocksNullHandleTouchesNothing) {
  MUTEX_TYPE hs[3] = {open("/kvt_n0"), nullptr, open("/kvt_n2")};
  EXPECT_EQ(util_mutexes_lock(3, hs, 0), VI_ERROR_INV_OBJECT);
  EXPECT_EQ(semValue(hs[0]), 1);
  EXPECT_EQ(semValue(hs[2]), 1);
  EXPECT_EQ(util_mutexes_lock(0, hs, 0), VI_SUCCESS);  // nothing to wait for
}

// ---------------------------------------------------------- shared memory

namespace {
struct Mapping {
  HANDLE h = nullptr;
  void* user = nullptr;
  ViStatus fInit = -1;
  pshmem_header_t header() const { return static_cast<pshmem_header_t>(static_cast<pshared_mem_t>(h)->map); }
};

Mapping mapSeg(const char* name, int size) {
  Mapping m;
  m.h = util_map_global(name, size, &m.user, &m.fInit);
  return m;
}

// An unmap that leaves other mappers keeps its record and descriptor (the
// layer's design); the test releases them so the leak checker stays quiet.
void releaseKeptRecord(HANDLE h) {
  auto rec = static_cast<pshared_mem_t>(h);
  close(rec->fd);
  free(rec);
}
}  // namespace

TEST(SharedMemory, CreateAttachCountAndRemove) {
  const char* name = "/kvt_seg";
  Mapping a = mapSeg(name, 100);
  ASSERT_NE(a.h, nullptr);
  EXPECT_EQ(a.fInit, 1);
  EXPECT_TRUE(shmFileExists(name));
  auto rec = static_cast<pshared_mem_t>(a.h);
  EXPECT_EQ(rec->size, 1024u);
  EXPECT_STREQ(rec->name, name);
  EXPECT_EQ(static_cast<char*>(a.user), static_cast<char*>(rec->map) + 8);
  EXPECT_EQ(a.header()->magic, SHMEM_MAGIC);
  EXPECT_EQ(a.header()->link_counter, 1u);
  memcpy(a.user, "hello", 6);

  Mapping b = mapSeg(name, 100);
  ASSERT_NE(b.h, nullptr);
  EXPECT_EQ(b.fInit, 0);
  EXPECT_EQ(b.header()->link_counter, 2u);
  EXPECT_STREQ(static_cast<char*>(b.user), "hello");  // content kept

  util_unmap_global(&a.h, a.user);
  EXPECT_TRUE(shmFileExists(name));
  EXPECT_EQ(b.header()->link_counter, 1u);
  releaseKeptRecord(a.h);

  util_unmap_global(&b.h, b.user);
  EXPECT_FALSE(shmFileExists(name));
}

TEST(SharedMemory, SizeRoundsUpToWholeKiB) {
  EXPECT_EQ(util_segment_size(463112), 463872u);
  EXPECT_EQ(util_segment_size(0), 1024u);
  EXPECT_EQ(util_segment_size(1016), 1024u);
  EXPECT_EQ(util_segment_size(1017), 2048u);
  EXPECT_EQ(util_segment_size(0x7FFFFFFF), 0x80000400u);  // no overflow
  Mapping m = mapSeg("/kvt_big", 463112);
  ASSERT_NE(m.h, nullptr);
  struct stat st;
  ASSERT_EQ(stat("/dev/shm/kvt_big", &st), 0);
  EXPECT_EQ(st.st_size, 463872);
  // The whole user area is usable.
  memset(m.user, 0x5A, 463112);
  util_unmap_global(&m.h, m.user);
}

TEST(SharedMemory, BadMagicIsZeroedButNotReportedAsNew) {
  const char* name = "/kvt_stale";
  int fd = shm_open(name, O_RDWR | O_CREAT, 0644);
  ASSERT_GE(fd, 0);
  ASSERT_EQ(ftruncate(fd, 2048), 0);
  uint32_t junk[4] = {0x12345678u, 7u, 0xDEADBEEFu, 0xCAFEF00Du};
  ASSERT_EQ(pwrite(fd, junk, sizeof junk, 0), (ssize_t)sizeof junk);
  close(fd);

  Mapping m = mapSeg(name, 1000);
  ASSERT_NE(m.h, nullptr);
  EXPECT_EQ(m.fInit, 0);
  EXPECT_EQ(m.header()->magic, SHMEM_MAGIC);
  EXPECT_EQ(m.header()->link_counter, 1u);
  const uint32_t* user = static_cast<const uint32_t*>(m.user);
  EXPECT_EQ(user[0], 0u);
  EXPECT_EQ(user[1], 0u);
  util_unmap_global(&m.h, m.user);
  EXPECT_FALSE(shmFileExists(name));
}

TEST(SharedMemory, ValidStaleSegmentKeepsContent) {
  // A mapper that died without unmapping leaves the count high; the next one
  // finds a valid magic and the old content.
  const char* name = "/kvt_keep";
  Mapping a = mapSeg(name, 64);
  ASSERT_NE(a.h, nullptr);
  strcpy(static_cast<char*>(a.user), "survives");
  auto rec = static_cast<pshared_mem_t>(a.h);
  munmap(rec->map, rec->size);
  releaseKeptRecord(a.h);

  Mapping b = mapSeg(name, 64);
  ASSERT_NE(b.h, nullptr);
  EXPECT_EQ(b.fInit, 0);
  EXPECT_STREQ(static_cast<char*>(b.user), "survives");
  EXPECT_EQ(b.header()->link_counter, 2u);
  util_unmap_global(&b.h, b.user);
  EXPECT_TRUE(shmFileExists(name));  // still counted once
  releaseKeptRecord(b.h);
  shm_unlink(name);
}

TEST(SharedMemory, TwoProcessesShareContent) {
  const char* name = "/kvt_fork";
  Mapping a = mapSeg(name, 4096);
  ASSERT_NE(a.h, nullptr);
  auto* words = static_cast<volatile uint32_t*>(a.user);
  words[0] = 0x11111111u;
  int rc = inChild([name] {
    void* user = nullptr;
    ViStatus fInit = -1;
    HANDLE h = util_map_global(name, 4096, &user, &fInit);
    if (!h || fInit != 0) return 1;
    auto* w = static_cast<volatile uint32_t*>(user);
    if (w[0] != 0x11111111u) return 2;
    if (static_cast<pshmem_header_t>(static_cast<pshared_mem_t>(h)->map)->link_counter != 2) return 3;
    w[1] = 0x22222222u;
    util_unmap_global(&h, user);
    return 0;
  });
  EXPECT_EQ(rc, 0);
  EXPECT_EQ(words[1], 0x22222222u);
  EXPECT_EQ(a.header()->link_counter, 1u);
  util_unmap_global(&a.h, a.user);
  EXPECT_FALSE(shmFileExists(name));
}

TEST(SharedMemory, BadArguments) {
  void* user = nullptr;
  ViStatus fInit = -1;
  std::string tooLong = "/" + std::string(250, 'n');
  EXPECT_EQ(util_map_global(tooLong.c_str(), 16, &user, &fInit), nullptr);
  EXPECT_EQ(util_map_global("/kvt_bad/slash", 16, &user, &fInit), nullptr);
  EXPECT_EQ(util_map_global(nullptr, 16, &user, &fInit), nullptr);
  HANDLE h = nullptr;
  util_unmap_global(&h, user);  // null handle: nothing
  util_unmap_global(nullptr, nullptr);
}

// ------------------------------------------------------------------- time

namespace {
double nowMs() {
  struct timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return (double)ts.tv_sec * 1000.0 + (double)ts.tv_nsec / 1e6;
}
double nowUs() {
  struct timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return (double)ts.tv_sec * 1e6 + (double)ts.tv_nsec / 1e3;
}
}  // namespace

// The reading of the clock inside util_timer_ms lies between two readings
// taken around the call.  When both fall in the same millisecond, on the
// same side of its half, the result is fixed: rounding up from the upper
// half, down from the lower.  Truncation or another clock would show.
TEST(Timer, MillisecondsRoundToNearest) {
  int upper = 0, lower = 0;
  for (int i = 0; i < 2000000 && (upper < 5 || lower < 5); i++) {
    double before = nowMs();
    ViUInt64 t = util_timer_ms();
    double after = nowMs();
    ASSERT_GE((double)t, floor(before + 0.5));
    ASSERT_LE((double)t, floor(after + 0.5));
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
}

TEST(Timer, MicrosecondsAndCounterBracketed) {
  for (int i = 0; i < 1000; i++) {
    double before = nowUs();
    ViUInt64 t = util_timer_us();
    double after = nowUs();
    ASSERT_GE((double)t, floor(before + 0.5));
    ASSERT_LE((double)t, floor(after + 0.5));
  }
  volatile int64_t c = 0;
  double before = nowUs();
  util_getcounter(&c);
  double after = nowUs();
  EXPECT_GE((double)c, floor(before + 0.5));
  EXPECT_LE((double)c, floor(after + 0.5));
  util_getfreq(&c);
  EXPECT_EQ(c, 1000000);
  double s0 = nowMs() / 1000.0;
  double s = util_timer_sec();
  double s1 = nowMs() / 1000.0;
  EXPECT_GE(s, s0 - 1e-9);
  EXPECT_LE(s, s1 + 1e-9);
}

TEST(Timer, DelayWaitsAtLeastItsTime) {
  double before = nowMs();
  util_delay_ms(20);
  EXPECT_GE(nowMs() - before, 19.9);
  util_delay_ms(0);
}

TEST(Timer, DiffWithBorrow) {
  struct timespec a = {1, 900000000}, b = {3, 100000000};
  struct timespec d = diff_timespec(a, b);
  EXPECT_EQ(d.tv_sec, 1);
  EXPECT_EQ(d.tv_nsec, 200000000);
  a = {1, 100};
  b = {2, 300};
  d = diff_timespec(a, b);
  EXPECT_EQ(d.tv_sec, 1);
  EXPECT_EQ(d.tv_nsec, 200);
}

// ---------------------------------------------------- process and thread

TEST(Process, Identities) {
  EXPECT_EQ(util_getpid(), (ViUInt32)getpid());
  EXPECT_EQ(util_gettid(), (ViUInt32)getpid());  // the main thread
  ViUInt32 other = 0;
  std::thread t([&] { other = util_gettid(); });
  t.join();
  EXPECT_NE(other, 0u);
  EXPECT_NE(other, util_gettid());
  EXPECT_EQ(switch_thread(), 0);
}

TEST(Process, KillThreadEndsOnlyTheCaller) {
  pthread_t t;
  bool after = false;
  ASSERT_EQ(pthread_create(
                &t, nullptr,
                [](void* p) -> void* {
                  kill_thread(nullptr, 42);
                  *static_cast<bool*>(p) = true;  // never reached
                  return nullptr;
                },
                &after),
            0);
  void* ret = nullptr;
  ASSERT_EQ(pthread_join(t, &ret), 0);
  EXPECT_FALSE(after);
  ASSERT_NE(ret, nullptr);
  EXPECT_EQ(*static_cast<int*>(ret), 0);  // the arguments are ignored
}

// ------------------------------------------------------ files and config

TEST(Config, FullNameKeepsDoubledSlash) {
  const char* oldHome = getenv("HOME");
  std::string saved = oldHome ? oldHome : "";
  setenv("HOME", "/home/someone", 1);
  char buf[512];
  util_full_confname("resmantcpvxi.out", buf);
  EXPECT_STREQ(buf, "/home/someone/.config/tarvelo/visa//resmantcpvxi.out");
  const char* oldPath = path_to_config_in_home;
  path_to_config_in_home = "elsewhere";
  util_full_confname("x.ini", buf);
  EXPECT_STREQ(buf, "/home/someone/elsewhere/x.ini");
  path_to_config_in_home = oldPath;
  if (oldHome)
    setenv("HOME", saved.c_str(), 1);
  else
    unsetenv("HOME");
}

TEST(Config, FileExist) {
  char path[] = "/tmp/kvt_exist_XXXXXX";
  int fd = mkstemp(path);
  ASSERT_GE(fd, 0);
  close(fd);
  EXPECT_EQ(util_file_exist(path), VI_SUCCESS);
  EXPECT_EQ(util_file_exist("/tmp"), VI_SUCCESS);  // any path stat accepts
  unlink(path);
  EXPECT_EQ(util_file_exist(path), VI_ERROR_RSRC_NFOUND);
}

// ------------------------------------------------------ sockets and data

TEST(SocketState, TogglesNonBlockingAndAsync) {
  int sv[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, sv), 0);
  ViUInt32 on = 1, off = 0;
  set_socket_state(sv[0], &on);
  int fl = fcntl(sv[0], F_GETFL);
  EXPECT_TRUE(fl & O_NONBLOCK);
  EXPECT_TRUE(fl & O_ASYNC);
  char c;
  EXPECT_EQ(recv(sv[0], &c, 1, 0), -1);  // would block
  EXPECT_EQ(errno, EAGAIN);
  ViUInt32 other = 7;  // any non-zero value switches it on
  set_socket_state(sv[0], &off);
  EXPECT_EQ(fcntl(sv[0], F_GETFL) & (O_NONBLOCK | O_ASYNC), 0);
  set_socket_state(sv[0], &other);
  EXPECT_TRUE(fcntl(sv[0], F_GETFL) & O_NONBLOCK);
  set_socket_state(sv[0], &off);
  set_socket_state(-1, &on);  // a bad descriptor is ignored
  close(sv[0]);
  close(sv[1]);
}

TEST(Transpose, IntAndDouble) {
  int a[6] = {1, 2, 3, 4, 5, 6};  // 2 rows x 3 columns
  TransposeData(a, 1, 6, 3);
  EXPECT_EQ(std::vector<int>(a, a + 6), (std::vector<int>{1, 4, 2, 5, 3, 6}));
  TransposeData(a, 1, 6, 2);  // and back (now 3 rows x 2 columns)
  EXPECT_EQ(std::vector<int>(a, a + 6), (std::vector<int>{1, 2, 3, 4, 5, 6}));
  double d[6] = {1.5, 2.5, 3.5, 4.5, 5.5, 6.5};
  TransposeData(d, 2, 6, 3);
  EXPECT_EQ(std::vector<double>(d, d + 6), (std::vector<double>{1.5, 4.5, 2.5, 5.5, 3.5, 6.5}));
}

TEST(Transpose, OtherTypesAndDegenerateShapesLeaveData) {
  int a[6] = {1, 2, 3, 4, 5, 6};
  const std::vector<int> orig(a, a + 6);
  TransposeData(a, 3, 6, 3);
  TransposeData(a, 0, 6, 3);
  TransposeData(a, 1, 6, 0);  // no columns: nothing to do
  TransposeData(a, 1, 2, 3);  // fewer elements than one row
  EXPECT_EQ(std::vector<int>(a, a + 6), orig);
  TransposeData(a, 1, 6, 1);  // a column stays a column in memory
  EXPECT_EQ(std::vector<int>(a, a + 6), orig);
}

// --------------------------------------------------------- dynamic loading

TEST(DynamicLoading, OwnLibrary) {
  DL_HANDLE h = load_dll(KV_BUILD_DIR "/libtcpvxi.so");
  ASSERT_NE(h, nullptr) << dlerror();
  auto ms = reinterpret_cast<ViUInt64 (*)()>(get_sym_address(h, "util_timer_ms"));
  ASSERT_NE(ms, nullptr);
  double before = nowMs();
  ViUInt64 t = ms();
  EXPECT_GE((double)t, floor(before + 0.5));
  EXPECT_EQ(get_sym_address(h, "no_such_symbol_here"), nullptr);
  EXPECT_EQ(free_dll(h), 0);
  EXPECT_EQ(load_dll(KV_BUILD_DIR "/no-such-library.so"), nullptr);
}
