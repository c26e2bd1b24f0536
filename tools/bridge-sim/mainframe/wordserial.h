// The message side of a message-based VXI device: Word Serial commands and
// responses through its Data High / Data Low registers, message bytes in
// (Byte Available) and out (Byte Request) with END, the response register
// bits that pace a commander, and a small IEEE 488.2 / SCPI instrument that
// executes the messages.
#ifndef BRIDGESIM_WORDSERIAL_H
#define BRIDGESIM_WORDSERIAL_H

#include <array>
#include <cstdint>
#include <deque>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "mainframe.h"

namespace bridgesim {

// Response register bits (bits 15-14 reserved and read as ones).
namespace resp {
inline constexpr uint16_t kReserved = 0xC000;
inline constexpr uint16_t kDOR = 1u << 13;      // data out ready
inline constexpr uint16_t kDIR = 1u << 12;      // data in ready
inline constexpr uint16_t kErrN = 1u << 11;     // ERR*, active low
inline constexpr uint16_t kRR = 1u << 10;       // read ready
inline constexpr uint16_t kWR = 1u << 9;        // write ready
inline constexpr uint16_t kFhsN = 1u << 8;      // FHS active*, high: no fast handshake
inline constexpr uint16_t kLockedN = 1u << 7;   // locked*, high: not locked
}  // namespace resp

// Word Serial commands (16-bit values).
namespace wscmd {
inline constexpr uint16_t kByteAvailable = 0xBC00;  // + byte, + 0x0100 with END
inline constexpr uint16_t kByteRequest = 0xDEFF;
inline constexpr uint16_t kClear = 0xFFFF;
inline constexpr uint16_t kTrigger = 0xEDFF;
inline constexpr uint16_t kReadStb = 0xCFFF;
inline constexpr uint16_t kReadProtocol = 0xDFFF;
inline constexpr uint16_t kReadProtocolError = 0xCDFF;
inline constexpr uint16_t kBeginNormalOperation = 0xFCFF;
}  // namespace wscmd

// Word Serial protocol error codes (Read Protocol Error).
namespace wserr {
inline constexpr uint16_t kNone = 0xFFFF;
inline constexpr uint16_t kUnsupportedCommand = 0xFFF8;
inline constexpr uint16_t kMultipleQuery = 0xFFF9;
}  // namespace wserr

// Interrupt cause code (high byte of the status/ID) of a device whose
// request (a finished triggered measurement) becomes true.
inline constexpr uint32_t kCauseRequestTrue = 0xFD;

class MessageEngine {
 public:
  static constexpr size_t kInputLimit = 64 * 1024;  // bytes of one incoming message kept
  static constexpr size_t kErrorQueueDepth = 10;

  explicit MessageEngine(const DeviceDesc& desc);

  void reset(Clock::time_point now);  // power-on state, settings to default
  void clear();                       // Word Serial Clear: I/O and exchange state, not the settings

  uint16_t responseReg(Clock::time_point now) const;
  uint16_t protocolReg() const;
  bool dor(Clock::time_point now) const { return outPos_ < out_.size() && now >= outReady_; }
  bool dir(Clock::time_point now) const { return !(outPos_ < out_.size() && now < outReady_); }

  struct CmdResult {
    int32_t status = 0;  // 0 done; vistatus::kTimeout: not ready (try again)
    bool hasResp = false;
    uint32_t resp = 0;
  };
  // Executes one Word Serial command.  A response, when the command has
  // one, is also left in the response register (RR).
  CmdResult command(uint32_t cmd, bool longword, Clock::time_point now, std::vector<Interrupt>* irqs);
  bool responsePending() const { return rr_; }
  uint32_t takeResponse() {
    rr_ = false;
    return resp_;
  }
  uint32_t peekResponse() const { return resp_; }

  // Message bytes in: the number taken (0 when DIR is clear).
  size_t writeBytes(const uint8_t* p, size_t n, bool end, Clock::time_point now, std::vector<Interrupt>* irqs);
  // Message bytes out, at most max; *got receives the count.  Result bits:
  // 1 the last byte was the termination character, 2 it carried END.
  uint32_t readBytes(uint8_t* out, size_t max, bool useEos, uint8_t eos, size_t* got, Clock::time_point now);

  uint8_t statusByte(Clock::time_point now) const;
  void trigger(Clock::time_point now, std::vector<Interrupt>* irqs);
  uint32_t triggers() const { return triggers_; }
  std::optional<Clock::time_point> nextChange() const;  // when time alone changes the state
  void advance(Clock::time_point now, std::vector<Interrupt>* irqs);

 private:
  void execute(std::string_view message, Clock::time_point now, std::vector<Interrupt>* irqs);
  bool run(std::string_view header, std::string_view params, Clock::time_point now, std::string* answer,
           Clock::time_point* readyAt, std::vector<Interrupt>* irqs);
  void pushError(int code, const char* text);
  double measuredValue(const std::string& function) const;
  std::string formatReading(double v) const;
  void startMeasurement(Clock::time_point now);
  void settings();  // settings to their defaults

  const DeviceDesc& desc_;
  std::string in_;
  bool inOverflow_ = false;
  std::string out_;
  size_t outPos_ = 0;
  Clock::time_point outReady_{};
  bool rr_ = false;
  uint32_t resp_ = 0;
  uint16_t protoErr_ = wserr::kNone;
  uint8_t esr_ = 0, ese_ = 0, sre_ = 0;
  std::deque<std::pair<int, std::string>> errors_;
  uint32_t triggers_ = 0;
  bool normalOperation_ = true;

  // instrument settings
  std::string function_;      // measurement function of CONFigure/READ?/FETCh?
  bool triggerBus_ = true;    // TRIGger:SOURce BUS (wait for Trigger) or IMMediate
  bool armed_ = false;        // INITiate done, waiting for a trigger
  bool measuring_ = false;
  Clock::time_point measEnd_{};
  std::optional<double> last_;
  bool opcPending_ = false;
  std::array<bool, 65> relays_{};  // switch channels 1-64
  double level_ = 0;
  bool outputOn_ = false;
};

}  // namespace bridgesim

#endif
