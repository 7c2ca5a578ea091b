# The system's own GoogleTest where it serves: it was compiled for this machine, and the sanitizers of memory
# and of undefined behaviour do not ask whether a library is instrumented.
if(NOT WIN32 AND NOT VYR_SANITIZE MATCHES "thread")
  find_package(GTest CONFIG QUIET)
  if(TARGET GTest::gtest_main)
    add_library(vyr_gtest INTERFACE)
    target_link_libraries(vyr_gtest INTERFACE GTest::gtest_main)
    return()
  endif()
endif()

# Otherwise it is built from Debian's source package, with this build's compiler and flags.
set(VYR_GTEST_ROOT /usr/src/googletest CACHE PATH "GoogleTest's sources")
if(NOT EXISTS ${VYR_GTEST_ROOT}/googletest/src/gtest-all.cc)
  message(FATAL_ERROR "no GoogleTest sources in ${VYR_GTEST_ROOT}: run scripts/setup.sh")
endif()
add_library(vyr_gtest STATIC EXCLUDE_FROM_ALL  # the fuzz targets do without
  ${VYR_GTEST_ROOT}/googletest/src/gtest-all.cc
  ${VYR_GTEST_ROOT}/googletest/src/gtest_main.cc)
target_compile_features(vyr_gtest PUBLIC cxx_std_20)
target_compile_options(vyr_gtest PRIVATE -O0)  # compiled in every preset, and never what takes time
target_include_directories(vyr_gtest SYSTEM
  PUBLIC ${VYR_GTEST_ROOT}/googletest/include PRIVATE ${VYR_GTEST_ROOT}/googletest)
if(WIN32)
  # The win32-threads flavour has no std::mutex, which GoogleTest wants for one class only.
  # Not on a command line of the suites: their precompiled header has to be the first thing there.
  target_compile_options(vyr_gtest PRIVATE -include ${CMAKE_CURRENT_LIST_DIR}/gtest_notification.h)
  target_include_directories(vyr_gtest PUBLIC ${CMAKE_CURRENT_LIST_DIR})
  target_compile_definitions(vyr_gtest PUBLIC GTEST_HAS_NOTIFICATION_=1)
endif()
