// Paths as Windows reads them, on every machine the code runs on: both separators, drive
// letters, shares. (The standard library's paths do not know backslashes elsewhere.)
//
// ParentPath and FileName look at the text alone. They answer what std::filesystem::path answers
// on Windows, and false where that is empty or where the text is no valid UTF-8; *out is empty
// then.
#pragma once
#include <string>
#include <string_view>

namespace common {

// "a\b\" gives "a\b", "a\b.log" gives "a"; a root is its own parent.
bool ParentPath(const std::string& path, std::string* out);

// The last component: "C:\games\a.exe" gives "a.exe".
bool FileName(const std::string& path, std::string* out);

// Makes sure that a file of this name has a directory to stand in: true if the path names no
// parent, if the parent exists, or if it could be created with all that was missing above it.
bool EnsureParentDirectory(const std::wstring& path);

// Joins two paths with a backslash, where neither side has a separator of its own and `base` is
// not a bare drive ("C:" stays relative to that drive). Slashes in `tail` become backslashes.
void AppendPath(std::wstring* base, const std::wstring& tail);

}  // namespace common
