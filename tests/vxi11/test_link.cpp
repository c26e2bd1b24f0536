// Connecting: portmapper look-up (the simulator's own and a real rpcbind),
// link creation, abort channel variants, the shared-root path, mutex names
// and connect failures.
#include "common.h"

using namespace vx;

namespace {

TEST_F(Vxi11Test, ConnectDisconnectAndConnectAgain) {
  startSim();
  KvTcpInfo* r = connect();
  ASSERT_EQ(r->Connected, 1);
  EXPECT_EQ(r->tcpType, KVTCP_VXI11);
  EXPECT_EQ(r->port, sim->corePort());
  EXPECT_STREQ(r->InstName, "inst0");
  EXPECT_EQ(r->maxRecvSize, 1024u);
  EXPECT_NE(r->S_Abort, 0);
  ASSERT_EQ(sim->links().size(), 1u);
  EXPECT_EQ((int32_t)r->lid, sim->links()[0]);
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
  EXPECT_EQ(r->Connected, 0);
  EXPECT_EQ(r->S_Core, 0);
  EXPECT_EQ(r->S_Abort, 0);
  EXPECT_TRUE(waitUntil([&] { return !sim->destroyedLinks().empty(); }));
  EXPECT_EQ(sim->destroyedLinks(), std::vector<int32_t>{(int32_t)lid});
  // A second connect of the same record reuses its mutexes and makes a new link.
  HANDLE core = r->hCoreMutex;
  ASSERT_EQ(kvtcp_vxi11_Connect(nullptr, r, kAddr, "inst0"), VI_SUCCESS);
  EXPECT_EQ(r->hCoreMutex, core);
  EXPECT_NE(r->lid, lid);
}

TEST_F(Vxi11Test, ConnectsThroughRealRpcbind) {
  Rpcbind rb;
  std::string why;
  if (!rb.start(&why)) GTEST_SKIP() << "no rpcbind: " << why;
  startSim({}, vxi11sim::PortmapMode::Auto);
  ASSERT_TRUE(sim->usesRpcbind());
  ASSERT_FALSE(sim->servesPortmap());
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
  EXPECT_EQ(child->S_Core, root->S_Core);
  EXPECT_EQ(child->S_Abort, root->S_Abort);
  EXPECT_EQ(child->port, root->port);
  EXPECT_NE(child->lid, root->lid);
  EXPECT_NE(child->lid, KVTCP_NO_LINK);
  // The shared channel addresses the root's device, whatever the child asked for.
  EXPECT_EQ(sim->deviceNames(), (std::vector<std::string>{"inst0", "inst0"}));
  EXPECT_STREQ(child->InstName, "inst0");
  EXPECT_TRUE(logged("connected!"));

  // Each record writes under its own link id.
  send(root, "*CLS\n");
  send(child, "*OPC?\n");
  auto w = sim->writes();
  ASSERT_EQ(w.size(), 2u);
  EXPECT_EQ(w[0].lid, (int32_t)root->lid);
  EXPECT_EQ(w[1].lid, (int32_t)child->lid);

  // Disconnecting the child destroys its link only.  It also closes the
  // socket it shares with the root (that is how disconnect works), so the
  // root's copies of the shared fields are cleared by hand here.
  uint32_t childLid = child->lid;
  kvtcp_Disconnect(child);
  EXPECT_TRUE(waitUntil([&] { return !sim->destroyedLinks().empty(); }));
  EXPECT_EQ(sim->destroyedLinks(), std::vector<int32_t>{(int32_t)childLid});
  root->S_Core = root->S_Abort = root->S_Intr = 0;
  root->Connected = 0;
}

TEST_F(Vxi11Test, ConnectFailuresLeaveTheRecordDown) {
  vxi11sim::Faults getportZero, linkError;
  getportZero.getportZero = true;
  linkError.deviceErrorProc = VXI11_CREATE_LINK;
  linkError.deviceError = 3;  // device not accessible
  const struct {
    const char* what;
    vxi11sim::Faults faults;
    vxi11sim::PortmapMode pm;
    const char* addr;
  } cases[] = {
      {"port 0 from the portmapper", getportZero, vxi11sim::PortmapMode::Own, kAddr},
      {"no portmapper", {}, vxi11sim::PortmapMode::None, kAddr},
      {"create_link error", linkError, vxi11sim::PortmapMode::Own, kAddr},
      {"host name (never resolved or broadcast)", {}, vxi11sim::PortmapMode::Own, "no.such.host.invalid"},
  };
  for (auto& c : cases) {
    SCOPED_TRACE(c.what);
    startSim(c.faults, c.pm);
    int st = 0;
    KvTcpInfo* r = connect("inst0", nullptr, &st, c.addr);
    EXPECT_EQ(st, VI_ERROR_RSRC_NFOUND);
    EXPECT_EQ(r->Connected, 0);
    EXPECT_EQ(r->S_Core, 0);
    EXPECT_EQ(r->lid, KVTCP_NO_LINK);
    if (c.faults.getportZero) {
      EXPECT_TRUE(logged("rpc reply wrong xid"));
      EXPECT_TRUE(logged("ErroR Connect TCP Interface"));
      int s = kt::connectTo(kAddr, 111);  // the look-up itself reports an I/O error
      unsigned short port = 77;
      EXPECT_EQ(GetPMapVXI11(s, &port), VI_ERROR_IO);
      EXPECT_EQ(port, 77);
      close(s);
    }
    sim->stop();
  }
}

TEST_F(Vxi11Test, MissingOrRefusedAbortChannelIsNotAnError) {
  for (auto mode : {vxi11sim::AbortMode::None, vxi11sim::AbortMode::Refused}) {
    vxi11sim::Faults f;
    f.abort = mode;
    startSim(f);
    KvTcpInfo* r = connect();
    EXPECT_EQ(r->Connected, 1);
    EXPECT_EQ(r->S_Abort, 0);
    EXPECT_EQ(query(r, "*OPC?\n"), Got(2, "1\n"));
    kvtcp_Close(r);
    sim->stop();
  }
}

TEST(Vxi11SimOptions, FaultSwitchesAndLoopbackOnly) {
  vxi11sim::Faults f;
  EXPECT_TRUE(vxi11sim::parseFault("late=13:500", &f));
  EXPECT_EQ(f.lateProc, 13);
  EXPECT_EQ(f.lateMs, 500u);
  for (const char* bad : {"late=13", "no-abort=1", "bogus"}) EXPECT_FALSE(vxi11sim::parseFault(bad, &f)) << bad;
  vxi11sim::Options o;
  o.address = "10.1.2.3";
  vxi11sim::Simulator sim(o);
  std::string err;
  EXPECT_FALSE(sim.start(&err));
  EXPECT_NE(err.find("loopback"), std::string::npos);
}

}  // namespace
