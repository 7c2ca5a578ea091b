// Text that leaves vyr_run is UTF-8.
#pragma once

#include <string>

namespace vyr_run {

std::string ToUtf8(const std::wstring& text);

// One line on standard error: "vyr_run: TEXT".
void Complain(const std::wstring& text);

// The platform's text for an error code.
std::wstring ErrorText(unsigned long code);

}  // namespace vyr_run
