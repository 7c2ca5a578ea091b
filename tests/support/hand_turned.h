// The relay's loop without its thread: the test runs each pass itself.
#pragma once
#include <winsock2.h>

#include <map>

#include "common/types.h"
#include "relay/relay_interfaces.h"
#include "relay/socket_sets.h"

namespace test {

class HandTurned final : public moru_vyr::lsp::IRelaySocketMgr {
 public:
  using Delegate = moru_vyr::lsp::IRelaySocketDelegate;

  common::u32 AddSocket(SOCKET s, Delegate* d) noexcept override {
    delegates.try_emplace(s, d);
    return sets_.Add(s, d);
  }
  common::u32 EnableWrite(SOCKET s) noexcept override { return sets_.EnableWrite(s, true); }
  void StopReading(SOCKET s) noexcept override { sets_.StopReading(s); }
  void ResumeReading(SOCKET s) noexcept override { sets_.ResumeReading(s); }
  Delegate* RemoveSocket(SOCKET s) noexcept override {
    delegates.erase(s);
    return sets_.Remove(s);
  }
  common::u32 NextToken() noexcept override { return ++token_; }
  bool HasRoom(common::u32 sockets) const noexcept override { return sockets <= room; }

  // Runs one pass, which takes at most 10 ms.
  void Turn() {
    int error = 0;
    sets_.Poll(timeval{0, 10000}, &error);
  }

  std::map<SOCKET, Delegate*> delegates;  // of the sockets that are polled now
  common::u32 room = 10'000;              // what HasRoom believes: the places for more sockets

 private:
  moru_vyr::lsp::SocketSets sets_;
  common::u32 token_ = 0;
};

}  // namespace test
