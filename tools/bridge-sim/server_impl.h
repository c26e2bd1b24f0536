// Internals of the simulated bridge's server, shared by its connection layer
// (server.cpp) and its HiSLIP session handling (hislip_session.cpp).
#ifndef BRIDGESIM_SERVER_IMPL_H
#define BRIDGESIM_SERVER_IMPL_H

#include <netinet/in.h>
#include <sys/types.h>
#include <sys/uio.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <cstring>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "hislip_wire.h"
#include "instrument.h"
#include "sim.h"

namespace bridgesim {
namespace srv {

using namespace hislip;

// recordLimit bounds the number of payloads kept; this bounds their bytes.
constexpr size_t kRecordBytesLimit = 64u << 20;
// A single flood is built in memory: cap it.
constexpr int kMaxFlood = 100000;
// An asynchronous peer that does not read blocks a sender at most this long;
// then its channel is shut down (a half-sent message would corrupt it).
constexpr int kAsyncSendTimeoutMs = 2000;
// After a FatalError or an injected close, input is drained this long so that
// the close does not turn into a reset that destroys what was sent.
constexpr int kLingerMs = 300;
constexpr size_t kLingerBytes = 4u << 20;
constexpr size_t kRawLineLimit = 1u << 20;
constexpr size_t kControlLineLimit = 4096;
constexpr size_t kReaderBuffer = 64 * 1024;

ssize_t sysRecv(int fd, void* b, size_t n);
bool sendVec(int fd, iovec* iov, int n);
// Header and payload leave in one system call.
bool sendMessage(int fd, const uint8_t* hdr, const void* payload, size_t len);
bool sendRaw(int fd, const void* p, size_t n);
void setNoDelay(int fd);
// Half-closes, then reads and throws away what the peer still sends for a
// short while, so that the peer gets to read our last bytes.
void lingerClose(int fd);
std::string timestamp();
std::string hexDump(const uint8_t* p, size_t n, size_t max = 64);
const char* typeName(uint8_t t);
uint32_t le32(const uint8_t* p, size_t n, size_t off);
void putLe32(std::vector<uint8_t>& v, uint32_t x);

// Buffered reader: one recv usually brings a whole header and its payload.
class Reader {
 public:
  explicit Reader(int fd) : fd_(fd), buf_(new uint8_t[kReaderBuffer]) {}

  bool read(void* dst, size_t n) {
    auto* d = static_cast<uint8_t*>(dst);
    size_t take = std::min(end_ - pos_, n);
    if (take) std::memcpy(d, buf_.get() + pos_, take);
    pos_ += take;
    d += take;
    n -= take;
    while (n > 0) {
      if (n >= kReaderBuffer / 2) {  // large payloads go straight to their place
        ssize_t r = sysRecv(fd_, d, n);
        if (r <= 0) return false;
        d += r;
        n -= static_cast<size_t>(r);
      } else {
        if (!fill()) return false;
        take = std::min(end_, n);
        std::memcpy(d, buf_.get(), take);
        pos_ = take;
        d += take;
        n -= take;
      }
    }
    return true;
  }

  bool skip(uint64_t n) {
    uint64_t take = std::min<uint64_t>(end_ - pos_, n);
    pos_ += static_cast<size_t>(take);
    n -= take;
    while (n > 0) {
      if (!fill()) return false;
      take = std::min<uint64_t>(end_, n);
      pos_ = static_cast<size_t>(take);
      n -= take;
    }
    return true;
  }

  // 1: a line (without its '\n' and a trailing '\r'); 0: end of input;
  // -1: the line exceeded `cap` and was thrown away up to its end.
  int readLine(std::string& line, size_t cap) {
    line.clear();
    bool overflow = false;
    for (;;) {
      if (pos_ == end_ && !fill()) return 0;
      const uint8_t* b = buf_.get() + pos_;
      const void* nl = std::memchr(b, '\n', end_ - pos_);
      size_t n = nl ? static_cast<size_t>(static_cast<const uint8_t*>(nl) - b) : end_ - pos_;
      if (!overflow) {
        if (line.size() + n > cap) {
          overflow = true;
          line.clear();
        } else {
          line.append(reinterpret_cast<const char*>(b), n);
        }
      }
      pos_ += n;
      if (nl) {
        ++pos_;
        if (overflow) return -1;
        if (!line.empty() && line.back() == '\r') line.pop_back();
        return 1;
      }
    }
  }

 private:
  bool fill() {
    pos_ = end_ = 0;
    ssize_t r = sysRecv(fd_, buf_.get(), kReaderBuffer);
    if (r <= 0) return false;
    end_ = static_cast<size_t>(r);
    return true;
  }

  int fd_;
  std::unique_ptr<uint8_t[]> buf_;
  size_t pos_ = 0, end_ = 0;
};

enum class ConnKind { Hislip, Raw, Control };

struct Conn {
  uint64_t id = 0;
  int fd = -1;  // guarded by the registry mutex; -1 once the owner closes it
  sockaddr_in peer{};
  ConnKind kind = ConnKind::Hislip;
  std::thread th;
  std::atomic<bool> done{false};
};

struct Session {
  uint16_t id = 0;
  HostId host;
  uint64_t syncConn = 0;
  std::string subAddress;
  std::atomic<bool> overlap{true};
  std::atomic<bool> clearing{false};  // between AsyncDeviceClear and DeviceClearComplete
  std::atomic<bool> lockHeld{false};
  std::atomic<bool> asyncUp{false};
  MessageInstrument instr;

  std::mutex asyncMutex;  // serialises writes on the asynchronous channel
  int asyncFd = -1;       // guarded by asyncMutex
  bool asyncAttached = false;
  uint64_t asyncConn = 0;
  uint64_t clientMaxMessage = 0;

  // Used by the synchronous thread only.
  std::string input;
  std::vector<uint8_t> cmd;
};

}  // namespace srv
using namespace srv;

struct Server::Impl {
  Server* owner;
  ServerOptions opt;
  std::unique_ptr<Bridge> bridge;
  mutable std::mutex faultMutex;
  HislipFaults faults;
  std::atomic<bool> running{false};
  std::atomic<bool> stopping{false};
  int lsHislip = -1, lsRaw = -1, lsControl = -1;
  uint16_t portHislip = 0, portRaw = 0, portControl = 0;
  int wake[2] = {-1, -1};
  std::thread acceptThread;
  std::mutex connMutex;
  std::map<uint64_t, std::unique_ptr<Conn>> conns;
  uint64_t nextConn = 1;
  mutable std::mutex sessMutex;
  std::map<uint16_t, std::shared_ptr<Session>> sessions;
  uint16_t nextSessionId = 1;
  uint64_t nextConnectionId = 1;
  mutable std::mutex recMutex;
  std::deque<std::vector<uint8_t>> received;
  size_t receivedBytes = 0;
  std::mutex sleepMutex;
  std::condition_variable sleepCv;
  std::mutex logMutex;

  std::atomic<uint64_t> stSessionsOpened{0}, stBridgeCommands{0}, stData{0}, stAsync{0}, stErrors{0},
      stAsyncSent{0}, stRaw{0};

  Impl(Server* o, ServerOptions options) : owner(o), opt(std::move(options)) {
    bridge = std::make_unique<Bridge>(opt.mainframeIni);
    bridge->setFaults(opt.commandFaults);
    faults = opt.faults;
    bridge->broadcastAsync = [this](const std::vector<uint8_t>& body) { broadcastVendor(body); };
  }

  // ------------------------------------------------------------ logging
  bool logs(int level) const { return level <= opt.verbosity; }

  void log(int level, const char* fmt, ...) __attribute__((format(printf, 3, 4)));

  // ------------------------------------------------------------ start / stop
  int listenOn(const std::string& addr, uint16_t port, uint16_t* bound, const char* what);
  void closeListeners();
  void start();
  void stop();
  void acceptLoop();
  void spawn(ConnKind kind, int fd, const sockaddr_in& peer);
  void finishConn(Conn& c);
  void reapDone();
  void shutdownConn(uint64_t id);

  // Waits ms milliseconds; false when the server stops meanwhile.
  bool sleepFor(int ms);
  void runConn(Conn& c);

  // ------------------------------------------------------------ error messages
  // The client reads an error text of at least 28 bytes in one go, so texts
  // are padded to that length.
  static std::string errorText(const char* text);
  bool sendError(int fd, uint8_t type, uint8_t code, const char* text);

  // FatalError, then the connection is closed by the caller's return.
  void fatal(int fd, uint8_t code, const char* text);

  // ------------------------------------------------------------ sessions
  std::shared_ptr<Session> createSession(const Conn& c);
  std::shared_ptr<Session> findSession(uint16_t id);
  std::vector<std::shared_ptr<Session>> allSessions();

  // One message on a session's asynchronous channel.  A failed or stalled
  // send shuts the channel down: a partly written message would leave the
  // peer's stream out of step.
  bool sendAsync(Session& s, uint8_t type, uint8_t code, uint32_t param, const void* p, size_t n);
  bool sendAsyncBytes(Session& s, const std::vector<uint8_t>& bytes);
  void broadcastVendor(const std::vector<uint8_t>& body);
  void serviceRequestAll();

  // Interrupt reports in the bridge's own format: cmd 1, one pair.
  static std::vector<uint8_t> interruptReport(uint32_t line, uint32_t statId);
  void flood(Session& s, int n);

  // ------------------------------------------------------------ faults
  HislipFaults takeAnswerFaults();
  HislipFaults peekFaults() const;

  // Applies the faults that touch plain acknowledgements (status responses,
  // device clear): late or never.  False: do not answer.
  bool ackAllowed();

  // Sends an answer on the synchronous channel with the faults applied.
  // False: the session is over.
  bool sendAnswer(Session& s, int fd, uint8_t type, uint8_t code, uint32_t param, const void* p, size_t n);

  // ------------------------------------------------------------ HiSLIP
  void runHislip(Conn& c);
  void runSync(Conn& c, Reader& rd, Header h);
  void syncLoop(Conn& c, Reader& rd, Session& s);
  bool dataMessage(Conn& c, Reader& rd, Session& s, const Header& h);
  void record(const std::vector<uint8_t>& cmd);
  bool vendorCommand(Conn& c, Reader& rd, Session& s, const Header& h);
  void runAsync(Conn& c, Reader& rd, Header h);
  void asyncFatal(Conn& c, Session& s, uint8_t code, const char* text);
  void asyncError(Session& s, uint8_t code, const char* text);
  size_t locksHeld();
  void asyncLoop(Conn& c, Reader& rd, Session& s);

  // ------------------------------------------------------------ raw and control
  void runRaw(Conn& c);
  void runControl(Conn& c);
};

}  // namespace bridgesim

#endif
