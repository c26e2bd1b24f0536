// Message I/O, status byte and clear over a VXI-11 link: chunking, both read
// paths, reasons, device errors, wrong transaction ids, time-outs.
#include "common.h"

using namespace vx;

namespace {

class Vxi11Io : public Vxi11Test {
 protected:
  // The record's error state after a call: last error, core state, connected.
  static std::tuple<int, int, int> after(const KvTcpInfo* r) { return {r->LastError, r->CoreState, r->Connected}; }
  KvTcpInfo* up(uint32_t maxRecv = 1024, int lateProc = 0, uint32_t lateMs = 0) {
    vxi11sim::Faults f;
    f.maxRecvSize = maxRecv;
    f.lateProc = lateProc;
    f.lateMs = lateMs;
    startSim(f);
    return connect();
  }
};

TEST_F(Vxi11Io, WriteChunksFollowMaxRecvSize) {
  const struct {
    uint32_t maxRecv;
    int count;
    ViUInt16 flags;
    std::vector<std::pair<size_t, int32_t>> chunks;  // size and flags of each device_write
  } cases[] = {
      {1024, 300, 0x0002, {{300, 8}}},
      {200, 300, 0x0002, {{136, 0}, {136, 0}, {28, 8}}},
      {200, 300, 0x0001, {{136, 0}, {136, 0}, {28, 8}}},  // either low bit asks for END
      {200, 300, 0x0000, {{136, 0}, {136, 0}, {28, 0}}},
      {1024, 301, 0x0002, {{301, 8}}},  // unaligned large chunk (copied and padded)
      {1024, 191, 0x0002, {{191, 8}}},  // small chunk (built in place)
      {100, 10, 0x0002, {{10, 8}}},
      {0xFFFFFFFFu, 20000, 0x0002, {{20000, 8}}},  // a huge offer is capped, not taken as negative
  };
  for (const auto& c : cases) {
    SCOPED_TRACE("maxRecvSize " + std::to_string(c.maxRecv) + " count " + std::to_string(c.count));
    KvTcpInfo* r = up(c.maxRecv);
    EXPECT_EQ(r->maxRecvSize, std::min(c.maxRecv, 0x7FFFFFFFu));
    std::string data = pattern((size_t)c.count) + '\0';
    int n = -1;
    ASSERT_EQ(kvtcp_Write(r, 1000, data.data(), c.count, c.flags, &n), VI_SUCCESS);
    EXPECT_EQ(n, c.count);
    std::vector<std::pair<size_t, int32_t>> chunks;
    std::string joined;
    for (const auto& w : sim->writes()) {
      chunks.emplace_back(w.data.size(), w.flags);
      EXPECT_EQ(w.lid, (int32_t)r->lid);
      joined += w.data;
    }
    EXPECT_EQ(chunks, c.chunks);
    EXPECT_EQ(joined, pattern((size_t)c.count));
    kvtcp_Close(r);
    sim->stop();
  }
}

TEST_F(Vxi11Io, ReadsOnBothSidesOfTheSingleReplyLimit) {
  KvTcpInfo* r = up();
  for (int count : {1, 3, 214, 215, 216, 217, 1000, 5000}) {
    send(r, "ECHO? " + pattern((size_t)count - 1));
    EXPECT_EQ(read(r, count), Got(2, pattern((size_t)count - 1) + "\n")) << count;
  }
  EXPECT_EQ(query(r, "*IDN?"), Got(2, kIdn)) << "the stream stays in step (padding consumed)";
}

TEST_F(Vxi11Io, ReadReasonsStatusByteAndClear) {
  KvTcpInfo* r = up();
  // Count reached before the end: reason 0, the rest stays for the next read.
  send(r, "DATA? 300");
  EXPECT_EQ(read(r, 100), Got(0, block(300).substr(0, 100)));
  EXPECT_EQ(read(r, 400), Got(2, block(300).substr(100)));
  send(r, "ECHO? hello");  // termination character
  EXPECT_EQ(read(r, 400, 0x0003, 'l'), Got(1, "hel"));
  EXPECT_EQ(read(r, 400), Got(2, "lo\n"));

  sim->setStatusByte(0x51);
  EXPECT_EQ(stb(r), std::make_pair(VI_SUCCESS, 0x51));

  send(r, "DATA? 50");  // a clear empties the output queue
  EXPECT_EQ(kvtcp_Clear(r, 1000), VI_SUCCESS);
  EXPECT_EQ(sim->clearCount(), 1);
  EXPECT_EQ(query(r, "*OPC?"), Got(2, "1\n"));
}

// A read with nothing queued waits for output, as a device does, instead
// of failing at once: a second link's query fills the queue meanwhile.
TEST_F(Vxi11Io, EmptyReadWaitsForOutput) {
  KvTcpInfo* r = up();
  KvTcpInfo* other = connect();
  Got got;
  std::thread reader([&] { got = read(r, 64, 0x0002, 0, 20000); });
  ASSERT_TRUE(eventually([&] {
    auto c = sim->calls();
    return std::count(c.begin(), c.end(), VXI11_READ) == 1;
  }));
  send(other, "*IDN?");
  reader.join();
  EXPECT_EQ(got, Got(2, kIdn));
}

TEST_F(Vxi11Io, DeviceErrorsBecomeIoErrors) {
  for (int proc : {VXI11_WRITE, VXI11_READ, VXI11_READSTB, VXI11_CLEAR}) {
    SCOPED_TRACE(proc);
    kt::LogCapture rowLog;  // this row's lines only
    vxi11sim::Faults f;
    f.deviceErrorProc = proc;
    f.deviceError = 17;
    startSim(f);
    KvTcpInfo* r = connect();
    char buf[64] = "*OPC?\n";
    int n = 0, st = 0;
    switch (proc) {
      case VXI11_WRITE: st = kvtcp_Write(r, 1000, buf, 6, 0x0002, &n); break;
      case VXI11_READ: st = kvtcp_Read(r, 1000, buf, sizeof buf, 0x0002, 0, &n); break;
      case VXI11_READSTB: st = stb(r).first; break;
      case VXI11_CLEAR: st = kvtcp_Clear(r, 1000); break;
    }
    EXPECT_EQ(st, VI_ERROR_IO);
    EXPECT_EQ(n, 0);
    EXPECT_EQ(r->Connected, 1);
    EXPECT_EQ(logged("err1..."), proc == VXI11_READSTB || proc == VXI11_CLEAR);
    kvtcp_Close(r);
    sim->stop();
  }
}

TEST_F(Vxi11Io, WrongTransactionIdIsAnIoErrorAndTheLinkRecovers) {
  KvTcpInfo* r = up();
  vxi11sim::Faults f = sim->faults();
  f.wrongXidProc = VXI11_READSTB;
  sim->setFaults(f);
  EXPECT_EQ(stb(r).first, VI_ERROR_IO);
  EXPECT_EQ(after(r), std::make_tuple(VI_ERROR_IO, -1, 1));
  EXPECT_TRUE(logged("rpc reply wrong xid"));
  f.wrongXidProc = 0;
  sim->setFaults(f);
  sim->setStatusByte(7);
  EXPECT_EQ(stb(r), std::make_pair(VI_SUCCESS, 7));
  EXPECT_EQ(after(r), std::make_tuple(0, 0, 1));

  // The same on a write, whose reply goes through the two-part request.
  f.wrongXidProc = VXI11_WRITE;
  sim->setFaults(f);
  std::string data = pattern(400);
  int n = 0;
  EXPECT_EQ(kvtcp_Write(r, 1000, data.data(), 400, 0x0002, &n), VI_ERROR_IO);
  EXPECT_EQ(n, 0);
}

TEST_F(Vxi11Io, TwoTimeoutsInARowLoseTheConnection) {
  for (int proc : {VXI11_READSTB, VXI11_CLEAR}) {
    SCOPED_TRACE(proc);
    KvTcpInfo* r = up(1024, proc, 800);
    auto call = [&] { return proc == VXI11_CLEAR ? kvtcp_Clear(r, 50) : stb(r, 50).first; };
    EXPECT_EQ(call(), VI_ERROR_TMO);
    // A clear drains the socket itself; a status read leaves that to the next call.
    EXPECT_EQ(after(r), std::make_tuple(VI_ERROR_TMO, proc == VXI11_READSTB ? -1 : 0, 1));
    EXPECT_EQ(call(), VI_ERROR_CONN_LOST);
    EXPECT_EQ(std::make_tuple(r->LastError, r->Connected, r->S_Core), std::make_tuple(VI_ERROR_CONN_LOST, 0, 0));
    // From here on every call is refused at once.
    char buf[8] = {};
    int n = 5;
    EXPECT_EQ(kvtcp_Write(r, 100, buf, 1, 0, &n), VI_ERROR_CONN_LOST);
    EXPECT_EQ(n, 0);
    EXPECT_EQ(read(r, 1).first, VI_ERROR_CONN_LOST);
    EXPECT_EQ(stb(r).first, VI_ERROR_CONN_LOST);
    EXPECT_EQ(kvtcp_Clear(r, 100), VI_ERROR_CONN_LOST);
    sim->stop();
  }
}

TEST_F(Vxi11Io, TimeoutThenSuccessDoesNotLoseTheConnection) {
  KvTcpInfo* r = up(1024, VXI11_READ, 600);
  send(r, "DATA? 20");
  EXPECT_EQ(read(r, 64, 0x0002, 0, 50).first, VI_ERROR_TMO);
  vxi11sim::Faults f = sim->faults();
  f.lateProc = 0;
  sim->setFaults(f);
  // The late reply is drained before the next call goes out.
  ASSERT_TRUE(eventually([&] { return CheckForRecv(r->S_Core, 0) == 1; }));
  sim->setStatusByte(3);
  EXPECT_EQ(stb(r), std::make_pair(VI_SUCCESS, 3));
  EXPECT_EQ(after(r), std::make_tuple(0, 0, 1));
}

}  // namespace
