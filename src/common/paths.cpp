#include "common/paths.h"

#include <winsock2.h>

#include "common/text.h"

namespace common {
namespace {

bool IsSeparator(wchar_t c) noexcept { return c == L'\\' || c == L'/'; }

bool StartsWithDrive(std::wstring_view path) noexcept {
  if (path.size() < 2 || path[1] != L':') return false;
  const wchar_t letter = static_cast<wchar_t>(path[0] | 0x20);
  return letter >= L'a' && letter <= L'z';
}

// The forms that name the platform's own object tree: \\?\ , \\.\ and \??\ .
bool StartsWithDevice(std::wstring_view path) noexcept {
  if (path.size() < 4 || !IsSeparator(path[0]) || !IsSeparator(path[3])) return false;
  if (path.size() > 4 && IsSeparator(path[4])) return false;
  if (IsSeparator(path[1])) return path[2] == L'?' || path[2] == L'.';
  return path[1] == L'?' && path[2] == L'?';
}

bool StartsWithServer(std::wstring_view path) noexcept {
  return path.size() >= 3 && IsSeparator(path[0]) && IsSeparator(path[1]) && !IsSeparator(path[2]);
}

std::size_t RootNameSize(std::wstring_view path) noexcept {
  if (StartsWithDrive(path)) return 2;
  if (StartsWithDevice(path)) return 3;
  if (!StartsWithServer(path)) return 0;
  std::size_t end = 3;
  while (end < path.size() && !IsSeparator(path[end])) ++end;
  return end;
}

// Where the root (name and separators) ends and the components begin.
std::size_t RootSize(std::wstring_view path) noexcept {
  std::size_t end = RootNameSize(path);
  while (end < path.size() && IsSeparator(path[end])) ++end;
  return end;
}

std::size_t FileNameStart(std::wstring_view path) noexcept {
  const std::size_t root = RootSize(path);
  std::size_t start = path.size();
  while (start > root && !IsSeparator(path[start - 1])) --start;
  return start;
}

std::wstring_view Parent(std::wstring_view path) noexcept {
  const std::size_t root = RootSize(path);
  std::size_t end = FileNameStart(path);
  while (end > root && IsSeparator(path[end - 1])) --end;
  return path.substr(0, end);
}

bool Exists(const std::wstring& path) noexcept {
  return GetFileAttributesW(path.c_str()) != INVALID_FILE_ATTRIBUTES;
}

bool CreateDirectories(const std::wstring& path) {
  // From the top down. A component that cannot be created decides nothing: it may be a share, it
  // may exist already, or another process was faster. Only the last one counts.
  for (std::size_t end = RootSize(path); end < path.size(); ++end)
    if (IsSeparator(path[end])) CreateDirectoryW(path.substr(0, end).c_str(), nullptr);
  CreateDirectoryW(path.c_str(), nullptr);
  return Exists(path);
}

// Applies a question about wide paths to UTF-8 text.
template <typename Part>
bool Convert(const std::string& path, std::string* out, Part part) {
  out->clear();
  std::wstring wide;
  if (!u8to16(path, &wide)) return false;
  return u16to8(std::wstring(part(wide)), out) && !out->empty();
}

}  // namespace

bool ParentPath(const std::string& path, std::string* out) { return Convert(path, out, Parent); }

bool FileName(const std::string& path, std::string* out) {
  return Convert(path, out,
                 [](std::wstring_view wide) { return wide.substr(FileNameStart(wide)); });
}

bool EnsureParentDirectory(const std::wstring& path) {
  const std::wstring parent(Parent(path));
  return parent.empty() || Exists(parent) || CreateDirectories(parent);
}

void AppendPath(std::wstring* base, const std::wstring& tail) {
  const bool joins_as_it_is = base->empty() || tail.empty() || base->back() == L':' ||
                              IsSeparator(base->back()) || IsSeparator(tail.front());
  const std::size_t tail_start = base->size() + (joins_as_it_is ? 0 : 1);
  if (!joins_as_it_is) *base += L'\\';
  *base += tail;
  for (std::size_t i = tail_start; i < base->size(); ++i)
    if ((*base)[i] == L'/') (*base)[i] = L'\\';
}

}  // namespace common
