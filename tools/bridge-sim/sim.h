// The simulated LAN-to-VXI bridge's network side: a HiSLIP server (both
// channels, many sessions), the bridge's own message-based instrument at
// logical address 0, an optional raw-socket instrument port, a text control
// port, and switchable faults.  Bridge commands (HiSLIP vendor-specific
// messages) are handed to bridgesim::Bridge, which models the mainframe.
//
// Typical use in a test:
//   bridgesim::ServerOptions o;  o.address = "127.0.0.2";  o.verbosity = 0;
//   bridgesim::Server s(o);      s.start();        // throws on bind errors
//   ... talk HiSLIP to 127.0.0.2:4880 ...
//   s.stop();                                      // or let the destructor do it
#ifndef BRIDGESIM_SIM_H
#define BRIDGESIM_SIM_H

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "bridge.h"

namespace bridgesim {

// Faults at the HiSLIP level.  "Answers" are the server's replies to Data /
// DataEnd queries and to bridge commands on the synchronous channel; the
// hand-shake (Initialize, AsyncInitialize) is never disturbed.  The one-shot
// switches are consumed by the first answer they affect (of any session).
// answerDelayMs and neverAnswer also hold back the acknowledgements of the
// status query and of the device clear (both channels).
struct HislipFaults {
  int answerDelayMs = 0;        // every answer (and async status / clear response) leaves this late
  bool neverAnswer = false;     // requests are taken and processed but never answered
  int closeMidMessage = 0;      // one-shot: send only the first n bytes of the next answer, then close the session
  bool malformedHeader = false; // one-shot: the next answer goes out with a broken prologue ("XS")
  int errorReply = 0;           // 0 off; 3: answer with Error; 2: answer with FatalError and close the session
  int floodAsync = 0;           // one-shot: before the next answer, n interrupt reports on that session's async channel
};

struct ServerOptions {
  std::string address = "127.0.0.1";  // listen address (dotted IPv4) for all ports
  uint16_t port = 4880;               // HiSLIP; 0 picks a free port (see Server::port())
  uint16_t rawPort = 0;               // raw-socket instrument; 0: off
  uint16_t controlPort = 0;           // text control socket (loopback only); 0: off
  std::string mainframeIni;           // empty: the built-in default mainframe
  int verbosity = 1;                  // 0 errors only, 1 sessions, 2 every message, 3 payload dumps
  bool overlapMode = true;            // the mode bit offered in InitializeResponse
  size_t maxSessions = 256;           // further Initialize requests get FatalError 4
  size_t recordLimit = 65536;         // receivedCommands() keeps at most the newest n payloads (0: none)
  HislipFaults faults;
  CommandFaults commandFaults;
  // Where log lines go (already stamped and terminated); default: stderr.
  std::function<void(const std::string&)> logSink;
};

struct ServerStats {
  uint64_t sessionsOpened = 0;
  uint64_t sessionsNow = 0;
  uint64_t bridgeCommands = 0;   // vendor-specific messages handled
  uint64_t dataMessages = 0;     // Data / DataEnd messages received
  uint64_t asyncMessages = 0;    // messages received on asynchronous channels
  uint64_t errorsSent = 0;       // Error and FatalError messages sent
  uint64_t asyncSent = 0;        // unsolicited type-128 messages sent
  uint64_t rawConnections = 0;
};

class Server {
 public:
  // Builds the bridge (reads mainframeIni); throws std::runtime_error when
  // that fails.  Nothing listens before start().
  explicit Server(ServerOptions o);
  ~Server();  // stops
  Server(const Server&) = delete;
  Server& operator=(const Server&) = delete;

  // Binds and listens on every configured port, then serves in background
  // threads.  Throws std::runtime_error (e.g. address in use).
  void start();
  // Closes every listener and connection and joins every thread.  Idempotent.
  void stop();

  uint16_t port() const;         // bound HiSLIP port (after start)
  uint16_t rawPort() const;      // bound raw port, 0 when off
  uint16_t controlPort() const;  // bound control port, 0 when off

  Bridge& bridge();

  void setFaults(const HislipFaults& f);
  HislipFaults faults() const;
  // Edits the switches in place (atomically with respect to the answers
  // that consume one-shot switches).
  void updateFaults(const std::function<void(HislipFaults&)>& edit);
  void setCommandFaults(const CommandFaults& f);  // forwards to the bridge
  CommandFaults commandFaults() const;

  // Every vendor-specific payload received on a synchronous channel, in
  // order of arrival, as it came (the client's padding included).
  std::vector<std::vector<uint8_t>> receivedCommands() const;
  void clearReceived();

  size_t sessionCount() const;  // sessions whose synchronous channel is up
  ServerStats stats() const;

  // AsyncServiceRequest (control code = the session's status byte with RQS)
  // to every session's asynchronous channel.
  void sendServiceRequest();
  // One type-128 message with this body on every asynchronous channel.
  void sendAsyncVendor(const std::vector<uint8_t>& body);
  // An interrupt report (cmd 1, one pair: line, status/ID) to every session.
  void sendInterrupt(uint32_t irqLine, uint32_t statId);

  // Runs one control-socket command line and returns the reply text
  // (one or more lines, each ending in '\n').  Used by the control port.
  std::string control(const std::string& line);
  static std::string controlHelp();

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

// True for a dotted IPv4 address in 127.0.0.0/8.
bool isLoopbackAddress(const std::string& dotted);

}  // namespace bridgesim

#endif
