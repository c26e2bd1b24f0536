// Raw-socket connection kind against a scripted loopback peer.
#include "peer.h"

TEST(RawSocket, ConnectWriteReadsAndPeerClosingMidRead) {
  int lfd = kt::listenOn("127.0.0.1", 5025);
  ASSERT_GE(lfd, 0);
  std::thread peer([lfd] {
    int c = kt::readable(lfd) ? accept(lfd, nullptr, nullptr) : -1;
    char b[5];
    EXPECT_TRUE(kt::readFull(c, b, 5));
    EXPECT_EQ(0, memcmp(b, "hello", 5));
    for (const char* part : {"01234", "56789", "ab\ncd", "xyz"}) {  // separate segments
      send(c, part, strlen(part), 0);
      std::this_thread::sleep_for(std::chrono::milliseconds(30));
    }
    EXPECT_TRUE(kt::readFull(c, b, 1));  // after the client's time-out: a short answer, then gone
    send(c, "abc", 3, 0);
    close(c);
  });
  KvTcpInfo* r = kt::newRecord();
  ASSERT_EQ(VI_SUCCESS, kvtcp_sock_Connect(r, "127.0.0.1", 5025));
  EXPECT_EQ(KVTCP_RAW, r->tcpType);
  EXPECT_EQ(5025, r->SocketPort);
  EXPECT_EQ(5025, r->port);
  EXPECT_EQ(1, r->SocketNoDelay);
  EXPECT_EQ(0, r->SocketKeepAlive);
  EXPECT_EQ(KVTCP_NO_LINK, r->lid);
  int sCore = r->S_Core;
  EXPECT_EQ(VI_SUCCESS, kvtcp_sock_Connect(r, "127.0.0.1", 5025));  // already connected
  EXPECT_EQ(sCore, r->S_Core);

  char out[8] = "hello!!";
  int n = -1;
  EXPECT_EQ(VI_SUCCESS, kvtcp_Write(r, 1000, out, 5, 0, &n));
  EXPECT_EQ(5, n);
  EXPECT_EQ(0, out[5]);  // the terminator written behind the data

  char in[16] = {};
  EXPECT_EQ(0, kvtcp_Read(r, 2000, in, 10, 0, 0, &n));  // exactly the count, across segments
  EXPECT_EQ(10, n);
  EXPECT_EQ(0, memcmp(in, "0123456789", 10));
  EXPECT_EQ(1, kvtcp_Read(r, 2000, in, 10, KVTCP_FLAG_EOS, '\n', &n));
  EXPECT_EQ(5, n);  // bytes behind the terminator stay counted
  EXPECT_EQ(0, kvtcp_Read(r, 2000, in, 3, KVTCP_FLAG_EOS, '\n', &n));
  EXPECT_EQ(3, n);
  EXPECT_EQ(0, memcmp(in, "xyz", 3));
  EXPECT_EQ(VI_ERROR_TMO, kvtcp_Read(r, 50, in, 3, KVTCP_FLAG_EOS, '\n', &n));

  ViUInt16 stb;
  EXPECT_EQ(VI_ERROR_NSUP_OPER, kvtcp_ReadSTB(r, 100, &stb));
  EXPECT_EQ(VI_SUCCESS, kvtcp_Clear(r, 100));
  EXPECT_EQ(VI_ERROR_NSUP_OPER, kvtcp_kvhislip_Write(r, out, 4, 0, &n));

  EXPECT_EQ(VI_SUCCESS, kvtcp_Write(r, 1000, out, 1, 0, &n));
  EXPECT_EQ(VI_ERROR_CONN_LOST, kvtcp_Read(r, 200, in, 10, 0, 0, &n));
  EXPECT_EQ(VI_ERROR_CONN_LOST, kvtcp_Read(r, 200, in, 10, KVTCP_FLAG_EOS, '\n', &n));
  kvtcp_Close(r);
  peer.join();
  close(lfd);
}
