// Text between this port's wide strings (UTF-32) and the narrow ones of files and of the host.
#pragma once
#include <string>

namespace port {

// Invalid sequences become U+FFFD. For the port's own use; sets no error.
std::wstring Wide(const std::string& utf8);
std::string Utf8(const std::wstring& wide);

// The same through the process's code page (1252).
std::wstring WideFromAnsi(const std::string& text);

// Letters of ASCII alone are folded: enough for names of files, modules and keys.
bool SameName(const std::wstring& a, const std::wstring& b);

// The port's own environment, from which %NAME% is expanded. Begins with SystemRoot, windir,
// TEMP and ProgramData; the host's environment is never looked at.
void SetEnvironment(const std::wstring& name, const std::wstring& value);

// Replaces %NAME% if NAME is known, and leaves everything else as it is.
std::wstring Expand(const std::wstring& text);

}  // namespace port
