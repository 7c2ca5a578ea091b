# What is shipped has debug symbols, which scripts/release.sh moves into files of their own, and a
# build id that leads from a module to them. It depends on nothing but the sources: the paths of this
# machine and the time of the build are left out.
option(VYR_RELEASE "build as scripts/release.sh ships it: with symbols, the same in every folder" OFF)
set(VYR_STRIP -s)
if(VYR_RELEASE)
  set(VYR_STRIP)
  # Functions and lines only: where GCC says that variables are differs from run to run, because its
  # tables are ordered by addresses in its own memory.
  # The last prefix that fits counts, so the build folder, which lies in the source folder, comes last.
  target_compile_options(vyr_options INTERFACE -g1
    -ffile-prefix-map=${CMAKE_SOURCE_DIR}=vyr -ffile-prefix-map=${CMAKE_BINARY_DIR}=build)
  target_link_options(vyr_options INTERFACE -Wl,--build-id -Wl,--no-insert-timestamp)
endif()
