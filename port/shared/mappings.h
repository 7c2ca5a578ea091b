// Views of file mappings. A view keeps its mapping's memory alive after the last handle.
#pragma once
#include <windows.h>

namespace port {

// Unmaps every view that a process of that id left behind.
void UnmapViewsOf(DWORD pid);

}  // namespace port
