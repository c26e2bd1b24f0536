// The simulator's shared state (Simulator::Impl) and the entry points of its parts: core, portmapper, instrument, interrupts.
#pragma once

#include <atomic>
#include <condition_variable>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "rpc.h"
#include "sim.h"

namespace vxi11sim {

enum class Kind { Core, Abort, Portmap };

// VXI-11 error codes used here.
constexpr int32_t ERR_INVALID_LINK = 4, ERR_CHANNEL = 6, ERR_NSUP = 8, ERR_RESOURCES = 9, ERR_TMO = 15,
                  ERR_ABORT = 23;

bool portmapperAnswers(uint32_t addrNet);
bool registerTcp(uint32_t addrNet, u_long prog, u_long vers, uint16_t port);
void unregisterTcp(u_long prog, u_long vers);

struct Simulator::Impl {
  Options opt;
  uint32_t addrNet = 0;
  int coreFd = -1, abortFd = -1, pmapFd = -1, pmapUdpFd = -1, refusedFd = -1;
  uint16_t corePort = 0, abortPortNo = 0, reportedAbort = 0;
  bool rpcbind = false;
  int wake[2] = {-1, -1};
  std::thread acceptThread;
  std::atomic<bool> stopping{false};

  mutable std::mutex m;
  std::condition_variable cv;  // output queued, channel connected, abort, stop
  Faults faults;
  std::vector<std::thread> threads;
  std::vector<int> connFds;

  // Instrument and link state, under m.
  struct Link {
    int conn;
    bool srq = false;
    std::string handle;
  };
  struct Conn {
    int fd;
    int intrFd = -1;
  };
  std::map<int, Conn> conns;  // by connection number
  int nextConn = 1;
  std::map<int32_t, Link> linkMap;
  int32_t nextLid = 0x100;
  std::string input, output;
  uint8_t stb = 0, sre = 0;
  int clears = 0, triggers = 0, aborts = 0;
  std::vector<WriteRecord> writeLog;
  std::vector<int> callLog;
  std::vector<std::string> names;
  std::vector<int32_t> destroyed;
  std::string lastHandle;

  void log(int level, const char* fmt, ...) __attribute__((format(printf, 3, 4)));
  // Sleeps up to ms, or less when the simulator stops.
  void pause(unsigned ms);
  Faults faultsCopy() const;
  int32_t checkLid(int32_t lid) const { return linkMap.count(lid) ? 0 : ERR_INVALID_LINK; }

  // sim.cpp: connections.
  void serve(int fd, Kind kind);
  void acceptLoop();

  // instrument.cpp: one command of a message, under m; sets *srq when it asks for service.
  void execute(const std::string& raw, bool* srq);

  // core.cpp: the device core and abort programs.
  void coreCall(int connNo, int fd, const Call& c);
  void abortCall(int fd, const Call& c);
  void sendReply(int fd, const Call& c, uint32_t stat, const std::string& result, const Faults& f);
  void reject(int fd, const Call& c, uint32_t stat);

  // portmap.cpp: the own portmapper, over TCP and UDP.
  std::string portmapReply(const Call& c);
  void portmapDatagram();

  // intr.cpp: the interrupt channel.
  int32_t createIntrChan(int connNo, const Call& c, const Faults& f, int32_t injected, bool* garbage);
  int32_t destroyIntrChan(int connNo);
  int fireSrqImpl(const std::string* handle);
};

}  // namespace vxi11sim
