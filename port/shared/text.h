// Conversion between the port's wide strings (UTF-32) and the narrow ones of files and of the host.
#pragma once
#include <string>

namespace port {

// Invalid sequences become U+FFFD. For use inside the port; does not set the last error.
std::wstring Wide(const std::string& utf8);
std::string Utf8(const std::wstring& wide);

// The same from the process's code page (1252).
std::wstring WideFromAnsi(const std::string& text);

// Ignores the case of ASCII letters only, which is enough for names of files, modules and keys.
bool SameName(const std::wstring& a, const std::wstring& b);

// The port's own environment, from which %NAME% is expanded. It initially contains SystemRoot,
// windir, TEMP and ProgramData. The host's environment is never used.
void SetEnvironment(const std::wstring& name, const std::wstring& value);

// Replaces %NAME% if NAME is known. Everything else stays unchanged.
std::wstring Expand(const std::wstring& text);

}  // namespace port
