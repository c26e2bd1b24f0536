// A raw HiSLIP client session for checking the simulated bridge from the
// outside, without the library's client.
#pragma once

#include "testkit.h"

namespace rawhs {

using kt::Msg;

// One channel; closes its socket when it goes.
struct Chan {
  int fd = -1;
  Chan() = default;
  Chan(const char* addr, uint16_t port) : fd(kt::connectTo(addr, port)) {}
  Chan(Chan&& o) noexcept : fd(std::exchange(o.fd, -1)) {}
  Chan& operator=(Chan&& o) noexcept {
    std::swap(fd, o.fd);
    return *this;
  }
  ~Chan() {
    if (fd >= 0) close(fd);
  }
  bool ok() const { return fd >= 0; }
  bool send(uint8_t type, uint8_t code, uint32_t param, const std::string& data = {}) {
    return kt::sendMsg(fd, type, code, param, data);
  }
  bool sendBytes(const std::string& b) { return kt::sendAllBytes(fd, b); }
  Msg recv() { return kt::readMsg(fd); }
  bool readable(int ms) { return kt::readable(fd, ms); }
  bool closedByPeer() {  // the peer closed (or reset) within the wait
    char b[256];
    for (;;) {
      if (!readable(5000)) return false;
      if (::recv(fd, b, sizeof b, 0) <= 0) return true;
    }
  }
};

struct Session {
  Chan sync, async;
  uint16_t id = 0;
  uint8_t initCode = 0;
  uint32_t initParam = 0, nextId = 0xFFFFFF00;

  // Opens both channels the way the driver does (protocol 1.0, vendor bytes
  // 0x0E 0x76, sub-address "inst0").  Empty optional on any failure.
  static std::optional<Session> open(const char* addr, uint16_t port) {
    Session s;
    s.sync = Chan(addr, port);
    if (!s.sync.ok() || !s.sync.send(0, 0, 0x01000E76, "inst0")) return std::nullopt;
    Msg r = s.sync.recv();
    if (r.type != 1) return std::nullopt;
    s.initCode = r.code;
    s.initParam = r.param;
    s.id = (uint16_t)r.param;
    s.async = Chan(addr, port);
    if (!s.async.ok() || !s.async.send(17, 0, s.id) || s.async.recv().type != 18) return std::nullopt;
    return s;
  }
  Msg query(const std::string& text) {  // one DataEnd query and its answer
    sync.send(7, 0, nextId, text);
    nextId += 2;
    return sync.recv();
  }
  Msg command(const std::string& payload) {
    sync.send(128, 0, 0, payload);
    return sync.recv();
  }
};

}  // namespace rawhs
