// The two kinds of programs, 32-bit and 64-bit, and the files that serve each. The names differ, so
// that all of them fit into one folder. Shared by the launcher and the host.
#pragma once

#include <windows.h>

#include <string>

namespace winsock_host {

enum class Kind { k32, k64 };

constexpr Kind kOwnKind = sizeof(void*) == 8 ? Kind::k64 : Kind::k32;

struct KindFiles {
  const wchar_t* bits;  // what a person calls the kind
  const wchar_t* launcher;
  const wchar_t* host;
  const wchar_t* base;
  const wchar_t* library;
  const wchar_t* build;  // the folder of the build tree that has them in its bin
};

const KindFiles& FilesOf(Kind kind);

// The kind of a process that runs or will run. The platform decides it, not only the program's
// file.
Kind KindOfProcess(HANDLE process);

// The folder of a module, with its last separator; null is the program itself.
std::wstring FolderOf(HMODULE module);

// The path of a file of some kind for a module in `folder`: beside it, or in the other kind's
// build. If there is neither, the path beside it.
std::wstring FindKindFile(const std::wstring& folder, Kind kind, const wchar_t* name);

}  // namespace winsock_host
