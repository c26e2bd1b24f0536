// Raw TCP socket connection kind (placeholder until implemented).
#include "kvlog.h"
#include "kvtcp_internal.h"

int kvtcp_raw_Write(pKvTcpInfo, ViUInt32, char*, int, ViUInt16, int*) { return VI_ERROR_NSUP_OPER; }
int kvtcp_raw_Read(pKvTcpInfo, ViUInt32, char*, int, ViUInt16, char, int*) { return VI_ERROR_NSUP_OPER; }
int kvtcp_sock_Connect(pKvTcpInfo, const char*, unsigned short) { return VI_ERROR_RSRC_NFOUND; }
