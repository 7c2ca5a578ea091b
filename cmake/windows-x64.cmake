# 64-bit Windows.
set(CMAKE_SYSTEM_PROCESSOR x86_64)
set(VYR_KIND_SUFFIX 64)
# The log's texts print sockets by %d. They are wider here, but so is the place of each argument of
# a call, and no handle has more than 32 bits. The 32-bit build checks the same formats.
set(VYR_KIND_OPTIONS -Wno-format)
include(${CMAKE_CURRENT_LIST_DIR}/windows.cmake)
