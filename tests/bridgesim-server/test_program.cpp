// The tcpvxi-bridge-sim program: command line, refusal of outside
// addresses, resource text, and a clean stop on SIGTERM with sessions open.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>

#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "raw_hislip.h"
#include "sim.h"

namespace {

const std::string kProgram = std::string(KV_BUILD_DIR) + "/tools/bridge-sim/tcpvxi-bridge-sim";

struct Child {
  pid_t pid = -1;
  int out = -1;  // stdout and stderr together
};

Child spawn(const std::vector<std::string>& args) {
  int p[2];
  if (pipe(p) != 0) return {};
  pid_t pid = fork();
  if (pid == 0) {
    dup2(p[1], 1);
    dup2(p[1], 2);
    close(p[0]);
    close(p[1]);
    std::vector<char*> av;
    av.push_back(const_cast<char*>(kProgram.c_str()));
    for (auto& a : args) av.push_back(const_cast<char*>(a.c_str()));
    av.push_back(nullptr);
    execv(kProgram.c_str(), av.data());
    _exit(127);
  }
  close(p[1]);
  return {pid, p[0]};
}

int finish(Child c, std::string* output) {
  char b[4096];
  ssize_t n;
  while ((n = read(c.out, b, sizeof b)) > 0) output->append(b, static_cast<size_t>(n));
  close(c.out);
  int st = 0;
  waitpid(c.pid, &st, 0);
  return WIFEXITED(st) ? WEXITSTATUS(st) : 128 + WTERMSIG(st);
}

int run(const std::vector<std::string>& args, std::string* output) { return finish(spawn(args), output); }

TEST(Program, HelpDocumentsOptionsAndControlCommands) {
  std::string out;
  EXPECT_EQ(run({"--help"}, &out), 0);
  for (const char* w : {"--address", "--port", "--raw-port", "--mainframe", "--control-port", "--allow-any-address",
                        "--print-resources", "--never-answer", "--flood", "irq <line> <statid>", "srq", "stats"})
    EXPECT_NE(out.find(w), std::string::npos) << w;
}

TEST(Program, RefusesOutsideAddressesAndBadOptions) {
  std::string out;
  EXPECT_EQ(run({"--address", "192.0.2.1"}, &out), 2);
  EXPECT_NE(out.find("--allow-any-address"), std::string::npos);
  EXPECT_EQ(run({"--port", "70000"}, &out), 2);
  EXPECT_EQ(run({"--error-reply", "maybe"}, &out), 2);
  EXPECT_EQ(run({"--no-such-option"}, &out), 2);
}

TEST(Program, PrintsTheBridgeResourceText) {
  std::string out;
  EXPECT_EQ(run({"--print-resources"}, &out), 0);
  EXPECT_EQ(out, bridgesim::Bridge().resourceText());
}

TEST(Program, StopsCleanlyOnSigtermWithSessionsOpen) {
  Child c = spawn({"--address", "127.0.0.4", "--raw-port", "5025", "-q"});
  ASSERT_GT(c.pid, 0);
  std::optional<rawhs::Session> s;
  for (int i = 0; i < 500 && !s; ++i) {
    s = rawhs::Session::open("127.0.0.4", 4880);
    if (!s) std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  ASSERT_TRUE(s) << "the program did not start listening";
  EXPECT_EQ(s->query("*OPC?\n")->text(), "1\n");
  kill(c.pid, SIGTERM);
  EXPECT_TRUE(s->sync.closedByPeer());
  std::string out;
  EXPECT_EQ(finish(c, &out), 0) << out;
}

TEST(Program, ReportsAPortInUse) {
  bridgesim::ServerOptions o;
  o.address = "127.0.0.5";
  o.verbosity = 0;
  bridgesim::Server holder(o);
  holder.start();
  std::string out;
  EXPECT_EQ(run({"--address", "127.0.0.5"}, &out), 1);
  EXPECT_NE(out.find("in use"), std::string::npos) << out;
}

}  // namespace
