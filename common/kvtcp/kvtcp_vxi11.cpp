// VXI-11 connection kind (placeholder until implemented).
#include "kvlog.h"
#include "kvtcp_internal.h"

unsigned char rpcrepl_backup[28];
uint64_t vxi11_InterruptID = 0x0123456789ABCDEFull;

int kvtcp_vxi11_Write(pKvTcpInfo, ViUInt32, char*, int, ViUInt16, int*) { return VI_ERROR_NSUP_OPER; }
int kvtcp_vxi11_Read(pKvTcpInfo, ViUInt32, char*, int, ViUInt16, char, int*) { return VI_ERROR_NSUP_OPER; }
int kvtcp_vxi11_ReadSTB(pKvTcpInfo, ViUInt32, ViUInt16*) { return VI_ERROR_NSUP_OPER; }
int kvtcp_vxi11_Clear(pKvTcpInfo, ViUInt32) { return VI_ERROR_NSUP_OPER; }
int vxi11DestroyLink(SOCKET, unsigned int) { return VI_ERROR_CONN_LOST; }
