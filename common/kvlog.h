// The host's logging hooks and the macros through which the library logs.
//
// The host assigns both pointers.  pkvFSpyLog may stay null: every call site
// tests it.  pkvFRSpyLog is called without a test by the socket primitives,
// so it starts out pointing at a function that does nothing.
#ifndef KV_LOG_H
#define KV_LOG_H

#include "kvexport.h"

typedef void (*kvFSpyLog_t)(int level, const char* format, ...);
typedef void (*kvFRSpyLog_t)(int level1, int level2, const char* format, ...);

extern "C" {
KV_EXPORT extern kvFSpyLog_t pkvFSpyLog;
KV_EXPORT extern kvFRSpyLog_t pkvFRSpyLog;
}

// Transport (kvtcp): level 0x4000, source path and line first.
#define KVTCP_LOG(fmt, ...)                                                          \
  do {                                                                               \
    if (pkvFSpyLog) pkvFSpyLog(0x4000, __FILE__ "(%d) " fmt, __LINE__, ##__VA_ARGS__); \
  } while (0)

// Socket primitives: the second hook, "%s: " formats with the function name.
#define KVTCP_RLOG(fmt, ...) pkvFRSpyLog(2, 0x4000, fmt, __func__, ##__VA_ARGS__)

// Driver (vintf): level 1, source path, line and the calling function's name.
#define VINTF_LOG(fmt, ...)                                                                  \
  do {                                                                                       \
    if (pkvFSpyLog) pkvFSpyLog(1, __FILE__ "(%d) %s: " fmt, __LINE__, __func__, ##__VA_ARGS__); \
  } while (0)

// Driver, on behalf of an entry point whose name is given (shared helpers).
#define VINTF_LOG_AS(func, fmt, ...)                                                      \
  do {                                                                                   \
    if (pkvFSpyLog) pkvFSpyLog(1, __FILE__ "(%d) %s: " fmt, __LINE__, func, ##__VA_ARGS__); \
  } while (0)

#endif
