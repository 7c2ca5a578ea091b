// Views of file mappings. A view keeps the mapping's memory alive after its last handle is closed.
#pragma once
#include <windows.h>

namespace port {

// Unmaps every view that the process of that id has not unmapped.
void UnmapViewsOf(DWORD pid);

}  // namespace port
