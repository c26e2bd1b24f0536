// TCP-VXI interface driver: the entry points a host VISA library calls.
#ifndef TCPVXI_API_H
#define TCPVXI_API_H

#include "TcpVxiAPIStd.h"
#include "kvexport.h"
#include "kvvisatypes.h"

// VISA attribute ids answered by vintfGetRsrcAttr.
#define VI_ATTR_CMDR_LA 0x3FFF006Bu
#define VI_ATTR_VXI_DEV_CLASS 0x3FFF006Cu
#define VI_ATTR_MAINFRAME_LA 0x3FFF0070u
#define VI_ATTR_VXI_VME_INTR_STATUS 0x3FFF008Bu
#define VI_ATTR_VXI_TRIG_STATUS 0x3FFF008Du
#define VI_ATTR_VXI_VME_SYSFAIL_STATE 0x3FFF0094u
#define VI_ATTR_MEM_BASE_64 0x3FFF00D0u
#define VI_ATTR_MEM_SIZE_64 0x3FFF00D1u
#define VI_ATTR_VXI_LA 0x3FFF00D5u
#define VI_ATTR_MANF_ID 0x3FFF00D9u
#define VI_ATTR_MEM_SPACE 0x3FFF00DEu
#define VI_ATTR_MODEL_CODE 0x3FFF00DFu
#define VI_ATTR_SLOT 0x3FFF00E8u
#define VI_ATTR_IMMEDIATE_SERV 0x3FFF0100u
#define VI_ATTR_INTF_TYPE 0x3FFF0171u
#define VI_ATTR_VXI_TRIG_SUPPORT 0x3FFF0194u
#define VI_ATTR_RSRC_CLASS 0xBFFF0001u
#define VI_ATTR_RSRC_NAME 0xBFFF0002u
#define VI_ATTR_MANF_NAME 0xBFFF0072u
#define VI_ATTR_MODEL_NAME 0xBFFF0077u
#define VI_ATTR_INTF_INST_NAME 0xBFFF00E9u
#define VI_ATTR_READONLY_EXTRA 0x3FFF0176u  // refused as read-only by vintfSetRsrcAttr as well

extern "C" {
// lifecycle and system
KV_EXPORT void tcpvxi_start(void);
KV_EXPORT void tcpvxi_stop(void);
KV_EXPORT ViStatus vintfCloseDevice(void);
KV_EXPORT ViStatus vintfGetExtIntf(ViUInt16 intfIdx, ViUInt16* extVINTF);
KV_EXPORT ViStatus vintfSetExtIntf(ViUInt16 intfIdx, ViUInt16 extVINTF);
KV_EXPORT ViStatus vintfInitVXIpath(ViUInt16 intfIdx, ViUInt16 Nvxb);
KV_EXPORT ViStatus vintfInitHOSTpath(ViUInt16 intfIdx);
KV_EXPORT ViStatus vintfResetVXI(ViUInt16 intfIdx);
KV_EXPORT ViStatus vintfGetSysState(ViUInt16 intfIdx, ViInt16* State);

// connection
KV_EXPORT ViStatus vintfOpenDevice(ViUInt16* retNTCPVXI);

// registers
KV_EXPORT ViStatus vintfIn8(ViUInt16 intfIdx, ViUInt32 mode, ViUInt16 adrmap, ViBusAddress offset, ViUInt8* data);
KV_EXPORT ViStatus vintfIn16(ViUInt16 intfIdx, ViUInt32 mode, ViUInt16 adrmap, ViBusAddress offset,
                             ViUInt16* InWord);
KV_EXPORT ViStatus vintfIn32(ViUInt16 intfIdx, ViUInt32 mode, ViUInt16 adrmap, ViBusAddress offset, ViUInt32* data);
KV_EXPORT ViStatus vintfOut8(ViUInt16 intfIdx, ViUInt32 mode, ViUInt16 adrmap, ViBusAddress offset, ViUInt8 data);
KV_EXPORT ViStatus vintfOut16(ViUInt16 intfIdx, ViUInt32 mode, ViUInt16 adrmap, ViBusAddress offset, ViUInt16 data);
KV_EXPORT ViStatus vintfOut32(ViUInt16 intfIdx, ViUInt32 mode, ViUInt16 adrmap, ViBusAddress offset, ViUInt32 data);
KV_EXPORT void vintfPeek8(ViUInt16 intfIdx, ViUInt32 mode, ViUInt16 adrmap, ViBusAddress offset, ViUInt8* data);
KV_EXPORT void vintfPeek16(ViUInt16 intfIdx, ViUInt32 mode, ViUInt16 adrmap, ViBusAddress offset, ViUInt16* data);
KV_EXPORT void vintfPeek32(ViUInt16 intfIdx, ViUInt32 mode, ViUInt16 adrmap, ViBusAddress offset, ViUInt32* data);
KV_EXPORT void vintfPoke8(ViUInt16 intfIdx, ViUInt32 mode, ViUInt16 adrmap, ViBusAddress offset, ViUInt8 data);
KV_EXPORT void vintfPoke16(ViUInt16 intfIdx, ViUInt32 mode, ViUInt16 adrmap, ViBusAddress offset, ViUInt16 data);
KV_EXPORT void vintfPoke32(ViUInt16 intfIdx, ViUInt32 mode, ViUInt16 adrmap, ViBusAddress offset, ViUInt32 data);

// blocks
KV_EXPORT ViStatus vintfMoveIn8(ViUInt16 intfIdx, ViUInt32 mode, ViUInt16 adrmap, ViUInt16 increment,
                                ViBusAddress offset, ViBusSize count, ViUInt8* buff);
KV_EXPORT ViStatus vintfMoveIn16(ViUInt16 intfIdx, ViUInt32 mode, ViUInt16 adrmap, ViUInt16 increment,
                                 ViBusAddress offset, ViBusSize count, ViUInt16* buff);
KV_EXPORT ViStatus vintfMoveIn32(ViUInt16 intfIdx, ViUInt32 mode, ViUInt16 adrmap, ViUInt16 increment,
                                 ViBusAddress offset, ViBusSize count, ViUInt32* buff);
KV_EXPORT ViStatus vintfMoveOut8(ViUInt16 intfIdx, ViUInt32 mode, ViUInt16 adrmap, ViUInt16 increment,
                                 ViBusAddress offset, ViBusSize count, ViUInt8* buff);
KV_EXPORT ViStatus vintfMoveOut16(ViUInt16 intfIdx, ViUInt32 mode, ViUInt16 adrmap, ViUInt16 increment,
                                  ViBusAddress offset, ViBusSize count, ViUInt16* buff);
KV_EXPORT ViStatus vintfMoveOut32(ViUInt16 intfIdx, ViUInt32 mode, ViUInt16 adrmap, ViUInt16 increment,
                                  ViBusAddress offset, ViBusSize count, ViUInt32* buff);
KV_EXPORT ViStatus vintfMove(ViUInt16 intfIdx, ViUInt32 src_mode, ViUInt16 src_adrmap, ViUInt16 src_increment,
                             ViBusAddress src_offset, ViUInt16 src_width, ViUInt32 dest_mode,
                             ViUInt16 dest_adrmap, ViUInt16 dest_increment, ViBusAddress dest_offset,
                             ViUInt16 dest_width, ViBusSize count);

// interrupts
KV_EXPORT ViStatus vintfUserIRQCallback(eventHandler callbackHandler);
KV_EXPORT ViStatus vintfIrqAddLA(ViUInt16 intfIdx, ViUInt16 LA);
KV_EXPORT ViStatus vintfIrqDelLA(ViUInt16 intfIdx, ViUInt16 LA);
KV_EXPORT ViStatus vintfTestIRQ(ViUInt16 intfIdx, ViUInt16 STATID);

// resources
KV_EXPORT ViStatus vintfFillResources(ViBoolean firstInit);
KV_EXPORT ViStatus vintfGetNumRsrc(ViUInt16 intfIdx, ViUInt32* retNRsrc);
KV_EXPORT ViStatus vintfGetRsrcAttr(ViUInt16 intfIdx, ViUInt32 NInstr, ViAttr attrName, void* attrValue);
KV_EXPORT ViStatus vintfSetRsrcAttr(ViUInt16 intfIdx, ViUInt32 NInstr, ViAttr attrName, ViAttrState attrValue);
}

// C++ (type-encoded) names, as the host resolves them.
KV_EXPORT ViStatus vintfTryReopenDevice(int intfIdx);

KV_EXPORT ViStatus vintfWScmd(ViUInt16 intfIdx, ViUInt32 NInstr, ViUInt32 timeout, ViUInt16 cmd, ViUInt16 respflag,
                              ViUInt16* response);
KV_EXPORT ViStatus vintfWScmd2la(ViUInt16 intfIdx, ViUInt16 la, ViUInt32 timeout, ViUInt16 cmd,
                                 ViUInt16 respflag, ViUInt16* response);
KV_EXPORT ViStatus vintfWSresp(ViUInt16 intfIdx, ViUInt32 NInstr, ViUInt32 timeout, ViUInt16* response);
KV_EXPORT ViStatus vintfWSreadSTB(ViUInt16 intfIdx, ViUInt32 NInstr, ViUInt32 timeout, ViUInt16* STB);
KV_EXPORT ViStatus vintfWSrd(ViUInt16 intfIdx, ViUInt32 NInstr, ViUInt32 timeout, ViChar* buf, ViInt32 count,
                             ViUInt16 flags, ViChar eos, ViInt32* retcount);
KV_EXPORT ViStatus vintfWSwrt(ViUInt16 intfIdx, ViUInt32 NInstr, ViUInt32 timeout, ViChar* buf, ViInt32 count,
                              ViUInt16 flags, ViInt32* retcount);
KV_EXPORT ViStatus vintfWSLcmd(ViUInt16 intfIdx, ViUInt32 NInstr, ViUInt32 timeout, ViUInt32 cmd,
                               ViUInt16 respflag, ViUInt32* response);
KV_EXPORT ViStatus vintfWSLresp(ViUInt16 intfIdx, ViUInt32 NInstr, ViUInt32 timeout, ViUInt32* response);
KV_EXPORT ViStatus vintfWStrg(ViUInt16 intfIdx, ViUInt32 NInstr, ViUInt32 timeout);
KV_EXPORT ViStatus vintfWSclr(ViUInt16 intfIdx, ViUInt32 NInstr, ViUInt32 timeout);

#endif
