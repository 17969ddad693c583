# The installed headers, libraries and pkg-config file are enough to build an agent.
add_test(NAME install_builds_agent
  COMMAND ${CMAKE_SOURCE_DIR}/scripts/check-install ${CMAKE_BINARY_DIR})
set_tests_properties(install_builds_agent PROPERTIES TIMEOUT 300)
if(KORVA_AGENT_FLAGS)
  set_tests_properties(install_builds_agent PROPERTIES ENVIRONMENT
    "KORVA_AGENT_FLAGS=${KORVA_AGENT_FLAGS};PKG_CONFIG_LIBDIR=${KORVA_AGENT_PKG_CONFIG_LIBDIR}")
endif()
