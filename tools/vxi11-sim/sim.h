// A VXI-11 instrument simulator: device core, abort and interrupt programs
// over TCP, its own portmapper when no rpcbind runs, fault switches, and a
// small message-based instrument behind it (answers "*IDN?" and a few
// queries, keeps a status byte).  Runs on its own threads, so tests can
// host it in-process; the program vxi11-instrument-sim wraps it.
#pragma once

#include <stdint.h>

#include <memory>
#include <string>
#include <vector>

namespace vxi11sim {

enum class PortmapMode {
  Auto,     // register with a running rpcbind, else serve the portmapper on port 111
  Own,      // always serve the portmapper on port 111 of the listen address
  Rpcbind,  // register with rpcbind; fail to start without one
  None      // no portmapper at all (clients must know the core port)
};

enum class AbortMode {
  Normal,   // an abort channel is served
  None,     // create_link reports abort port 0
  Refused   // create_link reports a port on which connections are refused
};

struct Faults {
  int deviceErrorProc = 0;      // core procedure answered with deviceError (0: none)
  int32_t deviceError = 0;      // VXI-11 error code for it
  int wrongXidProc = 0;         // procedure answered with another transaction id (-1: all)
  bool getportZero = false;     // own portmapper answers port 0
  uint32_t maxRecvSize = 1024;  // reported by create_link (0xFFFFFFFF: "huge")
  AbortMode abort = AbortMode::Normal;
  int lateProc = 0;             // procedure answered only after lateMs
  unsigned lateMs = 0;
  bool noConnectBack = false;   // create_intr_chan succeeds but never connects
  int32_t intrChanError = 0;    // create_intr_chan answered with this error
};

struct Options {
  std::string address = "127.0.0.1";  // loopback addresses only
  uint16_t corePort = 0;              // 0: any free port
  PortmapMode portmap = PortmapMode::Auto;
  int verbosity = 0;                  // 1: one line per call, 2: and the data
  Faults faults;
};

struct WriteRecord {
  int32_t lid;
  int32_t flags;
  std::string data;
};

class Simulator {
 public:
  explicit Simulator(Options options);
  ~Simulator();
  Simulator(const Simulator&) = delete;
  Simulator& operator=(const Simulator&) = delete;

  bool start(std::string* error = nullptr);
  void stop();

  uint16_t corePort() const;
  uint16_t abortPort() const;        // as reported by create_link
  bool usesRpcbind() const;          // registered with a running rpcbind
  bool servesPortmap() const;        // answers GETPORT itself

  void setFaults(const Faults& f);
  Faults faults() const;

  std::vector<WriteRecord> writes() const;   // every device_write, in order
  std::vector<int> calls() const;            // core procedure numbers, in order
  std::vector<std::string> deviceNames() const;  // names given to create_link
  std::vector<int32_t> links() const;        // open link ids
  std::vector<int32_t> destroyedLinks() const;
  void clearRecords();

  uint8_t statusByte() const;
  void setStatusByte(uint8_t stb);
  int clearCount() const;
  int triggerCount() const;
  int abortCount() const;
  std::string srqHandle() const;  // last handle given by enable SRQ

  // Waits (bounded) until a client's interrupt channel is connected.
  bool waitForInterruptChannel(int ms) const;
  // Sends device_intr_srq on every interrupt channel whose link enabled
  // service requests, with that link's handle (or with `handle` instead).
  // Returns the number of calls sent.
  int fireSrq();
  int fireSrqWithHandle(const std::string& handle);

  struct Impl;

 private:
  std::unique_ptr<Impl> impl_;
};

// Parses a fault switch of the program's command line ("name" or
// "name=value"); returns false for an unknown or malformed one.
bool parseFault(const std::string& text, Faults* f);

}  // namespace vxi11sim
