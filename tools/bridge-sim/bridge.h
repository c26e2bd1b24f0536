// The simulated LAN-to-VXI bridge's command side: decodes one bridge
// command (the payload of one HiSLIP vendor-specific message from a host)
// against a simulated VXI mainframe and produces the answer payload.
//
// This is the seam between the HiSLIP server (network, sessions, faults) and
// the mainframe model (registers, memory, Word Serial instruments, interrupts).
#ifndef BRIDGESIM_BRIDGE_H
#define BRIDGESIM_BRIDGE_H

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace bridgesim {

// Identifies the host connection a command came from (for the lock rule).
struct HostId {
  uint32_t ipv4 = 0;          // peer address, network byte order
  uint64_t connectionId = 0;  // unique per HiSLIP session of the server
};

class Mainframe;  // defined in mainframe.h

// Faults at the level of bridge commands, switchable at run time.  A code of
// -1 means every command code.
struct CommandFaults {
  int statusCode = 0;        // command code whose answer gets forcedStatus (0: none)
  int32_t forcedStatus = 0;  // e.g. (int32_t)0xBFFF003E
  int emptyCode = 0;         // command code answered with an empty payload (0: none)
  int inflateCode = 0;       // command code whose answer claims more elements/bytes than asked (0: none)
  int busyTries = 0;         // Word Serial commands answer 0xBFFF0015 this many times first
  // Answers no well-behaved bridge gives (e.g. a block chunk that takes part of
  // its elements): when set and returning a value, that value is the answer.
  // Runs under the bridge's lock, so it must not call back into the bridge.
  std::function<std::optional<std::vector<uint8_t>>(const uint8_t* cmd, size_t len)> answer;
};

class Bridge {
 public:
  // iniPath empty: the built-in default mainframe.  Throws std::runtime_error
  // with a clear message when the file cannot be read or is inconsistent.
  explicit Bridge(const std::string& iniPath = std::string());
  ~Bridge();
  Bridge(const Bridge&) = delete;
  Bridge& operator=(const Bridge&) = delete;

  // One command in, one answer out (the answer payload, without framing).
  // Never throws; malformed input gets an answer with a negative status.
  std::vector<uint8_t> handleCommand(const HostId& host, const uint8_t* cmd, size_t len);

  // A host's session ended: releases the bridge lock if that host held it.
  void hostDisconnected(const HostId& host);

  // Installed by the server: sends one unsolicited interrupt report body
  // (cmd 1, nStatID, pairs) to every connected session's asynchronous channel.
  std::function<void(const std::vector<uint8_t>&)> broadcastAsync;

  // The resource-manager text (command 16) the bridge would send.
  std::string resourceText() const;

  Mainframe& mainframe();

  // Command-level fault switches (thread-safe).
  void setFaults(const CommandFaults& f);
  CommandFaults faults() const;

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace bridgesim

#endif
