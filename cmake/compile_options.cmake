# One interface target that everything of ours compiles with.
add_library(vyr_options INTERFACE)
target_compile_features(vyr_options INTERFACE cxx_std_20)
target_compile_options(vyr_options INTERFACE
  -Wall -Wextra -Wconversion -Wshadow -Wformat=2 -Werror)
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
  # GCC 12 sees overlapping copies in std::string's operator+ where there are none (its PR 105651).
  target_compile_options(vyr_options INTERFACE -Wno-restrict)
else()
  # clang knows %Id only for Windows targets; GCC checks the same formats in the other presets. Its
  # -Wconversion has nothing to say about signs.
  target_compile_options(vyr_options INTERFACE -Wno-format -Wno-sign-conversion)
endif()

if(WIN32)
  target_compile_options(vyr_options INTERFACE ${VYR_KIND_OPTIONS})
  target_compile_definitions(vyr_options INTERFACE
    FD_SETSIZE=128 _WIN32_WINNT=0x0601 _CRT_RAND_S UNICODE _UNICODE NOMINMAX WIN32_LEAN_AND_MEAN
    _WINSOCK_DEPRECATED_NO_WARNINGS)
  target_link_options(vyr_options INTERFACE -static)
  include(${CMAKE_CURRENT_LIST_DIR}/release.cmake)
  # Programs only: the library, and all that ships, are linked with the linker that is made for it.
  find_program(VYR_LLD ld.lld)
  if(VYR_LLD AND NOT VYR_RELEASE)
    target_link_options(vyr_options INTERFACE
      "$<$<STREQUAL:$<TARGET_PROPERTY:TYPE>,EXECUTABLE>:-wrapper;${CMAKE_CURRENT_LIST_DIR}/link_with_lld;-fno-use-linker-plugin>")
  endif()
  # GNU ar takes eight seconds over the client's library, this one a tenth of one.
  find_program(VYR_LLVM_AR llvm-ar)
  find_program(VYR_LLVM_RANLIB llvm-ranlib)
  if(VYR_LLVM_AR AND VYR_LLVM_RANLIB AND NOT VYR_RELEASE)
    set(CMAKE_AR ${VYR_LLVM_AR})
    set(CMAKE_RANLIB ${VYR_LLVM_RANLIB})
  endif()
else()
  target_compile_options(vyr_options INTERFACE -pthread)
  target_link_options(vyr_options INTERFACE -pthread)
endif()

set(VYR_SANITIZE "" CACHE STRING "sanitizers, as -fsanitize= takes them")
if(VYR_SANITIZE)
  # Everything is instrumented, the test libraries that are built here included.
  add_compile_options(-fsanitize=${VYR_SANITIZE} -fno-omit-frame-pointer)
  add_link_options(-fsanitize=${VYR_SANITIZE})
  if(VYR_SANITIZE MATCHES undefined)
    add_compile_options(-fno-sanitize-recover=undefined)
  endif()
endif()

set(VYR_FUZZ "" CACHE STRING "the fuzz targets, which need clang and the simulation: with all the rest (too), or alone")
if(VYR_FUZZ STREQUAL "alone")
  add_compile_options(-fsanitize=fuzzer-no-link)  # a search goes by all that it reaches, and by what is compared there
endif()

# What reads command lines, files and JSON is, like a test program, made of large templates, and never what takes time: only what
# is shipped is optimised, and that a little.
set(VYR_OPTIMISE_LITTLE $<$<NOT:$<CONFIG:Debug>>:-O0>)
if(VYR_RELEASE)
  set(VYR_OPTIMISE_LITTLE $<$<NOT:$<CONFIG:Debug>>:-O1>)
endif()

# The simulated worlds of the tests run for days of their own time. What they are made of is optimised a
# little even in a build for debugging.
set(VYR_OPTIMISE_WORLD "")
if(VYR_PORT STREQUAL "sim")
  set(VYR_OPTIMISE_WORLD $<$<CONFIG:Debug>:-O1>)
endif()

# The tests of the sanitized builds are large: the ordinary linker takes minutes over each.
if(NOT WIN32)
  include(CheckLinkerFlag)
  foreach(linker lld gold)
    check_linker_flag(CXX -fuse-ld=${linker} VYR_HAS_${linker})
    if(VYR_HAS_${linker})
      add_link_options(-fuse-ld=${linker})
      break()
    endif()
  endforeach()
endif()

find_program(VYR_CCACHE ccache)
if(VYR_CCACHE AND VYR_RELEASE)
  # By whole paths: what the cache holds is then what the compiler makes of this folder.
  set(CMAKE_CXX_COMPILER_LAUNCHER env -u CCACHE_NOHASHDIR CCACHE_BASEDIR=
    CCACHE_SLOPPINESS=pch_defines,time_macros,include_file_mtime,include_file_ctime ${VYR_CCACHE})
elseif(VYR_CCACHE)
  # Relative to the tree, so that a second clone finds what the first has compiled. What a test
  # reads from the tree it finds through VYR_SOURCE_DIR, never through __FILE__.
  set(CMAKE_CXX_COMPILER_LAUNCHER
    env CCACHE_BASEDIR=${CMAKE_SOURCE_DIR} CCACHE_NOHASHDIR=1
    CCACHE_SLOPPINESS=pch_defines,time_macros,include_file_mtime,include_file_ctime ${VYR_CCACHE})
endif()
