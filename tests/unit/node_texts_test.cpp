// The node's interfaces besides its protocol: addresses, behaviours, commands, events; and its
// answers, read by a decoder that shares no code with it.
#include <gtest/gtest.h>

#include "node/answer.h"
#include "node/control_command.h"
#include "tests/unit/wire_decoder.h"

namespace {

using node::Address;
using node::Behaviour;

TEST(NodeAddress, IsReadStrictly) {
  const struct {
    const char* text;
    bool right;
  } cases[] = {{"198.51.100.20:7001", true},
               {"0.0.0.0:0", true},
               {"255.255.255.255:65535", true},
               {"198.51.100.20", false},
               {"198.51.100.20:", false},
               {"198.51.100:7001", false},
               {"1.2.3.4:65536", false},
               {"1.2.3.256:1", false},
               {"1.2.3.4:1 ", false},
               {" 1.2.3.4:1", false},
               {"1.2.3.4.5:1", false},
               {"1.2.3.4:-1", false},
               {"host:1", false},
               {"", false},
               {"1.2.3.4:000001", false},
               {"0001.2.3.4:1", false}};
  for (const auto& one : cases) {
    Address address;
    EXPECT_EQ(node::ParseAddress(one.text, &address), one.right) << one.text;
    if (one.right) {
      EXPECT_EQ(address.Text(), one.text);
    }
  }
}

TEST(NodeBehaviour, DefaultsAreAllowedAndNamesAreUnique) {
  const Behaviour behaviour;
  for (const node::BehaviourField& field : node::BehaviourFields()) {
    EXPECT_EQ(node::FindBehaviourField(field.name), &field);
    EXPECT_TRUE(field.Allows(behaviour.*field.member)) << field.name;
    for (const auto& [word, value] : field.words) EXPECT_EQ(field.WordFor(value), word);
  }
}

TEST(NodeBehaviour, IsReadFromText) {
  const struct {
    const char* field;
    const char* text;
    std::int64_t value;  // -2: refused
  } cases[] = {{"result", "9", 9},
               {"result", "255", 255},
               {"result", "256", -2},
               {"result", "-1", -2},
               {"result", "", -2},
               {"result", "9x", -2},
               {"result", "0x1F", 31},
               {"result", "0x", -2},
               {"magic", "0xFFFFFFFF", 0xFFFFFFFF},
               {"magic", "0x1FFFFFFFF", -2},
               {"magic", "99999999999999999999", -2},
               {"pkg_len", "right", -1},
               {"pkg_len", "0", 0},
               {"on_request", "garbage", Behaviour::kGarbage},
               {"on_request", "4", -2},
               {"on_request", "Garbage", -2},
               {"split_bytes", "whole", 0},
               {"split_bytes", "0", -2},
               {"freeze", "yes", 1},
               {"freeze", "1", -2},
               {"data_up_loss", "100", 100},
               {"probe_down_loss", "101", -2},
               {"header", "past_end", Behaviour::kPastEnd},
               {"head_len", "19", -2},
               {"unasked_ms", "never", 0},
               {"last_node_ip", "0xC6336415", 0xC6336415}};
  for (const auto& one : cases) {
    std::int64_t value = 0;
    const bool right = node::FindBehaviourField(one.field)->Parse(one.text, &value);
    EXPECT_EQ(right ? value : -2, one.value) << one.field << " " << one.text;
  }
}

TEST(NodeAnswer, AgreesWithTheProtocolsOtherDecoder) {
  Behaviour behaviour;
  behaviour.isp = 4;
  behaviour.node_id = 3001;
  for (const int version : {1, 2, 3}) {
    behaviour.answer_version = version;
    const std::string bytes =
        node::MakeAnswer(behaviour, 9, 0x01020304, {0xc6336414, 9200}, {0xc000024d, 50000});
    wire::Answer read;
    const auto* const data = reinterpret_cast<const unsigned char*>(bytes.data());
    ASSERT_EQ(wire::Decode(wire::Bytes(data, bytes.size()), &read), wire::kFine);
    EXPECT_EQ(read.length, bytes.size());
    EXPECT_EQ(read.opening.declared_length, bytes.size());
    EXPECT_EQ(read.opening.version, version);
    EXPECT_EQ(read.result, 9);
    EXPECT_EQ(read.token, 0x01020304u);
    EXPECT_EQ(read.provider, 4u);
    EXPECT_EQ(read.client_address, 0xc000024du);
    EXPECT_EQ(read.data_address, 0xc6336414u);
    EXPECT_EQ(read.data_port, 9200);
    EXPECT_EQ(read.previous.number, version >= 2 ? 3001 : 0);
    EXPECT_EQ(read.previous.port, version >= 2 ? 9200 : 0);
  }
}

TEST(NodeAnswer, MayNameAnotherLastNode) {
  Behaviour behaviour;
  behaviour.last_node_ip = 0xC6336415;
  behaviour.last_node_port = 9100;
  const std::string bytes = node::MakeAnswer(behaviour, 0, 7, {0xc6336414, 9200}, {});
  wire::Answer read;
  const auto* const data = reinterpret_cast<const unsigned char*>(bytes.data());
  ASSERT_EQ(wire::Decode(wire::Bytes(data, bytes.size()), &read), wire::kFine);
  EXPECT_EQ(read.data_address, 0xc6336414u);
  EXPECT_EQ(read.previous.address, 0xc6336415u);
  EXPECT_EQ(read.previous.port, 9100);
}

class NodeCommand : public testing::Test {
 protected:
  std::string Run(const std::string& line) { return node::RunCommand(line, target); }

  Behaviour behaviour;
  int stops = 0;
  int resets = 0;
  node::ControlTarget target{
      .behaviour = &behaviour,
      .initial = {.result = 7},
      .connections = [] { return std::vector{node::Event{"connection"}.With("connection", 1)}; },
      .close_all =
          [this](bool reset) {
            resets += reset ? 1 : 0;
            return node::u64{3};
          },
      .flows = [] { return std::vector{node::Event{"flow"}.With("flow", 4)}; },
      .forget_flows = [] { return node::u64{5}; },
      .stop = [this] { ++stops; }};
};

TEST_F(NodeCommand, SetsAllOrNothing) {
  EXPECT_EQ(Run(R"({"command":"set","result":9,"pkg_len":"right","freeze":"yes"})"),
            R"({"ok":true})");
  EXPECT_EQ(behaviour.result, 9);
  EXPECT_EQ(behaviour.freeze, 1);
  EXPECT_EQ(Run(R"({"command":"set","result":1,"isp":-1})"),
            R"({"ok":false,"error":"'isp' must be 0 to 4294967295"})");
  EXPECT_EQ(Run(R"({"command":"set","result":1,"speed":1})"),
            R"({"ok":false,"error":"'speed' is no behaviour"})");
  EXPECT_EQ(behaviour.result, 9);
}

TEST_F(NodeCommand, RefusesValuesOfAnotherKind) {
  for (const char* value : {"1.5", "true", "null", "[]", "{}", "256", "-1", "1e3", "\"nine\"",
                            "18446744073709551615", "99999999999999999999999"}) {
    const std::string reply = Run(std::string(R"({"command":"set","result":)") + value + "}");
    EXPECT_EQ(reply, R"({"ok":false,"error":"'result' must be 0 to 255"})") << value;
  }
  EXPECT_EQ(behaviour.result, 0);
}

TEST_F(NodeCommand, RefusesInvalidCommands) {
  for (const char* line :
       {"", "{", "[]", "1", "null", "{}", R"({"command":1})", R"({"command":"fly"})",
        R"({"command":"stop","now":1})", "\xff\xfe", R"({"command":"set"} x)"}) {
    EXPECT_EQ(Run(line).rfind(R"({"ok":false,"error":")", 0), 0u) << line << " " << Run(line);
  }
  EXPECT_EQ(Run(std::string(60'000, '[')).rfind(R"({"ok":false)", 0), 0u);
  EXPECT_EQ(stops, 0);
}

TEST_F(NodeCommand, DoTheRest) {
  EXPECT_EQ(Run(R"({"command":"restore"})"), R"({"ok":true})");
  EXPECT_EQ(behaviour.result, 7);
  EXPECT_EQ(Run(R"({"command":"connections"})"), R"({"ok":true,"connections":[{"connection":1}]})");
  EXPECT_EQ(Run(R"({"command":"close"})"), R"({"ok":true,"connections":3})");
  EXPECT_EQ(resets, 0);
  EXPECT_EQ(Run(R"({"command":"reset"})"), R"({"ok":true,"connections":3})");
  EXPECT_EQ(resets, 1);
  EXPECT_EQ(Run(R"({"command":"flows"})"), R"({"ok":true,"flows":[{"flow":4}]})");
  EXPECT_EQ(Run(R"({"command":"forget"})"), R"({"ok":true,"flows":5})");
  EXPECT_EQ(Run(R"({"command":"stop"})"), R"({"ok":true})");
  EXPECT_EQ(stops, 1);
  const std::string got = Run(R"({"command":"get"})");
  for (const node::BehaviourField& field : node::BehaviourFields())
    EXPECT_NE(got.find(std::string("\"") + field.name + "\":"), std::string::npos) << field.name;
  // What `get` prints, `set` accepts.
  const std::size_t begin = got.find("{\"on_accept\"") + 1;
  EXPECT_EQ(Run("{\"command\":\"set\"," + got.substr(begin, got.size() - begin - 1)),
            R"({"ok":true})");
}

TEST(NodeEvent, IsALineOfJsonOrText) {
  const node::Event event =
      node::Event{"request"}.With("uin", ~node::u64{0}).With("text", "a \"b\"\n");
  EXPECT_EQ(event.ToJson(), R"({"event":"request","uin":18446744073709551615,"text":"a \"b\"\n"})");
  EXPECT_EQ(event.ToText(), "request uin=18446744073709551615 text=a \"b\"\n");
  EXPECT_EQ(event.Number("uin"), ~node::u64{0});
  EXPECT_EQ(event.Number("text"), 0u);
  EXPECT_EQ(event.Text("nothing"), "");
}

}  // namespace
