#include "status.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <strings.h>

namespace host {

const std::vector<StatusInfo>& statusTable() {
  // The completion codes a read reports (1 and 2) are not VISA statuses of
  // their own; the driver passes the bridge's status word through, so the
  // whole VISA table is known here, not only the codes the driver makes.
  static const std::vector<StatusInfo> t = {
      {0x00000000, "VI_SUCCESS", "the operation completed"},
      {0x3FFF0002, "VI_SUCCESS_EVENT_EN", "the event was already enabled"},
      {0x3FFF0003, "VI_SUCCESS_EVENT_DIS", "the event was already disabled"},
      {0x3FFF0004, "VI_SUCCESS_QUEUE_EMPTY", "the event queue was empty"},
      {0x3FFF0005, "VI_SUCCESS_TERM_CHAR", "the read ended at the termination character"},
      {0x3FFF0006, "VI_SUCCESS_MAX_CNT", "the read ended at the requested count"},
      {0x3FFF000C, "VI_WARN_QUEUE_OVERFLOW", "events were lost: the queue overflowed"},
      {0x3FFF0077, "VI_WARN_CONFIG_NLOADED", "the configuration was not loaded"},
      {0x3FFF007D, "VI_SUCCESS_DEV_NPRESENT", "the session is open but the device does not answer"},
      {0x3FFF007E, "VI_SUCCESS_TRIG_MAPPED", "the trigger line was already mapped"},
      {0x3FFF0080, "VI_SUCCESS_QUEUE_NEMPTY", "the wait succeeded and more events are queued"},
      {0x3FFF0082, "VI_WARN_NULL_OBJECT", "the object reference was null"},
      {0x3FFF0084, "VI_WARN_NSUP_ATTR_STATE", "the attribute state is not supported"},
      {0x3FFF0085, "VI_WARN_UNKNOWN_STATUS", "the status code is not known"},
      {0x3FFF0088, "VI_WARN_NSUP_BUF", "the buffer type is not supported"},
      {0x3FFF0098, "VI_SUCCESS_NCHAIN", "the event was handled and not passed on"},
      {0x3FFF0099, "VI_SUCCESS_NESTED_SHARED", "a nested shared lock was taken"},
      {0x3FFF009A, "VI_SUCCESS_NESTED_EXCLUSIVE", "a nested exclusive lock was taken"},
      {0x3FFF009B, "VI_SUCCESS_SYNC", "the asynchronous operation completed at once"},
      {0x3FFF00A9, "VI_WARN_EXT_FUNC_NIMPL", "an extended function is not implemented"},
      {0xBFFF0000, "VI_ERROR_SYSTEM_ERROR", "unknown system error; from the driver: no such interface"},
      {0xBFFF000E, "VI_ERROR_INV_OBJECT", "no such object (instrument index past the list, or a failed allocation)"},
      {0xBFFF000F, "VI_ERROR_RSRC_LOCKED", "the resource is locked by another session"},
      {0xBFFF0010, "VI_ERROR_INV_EXPR", "invalid expression"},
      {0xBFFF0011, "VI_ERROR_RSRC_NFOUND", "the resource could not be reached (connection refused or no answer)"},
      {0xBFFF0012, "VI_ERROR_INV_RSRC_NAME", "invalid resource name"},
      {0xBFFF0013, "VI_ERROR_INV_ACC_MODE", "invalid access mode"},
      {0xBFFF0015, "VI_ERROR_TMO", "the operation timed out"},
      {0xBFFF0016, "VI_ERROR_CLOSING_FAILED", "the session could not be closed"},
      {0xBFFF001B, "VI_ERROR_INV_DEGREE", "invalid degree"},
      {0xBFFF001C, "VI_ERROR_INV_JOB_ID", "invalid job id"},
      {0xBFFF001D, "VI_ERROR_NSUP_ATTR", "the attribute is not supported by this resource"},
      {0xBFFF001E, "VI_ERROR_NSUP_ATTR_STATE", "the attribute value is not supported"},
      {0xBFFF001F, "VI_ERROR_ATTR_READONLY", "the attribute is read-only"},
      {0xBFFF0020, "VI_ERROR_INV_LOCK_TYPE", "invalid lock type"},
      {0xBFFF0021, "VI_ERROR_INV_ACCESS_KEY", "invalid access key"},
      {0xBFFF0026, "VI_ERROR_INV_EVENT", "invalid event type"},
      {0xBFFF0027, "VI_ERROR_INV_MECH", "invalid event mechanism"},
      {0xBFFF0028, "VI_ERROR_HNDLR_NINSTALLED", "no handler is installed"},
      {0xBFFF0029, "VI_ERROR_INV_HNDLR_REF", "invalid handler reference"},
      {0xBFFF002A, "VI_ERROR_INV_CONTEXT", "invalid event context"},
      {0xBFFF002D, "VI_ERROR_QUEUE_OVERFLOW", "the event queue overflowed"},
      {0xBFFF002F, "VI_ERROR_NENABLED", "the event is not enabled"},
      {0xBFFF0030, "VI_ERROR_ABORT", "the operation was aborted"},
      {0xBFFF0034, "VI_ERROR_RAW_WR_PROT_VIOL", "protocol violation while writing"},
      {0xBFFF0035, "VI_ERROR_RAW_RD_PROT_VIOL", "protocol violation while reading"},
      {0xBFFF0036, "VI_ERROR_OUTP_PROT_VIOL", "output protocol violation (Word Serial: device not ready to accept)"},
      {0xBFFF0037, "VI_ERROR_INP_PROT_VIOL", "input protocol violation (Word Serial: no data to read)"},
      {0xBFFF0038, "VI_ERROR_BERR", "bus error: no device answered at this address, or it refused the access"},
      {0xBFFF0039, "VI_ERROR_IN_PROGRESS", "an operation is already in progress"},
      {0xBFFF003A, "VI_ERROR_INV_SETUP", "the set-up is inconsistent (from the driver: the resource file is unusable)"},
      {0xBFFF003B, "VI_ERROR_QUEUE_ERROR", "the event queue could not be handled"},
      {0xBFFF003C, "VI_ERROR_ALLOC", "out of memory"},
      {0xBFFF003D, "VI_ERROR_INV_MASK", "invalid mask"},
      {0xBFFF003E, "VI_ERROR_IO", "input/output error (the peer sent an error or an unexpected answer)"},
      {0xBFFF003F, "VI_ERROR_INV_FMT", "invalid format"},
      {0xBFFF0041, "VI_ERROR_NSUP_FMT", "unsupported format"},
      {0xBFFF0042, "VI_ERROR_LINE_IN_USE", "the trigger line is in use"},
      {0xBFFF0046, "VI_ERROR_NSUP_MODE", "the mode is not supported"},
      {0xBFFF004A, "VI_ERROR_SRQ_NOCCURRED", "no service request occurred"},
      {0xBFFF004E, "VI_ERROR_INV_SPACE", "invalid address space"},
      {0xBFFF0051, "VI_ERROR_INV_OFFSET", "invalid offset"},
      {0xBFFF0052, "VI_ERROR_INV_WIDTH", "invalid access width"},
      {0xBFFF0054, "VI_ERROR_NSUP_OFFSET", "the offset is not accessible"},
      {0xBFFF0055, "VI_ERROR_NSUP_VAR_WIDTH", "different source and destination widths are not supported"},
      {0xBFFF0057, "VI_ERROR_WINDOW_NMAPPED", "the window is not mapped"},
      {0xBFFF0059, "VI_ERROR_RESP_PENDING", "a previous response is still pending"},
      {0xBFFF005F, "VI_ERROR_NLISTENERS", "no listeners"},
      {0xBFFF0060, "VI_ERROR_NCIC", "not the controller in charge"},
      {0xBFFF0061, "VI_ERROR_NSYS_CNTLR", "not the system controller"},
      {0xBFFF0067, "VI_ERROR_NSUP_OPER", "the operation is not supported on this connection"},
      {0xBFFF0068, "VI_ERROR_INTR_PENDING", "an interrupt is still pending"},
      {0xBFFF006A, "VI_ERROR_ASRL_PARITY", "serial parity error"},
      {0xBFFF006B, "VI_ERROR_ASRL_FRAMING", "serial framing error"},
      {0xBFFF006C, "VI_ERROR_ASRL_OVERRUN", "serial overrun"},
      {0xBFFF006E, "VI_ERROR_TRIG_NMAPPED", "the trigger line is not mapped"},
      {0xBFFF0070, "VI_ERROR_NSUP_ALIGN_OFFSET", "the offset is not aligned for this width"},
      {0xBFFF0071, "VI_ERROR_USER_BUF", "invalid user buffer"},
      {0xBFFF0072, "VI_ERROR_RSRC_BUSY", "the resource is busy"},
      {0xBFFF0076, "VI_ERROR_NSUP_WIDTH", "the width is not supported"},
      {0xBFFF0078, "VI_ERROR_INV_PARAMETER", "invalid parameter"},
      {0xBFFF0079, "VI_ERROR_INV_PROT", "invalid protocol"},
      {0xBFFF007B, "VI_ERROR_INV_SIZE", "invalid size"},
      {0xBFFF0080, "VI_ERROR_WINDOW_MAPPED", "a window is already mapped"},
      {0xBFFF0081, "VI_ERROR_NIMPL_OPER", "the operation is not implemented"},
      {0xBFFF0083, "VI_ERROR_INV_LENGTH", "invalid length"},
      {0xBFFF0091, "VI_ERROR_INV_MODE", "invalid mode (access privilege)"},
      {0xBFFF009C, "VI_ERROR_SESN_NLOCKED", "the session holds no lock"},
      {0xBFFF009D, "VI_ERROR_MEM_NSHARED", "the memory is not shared"},
      {0xBFFF009E, "VI_ERROR_LIBRARY_NFOUND", "a library could not be found"},
      {0xBFFF009F, "VI_ERROR_NSUP_INTR", "the interrupt is not supported"},
      {0xBFFF00A0, "VI_ERROR_INV_LINE", "invalid line"},
      {0xBFFF00A1, "VI_ERROR_FILE_ACCESS", "the file could not be accessed"},
      {0xBFFF00A2, "VI_ERROR_FILE_IO", "file input/output error"},
      {0xBFFF00A3, "VI_ERROR_NSUP_LINE", "the line is not supported"},
      {0xBFFF00A4, "VI_ERROR_NSUP_MECH", "the event mechanism is not supported"},
      {0xBFFF00A5, "VI_ERROR_INTF_NUM_NCONFIG", "the interface number is not configured"},
      {0xBFFF00A6, "VI_ERROR_CONN_LOST", "the connection was lost (or never made): the peer answered nothing"},
      {0xBFFF00A7, "VI_ERROR_MACHINE_NAVAIL", "the remote machine is not available"},
      {0xBFFF00A8, "VI_ERROR_NPERMISSION", "no permission"},
  };
  return t;
}

const StatusInfo* findStatus(ViStatus st) {
  const auto& t = statusTable();
  auto it = std::lower_bound(t.begin(), t.end(), (uint32_t)st,
                             [](const StatusInfo& a, uint32_t v) { return a.code < v; });
  return it != t.end() && it->code == (uint32_t)st ? &*it : nullptr;
}

std::string statusName(ViStatus st) {
  if (const StatusInfo* s = findStatus(st)) return s->name;
  char b[16];
  snprintf(b, sizeof b, "0x%08X", (unsigned)st);
  return b;
}

std::string statusMeaning(ViStatus st) {
  const StatusInfo* s = findStatus(st);
  if (s) return s->meaning;
  return st < 0 ? "an error code that VISA does not define" : "a success code that VISA does not define";
}

std::string statusText(ViStatus st) {
  char b[64];
  const StatusInfo* s = findStatus(st);
  snprintf(b, sizeof b, "%s (0x%08X)", s ? s->name : (st < 0 ? "error" : "status"), (unsigned)st);
  return b;
}

std::string eventName(uint32_t ev) {
  switch (ev) {
    case 0xBFFF2021: return "VI_EVENT_VXI_VME_INTR";
    case 0x3FFF2009: return "VI_EVENT_IO_COMPLETION";
    case 0x3FFF200B: return "VI_EVENT_SERVICE_REQ";
    case 0xBFFF200F: return "VI_EVENT_VXI_SIGP";
    case 0xBFFF2020: return "VI_EVENT_VXI_VME_SYSFAIL";
    case 0xBFFF201D: return "VI_EVENT_VXI_VME_SYSRESET";
    case 0xBFFF2022: return "VI_EVENT_TRIG";
    default: {
      char b[16];
      snprintf(b, sizeof b, "0x%08X", ev);
      return b;
    }
  }
}

std::string sysStateText(int16_t state) {
  if (state == -1) return "unknown (the bridge did not answer)";
  std::string t;
  t += (state & 1) ? "SYSFAIL asserted" : "SYSFAIL clear";
  t += (state & 2) ? ", ACFAIL asserted" : ", ACFAIL clear";
  return t;
}

const std::vector<AttrDesc>& attrTable() {
  static const std::vector<AttrDesc> t = {
      {0xBFFF0002, "RSRC_NAME", 0},        {0xBFFF0001, "RSRC_CLASS", 0},
      {0xBFFF00E9, "INTF_INST_NAME", 0},   {0x3FFF0171, "INTF_TYPE", 16},
      {0x3FFF00D5, "VXI_LA", 16},          {0x3FFF0070, "MAINFRAME_LA", 16},
      {0x3FFF00E8, "SLOT", 16},            {0x3FFF00D9, "MANF_ID", 16},
      {0x3FFF00DF, "MODEL_CODE", 16},      {0x3FFF006C, "VXI_DEV_CLASS", 16},
      {0x3FFF00DE, "MEM_SPACE", 16},       {0x3FFF00D0, "MEM_BASE_64", 64},
      {0x3FFF00D1, "MEM_SIZE_64", 64},     {0x3FFF006B, "CMDR_LA", 16},
      {0x3FFF0100, "IMMEDIATE_SERV", 16},  {0x3FFF0194, "VXI_TRIG_SUPPORT", 32},
      {0x3FFF008D, "VXI_TRIG_STATUS", 32}, {0x3FFF008B, "VXI_VME_INTR_STATUS", 32},
      {0x3FFF0094, "VXI_VME_SYSFAIL_STATE", 16}, {0xBFFF0072, "MANF_NAME", 0},
      {0xBFFF0077, "MODEL_NAME", 0},
  };
  return t;
}

const AttrDesc* findAttr(const std::string& s) {
  std::string n = s;
  if (n.size() > 8 && strncasecmp(n.c_str(), "VI_ATTR_", 8) == 0) n = n.substr(8);
  for (const auto& a : attrTable())
    if (strcasecmp(a.name, n.c_str()) == 0) return &a;
  char* end = nullptr;
  unsigned long v = strtoul(s.c_str(), &end, 0);
  if (!s.empty() && end && !*end) {
    static AttrDesc other{0, "", 32};
    for (const auto& a : attrTable())
      if (a.id == v) return &a;
    other.id = (uint32_t)v;
    return &other;  // an id the table does not know: still worth sending
  }
  return nullptr;
}

}  // namespace host
