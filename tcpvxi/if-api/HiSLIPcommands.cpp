// Exchanging bridge commands: one HiSLIP vendor-specific message out, one
// answer back, and the folding of transport result and answer into a status.
#include "HiSLIPcommands.h"

#include <stdlib.h>
#include <string.h>

#include "TcpVxiAPI.h"
#include "TcpVxiAPIint.h"
#include "kvtcp_internal.h"
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

// The command record and the caller's data go out as one message without
// being joined here first: the transport joins them once, into its own
// per-connection buffer.  The padding to a whole word is sent as zeros.
int intfWriteCmdBuf(PINTFINFO intf, psVxiCmd_OUTBUF Cmd, char* buff, ViInt32 bsize, ViInt32* count) {
  if (bsize < 0) bsize = 0;
  sVxiAnsw_OUTBUF answ;
  memset(&answ, 0, sizeof answ);
  int got = 0;
  int n = kvtcp_kvhislip_QueryParts(&intf->kvtcp, TCPVXI_CMD_TMO, (const char*)Cmd, 16, buff, bsize, (char*)&answ,
                                    (int)sizeof answ, &got);
  // The one allocation on this path is the transport's buffer growing.
  if (n == VI_ERROR_ALLOC) return VI_ERROR_INV_OBJECT;
  if (n < 0) return n;
  n = got;
  ViStatus st = CheckIOstatus(n, &answ);
  // The element count is trusted only when the bridge really sent it.
  if (st >= 0 && count) *count = n >= 8 ? (ViInt32)answ.count : 0;
  return st;
}

namespace {

// The rest of an answer nobody needs, read into the connection's buffer.
int drainAnswer(pKvTcpInfo kv, KvExchangeGuard& x) {
  uint32_t left = kv->hislipInHdr.msg ? kv->hislipInHdr.dataLen : 0;
  if (!left) return VI_SUCCESS;
  char* scratch = x.buffer(left);
  if (!scratch) return VI_ERROR_ALLOC;
  int got = 0;
  return kvtcp_Read(kv, TCPVXI_CMD_TMO, scratch, (int)left, KVTCP_FLAG_LOCKED | KVTCP_FLAG_KEEP, 0, &got);
}

}  // namespace

// A well-formed answer (whole words, no longer than asked for) is taken in
// parts: its head, then the data straight into the caller's memory (no copy
// beyond the socket's own), then the trailer.  Any other answer is read
// whole into the connection's buffer and taken from there, which gives the
// same results for it (only the received bytes are ever looked at).
int intfWriteCmdReadBuf(PINTFINFO intf, psVxiCmd_INBUFq Cmd, char* buff, ViInt32 bsize, ViInt32* count) {
  if (bsize < 0) bsize = 0;
  ViInt32 cap = (bsize + 15) & ~3;
  uint32_t esize = (Cmd->cmd & VXICMD_D08) ? 1 : (Cmd->cmd & VXICMD_D16) ? 2 : (Cmd->cmd & VXICMD_D32) ? 4 : 8;
  VINTF_LOG("%p\n", (void*)buff);
  pKvTcpInfo kv = &intf->kvtcp;
  // The command and every part of its answer are one exchange.
  KvExchangeGuard x(kv);
  int st = x.resync(kv);
  if (st < 0) return st;
  int written = 0;
  st = kvtcp_kvhislip_Write(kv, (const char*)Cmd, 16, KVTCP_FLAG_KEEP, &written);
  if (st < 0) return st;
  kvtcp_syncLeft = KvSyncLeft();
  uint32_t len = 0;
  st = kvtcp_hislip_Begin(kv, TCPVXI_CMD_TMO, &len);
  if (st < 0) {
    x.ended(kv, st);
    return st;
  }
  const ViUInt16 parts = KVTCP_FLAG_LOCKED | KVTCP_FLAG_KEEP;
  int got = 0;
  if (len % 4 != 0 || len < 8 || len > (uint32_t)cap) {
    char* answ = x.buffer((size_t)bsize + 15 + 4);
    if (!answ) return VI_ERROR_ALLOC;
    memset(answ, 0, 8);  // status and count read as 0 when the answer is shorter
    st = kvtcp_Read(kv, TCPVXI_CMD_TMO, answ, cap, KVTCP_FLAG_LOCKED, 0, &got);
    x.ended(kv, st);
    if (st < 0) return st;
    ViInt32 n = got;
    st = CheckIOstatus(n, answ);
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
    return st;
  }

  // Every part read below ends on a word boundary of the answer, so no read
  // is ever taken for one that only has the sender's padding left.
  uint32_t head[2];
  int rd = kvtcp_Read(kv, TCPVXI_CMD_TMO, (char*)head, 8, parts, 0, &got);
  ViStatus result = (ViStatus)head[0];
  if (rd >= 0 && result >= 0) {
    uint64_t counted = (uint64_t)esize * head[1];
    uint64_t bytes = counted;
    if (bytes > len - 8) bytes = len - 8;
    if (bytes > (uint64_t)bsize) bytes = (uint64_t)bsize;
    uint64_t direct = bytes & ~(uint64_t)3;  // whole words go straight to the caller
    if (direct) rd = kvtcp_Read(kv, TCPVXI_CMD_TMO, buff, (int)direct, parts, 0, &got);
    // Then the last part word of data, and the trailer when it is there.
    uint64_t at = 8 + ((counted + 3) & ~(uint64_t)3);
    bool trailer = result == 0 && at + 4 <= len;
    uint64_t end = trailer ? at + 4 : 8 + ((bytes + 3) & ~(uint64_t)3);
    if (end > len) end = len;
    char tail[16];
    uint64_t tailLen = end - 8 - direct;
    if (rd >= 0 && tailLen > sizeof tail) rd = VI_ERROR_IO;  // cannot happen: the answer fits the request
    if (rd >= 0 && tailLen) rd = kvtcp_Read(kv, TCPVXI_CMD_TMO, tail, (int)tailLen, parts, 0, &got);
    if (rd >= 0) {
      if (bytes > direct) memcpy(buff + direct, tail, (size_t)(bytes - direct));
      if (count) *count = (ViInt32)(bytes / esize);
      if (result == 0) {
        if (trailer)
          memcpy(&result, tail + tailLen - 4, 4);
        else
          result = VI_ERROR_IO;
      }
    }
  }
  if (rd >= 0) rd = drainAnswer(kv, x);
  x.ended(kv, rd < 0 ? rd : 0);
  return rd < 0 ? rd : result;
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
