// Arbitrary bytes as a bridge's side of a HiSLIP connection.
//
// A connection record is set up as a connect would leave it (HiSLIP kind,
// connected, an open interface mutex), but its channels are socket pairs
// whose far ends the target fills with the input:
//   1. the asynchronous channel: the receive thread's body runs on it, on
//      this thread, until the channel closes (its far end is shut after the
//      input was written), storing answers and calling the event callback;
//   2. the synchronous channel: message reads, bridge exchanges, writes,
//      status-byte reads and clears run on it in the order the input asks,
//      then plain reads until one fails (the bytes are used up or malformed).
// Time-outs are 0 or 2 ms, so an input costs well under a millisecond when
// the far end stays open; when the input asks for it, the far end is shut
// instead, which exercises the closed-peer handling of the waits.
//
// Input:
//   [ctrl] [nOps] nOps x [kind count flags eos] [asyncLen lo] [asyncLen hi]
//   [asyncLen bytes for the asynchronous channel] [the rest: synchronous]
// ctrl bit 0: shut the synchronous far end after writing (peer closed);
// bits 1-2: time-out index.
#include <errno.h>
#include <fcntl.h>
#include <semaphore.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include "kvtcp_internal.h"
#include "../fuzz_kit.h"
#include "visa-ipc.h"

namespace {

KvTcpInfo rec;
void resetRecord() {
  memset(&rec, 0, sizeof rec);
  fuzzkit::prepareHislipRecord(&rec);
}

// Throws away what the client sent, so its sends never block on a full buffer.
void drain(int fd) {
  char buf[4096];
  while (recv(fd, buf, sizeof buf, MSG_DONTWAIT) > 0) {
  }
}

unsigned char lastAsyncType;
char lastAsyncByte;

void onAsync(pKvTcpInfo intf) {
  // Touch the stored body the way a handler would.
  lastAsyncType = intf->hislipAsyncInMsg;
  lastAsyncByte = intf->hislipAsyncCmdData[KVTCP_ASYNC_DATA - 1];
}

// True when the ring holds an answer of this type.
bool haveAsync(unsigned char type) {
  for (int i = 0; i < KVTCP_ASYNC_SLOTS; i++)
    if (rec.hislipAsyncIn[i].msg == type) return true;
  return false;
}

// Status queries and clears with no answer stored wait out their time-out
// (at least a millisecond, polling); one such wait per input is enough.
bool waitSpent;

struct Op {
  uint8_t kind, count, flags, eos;
};

const ViUInt32 kTimeouts[4] = {0, 0, 0, 2};

void runAsync(const uint8_t* p, size_t n) {
  int sv[2];
  if (socketpair(AF_UNIX, SOCK_STREAM, 0, sv) != 0) return;
  rec.S_Intr = sv[0];
  fuzzkit::feed(sv[1], p, n);
  // The thread leaves when the channel closes.
  shutdown(sv[1], SHUT_WR);
  hislipAsyncRecvThread(&rec);
  // It closes its channel (and clears the field) when it leaves.
  if (rec.S_Intr == sv[0]) {
    close(sv[0]);
    rec.S_Intr = 0;
  } else if (rec.S_Intr != 0) {
    fprintf(stderr, "receive thread left a foreign descriptor in S_Intr\n");
    abort();
  }
  close(sv[1]);
  rec.Connected = 1;
}

// One operation; returns false when the synchronous channel is done.
bool runOp(const Op& op, ViUInt32 tmo, int farCore, int farIntr) {
  // Sizes up to 1020, allocated exactly so any overrun is caught.
  int count = (op.count & 0x7F) * ((op.kind & 0x80) ? 8 : 1);
  ViUInt16 flags = (ViUInt16)((op.flags & 0x03) | ((op.flags & 0x04) ? KVTCP_FLAG_KEEP : 0));
  int got = 0;
  int st = 0;
  bool readOp = true;
  switch (op.kind % 6) {
    case 0:
    case 1: {
      char* buf = (char*)malloc(count ? (size_t)count : 1);
      st = kvtcp_Read(&rec, tmo, count ? buf : nullptr, count, flags, (char)op.eos, &got);
      if (st >= 0 && (got < 0 || got > (count > 3 ? count : 3))) {
        fprintf(stderr, "kvtcp_Read reported %d bytes for a buffer of %d\n", got, count);
        abort();
      }
      free(buf);
      break;
    }
    case 2: {
      // A bridge exchange: an 8-to-20-byte command out, the answer back.
      int outcount = 8 + 4 * (op.flags >> 5 & 3);
      char out[24];
      memset(out, 0, sizeof out);
      out[0] = (char)op.eos;
      char* in = (char*)malloc(count ? (size_t)count : 1);
      st = kvtcp_kvhislip_Query(&rec, tmo, out, outcount, in, count, &got);
      if (st >= 0 && (got < 0 || got > (count > 3 ? count : 3))) {
        fprintf(stderr, "kvtcp_kvhislip_Query reported %d bytes for a buffer of %d\n", got, count);
        abort();
      }
      free(in);
      break;
    }
    case 3: {
      char out[64];
      memset(out, 'x', sizeof out);
      st = kvtcp_Write(&rec, tmo, out, count < 64 ? count : 64, flags, &got);
      readOp = false;
      break;
    }
    case 4: {
      bool answered = haveAsync(HISLIP_AsyncStatusResponse);
      if (!answered && waitSpent) return true;
      waitSpent = waitSpent || !answered;
      ViUInt16 stb = 0;
      st = kvtcp_ReadSTB(&rec, tmo, &stb);
      readOp = false;
      break;
    }
    default:
      if (!haveAsync(HISLIP_AsyncDeviceClearAcknowledge)) {
        if (waitSpent) return true;
        waitSpent = true;
      }
      st = kvtcp_Clear(&rec, tmo);
      readOp = false;
      break;
  }
  drain(farCore);
  drain(farIntr);
  return !(readOp && st < 0);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzzkit::openMutexOnce("fuzzhislip");
  resetRecord();
  waitSpent = false;
  kvtcp_setCallback(onAsync);

  size_t pos = 0;
  uint8_t ctrl = size > pos ? data[pos++] : 0;
  int nOps = size > pos ? (data[pos++] & 15) + 1 : 1;
  Op ops[16];
  for (int i = 0; i < nOps; i++) {
    uint8_t b[4] = {0, 0, 0, 0};
    for (int k = 0; k < 4; k++) b[k] = pos < size ? data[pos++] : 0;
    ops[i] = Op{b[0], b[1], b[2], b[3]};
  }
  size_t asyncLen = 0;
  if (pos + 2 <= size) {
    asyncLen = data[pos] | (size_t)data[pos + 1] << 8;
    pos += 2;
  }
  if (asyncLen > size - pos) asyncLen = size - pos;
  const uint8_t* async = data + pos;
  pos += asyncLen;
  const uint8_t* sync = data + pos;
  size_t syncLen = size - pos;
  ViUInt32 tmo = kTimeouts[(ctrl >> 1) & 3];

  if (asyncLen) runAsync(async, asyncLen);

  int core[2], intr[2];
  if (socketpair(AF_UNIX, SOCK_STREAM, 0, core) != 0) return 0;
  if (socketpair(AF_UNIX, SOCK_STREAM, 0, intr) != 0) {
    close(core[0]);
    close(core[1]);
    return 0;
  }
  rec.S_Core = core[0];
  rec.S_Intr = intr[0];  // for the status query and the clear; never answered here
  fuzzkit::feed(core[1], sync, syncLen);
  if (ctrl & 1) shutdown(core[1], SHUT_WR);

  // The script once, in order (status queries and clears may each wait a
  // millisecond for an answer that never comes) ...
  bool more = true;
  for (int i = 0; i < nOps && more; i++) more = runOp(ops[i], tmo, core[1], intr[1]);
  // ... then reads until they fail: every byte left is taken as a message.
  Op rd = ops[0];
  rd.kind &= 0x80;  // a plain read of the first operation's size (never 0 bytes)
  rd.count |= 1;
  for (int call = 0; call < 256 && more; call++) more = runOp(rd, tmo, core[1], intr[1]);

  close(core[0]);
  close(core[1]);
  close(intr[0]);
  close(intr[1]);
  rec.S_Core = rec.S_Intr = 0;
  return 0;
}
