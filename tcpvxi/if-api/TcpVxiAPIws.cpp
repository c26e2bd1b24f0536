// VXI Word Serial protocol for message-based instruments.  The bridge runs
// the protocol on the backplane; the driver asks it to, one bridge command per
// step.  The bridge itself (logical address 0) is a HiSLIP instrument and its
// messages, status byte and clear go straight through the transport.
//
// These calls take no driver mutex: each exchange is one request and answer
// on the interface's connection, and waiting for a slow instrument is done by
// asking again with a bridge time-out of 1 ms until the caller's time-out has
// passed, so neither the bridge nor the connection is held for long.
#include <stdint.h>
#include <string.h>

#include "HiSLIPcommands.h"
#include "TcpVxiAPI.h"
#include "TcpVxiAPIint.h"

// The message-exchange workers.  C++ names, internal to the driver.
ViStatus WSrd(PINTFINFO intf, ViUInt16 la, ViUInt32 timeout, ViChar* data, ViUInt32 size, ViUInt32 flags,
              ViChar eos, ViInt32* retcount);
ViStatus WSwrt(PINTFINFO intf, ViUInt16 la, ViUInt32 timeout, ViUInt32 sendend, ViChar* data, ViUInt32 size);
ViStatus wsWaitResp(PINTFINFO intf, ViUInt16 la, ViUInt32 timeout, ViUInt16 stdresp);

namespace ws {

// This file's own copy of the status rule: a transport error as it is, an
// empty answer as a lost connection, else the bridge's status word.
static ViStatus CheckIOstatus(int N, void* Answ) {
  if (N < 0) return N;
  if (N == 0) return VI_ERROR_CONN_LOST;
  ViStatus st;
  memcpy(&st, Answ, sizeof st);
  return st;
}

// Word Serial answer and message buffers: an 8-byte answer head or a 12-byte
// command head, and at most 256 message bytes.
static const ViUInt32 kMaxBytes = 256;
static const int kBufSize = 268;

// Logical address in bits 8-15 of a Word Serial command word.
static inline ViUInt32 laBits(ViUInt16 la) { return ((ViUInt32)la << 8) & 0xFFFFu; }

// Time since t0 on the 32-bit millisecond clock, as an absolute value: a
// wrapped or backward clock still reads as elapsed time.
static inline ViUInt32 elapsedSince(ViUInt32 t0) {
  int32_t d = (int32_t)(t0 - (ViUInt32)util_timer_ms());
  return d < 0 ? 0u - (ViUInt32)d : (ViUInt32)d;
}

// The interface a call names, or null when the number is above NIntf.
static PINTFINFO pickIntf(ViUInt16 intfIdx) {
  if (!tcpvxiGD) return nullptr;
  if ((ViInt32)intfIdx > tcpvxiGD->NIntf || intfIdx >= TCPVXI_MAX_INTF) return nullptr;
  return &Interfaces[intfIdx];
}

// The instrument's logical address.  The index is only checked against the
// size of the instrument table (not against the interface's instrument
// count), so an index past the table cannot reach outside the shared record.
static bool instrLA(ViUInt16 intfIdx, ViUInt32 NInstr, ViUInt16* la) {
  if (NInstr >= TCPVXI_MAX_INSTR) return false;
  *la = (ViUInt16)tcpvxiGD->Intf[intfIdx].Instr[NInstr].attr_VXI_LA;
  return true;
}

// One request and answer, repeated while the bridge reports a time-out and
// the caller's time-out has not passed.
static ViStatus pollQuery(PINTFINFO intf, ViUInt32 timeout, void* out, int outsize, void* in, int insize) {
  ViUInt32 t0 = (ViUInt32)util_timer_ms();
  for (;;) {
    memset(in, 0, (size_t)insize);
    ViInt32 n = intfQuery(intf, (char*)out, outsize, (char*)in, insize, (ViInt32)timeout);
    ViStatus st = CheckIOstatus(n, in);
    if (st != VI_ERROR_TMO) return st;
    if (elapsedSince(t0) > timeout) return VI_ERROR_TMO;
  }
}

// Code 14: a Word Serial command and/or response.
static ViStatus cmdResp(PINTFINFO intf, ViUInt16 la, ViUInt32 timeout, ViUInt32 modifiers, ViUInt32 tmo,
                        ViUInt32 command, ViUInt32* resp) {
  sVxiCmd_CMDRESP cmd;
  cmd.cmd = VXICMD_WSCMDRESP | laBits(la) | modifiers;
  cmd.tmo = tmo;
  cmd.command = command;
  sVxiAnsw_CMDRESP answ;
  ViStatus st = pollQuery(intf, timeout, &cmd, sizeof cmd, &answ, sizeof answ);
  *resp = answ.resp;
  return st;
}

}  // namespace ws

// ------------------------------------------------------------ workers

// One chunk of a message read: asks for at most 256 bytes and returns after
// the first exchange the bridge does not answer with a time-out.  *retcount
// holds the bytes of the last exchange that brought any.
ViStatus WSrd(PINTFINFO intf, ViUInt16 la, ViUInt32 timeout, ViChar* data, ViUInt32 size, ViUInt32 flags,
              ViChar eos, ViInt32* retcount) {
  *retcount = 0;
  sVxiCmd_READq cmd;
  cmd.cmd = VXICMD_WSREAD | ws::laBits(la);
  if (flags & 1) {
    // The character is sign-extended before the shift: one of 0x80 or above
    // also sets bits 24-31, which is how the bridge expects it.
    cmd.cmd |= ((ViUInt32)(int32_t)(signed char)eos << 16) | VXICMD_WS_EOS;
  }
  if (flags & 2) cmd.cmd |= VXICMD_WS_END;
  cmd.tmo = 1;
  cmd.count = size < ws::kMaxBytes ? size : ws::kMaxBytes;

  union {
    sVxiAnsw_READq a;
    char raw[ws::kBufSize];
  } answ;
  ViStatus st = VI_SUCCESS;
  ViUInt32 t0 = (ViUInt32)util_timer_ms();
  while (cmd.count != 0 && st == VI_SUCCESS) {
    memset(&answ, 0, sizeof answ);
    ViInt32 n = intfQuery(intf, (char*)&cmd, sizeof cmd, answ.raw, sizeof answ.raw, (ViInt32)timeout);
    // The byte count is looked at only when the answer's head really came.
    if (n >= 8 && answ.a.count != 0) {
      if (answ.a.count <= cmd.count) {
        *retcount = (ViInt32)answ.a.count;
        memcpy(data, answ.a.data, answ.a.count);
        data += answ.a.count;
        cmd.count -= answ.a.count;
      } else {
        n = VI_ERROR_SYSTEM_ERROR;  // more bytes than asked for
      }
    }
    st = ws::CheckIOstatus(n, &answ);
    if (st != VI_ERROR_TMO) break;
    if (ws::elapsedSince(t0) > timeout) {
      st = VI_ERROR_TMO;
      break;
    }
    st = VI_SUCCESS;
  }
  return st;
}

// One chunk of a message write (at most 256 bytes).  Returns after the first
// exchange not answered with a time-out, even if the bridge took only part of
// the bytes; between tries it sleeps 1 ms.
ViStatus WSwrt(PINTFINFO intf, ViUInt16 la, ViUInt32 timeout, ViUInt32 sendend, ViChar* data, ViUInt32 size) {
  union {
    sVxiCmd_WRITE c;
    char raw[ws::kBufSize];
  } cmd;
  memset(&cmd, 0, sizeof cmd);
  cmd.c.cmd = VXICMD_WSWRITE | ws::laBits(la);
  if (sendend) cmd.c.cmd |= VXICMD_WS_END;
  cmd.c.tmo = 1;
  cmd.c.count = size < ws::kMaxBytes ? size : ws::kMaxBytes;
  memcpy(cmd.raw + 12, data, cmd.c.count);

  ViStatus st = VI_SUCCESS;
  ViUInt32 t0 = (ViUInt32)util_timer_ms();
  while (cmd.c.count != 0 && st == VI_SUCCESS) {
    sVxiAnsw_WRITE answ = {0, 0};
    ViInt32 n = intfQuery(intf, cmd.raw, (ViInt32)((cmd.c.count + 15) & ~3u), (char*)&answ, sizeof answ,
                          (ViInt32)timeout);
    st = ws::CheckIOstatus(n, &answ);
    // An accepted count above what was outstanding is ignored (it does not
    // fail the write).
    if (n >= 8 && answ.count != 0 && answ.count <= cmd.c.count) {
      cmd.c.count -= answ.count;
      if (cmd.c.count) {
        data += answ.count;
        memcpy(cmd.raw + 12, data, cmd.c.count);
      }
    }
    if (st != VI_ERROR_TMO) break;
    if (ws::elapsedSince(t0) > timeout) {
      st = VI_ERROR_TMO;
      break;
    }
    util_delay_ms(1);
    st = VI_SUCCESS;
  }
  return st;
}

// Code 15: waits until the instrument's response register shows stdresp.
ViStatus wsWaitResp(PINTFINFO intf, ViUInt16 la, ViUInt32 timeout, ViUInt16 stdresp) {
  sVxiCmd_WAITRESP cmd;
  cmd.cmd = VXICMD_WAITRESP | ws::laBits(la);
  cmd.tmo = timeout;
  cmd.stdresp = stdresp;
  sVxiAnsw answ;
  return ws::pollQuery(intf, timeout, &cmd, sizeof cmd, &answ, sizeof answ);
}

// ------------------------------------------------------------ entry points

ViStatus vintfWScmd2la(ViUInt16 intfIdx, ViUInt16 la, ViUInt32 timeout, ViUInt16 cmd, ViUInt16 respflag,
                       ViUInt16* response) {
  DRV_CALL(VI_ERROR_SYSTEM_ERROR);
  PINTFINFO intf = ws::pickIntf(intfIdx);
  if (!intf) return VI_ERROR_SYSTEM_ERROR;
  ViUInt32 mods = VXICMD_WS_SEND16 | (respflag ? VXICMD_WS_RESP16 : 0);
  ViUInt32 resp = 0;
  ViStatus st = ws::cmdResp(intf, la, timeout, mods, 1, cmd, &resp);
  if (st >= 0 && respflag && response) *response = (ViUInt16)resp;
  return st;
}

ViStatus vintfWScmd(ViUInt16 intfIdx, ViUInt32 NInstr, ViUInt32 timeout, ViUInt16 cmd, ViUInt16 respflag,
                    ViUInt16* response) {
  DRV_CALL(VI_ERROR_SYSTEM_ERROR);
  ViUInt16 la = 0;
  if (!ws::pickIntf(intfIdx) || !ws::instrLA(intfIdx, NInstr, &la)) return VI_ERROR_SYSTEM_ERROR;
  return vintfWScmd2la(intfIdx, la, timeout, cmd, respflag, response);
}

ViStatus vintfWSresp(ViUInt16 intfIdx, ViUInt32 NInstr, ViUInt32 timeout, ViUInt16* response) {
  DRV_CALL(VI_ERROR_SYSTEM_ERROR);
  PINTFINFO intf = ws::pickIntf(intfIdx);
  ViUInt16 la = 0;
  if (!intf || !ws::instrLA(intfIdx, NInstr, &la)) return VI_ERROR_SYSTEM_ERROR;
  ViUInt32 resp = 0;
  ViStatus st = ws::cmdResp(intf, la, timeout, VXICMD_WS_RESP16, 1, 0xFFFF, &resp);
  if (st >= 0 && response) *response = (ViUInt16)resp;
  return st;
}

ViStatus vintfWSreadSTB(ViUInt16 intfIdx, ViUInt32 NInstr, ViUInt32 timeout, ViUInt16* STB) {
  DRV_CALL(VI_ERROR_SYSTEM_ERROR);
  PINTFINFO intf = ws::pickIntf(intfIdx);
  ViUInt16 la = 0;
  if (!intf || !ws::instrLA(intfIdx, NInstr, &la)) return VI_ERROR_SYSTEM_ERROR;
  ViUInt16 dummy;
  if (!STB) STB = &dummy;
  if (la == 0) return kvtcp_ReadSTB(&intf->kvtcp, timeout, STB);
  ViUInt32 resp = 0;
  ViStatus st = ws::cmdResp(intf, la, timeout, VXICMD_WS_SEND16 | VXICMD_WS_RESP16, 1, 0xCFFF, &resp);
  if (st >= 0) *STB = (ViUInt16)(resp & 0xFF);
  return st;
}

ViStatus vintfWSLcmd(ViUInt16 intfIdx, ViUInt32 NInstr, ViUInt32 timeout, ViUInt32 cmd, ViUInt16 respflag,
                     ViUInt32* response) {
  DRV_CALL(VI_ERROR_SYSTEM_ERROR);
  PINTFINFO intf = ws::pickIntf(intfIdx);
  ViUInt16 la = 0;
  if (!intf || !ws::instrLA(intfIdx, NInstr, &la)) return VI_ERROR_SYSTEM_ERROR;
  ViUInt32 mods = VXICMD_WS_SEND32 | (respflag ? VXICMD_WS_RESP32 : 0);
  ViUInt32 resp = 0;
  ViStatus st = ws::cmdResp(intf, la, timeout, mods, 1, cmd, &resp);
  if (st >= 0 && respflag && response) *response = resp;
  return st;
}

// The only code-14 request that hands the bridge the caller's time-out.
ViStatus vintfWSLresp(ViUInt16 intfIdx, ViUInt32 NInstr, ViUInt32 timeout, ViUInt32* response) {
  DRV_CALL(VI_ERROR_SYSTEM_ERROR);
  PINTFINFO intf = ws::pickIntf(intfIdx);
  ViUInt16 la = 0;
  if (!intf || !ws::instrLA(intfIdx, NInstr, &la)) return VI_ERROR_SYSTEM_ERROR;
  ViUInt32 resp = 0;
  ViStatus st = ws::cmdResp(intf, la, timeout, VXICMD_WS_RESP32, timeout, 0xFFFF, &resp);
  if (st >= 0 && response) *response = resp;
  return st;
}

ViStatus vintfWStrg(ViUInt16 intfIdx, ViUInt32 NInstr, ViUInt32 timeout) {
  DRV_CALL(VI_ERROR_SYSTEM_ERROR);
  PINTFINFO intf = ws::pickIntf(intfIdx);
  ViUInt16 la = 0;
  if (!intf || !ws::instrLA(intfIdx, NInstr, &la)) return VI_ERROR_SYSTEM_ERROR;
  // Trigger only once the instrument shows DIR and WR.
  ViStatus st = wsWaitResp(intf, la, timeout, 0x1200);
  if (st != VI_SUCCESS) return st;
  return vintfWScmd(intfIdx, NInstr, timeout, 0xEDFF, 0, nullptr);
}

ViStatus vintfWSclr(ViUInt16 intfIdx, ViUInt32 NInstr, ViUInt32 timeout) {
  DRV_CALL(VI_ERROR_SYSTEM_ERROR);
  PINTFINFO intf = ws::pickIntf(intfIdx);
  ViUInt16 la = 0;
  if (!intf || !ws::instrLA(intfIdx, NInstr, &la)) return VI_ERROR_SYSTEM_ERROR;
  if (la == 0) return kvtcp_Clear(&intf->kvtcp, timeout);
  return vintfWScmd(intfIdx, NInstr, timeout, 0xFFFF, 0, nullptr);
}

// Message chunks are 256 bytes; a shorter remainder is narrowed to a signed
// 8-bit value on purpose.  Remainders of 128 to 255 so become negative, and
// the worker, which reads its size as unsigned and caps it at 256, then moves
// a full 256 bytes: the caller's buffer must allow for it.
static inline ViInt32 wsChunk(ViInt32 remaining) { return remaining >= 256 ? 256 : (ViInt32)(int8_t)remaining; }

ViStatus vintfWSrd(ViUInt16 intfIdx, ViUInt32 NInstr, ViUInt32 timeout, ViChar* buf, ViInt32 count,
                   ViUInt16 flags, ViChar eos, ViInt32* retcount) {
  DRV_CALL(VI_ERROR_SYSTEM_ERROR);
  PINTFINFO intf = ws::pickIntf(intfIdx);
  ViUInt16 la = 0;
  if (!intf || !ws::instrLA(intfIdx, NInstr, &la)) return VI_ERROR_SYSTEM_ERROR;
  ViInt32 dummy;
  if (!retcount) retcount = &dummy;
  if (la == 0) return kvtcp_Read(&intf->kvtcp, timeout, buf, count, flags, eos, retcount);
  *retcount = 0;
  ViStatus st;
  do {
    ViInt32 chunk = wsChunk(count - *retcount);
    ViInt32 got = 0;
    st = WSrd(intf, la, timeout, buf + *retcount, (ViUInt32)chunk, flags, eos, &got);
    if (st < 0) break;
    *retcount += got;
    if ((flags & 1) && (st & 1)) break;  // ended at eos
    if ((flags & 2) && (st & 2)) break;  // ended at END
  } while (*retcount < count);
  return st;
}

ViStatus vintfWSwrt(ViUInt16 intfIdx, ViUInt32 NInstr, ViUInt32 timeout, ViChar* buf, ViInt32 count,
                    ViUInt16 flags, ViInt32* retcount) {
  DRV_CALL(VI_ERROR_SYSTEM_ERROR);
  PINTFINFO intf = ws::pickIntf(intfIdx);
  ViUInt16 la = 0;
  if (!intf || !ws::instrLA(intfIdx, NInstr, &la)) return VI_ERROR_SYSTEM_ERROR;
  ViInt32 dummy;
  if (!retcount) retcount = &dummy;
  if (la == 0) return kvtcp_Write(&intf->kvtcp, timeout, buf, count, flags, retcount);
  *retcount = 0;
  ViStatus st;
  do {
    ViInt32 chunk = wsChunk(count - *retcount);
    ViUInt32 last = (flags & 3) && *retcount + chunk == count;
    st = WSwrt(intf, la, timeout, last ? 1 : 0, buf + *retcount, (ViUInt32)chunk);
    if (st < 0) break;
    *retcount += chunk;  // the whole chunk counts as written
  } while (*retcount < count);
  return st;
}
