// A second host process for the driver-core tests: loads the driver's shared
// library with dlopen, as a VISA host does, and reports what it sees of the
// shared block before and after opening the driver itself.
#include <dlfcn.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>

typedef int32_t (*openFn)(uint16_t*);
typedef int32_t (*numFn)(uint16_t, uint32_t*);
typedef int32_t (*attrFn)(uint16_t, uint32_t, uint32_t, void*);
typedef int32_t (*closeFn)(void);
typedef void (*voidFn)(void);

int main() {
  void* h = dlopen(DRVCORE_LIB, RTLD_NOW | RTLD_LOCAL);
  if (!h) {
    printf("dlopen failed: %s\n", dlerror());
    return 2;
  }
  voidFn start = (voidFn)dlsym(h, "tcpvxi_start");
  voidFn stop = (voidFn)dlsym(h, "tcpvxi_stop");
  openFn open = (openFn)dlsym(h, "vintfOpenDevice");
  numFn num = (numFn)dlsym(h, "vintfGetNumRsrc");
  attrFn attr = (attrFn)dlsym(h, "vintfGetRsrcAttr");
  if (!start || !stop || !open || !num || !attr) {
    printf("missing entry point\n");
    return 3;
  }
  start();
  // Before this process opens the driver: the block as the first process
  // left it, and no connection of this process yet.
  uint32_t n = 99;
  char name[64] = "";
  int32_t st = num(0, &n);
  attr(0, 0, 0xBFFF0002u, name);
  printf("pre status=%d nrsrc=%u name=%s\n", (int)st, n, name);
  uint16_t nIntf = 0;
  st = open(&nIntf);
  printf("open status=%d nintf=%u\n", (int)st, (unsigned)nIntf);
  n = 99;
  name[0] = 0;
  num(0, &n);
  attr(0, 0, 0xBFFF0002u, name);
  printf("post nrsrc=%u name=%s\n", n, name);
  stop();
  fflush(stdout);
  return 0;
}
