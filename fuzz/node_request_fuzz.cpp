// What a client sends to the reference node, and input to its control port. The result must not
// depend on the pieces in which a request arrives, and no command may exceed a limit.
#include <algorithm>
#include <cstring>
#include <string>

#include "check.h"
#include "node/control_command.h"
#include "node/request_reader.h"

namespace {

using fuzz::Require;
using node::RequestReader;
using State = RequestReader::State;

struct Outcome {
  State state = State::kMore;
  std::size_t used = 0;
  std::string problem;
};

Outcome Read(const std::string& bytes, std::size_t piece) {
  RequestReader reader;
  Outcome outcome;
  while (outcome.state == State::kMore && outcome.used < bytes.size()) {
    const std::size_t count = std::min({piece, reader.Wanted(), bytes.size() - outcome.used});
    Require(count > 0 && reader.size() + reader.Wanted() <= RequestReader::kMaxRequest,
            "a request is bounded");
    std::memcpy(reader.Place(), bytes.data() + outcome.used, count);
    outcome.used += count;
    outcome.state = reader.Took(count);
  }
  outcome.problem = reader.problem();
  if (outcome.state == State::kDone) {
    Require(reader.size() >= 49 && outcome.used == reader.size(), "a whole request");
    Require(reader.request().body.game_ip != 0 && reader.request().body.game_port != 0,
            "which names a server");
  }
  return outcome;
}

void Command(const std::string& line) {
  node::Behaviour behaviour;
  node::ControlTarget target;
  target.behaviour = &behaviour;
  target.connections = [] { return std::vector<node::Event>(); };
  target.close_all = [](bool) { return node::u64{0}; };
  target.flows = [] { return std::vector<node::Event>(); };
  target.forget_flows = [] { return node::u64{0}; };
  target.stop = [] {};
  const std::string reply = node::RunCommand(line, target);
  Require(reply.rfind("{\"ok\":", 0) == 0 && reply.find('\n') == std::string::npos,
          "a reply is one line");
  for (const node::BehaviourField& field : node::BehaviourFields())
    Require(field.Allows(behaviour.*field.member), "a setting stays in its range");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, std::size_t size) {
  const std::string bytes(reinterpret_cast<const char*>(data), size);
  const Outcome whole = Read(bytes, bytes.size());
  for (const std::size_t piece : {1u, 7u}) {
    const Outcome pieces = Read(bytes, piece);
    Require(
        pieces.state == whole.state && pieces.used == whole.used && pieces.problem == whole.problem,
        "the pieces do not matter");
  }
  Command(bytes);
  return 0;
}
