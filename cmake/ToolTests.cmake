# Tests of the build tools, run by CTest beside the C++ suites.
add_test(NAME moxgen
  COMMAND ${Python3_EXECUTABLE} -m unittest discover -s ${CMAKE_SOURCE_DIR}/tools/moxgen/tests
  WORKING_DIRECTORY ${CMAKE_SOURCE_DIR}/tools/moxgen/tests)
set_tests_properties(moxgen PROPERTIES TIMEOUT 30)
