// A deliberately small HiSLIP peer for checking the simulated bridge from the
// outside: it builds and parses headers itself instead of using the
// library's client, so that both sides are not wrong in the same way.
#ifndef BRIDGESIM_TESTS_RAW_HISLIP_H
#define BRIDGESIM_TESTS_RAW_HISLIP_H

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace rawhs {

// Safety net against a hang only; never a measure of speed.
constexpr int kWaitMs = 5000;

struct Msg {
  bool prologueOk = true;
  uint8_t type = 0;
  uint8_t code = 0;
  uint32_t param = 0;
  std::vector<uint8_t> data;
  std::string text() const { return std::string(data.begin(), data.end()); }
};

inline std::vector<uint8_t> header(uint8_t type, uint8_t code, uint32_t param, uint64_t len) {
  std::vector<uint8_t> h = {'H', 'S', type, code};
  for (int i = 3; i >= 0; --i) h.push_back(static_cast<uint8_t>(param >> (8 * i)));
  for (int i = 7; i >= 0; --i) h.push_back(static_cast<uint8_t>(len >> (8 * i)));
  return h;
}

inline int connectTo(const std::string& addr, uint16_t port) {
  int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) throw std::runtime_error("socket");
  sockaddr_in sa{};
  sa.sin_family = AF_INET;
  sa.sin_port = htons(port);
  inet_pton(AF_INET, addr.c_str(), &sa.sin_addr);
  if (::connect(fd, reinterpret_cast<sockaddr*>(&sa), sizeof sa) != 0) {
    ::close(fd);
    return -1;
  }
  int one = 1;
  setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
  return fd;
}

class Chan {
 public:
  Chan() = default;
  explicit Chan(int fd) : fd_(fd) {}
  Chan(const std::string& addr, uint16_t port) : fd_(connectTo(addr, port)) {}
  Chan(Chan&& o) noexcept : fd_(o.fd_) { o.fd_ = -1; }
  Chan& operator=(Chan&& o) noexcept {
    std::swap(fd_, o.fd_);
    return *this;
  }
  ~Chan() {
    if (fd_ >= 0) ::close(fd_);
  }
  bool ok() const { return fd_ >= 0; }
  int fd() const { return fd_; }

  bool sendBytes(const std::vector<uint8_t>& b) {
    size_t off = 0;
    while (off < b.size()) {
      ssize_t r = ::send(fd_, b.data() + off, b.size() - off, MSG_NOSIGNAL);
      if (r <= 0) return false;
      off += static_cast<size_t>(r);
    }
    return true;
  }
  bool send(uint8_t type, uint8_t code, uint32_t param, const void* p = nullptr, size_t n = 0) {
    std::vector<uint8_t> b = header(type, code, param, n);
    if (n) b.insert(b.end(), static_cast<const uint8_t*>(p), static_cast<const uint8_t*>(p) + n);
    return sendBytes(b);
  }
  bool send(uint8_t type, uint8_t code, uint32_t param, const std::string& s) {
    return send(type, code, param, s.data(), s.size());
  }

  // True when something (data or end of stream) can be read within ms.
  bool readable(int ms) {
    pollfd p{fd_, POLLIN, 0};
    return ::poll(&p, 1, ms) > 0;
  }

  // Exactly n bytes; false on end of stream, error or the safety time-out.
  bool readExact(void* dst, size_t n) {
    auto* d = static_cast<uint8_t*>(dst);
    while (n > 0) {
      if (!readable(kWaitMs)) return false;
      ssize_t r = ::recv(fd_, d, n, 0);
      if (r <= 0) return false;
      d += r;
      n -= static_cast<size_t>(r);
    }
    return true;
  }

  // Whatever arrives until the peer closes (at most `cap` bytes).
  std::vector<uint8_t> readToEnd(size_t cap = 1 << 20) {
    std::vector<uint8_t> all;
    uint8_t b[4096];
    while (all.size() < cap && readable(kWaitMs)) {
      ssize_t r = ::recv(fd_, b, sizeof b, 0);
      if (r <= 0) break;
      all.insert(all.end(), b, b + r);
    }
    return all;
  }

  // True once the peer has closed (or reset) the connection.
  bool closedByPeer() {
    uint8_t b[256];
    for (;;) {
      if (!readable(kWaitMs)) return false;
      ssize_t r = ::recv(fd_, b, sizeof b, 0);
      if (r <= 0) return true;
    }
  }

  std::optional<Msg> recv() {
    uint8_t h[16];
    if (!readExact(h, 16)) return std::nullopt;
    Msg m;
    m.prologueOk = h[0] == 'H' && h[1] == 'S';
    m.type = h[2];
    m.code = h[3];
    for (int i = 0; i < 4; ++i) m.param = m.param << 8 | h[4 + i];
    uint64_t len = 0;
    for (int i = 0; i < 8; ++i) len = len << 8 | h[8 + i];
    if (len > (64u << 20)) return std::nullopt;
    m.data.resize(static_cast<size_t>(len));
    if (len && !readExact(m.data.data(), m.data.size())) return std::nullopt;
    return m;
  }

 private:
  int fd_ = -1;
};

struct Session {
  Chan sync, async;
  uint16_t id = 0;
  uint8_t initCode = 0;
  uint32_t initParam = 0;
  uint32_t nextId = 0xFFFFFF00;

  // Opens both channels the way the driver does (protocol 1.0, vendor bytes
  // 0x0E 0x76, sub-address "inst0").  Empty optional on any failure.
  static std::optional<Session> open(const std::string& addr, uint16_t port, const std::string& sub = "inst0") {
    Session s;
    s.sync = Chan(addr, port);
    if (!s.sync.ok() || !s.sync.send(0, 0, 0x01000E76, sub)) return std::nullopt;
    auto r = s.sync.recv();
    if (!r || r->type != 1) return std::nullopt;
    s.initCode = r->code;
    s.initParam = r->param;
    s.id = static_cast<uint16_t>(r->param & 0xFFFF);
    s.async = Chan(addr, port);
    if (!s.async.ok() || !s.async.send(17, 0, s.id)) return std::nullopt;
    auto a = s.async.recv();
    if (!a || a->type != 18) return std::nullopt;
    return s;
  }

  // One DataEnd query; returns the answer message.
  std::optional<Msg> query(const std::string& text) {
    uint32_t id = nextId;
    nextId += 2;
    if (!sync.send(7, 0, id, text)) return std::nullopt;
    return sync.recv();
  }

  std::optional<Msg> command(const std::vector<uint8_t>& payload) {
    if (!sync.send(128, 0, 0, payload.data(), payload.size())) return std::nullopt;
    return sync.recv();
  }
};

inline std::vector<uint8_t> words(std::initializer_list<uint32_t> w) {
  std::vector<uint8_t> b;
  for (uint32_t x : w)
    for (int i = 0; i < 4; ++i) b.push_back(static_cast<uint8_t>(x >> (8 * i)));
  return b;
}

inline uint32_t word(const std::vector<uint8_t>& b, size_t i) {
  if (4 * i + 4 > b.size()) return 0xDEADBEEF;
  uint32_t v = 0;
  for (int k = 3; k >= 0; --k) v = v << 8 | b[4 * i + static_cast<size_t>(k)];
  return v;
}

}  // namespace rawhs

#endif
