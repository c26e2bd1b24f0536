// TCP-VXI interface driver: state, lifecycle, the small system calls and the
// connection of this process to the bridges.
//
// Every call that reaches a bridge or the shared block runs under the one
// process-shared driver mutex.  Its lock result is deliberately not looked
// at: a lock that times out lets the call go on unguarded rather than hang
// the host.
#include "TcpVxiAPI.h"

#include <string.h>

#include <atomic>

#include "HiSLIPcommands.h"
#include "TcpVxiAPIint.h"
#include "kvlog.h"
#include "kvtcp_internal.h"

INTFINFO Interfaces[TCPVXI_MAX_INTF];
SHAREDMEMINTF* tcpvxiGD = nullptr;
HANDLE hMapObject = nullptr;
MUTEX_TYPE hMutexTcpVxiRM = nullptr;
const char* shmemNameTcpvxi = TCPVXI_MUTEX_NAME;
int FillRsrcCalled = 0;
ViSession defRM = 0;
eventHandler userCallback = nullptr;

// Sub-address of the bridge's HiSLIP server.
static const char kSubAddr[] = "inst0";

// Tells whether this mapping created the block; kept between start calls.
static ViStatus fInit = 0;

// ------------------------------------------------------------- helpers

namespace {
std::atomic<int> g_callsInside{0};
std::atomic<bool> g_stopping{false};

// How long a stop waits for the calls in flight to leave.  Once the
// connections are closed each ends within its own time-out; one that is
// still inside after this keeps the block and the mutex (they are then left
// open rather than pulled from under it).
constexpr ViUInt64 kStopWaitMs = 10000;

bool waitCallsGone(ViUInt64 ms) {
  ViUInt64 t0 = util_timer_ms();
  while (g_callsInside.load() != 0) {
    if (util_timer_ms() - t0 > ms) return false;
    util_delay_ms(1);
  }
  return true;
}
}  // namespace

// Sequentially consistent on both sides: either the stop sees the call
// inside, or the call sees the stop.
DrvCall::DrvCall() {
  g_callsInside.fetch_add(1);
  refused_ = g_stopping.load();
}

DrvCall::~DrvCall() { g_callsInside.fetch_sub(1); }

void drvLock(ViUInt32 s_tmo) { (void)util_mutex_lock(hMutexTcpVxiRM, s_tmo); }

void drvUnlock(void) { util_mutex_unlock(hMutexTcpVxiRM); }

// NIntf holds the highest index in use, not the count, so the bound is
// inclusive.  A block that is not mapped yet, and any index past the
// process-local table (a block written by a foreign process could claim
// more), are refused as well, so nothing is read through a null or
// out-of-range pointer.
int drvIntfRefused(int idx) {
  if (!tcpvxiGD) return 1;
  if (idx < 0 || idx >= TCPVXI_MAX_INTF) return 1;
  return idx > tcpvxiGD->NIntf;
}

SHAREDINTFINFO* drvShared(int idx) {
  if (Interfaces[idx].GIntf) return Interfaces[idx].GIntf;
  return &tcpvxiGD->Intf[idx];
}

// Connects one interface to its bridge and binds the bridge to this host.
// A lock that the bridge refuses closes the connection again.
int drvConnectAndLock(INTFINFO* intf, const char* addr) {
  int st = kvtcp_hislip_Connect(&intf->kvtcp, addr, kSubAddr);
  if (st == 0) {
    if (LockToIPAddr(intf) < 0) kvtcp_Close(&intf->kvtcp);
  }
  return st;
}

// ----------------------------------------------------------- lifecycle

void tcpvxi_start(void) {
  util_mutex_open(shmemNameTcpvxi, &hMutexTcpVxiRM);
  drvLock(TCPVXI_START_TMO);
  // A second start would map the block again and count this process twice,
  // so the block could never be removed: the mapping in place is kept.
  if (hMapObject && tcpvxiGD) {
    drvUnlock();
    return;
  }
  void* p = nullptr;
  hMapObject = util_map_global(TCPVXI_SHMEM_NAME, (int)sizeof(SHAREDMEMINTF), &p, &fInit);
  // The mapping call stores its pointer even when it fails: only a real
  // mapping is taken.
  tcpvxiGD = hMapObject ? (SHAREDMEMINTF*)p : nullptr;
  drvUnlock();
}

// Brings the process back to the state it had when the library was loaded
// (no connections, no receive threads, nothing filled, no callback), so a
// start after a stop, with or without unloading the library in between
// (which keeps its globals: it stays loaded), works like the first one.
// Calls that race the stop get VI_ERROR_SYSTEM_ERROR (refused) or
// VI_ERROR_CONN_LOST (their connection closed under them).
void tcpvxi_stop(void) {
  g_stopping.store(true);
  // Every record of the table, not only those up to NIntf: the table is
  // cleared below and must leave no socket or named mutex open.
  drvLock(TCPVXI_CLOSE_TMO);
  for (int i = 0; i < TCPVXI_MAX_INTF; i++) kvtcp_Close(&Interfaces[i].kvtcp);
  drvUnlock();
  bool idle = waitCallsGone(kStopWaitMs);
  // The closed connections' receive threads leave on their own; let them
  // finish before the host may unload the library.
  for (int i = 0; i < TCPVXI_MAX_INTF; i++) kvtcp_WaitThreadGone(&Interfaces[i].kvtcp, 1000);
  if (idle) {
    drvLock(TCPVXI_START_TMO);
    if (hMapObject && tcpvxiGD) util_unmap_global(&hMapObject, tcpvxiGD);
    hMapObject = nullptr;
    tcpvxiGD = nullptr;
    drvUnlock();
    util_mutex_close(shmemNameTcpvxi, &hMutexTcpVxiRM);
    memset((void*)Interfaces, 0, sizeof Interfaces);  // back to the loaded state
  } else {
    VINTF_LOG("calls still in flight: the block and the mutex stay open\n");
    tcpvxiGD = nullptr;
    hMapObject = nullptr;
    hMutexTcpVxiRM = nullptr;
  }
  FillRsrcCalled = 0;
  fInit = 0;
  defRM = 0;
  kvStore(userCallback, nullptr);
  kvtcp_setCallback(nullptr);
  g_stopping.store(false);
}

ViStatus vintfCloseDevice(void) {
  DRV_CALL(VI_ERROR_SYSTEM_ERROR);
  drvLock(TCPVXI_CLOSE_TMO);
  if (tcpvxiGD) {
    int n = tcpvxiGD->NIntf;
    if (n >= TCPVXI_MAX_INTF) n = TCPVXI_MAX_INTF - 1;
    for (int i = 0; i <= n; i++) kvtcp_Close(&Interfaces[i].kvtcp);
  }
  drvUnlock();
  return VI_SUCCESS;
}

// --------------------------------------------------------- system calls

ViStatus vintfGetExtIntf(ViUInt16 intfIdx, ViUInt16* extVINTF) {
  DRV_CALL(VI_ERROR_SYSTEM_ERROR);
  drvLock(TCPVXI_LOCK_TMO);
  if (drvIntfRefused(intfIdx)) {
    drvUnlock();
    return VI_ERROR_SYSTEM_ERROR;
  }
  // The shared number, not the process-local one that vintfSetExtIntf
  // writes: the host asks what the resource file calls the interface.
  ViUInt16 v = (ViUInt16)drvShared(intfIdx)->intf_no;
  if (v > 32) v = 0;
  if (extVINTF) *extVINTF = v;
  VINTF_LOG("intf%d extintf=%d\n", (int)intfIdx, (int)v);
  drvUnlock();
  return VI_SUCCESS;
}

ViStatus vintfSetExtIntf(ViUInt16 intfIdx, ViUInt16 extVINTF) {
  DRV_CALL(VI_ERROR_SYSTEM_ERROR);
  drvLock(TCPVXI_LOCK_TMO);
  // Refused without unlocking: this exit keeps the driver mutex on purpose.
  if (drvIntfRefused(intfIdx)) return VI_ERROR_SYSTEM_ERROR;
  VINTF_LOG("intf%d ext_intf %d\n", (int)intfIdx, (int)extVINTF);
  Interfaces[intfIdx].ext_intf_no = (ViInt32)extVINTF;
  drvUnlock();
  return VI_SUCCESS;
}

ViStatus vintfInitVXIpath(ViUInt16 intfIdx, ViUInt16 Nvxb) { return VI_SUCCESS; }

ViStatus vintfInitHOSTpath(ViUInt16 intfIdx) { return VI_SUCCESS; }

ViStatus vintfResetVXI(ViUInt16 intfIdx) {
  DRV_CALL(VI_ERROR_SYSTEM_ERROR);
  drvLock(TCPVXI_LOCK_TMO);
  if (drvIntfRefused(intfIdx)) {
    drvUnlock();
    return VI_ERROR_SYSTEM_ERROR;
  }
  VINTF_LOG("intf%d\n", (int)intfIdx);
  sVxiCmd cmd;
  cmd.cmd = VXICMD_RESET;
  cmd.tmo = 0;  // not used by the bridge for this command
  sVxiAnsw answ;
  memset(&answ, 0, sizeof answ);
  ViInt32 n = intfQuery(&Interfaces[intfIdx], (char*)&cmd, sizeof cmd, (char*)&answ, sizeof answ, 5000);
  // The mainframe needs time to come back from SYSRESET: nobody may reach
  // any bridge before it has.
  util_delay_ms(500);
  drvUnlock();
  return CheckIOstatus(n, &answ);
}

ViStatus vintfGetSysState(ViUInt16 intfIdx, ViInt16* State) {
  DRV_CALL(VI_ERROR_SYSTEM_ERROR);
  drvLock(TCPVXI_LOCK_TMO);
  if (drvIntfRefused(intfIdx)) {
    drvUnlock();
    return VI_ERROR_SYSTEM_ERROR;
  }
  VINTF_LOG("\n");
  sVxiCmd cmd;
  cmd.cmd = VXICMD_STATE;
  cmd.tmo = 0;  // not used by the bridge for this command
  sVxiAnsw_STATEq answ;
  memset(&answ, 0, sizeof answ);
  ViInt32 n = intfQuery(&Interfaces[intfIdx], (char*)&cmd, sizeof cmd, (char*)&answ, sizeof answ, 5000);
  if (State) {
    if (n >= 0) {
      ViInt16 s = 0;
      if (answ.state & 1) s |= 1;
      if (answ.state & 2) s |= 2;
      *State = s;
    } else {
      *State = -1;
    }
  }
  drvUnlock();
  return CheckIOstatus(n, &answ);
}

// ----------------------------------------------------------- connection

ViStatus vintfOpenDevice(ViUInt16* retNTCPVXI) {
  DRV_CALL(VI_ERROR_SYSTEM_ERROR);
  drvLock(TCPVXI_LOCK_TMO);
  if (!tcpvxiGD) {
    // Not started: there is no block to fill or to link to.
    if (retNTCPVXI) *retNTCPVXI = 0;
    drvUnlock();
    return VI_SUCCESS;
  }
  if (FillRsrcCalled == 0) vintfFillResources(1);
  int n = tcpvxiGD->NIntf;
  if (n >= TCPVXI_MAX_INTF) n = TCPVXI_MAX_INTF - 1;
  if (retNTCPVXI) *retNTCPVXI = (ViUInt16)(n + 1);
  for (int i = 0; i <= n; i++) {
    INTFINFO* intf = &Interfaces[i];
    SHAREDINTFINFO* g = &tcpvxiGD->Intf[i];
    intf->GIntf = g;
    if (!kvLoad(intf->kvtcp.Connected)) drvConnectAndLock(intf, g->Addr);
    if (!kvLoad(intf->kvtcp.Connected)) {
      VINTF_LOG("intf%d (%s) not connected\n", i, g->Addr);
      // Nothing behind an unreachable bridge is offered to the host.
      g->NInstr = 0;
    } else {
      VINTF_LOG("intf%d (%s) connected\n", i, g->Addr);
    }
  }
  drvUnlock();
  return VI_SUCCESS;
}

ViStatus vintfTryReopenDevice(int intfIdx) {
  DRV_CALL(VI_ERROR_SYSTEM_ERROR);
  drvLock(TCPVXI_LOCK_TMO);
  // Compared signed and unmasked; the table bound keeps a negative or huge
  // number from indexing outside it.
  if (!tcpvxiGD || tcpvxiGD->NIntf < intfIdx || intfIdx < 0 || intfIdx >= TCPVXI_MAX_INTF) {
    drvUnlock();
    return VI_ERROR_SYSTEM_ERROR;
  }
  VINTF_LOG("intf%d\n", intfIdx);
  INTFINFO* intf = &Interfaces[intfIdx];
  const char* addr = drvShared(intfIdx)->Addr;
  ViStatus result;
  if (kvLoad(intf->kvtcp.Connected)) {
    // The host saw the connection fail while the record still holds the
    // session: start afresh and retry for up to 2 s.  The two failure exits
    // keep the driver mutex held on purpose, so no call of any process
    // reaches a bridge until the host has sorted this out.
    VINTF_LOG("start\n");
    kvtcp_Close(&intf->kvtcp);
    ViUInt64 t0 = util_timer_ms();
    int st;
    do {
      st = kvtcp_hislip_Connect(&intf->kvtcp, addr, kSubAddr);
      if (st < 0 && util_timer_ms() - t0 > 2000) {
        VINTF_LOG("CONN_LOST\n");
        return VI_ERROR_CONN_LOST;
      }
      if (LockToIPAddr(intf) < 0) {
        kvtcp_Close(&intf->kvtcp);
        return VI_ERROR_CONN_LOST;
      }
      // A transport that reported success without a session must not keep
      // this loop going for ever: the same 2 s apply.
      if (!kvLoad(intf->kvtcp.Connected) && util_timer_ms() - t0 > 2000) {
        VINTF_LOG("CONN_LOST\n");
        return VI_ERROR_CONN_LOST;
      }
    } while (!kvLoad(intf->kvtcp.Connected));
    VINTF_LOG("OK\n");
    result = st;
  } else {
    VINTF_LOG("simple open\n");
    result = kvtcp_hislip_Connect(&intf->kvtcp, addr, kSubAddr);
    if (LockToIPAddr(intf) < 0) {
      kvtcp_Close(&intf->kvtcp);
      result = VI_ERROR_CONN_LOST;
    }
  }
  drvUnlock();
  return result;
}
