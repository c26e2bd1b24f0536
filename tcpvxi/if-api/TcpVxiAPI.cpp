// TCP-VXI interface driver: state, lifecycle, connection, interrupts and
// resource discovery.
#include "TcpVxiAPI.h"

#include "HiSLIPcommands.h"
#include "kvlog.h"

INTFINFO Interfaces[TCPVXI_MAX_INTF];
SHAREDMEMINTF* tcpvxiGD = nullptr;
HANDLE hMapObject = nullptr;
MUTEX_TYPE hMutexTcpVxiRM = nullptr;
const char* shmemNameTcpvxi = TCPVXI_MUTEX_NAME;
int FillRsrcCalled = 0;
ViSession defRM = 0;
eventHandler userCallback = nullptr;
