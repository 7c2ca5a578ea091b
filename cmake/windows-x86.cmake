# 32-bit Windows.
set(CMAKE_SYSTEM_PROCESSOR i686)
set(VYR_KIND_SUFFIX "")
# SSE arithmetic: truncated results must agree with x86-64. Hosts hand over 4-byte stacks.
set(VYR_KIND_OPTIONS -msse2 -mfpmath=sse -mstackrealign)
include(${CMAKE_CURRENT_LIST_DIR}/windows.cmake)
