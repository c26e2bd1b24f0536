// Connecting: portmapper look-up (the simulator's own and a real rpcbind),
// link creation, abort channel variants, the shared root, connect failures.
#include "common.h"

using namespace vx;

namespace {

TEST_F(Vxi11Test, ConnectDisconnectAndConnectAgain) {
  startSim();
  KvTcpInfo* r = connect();
  ASSERT_EQ(r->Connected, 1);
  EXPECT_EQ(std::make_tuple(r->tcpType, int(r->port), std::string(r->InstName), r->maxRecvSize),
            std::make_tuple(KVTCP_VXI11, int(sim->corePort()), "inst0", 1024u));
  EXPECT_NE(r->S_Abort, 0);
  EXPECT_EQ(sim->links(), std::vector<int32_t>{(int32_t)r->lid});
  EXPECT_EQ(sim->deviceNames(), std::vector<std::string>{"inst0"});
  EXPECT_EQ(r->S_Intr, 0);  // no event handler: no interrupt channel
  EXPECT_EQ(ntohl(r->myAddr.sin_addr.s_addr) >> 24, 127u);  // the local end of the core socket
  EXPECT_STREQ(r->coreMutexName, "_kv127_0_0_2Mutex_Core");
  EXPECT_STREQ(r->intfMutexName, "_kv127_0_0_2Mutex_Intf");
  EXPECT_EQ(kvtcp_Lock(r), VI_SUCCESS);
  kvtcp_UnLock(r);

  uint32_t lid = r->lid;
  EXPECT_EQ(kvtcp_vxi11_Connect(nullptr, r, kAddr, "inst0"), VI_SUCCESS);  // already connected: nothing new
  EXPECT_EQ(r->lid, lid);
  EXPECT_EQ(sim->links().size(), 1u);

  kvtcp_Disconnect(r);
  EXPECT_EQ(std::make_tuple(r->Connected, r->S_Core, r->S_Abort), std::make_tuple(0, 0, 0));
  EXPECT_TRUE(eventually([&] { return !sim->destroyedLinks().empty(); }));
  EXPECT_EQ(sim->destroyedLinks(), std::vector<int32_t>{(int32_t)lid});
  // A second connect of the same record reuses its mutexes and makes a new link.
  HANDLE core = r->hCoreMutex;
  ASSERT_EQ(kvtcp_vxi11_Connect(nullptr, r, kAddr, "inst0"), VI_SUCCESS);
  EXPECT_EQ(r->hCoreMutex, core);
  EXPECT_NE(r->lid, lid);
}

TEST_F(Vxi11Test, ConnectsThroughRealRpcbind) {
  Rpcbind rb;
  if (std::string why = rb.start(); !why.empty()) GTEST_SKIP() << "no rpcbind: " << why;
  startSim({}, vxi11sim::PortmapMode::Auto);
  ASSERT_TRUE(sim->usesRpcbind());
  KvTcpInfo* r = connect();
  ASSERT_EQ(r->Connected, 1);
  EXPECT_EQ(r->port, sim->corePort());
  EXPECT_TRUE(logged("return port " + std::to_string(sim->corePort())));
  kvtcp_Disconnect(r);
  sim->stop();  // unregisters before rpcbind goes
}

TEST_F(Vxi11Test, SharedRootMakesSecondLinkOnSameSocket) {
  startSim();
  KvTcpInfo* root = connect("inst0");
  KvTcpInfo* child = connect("inst1", root);
  ASSERT_EQ(child->Connected, 1);
  EXPECT_EQ(std::make_tuple(child->S_Core, child->S_Abort, child->port),
            std::make_tuple(root->S_Core, root->S_Abort, root->port));
  EXPECT_NE(child->lid, root->lid);
  // The shared channel addresses the root's device, whatever the child asked for.
  EXPECT_EQ(sim->deviceNames(), (std::vector<std::string>{"inst0", "inst0"}));
  EXPECT_STREQ(child->InstName, "inst0");
  EXPECT_TRUE(logged("connected!"));

  send(root, "*CLS\n");  // each record writes under its own link id (one the device knows)
  send(child, "*OPC?\n");
  std::vector<int32_t> lids;
  for (const auto& w : sim->writes()) lids.push_back(w.lid);
  EXPECT_EQ(lids, (std::vector<int32_t>{(int32_t)root->lid, (int32_t)child->lid}));

  // Disconnecting the child destroys its link only.  It also closes the
  // socket it shares with the root, so the root's copies are cleared here.
  uint32_t childLid = child->lid;
  kvtcp_Disconnect(child);
  EXPECT_TRUE(eventually([&] { return !sim->destroyedLinks().empty(); }));
  EXPECT_EQ(sim->destroyedLinks(), std::vector<int32_t>{(int32_t)childLid});
  root->S_Core = root->S_Abort = root->S_Intr = 0;
  root->Connected = 0;
}

// Failures leave the record down; a missing or refused abort channel is no failure.
TEST_F(Vxi11Test, ConnectOutcomes) {
  vxi11sim::Faults getportZero, linkError, noAbort, abortRefused;
  getportZero.getportZero = true;
  linkError.deviceErrorProc = VXI11_CREATE_LINK;
  linkError.deviceError = 3;  // device not accessible
  noAbort.abort = vxi11sim::AbortMode::None;
  abortRefused.abort = vxi11sim::AbortMode::Refused;
  const struct {
    const char* what;
    vxi11sim::Faults faults;
    vxi11sim::PortmapMode pm;
    const char* addr;
    int status;
  } cases[] = {
      {"port 0 from the portmapper", getportZero, vxi11sim::PortmapMode::Own, kAddr, VI_ERROR_RSRC_NFOUND},
      {"no portmapper", {}, vxi11sim::PortmapMode::None, kAddr, VI_ERROR_RSRC_NFOUND},
      {"create_link error", linkError, vxi11sim::PortmapMode::Own, kAddr, VI_ERROR_RSRC_NFOUND},
      {"host name (never resolved or broadcast)", {}, vxi11sim::PortmapMode::Own, "no.such.host.invalid",
       VI_ERROR_RSRC_NFOUND},
      {"no abort channel", noAbort, vxi11sim::PortmapMode::Own, kAddr, VI_SUCCESS},
      {"abort channel refused", abortRefused, vxi11sim::PortmapMode::Own, kAddr, VI_SUCCESS},
  };
  for (auto& c : cases) {
    SCOPED_TRACE(c.what);
    startSim(c.faults, c.pm);
    int st = 0;
    KvTcpInfo* r = connect("inst0", nullptr, &st, c.addr);
    EXPECT_EQ(st, c.status);
    EXPECT_EQ(r->S_Abort, 0);
    if (st == VI_SUCCESS) {
      EXPECT_EQ(query(r, "*OPC?\n"), Got(2, "1\n"));
    } else {
      EXPECT_EQ(std::make_tuple(r->Connected, r->S_Core, r->lid), std::make_tuple(0, 0, KVTCP_NO_LINK));
    }
    if (c.faults.getportZero) {  // the look-up itself reports an I/O error
      EXPECT_TRUE(logged("rpc reply wrong xid"));
      EXPECT_TRUE(logged("ErroR Connect TCP Interface"));
      int s = kt::connectTo(kAddr, 111);
      unsigned short port = 77;
      EXPECT_EQ(GetPMapVXI11(s, &port), VI_ERROR_IO);
      EXPECT_EQ(port, 77);
      close(s);
    }
    kvtcp_Close(r);
    sim->stop();
  }
}

TEST(Vxi11SimOptions, FaultSwitchesAndLoopbackOnly) {
  vxi11sim::Faults f;
  EXPECT_TRUE(vxi11sim::parseFault("late=13:500", &f));
  EXPECT_EQ(std::make_pair(f.lateProc, f.lateMs), std::make_pair(13, 500u));
  for (const char* bad : {"late=13", "no-abort=1", "bogus"}) EXPECT_FALSE(vxi11sim::parseFault(bad, &f)) << bad;
  vxi11sim::Options o;
  o.address = "10.1.2.3";
  std::string err;
  EXPECT_FALSE(vxi11sim::Simulator(o).start(&err));
  EXPECT_NE(err.find("loopback"), std::string::npos);
}

}  // namespace
