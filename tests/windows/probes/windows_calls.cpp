// Makes the Windows calls that the lines of its standard input ask for, and prints a line with the
// result and the error of each: for a program that runs outside Wine in place of one inside.
//   mutex|SDDL|NAME               CreateMutexA
//   mapping|SDDL|SIZE|NAME|FILE   CreateFileMappingA, on a file, so that the asking program can map
//                                 the same memory; a new mapping is empty
//   wait|HANDLE|MILLISECONDS      WaitForSingleObject
//   release|HANDLE                ReleaseMutex
#include <windows.h>
//
#include <sddl.h>

#include <cstdio>
#include <iostream>
#include <sstream>
#include <string>
#include <vector>

namespace {

using Words = std::vector<std::string>;

SECURITY_ATTRIBUTES* Attributes(const std::string& sddl) {
  static SECURITY_ATTRIBUTES attributes = {sizeof attributes, nullptr, FALSE};
  if (!ConvertStringSecurityDescriptorToSecurityDescriptorA(
          sddl.c_str(), SDDL_REVISION_1, &attributes.lpSecurityDescriptor, nullptr)) {
    return nullptr;
  }
  return &attributes;
}

HANDLE MakeMapping(const Words& words) {
  const char* const name = words.at(3).c_str();
  if (const HANDLE known = OpenFileMappingA(FILE_MAP_ALL_ACCESS, FALSE, name)) {
    SetLastError(ERROR_ALREADY_EXISTS);
    return known;
  }
  const HANDLE file =
      CreateFileA(words.at(4).c_str(), GENERIC_READ | GENERIC_WRITE,
                  FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, CREATE_ALWAYS, 0, nullptr);
  if (file == INVALID_HANDLE_VALUE) return nullptr;
  const HANDLE made = CreateFileMappingA(file, Attributes(words.at(1)), PAGE_READWRITE, 0,
                                         static_cast<DWORD>(std::stoul(words.at(2))), name);
  const DWORD error = GetLastError();
  CloseHandle(file);
  SetLastError(error);
  return made;
}

HANDLE HandleOf(const std::string& text) {
  return reinterpret_cast<HANDLE>(static_cast<ULONG_PTR>(std::stoull(text)));
}

unsigned long long Made(const Words& words) {
  const std::string& call = words.at(0);
  HANDLE handle = nullptr;
  if (call == "wait") {
    return WaitForSingleObject(HandleOf(words.at(1)), static_cast<DWORD>(std::stoul(words.at(2))));
  }
  if (call == "release") return ReleaseMutex(HandleOf(words.at(1))) != FALSE;
  if (call == "mutex") handle = CreateMutexA(Attributes(words.at(1)), FALSE, words.at(2).c_str());
  if (call == "mapping") handle = MakeMapping(words);
  return reinterpret_cast<ULONG_PTR>(handle);
}

}  // namespace

int main() {
  for (std::string line; std::getline(std::cin, line);) {
    if (!line.empty() && line.back() == '\r') line.pop_back();
    Words words;
    std::istringstream parts(line);
    for (std::string word; std::getline(parts, word, '|');) words.push_back(word);
    SetLastError(0);
    const unsigned long long result = Made(words);
    std::printf("%llu %lu\n", result, GetLastError());
    std::fflush(stdout);
  }
  return 0;
}
