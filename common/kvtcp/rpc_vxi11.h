// ONC RPC messages and the VXI-11 call and reply records, laid out by hand.
// Every field is a 32-bit word that travels big-endian; the code fills the
// fields with wire-order values (myhtonl) and reads them back with myntohl.
// A call starts with the record mark and the 40-byte call header (44 bytes
// in all), a reply with the record mark and a 24-byte accepted-reply header
// (28 bytes).  Offsets below are from the start of the whole message.
#ifndef KV_RPC_VXI11_H
#define KV_RPC_VXI11_H

#include <stddef.h>
#include <stdint.h>

#define RPC_LAST_FRAGMENT 0x80000000u
#define RPC_CALL 0u
#define RPC_REPLY 1u
#define RPC_VERSION 2u

#define PMAP_PROG 0x000186A0u  // 100000
#define PMAP_VERS 2u
#define PMAP_PROC_GETPORT 3u
#define PMAP_PORT 111
#define IPPROTO_TCP_NUMBER 6u

#define DEVICE_CORE_PROG 0x000607AFu   // 395183
#define DEVICE_ASYNC_PROG 0x000607B0u  // 395184
#define DEVICE_INTR_PROG 0x000607B1u   // 395185
#define DEVICE_CORE_VERS 1u
#define DEVICE_INTR_VERS 1u

// Device core procedures.
enum {
  VXI11_CREATE_LINK = 10,
  VXI11_WRITE = 11,
  VXI11_READ = 12,
  VXI11_READSTB = 13,
  VXI11_TRIGGER = 14,
  VXI11_CLEAR = 15,
  VXI11_REMOTE = 16,
  VXI11_LOCAL = 17,
  VXI11_LOCK = 18,
  VXI11_UNLOCK = 19,
  VXI11_ENABLE_SRQ = 20,
  VXI11_DOCMD = 22,
  VXI11_DESTROY_LINK = 23,
  VXI11_CREATE_INTR_CHAN = 25,
  VXI11_DESTROY_INTR_CHAN = 26
};

#define VXI11_INTR_SRQ 30  // device interrupt program: device_intr_srq

// Operation flags and read reasons.
#define VXI11_FLAG_WAITLOCK 0x01
#define VXI11_FLAG_END 0x08
#define VXI11_FLAG_TERMCHRSET 0x80
#define VXI11_REASON_REQCNT 1
#define VXI11_REASON_CHR 2
#define VXI11_REASON_END 4

#define VXI11_HANDLE_SIZE 40
#define VXI11_DEVICE_NAME_MAX 256  // longest device name a link request carries

typedef struct {
  uint32_t len;  // record mark
  uint32_t xid;
  uint32_t type;
  uint32_t rpcvers;
  uint32_t prog;
  uint32_t vers;
  uint32_t proc;
  uint32_t cred[2];
  uint32_t verf[2];
} rpc_call_msg;

typedef struct {
  uint32_t len;  // record mark
  uint32_t xid;
  uint32_t type;
  uint32_t reply_stat;
  uint32_t verf[2];
  uint32_t stat;  // accept_stat
} rpc_reply_msg;

// ------------------------------------------------------------ portmapper

typedef struct {
  rpc_call_msg hdr;
  uint32_t prog;
  uint32_t vers;
  uint32_t prot;
  uint32_t port;
} rpc_portmap_call_msg;

typedef struct {
  rpc_reply_msg hdr;
  uint32_t port;
} rpc_portmap_reply_msg;

// ------------------------------------------------------------ core calls

typedef struct {
  rpc_call_msg hdr;
  int32_t clientId;
  int32_t lockDevice;
  uint32_t lock_timeout;
  uint32_t size;
  char device[VXI11_DEVICE_NAME_MAX];  // name, zero-padded to a multiple of 4
} Create_LinkParms;

typedef struct {
  rpc_call_msg hdr;
  uint32_t lid;
} Destroy_LinkParms;

typedef struct {
  rpc_call_msg hdr;
  uint32_t lid;
  uint32_t io_timeout;
  uint32_t lock_timeout;
  uint32_t flags;
  int32_t size;  // then the data, zero-padded to a multiple of 4
} Device_WriteParms;

typedef struct {
  rpc_call_msg hdr;
  uint32_t lid;
  uint32_t requestSize;
  uint32_t io_timeout;
  uint32_t lock_timeout;
  uint32_t flags;
  int32_t termChar;
} Device_ReadParms;

typedef struct {
  rpc_call_msg hdr;
  uint32_t lid;
  uint32_t flags;
  uint32_t lock_timeout;
  uint32_t io_timeout;
} Device_GenericParms;

enum { DEVICE_TCP = 0, DEVICE_UDP = 1 };

typedef struct {
  rpc_call_msg hdr;
  uint32_t hostAddr;
  uint32_t hostPort;
  uint32_t progNum;
  uint32_t progVers;
  uint32_t progFamily;
} Device_RemoteFunc;

typedef struct {
  rpc_call_msg hdr;
  uint32_t lid;
  int32_t enable;
  uint32_t size;
  char handle[VXI11_HANDLE_SIZE];
} Device_EnableSrqParms;

// The device's interrupt call (device interrupt program, device_intr_srq).
typedef struct {
  rpc_call_msg hdr;
  uint32_t size;
  char handle[VXI11_HANDLE_SIZE];
} Device_SrqParms;

// ------------------------------------------------------------ core replies

typedef struct {
  rpc_reply_msg hdr;
  int32_t error;
} Device_Error;

typedef struct {
  rpc_reply_msg hdr;
  int32_t error;
  uint32_t lid;
  uint32_t abortPort;
  uint32_t maxRecvSize;
} Create_LinkResp;

typedef struct {
  rpc_reply_msg hdr;
  int32_t error;
  uint32_t size;
} Device_WriteResp;

typedef struct {
  rpc_reply_msg hdr;
  int32_t error;
  int32_t reason;
  int32_t size;  // then the data, padded to a multiple of 4
} Device_ReadResp;

typedef struct {
  rpc_reply_msg hdr;
  int32_t error;
  uint32_t stb;
} Device_ReadStbResp;

static_assert(sizeof(rpc_call_msg) == 44, "call head");
static_assert(sizeof(rpc_reply_msg) == 28, "reply head");
static_assert(sizeof(rpc_portmap_call_msg) == 60, "GETPORT call");
static_assert(sizeof(rpc_portmap_reply_msg) == 32, "GETPORT reply");
static_assert(offsetof(Create_LinkParms, device) == 60, "create link name");
static_assert(sizeof(Destroy_LinkParms) == 48, "destroy link");
static_assert(sizeof(Device_WriteParms) == 64, "write parameters");
static_assert(sizeof(Device_ReadParms) == 68, "read parameters");
static_assert(sizeof(Device_GenericParms) == 60, "generic parameters");
static_assert(sizeof(Device_RemoteFunc) == 64, "create interrupt channel");
static_assert(sizeof(Device_EnableSrqParms) == 96, "enable SRQ");
static_assert(offsetof(Device_SrqParms, size) == 44 && offsetof(Device_SrqParms, handle) == 48, "SRQ call");
static_assert(sizeof(Device_Error) == 32, "device error");
static_assert(sizeof(Create_LinkResp) == 44, "create link reply");
static_assert(sizeof(Device_WriteResp) == 36, "write reply");
static_assert(sizeof(Device_ReadResp) == 40, "read reply");
static_assert(sizeof(Device_ReadStbResp) == 36, "status byte reply");

#endif
