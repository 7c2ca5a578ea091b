// Paths as Windows reads them, on every machine the code runs on: both separators, drive
// letters, shares. (The standard library's paths do not know backslashes elsewhere.)
//
// ParentPath and FileName look at the text alone. They return what std::filesystem::path returns on
// Windows, and false if that is empty or if the text is not valid UTF-8; *out is then empty.
#pragma once
#include <string>
#include <string_view>

namespace common {

// "a\b\" gives "a\b", "a\b.log" gives "a"; a root is its own parent.
bool ParentPath(const std::string& path, std::string* out);

// The last component: "C:\games\a.exe" gives "a.exe".
bool FileName(const std::string& path, std::string* out);

// Makes sure that the directory of a file exists: true if the path names no parent, if the parent
// exists, or if it could be created together with all missing directories above it.
bool EnsureParentDirectory(const std::wstring& path);

// Joins two paths with a backslash, unless either side already has a separator there or `base` is a
// bare drive ("C:" stays relative to that drive). Slashes in `tail` become backslashes.
void AppendPath(std::wstring* base, const std::wstring& tail);

}  // namespace common
