# The installed headers and libraries are enough to build an agent, with pkg-config or with
# CMake's find_package; the Debian packages hold what they should and name what they need.
foreach(way pkg-config cmake)
  add_test(NAME install_builds_agent_with_${way}
    COMMAND ${CMAKE_SOURCE_DIR}/scripts/check-install ${CMAKE_BINARY_DIR} ${way})
endforeach()
set_tests_properties(install_builds_agent_with_pkg-config PROPERTIES TIMEOUT 60)
set_tests_properties(install_builds_agent_with_cmake PROPERTIES TIMEOUT 90)
add_test(NAME debian_packages COMMAND ${CMAKE_SOURCE_DIR}/scripts/check-packages ${CMAKE_BINARY_DIR})
set_tests_properties(debian_packages PROPERTIES TIMEOUT 120)
