# One GoogleTest binary per folder under tests/ (tests/Mox -> test_Mox), so a new suite
# file needs no build edit. Files under tests/<Dir>/plugins/ are built as loadable
# modules that the folder's tests find through KORVA_TEST_PLUGIN_DIR, and files under
# tests/<Dir>/programs/ as programs the tests start as other processes, found through
# KORVA_TEST_PROGRAM_DIR.
find_package(GTest REQUIRED)
include(GoogleTest)

file(GLOB test_dirs LIST_DIRECTORIES true CONFIGURE_DEPENDS ${CMAKE_SOURCE_DIR}/tests/*)
foreach(dir ${test_dirs})
  if(NOT IS_DIRECTORY ${dir})
    continue()
  endif()
  get_filename_component(name ${dir} NAME)
  file(GLOB sources CONFIGURE_DEPENDS ${dir}/*.cpp)
  if(NOT sources)
    continue()
  endif()
  set(target test_${name})
  add_executable(${target} ${sources})
  target_link_libraries(${target} PRIVATE Korva GTest::gtest GTest::gmock GTest::gtest_main ZLIB::ZLIB)
  target_include_directories(${target} PRIVATE ${CMAKE_SOURCE_DIR}/tests)
  korva_add_test_models(${target} ${dir})

  file(GLOB plugins CONFIGURE_DEPENDS ${dir}/plugins/*.cpp)
  set(plugin_dir ${CMAKE_BINARY_DIR}/test-plugins/${name})
  foreach(plugin ${plugins})
    get_filename_component(plugin_name ${plugin} NAME_WE)
    add_library(${name}_${plugin_name} MODULE ${plugin})
    target_link_libraries(${name}_${plugin_name} PRIVATE Korva)
    set_target_properties(${name}_${plugin_name} PROPERTIES
      LIBRARY_OUTPUT_DIRECTORY ${plugin_dir} OUTPUT_NAME ${plugin_name} PREFIX "")
    add_dependencies(${target} ${name}_${plugin_name})
  endforeach()
  file(GLOB programs CONFIGURE_DEPENDS ${dir}/programs/*.cpp)
  set(program_dir ${CMAKE_BINARY_DIR}/test-programs/${name})
  foreach(program ${programs})
    get_filename_component(program_name ${program} NAME_WE)
    add_executable(${name}_${program_name} ${program})
    target_link_libraries(${name}_${program_name} PRIVATE Korva)
    if(TARGET ${target}_models)
      target_link_libraries(${name}_${program_name} PRIVATE ${target}_models)
    endif()
    target_include_directories(${name}_${program_name} PRIVATE ${CMAKE_SOURCE_DIR}/tests)
    set_target_properties(${name}_${program_name} PROPERTIES
      RUNTIME_OUTPUT_DIRECTORY ${program_dir} OUTPUT_NAME ${program_name})
    add_dependencies(${target} ${name}_${program_name})
  endforeach()
  target_compile_definitions(${target} PRIVATE
    KORVA_TEST_PROGRAM_DIR="${program_dir}"
    KORVA_TEST_PLUGIN_DIR="${plugin_dir}"
    KORVA_SOURCE_DIR="${CMAKE_SOURCE_DIR}"
    KORVA_BINARY_DIR="${CMAKE_BINARY_DIR}")
  # Each case takes well under a second; a hung one fails in seconds. The pressure cases
  # (a million datagrams) get longer, enough for a sanitizer build on a busy machine.
  gtest_discover_tests(${target} DISCOVERY_TIMEOUT 60 TEST_FILTER "-Pressure.*"
                       PROPERTIES TIMEOUT 20)
  gtest_discover_tests(${target} DISCOVERY_TIMEOUT 60 TEST_FILTER "Pressure.*"
                       PROPERTIES TIMEOUT 240)
endforeach()

include(cmake/ToolTests.cmake OPTIONAL)
include(cmake/InstallTest.cmake)
