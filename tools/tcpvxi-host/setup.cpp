// Set-up commands: start/stop/open with an explanation of what open found,
// check (diagnosis without changing anything), config (the resource file),
// the resource list and attributes, and the small system calls.
#include <arpa/inet.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <sstream>

#include "commands.h"
#include "status.h"

namespace host {

namespace {

std::string trim(const std::string& s) {
  size_t b = s.find_first_not_of(" \t\r"), e = s.find_last_not_of(" \t\r");
  return b == std::string::npos ? std::string() : s.substr(b, e - b + 1);
}
std::string upper(std::string s) {
  for (char& c : s) c = (char)toupper((unsigned char)c);
  return s;
}

// The resource-manager file as the tool reads it (the same INI rules as the
// driver: names without regard to case or surrounding blanks).
struct Bridge {
  int section = 0;  // INTFn
  std::string num, addr, name;
};
struct ResFile {
  std::string path;
  bool exists = false;
  std::string numIntf;  // as written; empty when absent
  std::vector<Bridge> bridges;
};

std::string resmanDir() {
  const char* home = getenv("HOME");
  return std::string(home ? home : "") + "/.config/tarvelo/visa";
}

ResFile readResFile() {
  ResFile f;
  f.path = resmanDir() + "/resmantcpvxi.out";
  std::ifstream in(f.path);
  if (!in) return f;
  f.exists = true;
  std::map<int, Bridge> byNum;
  std::string line, section;
  while (std::getline(in, line)) {
    line = trim(line);
    if (line.empty() || line[0] == ';' || line[0] == '#') continue;
    if (line[0] == '[') {
      section = upper(trim(line.substr(1, line.find(']') - 1)));
      continue;
    }
    size_t eq = line.find('=');
    if (eq == std::string::npos) continue;
    std::string key = upper(trim(line.substr(0, eq))), val = trim(line.substr(eq + 1));
    if (section == "COMMON" && key == "NUMINTF") f.numIntf = val;
    if (section.rfind("INTF", 0) == 0 && section.size() > 4) {
      int n = atoi(section.c_str() + 4);
      if (n < 1 || n > 64) continue;
      Bridge& b = byNum[n];
      b.section = n;
      if (key == "INTF_NUM") b.num = val;
      if (key == "ADDR") b.addr = val;
      if (key == "DEVNAME") b.name = val;
    }
  }
  for (auto& [n, b] : byNum) f.bridges.push_back(b);
  return f;
}

enum class Probe { Reached, Refused, Silent, Mute, BadAddress };
const char* probeWord(Probe p) {
  return p == Probe::Reached   ? "reached"
         : p == Probe::Refused ? "refused"
         : p == Probe::Silent || p == Probe::Mute ? "silent"
                                                  : "bad-address";
}

// Waits up to ms for the HiSLIP peer on fd to answer an Initialize.  Any
// HiSLIP message counts as an answer (an error message too: something that
// speaks HiSLIP is there).
bool answersHislip(int fd, int ms) {
  // Initialize: version 1.0, a vendor id, sub-address "hislip0".
  static const unsigned char init[] = {'H', 'S', 0, 0, 0x01, 0x00, 0x0E, 0x76, 0, 0, 0, 0, 0, 0, 0, 7,
                                       'h', 'i', 's', 'l', 'i', 'p', '0'};
  if (send(fd, init, sizeof init, MSG_NOSIGNAL) != (ssize_t)sizeof init) return false;
  char got[2];
  size_t n = 0;
  while (n < sizeof got) {
    pollfd p{fd, POLLIN, 0};
    if (poll(&p, 1, ms) != 1) return false;
    ssize_t r = recv(fd, got + n, sizeof got - n, 0);
    if (r <= 0) return false;
    n += (size_t)r;
  }
  return got[0] == 'H' && got[1] == 'S';
}

// A TCP connection to the bridge's HiSLIP port and one Initialize, closed at
// once: tells whether anything listens there and whether it speaks HiSLIP,
// without a lock.  The waits match the driver's own hand-shake time-out.
Probe probe(const std::string& addr, int ms = 2000) {
  sockaddr_in sa{};
  sa.sin_family = AF_INET;
  sa.sin_port = htons(4880);
  if (inet_pton(AF_INET, addr.c_str(), &sa.sin_addr) != 1) return Probe::BadAddress;
  int fd = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  if (fd < 0) return Probe::Silent;
  Probe r = Probe::Silent;
  if (connect(fd, (sockaddr*)&sa, sizeof sa) == 0) {
    r = Probe::Reached;
  } else if (errno == EINPROGRESS) {
    pollfd p{fd, POLLOUT, 0};
    if (poll(&p, 1, ms) == 1) {
      int err = 0;
      socklen_t len = sizeof err;
      getsockopt(fd, SOL_SOCKET, SO_ERROR, &err, &len);
      r = err == 0 ? Probe::Reached : err == ECONNREFUSED ? Probe::Refused : Probe::Silent;
    }
  } else if (errno == ECONNREFUSED) {
    r = Probe::Refused;
  }
  if (r == Probe::Reached && !answersHislip(fd, ms)) r = Probe::Mute;
  close(fd);
  return r;
}

std::string probeText(Probe p, const std::string& addr) {
  switch (p) {
    case Probe::Reached: return "reached";
    case Probe::Refused: return "refused: nothing listens on " + addr + ":4880 (is the bridge on and running?)";
    case Probe::Silent: return "silent: no answer from " + addr + ":4880 within 2 s (wrong address, or a firewall?)";
    case Probe::Mute:
      return "silent: " + addr + ":4880 accepts connections but gives no HiSLIP answer within 2 s "
             "(another device at that address, or a hung bridge: power-cycle it)";
    default: return "bad address '" + addr + "': the driver takes dotted IPv4 addresses only";
  }
}

std::string intfName(unsigned i) { return "TCP-VXI" + std::to_string(i); }

bool doOpen(Session& s, Out& out) {
  ResFile f = readResFile();
  ViUInt16 n = 0;
  ViStatus st = s.drv.openDevice(&n);
  s.opened = true;
  s.nIntf = n;
  out.line("resource file: %s%s", f.path.c_str(), f.exists ? "" : " (missing)");
  out.field("resource_file", jstr(f.path));
  out.field("file_found", f.exists ? "true" : "false");
  std::vector<std::string> js;
  bool trouble = false;
  for (const Bridge& b : f.bridges) {
    unsigned slot = (unsigned)b.section - 1;
    std::string state, text;
    ViUInt32 count = 0;
    if (b.addr.empty() || b.num.empty() || atoi(b.num.c_str()) < 1) {
      state = "skipped";
      text = "skipped: section [INTF" + std::to_string(b.section) + "] needs ADDR and INTF_NUM (1 or more)";
    } else if (slot < n && s.drv.getNumRsrc((ViUInt16)slot, &count) >= 0 && count > 0) {
      state = "reached";
      text = "reached, " + std::to_string(count) + " instrument(s)";
    } else {
      Probe p = probe(b.addr);
      state = probeWord(p);
      text = probeText(p, b.addr);
      if (p == Probe::Reached && slot >= n) {
        state = "lock-refused";
        text = "lock-refused: the bridge answers but would not lock to this host (another host holds it?)";
      } else if (p == Probe::Reached) {
        state = "no-instruments";
        text = "reached, but the bridge listed no instruments (or the HiSLIP session failed: try -v)";
      }
    }
    trouble = trouble || state != "reached";
    out.line("  %s %s \"%s\": %s", intfName(slot).c_str(), b.addr.c_str(), b.name.c_str(), text.c_str());
    js.push_back(jobj({{"interface", jnum((uint64_t)slot)}, {"name", jstr(intfName(slot))},
                       {"address", jstr(b.addr)}, {"devname", jstr(b.name)}, {"state", jstr(state)},
                       {"instruments", jnum((uint64_t)count)}}));
  }
  out.field("bridges", jarr(js));
  out.field("interfaces", jnum((uint64_t)n));
  bool ok = out.status(st, std::to_string(n) + " interface(s)");
  if (!f.exists)
    out.hint("no resource file, so the driver has no interfaces: create it with 'config add <bridge address>'");
  else if (f.bridges.empty() || atoi(f.numIntf.c_str()) < 1)
    out.hint(f.path + " lists no bridge ([COMMON] NumIntf and [INTF1] ADDR=...): see 'config add'");
  else if (trouble)
    out.hint("'check' diagnoses the set-up; 'reopen N' retries one interface");
  return ok;
}

void writeResFile(Out& out, const ResFile& f, const std::vector<Bridge>& bridges) {
  std::string dir = resmanDir();
  std::string p;
  for (size_t i = 1; i <= dir.size(); i++)
    if (i == dir.size() || dir[i] == '/') mkdir(dir.substr(0, i).c_str(), 0700);
  if (f.exists) {
    std::ifstream src(f.path, std::ios::binary);
    std::ofstream bak(f.path + ".bak", std::ios::binary | std::ios::trunc);
    bak << src.rdbuf();
    if (!bak) throw Usage("cannot write the backup " + f.path + ".bak");
    out.line("old file kept as %s.bak", f.path.c_str());
    out.field("backup", jstr(f.path + ".bak"));
  }
  std::ostringstream t;
  t << "[COMMON]\nNumIntf=" << bridges.size() << "\n";
  for (size_t i = 0; i < bridges.size(); i++) {
    t << "[INTF" << i + 1 << "]\nINTF_NUM=" << bridges[i].num << "\nADDR=" << bridges[i].addr << "\n";
    if (!bridges[i].name.empty()) t << "DEVNAME=" << bridges[i].name << "\n";
  }
  std::string tmp = f.path + ".new";
  {
    std::ofstream o(tmp, std::ios::trunc);
    o << t.str();
    if (!o) throw Usage("cannot write " + tmp + ": " + strerror(errno));
  }
  if (rename(tmp.c_str(), f.path.c_str()) != 0) throw Usage("cannot replace " + f.path + ": " + strerror(errno));
  out.line("wrote %s with %zu bridge(s)", f.path.c_str(), bridges.size());
  out.field("resource_file", jstr(f.path));
  out.field("bridges", jnum((uint64_t)bridges.size()));
}

bool doConfig(Session&, Out& out, Args& a) {
  std::string verb = a.size() > 1 ? a[1] : "show";
  ResFile f = readResFile();
  if (verb == "show") {
    out.line("resource file: %s%s", f.path.c_str(), f.exists ? "" : " (missing)");
    std::vector<std::string> js;
    for (auto& b : f.bridges) {
      out.line("  [INTF%d] ADDR=%s INTF_NUM=%s DEVNAME=%s", b.section, b.addr.c_str(), b.num.c_str(), b.name.c_str());
      js.push_back(jobj({{"section", jnum((int64_t)b.section)}, {"address", jstr(b.addr)},
                         {"intf_num", jstr(b.num)}, {"devname", jstr(b.name)}}));
    }
    out.field("resource_file", jstr(f.path));
    out.field("file_found", f.exists ? "true" : "false");
    out.field("bridges", jarr(js));
    return true;
  }
  std::vector<Bridge> bridges;
  for (auto& b : f.bridges)
    if (!b.addr.empty()) bridges.push_back(b);
  if (verb == "add") {
    Bridge nb;
    nb.addr = arg(a, 2, "bridge address");
    in_addr ia{};
    if (inet_pton(AF_INET, nb.addr.c_str(), &ia) != 1)
      throw Usage("'" + nb.addr + "' is not a dotted IPv4 address (the driver does not resolve names)");
    for (auto& b : bridges)
      if (b.addr == nb.addr) throw Usage(nb.addr + " is already listed");
    if (bridges.size() >= 32) throw Usage("the driver serves 32 interfaces at most");
    std::string v;
    if (takeOption(a, "name", &v)) nb.name = v;
    unsigned maxNum = 0;
    for (auto& b : bridges) maxNum = std::max(maxNum, (unsigned)atoi(b.num.c_str()));
    nb.num = std::to_string(maxNum + 1);
    if (takeOption(a, "num", &v)) nb.num = std::to_string(number(v, "INTF_NUM", 32));
    if (a.size() > 3) nb.name = a[3];
    bridges.push_back(nb);
  } else if (verb == "remove") {
    std::string what = arg(a, 2, "bridge address or interface");
    size_t before = bridges.size();
    for (size_t i = 0; i < bridges.size(); i++)
      if (bridges[i].addr == what || ("INTF" + std::to_string(bridges[i].section)) == upper(what)) {
        bridges.erase(bridges.begin() + (long)i);
        break;
      }
    if (bridges.size() == before) throw Usage("no bridge " + what + " in " + f.path);
  } else {
    throw Usage("config show | add <address> [name] [num=N] | remove <address|INTFn>");
  }
  writeResFile(out, f, bridges);
  return true;
}

bool doCheck(Session& s, Out& out) {
  std::vector<std::string> problems;
  auto problem = [&](const std::string& p) {
    out.line("  problem: %s", p.c_str());
    problems.push_back(jstr(p));
  };
  // The file the loader really chose (the default is found by its SONAME).
  Dl_info info{};
  std::string lib = dladdr(reinterpret_cast<void*>(s.drv.start), &info) && info.dli_fname ? info.dli_fname : s.drv.path;
  out.line("library: %s (every entry point present)", lib.c_str());
  out.field("library", jstr(lib));
  if (!getenv("HOME")) problem("HOME is not set: the driver finds its resource file through it");
  ResFile f = readResFile();
  out.line("resource file: %s", f.path.c_str());
  out.field("resource_file", jstr(f.path));
  std::vector<std::string> js;
  if (!f.exists) {
    problem(std::string("the resource file cannot be read (") + strerror(errno) +
            "): the driver will have no interfaces; create it with 'config add <bridge address>'");
  } else {
    int num = atoi(f.numIntf.c_str());
    if (num < 1)
      problem("[COMMON] NumIntf is missing or below 1: the driver refuses the file (VI_ERROR_INV_SETUP)");
    if (num > 32) problem("[COMMON] NumIntf is " + f.numIntf + ": the driver serves 32 interfaces at most");
    for (auto& b : f.bridges) {
      std::string sec = "[INTF" + std::to_string(b.section) + "]";
      if (b.section > num) {
        problem(sec + " lies beyond NumIntf=" + f.numIntf + ": the driver ignores it");
        continue;
      }
      if (b.addr.empty()) problem(sec + " has no ADDR: the driver skips it");
      if (atoi(b.num.c_str()) < 1) problem(sec + " has no INTF_NUM of 1 or more: the driver skips it");
      if (b.addr.empty()) continue;
      Probe p = probe(b.addr);
      out.line("  %s %s \"%s\": %s", sec.c_str(), b.addr.c_str(), b.name.c_str(), probeText(p, b.addr).c_str());
      if (p != Probe::Reached) problem(sec + " " + probeText(p, b.addr));
      js.push_back(jobj({{"section", jnum((int64_t)b.section)}, {"address", jstr(b.addr)},
                         {"state", jstr(probeWord(p))}}));
    }
    if (num >= 1 && (int)f.bridges.size() < num)
      problem("NumIntf=" + f.numIntf + " but only " + std::to_string(f.bridges.size()) +
              " [INTFn] section(s) follow: the driver leaves the missing ones out");
  }
  out.field("bridges", jarr(js));
  // Another process that runs the driver holds the shared block.
  struct stat sb{};
  bool shared = stat("/dev/shm/kvtcpvxiapimemfilemap", &sb) == 0;
  out.line("shared block: %s", shared ? "present (a process has started the driver)" : "absent");
  out.field("shared_block", shared ? "true" : "false");
  out.field("problems", jarr(problems));
  out.line("%zu problem(s) found", problems.size());
  return problems.empty();
}

std::string attrValue(Session& s, uint16_t intf, uint32_t instr, const AttrDesc& a, ViStatus* st,
                      std::string* json) {
  // Strings are copied whole by the driver: a generous buffer.
  char buf[512] = {0};
  *st = s.drv.getRsrcAttr(intf, instr, a.id, buf);
  if (*st < 0) {
    *json = "null";
    return statusText(*st);
  }
  buf[sizeof buf - 1] = 0;
  if (a.width == 0) {
    *json = jstr(buf);
    return std::string("\"") + buf + "\"";
  }
  uint64_t v = 0;
  memcpy(&v, buf, (size_t)a.width / 8);
  *json = jnum(v);
  char out[64];
  snprintf(out, sizeof out, "%llu (0x%llX)", (unsigned long long)v, (unsigned long long)v);
  return out;
}

}  // namespace

void driverHint(Session& s, Out& out, ViStatus st) {
  if ((uint32_t)st == 0xBFFF0000u)
    out.hint(s.opened ? "no such interface: 'list' shows the interfaces" : "run 'open' first");
  else if ((uint32_t)st == 0xBFFF00A6u)
    out.hint("the bridge answered nothing: 'open' shows which bridges were reached; 'reopen N' reconnects");
}

uint16_t takeIntf(Session& s, const std::string& text) {
  uint16_t i = parseIntf(text);
  if (s.opened && i >= s.nIntf)
    throw Usage("no interface " + text + ": the driver has " + std::to_string(s.nIntf) +
                " interface(s)" + (s.nIntf ? " (0 to " + std::to_string(s.nIntf - 1) + ")" : ""));
  return i;
}

void addSetupCommands(std::vector<Command>& t) {
  t.push_back({"start", "start", "tcpvxi_start: open the driver mutex and map the shared block", false,
               [](Session& s, Out& out, Args&) {
                 s.drv.start();
                 s.started = true;
                 return out.status(0);
               }});
  t.push_back({"stop", "stop", "tcpvxi_stop: close all connections, unmap, close the mutex", true,
               [](Session& s, Out& out, Args&) {
                 s.drv.stop();
                 s.started = s.opened = false;
                 return out.status(0);
               }});
  t.push_back({"open", "open", "vintfOpenDevice, then what it found: resource file, each bridge's state", true,
               [](Session& s, Out& out, Args&) { return doOpen(s, out); }});
  t.push_back({"close", "close", "vintfCloseDevice: close this process's connections", true,
               [](Session& s, Out& out, Args&) { return out.status(s.drv.closeDevice()); }});
  t.push_back({"fill", "fill", "vintfFillResources: re-read the resource file and the instrument lists", true,
               [](Session& s, Out& out, Args&) { return out.status(s.drv.fillResources(1)); }});
  t.push_back({"reopen", "reopen <intf>", "vintfTryReopenDevice: reconnect one interface", true,
               [](Session& s, Out& out, Args& a) {
                 ViStatus st = s.drv.tryReopen(parseIntf(arg(a, 1, "interface")));
                 bool ok = out.status(st);
                 if (!ok) driverHint(s, out, st);
                 return ok;
               }});
  t.push_back({"check", "check", "diagnose the set-up (library, resource file, bridges) without changing it",
               false, [](Session& s, Out& out, Args&) { return doCheck(s, out); }});
  t.push_back({"doctor", "doctor", "the same as check", false,
               [](Session& s, Out& out, Args&) { return doCheck(s, out); }});
  t.push_back({"config", "config [show | add <address> [name] [num=N] | remove <address|INTFn>]",
               "show or edit the resource file (the old one is kept as .bak)", false, doConfig});
  t.push_back({"list", "list", "every interface and its instruments (VISA name, index, LA, slot, memory)", true,
               [](Session& s, Out& out, Args&) {
                 if (!s.opened) throw Usage("the instruments are known after 'open'");
                 std::vector<std::string> js;
                 bool ok = true;
                 for (uint16_t i = 0; i < s.nIntf; i++) {
                   ViUInt32 n = 0;
                   ok = out.status(s.drv.getNumRsrc(i, &n), "", false) && ok;
                   out.line("%s: %u instrument(s)", intfName(i).c_str(), n);
                   std::vector<std::string> ji;
                   for (uint32_t k = 0; k < n; k++) {
                     ViStatus st;
                     std::string rn, la, slot, sp, sz;
                     const auto& at = attrTable();
                     std::string t1 = attrValue(s, i, k, at[0], &st, &rn);
                     attrValue(s, i, k, at[4], &st, &la);
                     attrValue(s, i, k, at[6], &st, &slot);
                     attrValue(s, i, k, at[10], &st, &sp);
                     attrValue(s, i, k, at[12], &st, &sz);
                     static const char* spaces[] = {"-", "A16", "A24", "A32"};
                     unsigned spi = (unsigned)atoi(sp.c_str());
                     std::string visa = "VXI" + std::to_string(i) + "::" + la + "::INSTR";
                     out.line("  [%u] %-18s la:%-4s slot %-3s %s %s bytes  (%s)", k, visa.c_str(), la.c_str(),
                              slot.c_str(), spi < 4 ? spaces[spi] : "?", sz.c_str(), t1.c_str());
                     ji.push_back(jobj({{"index", jnum((uint64_t)k)}, {"visa_name", jstr(visa)},
                                        {"rsrc_name", rn}, {"la", la}, {"slot", slot}, {"mem_space", sp},
                                        {"mem_size", sz}}));
                   }
                   js.push_back(jobj({{"interface", jnum((uint64_t)i)}, {"name", jstr(intfName(i))},
                                      {"instruments", jarr(ji)}}));
                 }
                 out.field("interfaces", jarr(js));
                 return ok;
               }});
  t.push_back({"attr", "attr <intf> <instr> | attr <VISA name>", "every VISA attribute of one instrument", true,
               [](Session& s, Out& out, Args& a) {
                 size_t pos = 1;
                 Target tg = takeTarget(s, a, pos);
                 bool ok = true;
                 for (const auto& d : attrTable()) {
                   ViStatus st;
                   std::string js;
                   std::string v = attrValue(s, tg.intf, tg.index, d, &st, &js);
                   out.line("  VI_ATTR_%-22s %s", d.name, v.c_str());
                   out.field(d.name, js);
                   ok = ok && st >= 0;
                 }
                 return ok;
               }});
  t.push_back({"set-attr", "set-attr <intf> <instr> <attribute> <value>",
               "vintfSetRsrcAttr (the driver's attributes are read-only: shows its answer)", true,
               [](Session& s, Out& out, Args& a) {
                 size_t pos = 1;
                 Target tg = takeTarget(s, a, pos);
                 const AttrDesc* d = findAttr(arg(a, pos, "attribute"));
                 if (!d) throw Usage("unknown attribute " + a[pos] + " (a VI_ATTR_ name or a number)");
                 uint64_t v = number(arg(a, pos + 1, "value"), "value", UINT64_MAX);
                 return out.status(s.drv.setRsrcAttr(tg.intf, tg.index, d->id, v));
               }});
  t.push_back({"numrsrc", "numrsrc <intf>", "vintfGetNumRsrc", true, [](Session& s, Out& out, Args& a) {
                 ViUInt32 n = 0;
                 ViStatus st = s.drv.getNumRsrc(parseIntf(arg(a, 1, "interface")), &n);
                 out.field("resources", jnum((uint64_t)n));
                 bool ok = out.status(st, std::to_string(n) + " resource(s)");
                 if (!ok) driverHint(s, out, st);
                 return ok;
               }});
  t.push_back({"ext-get", "ext-get <intf>", "vintfGetExtIntf", true, [](Session& s, Out& out, Args& a) {
                 ViUInt16 e = 0;
                 ViStatus st = s.drv.getExtIntf(parseIntf(arg(a, 1, "interface")), &e);
                 out.field("external", jnum((uint64_t)e));
                 return out.status(st, "external number " + std::to_string(e));
               }});
  t.push_back({"ext-set", "ext-set <intf> <n>", "vintfSetExtIntf (refused for an interface the driver lacks)", true,
               [](Session& s, Out& out, Args& a) {
                 // The driver keeps its mutex held when it refuses the number,
                 // which would stall every later call: check it here first.
                 uint16_t i = takeIntf(s, arg(a, 1, "interface"));
                 if (!s.opened) throw Usage("run 'open' first: the driver keeps its lock for an unknown interface");
                 return out.status(s.drv.setExtIntf(i, (uint16_t)number(arg(a, 2, "number"), "number", 65535)));
               }});
  t.push_back({"initvxi", "initvxi <intf> <nvxb>", "vintfInitVXIpath", true, [](Session& s, Out& out, Args& a) {
                 return out.status(s.drv.initVXIpath(parseIntf(arg(a, 1, "interface")),
                                                     (uint16_t)number(arg(a, 2, "nvxb"), "nvxb", 65535)));
               }});
  t.push_back({"inithost", "inithost <intf>", "vintfInitHOSTpath", true, [](Session& s, Out& out, Args& a) {
                 return out.status(s.drv.initHOSTpath(parseIntf(arg(a, 1, "interface"))));
               }});
  t.push_back({"reset", "reset <intf>", "vintfResetVXI: reset the VXI system behind a bridge", true,
               [](Session& s, Out& out, Args& a) {
                 ViStatus st = s.drv.resetVXI(takeIntf(s, arg(a, 1, "interface")));
                 bool ok = out.status(st);
                 if (!ok) driverHint(s, out, st);
                 return ok;
               }});
  t.push_back({"state", "state <intf>", "vintfGetSysState: SYSFAIL and ACFAIL, decoded", true,
               [](Session& s, Out& out, Args& a) {
                 ViInt16 v = 0;
                 ViStatus st = s.drv.getSysState(takeIntf(s, arg(a, 1, "interface")), &v);
                 out.field("state", jnum((int64_t)v));
                 out.field("sysfail", v != -1 && (v & 1) ? "true" : "false");
                 out.field("acfail", v != -1 && (v & 2) ? "true" : "false");
                 bool ok = out.status(st, "state " + std::to_string(v) + ": " + sysStateText(v));
                 if (!ok) driverHint(s, out, st);
                 return ok;
               }});
  t.push_back({"status", "status [code]", "a VISA status by name and meaning (all of them without a code)", false,
               [](Session&, Out& out, Args& a) {
                 if (a.size() < 2) {
                   for (const auto& st : statusTable()) out.line("  0x%08X %-28s %s", st.code, st.name, st.meaning);
                   out.field("count", jnum((uint64_t)statusTable().size()));
                   return true;
                 }
                 ViStatus v = 0;
                 const StatusInfo* found = nullptr;
                 for (const auto& st : statusTable())
                   if (strcasecmp(st.name, a[1].c_str()) == 0) found = &st;
                 v = found ? (ViStatus)found->code
                           : (ViStatus)(uint32_t)number(a[1], "status code", 0xFFFFFFFFull);
                 out.line("0x%08X %s: %s", (unsigned)v, statusName(v).c_str(), statusMeaning(v).c_str());
                 out.field("code", jnum((int64_t)v));
                 out.field("name", jstr(statusName(v)));
                 out.field("meaning", jstr(statusMeaning(v)));
                 return true;
               }});
}

}  // namespace host
