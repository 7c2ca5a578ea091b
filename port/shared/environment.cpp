// Expands %NAME% in texts, from the port's own environment.
#include <windows.h>

#include <map>

#include "port/shared/faults.h"
#include "port/shared/text.h"

namespace port {
namespace {

std::mutex environment_lock;

std::map<std::wstring, std::wstring>& Variables() {
  static auto& variables =
      *new std::map<std::wstring, std::wstring>{{L"SystemRoot", L"C:\\Windows"},
                                                {L"windir", L"C:\\Windows"},
                                                {L"TEMP", L"C:\\Temp"},
                                                {L"ProgramData", L"C:\\ProgramData"}};
  return variables;
}

const std::wstring* FindVariable(const std::wstring& name) {
  for (const auto& [known, value] : Variables())
    if (SameName(known, name)) return &value;
  return nullptr;
}

// As in these calls, the result includes the terminating null. A buffer that is too small is not
// written to.
template <class Char>
DWORD Deliver(const std::basic_string<Char>& text, Char* out, DWORD size) {
  const DWORD needed = static_cast<DWORD>(text.size() + 1);
  if (needed <= size) std::copy_n(text.c_str(), needed, out);
  return needed;
}

}  // namespace

void SetEnvironment(const std::wstring& name, const std::wstring& value) {
  std::lock_guard hold(environment_lock);
  for (auto& [known, old] : Variables()) {
    if (!SameName(known, name)) continue;
    old = value;
    return;
  }
  Variables()[name] = value;
}

std::wstring Expand(const std::wstring& text) {
  std::lock_guard hold(environment_lock);
  std::wstring out;
  for (size_t at = 0; at < text.size();) {
    const size_t end = text[at] == L'%' ? text.find(L'%', at + 1) : std::wstring::npos;
    const std::wstring* value =
        end == std::wstring::npos ? nullptr : FindVariable(text.substr(at + 1, end - at - 1));
    if (value) {
      out += *value;
      at = end + 1;
    } else {
      out += text[at++];
    }
  }
  return out;
}

}  // namespace port

DWORD WINAPI ExpandEnvironmentStringsW(LPCWSTR in, LPWSTR out, DWORD size) {
  if (port::Fails("ExpandEnvironmentStringsW")) return 0;
  return port::Deliver(port::Expand(in), out, size);
}

DWORD WINAPI ExpandEnvironmentStringsA(LPCSTR in, LPSTR out, DWORD size) {
  if (port::Fails("ExpandEnvironmentStringsA")) return 0;
  // Converted through the code page in both directions, so that its bytes stay the same.
  const std::wstring wide = port::Expand(port::WideFromAnsi(in));
  std::string narrow(wide.size(), '\0');
  const int length =
      wide.empty()
          ? 0
          : WideCharToMultiByte(CP_ACP, 0, wide.data(), static_cast<int>(wide.size()),
                                narrow.data(), static_cast<int>(narrow.size()), nullptr, nullptr);
  narrow.resize(static_cast<size_t>(length));
  return port::Deliver(narrow, out, size);
}
