#include "child.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>

namespace hosttest {

namespace {
using Clock = std::chrono::steady_clock;
int msLeft(Clock::time_point end) {
  auto d = std::chrono::duration_cast<std::chrono::milliseconds>(end - Clock::now()).count();
  return d < 0 ? 0 : (int)d;
}
}  // namespace

Child::Child(const std::vector<std::string>& argv) {
  int pin[2], pout[2];
  if (argv.empty() || pipe2(pin, O_CLOEXEC) != 0) return;
  if (pipe2(pout, O_CLOEXEC) != 0) {
    close(pin[0]);
    close(pin[1]);
    return;
  }
  std::vector<char*> args;
  for (auto& a : argv) args.push_back(const_cast<char*>(a.c_str()));
  args.push_back(nullptr);
  pid_t p = fork();
  if (p == 0) {
    dup2(pin[0], 0);
    dup2(pout[1], 1);
    dup2(pout[1], 2);
    execv(args[0], args.data());
    _exit(127);
  }
  close(pin[0]);
  close(pout[1]);
  if (p < 0) {
    close(pin[1]);
    close(pout[0]);
    return;
  }
  pid_ = p;
  in_ = pin[1];
  out_fd_ = pout[0];
  signal(SIGPIPE, SIG_IGN);
}

Child::~Child() {
  if (pid_ > 0) {
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
  }
  if (in_ >= 0) close(in_);
  if (out_fd_ >= 0) close(out_fd_);
}

void Child::write(const std::string& text) {
  size_t done = 0;
  while (in_ >= 0 && done < text.size()) {
    ssize_t r = ::write(in_, text.data() + done, text.size() - done);
    if (r < 0 && errno == EINTR) continue;
    if (r <= 0) break;
    done += (size_t)r;
  }
}

void Child::closeInput() {
  if (in_ >= 0) close(in_);
  in_ = -1;
}

bool Child::readSome(int waitMs) {
  if (eof_ || out_fd_ < 0) return false;
  pollfd p{out_fd_, POLLIN, 0};
  int r = poll(&p, 1, waitMs);
  if (r <= 0) return r == 0 || errno == EINTR;
  char buf[4096];
  ssize_t n = read(out_fd_, buf, sizeof buf);
  if (n < 0 && errno == EINTR) return true;
  if (n <= 0) {
    eof_ = true;
    return false;
  }
  out_.append(buf, (size_t)n);
  return true;
}

bool Child::waitFor(const std::string& text, int limitMs) {
  auto end = Clock::now() + std::chrono::milliseconds(limitMs);
  while (out_.find(text) == std::string::npos) {
    int left = msLeft(end);
    if (left == 0 || !readSome(left)) return out_.find(text) != std::string::npos;
  }
  return true;
}

int Child::finish(int limitMs) {
  closeInput();
  auto end = Clock::now() + std::chrono::milliseconds(limitMs);
  while (!eof_ && msLeft(end) > 0) readSome(msLeft(end));
  if (pid_ <= 0) return -1;
  bool killed = false;
  if (!eof_) {
    kill(pid_, SIGKILL);
    killed = true;
  }
  int st = 0;
  waitpid(pid_, &st, 0);
  pid_ = -1;
  if (killed) return -1;
  if (WIFEXITED(st)) return WEXITSTATUS(st);
  return 128 + WTERMSIG(st);
}

int run(const std::vector<std::string>& argv, std::string* output) {
  Child c(argv);
  if (!c.started()) return -1;
  int rc = c.finish();
  if (output) *output = c.output();
  return rc;
}

}  // namespace hosttest
