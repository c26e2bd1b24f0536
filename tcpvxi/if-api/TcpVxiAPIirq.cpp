// Interrupts: reports that a bridge sends on its HiSLIP asynchronous channel
// go to the host's callback, attributed to the instrument that raised them.
#include <string.h>

#include "HiSLIPcommands.h"
#include "TcpVxiAPI.h"
#include "TcpVxiAPIint.h"
#include "kvlog.h"

// Pairs that one report may carry: the local buffer holds 256, and the
// transport keeps at most KVTCP_ASYNC_DATA bytes of a body, of which the
// first 8 are the report's own header.
#define IRQ_BUF_PAIRS 256
#define IRQ_BODY_PAIRS ((KVTCP_ASYNC_DATA - 8) / 8)

INTFINFO* drvIntfOfConnection(pKvTcpInfo kvtcp) {
  for (int i = 0; i < TCPVXI_MAX_INTF; i++)
    if (&Interfaces[i].kvtcp == kvtcp) return &Interfaces[i];
  return nullptr;
}

// The instrument that answers to a logical address: the first with that
// address, else the first at address 0 (the slot-0 controller); -1 if none.
static int instrumentOfLA(const SHAREDINTFINFO* g, int la) {
  int n = g->NInstr;
  if (n > TCPVXI_MAX_INSTR) n = TCPVXI_MAX_INSTR;
  for (int k = 0; k < n; k++)
    if (g->Instr[k].attr_VXI_LA == la) return k;
  for (int k = 0; k < n; k++)
    if (g->Instr[k].attr_VXI_LA == 0) return k;
  return -1;
}

void tcpEventHandler(pKvTcpInfo kvtcp) {
  if (!kvtcp || !kvLoad(userCallback)) return;
  // Only the driver's own connections (embedded in INTFINFO) are known;
  // anything else, e.g. an instrument connection of another user of the
  // transport, is not ours to report.
  INTFINFO* intf = drvIntfOfConnection(kvtcp);
  if (!intf) return;
  const SHAREDINTFINFO* g = intf->GIntf;
  if (!g) return;
  if (kvtcp->hislipAsyncInMsg != 128) return;

  sVXI_STATID StatIDbuff[IRQ_BUF_PAIRS];
  uint32_t head[2];
  memcpy(head, kvtcp->hislipAsyncCmdData, sizeof head);
  uint32_t n = 0;
  if (head[0] == 1) {
    n = head[1];
    if (n > IRQ_BODY_PAIRS) n = IRQ_BODY_PAIRS;
    if (n > IRQ_BUF_PAIRS) n = IRQ_BUF_PAIRS;
    memcpy(StatIDbuff, kvtcp->hislipAsyncCmdData + 8, (size_t)n * sizeof(sVXI_STATID));
  }
  ViUInt16 ext = (ViUInt16)intf->ext_intf_no;
  for (uint32_t k = 0; k < n; k++) {
    // Read afresh before every pair: a host that clears its callback stops
    // delivery between the pairs of one report.
    eventHandler cb = kvLoad(userCallback);
    if (!cb) break;
    uint32_t statID = StatIDbuff[k].StatID;
    int idx = instrumentOfLA(g, (int)(statID & 0xFF));
    if (idx < 0) continue;  // nobody to report it to
    cb(VI_EVENT_VXI_VME_INTR, ext, (ViUInt32)idx, (ViAttrState)statID, (ViAttrState)(StatIDbuff[k].IrqL & 7));
  }
}

ViStatus vintfUserIRQCallback(eventHandler callbackHandler) {
  kvStore(userCallback, callbackHandler);
  return VI_SUCCESS;
}

// Every logical address is delivered; there is no per-address filter.
ViStatus vintfIrqAddLA(ViUInt16 intfIdx, ViUInt16 LA) { return VI_SUCCESS; }

ViStatus vintfIrqDelLA(ViUInt16 intfIdx, ViUInt16 LA) { return VI_SUCCESS; }

ViStatus vintfTestIRQ(ViUInt16 intfIdx, ViUInt16 STATID) {
  DRV_CALL(VI_ERROR_SYSTEM_ERROR);
  drvLock(TCPVXI_LOCK_TMO);
  if (drvIntfRefused(intfIdx)) {
    drvUnlock();
    return VI_ERROR_SYSTEM_ERROR;
  }
  sVxiCmd_IMM_IRQ cmd;
  cmd.cmd = VXICMD_TESTIRQ;
  cmd.tmo = 0;  // not used by the bridge for this command
  cmd.statID = STATID;
  sVxiAnsw answ;
  memset(&answ, 0, sizeof answ);
  // Neither the transport's nor the bridge's status is reported: the
  // interrupt, if any, arrives later through the event handler.
  (void)intfQuery(&Interfaces[intfIdx], (char*)&cmd, sizeof cmd, (char*)&answ, sizeof answ, TCPVXI_CMD_TMO);
  drvUnlock();
  return VI_SUCCESS;
}
