// HiSLIP (TCP port 4880) message header and message types.
#ifndef KV_PORT4880_H
#define KV_PORT4880_H

#include <stdint.h>

#define HISLIP_PORT 4880

// 16-byte header in front of every HiSLIP message.  param, dataLenHigh and
// dataLen travel big-endian; the sender fills them with wire-order bytes.
typedef struct {
  char Prologue[2];     // "HS"
  unsigned char msg;    // message type
  signed char code;     // control code
  union {
    uint32_t param;
    uint16_t params16[2];
  };
  uint32_t dataLenHigh;  // always 0 here
  uint32_t dataLen;
} sHiSPLIP_Header;
static_assert(sizeof(sHiSPLIP_Header) == 16, "HiSLIP header is 16 bytes");

enum {
  HISLIP_Initialize = 0,
  HISLIP_InitializeResponse = 1,
  HISLIP_FatalError = 2,
  HISLIP_Error = 3,
  HISLIP_AsyncLock = 4,
  HISLIP_AsyncLockResponse = 5,
  HISLIP_Data = 6,
  HISLIP_DataEnd = 7,
  HISLIP_DeviceClearComplete = 8,
  HISLIP_DeviceClearAcknowledge = 9,
  HISLIP_AsyncRemoteLocalControl = 10,
  HISLIP_AsyncRemoteLocalResponse = 11,
  HISLIP_Trigger = 12,
  HISLIP_Interrupted = 13,
  HISLIP_AsyncInterrupted = 14,
  HISLIP_AsyncMaximumMessageSize = 15,
  HISLIP_AsyncMaximumMessageSizeResponse = 16,
  HISLIP_AsyncInitialize = 17,
  HISLIP_AsyncInitializeResponse = 18,
  HISLIP_AsyncDeviceClear = 19,
  HISLIP_AsyncServiceRequest = 20,
  HISLIP_AsyncStatusQuery = 21,
  HISLIP_AsyncStatusResponse = 22,
  HISLIP_AsyncDeviceClearAcknowledge = 23,
  HISLIP_AsyncLockInfo = 24,
  HISLIP_AsyncLockInfoResponse = 25,
  HISLIP_VendorSpecific = 128,
};

#endif
