// Views of file mappings. A view keeps its mapping's memory alive after the last handle.
#pragma once
#include <windows.h>

namespace port {

// Unmaps every view that the process of that id has left mapped.
void UnmapViewsOf(DWORD pid);

}  // namespace port
