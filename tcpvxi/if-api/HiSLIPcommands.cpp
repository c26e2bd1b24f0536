// Exchanging bridge commands: one HiSLIP vendor-specific message out, one
// answer back, and the folding of transport result and answer into a status.
#include "HiSLIPcommands.h"

#include <stdlib.h>
#include <string.h>

#include "TcpVxiAPI.h"
#include "kvlog.h"

const uint32_t IOFLAGS_ALEN[4] = {0x00000000u, 0x00040000u, 0x00080000u, 0x00100000u};
const uint32_t IOFLAGS_AMMode[8] = {0x00010000u, 0x00000000u, 0x00030000u, 0x00020000u,
                                    0x04010000u, 0x04000000u, 0x00010000u, 0x00000000u};

ViInt32 intfQuery(PINTFINFO intf, char* outbuff, ViInt32 outbuffsize, char* inbuff, ViInt32 inbuffsize,
                  ViInt32 timeout) {
  int got = 0;
  int st = kvtcp_kvhislip_Query(&intf->kvtcp, (ViUInt32)timeout, outbuff, outbuffsize, inbuff, inbuffsize, &got);
  if (st < 0) return st;
  return got;
}

ViStatus CheckIOstatus(int N, void* Answ) {
  if (N < 0) return N;
  if (N == 0) return VI_ERROR_CONN_LOST;  // the bridge answered with no bytes
  ViStatus st;
  memcpy(&st, Answ, sizeof st);
  return st;
}

int intfWriteCmdBuf(PINTFINFO intf, psVxiCmd_OUTBUF Cmd, char* buff, ViInt32 bsize, ViInt32* count) {
  if (bsize < 0) bsize = 0;
  // Header, data, and room for the padding to a whole word (the message is
  // sent rounded up to a multiple of 4, and the transport may round again).
  char* msg = (char*)calloc(1, (size_t)bsize + 19 + 4);
  if (!msg) return VI_ERROR_INV_OBJECT;
  memcpy(msg, Cmd, 16);
  if (bsize) memcpy(msg + 16, buff, (size_t)bsize);
  sVxiAnsw_OUTBUF answ;
  memset(&answ, 0, sizeof answ);
  ViInt32 n = intfQuery(intf, msg, (bsize + 19) & ~3, (char*)&answ, (ViInt32)sizeof answ, TCPVXI_CMD_TMO);
  ViStatus st;
  if (n < 0) {
    st = n;
  } else {
    st = CheckIOstatus(n, &answ);
    // The element count is trusted only when the bridge really sent it.
    if (st >= 0 && count) *count = n >= 8 ? (ViInt32)answ.count : 0;
  }
  free(msg);
  return st;
}

int intfWriteCmdReadBuf(PINTFINFO intf, psVxiCmd_INBUFq Cmd, char* buff, ViInt32 bsize, ViInt32* count) {
  if (bsize < 0) bsize = 0;
  ViInt32 cap = (bsize + 15) & ~3;
  char* answ = (char*)calloc(1, (size_t)bsize + 15 + 4);
  if (!answ) return VI_ERROR_ALLOC;
  uint32_t esize = (Cmd->cmd & VXICMD_D08) ? 1 : (Cmd->cmd & VXICMD_D16) ? 2 : (Cmd->cmd & VXICMD_D32) ? 4 : 8;
  VINTF_LOG("%p\n", (void*)buff);
  ViInt32 n = intfQuery(intf, (char*)Cmd, 16, answ, cap, TCPVXI_CMD_TMO);
  if (n < 0) {
    free(answ);
    return n;
  }
  ViStatus st = CheckIOstatus(n, answ);
  if (st >= 0) {
    uint32_t cnt = 0;
    if (n >= 8) memcpy(&cnt, answ + 4, 4);
    // Copy no more than the bridge really sent and the caller's buffer holds.
    uint64_t bytes = (uint64_t)esize * cnt;
    uint64_t avail = n > 8 ? (uint64_t)(n - 8) : 0;
    if (bytes > avail) bytes = avail;
    if (bytes > (uint64_t)bsize) bytes = (uint64_t)bsize;
    if (count) *count = (ViInt32)(bytes / esize);
    if (bytes) memcpy(buff, answ + 8, (size_t)bytes);
    if (st == 0) {
      uint64_t at = 8 + (((uint64_t)esize * cnt + 3) & ~(uint64_t)3);
      // The trailer status is read only when it lies inside what arrived;
      // a missing trailer means the answer was cut short.
      if (at + 4 <= (uint64_t)n)
        memcpy(&st, answ + at, 4);
      else
        st = VI_ERROR_IO;
    }
  }
  free(answ);
  return st;
}

ViStatus LockToIPAddr(PINTFINFO intf) {
  VINTF_LOG("\n");
  sVxiCmd cmd;
  cmd.cmd = VXICMD_LOCK;
  cmd.tmo = 1000;
  sVxiAnsw answ;
  memset(&answ, 0, sizeof answ);
  ViInt32 n = intfQuery(intf, (char*)&cmd, sizeof cmd, (char*)&answ, sizeof answ, TCPVXI_CMD_TMO);
  return CheckIOstatus(n, &answ);
}
