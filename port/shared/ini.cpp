// The private profile calls. Nothing is cached: each call reads the file.
#include <windows.h>

#include <fstream>
#include <iterator>
#include <optional>
#include <vector>

#include "port/shared/faults.h"
#include "port/shared/files.h"
#include "port/shared/text.h"

namespace port {
namespace {

bool IsBlank(wchar_t c) {
  return c == L' ' || c == L'\t' || c == L'\r' || c == L'\f' || c == L'\v';
}

std::wstring Trim(const std::wstring& text) {
  size_t from = 0, to = text.size();
  while (from < to && IsBlank(text[from])) ++from;
  while (to > from && IsBlank(text[to - 1])) --to;
  return text.substr(from, to - from);
}

// A file that begins with the little-endian mark is UTF-16; any other is in the code page.
std::wstring Decode(const std::string& bytes) {
  if (bytes.size() < 2 || bytes[0] != '\xff' || bytes[1] != '\xfe') return WideFromAnsi(bytes);
  std::wstring text;
  for (size_t i = 2; i + 1 < bytes.size(); i += 2)
    text.push_back(static_cast<wchar_t>(static_cast<unsigned char>(bytes[i]) |
                                        static_cast<unsigned char>(bytes[i + 1]) << 8));
  return text;
}

struct Line {
  std::wstring key;
  std::wstring value;
};
struct Section {
  std::wstring name;
  std::vector<Line> lines;
};

void ParseLine(const std::wstring& raw, std::vector<Section>* sections) {
  const std::wstring line = Trim(raw);
  if (line.empty() || line[0] == L';') return;
  if (line[0] == L'[') {
    const size_t end = line.rfind(L']');
    if (end != std::wstring::npos) sections->push_back({line.substr(1, end - 1), {}});
    return;
  }
  if (sections->empty()) return;
  const size_t equals = line.find(L'=');
  const bool has_value = equals != std::wstring::npos;
  sections->back().lines.push_back(
      {Trim(line.substr(0, equals)), has_value ? Trim(line.substr(equals + 1)) : L""});
}

// Nothing, with the error set, if the file cannot be read.
std::optional<std::vector<Section>> ReadSections(LPCWSTR path) {
  std::wstring name = path ? path : L"win.ini";
  if (name.find_first_of(L"\\/:") == std::wstring::npos) name = L"C:\\Windows\\" + name;
  std::ifstream file(HostPath(name), std::ios::binary);
  if (!file) return std::nullopt;
  const std::string bytes{std::istreambuf_iterator<char>(file), {}};
  std::vector<Section> sections;
  std::wstring line;
  for (wchar_t c : Decode(bytes) + L"\n") {
    if (c != L'\n') {
      line.push_back(c);
      continue;
    }
    ParseLine(line, &sections);
    line.clear();
  }
  return sections;
}

const Section* FindSection(const std::vector<Section>& sections, const std::wstring& name) {
  for (const Section& section : sections)
    if (SameName(section.name, name)) return &section;
  return nullptr;
}

std::wstring Unquote(const std::wstring& value) {
  const bool quoted = value.size() >= 2 && (value.front() == L'"' || value.front() == L'\'') &&
                      value.back() == value.front();
  return quoted ? value.substr(1, value.size() - 2) : value;
}

std::optional<std::wstring> FindValue(LPCWSTR section, LPCWSTR key, LPCWSTR path) {
  const auto sections = ReadSections(path);
  const Section* found = sections ? FindSection(*sections, Trim(section)) : nullptr;
  if (found)
    for (const Line& line : found->lines)
      if (SameName(line.key, Trim(key))) return Unquote(line.value);
  return std::nullopt;
}

// All names of a kind, each followed by a null, and one more null at the end. If they do not fit,
// they are cut before the two final nulls, and the result is size - 2.
DWORD DeliverList(const std::vector<std::wstring>& names, LPWSTR out, DWORD size) {
  std::wstring all;
  for (const std::wstring& name : names) all += name + L'\0';
  if (all.size() + 1 <= size) {
    std::copy(all.begin(), all.end(), out);
    out[all.size()] = L'\0';
    if (all.empty() && size > 1) out[1] = L'\0';
    return static_cast<DWORD>(all.size());
  }
  if (size < 2) {
    if (size == 1) out[0] = L'\0';
    return 0;
  }
  std::copy_n(all.begin(), size - 2, out);
  out[size - 2] = out[size - 1] = L'\0';
  return size - 2;
}

DWORD DeliverText(const std::wstring& text, LPWSTR out, DWORD size) {
  if (size == 0) return 0;
  const size_t length = std::min<size_t>(text.size(), size - 1);
  std::copy_n(text.begin(), length, out);
  out[length] = L'\0';
  return static_cast<DWORD>(length);
}

DWORD DeliverNames(LPCWSTR section, LPWSTR out, DWORD size, LPCWSTR path) {
  std::vector<std::wstring> names;
  const auto sections = ReadSections(path);
  if (!sections) {
    SetLastError(ERROR_FILE_NOT_FOUND);
  } else if (!section) {
    for (const Section& one : *sections) names.push_back(one.name);
  } else if (const Section* found = FindSection(*sections, Trim(section))) {
    for (const Line& line : found->lines) names.push_back(line.key);
  }
  return DeliverList(names, out, size);
}

// Digits up to the first other character; "0x", "0o" and "0b" choose the base.
UINT ParseInt(const std::wstring& text) {
  size_t at = 0;
  const bool negative = text[0] == L'-';
  if (text[0] == L'-' || text[0] == L'+') ++at;
  uint32_t base = 10;
  if (at + 1 < text.size() && text[at] == L'0') {
    const wchar_t mark = text[at + 1];
    base = mark == L'x' ? 16 : mark == L'o' ? 8 : mark == L'b' ? 2 : 10;
    if (base != 10) at += 2;
  }
  uint32_t value = 0;
  for (; at < text.size(); ++at) {
    const wchar_t c = text[at];
    uint32_t digit = 99;
    if (c >= L'0' && c <= L'9') digit = static_cast<uint32_t>(c - L'0');
    if (c >= L'a' && c <= L'f') digit = static_cast<uint32_t>(c - L'a' + 10);
    if (c >= L'A' && c <= L'F') digit = static_cast<uint32_t>(c - L'A' + 10);
    if (digit >= base) break;
    value = value * base + digit;
  }
  return negative ? 0 - value : value;
}

}  // namespace
}  // namespace port

DWORD WINAPI GetPrivateProfileStringW(LPCWSTR section, LPCWSTR key, LPCWSTR fallback, LPWSTR out,
                                      DWORD size, LPCWSTR path) {
  if (!out || size == 0) return 0;
  if (port::Fails("GetPrivateProfileStringW"))  // as if the file could not be read
    return port::DeliverText(fallback ? fallback : L"", out, size);
  if (!section || !key) return port::DeliverNames(section, out, size, path);
  if (auto value = port::FindValue(section, key, path)) {
    SetLastError(0);
    return port::DeliverText(*value, out, size);
  }
  SetLastError(ERROR_FILE_NOT_FOUND);
  std::wstring text = fallback ? fallback : L"";
  while (!text.empty() && text.back() == L' ') text.pop_back();
  return port::DeliverText(text, out, size);
}

UINT WINAPI GetPrivateProfileIntW(LPCWSTR section, LPCWSTR key, INT fallback, LPCWSTR path) {
  if (port::Fails("GetPrivateProfileIntW")) return static_cast<UINT>(fallback);
  auto value = section && key ? port::FindValue(section, key, path) : std::nullopt;
  return value && !value->empty() ? port::ParseInt(*value) : static_cast<UINT>(fallback);
}
