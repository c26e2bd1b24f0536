// An independent VXI-11 client (liblxi, on libtirpc) against the simulator:
// shows the simulator to be a standard VXI-11 device, so the transport's
// tests against it mean something.
#include <lxi.h>

#include "common.h"

using namespace vx;

// liblxi keeps a few bytes per connection for the life of the process; that
// is its own business, not a leak of the code under test.
extern "C" __attribute__((used, visibility("default"))) const char* __lsan_default_suppressions() {
  return "leak:liblxi.so\n";
}

namespace {

void talkWithLxi(vxi11sim::Simulator& sim, const char* addr) {
  ASSERT_EQ(lxi_init(), LXI_OK);
  int dev = lxi_connect(addr, 0, "inst0", 2000, VXI11);
  ASSERT_GE(dev, 0) << "liblxi could not connect";
  const char cmd[] = "*IDN?";
  ASSERT_EQ(lxi_send(dev, cmd, (int)strlen(cmd), 2000), (int)strlen(cmd));
  char buf[256] = {};
  int n = lxi_receive(dev, buf, sizeof buf - 1, 2000);
  ASSERT_GT(n, 0);
  EXPECT_EQ(std::string(buf, (size_t)n), "KVSIM,VXI11-INSTRUMENT,0,1.0\n");

  const char data[] = "DATA? 3000";
  ASSERT_EQ(lxi_send(dev, data, (int)strlen(data), 2000), (int)strlen(data));
  std::vector<char> big(4000);
  n = lxi_receive(dev, big.data(), (int)big.size(), 2000);
  ASSERT_GT(n, 0);
  EXPECT_EQ(std::string(big.data(), (size_t)n), block(3000));

  auto w = sim.writes();
  ASSERT_EQ(w.size(), 2u);
  EXPECT_EQ(w[0].data, "*IDN?");
  EXPECT_EQ(w[0].flags & 8, 8);  // END on the message
  EXPECT_EQ(sim.links().size(), 1u);
  EXPECT_EQ(lxi_disconnect(dev), LXI_OK);
  EXPECT_TRUE(waitUntil([&] { return sim.destroyedLinks().size() == 1; }));
}

TEST_F(Vxi11Test, LiblxiTalksToSimulatorThroughRpcbind) {
  Rpcbind rb;
  std::string why;
  if (!rb.start(&why)) GTEST_SKIP() << "no rpcbind: " << why;
  // rpcbind answers address look-ups with the address of the interface the
  // question came in on (127.0.0.1 on loopback), so the device sits there.
  startSim({}, vxi11sim::PortmapMode::Rpcbind, "127.0.0.1");
  talkWithLxi(*sim, "127.0.0.1");
  sim->stop();
}

TEST_F(Vxi11Test, LiblxiTalksToSimulatorThroughItsOwnPortmapper) {
  startSim({}, vxi11sim::PortmapMode::Own);
  talkWithLxi(*sim, kAddr);
}

}  // namespace
