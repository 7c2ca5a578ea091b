# For scripts/coverage.sh: counts which lines and branches of src/ run. By clang, which counts what the
# source says: an exception's way out of a call is no branch for it, and a branch inside a macro is the
# macro's.
option(VYR_COVERAGE "count what runs of src/; needs clang" OFF)
if(VYR_COVERAGE)
  # Tests and devkit are not counted, but the functions of src/ headers that they contain are: the
  # linker keeps one copy of each, and it may be theirs. Their warnings are the other presets' business.
  target_compile_options(vyr_options INTERFACE -fprofile-instr-generate -fcoverage-mapping
    -fprofile-list=${CMAKE_CURRENT_LIST_DIR}/coverage.list -fprofile-update=atomic -w
    "SHELL:-Xclang -fno-pch-timestamp")
  target_link_options(vyr_options INTERFACE -fprofile-instr-generate)
endif()
