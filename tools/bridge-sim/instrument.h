// The bridge's own message-based instrument (logical address 0 as seen over
// HiSLIP Data/DataEnd, and the raw-socket port): a small IEEE 488.2 device
// with a status byte, an event status register and an error queue.
#ifndef BRIDGESIM_INSTRUMENT_H
#define BRIDGESIM_INSTRUMENT_H

#include <cstdint>
#include <deque>
#include <mutex>
#include <string>
#include <string_view>

namespace bridgesim {

inline constexpr const char* kIdentity = "Simulated,LAN-VXI Bridge,SIM0001,1.0";

class MessageInstrument {
 public:
  // Executes one complete program message: commands separated by ';' or
  // newlines.  Returns the response message (query answers joined by ';',
  // ending in '\n'), or an empty string when nothing was queried.
  // `srqRaised` becomes true when the message made the master summary bit
  // go from clear to set (the caller then sends a service request).
  std::string execute(std::string_view message, bool* srqRaised = nullptr);

  // Status byte: bit 2 error queue not empty, bit 5 ESB, bit 6 MSS.  MAV
  // (bit 4) stays clear: answers leave as soon as they exist.
  uint8_t statusByte() const;

  // Device clear: forgets partial input; the registers are kept (as 488.2
  // wants).
  void deviceClear();
  uint32_t triggers() const;
  void trigger();

 private:
  uint8_t stbLocked() const;
  void pushError(int code, const char* text);
  std::string run(std::string_view cmd, bool* isQuery);

  mutable std::mutex m_;
  uint8_t esr_ = 0, ese_ = 0, sre_ = 0;
  std::deque<std::string> errors_;
  uint32_t triggers_ = 0;
  uint32_t resets_ = 0;
};

}  // namespace bridgesim

#endif
