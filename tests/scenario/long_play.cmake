# A hundred simulated hours of long play, where the library is optimised: under the sanitizers they take eight times
# as long. The library, the node and the simulation may be put together, since all of them are compiled against the
# headers that the ports share.
file(GLOB worlds CONFIGURE_DEPENDS ${CMAKE_SOURCE_DIR}/tests/scenario/whole_*.cpp)
list(FILTER worlds EXCLUDE REGEX "whole_(course|faults)_test")
add_executable(long_play ${worlds} ${CMAKE_SOURCE_DIR}/devkit/node/sim_node.cpp
  scenario/census.cpp scenario/tcp_world.cpp scenario/game_process.cpp unit/out_of_memory.cpp)
add_dependencies(long_play vyr_core vyr_node_lib)
target_include_directories(long_play PRIVATE ${CMAKE_SOURCE_DIR} ${CMAKE_SOURCE_DIR}/src ${CMAKE_SOURCE_DIR}/devkit)
target_link_libraries(long_play PRIVATE $<TARGET_FILE:vyr_node_lib> $<TARGET_FILE:vyr_core>
  $<TARGET_FILE:vyr_metrics> port_sim vyr_gtest vyr_headers)
set_target_properties(long_play PROPERTIES LINK_DEPENDS "$<TARGET_FILE:vyr_core>;$<TARGET_FILE:vyr_node_lib>")
target_precompile_headers(long_play REUSE_FROM contract_tests)
target_compile_options(long_play PRIVATE -O0)
vyr_join_by_folder(long_play ${worlds})
# It runs for each block of memory.
set_source_files_properties(scenario/census.cpp PROPERTIES
  COMPILE_OPTIONS -O2 SKIP_PRECOMPILE_HEADERS ON SKIP_UNITY_BUILD_INCLUSION ON)
add_test(NAME long_play COMMAND long_play --gtest_filter=LongPlay.*)
set_tests_properties(long_play PROPERTIES TIMEOUT 600 ENVIRONMENT VYR_SWARM_SEEDS=15)
