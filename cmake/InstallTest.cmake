# The installed headers and libraries are enough to build an agent, with pkg-config or with
# CMake's find_package; the Debian packages hold what they should and name what they need.
foreach(way pkg-config cmake)
  add_test(NAME install_builds_agent_with_${way}
    COMMAND ${CMAKE_SOURCE_DIR}/scripts/check-install ${CMAKE_BINARY_DIR} ${way})
endforeach()
set_tests_properties(install_builds_agent_with_pkg-config PROPERTIES TIMEOUT 60)
set_tests_properties(install_builds_agent_with_cmake PROPERTIES TIMEOUT 90)
if(KORVA_AGENT_FLAGS)
  # Another width (the 32-bit build): the agent is built for it, against its sysroot.
  set_tests_properties(install_builds_agent_with_pkg-config install_builds_agent_with_cmake
    PROPERTIES ENVIRONMENT "KORVA_AGENT_FLAGS=${KORVA_AGENT_FLAGS};\
PKG_CONFIG_LIBDIR=${KORVA_AGENT_PKG_CONFIG_LIBDIR};\
KORVA_AGENT_CMAKE_ARGS=-DCMAKE_TOOLCHAIN_FILE=${CMAKE_TOOLCHAIN_FILE} -DKORVA_I386_SYSROOT=${KORVA_I386_SYSROOT}")
else()
  # Packages are checked on the native build only: dpkg-shlibdeps needs the target's
  # libraries installed as packages, which the 32-bit sysroot's are not.
  add_test(NAME debian_packages COMMAND ${CMAKE_SOURCE_DIR}/scripts/check-packages ${CMAKE_BINARY_DIR})
  set_tests_properties(debian_packages PROPERTIES TIMEOUT 120)
endif()
