// kvtcp: the instrument transport.  One KvTcpInfo record per connection
// (raw socket, VXI-11 or HiSLIP), socket primitives with time-outs, message
// read and write, status byte and device clear.
#ifndef KV_KVTCP_H
#define KV_KVTCP_H

#include <netinet/in.h>
#include <pthread.h>
#include <stdint.h>

#include "kvexport.h"
#include "kvvisatypes.h"
#include "port4880.h"

typedef int SOCKET;
typedef void* HANDLE;

#define KVTCP_NO_LINK 0xBAADF00Du
#define KVTCP_ASYNC_SLOTS 8
#define KVTCP_ASYNC_DATA 1444

enum { KVTCP_RAW = 0, KVTCP_VXI11 = 1, KVTCP_HISLIP = 2 };

// Read/write flag word shared by kvtcp_Read, kvtcp_Write and kvtcp_kvhislip_Write.
#define KVTCP_FLAG_EOS 0x0001     // read: stop at eos; write: END (with 0x0002)
#define KVTCP_FLAG_END 0x0002     // read: stop on END; write: END
#define KVTCP_FLAG_LOCKED 0x0100  // caller already holds the lock
#define KVTCP_FLAG_KEEP 0x0200    // keep the lock after success

typedef struct _KvTcpInfo {
  int Connected;
  char TcpipAddr[64];
  char TcpipHostname[128];
  char InstName[64];
  int tcpType;
  uint16_t hislipSessionID;
  int hislipModeOverlap;
  int hislipOutMesageID;
  int hislipInMesageID;
  uint32_t hislipMaximumMessageSize;
  sHiSPLIP_Header hislipInHdr;
  volatile sHiSPLIP_Header hislipAsyncIn[KVTCP_ASYNC_SLOTS];
  int hislipWaitAsyncStatus;
  unsigned char hislipAsyncInMsg;
  char hislipAsyncCmdData[KVTCP_ASYNC_DATA];
  uint16_t SocketPort;
  int SocketNoDelay;
  int SocketKeepAlive;
  int CoreState;
  int LastError;
  char intfMutexName[128];
  char coreMutexName[128];
  HANDLE hIntfMutex;
  volatile int nIntfLocked;
  HANDLE hCoreMutex;
  volatile int nCoreLocked;
  SOCKET S_Core;
  SOCKET S_Abort;
  SOCKET S_Intr;
  uint16_t port;
  uint32_t maxRecvSize;
  struct sockaddr_in Addr;
  struct sockaddr_in myAddr;
  uint32_t lid;
  char intr_handle[40];
  uint16_t intr_port;
  pthread_t hIntrThread;
  void* userData;
} KvTcpInfo, *pKvTcpInfo;

typedef void (*kvtcpEventHandler)(pKvTcpInfo intf);

// ---------------------------------------------------- socket primitives
KV_EXPORT int CheckForRecv(SOCKET s, ViUInt32 tmo);
KV_EXPORT int sendAll(SOCKET s, const char* buf, int len, int* nWrite);
KV_EXPORT int recvMin(SOCKET s, ViUInt32 tmo, char* buf, int len, int minlen, int* nRead);
KV_EXPORT int recvResp(SOCKET s, ViUInt32 tmo, char* buf, int len, int* nRead);
KV_EXPORT int recvExact(SOCKET s, ViUInt32 tmo, char* buf, int minlen, int* nRead);
KV_EXPORT void recvClear(SOCKET s);
KV_EXPORT int SendHdrData(SOCKET s, const void* hdr, int hdrsize, const void* buf, int bsize, int maxlen);
KV_EXPORT void kvtcp_toIpAddress(const char* address, char* ipaddr, char* hostname);
KV_EXPORT int kvtcp_sock_setNoDelay(pKvTcpInfo intf, int on);
KV_EXPORT int kvtcp_sock_setKeepAlive(pKvTcpInfo intf, int on);

// ------------------------------------------- connection record and locks
KV_EXPORT uint32_t myntohl(uint32_t v);
KV_EXPORT uint32_t myhtonl(uint32_t v);
KV_EXPORT uint16_t myhtons(uint16_t v);
KV_EXPORT int kvtcp_Lock(pKvTcpInfo intf);
KV_EXPORT void kvtcp_UnLock(pKvTcpInfo intf);
KV_EXPORT void kvtcp_setCallback(kvtcpEventHandler cb);
KV_EXPORT void kvtcp_Disconnect(pKvTcpInfo intf);
// Disconnects and closes the record's mutexes; once it returns, no receive
// thread of this library still uses the record (within a second's grace), so
// the caller may free it.
KV_EXPORT void kvtcp_Close(pKvTcpInfo intf);

// ---------------------------------------------------------------- HiSLIP
KV_EXPORT int kvtcp_hislip_Connect(pKvTcpInfo intf, const char* TcpipAddr, const char* subaddr);
KV_EXPORT int kvtcp_kvhislip_Write(pKvTcpInfo intf, const char* buf, int count, ViUInt16 flags, int* retcount);
KV_EXPORT int kvtcp_kvhislip_Query(pKvTcpInfo intf, ViUInt32 timeout, const char* outbuf, int outcount,
                                   char* inbuf, int incount, int* retcount);

// ------------------------------------------------ message read and write
// The raw-socket write stores a NUL at buf[count]: the buffer needs one spare byte.
KV_EXPORT int kvtcp_Write(pKvTcpInfo intf, ViUInt32 timeout, char* buf, int count, ViUInt16 flags,
                          int* retcount);
KV_EXPORT int kvtcp_Read(pKvTcpInfo intf, ViUInt32 timeout, char* buf, int count, ViUInt16 flags, char eos,
                         int* retcount);
KV_EXPORT int kvtcp_Query(pKvTcpInfo intf, ViUInt32 timeout, char* outbuf, int outcount, char* inbuf,
                          int incount, ViUInt16 inflags, char eos, int* retcount);

// ------------------------------------------------ status byte and clear
KV_EXPORT int kvtcp_ReadSTB(pKvTcpInfo intf, ViUInt32 tmo, ViUInt16* stb);
KV_EXPORT int kvtcp_Clear(pKvTcpInfo intf, ViUInt32 tmo);

// -------------------------------------------------------------- VXI-11
KV_EXPORT int vxi11CoreRequest(SOCKET S, ViUInt32 proc, ViUInt32 timeout, void* sendbuff, int sendsize,
                               void* recvbuf, int recvsize, int* nRead);
KV_EXPORT int vxi11Core2BufRequest(SOCKET S, ViUInt32 proc, ViUInt32 timeout, void* sendbuff, const int sendsize,
                                   void* sendbuff2, const int sendsize2, void* recvbuf, int recvsize, int* nRead);
KV_EXPORT int GetPMapVXI11(SOCKET S, unsigned short* port);
KV_EXPORT int vxi11CreateLink(SOCKET S, const char* instName, unsigned int* lid, unsigned short* abortPort,
                              unsigned int* maxRecvSize);
KV_EXPORT int vxi11DestroyLink(SOCKET S, unsigned int lid);
KV_EXPORT int vxi11FullConnect(pKvTcpInfo intf, const char* name);
KV_EXPORT int kvtcp_vxi11_Connect(pKvTcpInfo rootIntf, pKvTcpInfo intf, const char* TcpipAddr,
                                  const char* InstName);
KV_EXPORT char* getCoreProcName(int proc);
KV_EXPORT int kvtcp_vxi11_EnableEvents(pKvTcpInfo intf);

// --------------------------------------------------------- raw socket
KV_EXPORT int kvtcp_sock_Connect(pKvTcpInfo intf, const char* TcpipAddr, unsigned short SocketPort);

// ---------------------------------------------------- module globals
KV_EXPORT extern KvTcpInfo cpintf;
KV_EXPORT extern pKvTcpInfo pcpintf;
KV_EXPORT extern unsigned char rpcrepl_backup[28];
KV_EXPORT extern uint64_t vxi11_InterruptID;

#endif
