// Names and one-line meanings of the VISA statuses, events, attributes and
// system-state bits that the driver and the transport can hand back.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "driver.h"

namespace host {

struct StatusInfo {
  uint32_t code;
  const char* name;
  const char* meaning;
};

// Every status of the table, in code order (for `status` without argument).
const std::vector<StatusInfo>& statusTable();
// The entry of a code, or null for a code that VISA does not define.
const StatusInfo* findStatus(ViStatus st);
// "VI_ERROR_TMO", or the hex code for an unknown one.
std::string statusName(ViStatus st);
// One line telling what went wrong (empty for an unknown code).
std::string statusMeaning(ViStatus st);
// "VI_ERROR_TMO (0xBFFF0015)".
std::string statusText(ViStatus st);

// "VI_EVENT_VXI_VME_INTR", or the hex code.
std::string eventName(uint32_t ev);

// The system state word of vintfGetSysState, bit by bit.
std::string sysStateText(int16_t state);

struct AttrDesc {
  uint32_t id;
  const char* name;  // without the VI_ATTR_ prefix
  int width;         // 16, 32, 64, or 0 for a string
};
const std::vector<AttrDesc>& attrTable();
// By name (with or without VI_ATTR_, any case) or by number.  Null if unknown.
const AttrDesc* findAttr(const std::string& nameOrId);

}  // namespace host
