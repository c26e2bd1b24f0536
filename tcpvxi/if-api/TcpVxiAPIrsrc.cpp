// Resource discovery and attributes: which bridges exist (the resource
// manager's file), which VXI instruments sit behind each (the bridge's own
// resource text), and the VISA attributes of those instruments.
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "HiSLIPcommands.h"
#include "TcpVxiAPI.h"
#include "TcpVxiAPIint.h"
#include "inifile.h"
#include "kvlog.h"

// Size of the text buffer handed to the bridge's text command (plus the NUL).
#define RESMAN_TEXT_MAX 0x10000

// Section numbers visited in one bridge text.  The text is at most 64 KiB,
// which cannot hold more sections than this; the bound only keeps a hostile
// "NumInstr" from making the loop run for minutes over absent sections.
#define RESMAN_MAX_SECTIONS 65536

static const char kHaveNoResman[] = "\nHave no resman file TCPVXI\n";
static_assert(sizeof kHaveNoResman - 1 == 28, "message length");

// ----------------------------------------------------------- line source

int Ini_LineTextInputFunction(void* inputSource, char* inputBuffer, int maxLineLength, int* endOfSource,
                              int* lineNumRead) {
  sLineTextInput* src = (sLineTextInput*)inputSource;
  const unsigned char* p = src->buf;
  int idx = src->idx;
  // Line ends, blank lines and leading white space vanish.
  while (p[idx] != 0 && p[idx] <= 32) idx++;
  int n = 0;
  if (p[idx] == 0) {
    *endOfSource = 1;
    if (lineNumRead) *lineNumRead = 0;
  } else {
    while (n < maxLineLength && p[idx] >= 32) inputBuffer[n++] = (char)p[idx++];
    // The rest of an over-long line is dropped.  Any control byte, a tab
    // too, ends the line: the bridge's text holds none.
    while (p[idx] >= 32) idx++;
  }
  inputBuffer[n] = 0;
  src->idx = idx;
  return 0;
}

// ----------------------------------------------------- the bridge's text

ViStatus GetResmanText(INTFINFO* intf, unsigned char* buf, int maxlen) {
  VINTF_LOG("\n");
  buf[0] = 0;
  if (maxlen < 0) maxlen = 0;
  // Only the status word needs a defined value before the answer lands:
  // the text is copied no further than the bytes received.
  char* answ = (char*)malloc((size_t)maxlen + 4);
  if (!answ) return VI_ERROR_ALLOC;
  memset(answ, 0, 4);
  sVxiCmd cmd;
  cmd.cmd = VXICMD_RESMAN;
  cmd.tmo = 0;  // not used by the bridge for this command
  ViInt32 n = intfQuery(intf, (char*)&cmd, sizeof cmd, answ, maxlen + 4, TCPVXI_CMD_TMO);
  if (n > maxlen + 4) n = maxlen + 4;  // never more than the buffer holds
  ViStatus st = CheckIOstatus(n, answ);
  if (st >= 0) {
    int len = n - 4;
    if (len < 0) len = 0;  // an answer shorter than its status word has no text
    memcpy(buf, answ + 4, (size_t)len);
    buf[len] = 0;
  }
  free(answ);
  return st;
}

int drvReadInstruments(int idx, SHAREDINTFINFO* g, IniText doc) {
  int numInstr = 0;
  if (!doc || Ini_GetInt(doc, "COMMON", "NumInstr", &numInstr) < 1 || numInstr < 1) return 0;
  VINTF_LOG("intf%d Resman return %d instruments\n", idx, numInstr);
  if (numInstr > RESMAN_MAX_SECTIONS) numInstr = RESMAN_MAX_SECTIONS;
  if (g->NInstr < 0 || g->NInstr > TCPVXI_MAX_INSTR) g->NInstr = 0;
  int accepted = 0;
  char sec[32];
  for (int j = 0; j < numInstr; j++) {
    // The shared record holds 64 instruments; further ones are dropped
    // rather than written past it.
    if (g->NInstr >= TCPVXI_MAX_INSTR) break;
    snprintf(sec, sizeof sec, "INSTR%d", j + 1);
    // One temporary for every number: a key that is absent keeps the value
    // read before it (the bridge is expected to give every key).
    unsigned int v = 0;
    if (Ini_GetUInt(doc, sec, "INTF_NUM", &v) < 1) continue;
    g->intf_no = (ViInt32)v;
    RmInstrInfo* r = &g->Instr[g->NInstr];
    g->NInstr++;
    accepted++;
    memset(r, 0, sizeof *r);

    // Bounded, but a 24-character name fills the field with no NUL.
    Ini_GetStringIntoBuffer(doc, sec, "RSRC_NAME", r->attr_RSRC_NAME, (int)sizeof r->attr_RSRC_NAME);
    // The class is what follows the last colon; position 0 is not examined.
    int len = (int)strnlen(r->attr_RSRC_NAME, sizeof r->attr_RSRC_NAME);
    r->IdxAttr_RSRC_CLASS = 0;
    for (int k = len - 1; k >= 1; k--) {
      if (r->attr_RSRC_NAME[k] == ':') {
        r->IdxAttr_RSRC_CLASS = (ViUInt32)(k + 1);
        break;
      }
    }

    Ini_GetUInt(doc, sec, "VXI_LA", &v);
    r->attr_VXI_LA = (ViInt16)v;
    Ini_GetUInt(doc, sec, "MAINFRAME_LA", &v);
    r->attr_MAINFRAME_LA = (ViInt16)v;
    Ini_GetUInt(doc, sec, "MANF_ID", &v);
    r->attr_MANF_ID = (ViUInt16)v;
    Ini_GetUInt(doc, sec, "MODEL_CODE", &v);
    r->attr_MODEL_CODE = (ViUInt16)v;
    Ini_GetUInt(doc, sec, "SLOT", &v);
    r->attr_SLOT = (ViInt16)v;
    Ini_GetUInt(doc, sec, "VXI_DEV_CLASS", &v);
    r->attr_VXI_DEV_CLASS = (ViUInt16)v;
    Ini_GetUInt(doc, sec, "offsetA16", &v);
    r->offsetA16 = (ViUInt16)v;
    Ini_GetUInt(doc, sec, "offsetA24", &v);
    r->offsetA24 = v;
    Ini_GetUInt(doc, sec, "offsetA32", &v);
    r->offsetA32 = v;
    Ini_GetUInt(doc, sec, "sizeA16", &v);
    r->sizeA16 = (ViUInt16)v;
    Ini_GetUInt(doc, sec, "sizeA24", &v);
    r->sizeA24 = v;
    Ini_GetUInt(doc, sec, "sizeA32", &v);
    r->sizeA32 = v;

    r->attr_CMDR_LA = 0;
    r->attr_IMMEDIATE_SERV = 0;
    // A24 wins over A32, A16 is the fall-back.
    if (r->sizeA24 != 0) {
      r->attr_MEM_SPACE = 2;
      r->attr_MEM_SIZE = r->sizeA24;
      r->attr_MEM_BASE = r->offsetA24;
    } else if (r->sizeA32 != 0) {
      r->attr_MEM_SPACE = 3;
      r->attr_MEM_SIZE = r->sizeA32;
      r->attr_MEM_BASE = r->offsetA32;
    } else {
      r->attr_MEM_SPACE = 1;
      r->attr_MEM_SIZE = r->sizeA16;
      r->attr_MEM_BASE = r->offsetA16;
    }
    r->attr_MANF_NAME[0] = 0;
    r->attr_MODEL_NAME[0] = 0;
    r->attr_VXI_TRIG_SUPPORT = 0;
    r->attr_VXI_TRIG_STATUS = 0;
    r->attr_VXI_VME_INTR_STATUS = 0;
    r->attr_VXI_VME_SYSFAIL_STATE = 0;
  }
  return accepted;
}

// ----------------------------------------------------------- discovery

// Path of the resource manager's file.  The formatter writes whatever HOME
// holds, so the buffer is sized from it rather than fixed.
static char* resmanPath(void) {
  const char* home = getenv("HOME");
  size_t need = strlen(home ? home : "(null)") + strlen(path_to_config_in_home ? path_to_config_in_home : "(null)") +
                strlen(TCPVXI_RESMAN_FILE) + 16;
  char* path = (char*)malloc(need);
  if (path) util_full_confname(TCPVXI_RESMAN_FILE, path);
  return path;
}

ViStatus vintfFillResources(ViBoolean firstInit) {
  DRV_CALL(VI_ERROR_SYSTEM_ERROR);
  ViStatus status = VI_SUCCESS;
  VINTF_LOG("first=%d, firstcall=%d\n", (int)firstInit, FillRsrcCalled);
  kvtcp_setCallback(tcpEventHandler);
  if (!tcpvxiGD) return VI_ERROR_SYSTEM_ERROR;  // not started: no block to fill

  // The table is rebuilt from scratch.  This is meant to run once, before
  // any interface is connected; should it run again, the connections it
  // would forget are closed first, so no socket or receive thread is left
  // behind on a record that is about to be wiped.
  for (int i = 0; i < TCPVXI_MAX_INTF; i++)
    if (kvLoad(Interfaces[i].kvtcp.Connected)) kvtcp_Close(&Interfaces[i].kvtcp);
  memset(tcpvxiGD, 0, sizeof *tcpvxiGD);
  memset((void*)Interfaces, 0, sizeof Interfaces);
  for (int i = 0; i < TCPVXI_MAX_INTF; i++) {
    Interfaces[i].GIntf = &tcpvxiGD->Intf[i];
    Interfaces[i].idx = i;
    tcpvxiGD->Intf[i].NInstr = 0;
  }
  tcpvxiGD->NIntf = -1;

  IniText doc = Ini_New(1);
  char* path = resmanPath();
  int rd = (doc && path) ? Ini_ReadFromFile(doc, path) : -1;
  free(path);
  if (rd < 0) {
    fwrite(kHaveNoResman, 1, sizeof kHaveNoResman - 1, stderr);
    Ini_Dispose(doc);  // nothing of it is used
    FillRsrcCalled = 1;
    return VI_SUCCESS;
  }

  int numIntf = 0;
  if (Ini_GetInt(doc, "COMMON", "NumIntf", &numIntf) < 1) {
    status = VI_ERROR_INV_SETUP;
  } else {
    // Positions follow the section numbers, and the table has 32: sections
    // past INTF32 are not visited (the count is clamped, not refused).
    if (numIntf > TCPVXI_MAX_INTF) numIntf = TCPVXI_MAX_INTF;
    char sec[32];
    for (int i = 0; i < numIntf; i++) {
      snprintf(sec, sizeof sec, "INTF%d", i + 1);
      INTFINFO* intf = &Interfaces[i];
      SHAREDINTFINFO* g = &tcpvxiGD->Intf[i];
      unsigned int no = 0;
      if (Ini_GetUInt(doc, sec, "INTF_NUM", &no) < 1) continue;
      char addr[sizeof g->Addr];
      if (Ini_GetStringIntoBuffer(doc, sec, "ADDR", addr, (int)sizeof addr) < 1) continue;
      // An address that fills the field leaves no room for its NUL: it
      // could only be handed on cut short, so the interface is left out.
      if (addr[sizeof addr - 1] != 0) {
        VINTF_LOG("intf%d address too long\n", i);
        continue;
      }
      g->intf_no = (ViInt32)no;
      memcpy(g->Addr, addr, sizeof addr);
      if (Ini_GetStringIntoBuffer(doc, sec, "DEVNAME", g->devName, (int)sizeof g->devName) < 1) g->devName[0] = 0;
      g->devName[sizeof g->devName - 1] = 0;  // a name of 64 characters or more is cut to 63

      if (kvtcp_hislip_Connect(&intf->kvtcp, g->Addr, "inst0") == 0) {
        if (LockToIPAddr(intf) < 0) {
          // The bridge serves another host: not ours to list.
          kvtcp_Close(&intf->kvtcp);
          continue;
        }
      }
      // Counted even when the connect failed: listed, unconnected, and the
      // open call may connect it later.
      tcpvxiGD->NIntf += 1;
    }

    for (int i = 0; i < numIntf; i++) {
      Ini_Dispose(doc);
      doc = nullptr;
      INTFINFO* intf = &Interfaces[i];
      SHAREDINTFINFO* g = &tcpvxiGD->Intf[i];
      VINTF_LOG("intf%d (%s) connected=%d\n", i, g->Addr, kvLoad(intf->kvtcp.Connected));
      if (kvLoad(intf->kvtcp.Connected)) {
        // GetResmanText terminates what it stores: no zero-fill needed.
        unsigned char* text = (unsigned char*)malloc(RESMAN_TEXT_MAX + 1);
        if (text) {
          sLineTextInput src;
          src.buf = text;
          src.idx = 0;
          GetResmanText(intf, text, RESMAN_TEXT_MAX);
          if (text[0] != 0) {
            doc = Ini_New(1);
            if (doc) Ini_ReadGeneric(doc, Ini_LineTextInputFunction, &src);
          }
          free(text);
        }
      }
      if (doc) drvReadInstruments(i, g, doc);
    }
  }
  Ini_Dispose(doc);
  if (status < 0) return status;
  FillRsrcCalled = 1;
  return status;
}

// ----------------------------------------------------------- attributes

ViStatus vintfGetNumRsrc(ViUInt16 intfIdx, ViUInt32* retNRsrc) {
  DRV_CALL(VI_ERROR_SYSTEM_ERROR);
  drvLock(TCPVXI_LOCK_TMO);
  if (drvIntfRefused(intfIdx)) {
    if (retNRsrc) *retNRsrc = 0;
    drvUnlock();
    return VI_ERROR_SYSTEM_ERROR;
  }
  ViUInt32 n = 0;
  if (kvLoad(Interfaces[intfIdx].kvtcp.Connected)) {
    ViInt32 k = drvShared(intfIdx)->NInstr;
    n = k < 0 ? 0 : k > TCPVXI_MAX_INSTR ? TCPVXI_MAX_INSTR : (ViUInt32)k;
  }
  if (retNRsrc) *retNRsrc = n;
  VINTF_LOG("intf%d ret %d resources\n", (int)intfIdx, (int)n);
  drvUnlock();
  return VI_SUCCESS;
}

// Copies a string field, NUL included, reading no further than the field.
static void copyField(void* dst, const char* field, size_t size) {
  size_t n = strnlen(field, size);
  memcpy(dst, field, n);
  ((char*)dst)[n] = 0;
}

ViStatus vintfGetRsrcAttr(ViUInt16 intfIdx, ViUInt32 NInstr, ViAttr attrName, void* attrValue) {
  DRV_CALL(VI_ERROR_SYSTEM_ERROR);
  drvLock(TCPVXI_LOCK_TMO);
  ViStatus st = VI_SUCCESS;
  if (!attrValue) {
    st = VI_ERROR_USER_BUF;
  } else if (drvIntfRefused(intfIdx)) {
    drvUnlock();
    return VI_ERROR_SYSTEM_ERROR;
  } else if (drvShared(intfIdx)->NInstr < (ViInt32)NInstr || (ViInt32)NInstr < 0 ||
             NInstr >= TCPVXI_MAX_INSTR) {
    // An index equal to the count passes (it reads the zeroed record behind
    // the last instrument); anything outside the record array never does.
    drvUnlock();
    return VI_ERROR_INV_OBJECT;
  } else {
    const RmInstrInfo* r = &drvShared(intfIdx)->Instr[NInstr];
    ViUInt64 v = 0;
    int width = 0;  // bits of a numeric answer; 0 for the strings
    switch (attrName) {
      case VI_ATTR_CMDR_LA: v = (ViUInt16)r->attr_CMDR_LA; width = 16; break;
      case VI_ATTR_VXI_DEV_CLASS: v = r->attr_VXI_DEV_CLASS; width = 16; break;
      case VI_ATTR_MAINFRAME_LA: v = (ViUInt16)r->attr_MAINFRAME_LA; width = 16; break;
      case VI_ATTR_VXI_VME_INTR_STATUS: v = r->attr_VXI_VME_INTR_STATUS; width = 32; break;
      case VI_ATTR_VXI_TRIG_STATUS: v = r->attr_VXI_TRIG_STATUS; width = 32; break;
      case VI_ATTR_VXI_VME_SYSFAIL_STATE: v = (ViUInt16)r->attr_VXI_VME_SYSFAIL_STATE; width = 16; break;
      case VI_ATTR_MEM_BASE_64: v = r->attr_MEM_BASE; width = 64; break;
      case VI_ATTR_MEM_SIZE_64: v = r->attr_MEM_SIZE; width = 64; break;
      case VI_ATTR_VXI_LA: v = (ViUInt16)r->attr_VXI_LA; width = 16; break;
      case VI_ATTR_MANF_ID: v = r->attr_MANF_ID; width = 16; break;
      case VI_ATTR_MEM_SPACE: v = r->attr_MEM_SPACE; width = 16; break;
      case VI_ATTR_MODEL_CODE: v = r->attr_MODEL_CODE; width = 16; break;
      case VI_ATTR_SLOT: v = (ViUInt16)r->attr_SLOT; width = 16; break;
      case VI_ATTR_IMMEDIATE_SERV: v = r->attr_IMMEDIATE_SERV; width = 16; break;
      case VI_ATTR_INTF_TYPE: v = 2; width = 16; break;  // VXI
      case VI_ATTR_VXI_TRIG_SUPPORT: v = r->attr_VXI_TRIG_SUPPORT; width = 32; break;
      case VI_ATTR_RSRC_CLASS: {
        // The start comes from the shared block: keep it inside the name.
        size_t at = r->IdxAttr_RSRC_CLASS;
        if (at > sizeof r->attr_RSRC_NAME) at = sizeof r->attr_RSRC_NAME;
        copyField(attrValue, r->attr_RSRC_NAME + at, sizeof r->attr_RSRC_NAME - at);
        break;
      }
      case VI_ATTR_RSRC_NAME: copyField(attrValue, r->attr_RSRC_NAME, sizeof r->attr_RSRC_NAME); break;
      case VI_ATTR_MANF_NAME: copyField(attrValue, r->attr_MANF_NAME, sizeof r->attr_MANF_NAME); break;
      case VI_ATTR_MODEL_NAME: copyField(attrValue, r->attr_MODEL_NAME, sizeof r->attr_MODEL_NAME); break;
      case VI_ATTR_INTF_INST_NAME: sprintf((char*)attrValue, "TCP-VXI%d", (int)intfIdx); break;
      default: st = VI_ERROR_NSUP_ATTR; break;
    }
    if (width == 16) {
      ViUInt16 w = (ViUInt16)v;
      memcpy(attrValue, &w, sizeof w);
    } else if (width == 32) {
      ViUInt32 w = (ViUInt32)v;
      memcpy(attrValue, &w, sizeof w);
    } else if (width == 64) {
      memcpy(attrValue, &v, sizeof v);
    }
  }
  drvUnlock();
  return st;
}

ViStatus vintfSetRsrcAttr(ViUInt16 intfIdx, ViUInt32 NInstr, ViAttr attrName, ViAttrState attrValue) {
  DRV_CALL(VI_ERROR_SYSTEM_ERROR);
  switch (attrName) {
    case VI_ATTR_CMDR_LA:
    case VI_ATTR_VXI_DEV_CLASS:
    case VI_ATTR_MAINFRAME_LA:
    case VI_ATTR_VXI_VME_INTR_STATUS:
    case VI_ATTR_VXI_TRIG_STATUS:
    case VI_ATTR_VXI_VME_SYSFAIL_STATE:
    case VI_ATTR_MEM_BASE_64:
    case VI_ATTR_MEM_SIZE_64:
    case VI_ATTR_VXI_LA:
    case VI_ATTR_MANF_ID:
    case VI_ATTR_MEM_SPACE:
    case VI_ATTR_MODEL_CODE:
    case VI_ATTR_SLOT:
    case VI_ATTR_IMMEDIATE_SERV:
    case VI_ATTR_INTF_TYPE:
    case VI_ATTR_VXI_TRIG_SUPPORT:
    case VI_ATTR_RSRC_CLASS:
    case VI_ATTR_RSRC_NAME:
    case VI_ATTR_MANF_NAME:
    case VI_ATTR_MODEL_NAME:
    case VI_ATTR_INTF_INST_NAME:
    case VI_ATTR_READONLY_EXTRA:
      return VI_ERROR_ATTR_READONLY;
    default:
      return VI_ERROR_NSUP_ATTR;
  }
}
