// A program built against an installed tree, once through pkg-config and once
// through find_package(tcpvxi): it reads a resource file with the INI reader,
// then opens the driver directly (no host in between) and lists what the
// bridge behind the first interface reports.
#include <cstdio>
#include <cstring>

#include <tcpvxi.h>

int main() {
  char path[512];
  util_full_confname(TCPVXI_RESMAN_FILE, path);
  IniText doc = Ini_New(1);
  char addr[64] = {0};
  if (Ini_ReadFromFile(doc, path) < 0 || Ini_GetStringIntoBuffer(doc, "INTF1", "ADDR", addr, sizeof addr - 1) < 1) {
    fprintf(stderr, "no bridge address in %s\n", path);
    return 1;
  }
  Ini_Dispose(doc);

  tcpvxi_start();
  ViUInt16 nIntf = 0;
  ViUInt32 nInstr = 0;
  char name[64] = {0};
  ViStatus st = vintfOpenDevice(&nIntf);
  if (st >= 0) st = vintfGetNumRsrc(0, &nInstr);
  if (st >= 0 && nInstr > 0) st = vintfGetRsrcAttr(0, 0, VI_ATTR_RSRC_NAME, name);
  tcpvxi_stop();
  printf("tcpvxi %s: bridge %s, %u interface(s), %u instrument(s), first %s, status 0x%08X\n", TCPVXI_VERSION,
         addr, nIntf, nInstr, name, (unsigned)st);
  return st >= 0 && nInstr > 0 && strstr(name, "::INSTR") ? 0 : 1;
}
