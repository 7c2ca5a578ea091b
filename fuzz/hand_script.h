// An input as a script, on a relay of its own that is turned by hand: the targets have the steps,
// and what must hold after each. What must hold of every script is here: its memory is bounded, no
// socket stays open, and the whole of it leaves next to nothing behind.
#pragma once
#include "hand_relay.h"
#include "input.h"
#include "protocol/nego_response.h"

namespace fuzz {

// How a script begins.
struct Setting {
  u32 mended = 0;
  u8 mode = 0;  // bits. 1: all is logged; 2: the nodes are forced; the others are the target's

  static Setting From(Input* input) {
    Setting setting;
    setting.mended = input->Word();
    setting.mode = input->Byte();
    return setting;
  }
};

template <class Record>
std::string Packed(Record record) {
  u8 wire[sizeof record];
  const int size = record.Pack(wire);
  return {reinterpret_cast<const char*>(wire), static_cast<std::size_t>(size)};
}

class HandScript {
 public:
  virtual ~HandScript() = default;
  HandScript(const HandScript&) = delete;
  HandScript& operator=(const HandScript&) = delete;

  void Run() {
    for (int i = 0; i < limits_.steps && !in_.empty() && MayGoOn(); ++i) {
      Step();
      Pump();
      Require(growth_.bytes() < limits_.memory, "the memory of a session");
    }
    End();
    Require(relay_.OpenSockets() == sockets_before_, "no socket stays open");
  }

 protected:
  struct Limits {
    int steps = 0;
    std::size_t memory = 0;  // while it runs, what the target keeps included
  };
  HandScript(Input* input, const Setting& setting, const Limits& limits)
      : in_(*input),
        mode_(setting.mode),
        relay_(setting.mended, (mode_ & 1) != 0 ? 0 : 6, (mode_ & 2) != 0),
        limits_(limits) {}

  // One step as the input says.
  virtual void Step() = 0;
  // What follows each step: the relay's turn, the other sides' reading, the target's own checks.
  virtual void Pump() = 0;
  virtual bool MayGoOn() const { return true; }
  // Closes everything.
  virtual void End() = 0;

  // An answer as nodes make it: of any version, accepting or refusing, for any provider.
  NegoResponse AnyAnswer(u32 token) {
    NegoResponse response;
    response.Init(in_.Byte() % 5);
    response.body.result = static_cast<u8>(in_.Byte() / 128 * 3);
    response.body.client_isp = u32{in_.Byte()} ^ 1;
    response.body.accl_token = token;
    return response;
  }
  // Up to two bytes become others.
  void ChangeSome(std::string* wire) {
    for (int patches = in_.Byte() % 3; patches > 0; --patches) {
      const std::size_t place = in_.Byte();
      (*wire)[place % wire->size()] = static_cast<char>(in_.Byte());
    }
  }

  Input& in_;
  const u8 mode_;
  HandRelay relay_;

 private:
  const Limits limits_;
  const Growth growth_;
  const std::size_t sockets_before_ = relay_.OpenSockets();
};

// A target: `Script` is made from an Input*.
template <class Script>
int RunScript(const unsigned char* data, std::size_t size) {
  constexpr std::size_t kMostLeft = 1 << 20;  // what the simulation keeps
  const Growth growth;
  Input input(data, size);
  Script(&input).Run();
  Require(growth.bytes() < kMostLeft, "what a script leaves behind");
  return 0;
}

}  // namespace fuzz
