# The header-only libraries of the devkit (Debian: libtomlplusplus-dev, libcli11-dev,
# nlohmann-json3-dev, libboost-dev) are staged into the build tree: /usr/include must never be on a cross
# compiler's path.
set(VYR_HEADERS ${CMAKE_BINARY_DIR}/headers)
file(MAKE_DIRECTORY ${VYR_HEADERS})
foreach(name toml++ CLI nlohmann boost)
  if(NOT EXISTS /usr/include/${name})
    message(FATAL_ERROR "no /usr/include/${name}: run scripts/setup.sh")
  endif()
  file(CREATE_LINK /usr/include/${name} ${VYR_HEADERS}/${name} SYMBOLIC)
endforeach()
add_library(vyr_headers INTERFACE)
target_include_directories(vyr_headers SYSTEM INTERFACE ${VYR_HEADERS})
