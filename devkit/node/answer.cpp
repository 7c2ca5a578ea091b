#include "node/answer.h"

#include "protocol/nego_response.h"

namespace node {

using namespace moru_vyr::lsp;

namespace {

// Written over the output of Pack, which would not produce a false header.
void Overwrite(std::string* bytes, std::size_t offset, std::size_t size, u64 value) {
  for (std::size_t i = 0; i < size; ++i)
    (*bytes)[offset + i] = static_cast<char>(value >> 8 * (size - 1 - i));
}

}  // namespace

std::string MakeAnswer(const Behaviour& behaviour, u8 result, u32 token, const Address& own,
                       const Address& client) {
  NegoResponse response;
  response.body.result = result;
  response.body.accl_token = token;
  response.body.client_isp = static_cast<u32>(behaviour.isp);
  response.body.client_ip = client.ip;
  response.body.accl_data_ip = own.ip;
  response.body.accl_data_port = own.port;
  response.body.last_node.node_id = static_cast<u16>(behaviour.node_id);
  response.body.last_node.ip =
      behaviour.last_node_ip < 0 ? own.ip : static_cast<u32>(behaviour.last_node_ip);
  response.body.last_node.port =
      behaviour.last_node_port < 0 ? own.port : static_cast<u16>(behaviour.last_node_port);
  response.body.last_node.accl_token = token;

  std::string bytes(sizeof response, '\0');
  const int size =
      response.Pack({reinterpret_cast<u8*>(bytes.data()), bytes.size()},
                    NormaliseVersion(static_cast<u32>(behaviour.answer_version), kNegoVersion));
  bytes.resize(static_cast<std::size_t>(size));
  const auto field = [&](std::size_t offset, std::size_t width, std::int64_t value) {
    Overwrite(&bytes, offset, width, static_cast<u64>(value));
  };
  field(offsetof(NegoHeader, magic), sizeof NegoHeader::magic, behaviour.magic);
  field(offsetof(NegoHeader, version), sizeof NegoHeader::version, behaviour.answer_version);
  if (behaviour.pkg_len >= 0)
    field(offsetof(NegoHeader, pkg_len), sizeof NegoHeader::pkg_len, behaviour.pkg_len);
  if (behaviour.answer_bytes >= 0 &&
      static_cast<std::size_t>(behaviour.answer_bytes) < bytes.size())
    bytes.resize(static_cast<std::size_t>(behaviour.answer_bytes));
  return bytes;
}

std::string MakeGarbage(std::size_t size) {
  std::string bytes(size, '\0');
  u32 state = 0x9E3779B9;
  for (char& byte : bytes) {
    state = state * 1664525 + 1013904223;
    byte = static_cast<char>(state >> 24);
  }
  static_assert(kNegoMagic >> 24 == 0x78);
  if (!bytes.empty()) bytes[0] = static_cast<char>(0x87);
  return bytes;
}

}  // namespace node
