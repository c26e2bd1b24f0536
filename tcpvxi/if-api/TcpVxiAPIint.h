// Helpers shared by the driver's own source files (not exported).
#ifndef TCPVXI_API_INT_H
#define TCPVXI_API_INT_H

#include "TcpVxiAPIStd.h"
#include "inifile.h"
#include "kvtcp_internal.h"

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

#endif
