// The tcpvxi-bridge-sim program: command line, refused addresses, resource
// text, a port in use, a clean stop on SIGTERM with sessions open.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>

#include "raw_hislip.h"
#include "sim.h"
#include "tcpvxi_version.h"

namespace {

const std::string kProgram = std::string(KV_BUILD_DIR) + "/tools/bridge-sim/tcpvxi-bridge-sim";

struct Child {
  pid_t pid = -1;
  int out = -1;  // stdout and stderr together
};

Child spawn(std::vector<std::string> args) {
  int p[2];
  if (pipe(p) != 0) return {};
  pid_t pid = fork();
  if (pid == 0) {
    dup2(p[1], 1);
    dup2(p[1], 2);
    close(p[0]);
    close(p[1]);
    args.insert(args.begin(), kProgram);
    std::vector<char*> av;
    for (auto& a : args) av.push_back(a.data());
    av.push_back(nullptr);
    execv(kProgram.c_str(), av.data());
    _exit(127);
  }
  close(p[1]);
  return {pid, p[0]};
}

int finish(Child c, std::string* output) {
  *output = kt::drain(c.out);  // until the child exits
  close(c.out);
  int st = 0;
  waitpid(c.pid, &st, 0);
  return WIFEXITED(st) ? WEXITSTATUS(st) : 128 + WTERMSIG(st);
}

int run(const std::vector<std::string>& args, std::string* output) { return finish(spawn(args), output); }

TEST(Program, CommandLine) {
  std::string out;
  EXPECT_EQ(run({"--help"}, &out), 0);
  for (const char* w : {"--address", "--raw-port", "--control-port", "--allow-any-address", "irq <line> <statid>"})
    EXPECT_NE(out.find(w), std::string::npos) << w;
  EXPECT_EQ(run({"--version"}, &out), 0);
  EXPECT_EQ(out, "tcpvxi-bridge-sim " TCPVXI_VERSION "\n");
  EXPECT_EQ(run({"--print-resources"}, &out), 0);
  EXPECT_EQ(out, bridgesim::Bridge().resourceText());

  EXPECT_EQ(run({"--address", "192.0.2.1"}, &out), 2);  // refused, never bound
  EXPECT_NE(out.find("--allow-any-address"), std::string::npos);
  for (auto bad : {std::vector<std::string>{"--port", "70000"}, {"--port", "12x"}, {"--error-reply", "maybe"},
                   {"--cmd-status", "3"}, {"--no-such-option"}, {"stray"}})
    EXPECT_EQ(run(bad, &out), 2) << bad[0];

  bridgesim::ServerOptions o;
  o.address = "127.0.0.5";
  o.verbosity = 0;
  bridgesim::Server holder(o);
  holder.start();
  EXPECT_EQ(run({"--address", "127.0.0.5"}, &out), 1);
  EXPECT_NE(out.find("in use"), std::string::npos) << out;
  EXPECT_THROW(bridgesim::Server(o).start(), std::runtime_error);  // the same through the API
  o.address = "not-an-address";
  EXPECT_THROW(bridgesim::Server(o).start(), std::runtime_error);
  EXPECT_TRUE(bridgesim::isLoopbackAddress("127.1.2.3"));
  EXPECT_FALSE(bridgesim::isLoopbackAddress("10.0.0.1"));
  EXPECT_FALSE(bridgesim::isLoopbackAddress("localhost"));
}

TEST(Program, StopsCleanlyOnSigtermWithSessionsOpen) {
  Child c = spawn({"--address", "127.0.0.4", "--raw-port", "5025", "-q"});
  ASSERT_GT(c.pid, 0);
  std::optional<rawhs::Session> s;
  ASSERT_TRUE(kt::eventually([&] { return (s = rawhs::Session::open("127.0.0.4", 4880)).has_value(); }))
      << "the program did not start listening";
  EXPECT_EQ(s->query("*OPC?\n").data, "1\n");
  kill(c.pid, SIGTERM);
  EXPECT_TRUE(s->sync.closedByPeer());
  std::string out;
  EXPECT_EQ(finish(c, &out), 0) << out;
}

}  // namespace
