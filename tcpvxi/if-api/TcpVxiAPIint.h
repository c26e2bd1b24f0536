// Helpers shared by the driver's own source files (not exported).
#ifndef TCPVXI_API_INT_H
#define TCPVXI_API_INT_H

#include "HiSLIPcommands.h"
#include "TcpVxiAPI.h"
#include "TcpVxiAPIStd.h"
#include "inifile.h"
#include "kvtcp_internal.h"

// The driver's state in this process, and its view of the shared block.
extern INTFINFO Interfaces[TCPVXI_MAX_INTF];
extern SHAREDMEMINTF* tcpvxiGD;
extern HANDLE hMapObject;
extern MUTEX_TYPE hMutexTcpVxiRM;
extern const char* shmemNameTcpvxi;
extern int FillRsrcCalled;
extern ViSession defRM;
extern eventHandler userCallback;

// Bits ORed into the command word, indexed by the host's address space
// (0 none, 1 A16, 2 A24, 3 A32) and access privilege (0-7).
extern const uint32_t IOFLAGS_ALEN[4];
extern const uint32_t IOFLAGS_AMMode[8];

// An exported call in progress.  tcpvxi_stop unmaps the shared block and
// closes the driver mutex only once no call of this process is inside, and a
// call that starts while a stop runs is refused at once.
class DrvCall {
 public:
  DrvCall();
  ~DrvCall();
  DrvCall(const DrvCall&) = delete;
  DrvCall& operator=(const DrvCall&) = delete;
  bool refused() const { return refused_; }

 private:
  bool refused_;
};
// First statement of an exported call: returns `fail` while a stop runs.
#define DRV_CALL(fail)     \
  DrvCall drvCall_;        \
  if (drvCall_.refused()) return fail

// The driver mutex, with the lock result deliberately ignored.
void drvLock(ViUInt32 s_tmo);
void drvUnlock(void);

// Non-zero when an interface number is not served: above NIntf, outside the
// table, or no block mapped.
int drvIntfRefused(int idx);

// The shared record of a served interface (through GIntf when linked).
SHAREDINTFINFO* drvShared(int idx);

// HiSLIP connect to addr followed by the bridge lock; the connect status.
int drvConnectAndLock(INTFINFO* intf, const char* addr);

// Fills the instruments of one interface from a bridge's resource text
// already parsed into doc (idx only names it in the log).  Returns the
// number of instruments accepted.
int drvReadInstruments(int idx, SHAREDINTFINFO* g, IniText doc);

// The interface whose connection record is kvtcp, or null when kvtcp is not
// one of the driver's own connections.
INTFINFO* drvIntfOfConnection(pKvTcpInfo kvtcp);

// Exchange routines (no lock of their own; the callers hold the driver mutex
// where the protocol asks for it).
ViInt32 intfQuery(PINTFINFO intf, char* outbuff, ViInt32 outbuffsize, char* inbuff, ViInt32 inbuffsize,
                  ViInt32 timeout);
ViStatus CheckIOstatus(int N, void* Answ);
int intfWriteCmdBuf(PINTFINFO intf, psVxiCmd_OUTBUF Cmd, char* buff, ViInt32 bsize, ViInt32* count);
int intfWriteCmdReadBuf(PINTFINFO intf, psVxiCmd_INBUFq Cmd, char* buff, ViInt32 bsize, ViInt32* count);
ViStatus LockToIPAddr(PINTFINFO intf);

// Interrupt delivery, the resource text and its line source.
void tcpEventHandler(pKvTcpInfo kvtcp);
ViStatus GetResmanText(INTFINFO* intf, unsigned char* buf, int maxlen);
int Ini_LineTextInputFunction(void* inputSource, char* inputBuffer, int maxLineLength, int* endOfSource,
                              int* lineNumRead);

typedef struct {
  const unsigned char* buf;
  int idx;
} sLineTextInput;

// Single and block accesses behind the exported register and move calls.
int ReadD08(PINTFINFO intf, ViUInt32 Addr, ViUInt32 AddrMap, ViUInt32 AddrMode, ViUInt8* data);
int ReadD16(PINTFINFO intf, ViUInt32 Addr, ViUInt32 AddrMap, ViUInt32 AddrMode, ViUInt16* data);
int ReadD32(PINTFINFO intf, ViUInt32 Addr, ViUInt32 AddrMap, ViUInt32 AddrMode, ViUInt32* data);
int WriteD08(PINTFINFO intf, ViUInt32 Addr, ViUInt32 AddrMap, ViUInt32 AddrMode, ViUInt8 data);
int WriteD16(PINTFINFO intf, ViUInt32 Addr, ViUInt32 AddrMap, ViUInt32 AddrMode, ViUInt16 data);
int WriteD32(PINTFINFO intf, ViUInt32 Addr, ViUInt32 AddrMap, ViUInt32 AddrMode, ViUInt32 data);
void PokeD08(PINTFINFO intf, ViUInt32 Addr, ViUInt32 AddrMap, ViUInt32 AddrMode, ViUInt8 data);
void PokeD16(PINTFINFO intf, ViUInt32 Addr, ViUInt32 AddrMap, ViUInt32 AddrMode, ViUInt16 data);
void PokeD32(PINTFINFO intf, ViUInt32 Addr, ViUInt32 AddrMap, ViUInt32 AddrMode, ViUInt32 data);
int WriteBlkD08(PINTFINFO intf, ViUInt32 Addr, ViUInt32 AddrMap, ViUInt32 AddrMode, ViBoolean Inc, ViUInt8* Block,
                ViUInt32 count);
int WriteBlkD16(PINTFINFO intf, ViUInt32 Addr, ViUInt32 AddrMap, ViUInt32 AddrMode, ViBoolean Inc,
                ViUInt16* Block, ViUInt32 count);
int WriteBlkD32(PINTFINFO intf, ViUInt32 Addr, ViUInt32 AddrMap, ViUInt32 AddrMode, ViBoolean Inc,
                ViUInt32* Block, ViUInt32 count);
int ReadBlkD08(PINTFINFO intf, ViUInt32 Addr, ViUInt32 AddrMap, ViUInt32 AddrMode, ViBoolean Inc, ViUInt8* Block,
               ViUInt32 count);
int ReadBlkD16(PINTFINFO intf, ViUInt32 Addr, ViUInt32 AddrMap, ViUInt32 AddrMode, ViBoolean Inc, ViUInt16* Block,
               ViUInt32 count);
int ReadBlkD32(PINTFINFO intf, ViUInt32 Addr, ViUInt32 AddrMap, ViUInt32 AddrMode, ViBoolean Inc, ViUInt32* Block,
               ViUInt32 count);

#endif
