// The simulator's portmapper: its own (NULL, GETPORT, DUMP over TCP and UDP on port 111) or a running rpcbind.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <rpc/pmap_clnt.h>
#include <rpc/pmap_prot.h>
#include <rpc/rpcb_clnt.h>

#include "impl.h"
#include "vxi11.h"

namespace vxi11sim {

bool portmapperAnswers(uint32_t addrNet) {
  int fd = socket(AF_INET, SOCK_STREAM, 0);
  if (fd < 0) return false;
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_addr.s_addr = addrNet;
  a.sin_port = htons(111);
  bool ok = connect(fd, (sockaddr*)&a, sizeof a) == 0;
  close(fd);
  return ok;
}

// Registers with rpcbind under the address actually served (a plain
// portmapper registration would be answered with the loopback address
// 127.0.0.1, which this simulator need not listen on).
bool registerTcp(uint32_t addrNet, u_long prog, u_long vers, uint16_t port) {
  netconfig* nc = getnetconfigent("tcp");
  if (!nc) return false;
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_addr.s_addr = addrNet;
  a.sin_port = htons(port);
  netbuf nb{};
  nb.buf = &a;
  nb.len = nb.maxlen = sizeof a;
  rpcb_unset(prog, vers, nc);
  bool ok = rpcb_set(prog, vers, nc, &nb);
  freenetconfigent(nc);
  return ok;
}

void unregisterTcp(u_long prog, u_long vers) {
  netconfig* nc = getnetconfigent("tcp");
  if (!nc) return;
  rpcb_unset(prog, vers, nc);
  freenetconfigent(nc);
}

// The body of the reply to one portmapper call.  Only version 2 is served:
// newer clients (rpcbind versions 3 and 4) learn so from the mismatch and
// fall back to it.
std::string Simulator::Impl::portmapReply(const Call& c) {
  if (c.prog != PMAPPROG) return rejectBody(c, PROG_UNAVAIL_, PMAPVERS);
  if (c.vers != PMAPVERS) return rejectBody(c, PROG_MISMATCH_, PMAPVERS);
  Faults f = faultsCopy();
  std::string res;
  switch (c.proc) {
    case PMAPPROC_NULL:
      break;
    case PMAPPROC_SET:
    case PMAPPROC_UNSET: {
      // The table is fixed: registrations are declined (FALSE), not rejected.
      pmap q{};
      if (!decode((xdrproc_t)xdr_pmap, c, &q)) return rejectBody(c, GARBAGE_, PMAPVERS);
      log(1, "%s prog 0x%lx declined", c.proc == PMAPPROC_SET ? "SET" : "UNSET", (unsigned long)q.pm_prog);
      putBe(res, 0);
      break;
    }
    case PMAPPROC_GETPORT: {
      pmap q{};
      if (!decode((xdrproc_t)xdr_pmap, c, &q)) return rejectBody(c, GARBAGE_, PMAPVERS);
      u_long port = 0;
      if (q.pm_prot == IPPROTO_TCP && q.pm_prog == DEVICE_CORE && q.pm_vers == DEVICE_CORE_VERSION)
        port = corePort;
      else if (q.pm_prot == IPPROTO_TCP && q.pm_prog == DEVICE_ASYNC && q.pm_vers == DEVICE_ASYNC_VERSION)
        port = reportedAbort;
      else if (q.pm_prog == PMAPPROG && q.pm_vers == PMAPVERS)
        port = 111;
      if (f.getportZero) port = 0;
      log(1, "GETPORT prog 0x%lx -> %lu", (unsigned long)q.pm_prog, (unsigned long)port);
      putBe(res, (uint32_t)port);
      break;
    }
    case PMAPPROC_DUMP: {
      // The list as XDR writes it: each entry behind a TRUE, a FALSE at the end.
      struct Entry {
        uint32_t prog, vers, prot, port;
      };
      std::vector<Entry> list = {{PMAPPROG, PMAPVERS, IPPROTO_TCP, 111}};
      if (pmapUdpFd >= 0) list.push_back({PMAPPROG, PMAPVERS, IPPROTO_UDP, 111});
      list.push_back({DEVICE_CORE, DEVICE_CORE_VERSION, IPPROTO_TCP, corePort});
      if (reportedAbort) list.push_back({DEVICE_ASYNC, DEVICE_ASYNC_VERSION, IPPROTO_TCP, reportedAbort});
      for (const Entry& e : list) {
        putBe(res, 1);
        for (uint32_t v : {e.prog, e.vers, e.prot, e.port}) putBe(res, v);
      }
      putBe(res, 0);
      log(1, "DUMP -> %zu entries", list.size());
      break;
    }
    default:
      return rejectBody(c, PROC_UNAVAIL_, PMAPVERS);
  }
  return replyHead(c.xid, SUCCESS_) + res;
}

// Portmapper over UDP: one call per datagram, no record mark (libtirpc's
// classic clients ask this way).
void Simulator::Impl::portmapDatagram() {
  char buf[1500];
  sockaddr_in from{};
  socklen_t flen = sizeof from;
  ssize_t n = recvfrom(pmapUdpFd, buf, sizeof buf, 0, (sockaddr*)&from, &flen);
  if (n <= 0) return;
  Call c;
  std::string body(buf, (size_t)n);
  if (!parseCall(body, &c)) return;
  std::string reply = portmapReply(c);
  sendto(pmapUdpFd, reply.data(), reply.size(), 0, (sockaddr*)&from, flen);
}

}  // namespace vxi11sim
