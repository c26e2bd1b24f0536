// HiSLIP session handling of the simulated bridge: both channels of every session, and the faults injected there.
// The synchronous channel carries data and bridge commands, the asynchronous
// one status, clear, lock and size requests plus unsolicited messages.
#include <arpa/inet.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstring>

#include "server_impl.h"

namespace bridgesim {

std::shared_ptr<Session> Server::Impl::createSession(const Conn& c) {
  std::lock_guard<std::mutex> g(sessMutex);
  if (sessions.size() >= opt.maxSessions) return nullptr;
  uint16_t id = 0;
  for (int tries = 0; tries < 65536; ++tries) {
    uint16_t cand = nextSessionId++;
    if (nextSessionId == 0) nextSessionId = 1;
    if (cand != 0 && !sessions.count(cand)) {
      id = cand;
      break;
    }
  }
  if (id == 0) return nullptr;
  auto s = std::make_shared<Session>();
  s->id = id;
  s->host.ipv4 = c.peer.sin_addr.s_addr;
  s->host.connectionId = nextConnectionId++;
  s->syncConn = c.id;
  s->overlap = opt.overlapMode;
  sessions.emplace(id, s);
  return s;
}

std::shared_ptr<Session> Server::Impl::findSession(uint16_t id) {
  std::lock_guard<std::mutex> g(sessMutex);
  auto it = sessions.find(id);
  return it == sessions.end() ? nullptr : it->second;
}

std::vector<std::shared_ptr<Session>> Server::Impl::allSessions() {
  std::lock_guard<std::mutex> g(sessMutex);
  std::vector<std::shared_ptr<Session>> v;
  for (auto& [id, s] : sessions) v.push_back(s);
  return v;
}

bool Server::Impl::sendAsync(Session& s, uint8_t type, uint8_t code, uint32_t param, const void* p, size_t n) {
  std::lock_guard<std::mutex> g(s.asyncMutex);
  if (s.asyncFd < 0) return false;
  uint8_t hdr[kHeaderSize];
  encodeHeader(hdr, type, code, param, n);
  if (sendMessage(s.asyncFd, hdr, p, n)) return true;
  ::shutdown(s.asyncFd, SHUT_RDWR);
  return false;
}

bool Server::Impl::sendAsyncBytes(Session& s, const std::vector<uint8_t>& bytes) {
  std::lock_guard<std::mutex> g(s.asyncMutex);
  if (s.asyncFd < 0) return false;
  if (sendRaw(s.asyncFd, bytes.data(), bytes.size())) return true;
  ::shutdown(s.asyncFd, SHUT_RDWR);
  return false;
}

void Server::Impl::broadcastVendor(const std::vector<uint8_t>& body) {
  for (auto& s : allSessions()) {
    if (sendAsync(*s, VendorSpecific, 0, 0, body.data(), body.size())) ++stAsyncSent;
  }
  log(2, "async vendor message (%zu bytes) to every session: %s", body.size(),
      hexDump(body.data(), body.size(), 32).c_str());
}

void Server::Impl::serviceRequestAll() {
  for (auto& s : allSessions()) {
    uint8_t stb = static_cast<uint8_t>(s->instr.statusByte() | 0x40);
    sendAsync(*s, AsyncServiceRequest, stb, 0, nullptr, 0);
  }
  log(2, "service request to every session");
}

std::vector<uint8_t> Server::Impl::interruptReport(uint32_t line, uint32_t statId) {
  std::vector<uint8_t> b;
  putLe32(b, 1);
  putLe32(b, 1);
  putLe32(b, line);
  putLe32(b, statId);
  return b;
}

void Server::Impl::flood(Session& s, int n) {
  n = std::min(n, kMaxFlood);
  // IRQ1 from logical address 0 (the slot-0 controller), cause code 0xFE.
  std::vector<uint8_t> body = interruptReport(1, 0xFE00);
  std::vector<uint8_t> all;
  all.reserve(static_cast<size_t>(n) * (kHeaderSize + body.size()));
  uint8_t hdr[kHeaderSize];
  encodeHeader(hdr, VendorSpecific, 0, 0, body.size());
  for (int i = 0; i < n; ++i) {
    all.insert(all.end(), hdr, hdr + kHeaderSize);
    all.insert(all.end(), body.begin(), body.end());
  }
  if (sendAsyncBytes(s, all)) stAsyncSent += static_cast<uint64_t>(n);
  log(1, "fault: flooded session %u with %d interrupt reports", s.id, n);
}

HislipFaults Server::Impl::takeAnswerFaults() {
  std::lock_guard<std::mutex> g(faultMutex);
  HislipFaults f = faults;
  if (f.neverAnswer) return f;
  faults.floodAsync = 0;
  if (f.errorReply == 0) {
    faults.closeMidMessage = 0;
    faults.malformedHeader = false;
  }
  return f;
}

HislipFaults Server::Impl::peekFaults() const {
  std::lock_guard<std::mutex> g(faultMutex);
  return faults;
}

bool Server::Impl::ackAllowed() {
  HislipFaults f = peekFaults();
  if (f.neverAnswer) {
    log(2, "fault: acknowledgement withheld");
    return false;
  }
  if (f.answerDelayMs > 0 && !sleepFor(f.answerDelayMs)) return false;
  return true;
}

bool Server::Impl::sendAnswer(Session& s, int fd, uint8_t type, uint8_t code, uint32_t param, const void* p, size_t n) {
  HislipFaults f = takeAnswerFaults();
  if (f.neverAnswer) {
    log(2, "fault: answer withheld");
    return true;
  }
  if (f.floodAsync > 0) flood(s, f.floodAsync);
  if (f.answerDelayMs > 0 && !sleepFor(f.answerDelayMs)) return false;
  if (f.errorReply == Error) return sendError(fd, Error, ErrUnidentified, "simulated fault: the bridge answers with Error");
  if (f.errorReply == FatalError) {
    fatal(fd, FatalUnidentified, "simulated fault: the bridge answers with FatalError");
    return false;
  }
  uint8_t hdr[kHeaderSize];
  encodeHeader(hdr, type, code, param, n);
  if (f.malformedHeader) {
    hdr[0] = 'X';
    log(1, "fault: answer of session %u sent with a malformed header", s.id);
  }
  if (f.closeMidMessage > 0) {
    std::vector<uint8_t> all(hdr, hdr + kHeaderSize);
    if (n) all.insert(all.end(), static_cast<const uint8_t*>(p), static_cast<const uint8_t*>(p) + n);
    size_t k = std::min(all.size(), static_cast<size_t>(f.closeMidMessage));
    sendRaw(fd, all.data(), k);
    log(1, "fault: session %u closed after %zu of %zu answer bytes", s.id, k, all.size());
    lingerClose(fd);
    return false;
  }
  return sendMessage(fd, hdr, p, n);
}

void Server::Impl::runHislip(Conn& c) {
  Reader rd(c.fd);
  uint8_t hb[kHeaderSize];
  if (!rd.read(hb, kHeaderSize)) return;
  Header h = decodeHeader(hb);
  if (!h.prologueOk) return fatal(c.fd, FatalBadHeader, "malformed message header (prologue is not \"HS\")");
  if (h.type == Initialize) return runSync(c, rd, h);
  if (h.type == AsyncInitialize) return runAsync(c, rd, h);
  fatal(c.fd, FatalBadInitSequence, "the first message of a connection must be Initialize or AsyncInitialize");
}

void Server::Impl::runSync(Conn& c, Reader& rd, Header h) {
  if (h.length > kMaxSmallPayload)
    return fatal(c.fd, FatalBadHeader, "Initialize carries a sub-address longer than 256 bytes");
  std::string sub(static_cast<size_t>(h.length), '\0');
  if (!rd.read(sub.data(), sub.size())) return;
  auto s = createSession(c);
  if (!s) return fatal(c.fd, FatalTooManyClients, "too many sessions: the server refuses this connection");
  s->subAddress = sub;
  ++stSessionsOpened;
  char peer[INET_ADDRSTRLEN] = "?";
  inet_ntop(AF_INET, &c.peer.sin_addr, peer, sizeof peer);
  log(1, "session %u opened from %s:%u, sub-address \"%s\", protocol %u.%u, vendor %02X %02X", s->id, peer,
      ntohs(c.peer.sin_port), sub.c_str(), (h.param >> 24) & 0xFF, (h.param >> 16) & 0xFF, (h.param >> 8) & 0xFF,
      h.param & 0xFF);
  uint8_t hdr[kHeaderSize];
  encodeHeader(hdr, InitializeResponse, s->overlap ? 1 : 0, uint32_t(kProtocolVersion) << 16 | s->id, 0);
  if (sendMessage(c.fd, hdr, nullptr, 0)) syncLoop(c, rd, *s);

  {
    std::lock_guard<std::mutex> g(sessMutex);
    sessions.erase(s->id);
  }
  bridge->hostDisconnected(s->host);
  uint64_t asyncConn;
  {
    std::lock_guard<std::mutex> g(s->asyncMutex);
    asyncConn = s->asyncConn;
  }
  if (asyncConn) shutdownConn(asyncConn);
  log(1, "session %u closed", s->id);
}

void Server::Impl::syncLoop(Conn& c, Reader& rd, Session& s) {
  uint8_t hb[kHeaderSize];
  while (rd.read(hb, kHeaderSize)) {
    Header h = decodeHeader(hb);
    if (logs(2))
      log(2, "session %u sync <- %s code %u param %08X len %llu", s.id, typeName(h.type), h.code, h.param,
          static_cast<unsigned long long>(h.length));
    if (!h.prologueOk) return fatal(c.fd, FatalBadHeader, "malformed message header (prologue is not \"HS\")");
    if (h.length > kMaxSkippable) return fatal(c.fd, FatalBadHeader, "message header claims an impossible payload length");
    switch (h.type) {
      case Data:
      case DataEnd:
      case VendorSpecific:
        if (!s.asyncUp) {
          return fatal(c.fd, FatalNoChannels, "the asynchronous channel of this session is not established");
        }
        if (h.length > kMaxMessageSize) {
          if (!rd.skip(h.length)) return;
          s.input.clear();
          sendError(c.fd, Error, ErrTooLarge, "message larger than the maximum message size");
          break;
        }
        if (h.type == VendorSpecific) {
          if (!vendorCommand(c, rd, s, h)) return;
        } else {
          if (!dataMessage(c, rd, s, h)) return;
        }
        break;
      case DeviceClearComplete: {
        if (!rd.skip(h.length)) return;
        // Both modes are served, so the client's wish is granted.
        s.overlap = (h.code & 1) != 0;
        s.input.clear();
        s.clearing = false;
        if (!ackAllowed()) break;
        encodeHeader(hb, DeviceClearAcknowledge, s.overlap ? 1 : 0, 0, 0);
        if (!sendMessage(c.fd, hb, nullptr, 0)) return;
        break;
      }
      case Trigger:
        if (!rd.skip(h.length)) return;
        s.instr.trigger();
        break;
      case Initialize:
      case AsyncInitialize:
        return fatal(c.fd, FatalBadInitSequence, "initialization repeated on an established channel");
      default:
        if (!rd.skip(h.length)) return;
        if (h.type > VendorSpecific)
          sendError(c.fd, Error, ErrUnknownVendor, "unrecognized vendor-defined message type");
        else
          sendError(c.fd, Error, ErrUnknownType, "unrecognized message type on the synchronous channel");
        break;
    }
  }
}

bool Server::Impl::dataMessage(Conn& c, Reader& rd, Session& s, const Header& h) {
  ++stData;
  size_t len = static_cast<size_t>(h.length);
  if (s.input.size() + len > kMaxMessageSize) {
    if (!rd.skip(len)) return false;
    s.input.clear();
    return sendError(c.fd, Error, ErrTooLarge, "message larger than the maximum message size");
  }
  size_t old = s.input.size();
  s.input.resize(old + len);
  if (!rd.read(s.input.data() + old, len)) return false;
  if (s.clearing) {  // a device clear is under way: input is thrown away
    s.input.clear();
    return true;
  }
  if (h.type != DataEnd) return true;
  bool srq = false;
  std::string resp = s.instr.execute(s.input, &srq);
  if (logs(2)) {
    std::string in = s.input.substr(0, 80), out = resp.substr(0, 80);
    while (!in.empty() && (in.back() == '\n' || in.back() == '\r')) in.pop_back();
    while (!out.empty() && out.back() == '\n') out.pop_back();
    log(2, "session %u instrument: \"%s\" -> \"%s\"", s.id, in.c_str(), out.c_str());
  }
  s.input.clear();
  if (!resp.empty() && !sendAnswer(s, c.fd, DataEnd, 0, h.param, resp.data(), resp.size())) return false;
  if (srq) sendAsync(s, AsyncServiceRequest, s.instr.statusByte(), 0, nullptr, 0);
  return true;
}

void Server::Impl::record(const std::vector<uint8_t>& cmd) {
  if (opt.recordLimit == 0) return;
  std::lock_guard<std::mutex> g(recMutex);
  received.push_back(cmd);
  receivedBytes += cmd.size();
  while (!received.empty() && (received.size() > opt.recordLimit || receivedBytes > kRecordBytesLimit)) {
    receivedBytes -= received.front().size();
    received.pop_front();
  }
}

bool Server::Impl::vendorCommand(Conn& c, Reader& rd, Session& s, const Header& h) {
  s.cmd.resize(static_cast<size_t>(h.length));
  if (!rd.read(s.cmd.data(), s.cmd.size())) return false;
  ++stBridgeCommands;
  record(s.cmd);
  std::vector<uint8_t> ans = bridge->handleCommand(s.host, s.cmd.data(), s.cmd.size());
  ans.resize((ans.size() + 3) & ~size_t(3), 0);  // the client reads whole 32-bit words
  if (logs(2)) {
    log(2, "session %u bridge command 0x%08X (%zu bytes) -> status 0x%08X (%zu bytes)", s.id,
        le32(s.cmd.data(), s.cmd.size(), 0), s.cmd.size(), le32(ans.data(), ans.size(), 0), ans.size());
    if (logs(3)) {
      log(3, "  command: %s", hexDump(s.cmd.data(), s.cmd.size()).c_str());
      log(3, "  answer:  %s", hexDump(ans.data(), ans.size()).c_str());
    }
  }
  return sendAnswer(s, c.fd, VendorSpecific, 0, h.param, ans.data(), ans.size());
}

void Server::Impl::runAsync(Conn& c, Reader& rd, Header h) {
  if (h.length > kMaxSmallPayload)
    return fatal(c.fd, FatalBadHeader, "AsyncInitialize carries an unexpected payload");
  if (!rd.skip(h.length)) return;
  auto s = findSession(static_cast<uint16_t>(h.param & 0xFFFF));
  static const char* kNoSession = "AsyncInitialize names no session waiting for its channel";
  if (!s) return fatal(c.fd, FatalBadInitSequence, kNoSession);
  {
    std::unique_lock<std::mutex> g(s->asyncMutex);
    if (s->asyncAttached) {
      g.unlock();
      return fatal(c.fd, FatalBadInitSequence, kNoSession);
    }
    s->asyncAttached = true;
    s->asyncFd = c.fd;
    s->asyncConn = c.id;
    timeval tv{kAsyncSendTimeoutMs / 1000, (kAsyncSendTimeoutMs % 1000) * 1000};
    setsockopt(c.fd, SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof tv);
    // Up before the response leaves: the client may send Data on the
    // synchronous channel the moment it has read the response.
    s->asyncUp = true;
    uint8_t hdr[kHeaderSize];
    encodeHeader(hdr, AsyncInitializeResponse, 0, kServerVendorId, 0);
    if (!sendMessage(c.fd, hdr, nullptr, 0)) {
      s->asyncFd = -1;
      return;
    }
  }
  log(1, "session %u asynchronous channel established", s->id);
  asyncLoop(c, rd, *s);
  {
    std::lock_guard<std::mutex> g(s->asyncMutex);
    s->asyncFd = -1;
  }
  log(1, "session %u asynchronous channel closed", s->id);
}

void Server::Impl::asyncFatal(Conn& c, Session& s, uint8_t code, const char* text) {
  {
    std::lock_guard<std::mutex> g(s.asyncMutex);
    sendError(c.fd, FatalError, code, text);
    s.asyncFd = -1;
  }
  lingerClose(c.fd);
}

void Server::Impl::asyncError(Session& s, uint8_t code, const char* text) {
  std::string t = errorText(text);
  ++stErrors;
  log(1, "session %u async: sending Error %u: %s", s.id, code, text);
  sendAsync(s, Error, code, 0, t.data(), t.size());
}

size_t Server::Impl::locksHeld() {
  size_t n = 0;
  for (auto& x : allSessions()) n += x->lockHeld ? 1 : 0;
  return n;
}

void Server::Impl::asyncLoop(Conn& c, Reader& rd, Session& s) {
  uint8_t hb[kHeaderSize];
  while (rd.read(hb, kHeaderSize)) {
    Header h = decodeHeader(hb);
    ++stAsync;
    if (logs(2))
      log(2, "session %u async <- %s code %u param %08X len %llu", s.id, typeName(h.type), h.code, h.param,
          static_cast<unsigned long long>(h.length));
    if (!h.prologueOk) return asyncFatal(c, s, FatalBadHeader, "malformed message header (prologue is not \"HS\")");
    if (h.length > kMaxSkippable)
      return asyncFatal(c, s, FatalBadHeader, "message header claims an impossible payload length");
    switch (h.type) {
      case AsyncStatusQuery:
        if (!rd.skip(h.length)) return;
        if (ackAllowed()) sendAsync(s, AsyncStatusResponse, s.instr.statusByte(), 0, nullptr, 0);
        break;
      case AsyncDeviceClear:
        if (!rd.skip(h.length)) return;
        s.clearing = true;
        s.instr.deviceClear();
        if (ackAllowed()) sendAsync(s, AsyncDeviceClearAcknowledge, opt.overlapMode ? 1 : 0, 0, nullptr, 0);
        break;
      case AsyncMaximumMessageSize: {
        if (h.length != 8) {
          if (!rd.skip(h.length)) return;
          asyncError(s, ErrUnidentified, "AsyncMaximumMessageSize must carry an 8-byte size");
          break;
        }
        uint8_t b[8];
        if (!rd.read(b, 8)) return;
        uint64_t v = 0;
        for (uint8_t x : b) v = v << 8 | x;
        s.clientMaxMessage = v;
        for (int i = 0; i < 8; ++i) b[i] = static_cast<uint8_t>(kMaxMessageSize >> (56 - 8 * i));
        sendAsync(s, AsyncMaximumMessageSizeResponse, 0, 0, b, 8);
        break;
      }
      case AsyncLock: {
        if (h.length > kMaxSmallPayload) {
          if (!rd.skip(h.length)) return;
          asyncError(s, ErrUnidentified, "lock string longer than 256 bytes");
          break;
        }
        if (!rd.skip(h.length)) return;  // shared-lock names are not modelled
        uint8_t code;
        if (h.code == 1) {  // request: always granted, there is no contention model
          s.lockHeld = true;
          code = 1;
        } else {  // release: success when held, else error
          code = s.lockHeld.exchange(false) ? 1 : 3;
        }
        sendAsync(s, AsyncLockResponse, code, 0, nullptr, 0);
        break;
      }
      case AsyncLockInfo: {
        if (!rd.skip(h.length)) return;
        size_t n = locksHeld();
        sendAsync(s, AsyncLockInfoResponse, n ? 1 : 0, static_cast<uint32_t>(n), nullptr, 0);
        break;
      }
      case AsyncRemoteLocalControl:
        if (!rd.skip(h.length)) return;
        sendAsync(s, AsyncRemoteLocalResponse, 0, 0, nullptr, 0);
        break;
      case Initialize:
      case AsyncInitialize:
        return asyncFatal(c, s, FatalBadInitSequence, "initialization repeated on an established channel");
      default:
        if (!rd.skip(h.length)) return;
        asyncError(s, h.type > VendorSpecific ? ErrUnknownVendor : ErrUnknownType,
                   "unrecognized message type on the asynchronous channel");
        break;
    }
  }
}

}  // namespace bridgesim
