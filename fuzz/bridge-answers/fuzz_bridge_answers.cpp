// The driver's parsing of a bridge's answers.  Each input is a list of driver
// operations (block reads and writes, single and chunked reads, Word Serial
// reads and commands, the interrupt handler, the resource text with the
// instrument records and attribute queries built on it), each with the
// answers the bridge gives it, framed as HiSLIP messages on a socket pair for
// the synchronous channel whose far end is shut behind them.
//
// Input: [ctrl] then records
//   [op] [a lo] [a hi] [b] [nMsg]  nMsg x ([len lo] [len hi] [len bytes])
// len bit 15 frames the payload as Data (6) instead of vendor-specific (128),
// bit 14 makes the header claim two bytes more than follow (a cut answer).
#include <errno.h>

#include <vector>

#include "HiSLIPcommands.h"
#include "TcpVxiAPI.h"
#include "TcpVxiAPIint.h"
#include "inifile.h"
#include "../fuzz_kit.h"

namespace {

// The shared block lives in this process only: no shared memory is mapped.
SHAREDMEMINTF block;
// A closed peer reads as a reset connection: the real rule (an empty read is
// waited on until the time-out) would make every cut answer cost two seconds.
ssize_t recvEofAsReset(int s, void* buf, size_t len, int flags) {
  ssize_t r = recv(s, buf, len, flags);
  if (r == 0 && len > 0) {
    errno = ECONNRESET;
    return -1;
  }
  return r;
}

// Instruments at logical addresses 0 (the slot-0 controller), 8, 16, 24.
void resetDriver(uint8_t ctrl) {
  memset(&block, 0, sizeof block);
  tcpvxiGD = &block;
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

void onInterrupt(ViUInt32 eventType, ViUInt16 intfIdx, ViUInt32 instrIdx, ViAttrState statID,
                 ViAttrState irqLine) {
  ViInt32 n = Interfaces[0].GIntf->NInstr;
  if (n > TCPVXI_MAX_INSTR) n = TCPVXI_MAX_INSTR;
  if (eventType != 0xBFFF2021u || (ViInt32)instrIdx >= n || irqLine > 7 || statID > 0xFFFFFFFFu)
    fuzzkit::fail("interrupt delivered with instrument %u of %d, line %llu", instrIdx, n, (unsigned long long)irqLine);
}

// An answer's bytes, and its length word as given, with the framing bits.
struct Msg { const uint8_t* p; size_t len; uint16_t raw; };

// Frames and writes the answers; the far end is then shut, so every read
// past them ends at once.
void feed(int fd, const Msg* m, int n) {
  for (int i = 0; i < n; i++) {
    sHiSPLIP_Header h = {};
    h.Prologue[0] = 'H';
    h.Prologue[1] = 'S';
    h.msg = (m[i].raw & 0x8000) ? HISLIP_Data : HISLIP_VendorSpecific;
    h.dataLen = myhtonl((uint32_t)m[i].len + ((m[i].raw & 0x4000) ? 2 : 0));
    if (!fuzzkit::feed(fd, &h, sizeof h) || !fuzzkit::feed(fd, m[i].p, m[i].len)) return;
  }
  shutdown(fd, SHUT_WR);
}

// Buffers of exactly the size asked for (at least one byte), so that any
// overrun lands outside them.
std::vector<char> exact(size_t n) { return std::vector<char>(n ? n : 1); }

const ViUInt32 kWidths[4] = {VXICMD_D08, VXICMD_D16, VXICMD_D32, 0};
const ViAttr kAttrs[] = {VI_ATTR_CMDR_LA,     VI_ATTR_VXI_DEV_CLASS, VI_ATTR_MAINFRAME_LA,    VI_ATTR_MEM_BASE_64,
                         VI_ATTR_MEM_SIZE_64, VI_ATTR_VXI_LA,        VI_ATTR_MANF_ID,         VI_ATTR_MEM_SPACE,
                         VI_ATTR_MODEL_CODE,  VI_ATTR_SLOT,          VI_ATTR_VXI_TRIG_SUPPORT, VI_ATTR_RSRC_CLASS,
                         VI_ATTR_RSRC_NAME,   VI_ATTR_MANF_NAME,     VI_ATTR_MODEL_NAME,      VI_ATTR_INTF_INST_NAME};

void resourceText(INTFINFO* intf, uint32_t a) {
  int maxlen = (int)(a & 0xFFFF) + 1;
  std::vector<char> text = exact((size_t)maxlen + 1);
  GetResmanText(intf, (unsigned char*)text.data(), maxlen);
  sLineTextInput src = {(const unsigned char*)text.data(), 0};
  if (IniText doc = Ini_New(1)) {
    Ini_ReadGeneric(doc, Ini_LineTextInputFunction, &src);
    SHAREDINTFINFO* g = intf->GIntf;
    g->NInstr = 0;
    drvReadInstruments(0, g, doc);
    Ini_Dispose(doc);
    ViUInt32 n = 0;
    vintfGetNumRsrc(0, &n);
    // Every instrument and the record behind the last one, every attribute,
    // into a buffer that holds the largest string field exactly.
    for (ViUInt32 i = 0; i <= (ViUInt32)g->NInstr && i < TCPVXI_MAX_INSTR; i++)
      for (ViAttr id : kAttrs) vintfGetRsrcAttr(0, i, id, exact(64 + 1).data());
  }
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

  fuzzkit::Channel core;
  if (!core.ok()) return;
  intf->kvtcp.S_Core = core.near;
  memset(&intf->kvtcp.hislipInHdr, 0, sizeof intf->kvtcp.hislipInHdr);
  feed(core.far, msgs, nMsg);

  switch (op % 8) {
    case 0: {  // block read exchange
      sVxiCmd_INBUFq cmd = {VXICMD_INBUF | kWidths[b & 3], 0, 0, a & 0x3FF};
      // Usually the size the elements need; sometimes a smaller buffer.
      ViInt32 bsize = (ViInt32)((b & 4) ? (a >> 10) : cmd.count << (b & 3));
      ViInt32 count = -1;
      intfWriteCmdReadBuf(intf, &cmd, exact((size_t)bsize).data(), bsize, &count);
      break;
    }
    case 1: {  // block write exchange
      ViInt32 bsize = (ViInt32)(a & 0x3FF);
      // The transport rounds the message up to whole words from behind the
      // data, as designed: the command buffer has that slack.
      sVxiCmd_OUTBUF cmd = {VXICMD_OUTBUF | kWidths[b & 3], 0, 0, (ViUInt32)bsize, {0}};
      ViInt32 count = -1;
      intfWriteCmdBuf(intf, &cmd, exact((size_t)bsize + 4).data(), bsize, &count);
      break;
    }
    case 2: {  // Word Serial read, through the bridge or (LA 0) the transport
      ViInt32 count = (ViInt32)(a & 0x7FF);
      // Remainders of 128 to 255 bytes read a whole 256-byte chunk on
      // purpose: the buffer has that much slack.
      ViInt32 got = 0;
      vintfWSrd(0, b & 3, 0, exact((size_t)count + 256).data(), count, (ViUInt16)((b >> 2) & 3), (ViChar)(a >> 11),
                &got);
      if (got < 0 || got > count + 256) fuzzkit::fail("Word Serial read reported %d bytes for %d", got, count);
      break;
    }
    case 4:
      resourceText(intf, a);
      break;
    case 5: {  // chunked block read
      ViUInt32 count = a & 0x1FF;
      std::vector<ViUInt16> buf(count ? count : 1);
      ReadBlkD16(intf, 0, 1 + (b & 1), b >> 1 & 7, (b >> 4) & 1, buf.data(), count);
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
  intf->kvtcp.S_Core = 0;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzzkit::openMutexOnce("fuzzanswers");
  kvtcp_sys_recv = recvEofAsReset;
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
