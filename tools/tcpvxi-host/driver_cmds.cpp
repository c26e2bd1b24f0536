// Driver commands: registers, blocks (to and from files), Word Serial and
// interrupts, with instruments named the VISA way.
#include <atomic>
#include <cstring>
#include <fstream>

#include "commands.h"
#include "status.h"

namespace host {

namespace {

std::atomic<unsigned> g_events{0};
bool g_jsonEvents = false;

void irqHandler(ViUInt32 type, ViUInt16 intf, ViUInt32 instr, ViAttrState statID, ViAttrState line) {
  char b[256];
  if (g_jsonEvents)
    snprintf(b, sizeof b,
             "{\"event\":\"%s\",\"code\":%u,\"interface\":%u,\"instrument\":%u,\"status_id\":%llu,\"line\":%llu}",
             eventName(type).c_str(), type, intf, instr, (unsigned long long)statID, (unsigned long long)line);
  else
    snprintf(b, sizeof b, "[interrupt] %s from interface %u instrument %u: status/ID 0x%04llX, line %llu",
             eventName(type).c_str(), intf, instr, (unsigned long long)statID, (unsigned long long)line);
  asyncPrint(b);
  g_events++;
}

uint32_t la(Session& s, uint16_t intf, uint32_t k) {
  uint16_t v = 0;
  char buf[16] = {0};
  if (s.drv.getRsrcAttr(intf, k, 0x3FFF00D5, buf) >= 0) memcpy(&v, buf, 2);
  return v;
}

Target resolve(Session& s, uint16_t intf, const InstrRef& r, const std::string& typed) {
  if (!s.opened) throw Usage("instrument " + typed + ": the instruments are known after 'open'");
  if (intf >= s.nIntf)
    throw Usage("instrument " + typed + ": the driver has no interface " + std::to_string(intf) + " (it has " +
                std::to_string(s.nIntf) + ")");
  ViUInt32 n = 0;
  s.drv.getNumRsrc(intf, &n);
  Target t;
  t.intf = intf;
  if (r.kind == InstrRef::Index) {
    if (r.value >= n)
      throw Usage("no instrument " + typed + " on TCP-VXI" + std::to_string(intf) + ": it has " + std::to_string(n) +
                  " instrument(s)" + (n ? ", indexes 0 to " + std::to_string(n - 1) : "") + " ('list' shows them)");
    t.index = r.value;
    t.la = la(s, intf, r.value);
    return t;
  }
  std::string las;
  for (uint32_t k = 0; k < n; k++) {
    uint32_t l = la(s, intf, k);
    if (l == r.value) {
      t.index = k;
      t.la = l;
      return t;
    }
    las += (k ? ", " : "") + std::to_string(l);
  }
  throw Usage("no instrument " + typed + " on TCP-VXI" + std::to_string(intf) + ": its logical addresses are " +
              (las.empty() ? "none" : las) + " ('list' shows them)");
}

template <typename T>
struct Width {
  static constexpr unsigned bytes = sizeof(T);
  static constexpr uint64_t max = (uint64_t)(T)~(T)0;
};

struct Access {
  uint16_t intf, space;
  uint64_t offset, limit;
  uint32_t mode;
  bool fifo;
};

// <intf> <space> <offset> then options anywhere: --swap --fifo mode=N.
Access access(Session& s, Args& a, unsigned widthBytes, bool allowSwap) {
  Access x{};
  bool swap = takeFlag(a, "--swap");
  if (swap && !allowSwap) throw Usage("--swap applies to 16- and 32-bit accesses only");
  x.fifo = takeFlag(a, "--fifo");
  std::string m;
  x.mode = takeOption(a, "mode", &m) ? (uint32_t)number(m, "mode (access privilege)", 7) : 0;
  if (swap) x.mode |= 0x80000000u;
  x.intf = takeIntf(s, arg(a, 1, "interface"));
  x.space = parseSpace(arg(a, 2, "address space"), &x.limit);
  x.offset = number(arg(a, 3, "offset"), "offset", x.limit);
  if (x.offset % widthBytes) throw Usage("offset " + a[3] + " is not aligned to the access width");
  return x;
}

void span(const Access& x, uint64_t count, unsigned w) {
  if (!x.fifo && count && x.offset + count * w - 1 > x.limit)
    throw Usage("the block runs past the end of the address space");
}

template <typename T, bool Peek, typename F>
bool doIn(Session& s, Out& out, Args& a, F in) {
  Access x = access(s, a, sizeof(T), sizeof(T) > 1);
  T v = 0;
  char txt[64];
  ViStatus st = 0;
  if constexpr (Peek)
    in(x.intf, x.mode, x.space, x.offset, &v);
  else
    st = in(x.intf, x.mode, x.space, x.offset, &v);
  snprintf(txt, sizeof txt, "0x%0*llX", (int)sizeof(T) * 2, (unsigned long long)v);
  out.field("value", jnum((uint64_t)v));
  if constexpr (Peek) {
    out.line("%s  (Peek reports no status)", txt);
    return true;
  }
  bool ok = out.status(st, txt);
  if (!ok) driverHint(s, out, st);
  return ok;
}

template <typename T>
bool doOut(Session& s, Out& out, Args& a, ViStatus (*fn)(ViUInt16, ViUInt32, ViUInt16, ViBusAddress, T),
           void (*poke)(ViUInt16, ViUInt32, ViUInt16, ViBusAddress, T)) {
  Access x = access(s, a, sizeof(T), sizeof(T) > 1);
  T v = (T)number(arg(a, 4, "value"), "value", Width<T>::max);
  if (poke) {
    poke(x.intf, x.mode, x.space, x.offset, v);
    out.line("done (Poke reports no status)");
    return true;
  }
  ViStatus st = fn(x.intf, x.mode, x.space, x.offset, v);
  bool ok = out.status(st);
  if (!ok) driverHint(s, out, st);
  return ok;
}

constexpr uint64_t kMaxBlock = 256ull << 20;  // bytes held in memory at once
constexpr uint64_t kChunk = 1ull << 20;       // bytes per driver call, for progress and Ctrl-C

template <typename T, typename F>
bool doMoveIn(Session& s, Out& out, Args& a, F mv) {
  std::string file, hex;
  bool toFile = takeOption(a, "file", &file);
  bool wantHex = takeOption(a, "hex", &hex) || takeFlag(a, "hex");
  Access x = access(s, a, sizeof(T), sizeof(T) > 1);
  uint64_t count = number(arg(a, 4, "count"), "count", kMaxBlock / sizeof(T));
  span(x, count, sizeof(T));
  bool swap = x.mode & 0x80000000u;
  if (swap) {
    std::string w =
        "a byte-swapped block read shifts by one element (element i holds element i+1 swapped; the last "
        "one comes from past the block): the driver does this on purpose";
    out.line("note: %s", w.c_str());
    out.field("warning", jstr(w));
  }
  // One spare element: the swapped read looks one element past the block.
  std::vector<T> buf(count + 1);
  Progress prog(out, count * sizeof(T));
  // A swapped read is one call, so that the shift is the driver's own.
  uint64_t step = swap ? count : std::max<uint64_t>(1, kChunk / sizeof(T));
  uint64_t done = 0;
  ViStatus st = 0;
  while (done < count && st >= 0) {
    if (interrupted()) return out.fail("interrupted after " + std::to_string(done * sizeof(T)) + " bytes");
    uint64_t n = std::min(step, count - done);
    st = mv(x.intf, x.mode, x.space, x.fifo ? 0 : 1, x.fifo ? x.offset : x.offset + done * sizeof(T), n,
            buf.data() + done);
    if (st >= 0) done += n;
    prog.update(done * sizeof(T));
  }
  prog.finish(done * sizeof(T));
  out.field("count", jnum(done));
  bool ok = out.status(st, std::to_string(done) + " element(s)");
  if (!ok) driverHint(s, out, st);
  const uint8_t* p = reinterpret_cast<const uint8_t*>(buf.data());
  size_t bytes = done * sizeof(T);
  if (toFile) {
    std::ofstream f(file, std::ios::binary | std::ios::trunc);
    f.write(reinterpret_cast<const char*>(p), (std::streamsize)bytes);
    if (!f) return out.fail("cannot write " + file + ": " + strerror(errno));
    out.line("wrote %zu bytes to %s", bytes, file.c_str());
    out.field("file", jstr(file));
  }
  if (wantHex || (!toFile && bytes <= 64)) {
    size_t limit = hex == "all" ? bytes : hex.empty() ? 4096 : (size_t)number(hex, "hex byte count", kMaxBlock);
    hexdump(out, p, bytes, sizeof(T), limit);
  } else if (!toFile) {
    out.line("(hex shows the data, file=PATH keeps it)");
  }
  return ok;
}

// Data to write: v,v,... | ramp:N | fill:N:V | file:PATH (raw, host order).
template <typename T>
std::vector<T> blockData(const std::string& text) {
  std::vector<T> v;
  uint64_t maxN = kMaxBlock / sizeof(T);
  if (text.rfind("ramp:", 0) == 0) {
    uint64_t n = number(text.substr(5), "ramp length", maxN);
    for (uint64_t i = 0; i < n; i++) v.push_back((T)i);
  } else if (text.rfind("fill:", 0) == 0) {
    size_t c = text.find(':', 5);
    if (c == std::string::npos) throw Usage("fill:N:V");
    uint64_t n = number(text.substr(5, c - 5), "fill length", maxN);
    v.assign(n, (T)number(text.substr(c + 1), "fill value", Width<T>::max));
  } else if (text.rfind("file:", 0) == 0) {
    std::ifstream f(text.substr(5), std::ios::binary | std::ios::ate);
    if (!f) throw Usage("cannot read " + text.substr(5) + ": " + strerror(errno));
    uint64_t size = (uint64_t)f.tellg();
    if (size % sizeof(T)) throw Usage(text.substr(5) + " is not a whole number of elements");
    if (size > kMaxBlock) throw Usage(text.substr(5) + " is larger than 256 MiB");
    v.resize(size / sizeof(T));
    f.seekg(0);
    f.read(reinterpret_cast<char*>(v.data()), (std::streamsize)size);
  } else {
    size_t pos = 0;
    while (pos <= text.size()) {
      size_t c = text.find(',', pos);
      v.push_back((T)number(text.substr(pos, c == std::string::npos ? std::string::npos : c - pos), "value",
                            Width<T>::max));
      if (c == std::string::npos) break;
      pos = c + 1;
    }
  }
  return v;
}

template <typename T, typename F>
bool doMoveOut(Session& s, Out& out, Args& a, F mv) {
  Access x = access(s, a, sizeof(T), sizeof(T) > 1);
  std::vector<T> v = blockData<T>(arg(a, 4, "data"));
  span(x, v.size(), sizeof(T));
  uint64_t step = std::max<uint64_t>(1, kChunk / sizeof(T)), done = 0;
  Progress prog(out, v.size() * sizeof(T));
  ViStatus st = 0;
  while (done < v.size() && st >= 0) {
    if (interrupted()) return out.fail("interrupted after " + std::to_string(done * sizeof(T)) + " bytes");
    uint64_t n = std::min<uint64_t>(step, v.size() - done);
    st = mv(x.intf, x.mode, x.space, x.fifo ? 0 : 1, x.fifo ? x.offset : x.offset + done * sizeof(T), n,
            v.data() + done);
    if (st >= 0) done += n;
    prog.update(done * sizeof(T));
  }
  prog.finish(done * sizeof(T));
  out.field("count", jnum(done));
  bool ok = out.status(st, std::to_string(done) + " element(s)");
  if (!ok) driverHint(s, out, st);
  return ok;
}

bool wsWrite(Session& s, Out& out, const Target& t, const std::string& text, bool end) {
  // Slack behind the message: the driver's chunking may look past the end.
  std::vector<char> buf(text.size() + 512, 0);
  memcpy(buf.data(), text.data(), text.size());
  ViInt32 done = 0;
  ViStatus st = s.drv.wsWrt(t.intf, t.index, s.timeout, buf.data(), (ViInt32)text.size(), end ? 2 : 0, &done);
  out.field("written", jnum((int64_t)done));
  bool ok = out.status(st, "wrote " + std::to_string(done) + " byte(s)");
  if (!ok) driverHint(s, out, st);
  return ok;
}

bool wsRead(Session& s, Out& out, const Target& t, int max) {
  std::vector<char> buf((size_t)max + 512, 0);
  ViInt32 got = 0;
  ViStatus st = s.drv.wsRd(t.intf, t.index, s.timeout, buf.data(), max, 2, '\n', &got);
  size_t n = got < 0 ? 0 : std::min<size_t>((size_t)got, (size_t)max);
  std::string data(buf.data(), n);
  out.field("text", jstr(data));
  std::string shown(1, '"');
  shown.append(printable(data)).push_back('"');
  // Positive statuses of a read tell why it ended.
  if (st > 0) {
    const char* why = (st & 2) ? "END" : (st & 1) ? "the termination character" : "the count";
    out.field("ended_at", jstr(why));
    out.line("%s  [ended at %s]", shown.c_str(), why);
    out.status(0, "", false);
    return true;
  }
  bool ok = out.status(st, shown);
  if (!ok) driverHint(s, out, st);
  return ok;
}

std::string stbText(unsigned v) {
  std::string t;
  if (v & 0x40) t += " RQS";
  if (v & 0x20) t += " ESB";
  if (v & 0x10) t += " MAV";
  return t.empty() ? "" : " (" + t.substr(1) + ")";
}

using Fn = std::function<bool(Session&, Out&, Args&)>;

}  // namespace

Target takeTarget(Session& s, const Args& a, size_t& pos) {
  const std::string& w = arg(a, pos, "instrument (<intf> <instr> or VXI0::16::INSTR)");
  if (isVisaInstrName(w)) {
    InstrRef r = parseInstr(w);
    pos++;
    return resolve(s, (uint16_t)r.board, r, w);
  }
  uint16_t intf = parseIntf(w);
  pos++;
  const std::string& iw = arg(a, pos++, "instrument (index, la:N or VXI0::N::INSTR)");
  InstrRef r = parseInstr(iw);
  if (r.kind == InstrRef::Name && r.board != intf)
    throw Usage(iw + " names interface " + std::to_string(r.board) + ", not " + std::to_string(intf));
  return resolve(s, intf, r, iw);
}

std::vector<std::string> instrumentNames(Session& s) {
  std::vector<std::string> v;
  if (!s.opened) return v;
  for (uint16_t i = 0; i < s.nIntf; i++) {
    ViUInt32 n = 0;
    if (s.drv.getNumRsrc(i, &n) < 0) continue;
    for (uint32_t k = 0; k < n && k < 64; k++)
      v.push_back("VXI" + std::to_string(i) + "::" + std::to_string(la(s, i, k)) + "::INSTR");
  }
  return v;
}

void addDriverCommands(std::vector<Command>& t) {
  auto& d = t;
  d.push_back({"in8", "in8 <intf> <space> <offset> [mode=N]", "vintfIn8: one 8-bit read", true,
               [](Session& s, Out& o, Args& a) { return doIn<ViUInt8, false>(s, o, a, s.drv.in8); }});
  d.push_back({"in16", "in16 <intf> <space> <offset> [--swap] [mode=N]", "vintfIn16: one 16-bit read", true,
               [](Session& s, Out& o, Args& a) { return doIn<ViUInt16, false>(s, o, a, s.drv.in16); }});
  d.push_back({"in32", "in32 <intf> <space> <offset> [--swap] [mode=N]", "vintfIn32: one 32-bit read", true,
               [](Session& s, Out& o, Args& a) { return doIn<ViUInt32, false>(s, o, a, s.drv.in32); }});
  d.push_back({"peek8", "peek8 <intf> <space> <offset> [mode=N]", "vintfPeek8 (no status)", true,
               [](Session& s, Out& o, Args& a) { return doIn<ViUInt8, true>(s, o, a, s.drv.peek8); }});
  d.push_back({"peek16", "peek16 <intf> <space> <offset> [--swap] [mode=N]", "vintfPeek16 (no status)", true,
               [](Session& s, Out& o, Args& a) { return doIn<ViUInt16, true>(s, o, a, s.drv.peek16); }});
  d.push_back({"peek32", "peek32 <intf> <space> <offset> [--swap] [mode=N]", "vintfPeek32 (no status)", true,
               [](Session& s, Out& o, Args& a) { return doIn<ViUInt32, true>(s, o, a, s.drv.peek32); }});
  d.push_back({"out8", "out8 <intf> <space> <offset> <value> [mode=N]", "vintfOut8: one 8-bit write", true,
               [](Session& s, Out& o, Args& a) { return doOut<ViUInt8>(s, o, a, s.drv.out8, nullptr); }});
  d.push_back({"out16", "out16 <intf> <space> <offset> <value> [--swap] [mode=N]", "vintfOut16", true,
               [](Session& s, Out& o, Args& a) { return doOut<ViUInt16>(s, o, a, s.drv.out16, nullptr); }});
  d.push_back({"out32", "out32 <intf> <space> <offset> <value> [--swap] [mode=N]", "vintfOut32", true,
               [](Session& s, Out& o, Args& a) { return doOut<ViUInt32>(s, o, a, s.drv.out32, nullptr); }});
  d.push_back({"poke8", "poke8 <intf> <space> <offset> <value> [mode=N]", "vintfPoke8 (no status)", true,
               [](Session& s, Out& o, Args& a) { return doOut<ViUInt8>(s, o, a, nullptr, s.drv.poke8); }});
  d.push_back({"poke16", "poke16 <intf> <space> <offset> <value> [--swap] [mode=N]", "vintfPoke16 (no status)",
               true, [](Session& s, Out& o, Args& a) { return doOut<ViUInt16>(s, o, a, nullptr, s.drv.poke16); }});
  d.push_back({"poke32", "poke32 <intf> <space> <offset> <value> [--swap] [mode=N]", "vintfPoke32 (no status)",
               true, [](Session& s, Out& o, Args& a) { return doOut<ViUInt32>(s, o, a, nullptr, s.drv.poke32); }});
  const char* inHelp =
      "block read; file=PATH saves it raw (host byte order), hex[=N|all] shows it (4 KiB by default)";
  d.push_back({"movein8", "movein8 <intf> <space> <offset> <count> [file=PATH] [hex[=N]] [--fifo] [mode=N]",
               inHelp, true, [](Session& s, Out& o, Args& a) { return doMoveIn<ViUInt8>(s, o, a, s.drv.moveIn8); }});
  d.push_back({"movein16", "movein16 <intf> <space> <offset> <count> [file=PATH] [hex[=N]] [--fifo] [--swap]",
               inHelp, true,
               [](Session& s, Out& o, Args& a) { return doMoveIn<ViUInt16>(s, o, a, s.drv.moveIn16); }});
  d.push_back({"movein32", "movein32 <intf> <space> <offset> <count> [file=PATH] [hex[=N]] [--fifo] [--swap]",
               inHelp, true,
               [](Session& s, Out& o, Args& a) { return doMoveIn<ViUInt32>(s, o, a, s.drv.moveIn32); }});
  const char* outHelp = "block write of v,v,... | ramp:N | fill:N:V | file:PATH (raw, host byte order)";
  d.push_back({"moveout8", "moveout8 <intf> <space> <offset> <data> [--fifo] [mode=N]", outHelp, true,
               [](Session& s, Out& o, Args& a) { return doMoveOut<ViUInt8>(s, o, a, s.drv.moveOut8); }});
  d.push_back({"moveout16", "moveout16 <intf> <space> <offset> <data> [--fifo] [--swap] [mode=N]", outHelp, true,
               [](Session& s, Out& o, Args& a) { return doMoveOut<ViUInt16>(s, o, a, s.drv.moveOut16); }});
  d.push_back({"moveout32", "moveout32 <intf> <space> <offset> <data> [--fifo] [--swap] [mode=N]", outHelp, true,
               [](Session& s, Out& o, Args& a) { return doMoveOut<ViUInt32>(s, o, a, s.drv.moveOut32); }});
  d.push_back({"copy", "copy <intf> <space> <from> <to> <count> <width 8|16|32>", "vintfMove from the bus to the bus",
               true, [](Session& s, Out& out, Args& a) {
                 Access x = access(s, a, 1, false);
                 unsigned w = parseWidth(arg(a, 6, "width")) / 8;
                 uint64_t to = number(arg(a, 4, "destination"), "destination", x.limit);
                 uint64_t n = number(arg(a, 5, "count"), "count", 0xFFFFFFFFull);
                 if (x.offset % w || to % w) throw Usage("addresses must be aligned to the width");
                 Access y = x;
                 y.offset = to;
                 span(x, n, w);
                 span(y, n, w);
                 ViStatus st = s.drv.move(x.intf, x.mode, x.space, 1, x.offset, (uint16_t)w, x.mode, x.space, 1, to,
                                          (uint16_t)w, n);
                 bool ok = out.status(st, std::to_string(n) + " element(s)");
                 if (!ok) driverHint(s, out, st);
                 return ok;
               }});
  d.push_back({"ws-write", "ws-write <instrument> <text> [noend]", "Word Serial write, with END unless noend", true,
               [](Session& s, Out& out, Args& a) {
                 bool noend = takeFlag(a, "noend");
                 size_t p = 1;
                 Target t = takeTarget(s, a, p);
                 return wsWrite(s, out, t, arg(a, p, "text"), !noend);
               }});
  d.push_back({"ws-read", "ws-read <instrument> [max]", "Word Serial read up to END or a line feed", true,
               [](Session& s, Out& out, Args& a) {
                 size_t p = 1;
                 Target t = takeTarget(s, a, p);
                 int max = p < a.size() ? (int)number(a[p], "max", 1 << 20) : 4096;
                 if (max < 1) throw Usage("max must be 1 or more");
                 return wsRead(s, out, t, max);
               }});
  d.push_back({"ws-query", "ws-query <instrument> <text>", "write the text (a line feed added) and read the answer",
               true, [](Session& s, Out& out, Args& a) {
                 size_t p = 1;
                 Target t = takeTarget(s, a, p);
                 std::string text = arg(a, p, "text");
                 if (text.empty() || text.back() != '\n') text += '\n';
                 return wsWrite(s, out, t, text, true) && wsRead(s, out, t, 1 << 16);
               }});
  auto cmd16 = [](bool byLa) -> Fn {
    return [byLa](Session& s, Out& out, Args& a) {
      bool want = takeFlag(a, "resp");
      size_t p = 1;
      Target t;
      if (byLa) {
        t.intf = takeIntf(s, arg(a, p++, "interface"));
        t.la = (unsigned)number(arg(a, p++, "logical address"), "logical address", 255);
      } else {
        t = takeTarget(s, a, p);
      }
      ViUInt16 c = (ViUInt16)number(arg(a, p, "command"), "command", 0xFFFF), r = 0;
      ViStatus st = byLa ? s.drv.wsCmd2la(t.intf, (ViUInt16)t.la, s.timeout, c, want, &r)
                         : s.drv.wsCmd(t.intf, t.index, s.timeout, c, want, &r);
      char txt[32] = "";
      if (want) {
        snprintf(txt, sizeof txt, "response 0x%04X", r);
        out.field("response", jnum((uint64_t)r));
      }
      bool ok = out.status(st, txt);
      if (!ok) driverHint(s, out, st);
      return ok;
    };
  };
  d.push_back({"ws-cmd", "ws-cmd <instrument> <cmd> [resp]", "16-bit Word Serial command, with its response", true,
               cmd16(false)});
  d.push_back({"ws-cmd2la", "ws-cmd2la <intf> <la> <cmd> [resp]", "vintfWScmd2la: the same, by logical address",
               true, cmd16(true)});
  d.push_back({"ws-lcmd", "ws-lcmd <instrument> <cmd> [resp]", "32-bit Word Serial command", true,
               [](Session& s, Out& out, Args& a) {
                 bool want = takeFlag(a, "resp");
                 size_t p = 1;
                 Target t = takeTarget(s, a, p);
                 ViUInt32 r = 0;
                 ViStatus st = s.drv.wsLCmd(t.intf, t.index, s.timeout,
                                            (ViUInt32)number(arg(a, p, "command"), "command", 0xFFFFFFFF), want, &r);
                 char txt[32] = "";
                 if (want) {
                   snprintf(txt, sizeof txt, "response 0x%08X", r);
                   out.field("response", jnum((uint64_t)r));
                 }
                 return out.status(st, txt);
               }});
  auto simple = [](int which) -> Fn {
    return [which](Session& s, Out& out, Args& a) {
      size_t p = 1;
      Target t = takeTarget(s, a, p);
      ViUInt16 r16 = 0;
      ViUInt32 r32 = 0;
      ViStatus st = 0;
      std::string txt;
      char b[64];
      switch (which) {
        case 0:
          st = s.drv.wsResp(t.intf, t.index, s.timeout, &r16);
          snprintf(b, sizeof b, "response 0x%04X", r16);
          out.field("response", jnum((uint64_t)r16));
          txt = b;
          break;
        case 1:
          st = s.drv.wsLResp(t.intf, t.index, s.timeout, &r32);
          snprintf(b, sizeof b, "response 0x%08X", r32);
          out.field("response", jnum((uint64_t)r32));
          txt = b;
          break;
        case 2:
          st = s.drv.wsReadSTB(t.intf, t.index, s.timeout, &r16);
          snprintf(b, sizeof b, "status byte 0x%02X", r16);
          out.field("stb", jnum((uint64_t)r16));
          txt = b + stbText(r16);
          break;
        case 3: st = s.drv.wsTrg(t.intf, t.index, s.timeout); break;
        default: st = s.drv.wsClr(t.intf, t.index, s.timeout); break;
      }
      bool ok = out.status(st, txt);
      if (!ok) driverHint(s, out, st);
      return ok;
    };
  };
  d.push_back({"ws-resp", "ws-resp <instrument>", "read a 16-bit Word Serial response", true, simple(0)});
  d.push_back({"ws-lresp", "ws-lresp <instrument>", "read a 32-bit Word Serial response", true, simple(1)});
  d.push_back({"ws-stb", "ws-stb <instrument>", "read the status byte", true, simple(2)});
  d.push_back({"ws-trg", "ws-trg <instrument>", "Word Serial trigger", true, simple(3)});
  d.push_back({"ws-clr", "ws-clr <instrument>", "device clear", true, simple(4)});
  d.push_back({"irq", "irq on|off", "vintfUserIRQCallback: install or remove the interrupt callback", true,
               [](Session& s, Out& out, Args& a) {
                 std::string w = arg(a, 1, "on or off");
                 if (w != "on" && w != "off") throw Usage("irq on or irq off");
                 g_jsonEvents = s.json;
                 return out.status(s.drv.userIRQCallback(w == "on" ? irqHandler : nullptr));
               }});
  auto laCall = [](bool add) -> Fn {
    return [add](Session& s, Out& out, Args& a) {
      uint16_t i = takeIntf(s, arg(a, 1, "interface"));
      uint16_t l = (uint16_t)number(arg(a, 2, "logical address"), "logical address", 255);
      return out.status(add ? s.drv.irqAddLA(i, l) : s.drv.irqDelLA(i, l));
    };
  };
  d.push_back({"irq-add", "irq-add <intf> <la>", "vintfIrqAddLA", true, laCall(true)});
  d.push_back({"irq-del", "irq-del <intf> <la>", "vintfIrqDelLA", true, laCall(false)});
  d.push_back({"irq-test", "irq-test <intf> <statid> [wait=ms]",
               "vintfTestIRQ: ask the bridge for a test interrupt; wait=ms waits for it", true,
               [](Session& s, Out& out, Args& a) {
                 std::string w;
                 bool wait = takeOption(a, "wait", &w);
                 unsigned ms = wait ? (unsigned)number(w, "wait", 600000) : 0;
                 unsigned before = g_events;
                 ViStatus st = s.drv.testIRQ(takeIntf(s, arg(a, 1, "interface")),
                                             (uint16_t)number(arg(a, 2, "status/ID"), "status/ID", 0xFFFF));
                 bool ok = out.status(st);
                 if (ok && wait) {
                   auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);
                   while (g_events == before && std::chrono::steady_clock::now() < end && !interrupted())
                     sleepMs(10);
                   out.field("received", g_events != before ? "true" : "false");
                   if (g_events == before) return out.fail("no interrupt arrived within " + w + " ms");
                 }
                 return ok;
               }});
}

}  // namespace host
