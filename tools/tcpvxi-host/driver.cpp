#include "driver.h"

#include <dlfcn.h>

#include <cstdio>
#include <vector>

namespace host {

namespace {
template <typename F>
void resolve(void* h, F& fn, const char* name, std::vector<std::string>& missing) {
  void* p = dlsym(h, name);
  if (!p) missing.emplace_back(name);
  fn = reinterpret_cast<F>(p);
}
}  // namespace

std::string Driver::load(const std::string& libPath) {
  // RTLD_NODELETE: the driver's HiSLIP receive threads are detached and may
  // still be leaving after tcpvxi_stop; unmapping the library under them at
  // dlclose would crash the process on its way out.
  handle = dlopen(libPath.c_str(), RTLD_NOW | RTLD_LOCAL | RTLD_NODELETE);
  if (!handle) return std::string("cannot load ") + libPath + ": " + dlerror();
  path = libPath;
  std::vector<std::string> missing;
  void* h = handle;
  // Plain names.
  resolve(h, start, "tcpvxi_start", missing);
  resolve(h, stop, "tcpvxi_stop", missing);
  resolve(h, openDevice, "vintfOpenDevice", missing);
  resolve(h, closeDevice, "vintfCloseDevice", missing);
  resolve(h, fillResources, "vintfFillResources", missing);
  resolve(h, getNumRsrc, "vintfGetNumRsrc", missing);
  resolve(h, getRsrcAttr, "vintfGetRsrcAttr", missing);
  resolve(h, setRsrcAttr, "vintfSetRsrcAttr", missing);
  resolve(h, getExtIntf, "vintfGetExtIntf", missing);
  resolve(h, setExtIntf, "vintfSetExtIntf", missing);
  resolve(h, initVXIpath, "vintfInitVXIpath", missing);
  resolve(h, initHOSTpath, "vintfInitHOSTpath", missing);
  resolve(h, resetVXI, "vintfResetVXI", missing);
  resolve(h, getSysState, "vintfGetSysState", missing);
  resolve(h, in8, "vintfIn8", missing);
  resolve(h, in16, "vintfIn16", missing);
  resolve(h, in32, "vintfIn32", missing);
  resolve(h, out8, "vintfOut8", missing);
  resolve(h, out16, "vintfOut16", missing);
  resolve(h, out32, "vintfOut32", missing);
  resolve(h, peek8, "vintfPeek8", missing);
  resolve(h, peek16, "vintfPeek16", missing);
  resolve(h, peek32, "vintfPeek32", missing);
  resolve(h, poke8, "vintfPoke8", missing);
  resolve(h, poke16, "vintfPoke16", missing);
  resolve(h, poke32, "vintfPoke32", missing);
  resolve(h, moveIn8, "vintfMoveIn8", missing);
  resolve(h, moveIn16, "vintfMoveIn16", missing);
  resolve(h, moveIn32, "vintfMoveIn32", missing);
  resolve(h, moveOut8, "vintfMoveOut8", missing);
  resolve(h, moveOut16, "vintfMoveOut16", missing);
  resolve(h, moveOut32, "vintfMoveOut32", missing);
  resolve(h, move, "vintfMove", missing);
  resolve(h, userIRQCallback, "vintfUserIRQCallback", missing);
  resolve(h, irqAddLA, "vintfIrqAddLA", missing);
  resolve(h, irqDelLA, "vintfIrqDelLA", missing);
  resolve(h, testIRQ, "vintfTestIRQ", missing);
  // Type-encoded (C++) names.
  resolve(h, tryReopen, "_Z20vintfTryReopenDevicei", missing);
  resolve(h, wsCmd, "_Z10vintfWScmdtjjttPt", missing);
  resolve(h, wsCmd2la, "_Z13vintfWScmd2lattjttPt", missing);
  resolve(h, wsResp, "_Z11vintfWSresptjjPt", missing);
  resolve(h, wsReadSTB, "_Z14vintfWSreadSTBtjjPt", missing);
  resolve(h, wsRd, "_Z9vintfWSrdtjjPcitcPi", missing);
  resolve(h, wsWrt, "_Z10vintfWSwrttjjPcitPi", missing);
  resolve(h, wsLCmd, "_Z11vintfWSLcmdtjjjtPj", missing);
  resolve(h, wsLResp, "_Z12vintfWSLresptjjPj", missing);
  resolve(h, wsTrg, "_Z10vintfWStrgtjj", missing);
  resolve(h, wsClr, "_Z10vintfWSclrtjj", missing);
  // The host's logging hooks are variables of the library.
  spyLog = reinterpret_cast<SpyLog*>(dlsym(h, "pkvFSpyLog"));
  rSpyLog = reinterpret_cast<RSpyLog*>(dlsym(h, "pkvFRSpyLog"));
  if (!spyLog) missing.emplace_back("pkvFSpyLog");
  if (!rSpyLog) missing.emplace_back("pkvFRSpyLog");
  if (missing.empty()) return {};
  std::string msg = libPath + " lacks:";
  for (auto& m : missing) msg += " " + m;
  return msg;
}

void Driver::unload() {
  if (handle) dlclose(handle);
  handle = nullptr;
}

void* Driver::symbol(const char* name) const { return handle ? dlsym(handle, name) : nullptr; }

}  // namespace host
