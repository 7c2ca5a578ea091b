// From the bytes of the regions back to a configuration file.
#pragma once

#include <string>

#include "client/fields/tables.h"

namespace client {

// A file that gives exactly these tables when it is read, provided that they came from such a file.
// What another client program left in them is shown as far as counts and fields reach: bytes behind
// the last entry of a list or the end of a text are not.
std::string DumpToml(const Tables& tables);

// The same as JSON, for programs.
std::string DumpJson(const Tables& tables);

}  // namespace client
