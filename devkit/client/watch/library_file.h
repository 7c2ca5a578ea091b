// The library's file beside this program. No report says which version a process has loaded.
#pragma once

#include <string>
#include <vector>

#include "client/watch/report.h"

namespace client {

// "0.1.0", of the library for programs of that many bits. Empty if there is none, or on another
// system than Windows.
std::string LibraryFileVersion(unsigned bits);

// Completes the `loaded` reports among these.
void NoteLibraryFile(std::vector<Report>* reports);

}  // namespace client
