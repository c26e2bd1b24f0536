#include "interactive.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <mutex>

#ifdef HAVE_READLINE
#include <readline/history.h>
#include <readline/readline.h>
#endif

namespace host {

#ifdef HAVE_READLINE
namespace {

Session* g_session = nullptr;
std::vector<std::string> g_candidates;
std::string g_line;
bool g_haveLine = false, g_eof = false;
int g_pipe[2] = {-1, -1};  // reports (and Ctrl-C) that arrive while the prompt waits
std::mutex g_pending;
std::vector<std::string> g_queue;

char* generator(const char* text, int state) {
  static size_t i;
  if (!state) i = 0;
  size_t n = strlen(text);
  while (i < g_candidates.size()) {
    const std::string& c = g_candidates[i++];
    if (c.compare(0, n, text) == 0) return strdup(c.c_str());
  }
  return nullptr;
}

char** complete(const char* text, int start, int) {
  g_candidates.clear();
  std::string before(rl_line_buffer, (size_t)start);
  bool first = before.find_first_not_of(" \t") == std::string::npos;
  if (first) {
    for (const auto& c : commands()) g_candidates.push_back(c.name);
  } else {
    for (auto& n : instrumentNames(*g_session)) g_candidates.push_back(n);
    for (const char* w : {"a16", "a24", "a32", "--swap", "--fifo", "hex", "file=", "on", "off", "resp", "noend",
                          "write", "read", "query", "query-block", "read-block", "stb", "clear", "benchmark",
                          "close", "TCPIP::", "TCP-VXI0", "la:"})
      g_candidates.push_back(w);
    for (auto& [n, c] : g_session->connections) g_candidates.push_back(n);
    for (uint16_t i = 1; i < g_session->nIntf; i++) g_candidates.push_back("TCP-VXI" + std::to_string(i));
  }
  rl_attempted_completion_over = first ? 1 : 0;  // file names after the first word
  return rl_completion_matches(text, generator);
}

void onLine(char* l) {
  if (!l) {
    g_eof = true;
  } else {
    g_line = l;
    if (*l) add_history(l);
    free(l);
    g_haveLine = true;
  }
  rl_callback_handler_remove();
}

// Prints queued reports above the prompt, then redraws the prompt and the
// text being typed.  Once a line has been accepted there is no prompt to
// redraw: the reports are printed as they are.
void flushReports(bool prompt = true) {
  std::vector<std::string> q;
  {
    std::lock_guard<std::mutex> g(g_pending);
    q.swap(g_queue);
  }
  if (q.empty()) return;
  if (!prompt) {
    std::lock_guard<std::mutex> g(outMutex());
    for (auto& t : q) printf("%s\n", t.c_str());
    fflush(stdout);
    return;
  }
  char* saved = rl_copy_text(0, rl_end);
  int point = rl_point;
  rl_save_prompt();
  rl_replace_line("", 0);
  rl_redisplay();
  {
    std::lock_guard<std::mutex> g(outMutex());
    for (auto& t : q) printf("\r%s\n", t.c_str());
    fflush(stdout);
  }
  rl_restore_prompt();
  rl_replace_line(saved, 0);
  rl_point = point;
  rl_redisplay();
  free(saved);
}

}  // namespace

void interactive(Session& s, const std::function<void(const std::string&)>& run) {
  g_session = &s;
  rl_attempted_completion_function = complete;
  rl_catch_signals = 0;  // Ctrl-C is handled here, not by readline
  if (pipe(g_pipe) != 0) g_pipe[0] = g_pipe[1] = -1;
  // A signal handler writes here too: it must never block on a full pipe.
  if (g_pipe[1] >= 0) fcntl(g_pipe[1], F_SETFL, fcntl(g_pipe[1], F_GETFL) | O_NONBLOCK);
  bool atPrompt = false;
  std::mutex promptMutex;
  setAsyncPrinter([&](const std::string& text) {
    std::lock_guard<std::mutex> g(promptMutex);
    if (atPrompt && g_pipe[1] >= 0) {
      {
        std::lock_guard<std::mutex> q(g_pending);
        g_queue.push_back(text);
      }
      char c = 1;
      (void)!write(g_pipe[1], &c, 1);
    } else {
      std::lock_guard<std::mutex> o(outMutex());
      printf("%s\n", text.c_str());
      fflush(stdout);
    }
  });
  while (!s.quit) {
    g_haveLine = g_eof = false;
    setInterrupted(false);
    rl_callback_handler_install("tcpvxi> ", onLine);
    {
      std::lock_guard<std::mutex> g(promptMutex);
      atPrompt = true;
    }
    flushReports();
    while (!g_haveLine && !g_eof) {
      pollfd p[2] = {{0, POLLIN, 0}, {g_pipe[0], POLLIN, 0}};
      int r = poll(p, g_pipe[0] >= 0 ? 2 : 1, -1);
      if (interrupted()) {
        // Ctrl-C at the prompt drops the line being typed.
        setInterrupted(false);
        rl_free_line_state();
        rl_replace_line("", 0);
        printf("^C\n");
        rl_on_new_line();
        rl_redisplay();
        continue;
      }
      if (r < 0) {
        if (errno == EINTR) continue;
        break;
      }
      if (p[1].revents & POLLIN) {
        char buf[64];
        (void)!read(g_pipe[0], buf, sizeof buf);
        flushReports();
      }
      if (p[0].revents & (POLLIN | POLLHUP)) rl_callback_read_char();
    }
    {
      std::lock_guard<std::mutex> g(promptMutex);
      atPrompt = false;
    }
    if (g_eof) {
      rl_callback_handler_remove();
      printf("\n");
      break;
    }
    flushReports(false);
    run(g_line);
  }
  setAsyncPrinter(nullptr);
  flushReports(false);  // any that came with the end of input
  if (g_pipe[0] >= 0) {
    close(g_pipe[0]);
    close(g_pipe[1]);
  }
}

void interactiveWake() {
  int fd = g_pipe[1];
  if (fd >= 0) {
    char c = 2;
    (void)!write(fd, &c, 1);
  }
}

#else

void interactiveWake() {}

void interactive(Session& s, const std::function<void(const std::string&)>& run) {
  std::string line;
  while (!s.quit) {
    fputs("tcpvxi> ", stdout);
    fflush(stdout);
    if (!std::getline(std::cin, line)) break;
    run(line);
  }
}

#endif

}  // namespace host
