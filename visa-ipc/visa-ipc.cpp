#include "visa-ipc.h"

#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <math.h>
#include <pthread.h>
#include <sched.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <mutex>
#include <unordered_map>
#include <utility>

#include "visa-ipc_internal.h"

const char* path_to_config_in_home = ".config/tarvelo/visa/";

// ------------------------------------------------------------------- time

struct timespec get_timespec(void) {
  struct timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return ts;
}

struct timespec diff_timespec(struct timespec start, struct timespec end) {
  struct timespec d;
  if (end.tv_nsec - start.tv_nsec < 0) {
    d.tv_sec = end.tv_sec - start.tv_sec - 1;
    d.tv_nsec = 1000000000 + end.tv_nsec - start.tv_nsec;
  } else {
    d.tv_sec = end.tv_sec - start.tv_sec;
    d.tv_nsec = end.tv_nsec - start.tv_nsec;
  }
  return d;
}

ViReal64 util_timer_sec(void) {
  struct timespec ts = get_timespec();
  return (double)ts.tv_sec + (double)ts.tv_nsec * 1e-9;
}

// Rounded to the nearest millisecond in double precision.
ViUInt64 util_timer_ms(void) {
  struct timespec ts = get_timespec();
  return (ViUInt64)floor((double)ts.tv_nsec * 1e-6 + 1000.0 * (double)ts.tv_sec + 0.5);
}

ViUInt64 util_timer_us(void) {
  struct timespec ts = get_timespec();
  return (ViUInt64)floor((double)ts.tv_nsec * 0.001 + 1000000.0 * (double)ts.tv_sec + 0.5);
}

void util_getcounter(volatile int64_t* count) { *count = (int64_t)util_timer_us(); }
void util_getfreq(volatile int64_t* count) { *count = 1000000; }

void util_delay_ms(ViUInt64 d) { usleep((useconds_t)((double)d * 1000.0)); }

void util_test_timer(void) {
  struct timespec res;
  clock_getres(CLOCK_MONOTONIC, &res);
  fprintf(stderr, "Timer res: %ld sec, %ld nsec\n", (long)res.tv_sec, (long)res.tv_nsec);
  struct timespec start = get_timespec();
  fprintf(stderr, "i = %ld Start time interval: %ld sec, %ld nsec\n", 0L, (long)start.tv_sec,
          (long)start.tv_nsec);
  for (int i = 0; i < 100; i++) util_delay_ms(100);
  struct timespec end = get_timespec();
  fprintf(stderr, "End time interval: %ld sec, %ld nsec\n", (long)end.tv_sec, (long)end.tv_nsec);
  // Field-wise differences without a borrow: the nanoseconds may be negative.
  fprintf(stderr, "Time interval: %ld sec, %ld nsec\n", (long)(end.tv_sec - start.tv_sec),
          (long)(end.tv_nsec - start.tv_nsec));
}

// ------------------------------------------------------- process and thread

ViUInt32 util_getpid(void) { return (ViUInt32)getpid(); }
ViUInt32 util_gettid(void) { return (ViUInt32)syscall(SYS_gettid); }
int switch_thread(void) { return sched_yield(); }

void kill_thread(void* handle, int ret_code) {
  (void)handle;
  (void)ret_code;
  // Both arguments are ignored: this can only end the calling thread.
  static int exit_code = 0;
  pthread_exit(&exit_code);
}

// ------------------------------------------------------------ named mutex

int mutex_name_valid(const char* name) {
  if (!name) return 0;
  size_t n = strnlen(name, 253);
  return n >= 2 && n <= 251;
}

namespace {

// The look and the post of util_mutex_unlock must be one step, within the
// process (this mutex) and across processes: an exclusive flock on the
// semaphore's own file under /dev/shm, which the kernel drops with a process
// that dies holding it.  Each process opens the file itself (after a fork
// the parent's descriptor would share its lock with the child).  Where the
// file cannot be opened the unlock still works, guarded in-process only.
std::mutex g_postMutex;

struct PostGuard {
  char path[sizeof "/dev/shm/sem." + 256];  // names are at most 251 bytes
  int fd;
  pid_t pid;
  int opens;  // sem_open hands out one handle per name and process
};

std::unordered_map<MUTEX_TYPE, PostGuard>& postGuards() {
  static auto* guards = new std::unordered_map<MUTEX_TYPE, PostGuard>;  // used until the process ends
  return *guards;
}

void postGuardOpened(MUTEX_TYPE h, const char* name) {
  while (*name == '/') name++;  // as sem_open names its file
  std::lock_guard<std::mutex> g(g_postMutex);
  auto it = postGuards().find(h);
  if (it != postGuards().end()) {
    it->second.opens++;
    return;
  }
  PostGuard pg{{}, -1, 0, 1};
  snprintf(pg.path, sizeof pg.path, "/dev/shm/sem.%s", name);
  postGuards().insert(std::make_pair(h, pg));
}

void postGuardClosed(MUTEX_TYPE h) {
  std::lock_guard<std::mutex> g(g_postMutex);
  auto it = postGuards().find(h);
  if (it == postGuards().end() || --it->second.opens > 0) return;
  if (it->second.fd >= 0 && it->second.pid == getpid()) close(it->second.fd);
  postGuards().erase(it);
}

// This process's descriptor of h's file, or -1.  Called under g_postMutex.
int postGuardFd(MUTEX_TYPE h) {
  auto it = postGuards().find(h);
  if (it == postGuards().end()) return -1;
  PostGuard& pg = it->second;
  pid_t me = getpid();
  if (pg.pid != me) {  // first use here, or a parent's descriptor
    pg.fd = open(pg.path, O_RDONLY | O_CLOEXEC);
    pg.pid = me;
  }
  return pg.fd;
}

void flockRetrying(int fd, int op) {
  while (flock(fd, op) != 0 && errno == EINTR) {
  }
}

}  // namespace

ViStatus util_mutex_open(const char* mutexName, MUTEX_TYPE* hMutex) {
  if (!mutex_name_valid(mutexName)) return VI_ERROR_ABORT;
  // Stored unchecked: a failed open leaves SEM_FAILED, and the first lock
  // then fails through sem_trywait.
  *hMutex = sem_open(mutexName, O_CREAT, 0644, 1);
  if (*hMutex != SEM_FAILED) postGuardOpened(*hMutex, mutexName);
  return VI_SUCCESS;
}

// A pure spin on sem_trywait: the waits are short and must not sleep.
// A free semaphore is taken without reading the clock: the time-out runs
// from the first failed try.
ViStatus util_mutex_lock(MUTEX_TYPE hMutex, ViUInt32 s_tmo) {
  if (!hMutex) return VI_ERROR_INV_OBJECT;
  double tEnd = 0;
  for (bool first = true;; first = false) {
    errno = 0;
    if (sem_trywait(hMutex) == 0) return VI_SUCCESS;
    if (errno != EAGAIN) return VI_ERROR_SYSTEM_ERROR;
    if (first)
      tEnd = util_timer_sec() + (double)s_tmo;
    else if (!(util_timer_sec() < tEnd))
      return VI_ERROR_TMO;
  }
}

ViStatus util_mutexes_lock(ViUInt32 nMutex, MUTEX_TYPE* hMutex, ViUInt32 s_tmo) {
  if (!hMutex) return VI_ERROR_INV_OBJECT;
  if (nMutex > 32) nMutex = 32;  // one bit per handle
  MUTEX_TYPE local[32];
  uint32_t target = 0;
  for (ViUInt32 i = 0; i < nMutex; i++) {
    if (!hMutex[i]) return VI_ERROR_INV_OBJECT;
    local[i] = hMutex[i];
    target |= 1u << i;
  }
  uint32_t t0 = (uint32_t)util_timer_sec();
  uint32_t done = 0;
  if (done == target) return VI_SUCCESS;  // no handles: nothing to wait for
  for (;;) {
    for (ViUInt32 i = 0; i < nMutex; i++) {
      if (done & (1u << i)) continue;
      // A handle counts as done when its try FAILS; kept as designed.
      if (sem_trywait(local[i]) != 0) done |= 1u << i;
    }
    if (done == target) return VI_SUCCESS;
    uint32_t delta = (uint32_t)(util_timer_sec() - (double)t0);
    if (delta > s_tmo) break;
  }
  for (ViUInt32 i = 0; i < nMutex; i++)
    if (done & (1u << i)) util_mutex_unlock(local[i]);
  return VI_ERROR_TMO;
}

// Posts only a semaphore that is not free already, so the mutex stays
// binary: a lock that timed out goes on unguarded and still unlocks, and two
// such unlocks (or the core lock's release without a wait) would otherwise
// count it up to 2 and more, after which it would exclude nobody.
void util_mutex_unlock(MUTEX_TYPE hMutex) {
  if (!hMutex) return;
  std::lock_guard<std::mutex> g(g_postMutex);
  int fd = postGuardFd(hMutex);
  if (fd >= 0) flockRetrying(fd, LOCK_EX);
  int v = 0;
  if (!(sem_getvalue(hMutex, &v) == 0 && v >= 1)) sem_post(hMutex);
  if (fd >= 0) flockRetrying(fd, LOCK_UN);
}

void util_mutex_close(const char* mutexName, MUTEX_TYPE* hMutex) {
  if (hMutex && *hMutex) {
    if (*hMutex != SEM_FAILED) {
      postGuardClosed(*hMutex);
      sem_close(*hMutex);
    }
    sem_unlink(mutexName);
    *hMutex = nullptr;
  }
}

// ---------------------------------------------------------- shared memory

HANDLE util_map_global(const char* mapname, int size, void** mapptr, ViStatus* fInit) {
  // A longer name would not fit the record, and the last unmapper could then
  // not remove the segment: refuse it instead.
  if (!mapname || !mapptr || !fInit || strlen(mapname) > SHMEM_NAME_MAX) return nullptr;
  pshared_mem_t rec = (pshared_mem_t)calloc(1, sizeof(shared_mem_t));
  if (!rec) return nullptr;
  if (size < 0) size = 0;
  rec->size = util_segment_size(size);
  snprintf(rec->name, sizeof rec->name, "%s", mapname);

  errno = 0;
  int fd = shm_open(mapname, O_RDWR | O_CREAT | O_EXCL, 0644);
  if (fd >= 0) {
    *fInit = 1;
  } else if (errno == EEXIST) {
    *fInit = 0;
    fd = shm_open(mapname, O_RDWR | O_CREAT, 0644);
    if (fd < 0) {
      free(rec);
      return nullptr;
    }
  } else {
    free(rec);
    return nullptr;
  }
  rec->fd = fd;
  if (ftruncate(fd, rec->size) != 0) {
    free(rec);  // the descriptor stays open, as designed
    return nullptr;
  }
  void* map = mmap(nullptr, rec->size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
  *mapptr = (void*)((uintptr_t)map + 8);  // set before the check, as designed
  if (map == MAP_FAILED) {
    shm_unlink(mapname);
    free(rec);
    return nullptr;
  }
  rec->map = map;
  pshmem_header_t hdr = (pshmem_header_t)map;
  if (*fInit == 1 || hdr->magic != SHMEM_MAGIC) {
    // A stale segment with a wrong magic is reset, but *fInit stays 0 so the
    // caller does not initialise its own content twice.
    memset(map, 0, rec->size);
    hdr->magic = SHMEM_MAGIC;
  }
  hdr->link_counter++;  // the caller's process-shared mutex serialises this
  return rec;
}

void util_unmap_global(HANDLE* hMapObject, void* mapptr) {
  if (!hMapObject || !mapptr || !*hMapObject) return;
  pshared_mem_t rec = (pshared_mem_t)*hMapObject;
  pshmem_header_t hdr = (pshmem_header_t)rec->map;
  hdr->link_counter--;
  if (hdr->link_counter == 0) {
    munmap(rec->map, rec->size);
    shm_unlink(rec->name);
    close(rec->fd);
    free(rec);
  } else {
    munmap(rec->map, rec->size);
  }
}

// ---------------------------------------------------------- dynamic loading

DL_HANDLE load_dll(const char* dll_name) { return dlopen(dll_name, RTLD_LAZY); }
int free_dll(const DL_HANDLE dll_handle) { return dlclose(dll_handle); }
void* get_sym_address(const DL_HANDLE dll_handle, const char* sym_name) {
  return dlsym(dll_handle, sym_name);
}

// ------------------------------------------------------ files and config

void util_full_confname(const char* file_name, char* full_name) {
  const char* home = getenv("HOME");
  sprintf(full_name, "%s/%s/%s", home ? home : "(null)", path_to_config_in_home, file_name);
}

ViStatus util_file_exist(const char* full_name) {
  struct stat st;
  return stat(full_name, &st) == 0 ? VI_SUCCESS : VI_ERROR_RSRC_NFOUND;
}

// ------------------------------------------------------ sockets and data

void set_socket_state(SOCKET s, ViUInt32* argp) {
  int flags = fcntl(s, F_GETFL, 0);
  if (flags < 0) return;
  if (*argp)
    flags |= (O_NONBLOCK | O_ASYNC);
  else
    flags &= ~(O_NONBLOCK | O_ASYNC);
  fcntl(s, F_SETFL, flags);
  (void)fcntl(s, F_GETFL, 0);
}

template <typename T>
static void transpose_any(T* dst, int N, int M) {
  if (!dst || N <= 0 || M <= 0) return;
  size_t total = (size_t)N * (size_t)M;
  T* copy = (T*)malloc(total * sizeof(T));
  if (!copy) return;  // nothing to do without a scratch copy
  memcpy(copy, dst, total * sizeof(T));
  for (size_t i = 0; i < total; i++) dst[i] = copy[i / N + (size_t)M * (i % N)];
  free(copy);
}

void transpose_matrix(int* dst, int N, int M) { transpose_any(dst, N, M); }
void transpose_matrix(double* dst, int N, int M) { transpose_any(dst, N, M); }

void TransposeData(void* dataArray, int dataType, size_t NM, int M) {
  if (M <= 0) return;
  int N = (int)(NM / (size_t)M);
  if (dataType == 1)
    transpose_matrix((int*)dataArray, N, M);
  else if (dataType == 2)
    transpose_matrix((double*)dataArray, N, M);
}
