// ONC RPC record layer of the simulator: record marks, call heads, reply heads and the XDR glue.
#pragma once

#include <stdint.h>
#include <string.h>

#include <string>
#include <vector>

#include <rpc/rpc.h>

namespace vxi11sim {

constexpr uint32_t kMaxRecord = 64u << 20;  // longest call accepted

// RPC accept states.
constexpr uint32_t SUCCESS_ = 0, PROG_UNAVAIL_ = 1, PROG_MISMATCH_ = 2, PROC_UNAVAIL_ = 3, GARBAGE_ = 4;

struct Call {
  uint32_t xid = 0, prog = 0, vers = 0, proc = 0;
  const char* args = nullptr;
  size_t argLen = 0;
};

uint32_t be(const char* p);
void putBe(std::string& s, uint32_t v);
// Takes the call head apart; false for anything that is not a call.
bool parseCall(const std::string& body, Call* c);
std::string replyHead(uint32_t xid, uint32_t stat);
// A refusal; a version mismatch names the one version served (`vers`).
std::string rejectBody(const Call& c, uint32_t stat, uint32_t vers);
bool sendAllFd(int fd, const char* p, size_t n);
bool sendRecord(int fd, const std::string& body);
// One RPC record, its fragments joined; false on a closed or broken stream.
bool readRecord(int fd, std::string* body);
int listenOn(uint32_t addrNet, uint16_t port, uint16_t* bound, bool doListen = true);
inline bool isLoopback(uint32_t hostOrder) { return (hostOrder >> 24) == 127; }

template <class T>
bool encode(xdrproc_t proc, T* v, size_t room, std::string* out) {
  std::vector<char> buf(room + 64);
  XDR x;
  xdrmem_create(&x, buf.data(), (u_int)buf.size(), XDR_ENCODE);
  bool ok = proc(&x, v, 0);
  if (ok) out->append(buf.data(), xdr_getpos(&x));
  xdr_destroy(&x);
  return ok;
}

template <class T>
bool decode(xdrproc_t proc, const Call& c, T* v) {
  memset(v, 0, sizeof *v);
  XDR x;
  xdrmem_create(&x, (char*)c.args, (u_int)c.argLen, XDR_DECODE);
  bool ok = proc(&x, v, 0);
  xdr_destroy(&x);
  if (!ok) xdr_free(proc, (char*)v);
  return ok;
}

}  // namespace vxi11sim
