#include "tests/contract/world.h"

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace contract {
namespace {

std::atomic<int> checks{0};

bool OnWine() {
#ifdef _WIN32
  const HMODULE ntdll = GetModuleHandleA("ntdll.dll");
  return ntdll && GetProcAddress(ntdll, "wine_get_version");
#else
  return false;
#endif
}

class World : public testing::Environment {
 public:
  void SetUp() override {
    WSADATA data = {};
    ASSERT_EQ(WSAStartup(MAKEWORD(2, 2), &data), 0);
  }
  void TearDown() override {
    WSACleanup();
    std::printf("contract: %d checks\n", checks.load());
  }
};

[[maybe_unused]] const testing::Environment* const world =
    testing::AddGlobalTestEnvironment(new World);

DWORD WINAPI RunBody(LPVOID parameter) {
  (*static_cast<std::function<void()>*>(parameter))();
  return 0;
}

}  // namespace

void CountCheck() { ++checks; }

bool WineDiffers(const char* what_was_seen) {
  static const bool wine = OnWine() && !std::getenv("CONTRACT_LEAVE_NOTHING_OUT");
  if (wine) std::printf("[     Wine ] left out here: %s\n", what_was_seen);
  return wine;
}

std::string UniqueName(const char* stem) {
  static std::atomic<int> made{0};
  return std::string(stem) + "_" + std::to_string(GetCurrentProcessId()) + "_" +
         std::to_string(GetTickCount()) + "_" + std::to_string(++made);
}

std::wstring Directory() {
  static const std::wstring directory = [] {
    wchar_t base[MAX_PATH] = {};
    ExpandEnvironmentStringsW(L"%TEMP%", base, MAX_PATH);
    CreateDirectoryW(base, nullptr);
    std::wstring path = base;
    path += L"\\contract_" + std::to_wstring(GetCurrentProcessId()) + L"_" +
            std::to_wstring(GetTickCount());
    CreateDirectoryW(path.c_str(), nullptr);
    return path;
  }();
  return directory;
}

void WriteTextFile(const std::wstring& path, const std::string& text) {
  HANDLE file = CreateFileW(path.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS,
                            FILE_ATTRIBUTE_NORMAL, nullptr);
  ASSERT_NE(file, INVALID_HANDLE_VALUE);
  DWORD written = 0;
  ASSERT_TRUE(WriteFile(file, text.data(), static_cast<DWORD>(text.size()), &written, nullptr));
  CloseHandle(file);
}

OnThread::OnThread(std::function<void()> body)
    : body_(std::move(body)), handle_(CreateThread(nullptr, 0, RunBody, &body_, 0, nullptr)) {}

OnThread::~OnThread() {
  Join();
  CloseHandle(handle_);
}

void OnThread::Join() {
  ASSERT_EQ(WaitForSingleObject(handle_, 60'000), WAIT_OBJECT_0) << "a thread hangs";
}

sockaddr_in Address(const char* text, unsigned port) {
  sockaddr_in name = {};
  name.sin_family = AF_INET;
  name.sin_port = htons(static_cast<unsigned short>(port));
  const auto address = inet_addr(text);
  std::memcpy(&name.sin_addr, &address, sizeof name.sin_addr);
  return name;
}

const sockaddr* Raw(const sockaddr_in& name) { return reinterpret_cast<const sockaddr*>(&name); }
sockaddr* Raw(sockaddr_in& name) { return reinterpret_cast<sockaddr*>(&name); }

Owned Tcp() { return Owned(socket(AF_INET, SOCK_STREAM, IPPROTO_TCP)); }
Owned Udp() { return Owned(socket(AF_INET, SOCK_DGRAM, IPPROTO_UDP)); }

unsigned LocalPort(SOCKET s) {
  sockaddr_in name = {};
  int size = sizeof name;
  EXPECT_EQ(getsockname(s, Raw(name), &size), 0);
  return ntohs(name.sin_port);
}

static void BindLoopback(SOCKET s) {
  const sockaddr_in name = Loopback(0);
  EXPECT_EQ(bind(s, Raw(name), sizeof name), 0) << WSAGetLastError();
}

Owned BoundUdp() {
  Owned s = Udp();
  BindLoopback(s);
  return s;
}

Owned Listener() {
  Owned s = Tcp();
  BindLoopback(s);
  EXPECT_EQ(listen(s, 16), 0);
  return s;
}

unsigned DeadPort() {
  Owned s = Tcp();
  BindLoopback(s);
  return LocalPort(s);
}

void SetNonBlocking(SOCKET s, bool on) {
  u_long value = on;
  EXPECT_EQ(ioctlsocket(s, static_cast<long>(FIONBIO), &value), 0);
}

int Connect(SOCKET s, unsigned port) {
  const sockaddr_in name = Loopback(port);
  return connect(s, Raw(name), sizeof name);
}

Pair ConnectedPair() {
  Owned listener = Listener();
  Pair pair{Tcp(), Owned()};
  SetNonBlocking(pair.client);
  Connect(pair.client, LocalPort(listener));
  pair.server = Owned(accept(listener, nullptr, nullptr));
  EXPECT_NE(static_cast<SOCKET>(pair.server), INVALID_SOCKET);
  EXPECT_TRUE(SelectOne(pair.client, 5000, false, true, false).write);
  SetNonBlocking(pair.client, false);
  return pair;
}

int SendText(SOCKET s, const std::string& text) {
  return send(s, text.data(), static_cast<int>(text.size()), 0);
}

int SendTextTo(SOCKET s, const std::string& text, unsigned port) {
  const sockaddr_in to = Loopback(port);
  return sendto(s, text.data(), static_cast<int>(text.size()), 0, Raw(to), sizeof to);
}

std::string RecvText(SOCKET s, int most, int flags) {
  std::string text(static_cast<size_t>(most), '\0');
  const int got = recv(s, text.data(), most, flags);
  if (got < 0) return "<error " + std::to_string(WSAGetLastError()) + ">";
  text.resize(static_cast<size_t>(got));
  return text;
}

Ready SelectOne(SOCKET s, int ms, bool read, bool write, bool except) {
  fd_set sets[3];
  for (fd_set& set : sets) {
    FD_ZERO(&set);
    FD_SET(s, &set);
  }
  timeval limit = {ms / 1000, ms % 1000 * 1000};
  Ready ready = {};
  ready.result = select(0, read ? &sets[0] : nullptr, write ? &sets[1] : nullptr,
                        except ? &sets[2] : nullptr, &limit);
  ready.read = read && FD_ISSET(s, &sets[0]);
  ready.write = write && FD_ISSET(s, &sets[1]);
  ready.except = except && FD_ISSET(s, &sets[2]);
  return ready;
}

bool WaitReadable(SOCKET s) { return SelectOne(s, 5000, true, false, false).read; }

}  // namespace contract
