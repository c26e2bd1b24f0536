#include "commands.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <map>
#include <mutex>
#include <stdexcept>
#include <thread>

namespace host {

namespace {

std::mutex g_out;  // interrupt reports arrive on the driver's receive thread

struct Usage : std::runtime_error {
  using std::runtime_error::runtime_error;
};

uint64_t num(const std::string& s, const char* what) {
  if (s.empty()) throw Usage(std::string("missing ") + what);
  char* end = nullptr;
  errno = 0;
  unsigned long long v = strtoull(s.c_str(), &end, 0);
  if (errno || !end || *end) throw Usage(std::string("bad ") + what + ": " + s);
  return v;
}

uint16_t space(const std::string& s) {
  std::string l;
  for (char c : s) l += (char)tolower((unsigned char)c);
  if (l == "mem" || l == "0") return 0;
  if (l == "a16" || l == "1") return 1;
  if (l == "a24" || l == "2") return 2;
  if (l == "a32" || l == "3") return 3;
  throw Usage("address space must be a16, a24 or a32: " + s);
}

// Options that may follow the positional arguments: --swap, --fifo, mode=N.
struct Opts {
  uint32_t mode = 0;
  bool fifo = false;
};

Opts options(const std::vector<std::string>& a, size_t from) {
  Opts o;
  for (size_t i = from; i < a.size(); i++) {
    if (a[i] == "--swap")
      o.mode |= 0x80000000u;
    else if (a[i] == "--fifo")
      o.fifo = true;
    else if (a[i].rfind("mode=", 0) == 0)
      o.mode = (o.mode & 0x80000000u) | (uint32_t)num(a[i].substr(5), "mode");
    else
      throw Usage("unknown option " + a[i]);
  }
  return o;
}

const std::string& arg(const std::vector<std::string>& a, size_t i, const char* what) {
  if (i >= a.size()) throw Usage(std::string("missing ") + what);
  return a[i];
}

bool report(ViStatus st, const std::string& what = std::string()) {
  std::lock_guard<std::mutex> g(g_out);
  if (!what.empty())
    printf("%s  [%s]\n", what.c_str(), statusText(st).c_str());
  else
    printf("%s\n", statusText(st).c_str());
  return st >= 0;
}

void hexdump(const uint8_t* p, size_t n, unsigned width) {
  std::lock_guard<std::mutex> g(g_out);
  size_t per = 16 / width;
  size_t elems = n / width;
  for (size_t i = 0; i < elems; i += per) {
    printf("  %06zx:", i * width);
    for (size_t j = i; j < elems && j < i + per; j++) {
      uint64_t v = 0;
      memcpy(&v, p + j * width, width);
      printf(" %0*llx", (int)width * 2, (unsigned long long)v);
    }
    printf("\n");
  }
}

void irqHandler(ViUInt32 type, ViUInt16 intf, ViUInt32 instr, ViAttrState statID, ViAttrState line) {
  std::lock_guard<std::mutex> g(g_out);
  printf("[interrupt] event 0x%08X intf %u instr %u status/ID 0x%04llX line %llu\n", type, intf, instr,
         (unsigned long long)statID, (unsigned long long)line);
  fflush(stdout);
}

void logHook(int level, const char* fmt, ...) {
  std::lock_guard<std::mutex> g(g_out);
  fprintf(stderr, "[log %x] ", level);
  va_list ap;
  va_start(ap, fmt);
  vfprintf(stderr, fmt, ap);
  va_end(ap);
  size_t n = strlen(fmt);
  if (n == 0 || fmt[n - 1] != '\n') fputc('\n', stderr);
}

void rLogHook(int level1, int level2, const char* fmt, ...) {
  std::lock_guard<std::mutex> g(g_out);
  fprintf(stderr, "[log %x/%x] ", level1, level2);
  va_list ap;
  va_start(ap, fmt);
  vfprintf(stderr, fmt, ap);
  va_end(ap);
  size_t n = strlen(fmt);
  if (n == 0 || fmt[n - 1] != '\n') fputc('\n', stderr);
}

void silentRLog(int, int, const char*, ...) {}

struct AttrDesc {
  uint32_t id;
  const char* name;
  int width;  // 16, 32, 64, or 0 for a string
};

const AttrDesc kAttrs[] = {
    {0xBFFF0002, "RSRC_NAME", 0},        {0xBFFF0001, "RSRC_CLASS", 0},
    {0xBFFF00E9, "INTF_INST_NAME", 0},   {0x3FFF0171, "INTF_TYPE", 16},
    {0x3FFF00D5, "VXI_LA", 16},          {0x3FFF0070, "MAINFRAME_LA", 16},
    {0x3FFF00E8, "SLOT", 16},            {0x3FFF00D9, "MANF_ID", 16},
    {0x3FFF00DF, "MODEL_CODE", 16},      {0x3FFF006C, "VXI_DEV_CLASS", 16},
    {0x3FFF00DE, "MEM_SPACE", 16},       {0x3FFF00D0, "MEM_BASE_64", 64},
    {0x3FFF00D1, "MEM_SIZE_64", 64},     {0x3FFF006B, "CMDR_LA", 16},
    {0x3FFF0100, "IMMEDIATE_SERV", 16},  {0x3FFF0194, "VXI_TRIG_SUPPORT", 32},
    {0x3FFF008D, "VXI_TRIG_STATUS", 32}, {0x3FFF008B, "VXI_VME_INTR_STATUS", 32},
    {0x3FFF0094, "VXI_VME_SYSFAIL_STATE", 16}, {0xBFFF0072, "MANF_NAME", 0},
    {0xBFFF0077, "MODEL_NAME", 0},
};

std::string attrValue(Session& s, uint16_t intf, uint32_t instr, const AttrDesc& a, ViStatus* st) {
  // Strings are copied whole by the driver: give it a generous buffer.
  char buf[512] = {0};
  *st = s.drv.getRsrcAttr(intf, instr, a.id, buf);
  if (*st < 0) return statusText(*st);
  char out[600];
  switch (a.width) {
    case 0:
      buf[sizeof buf - 1] = 0;
      return std::string("\"") + buf + "\"";
    case 16: {
      uint16_t v;
      memcpy(&v, buf, 2);
      snprintf(out, sizeof out, "%u (0x%X)", v, v);
      return out;
    }
    case 32: {
      uint32_t v;
      memcpy(&v, buf, 4);
      snprintf(out, sizeof out, "%u (0x%X)", v, v);
      return out;
    }
    default: {
      uint64_t v;
      memcpy(&v, buf, 8);
      snprintf(out, sizeof out, "%llu (0x%llX)", (unsigned long long)v, (unsigned long long)v);
      return out;
    }
  }
}

struct Command {
  const char* usage;
  const char* help;
  std::function<bool(Session&, const std::vector<std::string>&)> run;
};

using Args = std::vector<std::string>;

template <typename T, typename In>
bool doIn(Session& s, const Args& a, In in, unsigned width) {
  uint16_t intf = (uint16_t)num(arg(a, 1, "interface"), "interface");
  uint16_t sp = space(arg(a, 2, "address space"));
  uint64_t off = num(arg(a, 3, "offset"), "offset");
  Opts o = options(a, 4);
  T v = 0;
  ViStatus st = in(intf, o.mode, sp, off, &v);
  char txt[64];
  snprintf(txt, sizeof txt, "0x%0*llX", (int)width * 2, (unsigned long long)v);
  return report(st, txt);
}

template <typename T, typename Out>
bool doOut(Session& s, const Args& a, Out out) {
  uint16_t intf = (uint16_t)num(arg(a, 1, "interface"), "interface");
  uint16_t sp = space(arg(a, 2, "address space"));
  uint64_t off = num(arg(a, 3, "offset"), "offset");
  T v = (T)num(arg(a, 4, "value"), "value");
  Opts o = options(a, 5);
  return report(out(intf, o.mode, sp, off, v));
}

template <typename T, typename MoveIn>
bool doMoveIn(Session& s, const Args& a, MoveIn mv) {
  uint16_t intf = (uint16_t)num(arg(a, 1, "interface"), "interface");
  uint16_t sp = space(arg(a, 2, "address space"));
  uint64_t off = num(arg(a, 3, "offset"), "offset");
  uint64_t count = num(arg(a, 4, "count"), "count");
  Opts o = options(a, 5);
  if (count > (64u << 20) / sizeof(T)) throw Usage("count too large for the tool (64 MiB at most)");
  // One spare element: a byte-swapped block read shifts by one element.
  std::vector<T> buf(count + 1);
  ViStatus st = mv(intf, o.mode, sp, o.fifo ? 0 : 1, off, count, buf.data());
  bool ok = report(st, std::to_string(count) + " element(s)");
  if (st >= 0) hexdump((const uint8_t*)buf.data(), count * sizeof(T), sizeof(T));
  return ok;
}

// Values: a comma-separated list, or ramp:N (0,1,2,...), or fill:N:V.
template <typename T>
std::vector<T> values(const std::string& text) {
  std::vector<T> v;
  if (text.rfind("ramp:", 0) == 0) {
    uint64_t n = num(text.substr(5), "ramp length");
    if (n > (64u << 20) / sizeof(T)) throw Usage("ramp too long");
    for (uint64_t i = 0; i < n; i++) v.push_back((T)i);
    return v;
  }
  size_t pos = 0;
  while (pos <= text.size()) {
    size_t c = text.find(',', pos);
    std::string item = text.substr(pos, c == std::string::npos ? std::string::npos : c - pos);
    v.push_back((T)num(item, "value"));
    if (c == std::string::npos) break;
    pos = c + 1;
  }
  return v;
}

template <typename T, typename MoveOut>
bool doMoveOut(Session& s, const Args& a, MoveOut mv) {
  uint16_t intf = (uint16_t)num(arg(a, 1, "interface"), "interface");
  uint16_t sp = space(arg(a, 2, "address space"));
  uint64_t off = num(arg(a, 3, "offset"), "offset");
  std::vector<T> v = values<T>(arg(a, 4, "values"));
  Opts o = options(a, 5);
  return report(mv(intf, o.mode, sp, o.fifo ? 0 : 1, off, v.size(), v.data()),
                std::to_string(v.size()) + " element(s)");
}

std::string printable(const char* p, size_t n) {
  std::string out;
  for (size_t i = 0; i < n; i++) {
    unsigned char c = (unsigned char)p[i];
    if (c == '\n')
      out += "\\n";
    else if (c == '\r')
      out += "\\r";
    else if (c < 32 || c > 126) {
      char b[8];
      snprintf(b, sizeof b, "\\x%02X", c);
      out += b;
    } else
      out += (char)c;
  }
  return out;
}

bool wsWrite(Session& s, uint16_t intf, uint32_t instr, std::string text) {
  // Slack behind the message: the driver's chunking may look past the end.
  std::vector<char> buf(text.size() + 512, 0);
  memcpy(buf.data(), text.data(), text.size());
  ViInt32 done = 0;
  ViStatus st = s.drv.wsWrt(intf, instr, s.wsTimeout, buf.data(), (ViInt32)text.size(), 2, &done);
  return report(st, "wrote " + std::to_string(done) + " byte(s)");
}

bool wsRead(Session& s, uint16_t intf, uint32_t instr, int max) {
  std::vector<char> buf((size_t)max + 512, 0);
  ViInt32 got = 0;
  ViStatus st = s.drv.wsRd(intf, instr, s.wsTimeout, buf.data(), max, 2, '\n', &got);
  size_t n = got < 0 ? 0 : std::min<size_t>((size_t)got, (size_t)max);
  std::string text(1, '"');
  text.append(printable(buf.data(), n)).push_back('"');
  // Positive statuses of a read tell why it ended.
  if (st > 0) {
    std::lock_guard<std::mutex> g(g_out);
    printf("%s  [ended at %s]\n", text.c_str(), (st & 2) ? "END" : (st & 1) ? "the termination character" : "the count");
    return true;
  }
  return report(st, text);
}

const std::map<std::string, Command>& commands() {
  static const std::map<std::string, Command> table = {
      {"start", {"start", "tcpvxi_start: open the driver mutex and map the shared block",
                 [](Session& s, const Args&) { s.drv.start(); return report(0); }}},
      {"stop", {"stop", "tcpvxi_stop: close all connections, unmap, close the mutex",
                [](Session& s, const Args&) { s.drv.stop(); return report(0); }}},
      {"open", {"open", "vintfOpenDevice: discover interfaces (first time) and connect them",
                [](Session& s, const Args&) {
                  ViUInt16 n = 0;
                  ViStatus st = s.drv.openDevice(&n);
                  return report(st, std::to_string(n) + " interface(s)");
                }}},
      {"close", {"close", "vintfCloseDevice: close this process's connections",
                 [](Session& s, const Args&) { return report(s.drv.closeDevice()); }}},
      {"fill", {"fill", "vintfFillResources: re-read the resource file and the bridges' instrument lists",
                [](Session& s, const Args&) { return report(s.drv.fillResources(1)); }}},
      {"reopen", {"reopen <intf>", "vintfTryReopenDevice: reconnect one interface",
                  [](Session& s, const Args& a) {
                    return report(s.drv.tryReopen((int)num(arg(a, 1, "interface"), "interface")));
                  }}},
      {"list", {"list", "every interface and its instruments (name, LA, slot, memory)",
                [](Session& s, const Args&) {
                  bool ok = true;
                  for (uint16_t i = 0; i < 32; i++) {
                    ViUInt32 n = 0;
                    ViStatus st = s.drv.getNumRsrc(i, &n);
                    if (st < 0) break;  // past the last interface
                    char name[512] = {0};
                    s.drv.getRsrcAttr(i, 0, 0xBFFF00E9, name);
                    printf("interface %u (%s): %u instrument(s)\n", i, name, n);
                    for (uint32_t k = 0; k < n; k++) {
                      ViStatus ast;
                      std::string rn = attrValue(s, i, k, kAttrs[0], &ast);
                      std::string la = attrValue(s, i, k, kAttrs[4], &ast);
                      std::string slot = attrValue(s, i, k, kAttrs[6], &ast);
                      std::string sp = attrValue(s, i, k, kAttrs[10], &ast);
                      std::string sz = attrValue(s, i, k, kAttrs[12], &ast);
                      printf("  [%u] %-24s LA %-12s slot %-10s space %-10s size %s\n", k, rn.c_str(), la.c_str(),
                             slot.c_str(), sp.c_str(), sz.c_str());
                      ok = ok && ast >= 0;
                    }
                  }
                  return ok;
                }}},
      {"attr", {"attr <intf> <instr>", "every VISA attribute of one instrument",
                [](Session& s, const Args& a) {
                  uint16_t intf = (uint16_t)num(arg(a, 1, "interface"), "interface");
                  uint32_t k = (uint32_t)num(arg(a, 2, "instrument"), "instrument");
                  bool ok = true;
                  for (const auto& d : kAttrs) {
                    ViStatus st;
                    std::string v = attrValue(s, intf, k, d, &st);
                    printf("  %-22s %s\n", d.name, v.c_str());
                    ok = ok && st >= 0;
                  }
                  return ok;
                }}},
      {"numrsrc", {"numrsrc <intf>", "vintfGetNumRsrc",
                   [](Session& s, const Args& a) {
                     ViUInt32 n = 0;
                     ViStatus st = s.drv.getNumRsrc((uint16_t)num(arg(a, 1, "interface"), "interface"), &n);
                     return report(st, std::to_string(n) + " resource(s)");
                   }}},
      {"ext-get", {"ext-get <intf>", "vintfGetExtIntf",
                   [](Session& s, const Args& a) {
                     ViUInt16 e = 0;
                     ViStatus st = s.drv.getExtIntf((uint16_t)num(arg(a, 1, "interface"), "interface"), &e);
                     return report(st, "external number " + std::to_string(e));
                   }}},
      {"ext-set", {"ext-set <intf> <n>", "vintfSetExtIntf (a refused number leaves the driver mutex held)",
                   [](Session& s, const Args& a) {
                     return report(s.drv.setExtIntf((uint16_t)num(arg(a, 1, "interface"), "interface"),
                                                    (uint16_t)num(arg(a, 2, "number"), "number")));
                   }}},
      {"reset", {"reset <intf>", "vintfResetVXI: reset the VXI system behind a bridge",
                 [](Session& s, const Args& a) {
                   return report(s.drv.resetVXI((uint16_t)num(arg(a, 1, "interface"), "interface")));
                 }}},
      {"state", {"state <intf>", "vintfGetSysState: system state bits",
                 [](Session& s, const Args& a) {
                   ViInt16 v = 0;
                   ViStatus st = s.drv.getSysState((uint16_t)num(arg(a, 1, "interface"), "interface"), &v);
                   return report(st, "state " + std::to_string(v));
                 }}},
      {"in8", {"in8 <intf> <space> <offset> [--swap] [mode=N]", "single 8-bit read",
               [](Session& s, const Args& a) { return doIn<ViUInt8>(s, a, s.drv.in8, 1); }}},
      {"in16", {"in16 <intf> <space> <offset> [--swap] [mode=N]", "single 16-bit read",
                [](Session& s, const Args& a) { return doIn<ViUInt16>(s, a, s.drv.in16, 2); }}},
      {"in32", {"in32 <intf> <space> <offset> [--swap] [mode=N]", "single 32-bit read",
                [](Session& s, const Args& a) { return doIn<ViUInt32>(s, a, s.drv.in32, 4); }}},
      {"out8", {"out8 <intf> <space> <offset> <value> [--swap] [mode=N]", "single 8-bit write",
                [](Session& s, const Args& a) { return doOut<ViUInt8>(s, a, s.drv.out8); }}},
      {"out16", {"out16 <intf> <space> <offset> <value> [--swap] [mode=N]", "single 16-bit write",
                 [](Session& s, const Args& a) { return doOut<ViUInt16>(s, a, s.drv.out16); }}},
      {"out32", {"out32 <intf> <space> <offset> <value> [--swap] [mode=N]", "single 32-bit write",
                 [](Session& s, const Args& a) { return doOut<ViUInt32>(s, a, s.drv.out32); }}},
      {"peek16", {"peek16 <intf> <space> <offset>", "vintfPeek16 (no status)",
                  [](Session& s, const Args& a) {
                    ViUInt16 v = 0;
                    s.drv.peek16((uint16_t)num(arg(a, 1, "interface"), "interface"), 0, space(arg(a, 2, "space")),
                                 num(arg(a, 3, "offset"), "offset"), &v);
                    printf("0x%04X\n", v);
                    return true;
                  }}},
      {"poke16", {"poke16 <intf> <space> <offset> <value>", "vintfPoke16 (no status)",
                  [](Session& s, const Args& a) {
                    s.drv.poke16((uint16_t)num(arg(a, 1, "interface"), "interface"), 0, space(arg(a, 2, "space")),
                                 num(arg(a, 3, "offset"), "offset"), (ViUInt16)num(arg(a, 4, "value"), "value"));
                    return true;
                  }}},
      {"movein8", {"movein8 <intf> <space> <offset> <count> [--fifo] [--swap] [mode=N]", "block read, 8-bit",
                   [](Session& s, const Args& a) { return doMoveIn<ViUInt8>(s, a, s.drv.moveIn8); }}},
      {"movein16", {"movein16 <intf> <space> <offset> <count> [--fifo] [--swap] [mode=N]", "block read, 16-bit",
                    [](Session& s, const Args& a) { return doMoveIn<ViUInt16>(s, a, s.drv.moveIn16); }}},
      {"movein32", {"movein32 <intf> <space> <offset> <count> [--fifo] [--swap] [mode=N]", "block read, 32-bit",
                    [](Session& s, const Args& a) { return doMoveIn<ViUInt32>(s, a, s.drv.moveIn32); }}},
      {"moveout8", {"moveout8 <intf> <space> <offset> <v,v,...|ramp:N> [--fifo] [mode=N]", "block write, 8-bit",
                    [](Session& s, const Args& a) { return doMoveOut<ViUInt8>(s, a, s.drv.moveOut8); }}},
      {"moveout16", {"moveout16 <intf> <space> <offset> <v,v,...|ramp:N> [--fifo] [--swap] [mode=N]",
                     "block write, 16-bit",
                     [](Session& s, const Args& a) { return doMoveOut<ViUInt16>(s, a, s.drv.moveOut16); }}},
      {"moveout32", {"moveout32 <intf> <space> <offset> <v,v,...|ramp:N> [--fifo] [--swap] [mode=N]",
                     "block write, 32-bit",
                     [](Session& s, const Args& a) { return doMoveOut<ViUInt32>(s, a, s.drv.moveOut32); }}},
      {"copy", {"copy <intf> <space> <from> <to> <count> <width>", "vintfMove from the bus to the bus",
                [](Session& s, const Args& a) {
                  uint16_t intf = (uint16_t)num(arg(a, 1, "interface"), "interface");
                  uint16_t sp = space(arg(a, 2, "space"));
                  uint16_t w = (uint16_t)num(arg(a, 6, "width"), "width");
                  if (w != 1 && w != 2 && w != 4) throw Usage("width must be 1, 2 or 4");
                  return report(s.drv.move(intf, 0, sp, 1, num(arg(a, 3, "from"), "from"), w, 0, sp, 1,
                                           num(arg(a, 4, "to"), "to"), w, num(arg(a, 5, "count"), "count")));
                }}},
      {"ws-write", {"ws-write <intf> <instr> <text>", "Word Serial write with END (\\n escapes work)",
                    [](Session& s, const Args& a) {
                      return wsWrite(s, (uint16_t)num(arg(a, 1, "interface"), "interface"),
                                     (uint32_t)num(arg(a, 2, "instrument"), "instrument"), arg(a, 3, "text"));
                    }}},
      {"ws-read", {"ws-read <intf> <instr> [max]", "Word Serial read up to END or a line feed",
                   [](Session& s, const Args& a) {
                     int max = a.size() > 3 ? (int)num(a[3], "max") : 256;
                     if (max < 1 || max > (1 << 20)) throw Usage("max must be 1..1048576");
                     return wsRead(s, (uint16_t)num(arg(a, 1, "interface"), "interface"),
                                   (uint32_t)num(arg(a, 2, "instrument"), "instrument"), max);
                   }}},
      {"ws-query", {"ws-query <intf> <instr> <text>", "write the text plus a line feed, then read the answer",
                    [](Session& s, const Args& a) {
                      uint16_t intf = (uint16_t)num(arg(a, 1, "interface"), "interface");
                      uint32_t k = (uint32_t)num(arg(a, 2, "instrument"), "instrument");
                      std::string t = arg(a, 3, "text");
                      if (t.empty() || t.back() != '\n') t += '\n';
                      return wsWrite(s, intf, k, t) && wsRead(s, intf, k, 4096);
                    }}},
      {"ws-cmd", {"ws-cmd <intf> <instr> <cmd> [resp]", "16-bit Word Serial command, optionally with response",
                  [](Session& s, const Args& a) {
                    ViUInt16 r = 0;
                    bool want = a.size() > 4 && a[4] == "resp";
                    ViStatus st = s.drv.wsCmd((uint16_t)num(arg(a, 1, "interface"), "interface"),
                                              (uint32_t)num(arg(a, 2, "instrument"), "instrument"), s.wsTimeout,
                                              (ViUInt16)num(arg(a, 3, "command"), "command"), want, &r);
                    char t[32];
                    snprintf(t, sizeof t, "response 0x%04X", r);
                    return report(st, want ? t : "");
                  }}},
      {"ws-lcmd", {"ws-lcmd <intf> <instr> <cmd> [resp]", "32-bit Word Serial command, optionally with response",
                   [](Session& s, const Args& a) {
                     ViUInt32 r = 0;
                     bool want = a.size() > 4 && a[4] == "resp";
                     ViStatus st = s.drv.wsLCmd((uint16_t)num(arg(a, 1, "interface"), "interface"),
                                                (uint32_t)num(arg(a, 2, "instrument"), "instrument"), s.wsTimeout,
                                                (ViUInt32)num(arg(a, 3, "command"), "command"), want, &r);
                     char t[32];
                     snprintf(t, sizeof t, "response 0x%08X", r);
                     return report(st, want ? t : "");
                   }}},
      {"ws-resp", {"ws-resp <intf> <instr>", "read a 16-bit Word Serial response",
                   [](Session& s, const Args& a) {
                     ViUInt16 r = 0;
                     ViStatus st = s.drv.wsResp((uint16_t)num(arg(a, 1, "interface"), "interface"),
                                                (uint32_t)num(arg(a, 2, "instrument"), "instrument"), s.wsTimeout, &r);
                     return report(st, "response " + std::to_string(r));
                   }}},
      {"ws-lresp", {"ws-lresp <intf> <instr>", "read a 32-bit Word Serial response",
                    [](Session& s, const Args& a) {
                      ViUInt32 r = 0;
                      ViStatus st = s.drv.wsLResp((uint16_t)num(arg(a, 1, "interface"), "interface"),
                                                  (uint32_t)num(arg(a, 2, "instrument"), "instrument"), s.wsTimeout,
                                                  &r);
                      return report(st, "response " + std::to_string(r));
                    }}},
      {"ws-stb", {"ws-stb <intf> <instr>", "read the status byte",
                  [](Session& s, const Args& a) {
                    ViUInt16 r = 0;
                    ViStatus st = s.drv.wsReadSTB((uint16_t)num(arg(a, 1, "interface"), "interface"),
                                                  (uint32_t)num(arg(a, 2, "instrument"), "instrument"), s.wsTimeout,
                                                  &r);
                    char t[32];
                    snprintf(t, sizeof t, "status byte 0x%02X", r);
                    return report(st, t);
                  }}},
      {"ws-trg", {"ws-trg <intf> <instr>", "Word Serial trigger",
                  [](Session& s, const Args& a) {
                    return report(s.drv.wsTrg((uint16_t)num(arg(a, 1, "interface"), "interface"),
                                              (uint32_t)num(arg(a, 2, "instrument"), "instrument"), s.wsTimeout));
                  }}},
      {"ws-clr", {"ws-clr <intf> <instr>", "device clear",
                  [](Session& s, const Args& a) {
                    return report(s.drv.wsClr((uint16_t)num(arg(a, 1, "interface"), "interface"),
                                              (uint32_t)num(arg(a, 2, "instrument"), "instrument"), s.wsTimeout));
                  }}},
      {"irq", {"irq on|off", "install or remove the interrupt callback (reports are printed)",
               [](Session& s, const Args& a) {
                 bool on = arg(a, 1, "on or off") == "on";
                 return report(s.drv.userIRQCallback(on ? irqHandler : nullptr));
               }}},
      {"irq-test", {"irq-test <intf> <statid>", "vintfTestIRQ: ask the bridge for a test interrupt",
                    [](Session& s, const Args& a) {
                      return report(s.drv.testIRQ((uint16_t)num(arg(a, 1, "interface"), "interface"),
                                                  (uint16_t)num(arg(a, 2, "status/ID"), "status/ID")));
                    }}},
      {"timeout", {"timeout <ms>", "time-out of the Word Serial commands (default 2000)",
                   [](Session& s, const Args& a) {
                     s.wsTimeout = (unsigned)num(arg(a, 1, "milliseconds"), "milliseconds");
                     return true;
                   }}},
      {"sleep", {"sleep <ms>", "wait (for example for interrupts to arrive)",
                 [](Session&, const Args& a) {
                   std::this_thread::sleep_for(std::chrono::milliseconds(num(arg(a, 1, "milliseconds"), "ms")));
                   return true;
                 }}},
      {"echo", {"echo <text>", "print the text",
                [](Session&, const Args& a) {
                  std::string t;
                  for (size_t i = 1; i < a.size(); i++) t += (i > 1 ? " " : "") + a[i];
                  std::lock_guard<std::mutex> g(g_out);
                  printf("%s\n", t.c_str());
                  return true;
                }}},
      {"verbose", {"verbose on|off", "print the driver's diagnostics on standard error",
                   [](Session& s, const Args& a) {
                     setVerbose(s, arg(a, 1, "on or off") == "on");
                     return true;
                   }}},
      {"help", {"help [command]", "this text",
                [](Session&, const Args& a) {
                  printf("%s", helpText(a.size() > 1 ? a[1] : std::string()).c_str());
                  return true;
                }}},
      {"quit", {"quit", "leave the tool",
                [](Session& s, const Args&) {
                  s.quit = true;
                  return true;
                }}},
  };
  return table;
}

}  // namespace

std::vector<std::string> tokenize(const std::string& line) {
  std::vector<std::string> out;
  std::string cur;
  bool in = false, quoted = false;
  for (size_t i = 0; i < line.size(); i++) {
    char c = line[i];
    if (c == '#' && !quoted && !in) break;
    if (c == '"') {
      quoted = !quoted;
      in = true;
      continue;
    }
    if (c == '\\' && i + 1 < line.size()) {
      char n = line[++i];
      cur += n == 'n' ? '\n' : n == 'r' ? '\r' : n == 't' ? '\t' : n;
      in = true;
      continue;
    }
    if (!quoted && isspace((unsigned char)c)) {
      if (in) out.push_back(cur);
      cur.clear();
      in = false;
      continue;
    }
    cur += c;
    in = true;
  }
  if (in) out.push_back(cur);
  return out;
}

std::string helpText(const std::string& cmd) {
  std::string t;
  for (const auto& [name, c] : commands()) {
    if (!cmd.empty() && cmd != name) continue;
    char line[256];
    snprintf(line, sizeof line, "  %-62s %s\n", c.usage, c.help);
    t += line;
  }
  if (t.empty()) return "no such command: " + cmd + "\n";
  if (cmd.empty())
    t = "Commands (space: a16|a24|a32; numbers in decimal or 0x hex; --swap sets bit 31 of the mode):\n" + t;
  return t;
}

void setVerbose(Session& s, bool on) {
  s.verbose = on;
  if (s.drv.spyLog) *s.drv.spyLog = on ? logHook : nullptr;
  // The second hook is called without a test: never leave it null.
  if (s.drv.rSpyLog) *s.drv.rSpyLog = on ? rLogHook : silentRLog;
}

bool runCommand(Session& s, const std::string& line) {
  std::vector<std::string> a = tokenize(line);
  if (a.empty()) return true;
  auto it = commands().find(a[0]);
  if (it == commands().end()) {
    fprintf(stderr, "unknown command '%s' (try: help)\n", a[0].c_str());
    return false;
  }
  try {
    bool ok = it->second.run(s, a);
    fflush(stdout);
    return ok;
  } catch (const Usage& e) {
    fprintf(stderr, "%s\nusage: %s\n", e.what(), it->second.usage);
    return false;
  }
}

}  // namespace host
