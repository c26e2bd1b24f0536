// A small in-process LAN-to-VXI bridge for the driver's data-path tests and
// the register benchmark: a HiSLIP server on a loopback address that records
// every bridge command it receives and answers it from a simple mainframe
// model (A16/A24/A32 memory, FIFO registers, one message-based instrument),
// plus the bridge's own HiSLIP instrument (logical address 0).
//
// Test knobs (all under the model's mutex): busy answers, per-chunk element
// limits, forced answers.  Every socket wait is bounded, so a broken client
// fails a test instead of hanging it.
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cstdint>
#include <cstring>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

namespace fb {

using Bytes = std::vector<uint8_t>;

constexpr int32_t kTmo = (int32_t)0xBFFF0015;
constexpr int32_t kBusErr = (int32_t)0xBFFF0034;

inline uint32_t rd32(const uint8_t* p) {
  uint32_t v;
  memcpy(&v, p, 4);
  return v;
}
inline void put32(Bytes& b, uint32_t v) {
  uint8_t t[4];
  memcpy(t, &v, 4);
  b.insert(b.end(), t, t + 4);
}

// The message-based instrument's side of Word Serial.
struct Instrument {
  std::string input;         // bytes written, not yet ended
  std::string output;        // the pending response message (END on its last byte)
  std::vector<std::string> messages;  // complete messages received
  uint32_t stb = 0x1234;     // Read STB answer (only the low byte is the status byte)
  uint32_t resp = 0xABCD;    // answer to any other command with a response
  uint32_t respReg = 0x1200; // response register as seen by "wait for response"
  int triggers = 0;
  int clears = 0;
  std::vector<uint32_t> commands;  // Word Serial commands sent to it
};

struct Model {
  std::mutex m;
  // Bus memory, big-endian on the bus, sparse by 4 KiB pages per space.
  std::unordered_map<uint64_t, std::array<uint8_t, 4096>> pages;
  // Addresses written or read without increment behave as FIFOs.
  std::map<uint64_t, std::deque<uint32_t>> fifo;
  std::map<int, Instrument> instr;  // by logical address
  // Knobs.
  int busy = 0;               // next Word Serial commands answered "time-out"
  uint32_t maxTake = 0;       // block commands take at most this many elements (0: all)
  uint32_t writeTake = 0;     // Word Serial writes accept at most this many bytes (0: all)
  std::function<std::optional<Bytes>(const Bytes&)> answer;  // overrides the model when it returns a value
  // The bridge's own instrument (logical address 0).
  std::string bridgeIn;
  std::vector<std::string> bridgeMessages;
  uint8_t bridgeStb = 0x42;
  int statusQueries = 0, deviceClears = 0;

  uint8_t& byte(int space, uint32_t a) {
    auto& p = pages[((uint64_t)space << 32) | (a >> 12)];
    return p[a & 4095];
  }
  uint32_t load(int space, uint32_t a, int w) {
    uint32_t v = 0;
    for (int i = 0; i < w; i++) v = (v << 8) | byte(space, a + i);
    return v;
  }
  void store(int space, uint32_t a, int w, uint32_t v) {
    for (int i = w - 1; i >= 0; i--, v >>= 8) byte(space, a + i) = (uint8_t)v;
  }
};

inline int spaceOf(uint32_t cmd) {
  uint32_t s = cmd & 0x001C0000u;
  return s == 0x00040000u ? 1 : s == 0x00080000u ? 2 : s == 0x00100000u ? 3 : 0;
}
inline int widthOf(uint32_t cmd) {
  return (cmd & 0x00400000u) ? 1 : (cmd & 0x00800000u) ? 2 : (cmd & 0x01000000u) ? 4 : 0;
}

// One bridge command in, one answer payload out.
inline Bytes handle(Model& md, const Bytes& c) {
  Bytes a;
  if (md.answer)
    if (auto r = md.answer(c)) return *r;
  if (c.size() < 8) {
    put32(a, (uint32_t)0xBFFF003E);
    return a;
  }
  uint32_t cmd = rd32(&c[0]);
  int code = cmd & 0xFF;
  int la = (cmd >> 8) & 0xFF;
  int sp = spaceOf(cmd), w = widthOf(cmd);
  auto wsBusy = [&]() {
    if (md.busy > 0) {
      md.busy--;
      put32(a, (uint32_t)kTmo);
      return true;
    }
    return false;
  };
  switch (code) {
    case 1:
      put32(a, 0);
      return a;
    case 4: {
      uint32_t addr = rd32(&c[8]);
      put32(a, 0);
      put32(a, md.load(sp, addr, w));
      return a;
    }
    case 5:
    case 6: {
      md.store(sp, rd32(&c[8]), w, rd32(&c[12]));
      put32(a, 0);
      return a;
    }
    case 7: {
      uint32_t addr = rd32(&c[8]), n = rd32(&c[12]);
      bool inc = cmd & 0x08000000u;
      if (md.maxTake && n > md.maxTake) n = md.maxTake;
      put32(a, 0);
      put32(a, n);
      for (uint32_t i = 0; i < n; i++) {
        uint32_t v;
        if (inc) {
          v = md.load(sp, addr + i * w, w);
        } else {
          auto& q = md.fifo[((uint64_t)sp << 32) | addr];
          v = q.empty() ? 0 : q.front();
          if (!q.empty()) q.pop_front();
        }
        uint8_t t[4];
        memcpy(t, &v, 4);
        a.insert(a.end(), t, t + w);
      }
      while (a.size() % 4) a.push_back(0);
      put32(a, 0);  // trailer: final status
      return a;
    }
    case 8: {
      uint32_t addr = rd32(&c[8]), n = rd32(&c[12]);
      bool inc = cmd & 0x08000000u;
      uint32_t avail = (uint32_t)((c.size() - 16) / w);
      if (n > avail) n = avail;
      if (md.maxTake && n > md.maxTake) n = md.maxTake;
      for (uint32_t i = 0; i < n; i++) {
        uint32_t v = 0;
        memcpy(&v, &c[16 + i * w], w);
        if (inc)
          md.store(sp, addr + i * w, w, v);
        else
          md.fifo[((uint64_t)sp << 32) | addr].push_back(v);
      }
      put32(a, 0);
      put32(a, n);
      return a;
    }
    case 12: {  // Word Serial read
      if (wsBusy()) return a;
      auto& in = md.instr[la];
      uint32_t want = rd32(&c[8]);
      if (in.output.empty()) {
        put32(a, (uint32_t)kTmo);  // DOR clear: not ready yet
        return a;
      }
      bool eosOn = cmd & 0x01000000u;
      char eos = (char)((cmd >> 16) & 0xFF);
      uint32_t n = 0;
      int st = 0;
      while (n < want && n < in.output.size()) {
        char ch = in.output[n++];
        if (eosOn && ch == eos) {
          st |= 1;
          break;
        }
      }
      if (n == in.output.size()) st |= 2;  // END came with the last byte
      put32(a, (uint32_t)st);
      put32(a, n);
      a.insert(a.end(), in.output.begin(), in.output.begin() + n);
      in.output.erase(0, n);
      return a;
    }
    case 13: {  // Word Serial write
      if (wsBusy()) return a;
      auto& in = md.instr[la];
      uint32_t n = rd32(&c[8]);
      if (n > c.size() - 12) n = (uint32_t)(c.size() - 12);
      if (md.writeTake && n > md.writeTake) n = md.writeTake;
      in.input.append((const char*)&c[12], n);
      bool end = (cmd & 0x02000000u) && n == rd32(&c[8]);
      if (end) {
        in.messages.push_back(in.input);
        std::string q = in.input;
        in.input.clear();
        if (q.rfind("*IDN?", 0) == 0) in.output = "FAKE,MBI,1,1.0\n";
        else if (q.rfind("DATA? ", 0) == 0) {
          int len = atoi(q.c_str() + 6);
          in.output.clear();
          for (int i = 0; i < len; i++) in.output.push_back((char)('A' + i % 26));
        }
      }
      put32(a, 0);
      put32(a, n);
      return a;
    }
    case 14: {
      if (wsBusy()) return a;
      auto& in = md.instr[la];
      uint32_t wsc = rd32(&c[8]);
      uint32_t resp = in.resp;
      if (cmd & 0x0C000000u) {
        in.commands.push_back(wsc);
        if (wsc == 0xCFFF) resp = in.stb;
        if (wsc == 0xEDFF) in.triggers++;
        if (wsc == 0xFFFF && (cmd & 0x04000000u)) {
          in.clears++;
          in.input.clear();
          in.output.clear();
        }
      }
      put32(a, 0);
      put32(a, resp);
      return a;
    }
    case 15: {
      auto& in = md.instr[la];
      uint32_t want = rd32(&c[8]);
      put32(a, (in.respReg & want) == want ? 0 : (uint32_t)kTmo);
      return a;
    }
    default:
      put32(a, (uint32_t)0xBFFF0067);
      return a;
  }
}

// ------------------------------------------------------------ HiSLIP server

inline bool waitReadable(int fd, int ms) {
  pollfd p{fd, POLLIN, 0};
  return poll(&p, 1, ms) == 1;
}

inline bool readFull(int fd, void* buf, size_t n, const std::atomic<bool>& stop) {
  size_t got = 0;
  while (got < n) {
    if (stop) return false;
    if (!waitReadable(fd, 100)) continue;
    ssize_t r = recv(fd, (char*)buf + got, n - got, 0);
    if (r <= 0) return false;
    got += (size_t)r;
  }
  return true;
}

struct Msg {
  uint8_t type = 0;
  uint8_t code = 0;
  uint8_t param[4] = {};
  Bytes data;
};

inline bool readMsg(int fd, Msg& m, const std::atomic<bool>& stop) {
  uint8_t h[16];
  if (!readFull(fd, h, 16, stop) || h[0] != 'H' || h[1] != 'S') return false;
  m.type = h[2];
  m.code = h[3];
  memcpy(m.param, h + 4, 4);
  uint32_t hi, lo;
  memcpy(&hi, h + 8, 4);
  memcpy(&lo, h + 12, 4);
  uint64_t len = ((uint64_t)ntohl(hi) << 32) | ntohl(lo);
  if (len > (1u << 20)) return false;  // far more than any bridge command
  m.data.resize(len);
  return len == 0 || readFull(fd, m.data.data(), len, stop);
}

inline void sendMsg(int fd, uint8_t type, uint8_t code, uint32_t paramNet, const void* data, size_t len) {
  Bytes out(16);
  out[0] = 'H';
  out[1] = 'S';
  out[2] = type;
  out[3] = code;
  memcpy(&out[4], &paramNet, 4);
  uint32_t hi = htonl((uint32_t)((uint64_t)len >> 32)), lo = htonl((uint32_t)len);
  memcpy(&out[8], &hi, 4);
  memcpy(&out[12], &lo, 4);
  out.insert(out.end(), (const uint8_t*)data, (const uint8_t*)data + len);
  (void)send(fd, out.data(), out.size(), MSG_NOSIGNAL);
}

class Server {
 public:
  explicit Server(const char* ip = "127.0.0.1", uint16_t port = 4880) {
    lfd_ = socket(AF_INET, SOCK_STREAM, 0);
    int one = 1;
    setsockopt(lfd_, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(port);
    a.sin_addr.s_addr = inet_addr(ip);
    ok_ = bind(lfd_, (sockaddr*)&a, sizeof a) == 0 && listen(lfd_, 16) == 0;
    if (ok_) acceptor_ = std::thread([this] { acceptLoop(); });
  }
  ~Server() {
    stop_ = true;
    if (acceptor_.joinable()) acceptor_.join();
    std::vector<std::thread> ts;
    {
      std::lock_guard<std::mutex> g(tm_);
      ts.swap(threads_);
    }
    for (auto& t : ts) t.join();
    for (int fd : fds_) close(fd);
    close(lfd_);
  }
  bool ok() const { return ok_; }
  Model& model() { return md_; }

  // Every bridge command payload received, in order.
  std::vector<Bytes> receivedCommands() {
    std::lock_guard<std::mutex> g(md_.m);
    return cmds_;
  }
  void clearCommands() {
    std::lock_guard<std::mutex> g(md_.m);
    cmds_.clear();
  }
  // Run f under the model's lock (to set knobs or look at state).
  template <class F>
  auto with(F f) {
    std::lock_guard<std::mutex> g(md_.m);
    return f(md_);
  }

 private:
  struct Session {
    int sync = -1, async = -1;
  };

  void acceptLoop() {
    while (!stop_) {
      if (!waitReadable(lfd_, 50)) continue;
      int fd = accept(lfd_, nullptr, nullptr);
      if (fd < 0) continue;
      int one = 1;
      setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
      std::lock_guard<std::mutex> g(tm_);
      fds_.push_back(fd);
      threads_.emplace_back([this, fd] { serveChannel(fd); });
    }
  }

  void serveChannel(int fd) {
    Msg m;
    if (!readMsg(fd, m, stop_)) return;
    if (m.type == 0) {  // Initialize: a synchronous channel, a new session
      uint16_t sid = (uint16_t)++nextSession_;
      uint32_t p = htonl((0x0100u << 16) | sid);
      sendMsg(fd, 1, 1, p, nullptr, 0);
      serveSync(fd);
    } else if (m.type == 17) {  // AsyncInitialize
      sendMsg(fd, 18, 0, htonl(0x0E76), nullptr, 0);
      serveAsync(fd);
    }
  }

  void serveSync(int fd) {
    Msg m;
    while (readMsg(fd, m, stop_)) {
      if (m.type == 128) {
        Bytes ans;
        {
          std::lock_guard<std::mutex> g(md_.m);
          cmds_.push_back(m.data);
          ans = handle(md_, m.data);
        }
        sendMsg(fd, 128, 0, 0, ans.data(), ans.size());
      } else if (m.type == 6 || m.type == 7) {
        std::string reply;
        {
          std::lock_guard<std::mutex> g(md_.m);
          md_.bridgeIn.append((const char*)m.data.data(), m.data.size());
          if (m.type == 7) {
            md_.bridgeMessages.push_back(md_.bridgeIn);
            if (md_.bridgeIn.find('?') != std::string::npos) reply = "FAKE,BRIDGE,0,2.0\n";
            md_.bridgeIn.clear();
          }
        }
        if (!reply.empty()) sendMsg(fd, 7, 0, 0, reply.data(), reply.size());
      } else if (m.type == 8) {  // DeviceClearComplete
        sendMsg(fd, 9, m.code, 0, nullptr, 0);
      }
    }
  }

  void serveAsync(int fd) {
    Msg m;
    while (readMsg(fd, m, stop_)) {
      if (m.type == 21) {
        uint8_t stb;
        {
          std::lock_guard<std::mutex> g(md_.m);
          md_.statusQueries++;
          stb = md_.bridgeStb;
        }
        sendMsg(fd, 22, stb, 0, nullptr, 0);
      } else if (m.type == 19) {
        {
          std::lock_guard<std::mutex> g(md_.m);
          md_.deviceClears++;
        }
        sendMsg(fd, 23, 0, 0, nullptr, 0);
      }
    }
  }

  int lfd_ = -1;
  bool ok_ = false;
  std::atomic<bool> stop_{false};
  std::atomic<int> nextSession_{0};
  std::thread acceptor_;
  std::mutex tm_;
  std::vector<std::thread> threads_;
  std::vector<int> fds_;
  Model md_;
  std::vector<Bytes> cmds_;
};

}  // namespace fb
