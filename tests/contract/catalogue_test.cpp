// The Winsock catalogue.
#include <cstdlib>
#include <vector>

#include "tests/contract/world.h"
//
#include <ws2spi.h>

namespace contract {
namespace {

TEST(Catalogue, ReturnsItsSizeAndThenItsEntries) {
  DWORD size = 0;
  int error = 0;
  CHECK_EQ(WSCEnumProtocols(nullptr, nullptr, &size, &error), SOCKET_ERROR);
  CHECK_EQ(error, WSAENOBUFS);
  CHECK_TRUE(size >= sizeof(WSAPROTOCOL_INFOW));
  std::vector<WSAPROTOCOL_INFOW> entries(size / sizeof(WSAPROTOCOL_INFOW) + 1);
  const int count = WSCEnumProtocols(nullptr, entries.data(), &size, &error);
  CHECK_TRUE(count >= 2);
  bool tcp = false, udp = false;
  for (int i = 0; i < count; ++i) {
    const WSAPROTOCOL_INFOW& entry = entries[static_cast<size_t>(i)];
    const bool base = entry.ProtocolChain.ChainLen == BASE_PROTOCOL;
    if (entry.iAddressFamily != AF_INET || !base) continue;
    tcp = tcp || (entry.iSocketType == SOCK_STREAM && entry.iProtocol == IPPROTO_TCP);
    udp = udp || (entry.iSocketType == SOCK_DGRAM && entry.iProtocol == IPPROTO_UDP);
  }
  CHECK_TRUE(tcp);
  CHECK_TRUE(udp);
  int wanted[] = {IPPROTO_UDP, 0};
  size = static_cast<DWORD>(entries.size() * sizeof entries[0]);
  const int some = WSCEnumProtocols(wanted, entries.data(), &size, &error);
  CHECK_TRUE(some >= 1 && some < count);
  for (int i = 0; i < some; ++i) EXPECT_EQ(entries[static_cast<size_t>(i)].iProtocol, IPPROTO_UDP);
}

TEST(Catalogue, FindsProvidersByTheirIdentity) {
  if (WineDiffers("WSCGetProviderPath answers 0 and writes nothing")) return;
  DWORD size = 0;
  int error = 0;
  WSCEnumProtocols(nullptr, nullptr, &size, &error);
  std::vector<WSAPROTOCOL_INFOW> entries(size / sizeof(WSAPROTOCOL_INFOW));
  ASSERT_GE(WSCEnumProtocols(nullptr, entries.data(), &size, &error), 1);
  wchar_t path[MAX_PATH] = {};
  int length = MAX_PATH;
  CHECK_EQ(WSCGetProviderPath(&entries[0].ProviderId, path, &length, &error), 0);
  CHECK_EQ(length, static_cast<int>(std::wcslen(path)) + 1);
  CHECK_NE(path[0], L'\0');
  length = 2;
  CHECK_EQ(WSCGetProviderPath(&entries[0].ProviderId, path, &length, &error), SOCKET_ERROR);
  CHECK_EQ(error, WSAEFAULT);
  GUID nobody = {0x11111111, 0x2222, 0x3333, {4, 4, 4, 4, 4, 4, 4, 4}};
  length = MAX_PATH;
  CHECK_EQ(WSCGetProviderPath(&nobody, path, &length, &error), SOCKET_ERROR);
  CHECK_EQ(error, WSAEINVALIDPROVIDER);
}

}  // namespace
}  // namespace contract
