// Arbitrary bytes as a bridge's side of a HiSLIP connection.  A connection
// record is set up as a connect leaves it, over socket pairs whose far ends
// hold the input: first the asynchronous channel, shut behind its bytes, on
// which the receive thread's body runs on this thread (storing answers,
// calling the event callback); then the synchronous channel, on which reads,
// bridge exchanges, writes, status-byte reads and clears run in the order the
// input asks, then plain reads until one fails.  Time-outs are 0 or 2 ms.
//
// Input:
//   [ctrl] [nOps] nOps x [kind count flags eos] [asyncLen lo] [asyncLen hi]
//   [asyncLen bytes for the asynchronous channel] [the rest: synchronous]
// ctrl bit 0: shut the synchronous far end after writing (peer closed);
// bits 1-2: time-out index.
#include <vector>

#include "../fuzz_kit.h"

namespace {

KvTcpInfo rec;

// Throws away what the client sent, so its sends never block on a full buffer.
void drain(int fd) {
  char buf[4096];
  while (recv(fd, buf, sizeof buf, MSG_DONTWAIT) > 0) {
  }
}

// Installed so that the receive thread takes its event-delivery path.
void onAsync(pKvTcpInfo) {}

// True when the ring holds an answer of this type.
bool haveAsync(unsigned char type) {
  for (int i = 0; i < KVTCP_ASYNC_SLOTS; i++)
    if (rec.hislipAsyncIn[i].msg == type) return true;
  return false;
}

// Status queries and clears with no answer stored wait out their time-out
// (at least a millisecond, polling); one such wait per input is enough.
bool waitSpent;

struct Op { uint8_t kind, count, flags, eos; };

const ViUInt32 kTimeouts[4] = {0, 0, 0, 2};

// The receive thread's body over the asynchronous bytes; it leaves when the
// channel closes, closing its end and clearing the field.
void runAsync(const uint8_t* p, size_t n) {
  fuzzkit::Channel intr;
  if (!intr.ok()) return;
  rec.S_Intr = intr.near;
  fuzzkit::feed(intr.far, p, n);
  shutdown(intr.far, SHUT_WR);
  hislipAsyncRecvThread(&rec);
  if (rec.S_Intr != 0 && rec.S_Intr != intr.near) fuzzkit::fail("receive thread left a foreign descriptor in S_Intr");
  if (rec.S_Intr == 0) intr.near = -1;  // the thread closed it
  rec.S_Intr = 0;
  rec.Connected = 1;
}

// A read's count against its buffer; up to 3 is fine whatever the buffer:
// a vendor-specific answer's padding count replaces the read's, as designed.
void checkCount(const char* what, int st, int got, int count) {
  if (st >= 0 && (got < 0 || got > (count > 3 ? count : 3)))
    fuzzkit::fail("%s reported %d bytes for a buffer of %d", what, got, count);
}

// One operation; returns false when the synchronous channel is done.
bool runOp(const Op& op, ViUInt32 tmo, int farCore, int farIntr) {
  // Sizes up to 1020, allocated exactly so any overrun is caught.
  int count = (op.count & 0x7F) * ((op.kind & 0x80) ? 8 : 1);
  ViUInt16 flags = (ViUInt16)((op.flags & 0x03) | ((op.flags & 0x04) ? KVTCP_FLAG_KEEP : 0));
  std::vector<char> buf(count ? count : 1);
  int got = 0;
  int st = 0;
  int kind = op.kind % 6;
  switch (kind) {
    case 0:
    case 1:
      st = kvtcp_Read(&rec, tmo, count ? buf.data() : nullptr, count, flags, (char)op.eos, &got);
      checkCount("kvtcp_Read", st, got, count);
      break;
    case 2: {
      // A bridge exchange: an 8-to-20-byte command out, the answer back.
      char out[24] = {(char)op.eos};
      st = kvtcp_kvhislip_Query(&rec, tmo, out, 8 + 4 * (op.flags >> 5 & 3), buf.data(), count, &got);
      checkCount("kvtcp_kvhislip_Query", st, got, count);
      break;
    }
    case 3: {
      char out[64];
      memset(out, 'x', sizeof out);
      st = kvtcp_Write(&rec, tmo, out, count < 64 ? count : 64, flags, &got);
      break;
    }
    default: {  // the status byte (4) or a clear (5)
      if (!haveAsync(kind == 4 ? HISLIP_AsyncStatusResponse : HISLIP_AsyncDeviceClearAcknowledge)) {
        if (waitSpent) return true;
        waitSpent = true;
      }
      ViUInt16 stb = 0;
      st = kind == 4 ? kvtcp_ReadSTB(&rec, tmo, &stb) : kvtcp_Clear(&rec, tmo);
      break;
    }
  }
  drain(farCore);
  drain(farIntr);
  return !(kind < 3 && st < 0);  // a failed read or exchange ends the channel
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzzkit::openMutexOnce("fuzzhislip");
  memset(&rec, 0, sizeof rec);
  fuzzkit::prepareHislipRecord(&rec);
  waitSpent = false;
  kvtcp_setCallback(onAsync);

  size_t pos = 0;
  auto next = [&]() -> uint8_t { return pos < size ? data[pos++] : 0; };  // 0 past the end
  uint8_t ctrl = next();
  int nOps = (next() & 15) + 1;
  Op ops[16];
  for (int i = 0; i < nOps; i++) ops[i] = Op{next(), next(), next(), next()};  // in order, left to right
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

  fuzzkit::Channel core, intr;
  if (!core.ok() || !intr.ok()) return 0;
  rec.S_Core = core.near;
  rec.S_Intr = intr.near;  // for the status query and the clear; never answered here
  fuzzkit::feed(core.far, sync, syncLen);
  if (ctrl & 1) shutdown(core.far, SHUT_WR);

  // The script once, in order (status queries and clears may each wait a
  // millisecond for an answer that never comes) ...
  bool more = true;
  for (int i = 0; i < nOps && more; i++) more = runOp(ops[i], tmo, core.far, intr.far);
  // ... then reads until they fail: every byte left is taken as a message.
  Op rd = ops[0];
  rd.kind &= 0x80;  // a plain read of the first operation's size (never 0 bytes)
  rd.count |= 1;
  for (int call = 0; call < 256 && more; call++) more = runOp(rd, tmo, core.far, intr.far);

  rec.S_Core = rec.S_Intr = 0;
  return 0;
}
