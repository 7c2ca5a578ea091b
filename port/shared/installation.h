// What tests set and see of the calls that install providers (sporder.h). They write the catalogue
// of catalogue.h, with the checks and the errors that Windows documents.
#pragma once
#include <windows.h>

#include <map>
#include <string>

namespace port {

// Without administrator rights every call that writes fails. True by default.
void SetAdministrator(bool administrator);

// The categories of layered providers that programs may load, where they have been set.
std::map<std::wstring, DWORD> ApplicationCategories();
void SetApplicationCategories(std::map<std::wstring, DWORD> categories);

}  // namespace port
