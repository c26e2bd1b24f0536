// Connecting: portmapper look-up (the simulator's own and a real rpcbind),
// link creation, abort channel variants, the shared-root path, mutex names
// and connect failures.
#include "common.h"

using namespace vx;

namespace {

TEST_F(Vxi11Test, ConnectsThroughOwnPortmapperAndDestroysLinkOnDisconnect) {
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

  uint32_t lid = r->lid;
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

TEST_F(Vxi11Test, ConnectStatesAlreadyConnectedRecord) {
  startSim();
  KvTcpInfo* r = connect();
  uint32_t lid = r->lid;
  EXPECT_EQ(kvtcp_vxi11_Connect(nullptr, r, kAddr, "inst0"), VI_SUCCESS);
  EXPECT_EQ(r->lid, lid);
  EXPECT_EQ(sim->links().size(), 1u);
}

TEST_F(Vxi11Test, MutexNamesFollowTheAddress) {
  startSim();
  KvTcpInfo* r = connect();
  EXPECT_STREQ(r->coreMutexName, "_kv127_0_0_2Mutex_Core");
  EXPECT_STREQ(r->intfMutexName, "_kv127_0_0_2Mutex_Intf");
  EXPECT_NE(r->hCoreMutex, nullptr);
  EXPECT_NE(r->hIntfMutex, nullptr);
  EXPECT_EQ(kvtcp_Lock(r), VI_SUCCESS);
  kvtcp_UnLock(r);
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
  EXPECT_EQ(sim->links().size(), 2u);
  // The shared channel addresses the root's device, whatever the child asked for.
  EXPECT_EQ(sim->deviceNames(), (std::vector<std::string>{"inst0", "inst0"}));
  EXPECT_STREQ(child->InstName, "inst0");
  EXPECT_TRUE(logged("connected!"));

  // Each record writes under its own link id.
  char a[] = "*CLS\n", b[] = "*OPC?\n";
  int n = 0;
  ASSERT_EQ(kvtcp_Write(root, 1000, a, 5, 0x0002, &n), VI_SUCCESS);
  ASSERT_EQ(kvtcp_Write(child, 1000, b, 6, 0x0002, &n), VI_SUCCESS);
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

TEST_F(Vxi11Test, GetportZeroFailsTheConnect) {
  vxi11sim::Faults f;
  f.getportZero = true;
  startSim(f);
  int st = 0;
  KvTcpInfo* r = connect("inst0", nullptr, &st);
  EXPECT_EQ(st, VI_ERROR_RSRC_NFOUND);
  EXPECT_EQ(r->Connected, 0);
  EXPECT_EQ(r->S_Core, 0);
  EXPECT_TRUE(logged("rpc reply wrong xid"));
  EXPECT_TRUE(logged("ErroR Connect TCP Interface"));

  // The look-up itself reports an I/O error.
  int s = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_port = htons(111);
  inet_pton(AF_INET, kAddr, &a.sin_addr);
  ASSERT_EQ(::connect(s, (sockaddr*)&a, sizeof a), 0);
  unsigned short port = 77;
  EXPECT_EQ(GetPMapVXI11(s, &port), VI_ERROR_IO);
  EXPECT_EQ(port, 77);
  close(s);
}

TEST_F(Vxi11Test, NoPortmapperFailsTheConnect) {
  startSim({}, vxi11sim::PortmapMode::None);
  int st = 0;
  KvTcpInfo* r = connect("inst0", nullptr, &st);
  EXPECT_EQ(st, VI_ERROR_RSRC_NFOUND);
  EXPECT_EQ(r->Connected, 0);
  EXPECT_EQ(r->S_Core, 0);
}

TEST_F(Vxi11Test, HostNameIsNotConnectedToBroadcast) {
  startSim();
  KvTcpInfo* r = newRecord();
  opened.push_back(r);
  EXPECT_EQ(kvtcp_vxi11_Connect(nullptr, r, "no.such.host.invalid", "inst0"), VI_ERROR_RSRC_NFOUND);
  EXPECT_EQ(r->Connected, 0);
}

TEST_F(Vxi11Test, CreateLinkErrorFailsTheConnect) {
  vxi11sim::Faults f;
  f.deviceErrorProc = VXI11_CREATE_LINK;
  f.deviceError = 3;  // device not accessible
  startSim(f);
  int st = 0;
  KvTcpInfo* r = connect("inst0", nullptr, &st);
  EXPECT_EQ(st, VI_ERROR_RSRC_NFOUND);
  EXPECT_EQ(r->Connected, 0);
  EXPECT_EQ(r->S_Core, 0);
  EXPECT_EQ(r->lid, KVTCP_NO_LINK);
}

TEST_F(Vxi11Test, HugeMaxRecvSizeIsCapped) {
  vxi11sim::Faults f;
  f.maxRecvSize = 0xFFFFFFFFu;
  startSim(f);
  KvTcpInfo* r = connect();
  EXPECT_EQ(r->maxRecvSize, 0x7FFFFFFFu);
  std::vector<char> data(20001, 'x');
  int n = 0;
  ASSERT_EQ(kvtcp_Write(r, 1000, data.data(), 20000, 0x0002, &n), VI_SUCCESS);
  EXPECT_EQ(n, 20000);
  ASSERT_EQ(sim->writes().size(), 1u);
}

TEST_F(Vxi11Test, MissingOrRefusedAbortChannelIsNotAnError) {
  for (auto mode : {vxi11sim::AbortMode::None, vxi11sim::AbortMode::Refused}) {
    vxi11sim::Faults f;
    f.abort = mode;
    startSim(f);
    KvTcpInfo* r = connect();
    EXPECT_EQ(r->Connected, 1);
    EXPECT_EQ(r->S_Abort, 0);
    char q[] = "*OPC?\n";
    char in[16] = {};
    int n = 0;
    EXPECT_EQ(kvtcp_Query(r, 1000, q, 6, in, sizeof in, 0x0002, 0, &n), 2);
    EXPECT_STREQ(in, "1\n");
    kvtcp_Close(r);
    sim->stop();
  }
}

TEST_F(Vxi11Test, SimulatorServesTheAbortChannel) {
  startSim();
  KvTcpInfo* r = connect();
  ASSERT_NE(r->S_Abort, 0);
  struct {
    rpc_call_msg hdr;
    uint32_t lid;
  } call{};
  call.hdr.len = htonl(0x80000000u | (sizeof call - 4));
  call.hdr.xid = 0x11223344;
  call.hdr.rpcvers = htonl(2);
  call.hdr.prog = htonl(DEVICE_ASYNC_PROG);
  call.hdr.vers = htonl(1);
  call.hdr.proc = htonl(1);  // device_abort
  call.lid = htonl(r->lid);
  int n = 0;
  ASSERT_EQ(sendAll(r->S_Abort, (const char*)&call, sizeof call, &n), VI_SUCCESS);
  Device_Error reply{};
  ASSERT_EQ(recvMin(r->S_Abort, 2000, (char*)&reply, sizeof reply, sizeof reply, &n), VI_SUCCESS);
  EXPECT_EQ(reply.hdr.xid, 0x11223344u);
  EXPECT_EQ(reply.hdr.stat, 0u);
  EXPECT_EQ(reply.error, 0);
  EXPECT_EQ(sim->abortCount(), 1);
}

TEST(Vxi11SimOptions, FaultSwitchesAndLoopbackOnly) {
  vxi11sim::Faults f;
  EXPECT_TRUE(vxi11sim::parseFault("device-error=12:17", &f));
  EXPECT_EQ(f.deviceErrorProc, 12);
  EXPECT_EQ(f.deviceError, 17);
  EXPECT_TRUE(vxi11sim::parseFault("late=13:500", &f));
  EXPECT_EQ(f.lateProc, 13);
  EXPECT_EQ(f.lateMs, 500u);
  EXPECT_TRUE(vxi11sim::parseFault("huge-maxrecv", &f));
  EXPECT_EQ(f.maxRecvSize, 0xFFFFFFFFu);
  EXPECT_TRUE(vxi11sim::parseFault("refused-abort", &f));
  EXPECT_EQ(f.abort, vxi11sim::AbortMode::Refused);
  EXPECT_FALSE(vxi11sim::parseFault("late=13", &f));
  EXPECT_FALSE(vxi11sim::parseFault("no-abort=1", &f));
  EXPECT_FALSE(vxi11sim::parseFault("bogus", &f));

  vxi11sim::Options o;
  o.address = "10.1.2.3";
  vxi11sim::Simulator sim(o);
  std::string err;
  EXPECT_FALSE(sim.start(&err));
  EXPECT_NE(err.find("loopback"), std::string::npos);
}

}  // namespace
