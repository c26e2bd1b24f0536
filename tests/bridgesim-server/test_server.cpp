// The simulated bridge's server layer, checked from the outside with a raw
// HiSLIP peer: session set-up, the instrument, the bridge command path, the
// asynchronous channel, malformed input, many sessions, faults, the control
// and raw ports, and stopping.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <thread>

#include "raw_hislip.h"
#include "sim.h"

using rawhs::Chan;
using rawhs::Msg;
using rawhs::Session;
using rawhs::word;
using rawhs::words;

namespace {

const char* kAddr = "127.0.0.2";

// Waits (bounded) for a condition that another thread brings about.
bool eventually(const std::function<bool()>& cond) {
  for (int i = 0; i < 500; ++i) {
    if (cond()) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return cond();
}

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

// ---------------------------------------------------------------- set-up

TEST_F(SimServer, SessionSetUpGivesDistinctIdsAndOverlapMode) {
  Session a = open(), b = open();
  EXPECT_NE(a.id, 0);
  EXPECT_NE(a.id, b.id);
  EXPECT_EQ(a.initCode & 1, 1) << "overlapped mode is the default offer";
  EXPECT_EQ(a.initParam >> 16, 0x0100u) << "protocol version 1.0";
  EXPECT_TRUE(eventually([&] { return server->sessionCount() == 2; }));
  EXPECT_EQ(server->stats().sessionsOpened, 2u);
}

TEST_F(SimServer, ClosingTheSyncChannelEndsTheSessionAndItsAsyncChannel) {
  Session s = open();
  ASSERT_TRUE(eventually([&] { return server->sessionCount() == 1; }));
  s.sync = Chan();
  EXPECT_TRUE(eventually([&] { return server->sessionCount() == 0; }));
  EXPECT_TRUE(s.async.closedByPeer());
}

// ---------------------------------------------------------------- instrument

TEST_F(SimServer, InstrumentAnswersQueriesAsDataEndWithTheRequestId) {
  Session s = open();
  auto r = s.query("*IDN?\n");
  ASSERT_TRUE(r);
  EXPECT_EQ(r->type, 7);
  EXPECT_EQ(r->param, 0xFFFFFF00u);
  EXPECT_EQ(r->text(), "Simulated,LAN-VXI Bridge,SIM0001,1.0\n");

  r = s.query("*OPC?;*STB?\n");
  ASSERT_TRUE(r);
  EXPECT_EQ(r->param, 0xFFFFFF02u);
  EXPECT_EQ(r->text(), "1;0\n");

  // A message split over Data and DataEnd is executed once, at its end;
  // commands without a query produce no answer at all.
  ASSERT_TRUE(s.sync.send(6, 0, 0x10, std::string("*CLS;*ID")));
  ASSERT_TRUE(s.sync.send(7, 0, 0x12, std::string("N?\n")));
  r = s.sync.recv();
  ASSERT_TRUE(r);
  EXPECT_EQ(r->param, 0x12u);
  EXPECT_EQ(r->text(), "Simulated,LAN-VXI Bridge,SIM0001,1.0\n");
}

TEST_F(SimServer, EnabledStatusRaisesAServiceRequest) {
  Session s = open();
  ASSERT_TRUE(s.sync.send(7, 0, 0, std::string("*SRE 4\n")));
  ASSERT_TRUE(s.sync.send(7, 0, 2, std::string("NOSUCH\n")));
  auto m = s.async.recv();
  ASSERT_TRUE(m);
  EXPECT_EQ(m->type, 20);
  EXPECT_EQ(m->code & 0x44, 0x44);
}

// ---------------------------------------------------------------- bridge commands

TEST_F(SimServer, BridgeCommandsAreAnsweredByTheBridgeAsOnePaddedVendorMessage) {
  Session s = open();
  bridgesim::HostId host;
  const std::vector<std::vector<uint8_t>> cmds = {
      words({16, 0}),                 // resource text
      words({0xEE, 0}),               // unknown code
      {0xEE, 0, 0, 0, 0, 0, 0, 0, 9},  // odd length
  };
  for (const auto& c : cmds) {
    auto r = s.command(c);
    ASSERT_TRUE(r);
    EXPECT_EQ(r->type, 128);
    EXPECT_EQ(r->data.size() % 4, 0u);
    std::vector<uint8_t> direct = server->bridge().handleCommand(host, c.data(), c.size());
    ASSERT_LE(direct.size(), r->data.size());
    EXPECT_EQ(r->data.size() - direct.size(), (4 - direct.size() % 4) % 4);
    EXPECT_TRUE(std::equal(direct.begin(), direct.end(), r->data.begin()));
  }
  EXPECT_EQ(static_cast<int32_t>(word(s.command(words({0xEE, 0}))->data, 0)) < 0, true);
  auto got = server->receivedCommands();
  ASSERT_EQ(got.size(), 4u);
  EXPECT_EQ(got[0], cmds[0]);
  EXPECT_EQ(got[2], cmds[2]);
  server->clearReceived();
  EXPECT_TRUE(server->receivedCommands().empty());
}

TEST_F(SimServer, RecordingKeepsOnlyTheNewestCommands) {
  bridgesim::ServerOptions o;
  o.recordLimit = 3;
  startWith(o);
  Session s = open();
  for (uint32_t i = 0; i < 5; ++i) ASSERT_TRUE(s.command(words({0xEE, i})));
  auto got = server->receivedCommands();
  ASSERT_EQ(got.size(), 3u);
  EXPECT_EQ(word(got[0], 1), 2u);
  EXPECT_EQ(word(got[2], 1), 4u);
}

// ---------------------------------------------------------------- async channel

TEST_F(SimServer, DeviceClearSequenceDropsPendingInputAndNegotiatesTheMode) {
  Session s = open();
  ASSERT_TRUE(s.sync.send(6, 0, 0, std::string("*IDN")));  // partial message
  ASSERT_TRUE(s.async.send(19, 0, 0));
  auto ack = s.async.recv();
  ASSERT_TRUE(ack);
  EXPECT_EQ(ack->type, 23);
  EXPECT_EQ(ack->code & 1, 1);
  ASSERT_TRUE(s.sync.send(7, 0, 0, std::string("?\n")));  // thrown away: clear in progress
  ASSERT_TRUE(s.sync.send(8, 0, 0));                      // client asks for synchronized mode
  auto done = s.sync.recv();
  ASSERT_TRUE(done);
  EXPECT_EQ(done->type, 9);
  EXPECT_EQ(done->code & 1, 0);
  auto r = s.query("*OPC?\n");
  ASSERT_TRUE(r);
  EXPECT_EQ(r->text(), "1\n") << "nothing of the cleared message may answer";
}

TEST_F(SimServer, MaximumMessageSizeAndLocks) {
  Session s = open();
  uint8_t size[8] = {0, 0, 0, 0, 0, 1, 0, 0};
  ASSERT_TRUE(s.async.send(15, 0, 0, size, 8));
  auto r = s.async.recv();
  ASSERT_TRUE(r);
  EXPECT_EQ(r->type, 16);
  ASSERT_EQ(r->data.size(), 8u);
  uint64_t v = 0;
  for (uint8_t b : r->data) v = v << 8 | b;
  EXPECT_EQ(v, 16u << 20);

  ASSERT_TRUE(s.async.send(15, 0, 0, size, 4));  // wrong length: Error, channel stays
  r = s.async.recv();
  ASSERT_TRUE(r);
  EXPECT_EQ(r->type, 3);

  auto ask = [&](uint8_t type, uint8_t code) {
    EXPECT_TRUE(s.async.send(type, code, 1000));
    return s.async.recv().value_or(Msg{});
  };
  EXPECT_EQ(ask(4, 1).code, 1);  // lock granted
  Msg info = ask(24, 0);
  EXPECT_EQ(info.type, 25);
  EXPECT_EQ(info.param, 1u);
  EXPECT_EQ(ask(4, 0).code, 1);  // released
  EXPECT_EQ(ask(4, 0).code, 3);  // nothing to release
  EXPECT_EQ(ask(10, 0).type, 11);
}

TEST_F(SimServer, UnsolicitedMessagesReachEverySession) {
  Session a = open(), b = open();
  server->sendServiceRequest();
  server->sendAsyncVendor({1, 2, 3, 4, 5, 6, 7, 8});
  server->sendInterrupt(3, 0xFF18);
  server->bridge().broadcastAsync(words({1, 1, 5, 0x42}));
  for (Session* s : {&a, &b}) {
    auto m = s->async.recv();
    ASSERT_TRUE(m);
    EXPECT_EQ(m->type, 20);
    EXPECT_EQ(m->code & 0x40, 0x40);
    m = s->async.recv();
    ASSERT_TRUE(m);
    EXPECT_EQ(m->type, 128);
    EXPECT_EQ(m->data, (std::vector<uint8_t>{1, 2, 3, 4, 5, 6, 7, 8}));
    m = s->async.recv();
    ASSERT_TRUE(m);
    EXPECT_EQ(m->data, words({1, 1, 3, 0xFF18}));
    m = s->async.recv();
    ASSERT_TRUE(m);
    EXPECT_EQ(m->data, words({1, 1, 5, 0x42}));
  }
}

// ---------------------------------------------------------------- malformed input

TEST_F(SimServer, BrokenSetUpIsAnsweredWithFatalError) {
  struct Case {
    std::vector<uint8_t> bytes;
    uint8_t code;
  } cases[] = {
      {{'X', 'S', 0, 0, 1, 0, 0x0E, 0x76, 0, 0, 0, 0, 0, 0, 0, 0}, 1},  // prologue
      {rawhs::header(6, 0, 0, 0), 3},                                   // Data first
      {rawhs::header(17, 0, 0x7777, 0), 3},                             // unknown session
      {rawhs::header(0, 0, 0x01000E76, 5000), 1},                       // sub-address too long
  };
  for (auto& c : cases) {
    Chan ch(kAddr, port);
    ASSERT_TRUE(ch.sendBytes(c.bytes));
    auto m = ch.recv();
    ASSERT_TRUE(m);
    EXPECT_EQ(m->type, 2);
    EXPECT_EQ(m->code, c.code);
    EXPECT_GE(m->data.size(), 28u) << "the client reads at least 28 bytes of error text";
    EXPECT_TRUE(ch.closedByPeer());
  }
  EXPECT_TRUE(open().sync.ok()) << "the server keeps serving";
}

TEST_F(SimServer, UnknownMessagesOnAnOpenSessionGetErrorAndTheSessionGoesOn) {
  Session s = open();
  ASSERT_TRUE(s.sync.send(99, 0, 0, std::string("abc")));
  auto m = s.sync.recv();
  ASSERT_TRUE(m);
  EXPECT_EQ(m->type, 3);
  EXPECT_EQ(m->code, 1);
  ASSERT_TRUE(s.sync.send(200, 0, 0, std::string("abcd")));
  m = s.sync.recv();
  ASSERT_TRUE(m);
  EXPECT_EQ(m->code, 3);
  ASSERT_TRUE(s.async.send(6, 0, 0, std::string("x")));  // Data on the async channel
  m = s.async.recv();
  ASSERT_TRUE(m);
  EXPECT_EQ(m->type, 3);
  EXPECT_EQ(s.query("*OPC?\n")->text(), "1\n");
}

TEST_F(SimServer, OversizedAndAbsurdLengthsAreBounded) {
  Session s = open();
  // Above the maximum message size: skipped without being stored, Error 4.
  std::vector<uint8_t> big = rawhs::header(128, 0, 0, (16u << 20) + 4);
  big.resize(big.size() + (16u << 20) + 4, 0xAB);
  std::thread sender([&] { s.sync.sendBytes(big); });
  auto m = s.sync.recv();
  sender.join();
  ASSERT_TRUE(m);
  EXPECT_EQ(m->type, 3);
  EXPECT_EQ(m->code, 4);
  EXPECT_TRUE(server->receivedCommands().empty());
  EXPECT_EQ(s.query("*OPC?\n")->text(), "1\n");

  // A length nobody could send: FatalError, no allocation, session closed.
  ASSERT_TRUE(s.sync.sendBytes(rawhs::header(7, 0, 0, 1ull << 62)));
  m = s.sync.recv();
  ASSERT_TRUE(m);
  EXPECT_EQ(m->type, 2);
  EXPECT_TRUE(s.sync.closedByPeer());
  EXPECT_TRUE(eventually([&] { return server->sessionCount() == 0; }));
}

TEST_F(SimServer, DataBeforeTheAsyncChannelAndTooManySessionsAreFatal) {
  bridgesim::ServerOptions o;
  o.maxSessions = 1;
  startWith(o);
  {
    Chan sync(kAddr, port);
    ASSERT_TRUE(sync.send(0, 0, 0x01000E76, std::string("inst0")));
    ASSERT_EQ(sync.recv()->type, 1);
    ASSERT_TRUE(sync.send(7, 0, 0, std::string("*IDN?\n")));
    auto m = sync.recv();
    ASSERT_TRUE(m);
    EXPECT_EQ(m->type, 2);
    EXPECT_EQ(m->code, 2);
  }
  ASSERT_TRUE(eventually([&] { return server->sessionCount() == 0; }));
  Session s = open();
  Chan second(kAddr, port);
  ASSERT_TRUE(second.send(0, 0, 0x01000E76, std::string("inst0")));
  auto m = second.recv();
  ASSERT_TRUE(m);
  EXPECT_EQ(m->type, 2);
  EXPECT_EQ(m->code, 4);
}

// ---------------------------------------------------------------- many sessions

// ---------------------------------------------------------------- faults

TEST_F(SimServer, DelayedAndWithheldAnswers) {
  Session s = open();
  server->updateFaults([](bridgesim::HislipFaults& f) { f.answerDelayMs = 300; });
  ASSERT_TRUE(s.sync.send(7, 0, 0, std::string("*OPC?\n")));
  EXPECT_FALSE(s.sync.readable(0)) << "the answer must not be there at once";
  EXPECT_EQ(s.sync.recv()->text(), "1\n");

  server->setFaults({.neverAnswer = true});
  ASSERT_TRUE(s.sync.send(7, 0, 0, std::string("*OPC?\n")));
  ASSERT_TRUE(s.async.send(21, 0, 0));
  EXPECT_FALSE(s.sync.readable(200));
  EXPECT_FALSE(s.async.readable(0));
  server->setFaults({});
  EXPECT_EQ(s.query("*IDN?\n")->text(), "Simulated,LAN-VXI Bridge,SIM0001,1.0\n");
}

TEST_F(SimServer, CloseMidMessageCutsTheNextAnswerOnce) {
  Session s = open();
  server->setFaults({.closeMidMessage = 10});
  ASSERT_TRUE(s.sync.send(128, 0, 0, words({0xEE, 0}).data(), 8));
  std::vector<uint8_t> got = s.sync.readToEnd();
  EXPECT_EQ(got.size(), 10u);
  EXPECT_EQ(got[0], 'H');
  EXPECT_EQ(server->faults().closeMidMessage, 0) << "one-shot";
  EXPECT_TRUE(eventually([&] { return server->sessionCount() == 0; }));
  EXPECT_EQ(open().command(words({0xEE, 0}))->type, 128);
}

TEST_F(SimServer, MalformedHeaderOnce) {
  Session s = open();
  server->setFaults({.malformedHeader = true});
  auto m = s.command(words({0xEE, 0}));
  ASSERT_TRUE(m);
  EXPECT_FALSE(m->prologueOk);
  m = s.command(words({0xEE, 0}));
  ASSERT_TRUE(m);
  EXPECT_TRUE(m->prologueOk);
}

TEST_F(SimServer, ErrorAndFatalErrorReplies) {
  Session s = open();
  server->setFaults({.errorReply = 3});
  for (int i = 0; i < 2; ++i) {  // lasting: every answer
    auto m = s.query("*IDN?\n");
    ASSERT_TRUE(m);
    EXPECT_EQ(m->type, 3);
    EXPECT_GE(m->data.size(), 28u);
  }
  server->setFaults({.errorReply = 2});
  auto m = s.command(words({0xEE, 0}));
  ASSERT_TRUE(m);
  EXPECT_EQ(m->type, 2);
  EXPECT_TRUE(s.sync.closedByPeer());
}

TEST_F(SimServer, FloodPrecedesTheAnswer) {
  Session s = open();
  server->setFaults({.floodAsync = 200});
  auto r = s.query("*OPC?\n");
  ASSERT_TRUE(r);
  for (int i = 0; i < 200; ++i) {
    auto m = s.async.recv();
    ASSERT_TRUE(m) << i;
    ASSERT_EQ(m->type, 128);
    ASSERT_EQ(word(m->data, 0), 1u);
    ASSERT_EQ(word(m->data, 1), 1u);
  }
  EXPECT_FALSE(s.async.readable(50));
  EXPECT_EQ(server->faults().floodAsync, 0);
}

// ---------------------------------------------------------------- control and raw ports

class Ports : public SimServer {
 protected:
  void SetUp() override {
    bridgesim::ServerOptions o;
    o.rawPort = 5025;
    o.controlPort = 4881;
    startWith(o);
  }

  std::string ask(Chan& c, const std::string& line) {
    std::vector<uint8_t> b(line.begin(), line.end());
    b.push_back('\n');
    if (!c.sendBytes(b)) return "send failed";
    std::string all, cur;
    char ch;
    while (c.readExact(&ch, 1)) {
      all += ch;
      if (ch != '\n') {
        cur += ch;
        continue;
      }
      if (cur.rfind("OK", 0) == 0 || cur.rfind("ERR", 0) == 0) break;
      cur.clear();
    }
    return all;
  }
};

TEST_F(Ports, ControlSocketSwitchesFaultsAndRaisesEvents) {
  Chan ctl(kAddr, server->controlPort());
  ASSERT_TRUE(ctl.ok());
  EXPECT_NE(ask(ctl, "help").find("close-mid"), std::string::npos);
  EXPECT_EQ(ask(ctl, "delay 25"), "OK\n");
  EXPECT_EQ(ask(ctl, "never on"), "OK\n");
  EXPECT_EQ(ask(ctl, "close-mid 7"), "OK\n");
  EXPECT_EQ(ask(ctl, "malformed on"), "OK\n");
  EXPECT_EQ(ask(ctl, "error fatal"), "OK\n");
  EXPECT_EQ(ask(ctl, "flood 3"), "OK\n");
  auto f = server->faults();
  EXPECT_EQ(f.answerDelayMs, 25);
  EXPECT_TRUE(f.neverAnswer);
  EXPECT_EQ(f.closeMidMessage, 7);
  EXPECT_TRUE(f.malformedHeader);
  EXPECT_EQ(f.errorReply, 2);
  EXPECT_EQ(f.floodAsync, 3);
  EXPECT_NE(ask(ctl, "faults").find("error fatal\n"), std::string::npos);

  EXPECT_EQ(ask(ctl, "cmd-status 4 0xBFFF003E"), "OK\n");
  EXPECT_EQ(ask(ctl, "cmd-empty -1"), "OK\n");
  EXPECT_EQ(ask(ctl, "busy 2"), "OK\n");
  auto k = server->commandFaults();
  EXPECT_EQ(k.statusCode, 4);
  EXPECT_EQ(static_cast<uint32_t>(k.forcedStatus), 0xBFFF003Eu);
  EXPECT_EQ(k.emptyCode, -1);
  EXPECT_EQ(k.busyTries, 2);

  EXPECT_EQ(ask(ctl, "clear"), "OK all faults off\n");
  EXPECT_FALSE(server->faults().neverAnswer);
  EXPECT_EQ(server->commandFaults().statusCode, 0);

  EXPECT_EQ(ask(ctl, "delay -5").rfind("ERR", 0), 0u);
  EXPECT_EQ(ask(ctl, "irq 9 1").rfind("ERR", 0), 0u);
  EXPECT_EQ(ask(ctl, "frobnicate").rfind("ERR", 0), 0u);

  Session s = open();
  EXPECT_EQ(ask(ctl, "irq 2 0xFF18"), "OK\n");
  EXPECT_EQ(ask(ctl, "srq"), "OK\n");
  EXPECT_EQ(ask(ctl, "async 0a 0B"), "OK\n");
  EXPECT_EQ(s.async.recv()->data, words({1, 1, 2, 0xFF18}));
  EXPECT_EQ(s.async.recv()->type, 20);
  EXPECT_EQ(s.async.recv()->data, (std::vector<uint8_t>{0x0A, 0x0B}));

  std::string st = ask(ctl, "stats");
  EXPECT_NE(st.find("sessions 1\n"), std::string::npos) << st;
  EXPECT_EQ(ask(ctl, "quit"), "OK bye\n");
  EXPECT_TRUE(ctl.closedByPeer());
}

// ---------------------------------------------------------------- start and stop

TEST_F(SimServer, StopEndsEverySessionEvenOneWaitingInAFault) {
  Session a = open(), b = open();
  server->setFaults({.answerDelayMs = 60000});
  ASSERT_TRUE(a.sync.send(7, 0, 0, std::string("*OPC?\n")));
  ASSERT_TRUE(eventually([&] { return server->stats().dataMessages == 1; }));
  server->stop();
  EXPECT_EQ(server->sessionCount(), 0u);
  EXPECT_TRUE(a.sync.closedByPeer());
  EXPECT_TRUE(b.async.closedByPeer());
  server->stop();  // twice is harmless
  EXPECT_LT(Chan(kAddr, port).fd(), 0) << "nothing listens any more";
}

TEST(SimServerStart, BusyPortAndBadAddressThrow) {
  bridgesim::ServerOptions o;
  o.address = "127.0.0.3";  // the default port, in the test's own network
  o.verbosity = 0;
  bridgesim::Server first(o);
  first.start();
  EXPECT_EQ(first.port(), 4880);
  bridgesim::Server second(o);
  EXPECT_THROW(second.start(), std::runtime_error);
  o.address = "not-an-address";
  bridgesim::Server third(o);
  EXPECT_THROW(third.start(), std::runtime_error);
  EXPECT_TRUE(bridgesim::isLoopbackAddress("127.1.2.3"));
  EXPECT_FALSE(bridgesim::isLoopbackAddress("10.0.0.1"));
  EXPECT_FALSE(bridgesim::isLoopbackAddress("localhost"));
}

}  // namespace
