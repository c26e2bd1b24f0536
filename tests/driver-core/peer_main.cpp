// A second host process for the driver-core tests: loads the driver's shared
// library with dlopen, as a VISA host does, and reports what it sees of the
// shared block before and after opening the driver itself.
#include <dlfcn.h>
#include <stdint.h>
#include <stdio.h>

int main() {
  void* h = dlopen(DRVCORE_LIB, RTLD_NOW | RTLD_LOCAL);
  if (!h) {
    printf("dlopen failed: %s\n", dlerror());
    return 2;
  }
  auto start = (void (*)())dlsym(h, "tcpvxi_start");
  auto stop = (void (*)())dlsym(h, "tcpvxi_stop");
  auto open = (int32_t(*)(uint16_t*))dlsym(h, "vintfOpenDevice");
  auto num = (int32_t(*)(uint16_t, uint32_t*))dlsym(h, "vintfGetNumRsrc");
  auto attr = (int32_t(*)(uint16_t, uint32_t, uint32_t, void*))dlsym(h, "vintfGetRsrcAttr");
  if (!start || !stop || !open || !num || !attr) {
    printf("missing entry point\n");
    return 3;
  }
  start();
  // Before this process opens the driver: the block as the first process
  // left it, and no connection of this process yet.
  auto show = [&](const char* when) {
    uint32_t n = 99;
    char name[64] = "";
    int32_t st = num(0, &n);
    attr(0, 0, 0xBFFF0002u, name);
    printf("%s status=%d nrsrc=%u name=%s\n", when, (int)st, n, name);
  };
  show("pre");
  uint16_t nIntf = 0;
  int32_t st = open(&nIntf);
  printf("open status=%d nintf=%u\n", (int)st, (unsigned)nIntf);
  show("post");
  stop();
  fflush(stdout);
  return 0;
}
