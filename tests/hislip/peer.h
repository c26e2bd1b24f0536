// A scripted HiSLIP server on 127.0.0.1:4880: accepts both channels, answers
// Initialize and AsyncInitialize as told, then plays a script.
#pragma once

#include <gtest/gtest.h>

#include <filesystem>

#include "testkit.h"

namespace hs {

using kt::Msg;
using kt::readMsg;
using kt::sendMsg;

struct Handshake {
  uint8_t initType = 1;  // answer to Initialize (anything else: that message with initText, then stop)
  std::string initText;
  uint8_t initCode = 1;  // overlap bit
  uint8_t asyncType = 18;  // answer to AsyncInitialize
};

// A message as "type/code param" (param in hex) and its payload, if any, to
// compare whole.
inline std::string brief(const Msg& m) {
  char head[40];
  snprintf(head, sizeof head, "%d/%d %08X", m.type, m.code, m.param);
  return m.data.empty() ? head : std::string(head) + " " + m.data;
}

// A fresh record connected to the scripted peer (a failed connect fails the
// case; the calls after it then report a lost connection).
inline KvTcpInfo* connected() {
  KvTcpInfo* r = kt::newRecord();
  EXPECT_EQ(VI_SUCCESS, kvtcp_hislip_Connect(r, "127.0.0.1", "inst0"));
  return r;
}

class Peer {
 public:
  Peer() : lfd(kt::listenOn("127.0.0.1", 4880)) { EXPECT_GE(lfd, 0); }
  ~Peer() {
    join();
    close(lfd);
  }
  void run(std::function<void(Peer&)> script, Handshake h = {}) {
    th = std::thread([this, script, h] {
      sync = accept1();
      async = accept1();
      if (sync < 0 || async < 0) {
        ADD_FAILURE() << "client did not open both channels";
      } else if (init = readMsg(sync), h.initType != 1) {
        sendMsg(sync, h.initType, 0, 0, h.initText);
      } else {
        sendMsg(sync, 1, h.initCode, 0x01001234);  // protocol 1.0, session 0x1234
        asyncInit = readMsg(async);
        sendMsg(async, h.asyncType, 0, 0x0E76);
        if (h.asyncType == 18) script(*this);
      }
      if (sync >= 0) kt::drain(sync), close(sync);  // until the client closes
      if (async >= 0) close(async);
      sync = async = -1;
    });
  }
  void join() {
    if (th.joinable()) th.join();
  }
  bool pending() { return kt::readable(lfd, 0); }  // a connection waiting to be accepted

  int lfd, sync = -1, async = -1;
  Msg init, asyncInit;

 private:
  int accept1() { return kt::readable(lfd) ? accept(lfd, nullptr, nullptr) : -1; }
  std::thread th;
};

inline int openFds() {
  std::filesystem::directory_iterator fds("/proc/self/fd");
  return (int)std::distance(fds, {});
}

}  // namespace hs
