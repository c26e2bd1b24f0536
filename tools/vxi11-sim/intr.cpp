// The interrupt channel: connecting back to the client (create/destroy_intr_chan) and sending it device_intr_srq calls.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>

#include "impl.h"
#include "vxi11.h"

namespace vxi11sim {

int32_t Simulator::Impl::createIntrChan(int connNo, const Call& c, const Faults& f, int32_t injected,
                                        bool* garbage) {
  Device_RemoteFunc p;
  if (!decode((xdrproc_t)xdr_Device_RemoteFunc, c, &p)) return *garbage = true, 0;
  int32_t error = injected ? injected : f.intrChanError;
  uint32_t host = (uint32_t)p.hostAddr;
  log(1, "create_intr_chan %u.%u.%u.%u:%u", host >> 24, (host >> 16) & 255, (host >> 8) & 255, host & 255,
      (unsigned)p.hostPort);
  // The channel only ever goes back to a loopback client.
  if (!error && (!isLoopback(host) || p.progFamily != DEVICE_TCP)) error = ERR_CHANNEL;
  if (error || f.noConnectBack) return error;
  int s = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_addr.s_addr = htonl(host);
  a.sin_port = htons((uint16_t)p.hostPort);
  if (s < 0 || connect(s, (sockaddr*)&a, sizeof a) != 0) {
    if (s >= 0) close(s);
    return ERR_CHANNEL;
  }
  std::lock_guard<std::mutex> g(m);
  Conn& cn = conns[connNo];
  if (cn.intrFd >= 0) close(cn.intrFd);
  cn.intrFd = s;
  cv.notify_all();
  return 0;
}

int32_t Simulator::Impl::destroyIntrChan(int connNo) {
  std::lock_guard<std::mutex> g(m);
  Conn& cn = conns[connNo];
  if (cn.intrFd < 0) return ERR_CHANNEL;
  close(cn.intrFd);
  cn.intrFd = -1;
  return 0;
}

int Simulator::Impl::fireSrqImpl(const std::string* handle) {
  std::lock_guard<std::mutex> g(m);
  int sent = 0;
  for (auto& [lid, l] : linkMap) {
    if (!l.srq) continue;
    auto it = conns.find(l.conn);
    if (it == conns.end() || it->second.intrFd < 0) continue;
    static std::atomic<uint32_t> xid{0x5100};
    std::string body;
    putBe(body, xid++);
    putBe(body, 0);  // CALL
    putBe(body, 2);
    putBe(body, DEVICE_INTR);
    putBe(body, DEVICE_INTR_VERSION);
    putBe(body, device_intr_srq);
    for (int i = 0; i < 4; i++) putBe(body, 0);  // AUTH_NONE credential and verifier
    Device_SrqParms p{};
    std::string h = handle ? *handle : l.handle;
    p.handle.handle_len = (u_int)h.size();
    p.handle.handle_val = h.data();
    encode((xdrproc_t)xdr_Device_SrqParms, &p, h.size(), &body);
    log(1, "device_intr_srq to link %d", (int)lid);
    if (sendRecord(it->second.intrFd, body)) sent++;
  }
  return sent;
}

bool Simulator::waitForInterruptChannel(int ms) const {
  std::unique_lock<std::mutex> g(impl_->m);
  return impl_->cv.wait_for(g, std::chrono::milliseconds(ms), [&] {
    for (auto& [n, c] : impl_->conns)
      if (c.intrFd >= 0) return true;
    return false;
  });
}

int Simulator::fireSrq() { return impl_->fireSrqImpl(nullptr); }
int Simulator::fireSrqWithHandle(const std::string& handle) { return impl_->fireSrqImpl(&handle); }

}  // namespace vxi11sim
