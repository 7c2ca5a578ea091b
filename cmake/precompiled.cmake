# What nearly every source includes, parsed once for a target of several units. A file still includes what it
# uses: `scripts/lint --alone` reads each file of src/ by itself and without these.
set(VYR_STANDARD_HEADERS <algorithm> <array> <atomic> <cstddef> <cstdint> <cstdio> <cstring>
  <functional> <map> <memory> <mutex> <new> <optional> <set> <span> <string> <string_view> <utility>
  <vector>)
set(VYR_PLATFORM_HEADERS <winsock2.h> <windows.h> <ws2spi.h>)

# The files of one folder are compiled together: what they include and instantiate costs far more than
# they do themselves. So they share one anonymous namespace.
option(VYR_JOIN_FOLDERS "compile each folder as one unit" ON)
function(vyr_join_by_folder target)
  set_target_properties(${target} PROPERTIES UNITY_BUILD ${VYR_JOIN_FOLDERS} UNITY_BUILD_MODE GROUP)
  foreach(source ${ARGN})
    if(source MATCHES "cpp$")
      get_filename_component(path ${source} ABSOLUTE)
      get_filename_component(folder ${path} DIRECTORY)
      get_filename_component(name ${folder} NAME)
      set_source_files_properties(${source} PROPERTIES UNITY_GROUP ${name})
    endif()
  endforeach()
endfunction()
