// The driver's parsing of a bridge's answers.  Each input is a list of
// driver operations, each with the answers the bridge gives to it; the
// harness frames every answer as a HiSLIP message on a socket pair that
// stands for the interface's synchronous channel, shuts that channel's far
// end and runs the operation:
//   block read and block write exchanges, single and chunked reads, Word
//   Serial reads and commands, the event handler on an interrupt report,
//   and the bridge's resource text with its parsing into instrument records
//   and the attribute queries that read them back.
//
// Input: [ctrl] then records
//   [op] [a lo] [a hi] [b] [nMsg]  nMsg x ([len lo] [len hi] [len bytes])
// len bit 15 frames the payload as Data (6) instead of vendor-specific (128),
// bit 14 makes the header claim two bytes more than follow (a cut answer).
#include <errno.h>
#include <semaphore.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include "HiSLIPcommands.h"
#include "TcpVxiAPI.h"
#include "TcpVxiAPIint.h"
#include "inifile.h"
#include "kvtcp_internal.h"
#include "../fuzz_kit.h"

namespace {

// The shared block lives in this process only: no shared memory is mapped.
SHAREDMEMINTF block;
// A closed peer is reported to the waits as a reset connection.  The real
// rule (empty reads are waited on until the time-out has passed) would make
// every cut answer cost the driver's full two-second command time-out; the
// rule itself is not what this target looks at.
ssize_t recvEofAsReset(int s, void* buf, size_t len, int flags) {
  ssize_t r = recv(s, buf, len, flags);
  if (r == 0 && len > 0) {
    errno = ECONNRESET;
    return -1;
  }
  return r;
}

void setUpOnce() {
  if (fuzzkit::intfMutex) return;
  fuzzkit::openMutexOnce("fuzzanswers");
  kvtcp_sys_recv = recvEofAsReset;
}

// Instruments at logical addresses 0 (the slot-0 controller), 8, 16, 24.
void resetDriver(uint8_t ctrl) {
  memset(&block, 0, sizeof block);
  tcpvxiGD = &block;
  block.NIntf = 0;
  SHAREDINTFINFO* g = &block.Intf[0];
  g->NInstr = 4;
  for (int i = 0; i < 4; i++) {
    RmInstrInfo* r = &g->Instr[i];
    snprintf(r->attr_RSRC_NAME, sizeof r->attr_RSRC_NAME, "VXI0::%d::INSTR", 8 * i);
    r->IdxAttr_RSRC_CLASS = (ViUInt32)strlen(r->attr_RSRC_NAME) - 5;
    r->attr_VXI_LA = (ViInt16)(8 * i);
  }
  INTFINFO* intf = &Interfaces[0];
  memset(intf, 0, sizeof *intf);
  intf->GIntf = g;
  intf->ext_intf_no = ctrl;
  fuzzkit::prepareHislipRecord(&intf->kvtcp);
}

int callbacks;

void onInterrupt(ViUInt32 eventType, ViUInt16 intfIdx, ViUInt32 instrIdx, ViAttrState statID,
                 ViAttrState irqLine) {
  ViInt32 n = Interfaces[0].GIntf->NInstr;
  if (n > TCPVXI_MAX_INSTR) n = TCPVXI_MAX_INSTR;
  if (eventType != 0xBFFF2021u || (ViInt32)instrIdx >= n || irqLine > 7 || statID > 0xFFFFFFFFu) {
    fprintf(stderr, "interrupt delivered with instrument %u of %d, line %llu\n", instrIdx, n,
            (unsigned long long)irqLine);
    abort();
  }
  ++callbacks;
}

struct Msg {
  const uint8_t* p;
  size_t len;
  uint16_t raw;
};

// Frames and writes the answers; the far end is then shut, so every read
// past them ends at once.
void feed(int fd, const Msg* m, int n) {
  for (int i = 0; i < n; i++) {
    sHiSPLIP_Header h;
    memset(&h, 0, sizeof h);
    h.Prologue[0] = 'H';
    h.Prologue[1] = 'S';
    h.msg = (m[i].raw & 0x8000) ? HISLIP_Data : HISLIP_VendorSpecific;
    uint32_t claim = (uint32_t)m[i].len + ((m[i].raw & 0x4000) ? 2 : 0);
    h.dataLen = myhtonl(claim);
    if (!fuzzkit::feed(fd, &h, sizeof h) || !fuzzkit::feed(fd, m[i].p, m[i].len)) return;
  }
  shutdown(fd, SHUT_WR);
}

void* allocExact(size_t n) { return malloc(n ? n : 1); }

const ViUInt32 kWidths[4] = {VXICMD_D08, VXICMD_D16, VXICMD_D32, 0};
const ViAttr kAttrs[] = {VI_ATTR_CMDR_LA,     VI_ATTR_VXI_DEV_CLASS, VI_ATTR_MAINFRAME_LA,    VI_ATTR_MEM_BASE_64,
                         VI_ATTR_MEM_SIZE_64, VI_ATTR_VXI_LA,        VI_ATTR_MANF_ID,         VI_ATTR_MEM_SPACE,
                         VI_ATTR_MODEL_CODE,  VI_ATTR_SLOT,          VI_ATTR_VXI_TRIG_SUPPORT, VI_ATTR_RSRC_CLASS,
                         VI_ATTR_RSRC_NAME,   VI_ATTR_MANF_NAME,     VI_ATTR_MODEL_NAME,      VI_ATTR_INTF_INST_NAME};

void resourceText(INTFINFO* intf, uint32_t a) {
  int maxlen = (int)(a & 0xFFFF) + 1;
  unsigned char* text = (unsigned char*)allocExact((size_t)maxlen + 1);
  GetResmanText(intf, text, maxlen);
  sLineTextInput src;
  src.buf = text;
  src.idx = 0;
  IniText doc = Ini_New(1);
  if (doc) {
    Ini_ReadGeneric(doc, Ini_LineTextInputFunction, &src);
    SHAREDINTFINFO* g = intf->GIntf;
    g->NInstr = 0;
    drvReadInstruments(0, g, doc);
    Ini_Dispose(doc);
    ViUInt32 n = 0;
    vintfGetNumRsrc(0, &n);
    // Every instrument and the record behind the last one, every attribute,
    // into a buffer that holds the largest string field exactly.
    for (ViUInt32 i = 0; i <= (ViUInt32)g->NInstr && i < TCPVXI_MAX_INSTR; i++) {
      for (ViAttr id : kAttrs) {
        char* out = (char*)allocExact(64 + 1);
        vintfGetRsrcAttr(0, i, id, out);
        free(out);
      }
    }
  }
  free(text);
}

void runOp(uint8_t op, uint32_t a, uint8_t b, const Msg* msgs, int nMsg) {
  INTFINFO* intf = &Interfaces[0];
  if (op % 8 == 3) {
    // The event handler: the first answer is the body of an asynchronous
    // report (the transport keeps at most KVTCP_ASYNC_DATA bytes of it).
    SHAREDINTFINFO* g = intf->GIntf;
    g->NInstr = (ViInt32)(a % 80) - 8;  // a hostile count too, below 0 and above 64
    for (int i = 4; i < TCPVXI_MAX_INSTR; i++) g->Instr[i].attr_VXI_LA = (ViInt16)(b + i);
    memset(intf->kvtcp.hislipAsyncCmdData, 0, sizeof intf->kvtcp.hislipAsyncCmdData);
    if (nMsg > 0) {
      size_t n = msgs[0].len < KVTCP_ASYNC_DATA ? msgs[0].len : KVTCP_ASYNC_DATA;
      memcpy(intf->kvtcp.hislipAsyncCmdData, msgs[0].p, n);
    }
    intf->kvtcp.hislipAsyncInMsg = (b & 0x80) ? 20 : 128;
    tcpEventHandler(&intf->kvtcp);
    g->NInstr = 4;
    return;
  }

  int sv[2];
  if (socketpair(AF_UNIX, SOCK_STREAM, 0, sv) != 0) return;
  intf->kvtcp.S_Core = sv[0];
  memset(&intf->kvtcp.hislipInHdr, 0, sizeof intf->kvtcp.hislipInHdr);
  feed(sv[1], msgs, nMsg);

  switch (op % 8) {
    case 0: {  // block read exchange
      sVxiCmd_INBUFq cmd;
      ViUInt32 esize = (b & 3) == 0 ? 1 : (b & 3) == 1 ? 2 : (b & 3) == 2 ? 4 : 8;
      cmd.cmd = VXICMD_INBUF | kWidths[b & 3];
      cmd.tmo = 0;
      cmd.addr = 0;
      cmd.count = a & 0x3FF;
      // Usually the size the elements need; sometimes a smaller buffer.
      ViInt32 bsize = (ViInt32)((b & 4) ? (a >> 10) : cmd.count * esize);
      char* buf = (char*)allocExact((size_t)bsize);
      ViInt32 count = -1;
      intfWriteCmdReadBuf(intf, &cmd, buf, bsize, &count);
      free(buf);
      break;
    }
    case 1: {  // block write exchange
      ViInt32 bsize = (ViInt32)(a & 0x3FF);
      // The transport rounds the message up to whole words from behind the
      // data, as designed: the command buffer has that slack.
      char* buf = (char*)calloc(1, (size_t)bsize + 4);
      sVxiCmd_OUTBUF cmd;
      cmd.cmd = VXICMD_OUTBUF | kWidths[b & 3];
      cmd.tmo = 0;
      cmd.addr = 0;
      cmd.count = (ViUInt32)bsize;
      ViInt32 count = -1;
      intfWriteCmdBuf(intf, &cmd, buf, bsize, &count);
      free(buf);
      break;
    }
    case 2: {  // Word Serial read, through the bridge or (LA 0) the transport
      ViInt32 count = (ViInt32)(a & 0x7FF);
      // Remainders of 128 to 255 bytes read a whole 256-byte chunk on
      // purpose: the buffer has that much slack.
      char* buf = (char*)allocExact((size_t)count + 256);
      ViInt32 got = 0;
      vintfWSrd(0, b & 3, 0, buf, count, (ViUInt16)((b >> 2) & 3), (ViChar)(a >> 11), &got);
      if (got < 0 || got > count + 256) {
        fprintf(stderr, "Word Serial read reported %d bytes for %d\n", got, count);
        abort();
      }
      free(buf);
      break;
    }
    case 4:
      resourceText(intf, a);
      break;
    case 5: {  // chunked block read
      ViUInt32 count = a & 0x1FF;
      ViUInt16* buf = (ViUInt16*)allocExact(count * sizeof(ViUInt16));
      ReadBlkD16(intf, 0, 1 + (b & 1), b >> 1 & 7, (b >> 4) & 1, buf, count);
      free(buf);
      break;
    }
    case 6: {  // single reads and the lock
      ViUInt32 v32 = 0;
      ViUInt8 v8 = 0;
      if (b & 1) LockToIPAddr(intf);
      ReadD32(intf, a, b >> 1 & 3, b >> 3 & 7, &v32);
      ReadD08(intf, a, b >> 1 & 3, b >> 3 & 7, &v8);
      break;
    }
    default: {  // Word Serial command / response exchanges
      ViUInt16 r16 = 0;
      ViUInt32 r32 = 0;
      if (b & 1) vintfWScmd(0, 1 + (b >> 1 & 1), 0, (ViUInt16)a, b & 4, &r16);
      if (b & 8) vintfWSLresp(0, 2, 0, &r32);
      if (b & 16) vintfWSreadSTB(0, 1, 0, &r16);
      if (b & 32) vintfWStrg(0, 3, 0);
      if (!(b & 0x3D)) vintfWSLcmd(0, 3, 0, a, 1, &r32);
      break;
    }
  }
  close(sv[0]);
  close(sv[1]);
  intf->kvtcp.S_Core = 0;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  setUpOnce();
  size_t pos = 0;
  uint8_t ctrl = size > pos ? data[pos++] : 0;
  resetDriver(ctrl);
  userCallback = onInterrupt;

  Msg msgs[16];
  for (int ops = 0; ops < 32 && pos + 5 <= size; ops++) {
    uint8_t op = data[pos];
    uint32_t a = data[pos + 1] | (uint32_t)data[pos + 2] << 8;
    uint8_t b = data[pos + 3];
    int nMsg = data[pos + 4] & 15;
    pos += 5;
    int n = 0;
    for (; n < nMsg && pos + 2 <= size; n++) {
      uint16_t raw = (uint16_t)(data[pos] | data[pos + 1] << 8);
      pos += 2;
      size_t len = raw & 0x3FFF;
      if (len > size - pos) len = size - pos;
      msgs[n] = Msg{data + pos, len, raw};
      pos += len;
    }
    runOp(op, a, b, msgs, n);
  }
  userCallback = nullptr;
  tcpvxiGD = nullptr;
  return 0;
}
