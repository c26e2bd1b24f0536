// VISA scalar types and the status codes this library uses, with the widths
// the VISA standard gives them on 64-bit Linux.
#ifndef KV_VISATYPES_H
#define KV_VISATYPES_H

#include <stdint.h>

typedef uint8_t ViUInt8;
typedef int8_t ViInt8;
typedef uint16_t ViUInt16;
typedef int16_t ViInt16;
typedef unsigned int ViUInt32;
typedef signed int ViInt32;
typedef unsigned long long ViUInt64;
typedef signed long long ViInt64;
typedef char ViChar;
typedef unsigned char ViByte;
typedef ViUInt16 ViBoolean;
typedef double ViReal64;
typedef ViInt32 ViStatus;
typedef ViUInt32 ViObject;
typedef ViObject ViSession;
typedef ViUInt32 ViAttr;
typedef ViUInt64 ViAttrState;
typedef ViUInt64 ViBusAddress;
typedef ViUInt64 ViBusSize;
typedef char* ViString;
typedef const char* ViConstString;

static_assert(sizeof(ViUInt32) == 4, "ViUInt32 is 32 bits");
static_assert(sizeof(ViBusAddress) == 8, "ViBusAddress is 64 bits");
static_assert(sizeof(ViAttrState) == 8, "ViAttrState is 64 bits");

#define VI_TRUE ((ViBoolean)1)
#define VI_FALSE ((ViBoolean)0)
#define VI_NULL 0

// Status codes (signed 32-bit; negative means failure).
#define VI_SUCCESS ((ViStatus)0)
#define VI_ERROR_SYSTEM_ERROR ((ViStatus)0xBFFF0000)
#define VI_ERROR_INV_OBJECT ((ViStatus)0xBFFF000E)
#define VI_ERROR_RSRC_NFOUND ((ViStatus)0xBFFF0011)
#define VI_ERROR_TMO ((ViStatus)0xBFFF0015)
#define VI_ERROR_NSUP_ATTR ((ViStatus)0xBFFF001D)
#define VI_ERROR_ATTR_READONLY ((ViStatus)0xBFFF001F)
#define VI_ERROR_ABORT ((ViStatus)0xBFFF0030)
#define VI_ERROR_INV_SETUP ((ViStatus)0xBFFF003A)
#define VI_ERROR_ALLOC ((ViStatus)0xBFFF003C)
#define VI_ERROR_IO ((ViStatus)0xBFFF003E)
#define VI_ERROR_NSUP_OPER ((ViStatus)0xBFFF0067)
#define VI_ERROR_USER_BUF ((ViStatus)0xBFFF0071)
#define VI_ERROR_CONN_LOST ((ViStatus)0xBFFF00A6)

// Event type handed to the host's interrupt callback.
#define VI_EVENT_VXI_VME_INTR ((ViUInt32)0xBFFF2021)

#endif
