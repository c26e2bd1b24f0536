#include "kvlog.h"

namespace {
// Harmless default for the hook that is called without a null test.
void kvNoLog(int, int, const char*, ...) {}
}  // namespace

extern "C" {
kvFSpyLog_t pkvFSpyLog = nullptr;
kvFRSpyLog_t pkvFRSpyLog = kvNoLog;
}
