// Independent wire check: a HiSLIP session between the client and the
// scripted server is captured on loopback and decoded by tshark's own
// HiSLIP dissector.  Every message type the client sends must decode, and
// nothing may come out malformed or undecoded.
#include <signal.h>
#include <stdlib.h>
#include <sys/stat.h>

#include <fstream>
#include <regex>
#include <set>
#include <sstream>

#include "peer.h"

namespace {

std::string slurp(const std::string& path) {
  std::stringstream s;
  s << std::ifstream(path).rdbuf();
  return s.str();
}

std::string run(const std::string& cmd) {
  std::string out;
  if (FILE* p = popen(cmd.c_str(), "r")) {
    char b[4096];
    for (size_t n; (n = fread(b, 1, sizeof b, p)) > 0;) out.append(b, n);
    pclose(p);
  }
  return out;
}

}  // namespace

TEST(HislipWire, EveryClientMessageDecodes) {
  if (system("command -v tshark >/dev/null 2>&1") != 0) GTEST_SKIP() << "tshark is not installed";
  char dirTemplate[] = "/tmp/kvhislipwire.XXXXXX";
  ASSERT_NE(nullptr, mkdtemp(dirTemplate));
  const std::string dir = dirTemplate, capture = dir + "/session.pcapng", err = dir + "/tshark.log";

  // The shell prints its process id and becomes tshark: pclose then waits for
  // the capture to be written out.
  const std::string start = "echo $$; exec tshark -i lo -f 'port 4880' -w " + capture + " >" + err + " 2>&1";
  FILE* tshark = popen(start.c_str(), "r");
  char pid[32] = "";
  ASSERT_TRUE(tshark && fgets(pid, sizeof pid, tshark));
  ASSERT_TRUE(kt::eventually([&] { return slurp(err).find("Capturing on") != std::string::npos; }))
      << slurp(err);
  // The capture is live once a probe datagram reaches the file.
  struct stat st0;
  ASSERT_TRUE(kt::eventually([&] { return stat(capture.c_str(), &st0) == 0; })) << slurp(err);
  int probe = socket(AF_INET, SOCK_DGRAM, 0);
  sockaddr_in to = kt::addr("127.0.0.1", 4880);
  EXPECT_TRUE(kt::eventually([&] {
    sendto(probe, "probe", 5, 0, (sockaddr*)&to, sizeof to);
    struct stat st;
    return stat(capture.c_str(), &st) == 0 && st.st_size > st0.st_size;
  }));
  close(probe);

  hs::Peer peer;
  peer.run([](hs::Peer& p) {
    for (int type : {6, 7, 128}) EXPECT_EQ(type, kt::readMsg(p.sync).type);
    kt::Msg q = kt::readMsg(p.async);
    EXPECT_EQ(21, q.type);
    kt::sendMsg(p.async, 22, 0x10, q.param);
    EXPECT_EQ(19, kt::readMsg(p.async).type);
    kt::sendMsg(p.async, 23, 0, 0);
    EXPECT_EQ(8, kt::readMsg(p.sync).type);
    kt::sendMsg(p.sync, 9, 0, 0);
  });
  KvTcpInfo* r = hs::connected();
  char data[16] = "*IDN?\n";
  int n;
  EXPECT_EQ(VI_SUCCESS, kvtcp_Write(r, 1000, data, 3, 0, &n));
  EXPECT_EQ(VI_SUCCESS, kvtcp_Write(r, 1000, data + 3, 3, KVTCP_FLAG_END, &n));
  EXPECT_EQ(VI_SUCCESS, kvtcp_kvhislip_Write(r, data, 6, 0, &n));
  ViUInt16 stb;
  EXPECT_EQ(VI_SUCCESS, kvtcp_ReadSTB(r, 2000, &stb));
  EXPECT_EQ(VI_SUCCESS, kvtcp_Clear(r, 2000));
  kvtcp_Close(r);
  peer.join();

  // Let the last segments reach the capture before it stops.
  usleep(300 * 1000);
  kill(atoi(pid), SIGINT);
  pclose(tshark);

  const std::string read = "tshark -r " + capture + " -d tcp.port==4880,hislip ";
  std::string types = run(read + "-T fields -e hislip.messagetype 2>/dev/null");
  std::set<int> seen;
  std::stringstream ss(std::regex_replace(types, std::regex(","), " "));  // several messages in one segment
  for (std::string item; ss >> item;) seen.insert((int)strtol(item.c_str(), nullptr, 0));  // printed as 0x..
  for (int type : {0, 17, 6, 7, 128, 21, 19, 8, /* and the server's */ 1, 18, 22, 23, 9})
    EXPECT_TRUE(seen.count(type)) << "type " << type << " in:\n" << types;

  // stderr too, so a filter tshark rejects fails the test instead of matching nothing.
  std::string out = run(read + "-Y '_ws.malformed || hislip.wrongprologue || (tcp.len > 0 && !hislip)' 2>&1");
  EXPECT_EQ("", std::regex_replace(out, std::regex(".*Running as user.*\n?"), "")) << "malformed or undecoded";
  if (!HasFailure()) run("rm -rf " + dir);
}
