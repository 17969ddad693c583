# One libFuzzer binary per file under fuzz/ (clang only); `make fuzz` builds and runs them.
# The libraries are built with -fsanitize=fuzzer-no-link (see the Makefile) so libFuzzer
# sees their branches; each target links libFuzzer's driver.
file(GLOB fuzz_sources CONFIGURE_DEPENDS ${CMAKE_SOURCE_DIR}/fuzz/*.cpp)
add_custom_target(fuzz-targets)
foreach(source ${fuzz_sources})
  get_filename_component(name ${source} NAME_WE)
  add_executable(fuzz_${name} ${source})
  target_link_libraries(fuzz_${name} PRIVATE Korva ZLIB::ZLIB)
  target_link_options(fuzz_${name} PRIVATE -fsanitize=fuzzer)
  set_target_properties(fuzz_${name} PROPERTIES RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/fuzz)
  add_dependencies(fuzz-targets fuzz_${name})
endforeach()
# The attribute-log target publishes and mirrors the test tree of tests/AttrLog.
korva_add_test_models(fuzz_AttrLogStream ${CMAKE_SOURCE_DIR}/tests/AttrLog)
