// Paths as Windows reads them. The tables' answers are those of the Windows build of the
// standard library's filesystem paths.
#include "common/paths.h"

#include <gtest/gtest.h>

#include <string>

#include "tests/support/temp_dir.h"

namespace {

using common::AppendPath;
using common::EnsureParentDirectory;
using test::FileExists;
using test::TempDir;
using test::Wide;

struct Row {
  const char* path;
  const char* parent;  // "" where the answer is false
  const char* name;
};

constexpr Row kRows[] = {
    {"C:\\games\\a.exe", "C:\\games", "a.exe"},
    {"C:/games/a.exe", "C:/games", "a.exe"},
    {"C:\\games/sub\\a.exe", "C:\\games/sub", "a.exe"},
    {"a\\b\\", "a\\b", ""},
    {"a\\b\\\\", "a\\b", ""},
    {"a\\b.log", "a", "b.log"},
    {"a\\\\b", "a", "b"},
    {"x", "", "x"},
    {"", "", ""},
    {"C:\\a", "C:\\", "a"},
    {"C:\\", "C:\\", ""},
    {"C:", "C:", ""},
    {"C:a", "C:", "a"},
    {"C:a\\b", "C:a", "b"},
    {"c:\\\\a", "c:\\\\", "a"},
    {"\\a", "\\", "a"},
    {"\\", "\\", ""},
    {"\\\\server\\share\\a", "\\\\server\\share", "a"},
    {"\\\\server\\share", "\\\\server\\", "share"},
    {"\\\\server", "\\\\server", ""},
    {"\\\\?\\C:\\a", "\\\\?\\C:", "a"},
    {"\\\\.\\pipe\\a", "\\\\.\\pipe", "a"},
    {"\\??\\C:\\a", "\\??\\C:", "a"},
    {"\\ab\\c", "\\ab", "c"},  // no device
    {"\\?x\\c", "\\?x", "c"},
    {"\\x.\\c", "\\x.", "c"},
    {"\\x?\\c", "\\x?", "c"},
    {"\\??\\a", "\\??\\", "a"},
    {"\\\\?\\", "\\\\?\\", ""},
    {"\\\\?\\\\a", "\\\\?\\\\", "a"},  // a server with a short name
    {"\\\\x\\a", "\\\\x\\", "a"},
    {"\\\\\\a", "\\\\\\", "a"},
    {"{:\\a", "{:", "a"},
    {"1:\\a", "1:", "a"},  // no drive letter
    {"a.", "", "a."},
    {"a\\..", "a", ".."},
    {"\xE6\xB8\xB8\\\xE6\x88\x8F.exe", "\xE6\xB8\xB8", "\xE6\x88\x8F.exe"},
};

TEST(ParentPath, ReadsPathsAsWindowsDoes) {
  for (const Row& row : kRows) {
    std::string parent = "old";
    EXPECT_EQ(common::ParentPath(row.path, &parent), *row.parent != '\0') << row.path;
    EXPECT_EQ(parent, row.parent) << row.path;
  }
}

TEST(FileName, ReadsPathsAsWindowsDoes) {
  for (const Row& row : kRows) {
    std::string name = "old";
    EXPECT_EQ(common::FileName(row.path, &name), *row.name != '\0') << row.path;
    EXPECT_EQ(name, row.name) << row.path;
  }
}

TEST(ParentPath, MalformedTextIsRefused) {
  std::string out = "old";
  EXPECT_FALSE(common::ParentPath("C:\\\x80\\a", &out));
  EXPECT_EQ(out, "");
  EXPECT_FALSE(common::FileName("C:\\a\\\x80", &out));
}

TEST(EnsureParentDirectory, NameWithoutAPathNeedsNoDirectory) {
  EXPECT_TRUE(EnsureParentDirectory(L"x.log"));
}

TEST(EnsureParentDirectory, ExistingParentIsEnough) {
  const TempDir dir;
  EXPECT_TRUE(EnsureParentDirectory(Wide(dir / "x.log")));
  EXPECT_FALSE(FileExists(dir / "x.log"));
}

TEST(EnsureParentDirectory, MakesEveryMissingAncestor) {
  const TempDir dir;
  EXPECT_TRUE(EnsureParentDirectory(Wide(dir / "a\\b/c\\\\d\\x.log")));
  EXPECT_TRUE(FileExists(dir / "a\\b\\c\\d"));
  EXPECT_FALSE(FileExists(dir / "a\\b\\c\\d\\x.log"));
  EXPECT_TRUE(EnsureParentDirectory(Wide(dir / "e\\")));  // its parent is e itself
  EXPECT_TRUE(FileExists(dir / "e"));
}

TEST(EnsureParentDirectory, FileInPlaceOfADirectoryIsAFailure) {
  const TempDir dir;
  test::MakeSparseFile(dir / "file", 0);
  EXPECT_FALSE(EnsureParentDirectory(Wide(dir / "file\\sub\\x.log")));
}

TEST(AppendPath, AddsABackslashIfThereIsNone) {
  struct {
    std::wstring base, tail, joined;
  } const rows[] = {
      {L"C:\\a", L"b", L"C:\\a\\b"},  {L"C:\\a", L"b/c", L"C:\\a\\b\\c"},
      {L"C:", L"a", L"C:a"},          {L"a\\", L"b", L"a\\b"},
      {L"a/", L"b", L"a/b"},          {L"a", L"/b", L"a\\b"},
      {L"a\\", L"/b", L"a\\\\b"},     {L"", L"b/c", L"b\\c"},
      {L"a/b", L"", L"a/b"},          {L"", L"", L""},
      {L"a/b", L"c/d", L"a/b\\c\\d"},  // the base stays as it is
  };
  for (const auto& row : rows) {
    std::wstring base = row.base;
    AppendPath(&base, row.tail);
    EXPECT_EQ(base, row.joined);
  }
}

}  // namespace
