// Platform services: monotonic timers and delays, process-shared named
// mutexes (POSIX named semaphores), POSIX shared memory with a small header,
// process and thread identity, dynamic loading, the per-user configuration
// path.  Thin and stateless; nothing here logs.
#ifndef VISA_IPC_H
#define VISA_IPC_H

#include <semaphore.h>
#include <stddef.h>
#include <stdint.h>
#include <time.h>

#include "kvexport.h"
#include "kvvisatypes.h"

typedef sem_t* MUTEX_TYPE;
typedef void* HANDLE;
typedef void* DL_HANDLE;
typedef int SOCKET;

// The first 8 bytes of every shared segment, seen by every process.
typedef struct {
  uint32_t magic;         // SHMEM_MAGIC once initialised
  uint32_t link_counter;  // live mappings
} shmem_header_t, *pshmem_header_t;
static_assert(sizeof(shmem_header_t) == 8, "segment header is 8 bytes");

#define SHMEM_MAGIC 0xAABBCCDDu
#define SHMEM_NAME_MAX 250

// Process-local record behind the HANDLE that util_map_global returns.
typedef struct {
  void* map;                       // segment start (the header)
  int fd;                          // from shm_open
  uint32_t size;                   // segment size actually mapped
  char name[SHMEM_NAME_MAX + 1];   // segment name
} shared_mem_t, *pshared_mem_t;

extern "C" {
KV_EXPORT extern const char* path_to_config_in_home;

// time
KV_EXPORT ViReal64 util_timer_sec(void);
KV_EXPORT ViUInt64 util_timer_ms(void);
KV_EXPORT ViUInt64 util_timer_us(void);
KV_EXPORT void util_getcounter(volatile int64_t* count);
KV_EXPORT void util_getfreq(volatile int64_t* count);
KV_EXPORT void util_delay_ms(ViUInt64 d);
KV_EXPORT void util_test_timer(void);

// process and thread
KV_EXPORT ViUInt32 util_getpid(void);
KV_EXPORT ViUInt32 util_gettid(void);
KV_EXPORT int switch_thread(void);
KV_EXPORT void kill_thread(void* handle, int ret_code);

// named mutex
KV_EXPORT int mutex_name_valid(const char* name);
KV_EXPORT ViStatus util_mutex_open(const char* mutexName, MUTEX_TYPE* hMutex);
KV_EXPORT ViStatus util_mutex_lock(MUTEX_TYPE hMutex, ViUInt32 s_tmo);
KV_EXPORT ViStatus util_mutexes_lock(ViUInt32 nMutex, MUTEX_TYPE* hMutex, ViUInt32 s_tmo);
KV_EXPORT void util_mutex_unlock(MUTEX_TYPE hMutex);
KV_EXPORT void util_mutex_close(const char* mutexName, MUTEX_TYPE* hMutex);

// shared memory
KV_EXPORT HANDLE util_map_global(const char* mapname, int size, void** mapptr, ViStatus* fInit);
KV_EXPORT void util_unmap_global(HANDLE* hMapObject, void* mapptr);

// dynamic loading
KV_EXPORT DL_HANDLE load_dll(const char* dll_name);
KV_EXPORT int free_dll(const DL_HANDLE dll_handle);
KV_EXPORT void* get_sym_address(const DL_HANDLE dll_handle, const char* sym_name);

// files and configuration
KV_EXPORT void util_full_confname(const char* file_name, char* full_name);
KV_EXPORT ViStatus util_file_exist(const char* full_name);

// sockets and data
KV_EXPORT void set_socket_state(SOCKET s, ViUInt32* argp);
KV_EXPORT void TransposeData(void* dataArray, int dataType, size_t NM, int M);
}

// Two overloads, so these keep their C++ names.
KV_EXPORT void transpose_matrix(int* dst, int N, int M);
KV_EXPORT void transpose_matrix(double* dst, int N, int M);

// Segment size used for a user size: user size plus header, in whole KiB.
// Formed in 64 bits so that a size near INT_MAX cannot overflow.
inline uint32_t util_segment_size(int size) {
  return (uint32_t)(((int64_t)size + 8 + 1023) / 1024 * 1024);
}

#endif
