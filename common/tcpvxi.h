// Everything a program needs to use libtcpvxi directly: VISA types and status
// codes, the host's logging hooks, the instrument transport (kvtcp_*) with its
// HiSLIP and ONC RPC record layouts, the INI reader with its item list and
// toolbox, the platform services (util_*), and the driver's entry points with
// the shared-block and bridge-command records.  C++ only (the exported
// transport and INI names are C++ names).
#ifndef TCPVXI_H
#define TCPVXI_H

#include "kvvisatypes.h"
#include "kvexport.h"
#include "kvlog.h"
#include "kvtcp.h"
#include "rpc_vxi11.h"
#include "inifile.h"
#include "visa-ipc.h"
#include "TcpVxiAPI.h"
#include "HiSLIPcommands.h"
#include "tcpvxi_version.h"

#endif
