// HiSLIP connection kind (placeholder until implemented).
#include "kvlog.h"
#include "kvtcp_internal.h"

int kvtcp_hislip_Write(pKvTcpInfo, ViUInt32, char*, int, ViUInt16, int*) { return VI_ERROR_NSUP_OPER; }
int kvtcp_hislip_Read(pKvTcpInfo, ViUInt32, char*, int, ViUInt16, char, int*) { return VI_ERROR_NSUP_OPER; }
int kvtcp_hislip_ReadSTB(pKvTcpInfo, ViUInt32, ViUInt16*) { return VI_ERROR_NSUP_OPER; }
int kvtcp_hislip_Clear(pKvTcpInfo, ViUInt32) { return VI_ERROR_NSUP_OPER; }
int kvtcp_hislip_Connect(pKvTcpInfo, const char*, const char*) { return VI_ERROR_RSRC_NFOUND; }
int kvtcp_kvhislip_Write(pKvTcpInfo, const char*, int, ViUInt16, int*) { return VI_ERROR_NSUP_OPER; }
int kvtcp_kvhislip_Query(pKvTcpInfo, ViUInt32, const char*, int, char*, int, int*) { return VI_ERROR_NSUP_OPER; }
