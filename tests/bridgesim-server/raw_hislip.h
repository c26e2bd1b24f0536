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
  Msg ask(uint8_t type, uint32_t param, const std::string& data = {}) {  // a message and the answer to it
    send(type, 0, param, data);
    return recv();
  }
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
  Msg init;  // the InitializeResponse
  uint16_t id = 0;
  uint32_t nextId = 0xFFFFFF00;

  // Opens both channels the way the driver does (protocol 1.0, vendor bytes
  // 0x0E 0x76, sub-address "inst0").  Empty optional on any failure.
  static std::optional<Session> open(const char* addr, uint16_t port) {
    Session s;
    s.sync = Chan(addr, port);
    if (!s.sync.ok() || (s.init = s.sync.ask(0, 0x01000E76, "inst0")).type != 1) return std::nullopt;
    s.id = (uint16_t)s.init.param;
    s.async = Chan(addr, port);
    if (!s.async.ok() || s.async.ask(17, s.id).type != 18) return std::nullopt;
    return s;
  }
  Msg query(const std::string& text) {  // one DataEnd query and its answer
    nextId += 2;
    return sync.ask(7, nextId - 2, text);
  }
  Msg command(const std::string& payload) { return sync.ask(128, 0, payload); }
};

}  // namespace rawhs
