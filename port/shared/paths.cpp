#include <shlwapi.h>

#include "port/shared/faults.h"

namespace {

// The start of the last component, including its separator unless that belongs to a root: "\b" in
// "C:\a\b", "a" in "C:\a", "\share" in "\\server\share".
WCHAR* LastComponent(WCHAR* path) {
  WCHAR* at = path;
  for (int leading = 0; leading < 2 && *at == L'\\'; ++leading) ++at;
  WCHAR* last = at;
  for (; *at; ++at) {
    if (*at == L'\\') last = at;
    if (*at != L':') continue;
    last = at + 1;
    if (*last == L'\\') {  // the root of a drive keeps its separator
      ++last;
      ++at;
    }
  }
  return last;
}

}  // namespace

BOOL WINAPI PathRemoveFileSpecW(LPWSTR path) {
  if (!path) return FALSE;
  WCHAR* last = LastComponent(path);
  if (*last == L'\0') return FALSE;
  *last = L'\0';
  return TRUE;
}

BOOL WINAPI PathFileExistsW(LPCWSTR path) {
  if (!path) return FALSE;
  if (port::Fails("PathFileExistsW")) return FALSE;
  return GetFileAttributesW(path) != INVALID_FILE_ATTRIBUTES;
}
