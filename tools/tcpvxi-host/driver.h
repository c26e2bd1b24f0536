// The driver as a host sees it: a shared library opened with dlopen and a
// table of entry points resolved by their exported names.
#pragma once

#include <cstdint>
#include <string>

namespace host {

using ViStatus = int32_t;
using ViUInt8 = uint8_t;
using ViUInt16 = uint16_t;
using ViInt16 = int16_t;
using ViUInt32 = uint32_t;
using ViInt32 = int32_t;
using ViUInt64 = uint64_t;
using ViBusAddress = uint64_t;
using ViBusSize = uint64_t;
using ViAttrState = uint64_t;

using EventHandler = void (*)(ViUInt32 eventType, ViUInt16 intf, ViUInt32 instr, ViAttrState statID,
                              ViAttrState line);
using SpyLog = void (*)(int level, const char* fmt, ...);
using RSpyLog = void (*)(int level1, int level2, const char* fmt, ...);

struct Driver {
  void* handle = nullptr;
  std::string path;

  void (*start)() = nullptr;
  void (*stop)() = nullptr;
  ViStatus (*openDevice)(ViUInt16*) = nullptr;
  ViStatus (*closeDevice)() = nullptr;
  ViStatus (*tryReopen)(int) = nullptr;
  ViStatus (*fillResources)(ViUInt16) = nullptr;
  ViStatus (*getNumRsrc)(ViUInt16, ViUInt32*) = nullptr;
  ViStatus (*getRsrcAttr)(ViUInt16, ViUInt32, ViUInt32, void*) = nullptr;
  ViStatus (*setRsrcAttr)(ViUInt16, ViUInt32, ViUInt32, ViAttrState) = nullptr;
  ViStatus (*getExtIntf)(ViUInt16, ViUInt16*) = nullptr;
  ViStatus (*setExtIntf)(ViUInt16, ViUInt16) = nullptr;
  ViStatus (*initVXIpath)(ViUInt16, ViUInt16) = nullptr;
  ViStatus (*initHOSTpath)(ViUInt16) = nullptr;
  ViStatus (*resetVXI)(ViUInt16) = nullptr;
  ViStatus (*getSysState)(ViUInt16, ViInt16*) = nullptr;

  ViStatus (*in8)(ViUInt16, ViUInt32, ViUInt16, ViBusAddress, ViUInt8*) = nullptr;
  ViStatus (*in16)(ViUInt16, ViUInt32, ViUInt16, ViBusAddress, ViUInt16*) = nullptr;
  ViStatus (*in32)(ViUInt16, ViUInt32, ViUInt16, ViBusAddress, ViUInt32*) = nullptr;
  ViStatus (*out8)(ViUInt16, ViUInt32, ViUInt16, ViBusAddress, ViUInt8) = nullptr;
  ViStatus (*out16)(ViUInt16, ViUInt32, ViUInt16, ViBusAddress, ViUInt16) = nullptr;
  ViStatus (*out32)(ViUInt16, ViUInt32, ViUInt16, ViBusAddress, ViUInt32) = nullptr;
  void (*peek8)(ViUInt16, ViUInt32, ViUInt16, ViBusAddress, ViUInt8*) = nullptr;
  void (*peek16)(ViUInt16, ViUInt32, ViUInt16, ViBusAddress, ViUInt16*) = nullptr;
  void (*peek32)(ViUInt16, ViUInt32, ViUInt16, ViBusAddress, ViUInt32*) = nullptr;
  void (*poke8)(ViUInt16, ViUInt32, ViUInt16, ViBusAddress, ViUInt8) = nullptr;
  void (*poke16)(ViUInt16, ViUInt32, ViUInt16, ViBusAddress, ViUInt16) = nullptr;
  void (*poke32)(ViUInt16, ViUInt32, ViUInt16, ViBusAddress, ViUInt32) = nullptr;

  ViStatus (*moveIn8)(ViUInt16, ViUInt32, ViUInt16, ViUInt16, ViBusAddress, ViBusSize, ViUInt8*) = nullptr;
  ViStatus (*moveIn16)(ViUInt16, ViUInt32, ViUInt16, ViUInt16, ViBusAddress, ViBusSize, ViUInt16*) = nullptr;
  ViStatus (*moveIn32)(ViUInt16, ViUInt32, ViUInt16, ViUInt16, ViBusAddress, ViBusSize, ViUInt32*) = nullptr;
  ViStatus (*moveOut8)(ViUInt16, ViUInt32, ViUInt16, ViUInt16, ViBusAddress, ViBusSize, ViUInt8*) = nullptr;
  ViStatus (*moveOut16)(ViUInt16, ViUInt32, ViUInt16, ViUInt16, ViBusAddress, ViBusSize, ViUInt16*) = nullptr;
  ViStatus (*moveOut32)(ViUInt16, ViUInt32, ViUInt16, ViUInt16, ViBusAddress, ViBusSize, ViUInt32*) = nullptr;
  ViStatus (*move)(ViUInt16, ViUInt32, ViUInt16, ViUInt16, ViBusAddress, ViUInt16, ViUInt32, ViUInt16, ViUInt16,
                   ViBusAddress, ViUInt16, ViBusSize) = nullptr;

  ViStatus (*userIRQCallback)(EventHandler) = nullptr;
  ViStatus (*irqAddLA)(ViUInt16, ViUInt16) = nullptr;
  ViStatus (*irqDelLA)(ViUInt16, ViUInt16) = nullptr;
  ViStatus (*testIRQ)(ViUInt16, ViUInt16) = nullptr;

  ViStatus (*wsCmd)(ViUInt16, ViUInt32, ViUInt32, ViUInt16, ViUInt16, ViUInt16*) = nullptr;
  ViStatus (*wsCmd2la)(ViUInt16, ViUInt16, ViUInt32, ViUInt16, ViUInt16, ViUInt16*) = nullptr;
  ViStatus (*wsResp)(ViUInt16, ViUInt32, ViUInt32, ViUInt16*) = nullptr;
  ViStatus (*wsReadSTB)(ViUInt16, ViUInt32, ViUInt32, ViUInt16*) = nullptr;
  ViStatus (*wsRd)(ViUInt16, ViUInt32, ViUInt32, char*, ViInt32, ViUInt16, char, ViInt32*) = nullptr;
  ViStatus (*wsWrt)(ViUInt16, ViUInt32, ViUInt32, char*, ViInt32, ViUInt16, ViInt32*) = nullptr;
  ViStatus (*wsLCmd)(ViUInt16, ViUInt32, ViUInt32, ViUInt32, ViUInt16, ViUInt32*) = nullptr;
  ViStatus (*wsLResp)(ViUInt16, ViUInt32, ViUInt32, ViUInt32*) = nullptr;
  ViStatus (*wsTrg)(ViUInt16, ViUInt32, ViUInt32) = nullptr;
  ViStatus (*wsClr)(ViUInt16, ViUInt32, ViUInt32) = nullptr;

  SpyLog* spyLog = nullptr;    // address of the library's pkvFSpyLog
  RSpyLog* rSpyLog = nullptr;  // address of the library's pkvFRSpyLog

  // Opens the library and resolves every entry point.  Returns an empty
  // string on success, else a message naming what is missing.
  std::string load(const std::string& libPath);
  void unload();
  // Any other exported symbol of the library (null if absent).
  void* symbol(const char* name) const;
};

}  // namespace host
