# What both kinds of Windows have in common. A toolchain file names its kind and includes this:
#   CMAKE_SYSTEM_PROCESSOR  the first part of the compiler's name
#   VYR_KIND_SUFFIX         behind the names of modules, so that both kinds lie in one folder
#   VYR_KIND_OPTIONS        what the compiler is told for this kind
# It is the win32-threads flavour of mingw-w64: it brings no winpthread library.
set(CMAKE_SYSTEM_NAME Windows)
set(VYR_MINGW ${CMAKE_SYSTEM_PROCESSOR}-w64-mingw32)
foreach(flavour -win32 "")
  find_program(VYR_MINGW_GXX ${VYR_MINGW}-g++${flavour})
  find_program(VYR_MINGW_GCC ${VYR_MINGW}-gcc${flavour})
endforeach()
if(NOT VYR_MINGW_GXX)
  message(FATAL_ERROR "no ${VYR_MINGW}-g++ here: run scripts/setup.sh")
endif()
set(CMAKE_C_COMPILER ${VYR_MINGW_GCC})
set(CMAKE_CXX_COMPILER ${VYR_MINGW_GXX})
set(CMAKE_RC_COMPILER ${VYR_MINGW}-windres)
set(CMAKE_FIND_ROOT_PATH /usr/${VYR_MINGW})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
find_program(VYR_WINE wine)
if(VYR_WINE)
  set(CMAKE_CROSSCOMPILING_EMULATOR ${CMAKE_CURRENT_LIST_DIR}/../scripts/wine)
endif()
