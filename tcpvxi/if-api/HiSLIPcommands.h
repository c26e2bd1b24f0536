// The bridge's own binary commands and answers, carried as the payload of
// HiSLIP vendor-specific messages.  Every field is a 32-bit word in host
// (little-endian) order, sent as it lies in memory.
#ifndef TCPVXI_HISLIP_COMMANDS_H
#define TCPVXI_HISLIP_COMMANDS_H

#include <stdint.h>

#include "TcpVxiAPIStd.h"
#include "kvvisatypes.h"

// Command codes (bits 0-7 of the command word).
enum {
  VXICMD_LOCK = 1,        // lock the bridge to this host
  VXICMD_RESET = 2,       // reset the VXI system
  VXICMD_STATE = 3,       // query the system state
  VXICMD_IN = 4,          // single read
  VXICMD_OUT = 5,         // single write
  VXICMD_POKE = 6,        // single write, status not wanted
  VXICMD_INBUF = 7,       // block read
  VXICMD_OUTBUF = 8,      // block write
  VXICMD_WSREAD = 12,     // Word Serial read of message bytes
  VXICMD_WSWRITE = 13,    // Word Serial write of message bytes
  VXICMD_WSCMDRESP = 14,  // Word Serial command and/or response
  VXICMD_WAITRESP = 15,   // wait for response-register bits
  VXICMD_RESMAN = 16,     // fetch the resource-manager text
  VXICMD_TESTIRQ = 17,    // generate a test interrupt
};

// Data width bits.
#define VXICMD_D08 0x00400000u
#define VXICMD_D16 0x00800000u
#define VXICMD_D32 0x01000000u
// Block commands: increment the bus address after each element.
#define VXICMD_INC 0x08000000u

// Word Serial modifiers.
#define VXICMD_WS_EOS 0x01000000u      // code 12: stop at the character in bits 16-23
#define VXICMD_WS_END 0x02000000u      // code 12: flags bit 1; code 13: END with the last byte
#define VXICMD_WS_SEND16 0x04000000u   // code 14: send a 16-bit command
#define VXICMD_WS_SEND32 0x08000000u   // code 14: send a 32-bit command
#define VXICMD_WS_RESP16 0x10000000u   // code 14: read a 16-bit response
#define VXICMD_WS_RESP32 0x20000000u   // code 14: read a 32-bit response

typedef struct {
  uint32_t cmd;
  uint32_t tmo;
} sVxiCmd, *psVxiCmd;

typedef struct {
  uint32_t cmd;
  uint32_t tmo;
  uint32_t addr;
} sVxiCmd_INq, *psVxiCmd_INq;

typedef struct {
  uint32_t cmd;
  uint32_t tmo;
  uint32_t addr;
  uint32_t data;
} sVxiCmd_OUT, *psVxiCmd_OUT;

typedef struct {
  uint32_t cmd;
  uint32_t tmo;
  uint32_t addr;
  uint32_t count;
} sVxiCmd_INBUFq, *psVxiCmd_INBUFq;

typedef struct {
  uint32_t cmd;
  uint32_t tmo;
  uint32_t addr;
  uint32_t count;  // elements of the access width
  uint32_t data[1];
} sVxiCmd_OUTBUF, *psVxiCmd_OUTBUF;

typedef struct {
  uint32_t cmd;
  uint32_t tmo;
  uint32_t statID;
} sVxiCmd_IMM_IRQ, *psVxiCmd_IMM_IRQ;

typedef struct {
  uint32_t cmd;
  uint32_t tmo;
  uint32_t count;  // bytes wanted, at most 256
} sVxiCmd_READq, *psVxiCmd_READq;

typedef struct {
  uint32_t cmd;
  uint32_t tmo;
  uint32_t count;  // bytes, at most 256
  uint8_t data[4];
} sVxiCmd_WRITE, *psVxiCmd_WRITE;

typedef struct {
  uint32_t cmd;
  uint32_t tmo;
  uint32_t command;
} sVxiCmd_CMDRESP, *psVxiCmd_CMDRESP;

typedef struct {
  uint32_t cmd;
  uint32_t tmo;
  uint32_t stdresp;
} sVxiCmd_WAITRESP, *psVxiCmd_WAITRESP;

typedef struct {
  int32_t status;
} sVxiAnsw, *psVxiAnsw;

typedef struct {
  int32_t status;
  int32_t state;
} sVxiAnsw_STATEq, *psVxiAnsw_STATEq;

typedef struct {
  int32_t status;
  uint32_t data;
} sVxiAnsw_INq, *psVxiAnsw_INq;

typedef struct {
  int32_t status;
  uint32_t count;
  uint32_t data[1];  // count elements, padded to 4 bytes, then sVxiPostAnsw_INBUFq
} sVxiAnsw_INBUFq, *psVxiAnsw_INBUFq;

typedef struct {
  int32_t status;
} sVxiPostAnsw_INBUFq, *psVxiPostAnsw_INBUFq;

typedef struct {
  int32_t status;
  uint32_t count;
} sVxiAnsw_OUTBUF, *psVxiAnsw_OUTBUF;

typedef struct {
  int32_t status;
  uint32_t count;
  uint8_t data[256];
} sVxiAnsw_READq, *psVxiAnsw_READq;

typedef struct {
  int32_t status;
  uint32_t count;
} sVxiAnsw_WRITE, *psVxiAnsw_WRITE;

typedef struct {
  int32_t status;
  uint32_t resp;
} sVxiAnsw_CMDRESP, *psVxiAnsw_CMDRESP;

// Unsolicited interrupt report (body of an asynchronous type-128 message).
typedef struct {
  uint32_t IrqL;    // interrupt line in bits 0-2
  uint32_t StatID;  // status/ID; low 8 bits: the interrupter's logical address
} sVXI_STATID;

typedef struct {
  uint32_t cmd;      // 1: interrupt report
  uint32_t nStatID;  // number of pairs
  sVXI_STATID StatID[1];
} sVxiACmd_STATID, *psVxiACmd_STATID;

static_assert(sizeof(sVxiCmd) == 8, "bridge record size");
static_assert(sizeof(sVxiCmd_INq) == 12, "bridge record size");
static_assert(sizeof(sVxiCmd_OUT) == 16, "bridge record size");
static_assert(sizeof(sVxiCmd_INBUFq) == 16, "bridge record size");
static_assert(offsetof(sVxiCmd_OUTBUF, data) == 16, "bridge record size");
static_assert(sizeof(sVxiCmd_IMM_IRQ) == 12, "bridge record size");
static_assert(sizeof(sVxiCmd_READq) == 12, "bridge record size");
static_assert(offsetof(sVxiCmd_WRITE, data) == 12, "bridge record size");
static_assert(sizeof(sVxiCmd_CMDRESP) == 12, "bridge record size");
static_assert(sizeof(sVxiCmd_WAITRESP) == 12, "bridge record size");
static_assert(sizeof(sVxiAnsw) == 4, "bridge record size");
static_assert(sizeof(sVxiAnsw_STATEq) == 8, "bridge record size");
static_assert(sizeof(sVxiAnsw_INq) == 8, "bridge record size");
static_assert(offsetof(sVxiAnsw_INBUFq, data) == 8, "bridge record size");
static_assert(sizeof(sVxiAnsw_OUTBUF) == 8, "bridge record size");
static_assert(sizeof(sVxiAnsw_READq) == 264, "bridge record size");
static_assert(sizeof(sVxiAnsw_WRITE) == 8, "bridge record size");
static_assert(sizeof(sVxiAnsw_CMDRESP) == 8, "bridge record size");
static_assert(sizeof(sVXI_STATID) == 8, "bridge record size");
static_assert(offsetof(sVxiACmd_STATID, StatID) == 8, "bridge record size");

#endif
