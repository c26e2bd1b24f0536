// Placeholder bridge: answers every command with a negative status.
#include <cstring>
#include <mutex>

#include "../bridge.h"
#include "mainframe.h"

namespace bridgesim {

struct Bridge::Impl {
  Mainframe mf;
  std::mutex m;
  CommandFaults faults;
};

Bridge::Bridge(const std::string&) : impl_(std::make_unique<Impl>()) {}
Bridge::~Bridge() = default;

std::vector<uint8_t> Bridge::handleCommand(const HostId&, const uint8_t*, size_t) {
  int32_t st = (int32_t)0xBFFF0067;
  std::vector<uint8_t> a(4);
  std::memcpy(a.data(), &st, 4);
  return a;
}

void Bridge::hostDisconnected(const HostId&) {}
std::string Bridge::resourceText() const { return "[COMMON]\nNumInstr=0\n"; }
Mainframe& Bridge::mainframe() { return impl_->mf; }
void Bridge::setFaults(const CommandFaults& f) {
  std::lock_guard<std::mutex> g(impl_->m);
  impl_->faults = f;
}
CommandFaults Bridge::faults() const {
  std::lock_guard<std::mutex> g(impl_->m);
  return impl_->faults;
}

}  // namespace bridgesim
