// The port's own controls: failure on demand, modules, and the dispatch of plain socket calls
// through a layered provider. Nothing of it exists on Windows.
#ifndef _WIN32
#include <winsock2.h>
//
#include <ws2spi.h>

#include "gtest/gtest.h"
#include "port/shared/backend.h"
#include "port/shared/base_startup.h"
#include "port/shared/catalogue.h"
#include "port/shared/faults.h"
#include "port/shared/modules.h"
#include "port/shared/winsock.h"

namespace {

constexpr GUID kLayerGuid = {0x11223344, 0x5566, 0x7788, {1, 2, 3, 4, 5, 6, 7, 8}};
constexpr wchar_t kLayerPath[] = L"C:\\layer\\layer.dll";

int starts = 0;
int binds = 0;
DWORD started_entry = 0;
int start_result = 0;
bool leave_out_an_entry = false;

int WSPAPI CountingBind(SOCKET s, const struct sockaddr* name, int size, LPINT error) {
  ++binds;
  return port::BaseProviderTable().lpWSPBind(s, name, size, error);
}

int WSPAPI LayerStartup(WORD, LPWSPDATA, LPWSAPROTOCOL_INFOW info, WSPUPCALLTABLE upcalls,
                        LPWSPPROC_TABLE out) {
  ++starts;
  started_entry = info->dwCatalogEntryId;
  EXPECT_NE(upcalls.entries[0], nullptr);
  *out = port::BaseProviderTable();
  out->lpWSPBind = &CountingBind;
  if (leave_out_an_entry) out->lpWSPSend = nullptr;
  return start_result;
}

int BindLoopback(SOCKET s) {
  sockaddr_in name = {};
  name.sin_family = AF_INET;
  name.sin_addr.s_addr = htonl(0x7f000001);
  return bind(s, reinterpret_cast<sockaddr*>(&name), sizeof name);
}

class Layered : public testing::Test {
 protected:
  void SetUp() override {
    starts = binds = start_result = 0;
    leave_out_an_entry = false;
    port::RegisterModule(
        kLayerPath,
        {{"WSPStartup", reinterpret_cast<FARPROC>(reinterpret_cast<void*>(&LayerStartup))}});
    port::SetProviderPath(kLayerGuid, kLayerPath);
    port::SetCatalogue(port::LayeredCatalogue(kLayerGuid, 500));
    port::UseCatalogue(true);
  }
  void TearDown() override {
    port::UseCatalogue(false);
    port::SetCatalogue(port::BaseEntries());
    port::RemoveProviderPath(kLayerGuid);
    port::UnregisterModule(kLayerPath);
    port::ClearFaults();
  }
};

TEST_F(Layered, FirstSocketOfAProtocolStartsItsEntryOnce) {
  const SOCKET tcp = socket(AF_INET, SOCK_STREAM, IPPROTO_TCP);
  EXPECT_EQ(starts, 1);
  EXPECT_EQ(started_entry, 501u);
  const SOCKET again = socket(AF_INET, SOCK_STREAM, 0);
  EXPECT_EQ(starts, 1);
  const SOCKET udp = socket(AF_INET, SOCK_DGRAM, IPPROTO_UDP);
  EXPECT_EQ(starts, 2);
  EXPECT_EQ(started_entry, 502u);
  EXPECT_EQ(BindLoopback(tcp), 0);
  EXPECT_EQ(binds, 1);
  for (SOCKET s : {tcp, again, udp}) EXPECT_EQ(closesocket(s), 0);
}

TEST_F(Layered, SocketsKeepTheirProvider) {
  port::UseCatalogue(false);
  const SOCKET before = socket(AF_INET, SOCK_DGRAM, IPPROTO_UDP);
  port::UseCatalogue(true);
  const SOCKET layered = socket(AF_INET, SOCK_DGRAM, IPPROTO_UDP);
  SOCKET bypassed = INVALID_SOCKET;
  {
    port::BypassLayers bypass;
    bypassed = socket(AF_INET, SOCK_DGRAM, IPPROTO_UDP);
  }
  EXPECT_EQ(BindLoopback(before), 0);
  EXPECT_EQ(BindLoopback(bypassed), 0);
  EXPECT_EQ(binds, 0);
  EXPECT_EQ(BindLoopback(layered), 0);
  EXPECT_EQ(binds, 1);
  for (SOCKET s : {before, layered, bypassed}) EXPECT_EQ(closesocket(s), 0);
}

TEST_F(Layered, StartThatFailsFailsTheSocket) {
  start_result = WSAEPROVIDERFAILEDINIT;
  EXPECT_EQ(socket(AF_INET, SOCK_DGRAM, IPPROTO_UDP), INVALID_SOCKET);
  EXPECT_EQ(WSAGetLastError(), WSAEPROVIDERFAILEDINIT);
  start_result = 0;
  leave_out_an_entry = true;
  EXPECT_EQ(socket(AF_INET, SOCK_DGRAM, IPPROTO_UDP), INVALID_SOCKET);
  EXPECT_EQ(WSAGetLastError(), WSAEINVALIDPROCTABLE);
  port::UnregisterModule(kLayerPath);
  EXPECT_EQ(socket(AF_INET, SOCK_DGRAM, IPPROTO_UDP), INVALID_SOCKET);
  EXPECT_EQ(WSAGetLastError(), WSAEPROVIDERFAILEDINIT);
}

TEST_F(Layered, BaseProviderIsFoundByTheChain) {
  wchar_t path[260] = {}, expanded[260] = {};
  int length = 259, error = 0;
  GUID guid = port::kBaseProviderGuid;
  ASSERT_EQ(WSCGetProviderPath(&guid, path, &length, &error), 0);
  ExpandEnvironmentStringsW(path, expanded, 260);
  const int loads = port::LoadCount(path);
  const HMODULE module = LoadLibraryW(expanded);
  ASSERT_NE(module, nullptr);
  EXPECT_EQ(port::LoadCount(path), loads + 1);
  auto startup =
      reinterpret_cast<LPWSPSTARTUP>(reinterpret_cast<void*>(GetProcAddress(module, "WSPStartup")));
  ASSERT_NE(startup, nullptr);
  WSPDATA data = {};
  WSPPROC_TABLE table = {};
  WSAPROTOCOL_INFOW info = port::BaseEntries()[1];
  EXPECT_EQ(startup(MAKEWORD(2, 2), &data, &info, {}, &table), 0);
  EXPECT_EQ(port::LastBaseEntry(), 1002u);
  EXPECT_NE(table.lpWSPStringToAddress, nullptr);
  EXPECT_EQ(startup(MAKEWORD(1, 1), &data, &info, {}, &table), WSAVERNOTSUPPORTED);
  EXPECT_TRUE(FreeLibrary(module));
  EXPECT_EQ(port::LoadCount(path), loads);
}

int ExportOfThePinned() { return 0; }

TEST(Modules, APinnedOneStaysLoadedAndOthersDoNot) {
  constexpr DWORD kFlags = GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_PIN;
  const std::wstring path = L"C:\\pinned\\pinned.dll";
  const auto function = reinterpret_cast<FARPROC>(&ExportOfThePinned);
  port::RegisterModule(path, {{"Export", function}});
  const HMODULE module = LoadLibraryW(path.c_str());
  ASSERT_NE(module, nullptr);
  EXPECT_TRUE(FreeLibrary(module));
  EXPECT_EQ(port::LoadCount(path), 0);
  LoadLibraryW(path.c_str());
  HMODULE found = nullptr;
  EXPECT_TRUE(GetModuleHandleExW(
      kFlags, reinterpret_cast<LPCWSTR>(reinterpret_cast<void*>(function)), &found));
  EXPECT_EQ(found, module);
  for (int i = 0; i < 3; ++i) EXPECT_TRUE(FreeLibrary(module));
  EXPECT_EQ(port::LoadCount(path), 1);
  port::UnregisterModule(path);
}

TEST(Faults, NthCallFailsAndTheOthersDoNot) {
  port::ClearFaults();
  port::FailCall("CreateEventA", 2, ERROR_NOT_ENOUGH_MEMORY);
  for (int call = 1; call <= 3; ++call) {
    SetLastError(0);
    const HANDLE event = CreateEventA(nullptr, FALSE, FALSE, nullptr);
    EXPECT_EQ(event == nullptr, call == 2);
    EXPECT_EQ(GetLastError(), call == 2 ? ERROR_NOT_ENOUGH_MEMORY : 0u);
    if (event) CloseHandle(event);
  }
  EXPECT_EQ(port::CallCount("CreateEventA"), 3u);
  port::ClearFaults();
  EXPECT_EQ(port::CallCount("CreateEventA"), 0u);
}

TEST(Faults, ProviderEntriesFailThroughTheirErrorPointer) {
  port::ClearFaults();
  const SOCKET s = socket(AF_INET, SOCK_DGRAM, IPPROTO_UDP);
  port::FailCall("WSPBind", 0, WSAEADDRINUSE);
  for (int i = 0; i < 2; ++i) {
    EXPECT_EQ(BindLoopback(s), SOCKET_ERROR);
    EXPECT_EQ(WSAGetLastError(), WSAEADDRINUSE);
  }
  port::ClearFaults();
  EXPECT_EQ(BindLoopback(s), 0);
  closesocket(s);
}

TEST(BaseProvider, OverlappedCallsAreNotSupported) {
  const SOCKET s = socket(AF_INET, SOCK_DGRAM, IPPROTO_UDP);
  EXPECT_EQ(BindLoopback(s), 0);
  WSAOVERLAPPED overlapped = {};
  char byte = 0;
  WSABUF buffer = {1, &byte};
  DWORD bytes = 0, flags = 0;
  int error = 0;
  const WSPPROC_TABLE& table = port::BaseProviderTable();
  EXPECT_EQ(table.lpWSPRecv(s, &buffer, 1, &bytes, &flags, &overlapped, nullptr, nullptr, &error),
            SOCKET_ERROR);
  EXPECT_EQ(error, WSAEOPNOTSUPP);
  EXPECT_EQ(table.lpWSPSend(s, &buffer, 1, &bytes, 0, &overlapped, nullptr, nullptr, &error),
            SOCKET_ERROR);
  EXPECT_EQ(error, WSAEOPNOTSUPP);
  closesocket(s);
}

TEST(Modules, CountTheirLoadsAndIgnoreLetterCase) {
  port::RegisterModule(L"C:\\some\\Thing.dll", {{"Go", nullptr}});
  const HMODULE first = LoadLibraryW(L"c:\\SOME\\thing.DLL");
  const HMODULE second = LoadLibraryA("thing");
  EXPECT_NE(first, nullptr);
  EXPECT_EQ(first, second);
  EXPECT_EQ(port::LoadCount(L"C:\\some\\Thing.dll"), 2);
  EXPECT_EQ(GetProcAddress(first, "Missing"), nullptr);
  EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_PROC_NOT_FOUND));
  EXPECT_TRUE(FreeLibrary(first));
  EXPECT_TRUE(FreeLibrary(second));
  EXPECT_FALSE(FreeLibrary(second));
  EXPECT_EQ(port::LoadsEver(L"C:\\some\\Thing.dll"), 2);
  port::UnregisterModule(L"C:\\some\\Thing.dll");
}

}  // namespace
#endif
