// Text that leaves vyr_run is UTF-8.
#pragma once

#include <string>

namespace vyr_run {

std::string ToUtf8(const std::wstring& text);
std::wstring FromUtf8(const std::string& text);

// A line of the library's log: UTF-8, but for signs that the library writes in code page 936.
std::wstring FromLog(const std::string& line);

// One line on standard error. A console shows it whatever its code page is.
void PrintError(const std::wstring& text);

// One line on standard error: "vyr_run: TEXT".
void Complain(const std::wstring& text);

// The platform's text for an error code.
std::wstring ErrorText(unsigned long code);

}  // namespace vyr_run
