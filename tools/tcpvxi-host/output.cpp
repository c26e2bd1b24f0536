#include "output.h"

#include <unistd.h>

#include <cinttypes>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "status.h"

namespace host {

std::mutex& outMutex() {
  static std::mutex m;
  return m;
}

std::string jstr(const std::string& s) {
  std::string o = "\"";
  for (unsigned char c : s) {
    switch (c) {
      case '"': o += "\\\""; break;
      case '\\': o += "\\\\"; break;
      case '\n': o += "\\n"; break;
      case '\r': o += "\\r"; break;
      case '\t': o += "\\t"; break;
      default:
        if (c < 0x20 || c >= 0x7F) {
          // Bytes, not UTF-8: each stands for itself.
          char b[8];
          snprintf(b, sizeof b, "\\u%04x", c);
          o += b;
        } else {
          o += (char)c;
        }
    }
  }
  return o + "\"";
}
std::string jnum(int64_t v) { return std::to_string(v); }
std::string jnum(uint64_t v) { return std::to_string(v); }
std::string jnum(double v) {
  char b[32];
  snprintf(b, sizeof b, "%.6g", v);
  return b;
}
std::string jarr(const std::vector<std::string>& items) {
  std::string o = "[";
  for (size_t i = 0; i < items.size(); i++) {
    if (i) o += ',';
    o += items[i];
  }
  return o + "]";
}
std::string jobj(const std::vector<std::pair<std::string, std::string>>& f) {
  std::string o = "{";
  for (size_t i = 0; i < f.size(); i++) {
    if (i) o += ',';
    o += jstr(f[i].first);
    o += ':';
    o += f[i].second;
  }
  return o + "}";
}

std::string printable(const std::string& s) {
  std::string out;
  for (unsigned char c : s) {
    if (c == '\n') out += "\\n";
    else if (c == '\r') out += "\\r";
    else if (c == '\\') out += "\\\\";
    else if (c < 32 || c > 126) {
      char b[8];
      snprintf(b, sizeof b, "\\x%02X", c);
      out += b;
    } else {
      out += (char)c;
    }
  }
  return out;
}

void Out::begin(const std::string& command) {
  command_ = command;
  hasStatus_ = false;
  status_ = 0;
  fields_.clear();
  error_.clear();
  hint_.clear();
}

void Out::field(const std::string& key, const std::string& v) {
  for (auto& f : fields_)
    if (f.first == key) {
      f.second = v;
      return;
    }
  fields_.emplace_back(key, v);
}

void Out::line(const char* fmt, ...) {
  if (json_) return;
  std::lock_guard<std::mutex> g(outMutex());
  va_list ap;
  va_start(ap, fmt);
  vprintf(fmt, ap);
  va_end(ap);
  putchar('\n');
}

bool Out::status(ViStatus st, const std::string& what, bool print) {
  // The first failure of a command is the one to report; later calls of
  // the same command do not hide it.
  if (!hasStatus_ || status_ >= 0) {
    hasStatus_ = true;
    status_ = st;
  }
  if (!json_ && print) {
    std::lock_guard<std::mutex> g(outMutex());
    std::string t = what.empty() ? "" : what + "  ";
    if (st < 0)
      printf("%s[%s] %s\n", t.c_str(), statusText(st).c_str(), statusMeaning(st).c_str());
    else
      printf("%s[%s]\n", t.c_str(), statusText(st).c_str());
  }
  return st >= 0;
}

bool Out::fail(const std::string& message) {
  if (error_.empty()) error_ = message;
  if (!json_) {
    std::lock_guard<std::mutex> g(outMutex());
    fflush(stdout);
    fprintf(stderr, "error: %s\n", message.c_str());
  }
  return false;
}

void Out::hint(const std::string& text) {
  hint_ = text;
  if (!json_) {
    std::lock_guard<std::mutex> g(outMutex());
    fflush(stdout);
    fprintf(stderr, "hint: %s\n", text.c_str());
  }
}

void Out::end(bool ok) {
  if (!json_) {
    fflush(stdout);
    return;
  }
  std::vector<std::pair<std::string, std::string>> o = {{"command", jstr(command_)},
                                                        {"ok", ok ? "true" : "false"}};
  if (hasStatus_) {
    o.emplace_back("status", jnum((int64_t)status_));
    o.emplace_back("name", jstr(statusName(status_)));
    o.emplace_back("meaning", jstr(statusMeaning(status_)));
  }
  o.emplace_back("data", jobj(fields_));
  if (!error_.empty()) o.emplace_back("error", jstr(error_));
  if (!hint_.empty()) o.emplace_back("hint", jstr(hint_));
  std::lock_guard<std::mutex> g(outMutex());
  printf("%s\n", jobj(o).c_str());
  fflush(stdout);
}

void hexdump(Out& out, const uint8_t* p, size_t bytes, unsigned width, size_t maxBytes) {
  size_t shown = std::min(bytes, maxBytes) / width * width;
  std::vector<std::string> vals;
  size_t per = 16 / width;
  std::string line;
  for (size_t off = 0; off < shown; off += width) {
    uint64_t v = 0;
    memcpy(&v, p + off, width);
    char b[24];
    snprintf(b, sizeof b, "%0*" PRIx64, (int)width * 2, v);
    vals.push_back(jnum(v));
    if ((off / width) % per == 0) {
      if (!line.empty()) out.line("%s", line.c_str());
      char a[32];
      snprintf(a, sizeof a, "  %06zx:", off);
      line = a;
    }
    line += " ";
    line += b;
  }
  if (!line.empty()) out.line("%s", line.c_str());
  if (shown < bytes) out.line("  ... %zu more byte(s) not shown (hex=all shows everything)", bytes - shown);
  out.field("values", jarr(vals));
  if (shown < bytes) out.field("values_truncated", "true");
}

Progress::Progress(Out& out, uint64_t total)
    : out_(out), total_(total), bar_(!out.json() && isatty(2)), t0_(std::chrono::steady_clock::now()) {}

void Progress::update(uint64_t done) {
  if (!bar_ || !total_) return;
  int pct = (int)(done * 100 / total_);
  int fill = pct / 4;
  std::lock_guard<std::mutex> g(outMutex());
  fprintf(stderr, "\r[%-25.*s] %3d%%  %" PRIu64 "/%" PRIu64 " bytes", fill, "#########################", pct,
          done, total_);
  fflush(stderr);
}

void Progress::finish(uint64_t done) {
  double s = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0_).count();
  if (bar_) {
    std::lock_guard<std::mutex> g(outMutex());
    fprintf(stderr, "\r%60s\r", "");
  }
  double rate = s > 0 ? (double)done / s : 0;
  if (s < 1)
    out_.line("%" PRIu64 " bytes in %.3f ms (%.2f MB/s)", done, s * 1e3, rate / 1e6);
  else
    out_.line("%" PRIu64 " bytes in %.3f s (%.2f MB/s)", done, s, rate / 1e6);
  out_.field("bytes", jnum(done));
  out_.field("seconds", jnum(s));
  out_.field("bytes_per_s", jnum(rate));
}

}  // namespace host
