// The simulated bridge's server layer, checked from outside with a raw HiSLIP
// peer: sessions, instrument, bridge commands, faults, control port, stopping.
#include <gtest/gtest.h>

#include "raw_hislip.h"
#include "sim.h"

using kt::eventually;
using kt::word;
using kt::words;
using rawhs::Chan;
using rawhs::Msg;
using rawhs::Session;

namespace {

const char* kAddr = "127.0.0.2";
const std::string kIdn = "Simulated,LAN-VXI Bridge,SIM0001,1.0\n";

// Fields of a message compared at once, so a failure shows them together.
std::pair<int, int> typeCode(const Msg& m) { return {m.type, m.code}; }
std::tuple<int, uint32_t, std::string> answer(const Msg& m) { return {m.type, m.param, m.data}; }

class SimServer : public ::testing::Test {
 protected:
  void SetUp() override { startWith({}); }
  void startWith(bridgesim::ServerOptions o) {
    if (server) server->stop();
    o.address = kAddr;
    o.port = 0;
    o.verbosity = 0;
    server = std::make_unique<bridgesim::Server>(o);
    server->start();
    port = server->port();
  }
  Session open() {
    auto s = Session::open(kAddr, port);
    if (!s) throw std::runtime_error("session set-up failed");
    return std::move(*s);
  }
  std::unique_ptr<bridgesim::Server> server;
  uint16_t port = 0;
};

TEST_F(SimServer, SessionSetUpAndClosingTheSyncChannel) {
  Session a = open(), b = open();
  EXPECT_NE(a.id, 0);
  EXPECT_NE(a.id, b.id);
  EXPECT_EQ(a.init.code & 1, 1) << "overlapped mode is the default offer";
  EXPECT_EQ(a.init.param >> 16, 0x0100u) << "protocol version 1.0";
  EXPECT_TRUE(eventually([&] { return server->sessionCount() == 2; }));
  EXPECT_EQ(server->stats().sessionsOpened, 2u);
  a.sync = Chan();  // ends the session and closes its async channel
  EXPECT_TRUE(eventually([&] { return server->sessionCount() == 1; }));
  EXPECT_TRUE(a.async.closedByPeer());
}

TEST_F(SimServer, InstrumentAnswersRaisesServiceRequestsAndIsCleared) {
  Session s = open();
  EXPECT_EQ(answer(s.query("*IDN?\n")), std::make_tuple(7, 0xFFFFFF00u, kIdn));
  EXPECT_EQ(answer(s.query("*OPC?;*STB?\n")), std::make_tuple(7, 0xFFFFFF02u, "1;0\n"));
  // A message split over Data and DataEnd is executed once, at its end;
  // commands without a query produce no answer at all.
  ASSERT_TRUE(s.sync.send(6, 0, 0x10, "*CLS;*ID"));
  ASSERT_TRUE(s.sync.send(7, 0, 0x12, "N?\n"));
  EXPECT_EQ(answer(s.sync.recv()), std::make_tuple(7, 0x12u, kIdn));
  ASSERT_TRUE(s.sync.send(7, 0, 0, "*SRE 4\n"));
  ASSERT_TRUE(s.sync.send(7, 0, 2, "NOSUCH\n"));
  EXPECT_EQ(typeCode(s.async.recv()), std::make_pair(20, 0x44)) << "RQS and the error-queue bit";

  // A device clear drops pending input and negotiates the mode.
  ASSERT_TRUE(s.sync.send(6, 0, 0, "*IDN"));  // partial message
  EXPECT_EQ(typeCode(s.async.ask(19, 0)), std::make_pair(23, 1));  // overlapped mode offered
  ASSERT_TRUE(s.sync.send(7, 0, 0, "?\n"));                          // thrown away: clear in progress
  EXPECT_EQ(typeCode(s.sync.ask(8, 0)), std::make_pair(9, 0)) << "the client asked for synchronized mode";
  EXPECT_EQ(s.query("*OPC?\n").data, "1\n") << "nothing of the cleared message may answer";
}

TEST_F(SimServer, BridgeCommandsAreAnsweredAsOnePaddedVendorMessage) {
  Session s = open();
  const std::string cmds[] = {words({16, 0}), words({0xEE, 0}), words({0xEE, 0}) + '\x09'};  // text, unknown, odd length
  for (const auto& c : cmds) {
    auto direct = server->bridge().handleCommand(bridgesim::HostId{}, (const uint8_t*)c.data(), c.size());
    direct.resize((direct.size() + 3) & ~size_t(3));  // zero padding to a whole word
    EXPECT_EQ(answer(s.command(c)), std::make_tuple(128, 0u, std::string(direct.begin(), direct.end())));
  }
  EXPECT_LT((int32_t)word(s.command(words({0xEE, 0})).data, 0), 0);
  auto got = server->receivedCommands();
  ASSERT_EQ(got.size(), 4u);
  EXPECT_EQ(std::string(got[2].begin(), got[2].end()), cmds[2]);
  server->clearReceived();
  EXPECT_TRUE(server->receivedCommands().empty());

  bridgesim::ServerOptions o;
  o.recordLimit = 3;  // only the newest commands are kept
  startWith(o);
  Session t = open();
  for (uint32_t i = 0; i < 5; ++i) t.command(words({0xEE, i}));
  got = server->receivedCommands();
  ASSERT_EQ(got.size(), 3u);
  EXPECT_EQ(word(std::string(got[0].begin(), got[0].end()), 1), 2u);
}

TEST_F(SimServer, UnsolicitedMessagesReachEverySession) {
  Session a = open(), b = open();
  server->sendServiceRequest();
  server->sendAsyncVendor({1, 2, 3, 4, 5, 6, 7, 8});
  server->sendInterrupt(3, 0xFF18);
  server->bridge().broadcastAsync({1, 0, 0, 0, 1, 0, 0, 0, 5, 0, 0, 0, 0x42, 0, 0, 0});
  for (Session* s : {&a, &b}) {
    EXPECT_EQ(typeCode(s->async.recv()), std::make_pair(20, 0x40));
    for (const std::string& body :
         {std::string("\1\2\3\4\5\6\7\x08"), words({1, 1, 3, 0xFF18}), words({1, 1, 5, 0x42})})
      EXPECT_EQ(answer(s->async.recv()), std::make_tuple(128, 0u, body));
  }
}

TEST_F(SimServer, BrokenOrRefusedSetUpIsAnsweredWithFatalError) {
  const std::string init = kt::header(0, 0, 0x01000E76, 5) + "inst0";
  const struct {
    std::string bytes;
    bool accepted;
    int code;
  } cases[] = {
      {"XS" + kt::header(0, 0, 0x01000E76, 0).substr(2), false, 1},  // prologue
      {kt::header(6, 0, 0, 0), false, 3},                            // Data first
      {kt::header(17, 0, 0x7777, 0), false, 3},                      // unknown session
      {kt::header(0, 0, 0x01000E76, 5000), false, 1},                // sub-address too long
      {init + kt::header(7, 0, 0, 6) + "*IDN?\n", true, 2},         // data before the async channel
  };
  for (auto& c : cases) {
    Chan ch(kAddr, port);
    ASSERT_TRUE(ch.sendBytes(c.bytes));
    Msg m = ch.recv();
    if (c.accepted) {  // the InitializeResponse comes first
      EXPECT_EQ(m.type, 1);
      m = ch.recv();
    }
    EXPECT_EQ(typeCode(m), std::make_pair(2, c.code));
    EXPECT_GE(m.data.size(), 28u) << "the client reads at least 28 bytes of error text";
    EXPECT_TRUE(ch.closedByPeer());
    EXPECT_TRUE(eventually([&] { return server->sessionCount() == 0; }));
  }
  EXPECT_TRUE(open().sync.ok()) << "the server keeps serving";
  bridgesim::ServerOptions o;
  o.maxSessions = 1;
  startWith(o);
  Session s = open();
  EXPECT_EQ(typeCode(Chan(kAddr, port).ask(0, 0x01000E76, "inst0")), std::make_pair(2, 4)) << "one session too many";
}

TEST_F(SimServer, MalformedMessagesGetErrorAndTheSessionGoesOnUnlessTheLengthIsAbsurd) {
  Session s = open();
  const std::string size("\0\0\0\0\0\1\0\0", 8);
  EXPECT_EQ(typeCode(s.sync.ask(99, 0, "abc")), std::make_pair(3, 1));  // unknown type
  EXPECT_EQ(typeCode(s.sync.ask(200, 0, "abcd")), std::make_pair(3, 3));  // unknown vendor type
  EXPECT_EQ(typeCode(s.async.ask(6, 0, "x")), std::make_pair(3, 1));  // Data on the async channel
  EXPECT_EQ(typeCode(s.async.ask(15, 0, size.substr(0, 4))), std::make_pair(3, 0));  // a size of the wrong length
  EXPECT_EQ(answer(s.async.ask(15, 0, size)), std::make_tuple(16, 0u, std::string("\0\0\0\0\1\0\0\0", 8)));
  // Above the maximum message size: skipped without being stored, Error 4.
  std::string big = kt::header(128, 0, 0, (16u << 20) + 4);
  big.resize(big.size() + (16u << 20) + 4, '\xAB');
  std::thread sender([&] { s.sync.sendBytes(big); });
  Msg m = s.sync.recv();
  sender.join();
  EXPECT_EQ(typeCode(m), std::make_pair(3, 4));
  EXPECT_TRUE(server->receivedCommands().empty());
  EXPECT_EQ(s.query("*OPC?\n").data, "1\n");

  // A length nobody could send: FatalError, no allocation, session closed.
  ASSERT_TRUE(s.sync.sendBytes(kt::header(7, 0, 0, 1ull << 62)));
  EXPECT_EQ(s.sync.recv().type, 2);
  EXPECT_TRUE(s.sync.closedByPeer());
  EXPECT_TRUE(eventually([&] { return server->sessionCount() == 0; }));
}

// What the client cannot see: which faults last, which are one-shot, what goes out on the wire.
TEST_F(SimServer, FaultsOnTheWire) {
  Session s = open();
  server->updateFaults([](bridgesim::HislipFaults& f) { f.answerDelayMs = 300; });
  ASSERT_TRUE(s.sync.send(7, 0, 0, "*OPC?\n"));
  EXPECT_FALSE(s.sync.readable(0)) << "the answer must not be there at once";
  EXPECT_EQ(s.sync.recv().data, "1\n");

  server->setFaults({.neverAnswer = true});
  ASSERT_TRUE(s.sync.send(7, 0, 0, "*OPC?\n"));
  ASSERT_TRUE(s.async.send(21, 0, 0));
  EXPECT_FALSE(s.sync.readable(200));
  EXPECT_FALSE(s.async.readable(0));
  server->setFaults({.malformedHeader = true});  // one-shot
  EXPECT_FALSE(s.command(words({0xEE, 0})).prologueOk);
  EXPECT_TRUE(s.command(words({0xEE, 0})).prologueOk);

  server->setFaults({.floodAsync = 200});  // one-shot, ahead of the answer
  EXPECT_EQ(s.query("*OPC?\n").data, "1\n");
  for (int i = 0; i < 200; ++i) {  // interrupt reports of one pair each
    Msg m = s.async.recv();
    ASSERT_EQ(std::make_tuple(int(m.type), word(m.data, 0), word(m.data, 1)), std::make_tuple(128, 1u, 1u)) << i;
  }
  EXPECT_FALSE(s.async.readable(50));
  EXPECT_EQ(server->faults().floodAsync, 0);

  server->setFaults({.errorReply = 3});
  for (int i = 0; i < 2; ++i) {  // lasting: every answer, with at least the 28 bytes of text a client reads
    Msg m = s.query("*IDN?\n");
    EXPECT_EQ(std::make_tuple(int(m.type), int(m.code), m.data.size() >= 28), std::make_tuple(3, 0, true));
  }
  server->setFaults({.errorReply = 2});
  EXPECT_EQ(s.command(words({0xEE, 0})).type, 2);
  EXPECT_TRUE(s.sync.closedByPeer());

  Session t = open();
  server->setFaults({.closeMidMessage = 10});
  ASSERT_TRUE(t.sync.send(128, 0, 0, words({0xEE, 0})));
  EXPECT_EQ(kt::drain(t.sync.fd), kt::header(128, 0, 0, 4).substr(0, 10));
  EXPECT_EQ(server->faults().closeMidMessage, 0) << "one-shot";
  EXPECT_TRUE(eventually([&] { return server->sessionCount() == 0; }));
  EXPECT_EQ(open().command(words({0xEE, 0})).type, 128);
}

TEST_F(SimServer, ControlAndRawPorts) {
  bridgesim::ServerOptions o;
  o.rawPort = 5025;
  o.controlPort = 4881;
  startWith(o);
  Chan raw(kAddr, 5025);
  ASSERT_TRUE(raw.sendBytes("*IDN?\n"));
  std::string line;
  for (char ch = 0; ch != '\n' && kt::readFull(raw.fd, &ch, 1);) line += ch;
  EXPECT_EQ(line, kIdn);

  // The commands' replies, as the control port sends them (its transport is checked last).
  auto ask = [&](const std::string& cmd) { return server->control(cmd); };
  EXPECT_NE(ask("help").find("close-mid"), std::string::npos);
  // Every switch, in the order the listing shows them: what is set is what is listed.
  std::string listing;
  for (std::string c : {"delay 25", "never on", "close-mid 7", "malformed on", "error fatal", "flood 3",
                        "cmd-status 4 0xBFFF003E", "cmd-empty -1", "cmd-inflate 5", "busy 2"}) {
    EXPECT_EQ(ask(c), "OK\n") << c;
    listing += c + "\n";
  }
  EXPECT_EQ(ask("faults"), listing + "OK\n");
  EXPECT_TRUE(server->faults().neverAnswer);
  EXPECT_EQ(server->commandFaults().busyTries, 2);
  EXPECT_EQ(ask("clear"), "OK all faults off\n");
  EXPECT_FALSE(server->faults().neverAnswer);
  EXPECT_EQ(server->commandFaults().statusCode, 0);
  for (auto c : {"delay -5", "irq 9 1", "frobnicate"}) EXPECT_EQ(ask(c).rfind("ERR", 0), 0u) << c;

  Session s = open();
  for (auto c : {"irq 2 0xFF18", "srq", "async 0a 0B"}) EXPECT_EQ(ask(c), "OK\n") << c;
  EXPECT_EQ(s.async.recv().data, words({1, 1, 2, 0xFF18}));
  EXPECT_EQ(s.async.recv().type, 20);
  EXPECT_EQ(s.async.recv().data, "\x0A\x0B");
  EXPECT_NE(ask("stats").find("sessions 1\n"), std::string::npos);
  Chan ctl(kAddr, server->controlPort());
  ASSERT_TRUE(ctl.sendBytes("stats\nquit\n"));
  EXPECT_EQ(kt::drain(ctl.fd), ask("stats") + "OK bye\n");
  EXPECT_TRUE(ctl.closedByPeer());
}

TEST_F(SimServer, StopEndsEverySessionEvenOneWaitingInAFault) {
  Session a = open(), b = open();
  server->setFaults({.answerDelayMs = 60000});
  ASSERT_TRUE(a.sync.send(7, 0, 0, "*OPC?\n"));
  ASSERT_TRUE(eventually([&] { return server->stats().dataMessages == 1; }));
  server->stop();
  EXPECT_EQ(server->sessionCount(), 0u);
  EXPECT_TRUE(a.sync.closedByPeer());
  EXPECT_TRUE(b.async.closedByPeer());
  server->stop();  // twice is harmless
  EXPECT_FALSE(Chan(kAddr, port).ok()) << "nothing listens any more";
}

}  // namespace
