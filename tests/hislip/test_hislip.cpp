// HiSLIP client against a scripted server on 127.0.0.1:4880 (each case runs
// in its own network namespace).
#include <algorithm>

#include "peer.h"

using hs::Msg;
using hs::Peer;

namespace {

const char kAddr[] = "127.0.0.1";

// An answer slot, in whole words read atomically as the receive thread writes
// them; byte 2 is the message type (0: free).
std::vector<uint8_t> slotBytes(KvTcpInfo* r, int i) {
  std::vector<uint8_t> v(16);
  for (int k = 0; k < 4; k++) {
    uint32_t w = __atomic_load_n((volatile uint32_t*)&r->hislipAsyncIn[i] + k, __ATOMIC_ACQUIRE);
    memcpy(&v[4 * k], &w, 4);
  }
  return v;
}

}  // namespace

TEST(HislipConnect, HandshakeFillsRecordThenVendorMessagesArePadded) {
  Peer peer;
  peer.run([](Peer& p) {
    // The next message after the no-op second connect is the vendor write,
    // then two bridge queries.
    for (const char* answer : {"", "1234\0\0\0\0", "ABCDEFGH"}) {
      Msg m = hs::readMsg(p.sync);
      EXPECT_EQ(128, m.type);
      EXPECT_EQ(0u, m.param);
      EXPECT_EQ(8u, m.len);  // five bytes, rounded up to 32 bits
      EXPECT_EQ(*answer ? "cmd01" : "ping!", m.data.substr(0, 5));
      if (*answer) hs::sendMsg(p.sync, 128, 0, 0, std::string(answer, 8));
    }
  });
  KvTcpInfo* r = hs::connected();
  EXPECT_EQ(1, r->Connected);
  EXPECT_EQ(KVTCP_HISLIP, r->tcpType);
  EXPECT_EQ(4880, r->port);
  EXPECT_EQ(KVTCP_NO_LINK, r->lid);
  EXPECT_STREQ("", r->InstName);
  EXPECT_STREQ("_kv127_0_0_1Mutex_Intf", r->intfMutexName);
  EXPECT_EQ(1, r->hislipModeOverlap);
  EXPECT_EQ((int)0xFFFFFF00u, r->hislipOutMesageID);
  EXPECT_EQ(0x7FFF0000u, r->hislipMaximumMessageSize);
  EXPECT_EQ(0, memcmp(&r->hislipSessionID, "\x12\x34", 2));  // kept in wire order

  ASSERT_EQ(VI_SUCCESS, kvtcp_hislip_Connect(r, kAddr, "inst0"));
  EXPECT_FALSE(peer.pending());
  char ping[8] = "ping!..";  // three bytes of slack behind the five sent
  int n = -1;
  EXPECT_EQ(VI_SUCCESS, kvtcp_kvhislip_Write(r, ping, 5, 0, &n));
  EXPECT_EQ(5, n);
  char cmd[16] = "cmd01";
  char in[16] = {};
  EXPECT_EQ(0, kvtcp_kvhislip_Query(r, 2000, cmd, 5, in, 8, &n));
  EXPECT_EQ(8, n);
  EXPECT_EQ(0, memcmp(in, "1234", 4));
  // Five of eight bytes asked for: the call takes the three padding bytes
  // too and reports (and consumes) those, as designed.
  EXPECT_EQ(0, kvtcp_kvhislip_Query(r, 2000, cmd, 5, in, 5, &n));
  EXPECT_EQ(3, n);
  EXPECT_EQ(0, memcmp(in, "ABCDE", 5));
  EXPECT_EQ(128, r->hislipInHdr.msg);
  EXPECT_EQ(5u, r->hislipInHdr.dataLen);
  kvtcp_Close(r);
  peer.join();

  EXPECT_EQ("0/0 01000E76 inst0", hs::brief(peer.init));  // protocol 1.0, the vendor, the sub-address
  EXPECT_EQ("17/0 00001234", hs::brief(peer.asyncInit));    // the session id
}

// For both kinds of connection that this suite's peers serve (raw: port 5026).
TEST(HislipConnect, FailuresLeaveTheRecordDisconnected) {
  // An Error answer with a short text: the text read runs into its time-out.
  hs::Handshake errorAnswer{3, "no session"}, refusedAsync;
  refusedAsync.asyncType = 22;
  struct Case { const hs::Handshake* peer; const char* addr; const char* sub; uint16_t rawPort; };
  for (const Case& c : {Case{&errorAnswer, kAddr, "inst0", 0}, Case{&refusedAsync, kAddr, nullptr, 0},
                        Case{nullptr, kAddr, "inst0", 0}, Case{nullptr, kAddr, nullptr, 5026},  // no listener
                        Case{nullptr, "localhost", "inst0", 0}, Case{nullptr, "localhost", nullptr, 5026}}) {
    SCOPED_TRACE(testing::Message() << c.addr << " " << c.rawPort << " " << (c.peer ? c.peer->asyncType : 0));
    kt::LogCapture log;
    std::optional<Peer> peer;
    if (c.peer) peer.emplace().run([](Peer&) {}, *c.peer);
    KvTcpInfo* r = kt::newRecord();
    EXPECT_EQ(VI_ERROR_RSRC_NFOUND,
              c.rawPort ? kvtcp_sock_Connect(r, c.addr, c.rawPort) : kvtcp_hislip_Connect(r, c.addr, c.sub));
    EXPECT_EQ(0, r->Connected);
    EXPECT_EQ(0, r->S_Core);
    EXPECT_EQ(0, r->S_Intr);
    EXPECT_TRUE(log.has("ErroR Connect TCP Interface"));
    EXPECT_FALSE(log.has("get Error"));
    kvtcp_Close(r);
  }
}

// Descriptors and receive threads across a reconnect, then a peer that
// closes in the middle of a message.
TEST(HislipConnect, ReconnectSurvivesTheOldReceiveThreadThenThePeerLeaves) {
  Peer peer;
  KvTcpInfo* r = kt::newRecord();
  int base = hs::openFds();
  peer.run([](Peer&) {});
  ASSERT_EQ(VI_SUCCESS, kvtcp_hislip_Connect(r, kAddr, "inst0"));
  kvtcp_Disconnect(r);
  peer.join();

  hs::Handshake synchronized;  // the second server offers synchronized mode only
  synchronized.initCode = 0;
  peer.run([](Peer& p) {
    Msg q = hs::readMsg(p.async);
    EXPECT_EQ(21, q.type);
    hs::sendMsg(p.async, 22, 0x10, q.param);
    EXPECT_EQ(7, hs::readMsg(p.sync).type);
    hs::sendMsg(p.sync, 6, 0, 0, "0123456789", 100);  // and no more of it
    close(p.async);
    shutdown(p.sync, SHUT_WR);
    p.async = -1;
  }, synchronized);
  ASSERT_EQ(VI_SUCCESS, kvtcp_hislip_Connect(r, kAddr, "inst0"));
  EXPECT_EQ(0, r->hislipModeOverlap);  // taken from the response
  // The old thread has closed its duplicate: core, async, the new thread's
  // duplicate and the peer's two ends are all that is left open.
  EXPECT_TRUE(kt::eventually([&] { return hs::openFds() == base + 5; })) << hs::openFds() - base;
  EXPECT_NE(0, r->S_Intr);
  ViUInt16 stb = 0;
  EXPECT_EQ(VI_SUCCESS, kvtcp_ReadSTB(r, 2000, &stb));
  EXPECT_EQ(0xFFFF, stb);

  char buf[100] = "go";
  int n;
  EXPECT_EQ(VI_SUCCESS, kvtcp_Write(r, 2000, buf, 2, KVTCP_FLAG_END, &n));
  EXPECT_EQ(VI_ERROR_CONN_LOST, kvtcp_Read(r, 300, buf, sizeof buf, 0, 0, &n));
  // The receive thread saw its channel close, left and closed S_Intr.
  EXPECT_TRUE(kt::eventually([&] { return kvLoad(r->S_Intr) == 0; }));
  EXPECT_EQ(1, r->Connected);
  EXPECT_EQ(VI_ERROR_CONN_LOST, kvtcp_ReadSTB(r, 100, &stb));
  kvtcp_Close(r);
  peer.join();
  EXPECT_TRUE(kt::eventually([&] { return hs::openFds() == base; }));
}

// Out: a long message splits after its first send, message ids advance by 2.
// In: a message over several reads, then how each read ends.
TEST(HislipData, LongWriteThenReadsEndAndTerminate) {
  const int big = 0x40000;
  std::string payload(big, '\0');
  for (int i = 0; i < big; i++) payload[i] = (char)(i * 7);
  Peer peer;
  peer.run([&](Peer& p) {
    Msg m = hs::readMsg(p.sync);
    EXPECT_EQ(6, m.type);
    EXPECT_EQ(0xFFFFFF00u, m.param);
    EXPECT_TRUE(m.data == payload);
    EXPECT_EQ("7/0 FFFFFF02 tail!", hs::brief(hs::readMsg(p.sync)));  // not rounded: only vendor messages are
    hs::sendMsg(p.sync, 6, 0, 0x10, "ABCDEFGHIJKLMNOPQRSTUVWXY");
    hs::sendMsg(p.sync, 7, 0, 0x12, "abc");
    hs::sendMsg(p.sync, 6, 0, 0x14, "xy\n");
    hs::sendMsg(p.sync, 6, 0, 0x16, "xyz");
    hs::sendMsg(p.sync, 7, 0, 0x18, "");
    hs::sendMsg(p.sync, 7, 0, 0x1A, "ab\n");
  });
  KvTcpInfo* r = hs::connected();
  static std::vector<size_t> sends;  // the sizes handed to send, in order
  kvtcp_sys_send = [](int s, const void* b, size_t n, int f) {
    sends.push_back(n);  // only this thread sends on the channel here
    return send(s, b, n, f);
  };
  int n = -1;
  EXPECT_EQ(VI_SUCCESS, kvtcp_Write(r, 2000, payload.data(), big, 0, &n));
  EXPECT_EQ(big, n);
  char tail[8] = "tail!";
  EXPECT_EQ(VI_SUCCESS, kvtcp_Write(r, 2000, tail, 5, KVTCP_FLAG_END, &n));
  kvtcp_sys_send = send;
  EXPECT_EQ((std::vector<size_t>{16 + 0x3FFF0, 16, 21}), sends);

  // Status 0: more to come, 1: the termination character, 2: the message end
  // (which wins over the termination character).
  struct Step { ViUInt16 flags; int status, n, id; };
  const ViUInt16 E = KVTCP_FLAG_EOS;
  std::string got;
  for (const Step& s : {Step{0, 0, 10, 0x10}, Step{0, 0, 10, 0x10}, Step{0, 0, 5, 0x10}, Step{0, 2, 3, 0x12},
                        Step{E, 1, 3, 0x14}, Step{E, 0, 3, 0x16}, Step{0, 2, 0, 0x18}, Step{E, 2, 3, 0x1A}}) {
    char buf[16];
    EXPECT_EQ(s.status, kvtcp_Read(r, 2000, buf, 10, s.flags, '\n', &n)) << got;
    EXPECT_EQ(s.n, n) << got;
    EXPECT_EQ(s.id, r->hislipInMesageID) << got;
    got.append(buf, n);
    if (got.size() == 25) { EXPECT_EQ(0, r->hislipInHdr.msg); }  // the first message fully taken
  }
  EXPECT_EQ("ABCDEFGHIJKLMNOPQRSTUVWXYabcxy\nxyzab\n", got);
  kvtcp_Close(r);
}

// A bridge command while a plain read is half-way through a message, or
// after one gave up before its answer came: the command gets its own
// answer, the plain reader its message afterwards.  A rest that never comes
// costs the session, not the data.
TEST(HislipRead, BridgeCommandSetsAsideAHalfReadMessage) {
  std::atomic<bool> gaveUp{false};
  Peer peer;
  peer.run([&](Peer& p) {
    hs::sendMsg(p.sync, 7, 0, 0x10, "instrument answer\n");
    for (const char* answer : {"ANS1", "ANS2", "ANS3"}) {
      EXPECT_EQ(128, hs::readMsg(p.sync).type);
      if (answer[3] == '3') hs::sendMsg(p.sync, 7, 0, 0x14, "late\n");  // just before the command's answer
      hs::sendMsg(p.sync, 128, 0, 0, answer);
    }
    // A command whose answer comes after it gave up, behind a late plain
    // answer: the next command's resynchronisation keeps the one, drops the other.
    EXPECT_EQ(128, hs::readMsg(p.sync).type);
    EXPECT_TRUE(kt::eventually([&] { return gaveUp.load(); }));
    hs::sendMsg(p.sync, 7, 0, 0x16, "later\n");
    hs::sendMsg(p.sync, 128, 0, 0, "OLD4");
    EXPECT_EQ(128, hs::readMsg(p.sync).type);
    hs::sendMsg(p.sync, 128, 0, 0, "ANS5");
    kt::sendAllBytes(p.sync, kt::header(7, 0, 0x12, 50) + "cut");  // 47 bytes never come
    EXPECT_EQ(0xFF, hs::readMsg(p.sync).type);                     // no command is sent
  });
  KvTcpInfo* r = hs::connected();
  char buf[32] = {}, cmd[8] = "cmd";
  int n = 0;
  std::string got;
  for (const char* answer : {"ANS1", "ANS2"}) {  // a piece of the message, then a command
    EXPECT_EQ(0, kvtcp_Read(r, 2000, buf, 6, 0, 0, &n));
    got.append(buf, n);
    EXPECT_EQ(0, kvtcp_kvhislip_Query(r, 2000, cmd, 4, buf, 4, &n));
    EXPECT_EQ(answer, std::string(buf, n));
  }
  EXPECT_EQ(2, kvtcp_Read(r, 2000, buf, sizeof buf, 0, 0, &n));  // the rest, up to the message end
  got.append(buf, n);
  EXPECT_EQ("instrument answer\n", got);
  EXPECT_EQ(VI_ERROR_TMO, kvtcp_Read(r, 50, buf, sizeof buf, 0, 0, &n));  // its answer is not there yet
  EXPECT_EQ(0, kvtcp_kvhislip_Query(r, 2000, cmd, 4, buf, 4, &n));
  EXPECT_EQ("ANS3", std::string(buf, n));
  EXPECT_EQ(2, kvtcp_Read(r, 2000, buf, sizeof buf, 0, 0, &n));
  EXPECT_EQ("late\n", std::string(buf, n));
  EXPECT_EQ(VI_ERROR_TMO, kvtcp_kvhislip_Query(r, 50, cmd, 4, buf, 4, &n));
  gaveUp = true;
  EXPECT_EQ(0, kvtcp_kvhislip_Query(r, 2000, cmd, 4, buf, 4, &n));
  EXPECT_EQ("ANS5", std::string(buf, n));
  EXPECT_EQ(2, kvtcp_Read(r, 2000, buf, sizeof buf, 0, 0, &n));
  EXPECT_EQ("later\n", std::string(buf, n));
  EXPECT_EQ(0, kvtcp_Read(r, 2000, buf, 2, 0, 0, &n));
  EXPECT_EQ(VI_ERROR_CONN_LOST, kvtcp_kvhislip_Query(r, 2000, cmd, 4, buf, 4, &n));
  EXPECT_EQ(0, r->Connected);
  kvtcp_Close(r);
}

TEST(HislipRead, ErrorMessagesAndBrokenHeaders) {
  const int LOST = VI_ERROR_CONN_LOST;
  struct Row { std::string wire; int status; std::string logged; };
  const Row rows[] = {
      {kt::header(9, 0, 0, 4) + "junk", LOST, "Wait Data/DataEnd, get unexpected 9"},  // its payload is skipped
      {kt::header(3, 5, 0, 30) + "the command is not understood.", VI_ERROR_IO,
       "get Error 3/5, the command is not understood."},
      {kt::header(2, 1, 0, 40) + "the connection cannot go on, please stop", LOST,
       "get Error 2/1, the connection cannot go on, please stop"},
      {kt::header(3, 0, 0, 10) + "too short!", VI_ERROR_TMO, ""},  // shorter than a reply: never logged
      {"XS" + std::string(14, '\0'), LOST, "Wrong Header, get 58530000"},
      {kt::header(3, 0, 0, 300) + std::string(300, 'e'), LOST, "Wrong errLen, get Error 3/0, msg len 300"}};
  kt::LogCapture log;
  Peer peer;
  peer.run([&](Peer& p) {
    for (const Row& row : rows) kt::sendAllBytes(p.sync, row.wire);
  });
  KvTcpInfo* r = hs::connected();
  for (const Row& row : rows) {
    char buf[64];
    int n;
    EXPECT_EQ(row.status, kvtcp_Read(r, 2000, buf, sizeof buf, 0, 0, &n)) << row.logged;
    EXPECT_EQ(0, r->hislipInHdr.msg);
    EXPECT_TRUE(log.has(row.logged)) << row.logged;
  }
  EXPECT_FALSE(log.has("too short!"));
  kvtcp_Close(r);
}

TEST(HislipAsync, RingStatusByteAndDeviceClear) {
  Peer peer;
  peer.run([](Peer& p) {
    EXPECT_EQ("21/0 FFFFFF00", hs::brief(hs::readMsg(p.async)));  // left unanswered: it times out
    for (int i = 0; i < 9; i++) hs::sendMsg(p.async, 25, (int8_t)i, 0);
    hs::sendMsg(p.async, 16, 0, 0, std::string("\0\0\0\0\0\x01\x23\x45", 8));
    EXPECT_EQ("21/0 FFFFFF02", hs::brief(hs::readMsg(p.async)));
    hs::sendMsg(p.async, 22, 0x42, 0);
    hs::sendMsg(p.async, 16, 0, 0, std::string("\0\0\0\x01\0\0\0\0", 8));

    EXPECT_EQ(19, hs::readMsg(p.async).type);
    hs::sendMsg(p.async, 23, 1, 0);
    // The feature byte as read from the taken slot.
    EXPECT_EQ("8/255 00000000", hs::brief(hs::readMsg(p.sync)));
    hs::sendMsg(p.sync, 9, 0, 0);
    hs::sendMsg(p.async, 16, 0, 0, "1234", 4);  // malformed: the thread leaves
  });
  KvTcpInfo* r = hs::connected();
  ViUInt16 stb = 0;
  EXPECT_EQ(VI_ERROR_TMO, kvtcp_ReadSTB(r, 20, &stb));

  ASSERT_TRUE(kt::eventually([&] { return kvLoad(r->hislipMaximumMessageSize) == 0x12345u; }));
  for (int i = 0; i < 8; i++) {
    EXPECT_EQ(25, slotBytes(r, i)[2]);
    EXPECT_EQ(i, (int)slotBytes(r, i)[3]);  // the ninth was dropped
  }
  std::vector<std::vector<uint8_t>> before;
  for (int i = 0; i < 5; i++) before.push_back(slotBytes(r, i));
  for (int i = 5; i < 8; i++) __atomic_store_n(&r->hislipAsyncIn[i].msg, 0, __ATOMIC_RELEASE);  // as a reader frees them

  EXPECT_EQ(VI_SUCCESS, kvtcp_ReadSTB(r, 2000, &stb));
  EXPECT_EQ(0xFFFF, stb);
  for (int i = 0; i < 5; i++) EXPECT_EQ(before[i], slotBytes(r, i)) << i;
  std::vector<uint8_t> five = slotBytes(r, 5);
  EXPECT_EQ(0, five[2]);
  EXPECT_EQ(0xFF, five[3]);
  EXPECT_EQ((int)0xFFFFFF04u, r->hislipOutMesageID);
  EXPECT_TRUE(kt::eventually([&] { return kvLoad(r->hislipMaximumMessageSize) == 0x7FFF0000u; }));

  EXPECT_EQ(VI_SUCCESS, kvtcp_Clear(r, 2000));
  for (int i = 0; i < 8; i++) EXPECT_EQ(0, slotBytes(r, i)[2]);
  EXPECT_EQ((int)0xFFFFFF00u, r->hislipOutMesageID);

  EXPECT_TRUE(kt::eventually([&] { return kvLoad(r->S_Intr) == 0; }));
  EXPECT_EQ(1, r->Connected);
  EXPECT_EQ(VI_ERROR_CONN_LOST, kvtcp_Clear(r, 100));
  kvtcp_Close(r);
}

// A writer and a status reader on one connection take message ids at the
// same time (the status query needs no exchange): no two messages share one.
TEST(HislipAsync, WritesBesideStatusQueriesKeepTheirOwnIds) {
  constexpr int kEach = 300;
  std::vector<uint32_t> syncIds, asyncIds;
  Peer peer;
  peer.run([&](Peer& p) {
    std::thread status([&] {
      for (int k = 0; k < kEach; k++) {
        asyncIds.push_back(hs::readMsg(p.async).param);
        hs::sendMsg(p.async, 22, 0x10, 0);
      }
    });
    for (int k = 0; k < kEach; k++) syncIds.push_back(hs::readMsg(p.sync).param);
    status.join();
  });
  KvTcpInfo* r = hs::connected();
  std::thread writer([r] {
    for (int k = 0; k < kEach; k++) {
      char text[] = "x";
      int n;
      EXPECT_EQ(VI_SUCCESS, kvtcp_Write(r, 2000, text, 1, 0, &n));
    }
  });
  for (int k = 0; k < kEach; k++) {
    ViUInt16 stb = 0;
    EXPECT_EQ(VI_SUCCESS, kvtcp_ReadSTB(r, 2000, &stb));
  }
  writer.join();
  kvtcp_Close(r);
  peer.join();
  std::vector<uint32_t> ids = syncIds;
  ids.insert(ids.end(), asyncIds.begin(), asyncIds.end());
  std::sort(ids.begin(), ids.end());
  EXPECT_EQ(2u * kEach, ids.size());
  EXPECT_EQ(ids.end(), std::adjacent_find(ids.begin(), ids.end()));
}

namespace {
std::mutex gEventMutex;
std::vector<std::string> gEvents;  // the type, and a vendor event's first 12 bytes
void onEvent(pKvTcpInfo r) {
  std::lock_guard<std::mutex> g(gEventMutex);
  std::string e = std::to_string(r->hislipAsyncInMsg);
  gEvents.push_back(e == "128" ? e + " " + std::string(r->hislipAsyncCmdData, 12) : e);
}
}  // namespace

TEST(HislipAsync, ServiceRequestAndBridgeEvents) {
  Peer peer;
  peer.run([](Peer& p) {
    hs::sendMsg(p.async, 20, 0, 0);
    Msg q = hs::readMsg(p.async);
    EXPECT_EQ(21, q.type);
    hs::sendMsg(p.async, 22, 0x40, q.param);  // swallowed: it answers the thread's own query
    hs::sendMsg(p.async, 14, 0, 0);           // ignored
    hs::sendMsg(p.async, 30, 0, 0);           // unknown, ignored
    hs::sendMsg(p.async, 128, 0, 0, "IRQ:0123456.");
    hs::sendMsg(p.async, 128, 0, 0, "", 1445);  // too long for the payload buffer
  });
  kvtcp_setCallback(onEvent);
  KvTcpInfo* r = hs::connected();
  EXPECT_TRUE(kt::eventually([&] { return kvLoad(r->S_Intr) == 0; }));  // after the last event
  kvtcp_setCallback(nullptr);
  std::lock_guard<std::mutex> g(gEventMutex);
  EXPECT_EQ((std::vector<std::string>{"20", "128 IRQ:0123456."}), gEvents);
  EXPECT_EQ(0, r->hislipWaitAsyncStatus);
  for (int i = 0; i < 8; i++) EXPECT_EQ(0, slotBytes(r, i)[2]);
  EXPECT_EQ(1, r->Connected);
  kvtcp_Close(r);
}
