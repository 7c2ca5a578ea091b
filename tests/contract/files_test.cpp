// Files, directories, paths, INI files.
#include <shlwapi.h>

#include "tests/contract/world.h"

namespace contract {
namespace {

HANDLE Open(const std::wstring& path, DWORD access, DWORD share, DWORD disposition) {
  return CreateFileW(path.c_str(), access, share, nullptr, disposition, FILE_ATTRIBUTE_NORMAL,
                     nullptr);
}

std::wstring Fresh(const wchar_t* stem) {
  static int made = 0;
  return Directory() + L"\\" + stem + std::to_wstring(++made) + L".txt";
}

bool Write(HANDLE file, const std::string& text) {
  DWORD written = 0;
  return WriteFile(file, text.data(), static_cast<DWORD>(text.size()), &written, nullptr) &&
         written == text.size();
}

std::string ReadAll(const std::wstring& path) {
  HANDLE file = Open(path, GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE, OPEN_EXISTING);
  if (file == INVALID_HANDLE_VALUE) return "<none>";
  char buffer[256];
  DWORD read = 0;
  ReadFile(file, buffer, sizeof buffer, &read, nullptr);
  CloseHandle(file);
  return std::string(buffer, read);
}

TEST(File, DispositionsReportWhetherTheFileExisted) {
  const std::wstring path = Fresh(L"disposition");
  CHECK_FAILS(Open(path, GENERIC_READ, 0, OPEN_EXISTING), INVALID_HANDLE_VALUE,
              ERROR_FILE_NOT_FOUND);
  SetLastError(77);
  HANDLE file = Open(path, GENERIC_WRITE, 0, OPEN_ALWAYS);
  CHECK_EQ(GetLastError(), 0u);
  CHECK_TRUE(Write(file, "first"));
  CHECK_TRUE(CloseHandle(file));
  CHECK_FAILS(Open(path, GENERIC_WRITE, 0, CREATE_NEW), INVALID_HANDLE_VALUE, ERROR_FILE_EXISTS);
  file = Open(path, GENERIC_WRITE, 0, OPEN_ALWAYS);
  CHECK_EQ(GetLastError(), static_cast<DWORD>(ERROR_ALREADY_EXISTS));
  CHECK_TRUE(CloseHandle(file));
  CHECK_EQ(ReadAll(path), "first");
  file = Open(path, GENERIC_WRITE, 0, CREATE_ALWAYS);
  CHECK_EQ(GetLastError(), static_cast<DWORD>(ERROR_ALREADY_EXISTS));
  CHECK_TRUE(CloseHandle(file));
  CHECK_EQ(ReadAll(path), "");
}

TEST(File, MissingDirectoryHasADifferentError) {
  CHECK_FAILS(Open(Directory() + L"\\none\\a.txt", GENERIC_WRITE, 0, CREATE_ALWAYS),
              INVALID_HANDLE_VALUE, ERROR_PATH_NOT_FOUND);
  CHECK_FAILS(GetFileAttributesW((Directory() + L"\\none\\a.txt").c_str()), INVALID_FILE_ATTRIBUTES,
              ERROR_PATH_NOT_FOUND);
  CHECK_FAILS(GetFileAttributesW((Directory() + L"\\none").c_str()), INVALID_FILE_ATTRIBUTES,
              ERROR_FILE_NOT_FOUND);
}

TEST(File, AppendsAtItsEnd) {
  const std::wstring path = Fresh(L"append");
  HANDLE file = Open(path, GENERIC_WRITE, FILE_SHARE_READ, OPEN_ALWAYS);
  CHECK_TRUE(Write(file, "one "));
  CloseHandle(file);
  file = Open(path, GENERIC_WRITE, FILE_SHARE_READ, OPEN_ALWAYS);
  LARGE_INTEGER zero = {}, at = {};
  CHECK_TRUE(SetFilePointerEx(file, zero, &at, FILE_END));
  CHECK_EQ(at.QuadPart, 4);
  CHECK_TRUE(Write(file, "two"));
  LARGE_INTEGER size = {};
  CHECK_TRUE(GetFileSizeEx(file, &size));
  CHECK_EQ(size.QuadPart, 7);
  CHECK_EQ(GetFileSize(file, nullptr), 7u);
  CHECK_EQ(ReadAll(path), "one two");  // seen while the writer still has it
  CloseHandle(file);
}

TEST(File, SetEndOfFileTruncates) {
  const std::wstring path = Fresh(L"end");
  HANDLE file = Open(path, GENERIC_READ | GENERIC_WRITE, 0, CREATE_NEW);
  CHECK_TRUE(Write(file, "abcdef"));
  LARGE_INTEGER at = {};
  at.QuadPart = 3;
  CHECK_TRUE(SetFilePointerEx(file, at, nullptr, FILE_BEGIN));
  CHECK_TRUE(SetEndOfFile(file));
  at.QuadPart = 6;
  CHECK_TRUE(SetFilePointerEx(file, at, nullptr, FILE_BEGIN));
  CHECK_TRUE(SetEndOfFile(file));
  CloseHandle(file);
  CHECK_EQ(ReadAll(path), std::string("abc\0\0\0", 6));
}

TEST(File, ReadAtItsEndSucceedsWithNoBytes) {
  const std::wstring path = Fresh(L"eof");
  HANDLE file = Open(path, GENERIC_READ | GENERIC_WRITE, 0, CREATE_NEW);
  char byte = 0;
  DWORD read = 9;
  CHECK_TRUE(ReadFile(file, &byte, 1, &read, nullptr));
  CHECK_EQ(read, 0u);
  CloseHandle(file);
}

TEST(File, CannotSeekBeforeItsBeginning) {
  const std::wstring path = Fresh(L"seek");
  HANDLE file = Open(path, GENERIC_WRITE, 0, CREATE_NEW);
  LARGE_INTEGER at = {};
  at.QuadPart = -1;
  CHECK_FAILS(SetFilePointerEx(file, at, nullptr, FILE_BEGIN), FALSE, 131);
  CloseHandle(file);
}

TEST(File, AllowsOnlyTheAccessItWasOpenedWith) {
  const std::wstring path = Fresh(L"rights");
  WriteTextFile(path, "x");
  HANDLE file = Open(path, GENERIC_READ, 0, OPEN_EXISTING);
  DWORD done = 0;
  CHECK_FAILS(WriteFile(file, "y", 1, &done, nullptr), FALSE, ERROR_ACCESS_DENIED);
  CloseHandle(file);
  file = Open(path, GENERIC_WRITE, 0, OPEN_EXISTING);
  char byte = 0;
  CHECK_FAILS(ReadFile(file, &byte, 1, &done, nullptr), FALSE, ERROR_ACCESS_DENIED);
  CloseHandle(file);
}

TEST(File, IsSharedAsBothSidesAgree) {
  struct Case {
    DWORD first_access, first_share, second_access, second_share;
    bool agrees;
  };
  const Case cases[] = {
      {GENERIC_WRITE, 0, GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE, false},
      {GENERIC_WRITE, FILE_SHARE_READ, GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE, true},
      {GENERIC_WRITE, FILE_SHARE_READ, GENERIC_READ, FILE_SHARE_READ, false},
      {GENERIC_WRITE, FILE_SHARE_READ, GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE, false},
      {GENERIC_READ, FILE_SHARE_READ, GENERIC_READ, FILE_SHARE_READ, true},
      {GENERIC_READ, FILE_SHARE_READ, GENERIC_READ, 0, false},
  };
  const std::wstring path = Fresh(L"share");
  WriteTextFile(path, "x");
  for (const Case& one : cases) {
    HANDLE first = Open(path, one.first_access, one.first_share, OPEN_EXISTING);
    CHECK_NE(first, INVALID_HANDLE_VALUE);
    SetLastError(0);
    HANDLE second = Open(path, one.second_access, one.second_share, OPEN_EXISTING);
    CHECK_EQ(second != INVALID_HANDLE_VALUE, one.agrees);
    CHECK_EQ(GetLastError(), one.agrees ? 0 : static_cast<DWORD>(ERROR_SHARING_VIOLATION));
    if (one.agrees) CloseHandle(second);
    CloseHandle(first);
  }
}

TEST(File, IsDeletedOnlyIfItIsNotOpen) {
  const std::wstring path = Fresh(L"delete");
  HANDLE file = Open(path, GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE, CREATE_NEW);
  CHECK_FAILS(DeleteFileW(path.c_str()), FALSE, ERROR_SHARING_VIOLATION);
  CloseHandle(file);
  CHECK_TRUE(DeleteFileW(path.c_str()));
  CHECK_FAILS(DeleteFileW(path.c_str()), FALSE, ERROR_FILE_NOT_FOUND);
}

TEST(File, NamesIgnoreLetterCase) {
  const std::wstring path = Fresh(L"Case");
  WriteTextFile(path, "same");
  std::wstring upper = path;
  const size_t name = upper.rfind(L'\\');
  for (size_t i = name; i < upper.size(); ++i)
    if (upper[i] >= L'a' && upper[i] <= L'z') upper[i] = static_cast<wchar_t>(upper[i] - 32);
  CHECK_EQ(ReadAll(upper), "same");
}

TEST(File, SomeNamesCannotBe) {
  CHECK_FAILS(Open(Directory() + L"\\a|b", GENERIC_WRITE, 0, CREATE_ALWAYS), INVALID_HANDLE_VALUE,
              ERROR_INVALID_NAME);
  CHECK_FAILS(Open(Directory() + L"\\a?b", GENERIC_WRITE, 0, CREATE_ALWAYS), INVALID_HANDLE_VALUE,
              ERROR_INVALID_NAME);
  CHECK_FAILS(Open(L"", GENERIC_WRITE, 0, CREATE_ALWAYS), INVALID_HANDLE_VALUE,
              ERROR_PATH_NOT_FOUND);
}

TEST(Directory, IsCreatedOnceInAnExistingOne) {
  const std::wstring path = Directory() + L"\\folder";
  CHECK_FAILS(CreateDirectoryW((path + L"\\deeper").c_str(), nullptr), FALSE, ERROR_PATH_NOT_FOUND);
  CHECK_TRUE(CreateDirectoryW(path.c_str(), nullptr));
  CHECK_FAILS(CreateDirectoryW(path.c_str(), nullptr), FALSE, ERROR_ALREADY_EXISTS);
  CHECK_TRUE(GetFileAttributesW(path.c_str()) & FILE_ATTRIBUTE_DIRECTORY);
  CHECK_TRUE(PathFileExistsW(path.c_str()));
  CHECK_FALSE(PathFileExistsW((path + L"2").c_str()));
  CHECK_FALSE(PathFileExistsW(nullptr));
  CHECK_FAILS(Open(path, GENERIC_WRITE, 0, OPEN_EXISTING), INVALID_HANDLE_VALUE,
              ERROR_ACCESS_DENIED);
}

TEST(Path, LosesItsLastComponent) {
  struct Case {
    const wchar_t *in, *out;
    BOOL changed;
  };
  const Case cases[] = {
      {L"C:\\a\\b.exe", L"C:\\a", TRUE},
      {L"C:\\a", L"C:\\", TRUE},
      {L"C:\\", L"C:\\", FALSE},
      {L"C:a", L"C:", TRUE},
      {L"C:", L"C:", FALSE},
      {L"C:\\a\\", L"C:\\a", TRUE},
      {L"a\\b", L"a", TRUE},
      {L"a", L"", TRUE},
      {L"\\a", L"\\", TRUE},
      {L"\\", L"\\", FALSE},
      {L"\\\\server\\share", L"\\\\server", TRUE},
      {L"\\\\server", L"\\\\", TRUE},
      {L"C:/a/b", L"C:", TRUE},
      {L"", L"", FALSE},
  };
  for (const Case& one : cases) {
    wchar_t path[MAX_PATH] = {};
    std::wcscpy(path, one.in);
    CHECK_EQ(PathRemoveFileSpecW(path), one.changed);
    CHECK_EQ(std::wstring(path), one.out);
  }
  CHECK_FALSE(PathRemoveFileSpecW(nullptr));
}

class Ini : public testing::Test {
 protected:
  void SetUp() override {
    WriteTextFile(path_,
                  "; a comment\r\n"
                  "stray=1\r\n"
                  "[LSP]\r\n"
                  "TCP=1\r\n"
                  "  UDP  =  spaced out  \r\n"
                  "quoted=\"  in quotes \"\r\n"
                  "single='one'\r\n"
                  "half=\"open\r\n"
                  "; hidden=1\r\n"
                  "inline=a;b\r\n"
                  "empty=\r\n"
                  "number=12abc\r\n"
                  "minus=-5\r\n"
                  "hex=0x1F\r\n"
                  "equals=a=b\r\n"
                  "TCP=2\r\n"
                  "[Other]\r\n"
                  "key=value");
  }

  std::wstring Get(const wchar_t* section, const wchar_t* key, const wchar_t* fallback = L"none",
                   DWORD size = 100) {
    wchar_t out[100] = L"untouched";
    length_ = GetPrivateProfileStringW(section, key, fallback, out, size, path_.c_str());
    return out;
  }
  UINT Int(const wchar_t* key, int fallback = 99) {
    return GetPrivateProfileIntW(L"LSP", key, fallback, path_.c_str());
  }

  std::wstring path_ = Fresh(L"ini");
  DWORD length_ = 0;
};

TEST_F(Ini, IgnoresTheLetterCaseOfNames) {
  CHECK_EQ(Get(L"LSP", L"TCP"), L"1");  // the first of two
  CHECK_EQ(length_, 1u);
  CHECK_EQ(Get(L"lsp", L"tcp"), L"1");
  CHECK_EQ(Get(L"Other", L"KEY"), L"value");  // no newline at the end of the file
  CHECK_EQ(Get(L"LSP", L"key"), L"none");     // the section counts
  CHECK_EQ(Get(L"LSP", L"stray"), L"none");
  CHECK_EQ(Get(L"Missing", L"TCP"), L"none");
  CHECK_EQ(length_, 4u);
}

TEST_F(Ini, TrimsAndUnquotes) {
  CHECK_EQ(Get(L"LSP", L"UDP"), L"spaced out");
  CHECK_EQ(Get(L"LSP", L"quoted"), L"  in quotes ");
  CHECK_EQ(Get(L"LSP", L"single"), L"one");
  CHECK_EQ(Get(L"LSP", L"half"), L"\"open");
  CHECK_EQ(Get(L"LSP", L"inline"), L"a;b");
  CHECK_EQ(Get(L"LSP", L"equals"), L"a=b");
  CHECK_EQ(Get(L"LSP", L"hidden"), L"none");
  CHECK_EQ(Get(L"LSP", L"empty"), L"");
  CHECK_EQ(length_, 0u);
}

TEST_F(Ini, DefaultsWithoutTrailingBlanks) {
  CHECK_EQ(Get(L"LSP", L"missing", L"  fall back  "), L"  fall back");
  CHECK_EQ(Get(L"LSP", L"missing", nullptr), L"");
  path_ = Fresh(L"missing");
  CHECK_EQ(Get(L"LSP", L"TCP", L"0"), L"0");
  CHECK_EQ(GetLastError(), static_cast<DWORD>(ERROR_FILE_NOT_FOUND));
}

TEST_F(Ini, CutsWhatDoesNotFit) {
  CHECK_EQ(Get(L"LSP", L"UDP", L"", 7), L"spaced");
  CHECK_EQ(length_, 6u);
  CHECK_EQ(Get(L"LSP", L"UDP", L"", 1), L"");
  CHECK_EQ(length_, 0u);
  CHECK_EQ(Get(L"LSP", L"missing", L"default", 4), L"def");
  CHECK_EQ(length_, 3u);
}

TEST_F(Ini, ReadsNumbersUpToTheFirstOtherCharacter) {
  CHECK_EQ(Int(L"TCP"), 1u);
  CHECK_EQ(Int(L"number"), 12u);
  CHECK_EQ(Int(L"minus"), static_cast<UINT>(-5));
  CHECK_EQ(Int(L"hex"), 31u);
  CHECK_EQ(Int(L"UDP"), 0u);
  CHECK_EQ(Int(L"empty"), 99u);
  CHECK_EQ(Int(L"missing", -1), static_cast<UINT>(-1));
}

TEST_F(Ini, ListsSectionsAndKeys) {
  wchar_t out[100] = {};
  CHECK_EQ(GetPrivateProfileStringW(nullptr, nullptr, L"", out, 100, path_.c_str()), 10u);
  CHECK_EQ(std::wstring(out, 11), std::wstring(L"LSP\0Other\0\0", 11));
  CHECK_EQ(GetPrivateProfileStringW(L"Other", nullptr, L"", out, 100, path_.c_str()), 4u);
  CHECK_EQ(std::wstring(out, 5), std::wstring(L"key\0\0", 5));
}

}  // namespace
}  // namespace contract
