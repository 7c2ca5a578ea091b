// Text conversion, the environment, and other services of the runtime.
#include <rpc.h>
#include <time.h>

#include <cstring>
#include <set>

#include "tests/contract/world.h"

namespace contract {
namespace {

std::string ToUtf8(const std::wstring& text, DWORD flags = 0) {
  char out[200] = {};
  const int size = WideCharToMultiByte(CP_UTF8, flags, text.data(), static_cast<int>(text.size()),
                                       out, sizeof out, nullptr, nullptr);
  return std::string(out, static_cast<size_t>(size));
}

std::wstring FromUtf8(const std::string& text, DWORD flags = 0) {
  wchar_t out[200] = {};
  const int size =
      MultiByteToWideChar(CP_UTF8, flags, text.data(), static_cast<int>(text.size()), out, 200);
  return std::wstring(out, static_cast<size_t>(size));
}

TEST(Text, GoesToUtf8AndBack) {
  const std::pair<std::wstring, std::string> cases[] = {
      {L"plain", "plain"},
      {L"\u00e4\u00f6", "\xc3\xa4\xc3\xb6"},
      {L"\u4e2d\uff1a", "\xe4\xb8\xad\xef\xbc\x9a"},
      {std::wstring(L"a\0b", 3), std::string("a\0b", 3)},
      {L"\u07ff\u0800\uffff", "\xdf\xbf\xe0\xa0\x80\xef\xbf\xbf"},
  };
  for (const auto& [wide, utf8] : cases) {
    CHECK_EQ(ToUtf8(wide), utf8);
    CHECK_EQ(FromUtf8(utf8), wide);
  }
}

TEST(Text, MalformedUtf8BecomesReplacementsOrAnError) {
  CHECK_EQ(FromUtf8("a\xff"
                    "b"),
           L"a\ufffd"
           L"b");
  CHECK_EQ(FromUtf8("\xe4\xb8"), L"\ufffd");        // cut short
  CHECK_EQ(FromUtf8("\xc0\x80"), L"\ufffd\ufffd");  // overlong
  wchar_t out[10];
  for (const char* bad : {"\xff", "\xe4\xb8", "\xc0\x80", "\xed\xa0\x80", "a\x80"})
    CHECK_FAILS(MultiByteToWideChar(CP_UTF8, MB_ERR_INVALID_CHARS, bad, -1, out, 10), 0,
                ERROR_NO_UNICODE_TRANSLATION);
}

TEST(Text, LoneSurrogatesBecomeReplacementsOrAnError) {
  const std::wstring lone = {L'a', static_cast<wchar_t>(0xD800), L'b'};
  CHECK_EQ(ToUtf8(lone),
           "a\xef\xbf\xbd"
           "b");
  char out[10];
  CHECK_FAILS(WideCharToMultiByte(CP_UTF8, WC_ERR_INVALID_CHARS, lone.c_str(), -1, out, 10, nullptr,
                                  nullptr),
              0, ERROR_NO_UNICODE_TRANSLATION);
}

TEST(Text, SizeCanBeQueriedAndIsRespected) {
  CHECK_EQ(WideCharToMultiByte(CP_UTF8, 0, L"\u00e4", -1, nullptr, 0, nullptr, nullptr), 3);
  CHECK_EQ(MultiByteToWideChar(CP_UTF8, 0, "\xc3\xa4", -1, nullptr, 0), 2);
  CHECK_EQ(WideCharToMultiByte(CP_UTF8, 0, L"abc", 2, nullptr, 0, nullptr, nullptr), 2);
  char narrow[4];
  wchar_t wide[4];
  CHECK_EQ(WideCharToMultiByte(CP_UTF8, 0, L"abc", -1, narrow, 4, nullptr, nullptr), 4);
  CHECK_FAILS(WideCharToMultiByte(CP_UTF8, 0, L"abcd", -1, narrow, 4, nullptr, nullptr), 0,
              ERROR_INSUFFICIENT_BUFFER);
  CHECK_FAILS(MultiByteToWideChar(CP_UTF8, 0, "abcd", -1, wide, 4), 0, ERROR_INSUFFICIENT_BUFFER);
}

TEST(Text, WrongArgumentsAreRefused) {
  char narrow[4];
  wchar_t wide[4];
  CHECK_FAILS(WideCharToMultiByte(CP_UTF8, 0, L"abc", 0, narrow, 4, nullptr, nullptr), 0,
              ERROR_INVALID_PARAMETER);
  CHECK_FAILS(MultiByteToWideChar(CP_UTF8, 0, "abc", 0, wide, 4), 0, ERROR_INVALID_PARAMETER);
  CHECK_FAILS(MultiByteToWideChar(CP_UTF8, 0, nullptr, -1, wide, 4), 0, ERROR_INVALID_PARAMETER);
  CHECK_FAILS(MultiByteToWideChar(CP_UTF8, 0, "abc", -1, nullptr, 4), 0, ERROR_INVALID_PARAMETER);
  CHECK_FAILS(MultiByteToWideChar(CP_UTF8, 0, "abc", -1, wide, -1), 0, ERROR_INVALID_PARAMETER);
  CHECK_FAILS(WideCharToMultiByte(12345, 0, L"abc", -1, narrow, 4, nullptr, nullptr), 0,
              ERROR_INVALID_PARAMETER);
  if (WineDiffers("UTF-8 takes a place for \"used the default character\"")) return;
  BOOL used = FALSE;
  CHECK_FAILS(WideCharToMultiByte(CP_UTF8, 0, L"abc", -1, narrow, 4, nullptr, &used), 0,
              ERROR_INVALID_PARAMETER);
}

TEST(Text, CodePageConvertsOnlyItsCharacters) {
  char out[20] = {};
  BOOL used = TRUE;
  CHECK_EQ(WideCharToMultiByte(CP_ACP, 0, L"a\u20ac\u00e4", -1, out, 20, nullptr, &used), 4);
  CHECK_EQ(std::string(out), "a\x80\xe4");
  CHECK_FALSE(used);
  CHECK_EQ(WideCharToMultiByte(CP_ACP, 0, L"a\u4e2d", -1, out, 20, nullptr, &used), 3);
  CHECK_EQ(std::string(out), "a?");
  CHECK_TRUE(used);
  wchar_t wide[20] = {};
  CHECK_EQ(MultiByteToWideChar(CP_ACP, 0, "a\x80\xe4", -1, wide, 20), 4);
  CHECK_EQ(std::wstring(wide), L"a\u20ac\u00e4");
}

TEST(Environment, ExpandsWhatItKnows) {
  wchar_t root[MAX_PATH] = {}, out[MAX_PATH] = {};
  const DWORD size = ExpandEnvironmentStringsW(L"%SystemRoot%", root, MAX_PATH);
  CHECK_EQ(size, std::wcslen(root) + 1);
  CHECK_NE(std::wstring(root), L"%SystemRoot%");
  ExpandEnvironmentStringsW(L"%systemroot%\\x%no_such_thing%%", out, MAX_PATH);
  CHECK_EQ(std::wstring(out), std::wstring(root) + L"\\x%no_such_thing%%");
  CHECK_EQ(ExpandEnvironmentStringsW(L"plain", out, MAX_PATH), 6u);
  CHECK_EQ(std::wstring(out), L"plain");
  CHECK_EQ(ExpandEnvironmentStringsW(L"plain", out, 2), 6u);  // what it would take
  CHECK_EQ(ExpandEnvironmentStringsW(L"", out, MAX_PATH), 1u);
  char narrow[MAX_PATH] = {};
  CHECK_NE(ExpandEnvironmentStringsA("%SystemRoot%\\a", narrow, MAX_PATH), 0u);
  CHECK_EQ(std::string(narrow).find('%'), std::string::npos);
}

TEST(Process, KnowsItsProgram) {
  wchar_t path[MAX_PATH] = {};
  const DWORD length = GetModuleFileNameW(nullptr, path, MAX_PATH);
  CHECK_EQ(length, std::wcslen(path));
  CHECK_NE(length, 0u);
  wchar_t brief[6] = {};
  SetLastError(0);
  CHECK_EQ(GetModuleFileNameW(nullptr, brief, 5), 5u);  // cut: the whole buffer, closed by a null
  CHECK_EQ(GetLastError(), static_cast<DWORD>(ERROR_INSUFFICIENT_BUFFER));
  if (!WineDiffers("a cut path has no null at its end")) {
    CHECK_EQ(std::wstring(brief), std::wstring(path, 4));
  }
  CHECK_NE(GetCommandLineA(), static_cast<char*>(nullptr));
  CHECK_NE(GetCurrentProcessId(), 0u);
}

TEST(Module, MissingOneCannotBeLoaded) {
  CHECK_FAILS(LoadLibraryW(L"C:\\no_such_module_here.dll"), static_cast<HMODULE>(nullptr),
              ERROR_MOD_NOT_FOUND);
  CHECK_FAILS(LoadLibraryA("no_such_module_here.dll"), static_cast<HMODULE>(nullptr),
              ERROR_MOD_NOT_FOUND);
}

TEST(Module, IsFoundByAnAddressInIt) {
  constexpr DWORD kFlags = GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_PIN;
  const auto here = reinterpret_cast<LPCWSTR>(reinterpret_cast<void*>(&UniqueName));
  HMODULE first = nullptr, second = nullptr;
  CHECK_TRUE(GetModuleHandleExW(kFlags, here, &first));
  CHECK_NE(first, static_cast<HMODULE>(nullptr));
  CHECK_TRUE(GetModuleHandleExW(kFlags, here, &second));
  CHECK_EQ(first, second);
}

TEST(Clock, SleepTakesItsTime) {
  const DWORD before = GetTickCount();
  Sleep(60);
  const DWORD passed = GetTickCount() - before;
  CHECK_TRUE(passed >= 44);  // the tick may be as coarse as 16 ms
  CHECK_TRUE(passed < 30'000);
}

TEST(Clock, AllClocksTellOneTime) {
  FILETIME file = {};
  GetSystemTimeAsFileTime(&file);
  const time_t now = time(nullptr);
  const unsigned long long ticks =
      static_cast<unsigned long long>(file.dwHighDateTime) << 32 | file.dwLowDateTime;
  const auto seconds = static_cast<long long>(ticks / 10'000'000) - 11'644'473'600;
  CHECK_TRUE(seconds - now >= -2 && seconds - now <= 2);
  SYSTEMTIME local = {};
  GetLocalTime(&local);
  struct tm fields = {};
  CHECK_EQ(localtime_s(&fields, &now), 0);
  CHECK_TRUE(local.wYear == fields.tm_year + 1900 || local.wMonth == 1);
  CHECK_TRUE(local.wMonth == fields.tm_mon + 1 || local.wDay == 1);
  CHECK_TRUE(local.wMilliseconds < 1000 && local.wDayOfWeek < 7);
  CHECK_NE(localtime_s(&fields, nullptr), 0);
}

TEST(Random, DoesNotRepeat) {
  std::set<unsigned> seen;
  for (int i = 0; i < 100; ++i) {
    unsigned value = 0;
    EXPECT_EQ(rand_s(&value), 0);
    seen.insert(value);
  }
  CHECK_TRUE(seen.size() > 95);
  CHECK_NE(rand_s(nullptr), 0);
  UUID one = {}, two = {};
  CHECK_EQ(UuidCreate(&one), RPC_S_OK);
  UuidCreate(&two);
  CHECK_NE(std::memcmp(&one, &two, sizeof one), 0);
}

TEST(Memory, IsZeroedOnDemand) {
  auto* bytes = static_cast<unsigned char*>(GlobalAlloc(GPTR, 1000));
  int sum = 0;
  for (int i = 0; i < 1000; ++i) sum |= bytes[i];
  CHECK_EQ(sum, 0);
  CHECK_EQ(GlobalFree(bytes), static_cast<HGLOBAL>(nullptr));
}

TEST(InternetAddress, ReadsTheClassicForms) {
  struct Case {
    const char* text;
    unsigned value;  // host order
  };
  const Case cases[] = {
      {"127.0.0.1", 0x7f000001}, {"1.2.3.4", 0x01020304},  {"0.0.0.0", 0},
      {"255.255.255.255", ~0u},  {"256.1.1.1", ~0u},       {"1.2.3", 0x01020003},
      {"1.2", 0x01000002},       {"16909060", 0x01020304}, {"0x7f.0.0.1", 0x7f000001},
      {"010.0.0.1", 0x08000001}, {"1.2.3.4.5", ~0u},       {"a.b.c.d", ~0u},
      {"1.2.3.4x", ~0u},         {"1..2.3", ~0u},          {"", 0},
  };
  for (const Case& one : cases) {
    if (*one.text == '\0' && WineDiffers("inet_addr of an empty text is INADDR_NONE")) continue;
    CHECK_EQ(static_cast<unsigned>(ntohl(static_cast<unsigned>(inet_addr(one.text)))), one.value)
        << one.text;
  }
  const sockaddr_in name = Address("198.51.100.7", 1);
  CHECK_EQ(std::string(inet_ntoa(name.sin_addr)), "198.51.100.7");
}

}  // namespace
}  // namespace contract
