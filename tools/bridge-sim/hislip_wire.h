// HiSLIP framing as the server sees it: message types, the 16-byte header,
// and the limits this server applies to what a peer may claim.
#ifndef BRIDGESIM_HISLIP_WIRE_H
#define BRIDGESIM_HISLIP_WIRE_H

#include <cstddef>
#include <cstdint>

namespace bridgesim::hislip {

enum MsgType : uint8_t {
  Initialize = 0,
  InitializeResponse = 1,
  FatalError = 2,
  Error = 3,
  AsyncLock = 4,
  AsyncLockResponse = 5,
  Data = 6,
  DataEnd = 7,
  DeviceClearComplete = 8,
  DeviceClearAcknowledge = 9,
  AsyncRemoteLocalControl = 10,
  AsyncRemoteLocalResponse = 11,
  Trigger = 12,
  Interrupted = 13,
  AsyncInterrupted = 14,
  AsyncMaximumMessageSize = 15,
  AsyncMaximumMessageSizeResponse = 16,
  AsyncInitialize = 17,
  AsyncInitializeResponse = 18,
  AsyncDeviceClear = 19,
  AsyncServiceRequest = 20,
  AsyncStatusQuery = 21,
  AsyncStatusResponse = 22,
  AsyncDeviceClearAcknowledge = 23,
  AsyncLockInfo = 24,
  AsyncLockInfoResponse = 25,
  VendorSpecific = 128,
};

// FatalError control codes.
enum FatalCode : uint8_t {
  FatalUnidentified = 0,
  FatalBadHeader = 1,
  FatalNoChannels = 2,
  FatalBadInitSequence = 3,
  FatalTooManyClients = 4,
};

// Error control codes.
enum ErrorCode : uint8_t {
  ErrUnidentified = 0,
  ErrUnknownType = 1,
  ErrUnknownControl = 2,
  ErrUnknownVendor = 3,
  ErrTooLarge = 4,
};

constexpr size_t kHeaderSize = 16;
// The largest message this server takes in (and announces in
// AsyncMaximumMessageSizeResponse).  Bridge commands stay below 64 KiB.
constexpr uint64_t kMaxMessageSize = 16u << 20;
// Lengths above this are not believed at all: the header is treated as
// malformed (FatalError) instead of skipping that many bytes.
constexpr uint64_t kMaxSkippable = 1ull << 30;
// Sub-address, lock string and similar small payloads.
constexpr uint64_t kMaxSmallPayload = 256;
constexpr uint16_t kProtocolVersion = 0x0100;  // 1.0
constexpr uint16_t kServerVendorId = 0x0E76;

struct Header {
  bool prologueOk = false;
  uint8_t type = 0;
  uint8_t code = 0;
  uint32_t param = 0;  // host order
  uint64_t length = 0;
};

inline void encodeHeader(uint8_t* out, uint8_t type, uint8_t code, uint32_t param, uint64_t length) {
  out[0] = 'H';
  out[1] = 'S';
  out[2] = type;
  out[3] = code;
  for (int i = 0; i < 4; ++i) out[4 + i] = static_cast<uint8_t>(param >> (24 - 8 * i));
  for (int i = 0; i < 8; ++i) out[8 + i] = static_cast<uint8_t>(length >> (56 - 8 * i));
}

inline Header decodeHeader(const uint8_t* in) {
  Header h;
  h.prologueOk = in[0] == 'H' && in[1] == 'S';
  h.type = in[2];
  h.code = in[3];
  for (int i = 0; i < 4; ++i) h.param = (h.param << 8) | in[4 + i];
  for (int i = 0; i < 8; ++i) h.length = (h.length << 8) | in[8 + i];
  return h;
}

}  // namespace bridgesim::hislip

#endif
