// A GUID in the form that Windows prints, with braces.
#pragma once
#include <windows.h>

#include <optional>
#include <string>

namespace setup {

std::string GuidText(const GUID& guid);
std::optional<GUID> ParseGuid(const std::string& text);

}  // namespace setup
