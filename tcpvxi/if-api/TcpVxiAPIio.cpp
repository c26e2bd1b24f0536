// Register access and block transfers: single 8/16/32-bit reads and writes
// at a VXI address, and block moves cut into chunks that each fit one bridge
// message.
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include "HiSLIPcommands.h"
#include "TcpVxiAPI.h"
#include "TcpVxiAPIint.h"
#include "kvlog.h"

#ifndef VI_ERROR_INV_SPACE
#define VI_ERROR_INV_SPACE ((ViStatus)0xBFFF004E)
#endif
#ifndef VI_ERROR_INV_MODE
#define VI_ERROR_INV_MODE ((ViStatus)0xBFFF0091)
#endif

namespace {

const ViUInt32 kSwapBit = 0x80000000u;
const ViUInt32 kPrivMask = 0x7FFFu;

// Largest chunk of one block command: 65520 data bytes, so that with the
// 16-byte command head (or the 8-byte answer head and 4-byte trailer) every
// message stays below 64 KiB.
const ViUInt32 kChunkBytes = 65520;

// A bridge that keeps answering a good status while taking no element would
// keep a block move going for ever.  After this many chunks in a row without
// progress the move gives up with VI_ERROR_IO.
const int kMaxIdleChunks = 3;

inline ViUInt16 swap16(ViUInt16 v) { return (ViUInt16)((v >> 8) | (v << 8)); }
inline ViUInt32 swap32(ViUInt32 v) { return __builtin_bswap32(v); }

// The interface a call names, or null when the number is above NIntf (or the
// shared block is not mapped, or the number lies outside the table).
PINTFINFO pickIntf(ViUInt16 intfIdx) {
  if (!tcpvxiGD) return nullptr;
  if ((ViInt32)intfIdx > tcpvxiGD->NIntf || intfIdx >= TCPVXI_MAX_INTF) return nullptr;
  return &Interfaces[intfIdx];
}

// Address-space and privilege bits of a command word.  The tables have 4 and
// 8 entries: anything outside them is refused rather than read past the end.
ViStatus accessBits(ViUInt32 AddrMap, ViUInt32 AddrMode, ViUInt32* bits) {
  if (AddrMap > 3) return VI_ERROR_INV_SPACE;
  if (AddrMode > 7) return VI_ERROR_INV_MODE;
  *bits = IOFLAGS_ALEN[AddrMap] | IOFLAGS_AMMode[AddrMode];
  return VI_SUCCESS;
}

template <class T>
constexpr ViUInt32 widthBit() {
  return sizeof(T) == 1 ? VXICMD_D08 : sizeof(T) == 2 ? VXICMD_D16 : VXICMD_D32;
}

template <class T>
int readSingle(PINTFINFO intf, ViUInt32 Addr, ViUInt32 AddrMap, ViUInt32 AddrMode, T* data) {
  ViUInt32 bits = 0;
  ViStatus st = accessBits(AddrMap, AddrMode, &bits);
  if (st < 0) return st;
  sVxiCmd_INq cmd;
  cmd.cmd = VXICMD_IN | widthBit<T>() | bits;
  cmd.tmo = 0;  // not used by the bridge for a single read
  cmd.addr = Addr;
  sVxiAnsw_INq answ = {0, 0};
  ViInt32 n = intfQuery(intf, (char*)&cmd, sizeof cmd, (char*)&answ, sizeof answ, TCPVXI_CMD_TMO);
  st = CheckIOstatus(n, &answ);
  if (st < 0) return st;
  if (data) *data = (T)answ.data;
  return VI_SUCCESS;
}

template <class T>
int writeSingle(PINTFINFO intf, ViUInt32 code, ViUInt32 Addr, ViUInt32 AddrMap, ViUInt32 AddrMode, T data) {
  ViUInt32 bits = 0;
  ViStatus st = accessBits(AddrMap, AddrMode, &bits);
  if (st < 0) return st;
  sVxiCmd_OUT cmd;
  cmd.cmd = code | widthBit<T>() | bits;
  cmd.tmo = 1000;
  cmd.addr = Addr;
  cmd.data = (ViUInt32)data;
  sVxiAnsw answ = {0};
  ViInt32 n = intfQuery(intf, (char*)&cmd, sizeof cmd, (char*)&answ, sizeof answ, TCPVXI_CMD_TMO);
  return CheckIOstatus(n, &answ);
}

// The chunking loop shared by the six block routines.  write selects command
// 8 (block write) or 7 (block read); the 8-bit read alone gives the bridge
// n / 10 ms per chunk, every other chunk n / 4 + 10.
template <class T, bool write>
int moveBlock(PINTFINFO intf, ViUInt32 Addr, ViUInt32 AddrMap, ViUInt32 AddrMode, ViBoolean Inc, T* Block,
              ViUInt32 count) {
  ViUInt32 bits = 0;
  ViStatus st = accessBits(AddrMap, AddrMode, &bits);
  if (st < 0) return st;
  const ViUInt32 maxElems = kChunkBytes / sizeof(T);
  ViUInt32 cmdWord = (write ? VXICMD_OUTBUF : VXICMD_INBUF) | widthBit<T>() | bits;
  if (Inc) cmdWord |= VXICMD_INC;
  st = VI_SUCCESS;
  int idle = 0;
  while (count > 0) {
    ViUInt32 n = count < maxElems ? count : maxElems;
    ViUInt32 tmo = (!write && sizeof(T) == 1) ? n / 10 : n / 4 + 10;
    ViInt32 k = 0;
    if (write) {
      sVxiCmd_OUTBUF cmd;
      cmd.cmd = cmdWord;
      cmd.tmo = tmo;
      cmd.addr = Addr;
      cmd.count = n;
      st = intfWriteCmdBuf(intf, &cmd, (char*)Block, (ViInt32)(n * sizeof(T)), &k);
    } else {
      sVxiCmd_INBUFq cmd;
      cmd.cmd = cmdWord;
      cmd.tmo = tmo;
      cmd.addr = Addr;
      cmd.count = n;
      st = intfWriteCmdReadBuf(intf, &cmd, (char*)Block, (ViInt32)(n * sizeof(T)), &k);
    }
    if (st < 0) break;
    // A bridge may claim more elements than the chunk held: never step past
    // what was really sent or asked for.
    ViUInt32 took = k < 0 ? 0 : (ViUInt32)k;
    if (took > n) took = n;
    if (took == 0) {
      if (++idle >= kMaxIdleChunks) return VI_ERROR_IO;
    } else {
      idle = 0;
    }
    if (Inc) Addr += took * (ViUInt32)sizeof(T);
    Block += took;
    count -= took;
  }
  return st;
}

// Element i of a swapped block read receives the swapped element i + 1 (the
// one-element shift is kept on purpose).  The last element would take the
// bytes that lie behind the buffer: it is left as it was read instead.
template <class T>
void swapShifted(T* buff, ViUInt32 count) {
  if (!buff) return;
  for (ViUInt32 i = 0; i + 1 < count; i++) {
    T next = buff[i + 1];
    buff[i] = sizeof(T) == 2 ? (T)swap16((ViUInt16)next) : (T)swap32((ViUInt32)next);
  }
}

}  // namespace

// ------------------------------------------------------------ single access

int ReadD08(PINTFINFO intf, ViUInt32 Addr, ViUInt32 AddrMap, ViUInt32 AddrMode, ViUInt8* data) {
  VINTF_LOG("\n");
  return readSingle(intf, Addr, AddrMap, AddrMode, data);
}

int ReadD16(PINTFINFO intf, ViUInt32 Addr, ViUInt32 AddrMap, ViUInt32 AddrMode, ViUInt16* data) {
  VINTF_LOG("\n");
  return readSingle(intf, Addr, AddrMap, AddrMode, data);
}

int ReadD32(PINTFINFO intf, ViUInt32 Addr, ViUInt32 AddrMap, ViUInt32 AddrMode, ViUInt32* data) {
  VINTF_LOG("\n");
  return readSingle(intf, Addr, AddrMap, AddrMode, data);
}

int WriteD08(PINTFINFO intf, ViUInt32 Addr, ViUInt32 AddrMap, ViUInt32 AddrMode, ViUInt8 data) {
  VINTF_LOG("\n");
  return writeSingle(intf, VXICMD_OUT, Addr, AddrMap, AddrMode, data);
}

int WriteD16(PINTFINFO intf, ViUInt32 Addr, ViUInt32 AddrMap, ViUInt32 AddrMode, ViUInt16 data) {
  VINTF_LOG("\n");
  return writeSingle(intf, VXICMD_OUT, Addr, AddrMap, AddrMode, data);
}

int WriteD32(PINTFINFO intf, ViUInt32 Addr, ViUInt32 AddrMap, ViUInt32 AddrMode, ViUInt32 data) {
  VINTF_LOG("\n");
  return writeSingle(intf, VXICMD_OUT, Addr, AddrMap, AddrMode, data);
}

// Writes whose status nobody wants.  None of the exported calls uses them
// (the exported Poke calls send an ordinary write).
void PokeD08(PINTFINFO intf, ViUInt32 Addr, ViUInt32 AddrMap, ViUInt32 AddrMode, ViUInt8 data) {
  VINTF_LOG("\n");
  (void)writeSingle(intf, VXICMD_POKE, Addr, AddrMap, AddrMode, data);
}

void PokeD16(PINTFINFO intf, ViUInt32 Addr, ViUInt32 AddrMap, ViUInt32 AddrMode, ViUInt16 data) {
  VINTF_LOG("\n");
  (void)writeSingle(intf, VXICMD_POKE, Addr, AddrMap, AddrMode, data);
}

void PokeD32(PINTFINFO intf, ViUInt32 Addr, ViUInt32 AddrMap, ViUInt32 AddrMode, ViUInt32 data) {
  VINTF_LOG("\n");
  (void)writeSingle(intf, VXICMD_POKE, Addr, AddrMap, AddrMode, data);
}

ViStatus vintfIn8(ViUInt16 intfIdx, ViUInt32 mode, ViUInt16 adrmap, ViBusAddress offset, ViUInt8* data) {
  DRV_CALL(VI_ERROR_SYSTEM_ERROR);
  util_mutex_lock(hMutexTcpVxiRM, TCPVXI_LOCK_TMO);
  ViStatus st = VI_ERROR_SYSTEM_ERROR;
  if (PINTFINFO intf = pickIntf(intfIdx)) {
    VINTF_LOG("intf%d\n", intfIdx);
    st = ReadD08(intf, (ViUInt32)offset, adrmap, mode & kPrivMask, data);
  }
  util_mutex_unlock(hMutexTcpVxiRM);
  return st;
}

ViStatus vintfIn16(ViUInt16 intfIdx, ViUInt32 mode, ViUInt16 adrmap, ViBusAddress offset, ViUInt16* InWord) {
  DRV_CALL(VI_ERROR_SYSTEM_ERROR);
  util_mutex_lock(hMutexTcpVxiRM, TCPVXI_LOCK_TMO);
  ViStatus st = VI_ERROR_SYSTEM_ERROR;
  if (PINTFINFO intf = pickIntf(intfIdx)) {
    VINTF_LOG("intf%d\n", intfIdx);
    st = ReadD16(intf, (ViUInt32)offset, adrmap, mode & kPrivMask, InWord);
    // Swapped whatever the read gave, as the host expects.
    if ((mode & kSwapBit) && InWord) *InWord = swap16(*InWord);
  }
  util_mutex_unlock(hMutexTcpVxiRM);
  return st;
}

ViStatus vintfIn32(ViUInt16 intfIdx, ViUInt32 mode, ViUInt16 adrmap, ViBusAddress offset, ViUInt32* data) {
  DRV_CALL(VI_ERROR_SYSTEM_ERROR);
  util_mutex_lock(hMutexTcpVxiRM, TCPVXI_LOCK_TMO);
  ViStatus st = VI_ERROR_SYSTEM_ERROR;
  if (PINTFINFO intf = pickIntf(intfIdx)) {
    VINTF_LOG("intf%d\n", intfIdx);
    st = ReadD32(intf, (ViUInt32)offset, adrmap, mode & kPrivMask, data);
    if ((mode & kSwapBit) && data) *data = swap32(*data);
  }
  util_mutex_unlock(hMutexTcpVxiRM);
  return st;
}

ViStatus vintfOut8(ViUInt16 intfIdx, ViUInt32 mode, ViUInt16 adrmap, ViBusAddress offset, ViUInt8 data) {
  DRV_CALL(VI_ERROR_SYSTEM_ERROR);
  util_mutex_lock(hMutexTcpVxiRM, TCPVXI_LOCK_TMO);
  ViStatus st = VI_ERROR_SYSTEM_ERROR;
  if (PINTFINFO intf = pickIntf(intfIdx)) {
    VINTF_LOG("intf%d\n", intfIdx);
    st = WriteD08(intf, (ViUInt32)offset, adrmap, mode & kPrivMask, data);
  }
  util_mutex_unlock(hMutexTcpVxiRM);
  return st;
}

ViStatus vintfOut16(ViUInt16 intfIdx, ViUInt32 mode, ViUInt16 adrmap, ViBusAddress offset, ViUInt16 data) {
  DRV_CALL(VI_ERROR_SYSTEM_ERROR);
  util_mutex_lock(hMutexTcpVxiRM, TCPVXI_LOCK_TMO);
  ViStatus st = VI_ERROR_SYSTEM_ERROR;
  if (PINTFINFO intf = pickIntf(intfIdx)) {
    VINTF_LOG("intf%d\n", intfIdx);
    if (mode & kSwapBit) data = swap16(data);
    st = WriteD16(intf, (ViUInt32)offset, adrmap, mode & kPrivMask, data);
  }
  util_mutex_unlock(hMutexTcpVxiRM);
  return st;
}

ViStatus vintfOut32(ViUInt16 intfIdx, ViUInt32 mode, ViUInt16 adrmap, ViBusAddress offset, ViUInt32 data) {
  DRV_CALL(VI_ERROR_SYSTEM_ERROR);
  util_mutex_lock(hMutexTcpVxiRM, TCPVXI_LOCK_TMO);
  ViStatus st = VI_ERROR_SYSTEM_ERROR;
  if (PINTFINFO intf = pickIntf(intfIdx)) {
    VINTF_LOG("intf%d\n", intfIdx);
    if (mode & kSwapBit) data = swap32(data);
    st = WriteD32(intf, (ViUInt32)offset, adrmap, mode & kPrivMask, data);
  }
  util_mutex_unlock(hMutexTcpVxiRM);
  return st;
}

void vintfPeek8(ViUInt16 intfIdx, ViUInt32 mode, ViUInt16 adrmap, ViBusAddress offset, ViUInt8* data) {
  VINTF_LOG("intf%d\n", intfIdx);
  (void)vintfIn8(intfIdx, mode, adrmap, offset, data);
}

void vintfPeek16(ViUInt16 intfIdx, ViUInt32 mode, ViUInt16 adrmap, ViBusAddress offset, ViUInt16* data) {
  VINTF_LOG("intf%d\n", intfIdx);
  (void)vintfIn16(intfIdx, mode, adrmap, offset, data);
}

void vintfPeek32(ViUInt16 intfIdx, ViUInt32 mode, ViUInt16 adrmap, ViBusAddress offset, ViUInt32* data) {
  VINTF_LOG("intf%d\n", intfIdx);
  (void)vintfIn32(intfIdx, mode, adrmap, offset, data);
}

// The 8-bit Poke indexes the privilege table with the whole mode (its swap
// bit included); a value outside the table's eight entries sends nothing.
void vintfPoke8(ViUInt16 intfIdx, ViUInt32 mode, ViUInt16 adrmap, ViBusAddress offset, ViUInt8 data) {
  DRV_CALL();
  util_mutex_lock(hMutexTcpVxiRM, TCPVXI_LOCK_TMO);
  if (PINTFINFO intf = pickIntf(intfIdx)) {
    VINTF_LOG("intf%d\n", intfIdx);
    (void)WriteD08(intf, (ViUInt32)offset, adrmap, mode, data);
  }
  util_mutex_unlock(hMutexTcpVxiRM);
}

void vintfPoke16(ViUInt16 intfIdx, ViUInt32 mode, ViUInt16 adrmap, ViBusAddress offset, ViUInt16 data) {
  DRV_CALL();
  util_mutex_lock(hMutexTcpVxiRM, TCPVXI_LOCK_TMO);
  if (PINTFINFO intf = pickIntf(intfIdx)) {
    VINTF_LOG("intf%d\n", intfIdx);
    if (mode & kSwapBit) data = swap16(data);
    (void)WriteD16(intf, (ViUInt32)offset, adrmap, mode & kPrivMask, data);
  }
  util_mutex_unlock(hMutexTcpVxiRM);
}

void vintfPoke32(ViUInt16 intfIdx, ViUInt32 mode, ViUInt16 adrmap, ViBusAddress offset, ViUInt32 data) {
  DRV_CALL();
  util_mutex_lock(hMutexTcpVxiRM, TCPVXI_LOCK_TMO);
  if (PINTFINFO intf = pickIntf(intfIdx)) {
    VINTF_LOG("intf%d\n", intfIdx);
    if (mode & kSwapBit) data = swap32(data);
    (void)WriteD32(intf, (ViUInt32)offset, adrmap, mode & kPrivMask, data);
  }
  util_mutex_unlock(hMutexTcpVxiRM);
}

// ------------------------------------------------------------ block moves

int WriteBlkD08(PINTFINFO intf, ViUInt32 Addr, ViUInt32 AddrMap, ViUInt32 AddrMode, ViBoolean Inc, ViUInt8* Block,
                ViUInt32 count) {
  VINTF_LOG("\n");
  return moveBlock<ViUInt8, true>(intf, Addr, AddrMap, AddrMode, Inc, Block, count);
}

int WriteBlkD16(PINTFINFO intf, ViUInt32 Addr, ViUInt32 AddrMap, ViUInt32 AddrMode, ViBoolean Inc,
                ViUInt16* Block, ViUInt32 count) {
  VINTF_LOG("\n");
  return moveBlock<ViUInt16, true>(intf, Addr, AddrMap, AddrMode, Inc, Block, count);
}

int WriteBlkD32(PINTFINFO intf, ViUInt32 Addr, ViUInt32 AddrMap, ViUInt32 AddrMode, ViBoolean Inc,
                ViUInt32* Block, ViUInt32 count) {
  VINTF_LOG("\n");
  return moveBlock<ViUInt32, true>(intf, Addr, AddrMap, AddrMode, Inc, Block, count);
}

int ReadBlkD08(PINTFINFO intf, ViUInt32 Addr, ViUInt32 AddrMap, ViUInt32 AddrMode, ViBoolean Inc, ViUInt8* Block,
               ViUInt32 count) {
  VINTF_LOG("\n");
  return moveBlock<ViUInt8, false>(intf, Addr, AddrMap, AddrMode, Inc, Block, count);
}

int ReadBlkD16(PINTFINFO intf, ViUInt32 Addr, ViUInt32 AddrMap, ViUInt32 AddrMode, ViBoolean Inc, ViUInt16* Block,
               ViUInt32 count) {
  VINTF_LOG("\n");
  return moveBlock<ViUInt16, false>(intf, Addr, AddrMap, AddrMode, Inc, Block, count);
}

int ReadBlkD32(PINTFINFO intf, ViUInt32 Addr, ViUInt32 AddrMap, ViUInt32 AddrMode, ViBoolean Inc, ViUInt32* Block,
               ViUInt32 count) {
  VINTF_LOG("\n");
  return moveBlock<ViUInt32, false>(intf, Addr, AddrMap, AddrMode, Inc, Block, count);
}

ViStatus vintfMoveIn8(ViUInt16 intfIdx, ViUInt32 mode, ViUInt16 adrmap, ViUInt16 increment, ViBusAddress offset,
                      ViBusSize count, ViUInt8* buff) {
  DRV_CALL(VI_ERROR_SYSTEM_ERROR);
  util_mutex_lock(hMutexTcpVxiRM, TCPVXI_LOCK_TMO);
  ViStatus st = VI_ERROR_SYSTEM_ERROR;
  if (PINTFINFO intf = pickIntf(intfIdx)) {
    VINTF_LOG("intf%d\n", intfIdx);
    ViUInt32 n = (ViUInt32)count;
    st = (n && !buff) ? VI_ERROR_USER_BUF
                      : ReadBlkD08(intf, (ViUInt32)offset, adrmap, mode, increment != 0, buff, n);
  }
  util_mutex_unlock(hMutexTcpVxiRM);
  return st;
}

namespace {

// The swapped 16- and 32-bit block reads: read, then swap with the one-element
// shift (whatever the status).
template <class T>
ViStatus moveInSwapped(const char* fn, ViUInt16 intfIdx, ViUInt32 mode, ViUInt16 adrmap, ViUInt16 increment,
                       ViBusAddress offset, ViBusSize count, T* buff,
                       int (*readBlk)(PINTFINFO, ViUInt32, ViUInt32, ViUInt32, ViBoolean, T*, ViUInt32)) {
  util_mutex_lock(hMutexTcpVxiRM, TCPVXI_LOCK_TMO);
  ViStatus st = VI_ERROR_SYSTEM_ERROR;
  if (PINTFINFO intf = pickIntf(intfIdx)) {
    VINTF_LOG_AS(fn, "intf%d\n", intfIdx);
    ViUInt32 n = (ViUInt32)count;
    if (n && !buff) {
      st = VI_ERROR_USER_BUF;
    } else {
      st = readBlk(intf, (ViUInt32)offset, adrmap, mode & kPrivMask, increment != 0, buff, n);
      if (mode & kSwapBit) swapShifted(buff, n);
    }
  }
  util_mutex_unlock(hMutexTcpVxiRM);
  return st;
}

}  // namespace

ViStatus vintfMoveIn16(ViUInt16 intfIdx, ViUInt32 mode, ViUInt16 adrmap, ViUInt16 increment, ViBusAddress offset,
                       ViBusSize count, ViUInt16* buff) {
  DRV_CALL(VI_ERROR_SYSTEM_ERROR);
  return moveInSwapped<ViUInt16>(__func__, intfIdx, mode, adrmap, increment, offset, count, buff, ReadBlkD16);
}

ViStatus vintfMoveIn32(ViUInt16 intfIdx, ViUInt32 mode, ViUInt16 adrmap, ViUInt16 increment, ViBusAddress offset,
                       ViBusSize count, ViUInt32* buff) {
  DRV_CALL(VI_ERROR_SYSTEM_ERROR);
  return moveInSwapped<ViUInt32>(__func__, intfIdx, mode, adrmap, increment, offset, count, buff, ReadBlkD32);
}

ViStatus vintfMoveOut8(ViUInt16 intfIdx, ViUInt32 mode, ViUInt16 adrmap, ViUInt16 increment, ViBusAddress offset,
                       ViBusSize count, ViUInt8* buff) {
  DRV_CALL(VI_ERROR_SYSTEM_ERROR);
  util_mutex_lock(hMutexTcpVxiRM, TCPVXI_LOCK_TMO);
  ViStatus st = VI_ERROR_SYSTEM_ERROR;
  if (PINTFINFO intf = pickIntf(intfIdx)) {
    VINTF_LOG("intf%d\n", intfIdx);
    ViUInt32 n = (ViUInt32)count;
    st = (n && !buff) ? VI_ERROR_USER_BUF
                      : WriteBlkD08(intf, (ViUInt32)offset, adrmap, mode, increment != 0, buff, n);
  }
  util_mutex_unlock(hMutexTcpVxiRM);
  return st;
}

namespace {

// The swapped 16- and 32-bit block writes send a swapped copy (no shift here).
template <class T>
ViStatus moveOutSwapped(const char* fn, ViUInt16 intfIdx, ViUInt32 mode, ViUInt16 adrmap, ViUInt16 increment, ViBusAddress offset,
                        ViBusSize count, T* buff,
                        int (*writeBlk)(PINTFINFO, ViUInt32, ViUInt32, ViUInt32, ViBoolean, T*, ViUInt32)) {
  util_mutex_lock(hMutexTcpVxiRM, TCPVXI_LOCK_TMO);
  PINTFINFO intf = pickIntf(intfIdx);
  if (!intf) {
    util_mutex_unlock(hMutexTcpVxiRM);
    return VI_ERROR_SYSTEM_ERROR;
  }
  ViUInt32 n = (ViUInt32)count;
  if (n && !buff) {
    util_mutex_unlock(hMutexTcpVxiRM);
    return VI_ERROR_USER_BUF;
  }
  T* data = buff;
  T* copy = nullptr;
  if ((mode & kSwapBit) && n) {
    copy = (T*)malloc((size_t)n * sizeof(T));
    if (!copy) {
      util_mutex_unlock(hMutexTcpVxiRM);
      return VI_ERROR_ALLOC;
    }
    for (ViUInt32 i = 0; i < n; i++)
      copy[i] = sizeof(T) == 2 ? (T)swap16((ViUInt16)buff[i]) : (T)swap32((ViUInt32)buff[i]);
    data = copy;
  }
  VINTF_LOG_AS(fn, "intf%d\n", intfIdx);
  ViStatus st = writeBlk(intf, (ViUInt32)offset, adrmap, mode & kPrivMask, increment != 0, data, n);
  free(copy);
  util_mutex_unlock(hMutexTcpVxiRM);
  return st;
}

}  // namespace

ViStatus vintfMoveOut16(ViUInt16 intfIdx, ViUInt32 mode, ViUInt16 adrmap, ViUInt16 increment, ViBusAddress offset,
                        ViBusSize count, ViUInt16* buff) {
  DRV_CALL(VI_ERROR_SYSTEM_ERROR);
  return moveOutSwapped<ViUInt16>(__func__, intfIdx, mode, adrmap, increment, offset, count, buff, WriteBlkD16);
}

ViStatus vintfMoveOut32(ViUInt16 intfIdx, ViUInt32 mode, ViUInt16 adrmap, ViUInt16 increment, ViBusAddress offset,
                        ViBusSize count, ViUInt32* buff) {
  DRV_CALL(VI_ERROR_SYSTEM_ERROR);
  return moveOutSwapped<ViUInt32>(__func__, intfIdx, mode, adrmap, increment, offset, count, buff, WriteBlkD32);
}

// ------------------------------------------------------------ general move

namespace {

// A value of the given width from host memory; other widths read nothing and
// keep the previous value.
inline ViUInt32 loadMem(const void* p, ViUInt16 width, ViUInt32 prev) {
  switch (width) {
    case 1: {
      ViUInt8 v;
      memcpy(&v, p, 1);
      return v;
    }
    case 2: {
      ViUInt16 v;
      memcpy(&v, p, 2);
      return v;
    }
    case 4: {
      ViUInt32 v;
      memcpy(&v, p, 4);
      return v;
    }
    default:
      return prev;
  }
}

inline void storeMem(void* p, ViUInt16 width, ViUInt32 v) {
  switch (width) {
    case 1: {
      ViUInt8 b = (ViUInt8)v;
      memcpy(p, &b, 1);
      break;
    }
    case 2: {
      ViUInt16 w = (ViUInt16)v;
      memcpy(p, &w, 2);
      break;
    }
    case 4:
      memcpy(p, &v, 4);
      break;
    default:
      break;
  }
}

ViStatus busRead(ViUInt16 intfIdx, ViUInt32 mode, ViUInt16 adrmap, ViBusAddress offset, ViUInt16 width,
                 ViUInt32* v) {
  switch (width) {
    case 1: {
      ViUInt8 b = 0;
      ViStatus st = vintfIn8(intfIdx, mode, adrmap, offset, &b);
      *v = b;
      return st;
    }
    case 2: {
      ViUInt16 w = 0;
      ViStatus st = vintfIn16(intfIdx, mode, adrmap, offset, &w);
      *v = w;
      return st;
    }
    case 4:
      return vintfIn32(intfIdx, mode, adrmap, offset, v);
    default:
      return VI_SUCCESS;  // nothing is read for another width
  }
}

ViStatus busWrite(ViUInt16 intfIdx, ViUInt32 mode, ViUInt16 adrmap, ViBusAddress offset, ViUInt16 width,
                  ViUInt32 v) {
  switch (width) {
    case 1:
      return vintfOut8(intfIdx, mode, adrmap, offset, (ViUInt8)v);
    case 2:
      return vintfOut16(intfIdx, mode, adrmap, offset, (ViUInt16)v);
    case 4:
      return vintfOut32(intfIdx, mode, adrmap, offset, v);
    default:
      return VI_SUCCESS;  // nothing is sent for another width
  }
}

inline char* memPtr(ViBusAddress offset) { return (char*)(uintptr_t)offset; }

}  // namespace

// A side whose address space is 0 is host memory and its offset a pointer.
// A block command is used exactly when the memory side increments and both
// widths agree; everything else goes element by element through the single
// accesses, each of which takes the driver mutex on its own.
ViStatus vintfMove(ViUInt16 intfIdx, ViUInt32 src_mode, ViUInt16 src_adrmap, ViUInt16 src_increment,
                   ViBusAddress src_offset, ViUInt16 src_width, ViUInt32 dest_mode, ViUInt16 dest_adrmap,
                   ViUInt16 dest_increment, ViBusAddress dest_offset, ViUInt16 dest_width, ViBusSize count) {
  VINTF_LOG("intf%d\n", intfIdx);
  ViStatus st = VI_SUCCESS;
  ViUInt32 v = 0;
  if (src_adrmap == 0) {
    char* src = memPtr(src_offset);
    if (dest_adrmap == 0) {
      char* dst = memPtr(dest_offset);
      for (ViBusSize i = 0; i < count; i++) {
        v = loadMem(src, src_width, v);
        if (src_increment) src += src_width;
        storeMem(dst, dest_width, v);
        if (dest_increment) dst += dest_width;
      }
      return VI_SUCCESS;
    }
    if (src_width != dest_width || !src_increment) {
      for (ViBusSize i = 0; i < count; i++) {
        v = loadMem(src, src_width, v);
        if (src_increment) src += src_width;
        st = busWrite(intfIdx, dest_mode, dest_adrmap, dest_offset, dest_width, v);
        if (st != VI_SUCCESS) break;
        if (dest_increment) dest_offset += dest_width;
      }
      return st;
    }
    switch (src_width) {
      case 1:
        return vintfMoveOut8(intfIdx, dest_mode, dest_adrmap, dest_increment, dest_offset, count, (ViUInt8*)src);
      case 2:
        return vintfMoveOut16(intfIdx, dest_mode, dest_adrmap, dest_increment, dest_offset, count, (ViUInt16*)src);
      case 4:
        return vintfMoveOut32(intfIdx, dest_mode, dest_adrmap, dest_increment, dest_offset, count, (ViUInt32*)src);
      default:
        return VI_SUCCESS;
    }
  }

  if (dest_adrmap != 0) {
    for (ViBusSize i = 0; i < count; i++) {
      v = 0;
      st = busRead(intfIdx, src_mode, src_adrmap, src_offset, src_width, &v);
      if (st != VI_SUCCESS) break;
      if (src_increment) src_offset += src_width;
      st = busWrite(intfIdx, dest_mode, dest_adrmap, dest_offset, dest_width, v);
      if (st != VI_SUCCESS) break;
      if (dest_increment) dest_offset += dest_width;
    }
    return st;
  }

  char* dst = memPtr(dest_offset);
  if (src_width != dest_width || !dest_increment) {
    for (ViBusSize i = 0; i < count; i++) {
      v = 0;
      st = busRead(intfIdx, src_mode, src_adrmap, src_offset, src_width, &v);
      if (st != VI_SUCCESS) break;
      if (src_increment) src_offset += src_width;
      storeMem(dst, dest_width, v);
      if (dest_increment) dst += dest_width;
    }
    return st;
  }
  switch (src_width) {
    case 1:
      return vintfMoveIn8(intfIdx, src_mode, src_adrmap, src_increment, src_offset, count, (ViUInt8*)dst);
    case 2:
      return vintfMoveIn16(intfIdx, src_mode, src_adrmap, src_increment, src_offset, count, (ViUInt16*)dst);
    case 4:
      return vintfMoveIn32(intfIdx, src_mode, src_adrmap, src_increment, src_offset, count, (ViUInt32*)dst);
    default:
      return VI_SUCCESS;
  }
}
