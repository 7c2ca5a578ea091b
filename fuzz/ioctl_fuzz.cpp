// WSPIoctl with any code, any input and any answer of the next provider. Everything passes through
// as it is; only a query for ConnectEx on a socket that may be relayed gets our own function.
#include <winsock2.h>
#include <ws2spi.h>
//
#include <mswsock.h>

#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "check.h"
#include "hooks/hook_entries.h"
#include "input.h"
#include "route/acc_config.h"
#include "sockets/socket_map.h"

namespace {

using namespace moru_vyr::lsp;
using common::u8;
using fuzz::Require;

constexpr SOCKET kRelayed = 0x1234, kDirect = 0x1238, kUnknown = 0x123C;

struct Call {
  SOCKET s = INVALID_SOCKET;
  DWORD code = 0;
  const void* in = nullptr;
  DWORD in_size = 0;
  void* out = nullptr;
  DWORD out_size = 0;
  DWORD* returned = nullptr;
  bool operator==(const Call&) const = default;
};

// What the next provider sees, and what it answers.
Call seen;
int calls = 0;
int answer = 0;
int answer_error = 0;
std::string answer_bytes;

int WSPAPI NextIoctl(SOCKET s, DWORD code, LPVOID in, DWORD in_size, LPVOID out, DWORD out_size,
                     LPDWORD returned, LPWSAOVERLAPPED, LPWSAOVERLAPPED_COMPLETION_ROUTINE,
                     LPWSATHREADID, LPINT error) {
  ++calls;
  seen = {s, code, in, in_size, out, out_size, returned};
  if (out != nullptr) answer_bytes.copy(static_cast<char*>(out), out_size);
  if (returned != nullptr) *returned = static_cast<DWORD>(answer_bytes.size());
  if (error != nullptr) *error = answer_error;
  return answer;
}

void Prepare() {
  static WSPPROC_TABLE next;
  static const bool is_done = [] {
    AccConfig config;
    config.net_mode = 0x8;  // streams alone
    config.log_level = 6;
    ReplaceAccConfig(config);
    next.lpWSPIoctl = NextIoctl;
    SocketMap& map = GetSocketMap();
    map.Add(kRelayed, SOCK_STREAM, 6, 1);
    map.Add(kDirect, SOCK_DGRAM, 17, 2);
    return map.SetNextProcTable(kRelayed, &next) && map.SetNextProcTable(kDirect, &next);
  }();
  Require(is_done);
}

std::string Query(fuzz::Input* input) {
  const GUID known[] = {WSAID_CONNECTEX, WSAID_ACCEPTEX, WSAID_TRANSMITFILE, WSAID_WSASENDMSG};
  const u8 which = input->Byte();
  if (which % 8 >= 5) return input->Bytes(which / 8);
  const GUID& id = known[which % 8 == 4 ? 0 : which % 8];
  std::string bytes(reinterpret_cast<const char*>(&id), sizeof id);
  if (which % 8 == 4) bytes[input->Byte() % bytes.size()] ^= static_cast<char>(input->Byte());
  if (which >= 192) bytes.resize(input->Byte() % 24);
  return bytes;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, std::size_t size) {
  Prepare();
  fuzz::Input input(data, size);
  const u8 mode = input.Byte();
  const SOCKET s = mode % 8 == 7 ? kUnknown : mode % 8 >= 5 ? kDirect : kRelayed;
  const DWORD code = (mode & 8) != 0 ? input.Long() : DWORD{SIO_GET_EXTENSION_FUNCTION_POINTER};
  const std::string query = Query(&input);
  const std::vector<char> in(query.begin(),
                             query.end());  // exact, so that a read behind it is seen
  answer = (mode & 16) != 0 ? SOCKET_ERROR : 0;
  answer_error = (mode & 16) != 0 ? input.Word() : 0;
  answer_bytes = input.Bytes(64);
  // A pointer's room at least: an application that asks for a function has that, whatever it says.
  std::vector<char> out(std::max<std::size_t>(sizeof(void*), input.Byte() % 80), '\x5A');
  const DWORD out_size = std::min<DWORD>(input.Byte(), static_cast<DWORD>(out.size()));
  void* const out_or_none = (mode & 32) != 0 ? nullptr : out.data();
  DWORD returned = 77;
  int error = 77;
  const bool tells_error = (mode & 64) == 0;

  std::vector<char> expected = out;
  if (out_or_none != nullptr && s != kUnknown) answer_bytes.copy(expected.data(), out_size);
  const GUID connect_ex = WSAID_CONNECTEX;
  const bool asks = query.size() == sizeof connect_ex &&
                    std::memcmp(query.data(), &connect_ex, sizeof connect_ex) == 0;
  const bool is_ours = asks && s == kRelayed && code == DWORD{SIO_GET_EXTENSION_FUNCTION_POINTER};
  if (is_ours && out_or_none != nullptr) {
    const auto ours = &WSPConnectEx;
    std::memcpy(expected.data(), &ours, sizeof ours);
  }

  const int calls_before = calls;
  const int result =
      WSPIoctl(s, code, const_cast<char*>(in.data()), static_cast<DWORD>(in.size()), out_or_none,
               out_size, &returned, nullptr, nullptr, nullptr, tells_error ? &error : nullptr);
  Require(out == expected, "what the application gets");
  if (s == kUnknown) {
    Require(result == SOCKET_ERROR && calls == calls_before && error == 77, "no provider, no call");
    return 0;
  }
  Require(calls == calls_before + 1, "one call");
  Require(seen == Call{s, code, in.data(), static_cast<DWORD>(in.size()), out_or_none, out_size,
                       &returned},
          "with the application's own arguments");
  Require(result == answer && returned == answer_bytes.size(), "and the provider's own answer");
  Require(error == (tells_error ? answer_error : 77), "and error");
  return 0;
}
