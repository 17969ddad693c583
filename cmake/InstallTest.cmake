# The installed headers, libraries and pkg-config file are enough to build an agent.
add_test(NAME install_builds_agent
  COMMAND ${CMAKE_SOURCE_DIR}/scripts/check-install ${CMAKE_BINARY_DIR})
set_tests_properties(install_builds_agent PROPERTIES TIMEOUT 60)
