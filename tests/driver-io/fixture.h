// A driver connected by hand to the in-process fake bridge: one interface
// (number 0) whose instrument 0 is the bridge itself (logical address 0) and
// instrument 1 a message-based instrument at logical address 0x20.
#pragma once

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <memory>
#include <vector>

#include "HiSLIPcommands.h"
#include "TcpVxiAPI.h"
#include "fake_bridge.h"

constexpr int kWsLA = 0x20;

inline uint32_t W(const fb::Bytes& b, size_t i) {
  uint32_t v = 0;
  if (b.size() >= 4 * (i + 1)) memcpy(&v, &b[4 * i], 4);
  return v;
}

inline fb::Bytes answerOf(std::initializer_list<uint32_t> words) {
  fb::Bytes a;
  for (uint32_t w : words) fb::put32(a, w);
  return a;
}

class DriverIo : public ::testing::Test {
 protected:
  void SetUp() override {
    srv = std::make_unique<fb::Server>();
    ASSERT_TRUE(srv->ok());
    block = (SHAREDMEMINTF*)calloc(1, sizeof(SHAREDMEMINTF));
    block->NIntf = 0;
    strcpy(block->Intf[0].Addr, "127.0.0.1");
    block->Intf[0].NInstr = 2;
    block->Intf[0].Instr[0].attr_VXI_LA = 0;
    block->Intf[0].Instr[1].attr_VXI_LA = kWsLA;
    tcpvxiGD = block;
    ASSERT_EQ(0, util_mutex_open(TCPVXI_MUTEX_NAME, &hMutexTcpVxiRM));
    Interfaces[0].GIntf = &block->Intf[0];
    ASSERT_EQ(0, kvtcp_hislip_Connect(&Interfaces[0].kvtcp, "127.0.0.1", "inst0"));
    ASSERT_EQ(0, LockToIPAddr(&Interfaces[0]));
    srv->clearCommands();
  }
  void TearDown() override {
    kvtcp_Close(&Interfaces[0].kvtcp);
    srv.reset();
    util_mutex_close(TCPVXI_MUTEX_NAME, &hMutexTcpVxiRM);
    tcpvxiGD = nullptr;
    free(block);
  }
  std::vector<fb::Bytes> cmds() { return srv->receivedCommands(); }

  std::unique_ptr<fb::Server> srv;
  SHAREDMEMINTF* block = nullptr;
};
