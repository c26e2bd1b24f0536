// Driver state: the process-shared block (a cross-process format, packed and
// pinned byte for byte), the per-process interface table, the globals.
#ifndef TCPVXI_API_STD_H
#define TCPVXI_API_STD_H

#include <stddef.h>
#include <stdint.h>

#include "kvtcp.h"
#include "kvvisatypes.h"
#include "visa-ipc.h"

#define TCPVXI_MAX_INTF 32
#define TCPVXI_MAX_INSTR 64

#pragma pack(push, 1)

// One VXI instrument's VISA resource attributes.
typedef struct {
  char attr_RSRC_NAME[24];
  ViUInt32 IdxAttr_RSRC_CLASS;
  ViInt16 attr_VXI_LA;
  ViUInt32 attr_VXI_TRIG_STATUS;
  ViUInt32 attr_VXI_VME_INTR_STATUS;
  ViInt16 attr_VXI_VME_SYSFAIL_STATE;
  ViUInt16 attr_VXI_DEV_CLASS;
  ViInt16 attr_MAINFRAME_LA;
  ViUInt16 attr_MANF_ID;
  ViBusAddress attr_MEM_BASE;
  ViBusSize attr_MEM_SIZE;
  ViUInt16 attr_MEM_SPACE;
  ViUInt16 attr_MODEL_CODE;
  ViInt16 attr_SLOT;
  ViInt16 attr_CMDR_LA;
  ViUInt16 attr_IMMEDIATE_SERV;
  char attr_MANF_NAME[64];
  char attr_MODEL_NAME[64];
  ViUInt32 attr_VXI_TRIG_SUPPORT;
  ViUInt16 offsetA16;
  ViUInt16 sizeA16;
  ViUInt32 offsetA24;
  ViUInt32 sizeA24;
  ViUInt32 offsetA32;
  ViUInt32 sizeA32;
} RmInstrInfo;

// One interface (bridge) as every process sees it.
typedef struct {
  ViInt32 intf_no;
  char Addr[64];
  char devName[64];
  ViInt32 NInstr;
  RmInstrInfo Instr[TCPVXI_MAX_INSTR];
} SHAREDINTFINFO;

// The whole shared block.
typedef struct {
  ViUInt32 RunRM_ID;
  ViInt32 NIntf;  // highest interface index in use, -1 for none
  SHAREDINTFINFO Intf[TCPVXI_MAX_INTF];
} SHAREDMEMINTF;

#pragma pack(pop)

static_assert(sizeof(RmInstrInfo) == 224, "RmInstrInfo layout");
static_assert(offsetof(RmInstrInfo, attr_RSRC_NAME) == 0, "RmInstrInfo layout");
static_assert(offsetof(RmInstrInfo, IdxAttr_RSRC_CLASS) == 24, "RmInstrInfo layout");
static_assert(offsetof(RmInstrInfo, attr_VXI_LA) == 28, "RmInstrInfo layout");
static_assert(offsetof(RmInstrInfo, attr_VXI_TRIG_STATUS) == 30, "RmInstrInfo layout");
static_assert(offsetof(RmInstrInfo, attr_VXI_VME_INTR_STATUS) == 34, "RmInstrInfo layout");
static_assert(offsetof(RmInstrInfo, attr_VXI_VME_SYSFAIL_STATE) == 38, "RmInstrInfo layout");
static_assert(offsetof(RmInstrInfo, attr_VXI_DEV_CLASS) == 40, "RmInstrInfo layout");
static_assert(offsetof(RmInstrInfo, attr_MAINFRAME_LA) == 42, "RmInstrInfo layout");
static_assert(offsetof(RmInstrInfo, attr_MANF_ID) == 44, "RmInstrInfo layout");
static_assert(offsetof(RmInstrInfo, attr_MEM_BASE) == 46, "RmInstrInfo layout");
static_assert(offsetof(RmInstrInfo, attr_MEM_SIZE) == 54, "RmInstrInfo layout");
static_assert(offsetof(RmInstrInfo, attr_MEM_SPACE) == 62, "RmInstrInfo layout");
static_assert(offsetof(RmInstrInfo, attr_MODEL_CODE) == 64, "RmInstrInfo layout");
static_assert(offsetof(RmInstrInfo, attr_SLOT) == 66, "RmInstrInfo layout");
static_assert(offsetof(RmInstrInfo, attr_CMDR_LA) == 68, "RmInstrInfo layout");
static_assert(offsetof(RmInstrInfo, attr_IMMEDIATE_SERV) == 70, "RmInstrInfo layout");
static_assert(offsetof(RmInstrInfo, attr_MANF_NAME) == 72, "RmInstrInfo layout");
static_assert(offsetof(RmInstrInfo, attr_MODEL_NAME) == 136, "RmInstrInfo layout");
static_assert(offsetof(RmInstrInfo, attr_VXI_TRIG_SUPPORT) == 200, "RmInstrInfo layout");
static_assert(offsetof(RmInstrInfo, offsetA16) == 204, "RmInstrInfo layout");
static_assert(offsetof(RmInstrInfo, sizeA16) == 206, "RmInstrInfo layout");
static_assert(offsetof(RmInstrInfo, offsetA24) == 208, "RmInstrInfo layout");
static_assert(offsetof(RmInstrInfo, sizeA24) == 212, "RmInstrInfo layout");
static_assert(offsetof(RmInstrInfo, offsetA32) == 216, "RmInstrInfo layout");
static_assert(offsetof(RmInstrInfo, sizeA32) == 220, "RmInstrInfo layout");

static_assert(sizeof(SHAREDINTFINFO) == 14472, "SHAREDINTFINFO layout");
static_assert(offsetof(SHAREDINTFINFO, intf_no) == 0, "SHAREDINTFINFO layout");
static_assert(offsetof(SHAREDINTFINFO, Addr) == 4, "SHAREDINTFINFO layout");
static_assert(offsetof(SHAREDINTFINFO, devName) == 68, "SHAREDINTFINFO layout");
static_assert(offsetof(SHAREDINTFINFO, NInstr) == 132, "SHAREDINTFINFO layout");
static_assert(offsetof(SHAREDINTFINFO, Instr) == 136, "SHAREDINTFINFO layout");

static_assert(sizeof(SHAREDMEMINTF) == 463112, "SHAREDMEMINTF layout");
static_assert(offsetof(SHAREDMEMINTF, RunRM_ID) == 0, "SHAREDMEMINTF layout");
static_assert(offsetof(SHAREDMEMINTF, NIntf) == 4, "SHAREDMEMINTF layout");
static_assert(offsetof(SHAREDMEMINTF, Intf) == 8, "SHAREDMEMINTF layout");

// One interface as this process sees it: its connection to the bridge.
typedef struct {
  SHAREDINTFINFO* GIntf;  // this interface's record in the shared block
  ViInt32 idx;            // own index in Interfaces
  ViInt32 gidx;
  ViInt32 ext_intf_no;    // the host's number for this interface
  KvTcpInfo kvtcp;        // HiSLIP connection to the bridge
} INTFINFO, *PINTFINFO;

// The host's interrupt callback.
typedef void (*eventHandler)(ViUInt32 eventType, ViUInt16 intfIdx, ViUInt32 instrIdx, ViAttrState statID,
                             ViAttrState irqLine);

#define TCPVXI_MUTEX_NAME "TarveloTcpVxiMutex"
#define TCPVXI_SHMEM_NAME "kvtcpvxiapimemfilemap"
#define TCPVXI_RESMAN_FILE "resmantcpvxi.out"

// Lock time-outs of the driver mutex, in seconds.
#define TCPVXI_LOCK_TMO 3
#define TCPVXI_CLOSE_TMO 5
#define TCPVXI_START_TMO 2

// Transport time-out for bridge commands, in milliseconds.
#define TCPVXI_CMD_TMO 2000

#endif
