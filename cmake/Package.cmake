# What a C++ user on Debian expects: a CMake package (find_package(Korva)), a manual page
# for the korva tool, and the Debian packages `make package` builds: libkorva0 (the
# shared libraries), libkorva-dev (headers, link names, korva.pc, the CMake package) and
# korva (the tool and its manual page).

# --- the CMake package; relocatable, as the exported paths are relative to it ---
include(CMakePackageConfigHelpers)
target_compile_features(Mox INTERFACE cxx_std_20)  # the headers need C++20
set(KORVA_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/Korva)
install(EXPORT KorvaTargets NAMESPACE Korva:: DESTINATION ${KORVA_CMAKE_DIR} COMPONENT dev)
configure_package_config_file(cmake/KorvaConfig.cmake.in ${CMAKE_BINARY_DIR}/KorvaConfig.cmake
  INSTALL_DESTINATION ${KORVA_CMAKE_DIR})
# Before 1.0 a minor version may break the interface.
write_basic_package_version_file(${CMAKE_BINARY_DIR}/KorvaConfigVersion.cmake
  COMPATIBILITY SameMinorVersion)
install(FILES ${CMAKE_BINARY_DIR}/KorvaConfig.cmake ${CMAKE_BINARY_DIR}/KorvaConfigVersion.cmake
  DESTINATION ${KORVA_CMAKE_DIR} COMPONENT dev)

# --- korva(1), from the tool's own help (run as plain "korva", so that its usage line
# names no build folder) ---
find_program(HELP2MAN help2man REQUIRED)
set(KORVA_MAN_PAGE ${CMAKE_BINARY_DIR}/korva.1)
add_custom_command(OUTPUT ${KORVA_MAN_PAGE}.gz
  COMMAND ${CMAKE_COMMAND} -E env "PATH=$<TARGET_FILE_DIR:korva>:$ENV{PATH}"
    ${HELP2MAN} --no-info --section=1 --version-string=${PROJECT_VERSION}
    "--name=addresses, interfaces, namespaces and packets of libKorva"
    --output=${KORVA_MAN_PAGE} korva
  COMMAND gzip -9nf ${KORVA_MAN_PAGE}
  DEPENDS korva VERBATIM)
add_custom_target(korva-man ALL DEPENDS ${KORVA_MAN_PAGE}.gz)
install(FILES ${KORVA_MAN_PAGE}.gz DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT tools)

# --- Debian packages ---
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME libkorva)
set(CPACK_PACKAGE_CONTACT "libKorva developers <korva@localhost>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "networking support for the agents of a network switch")
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_STRIP_FILES ON)
set(CPACK_COMPONENTS_ALL runtime dev tools)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
# dpkg-shlibdeps names the Debian packages of the libraries we link (libssl3,
# libpcre2-8-0, ...); our own libraries it finds in the build folder and leaves to the
# component dependencies below.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${CMAKE_BINARY_DIR})
set(CPACK_DEBIAN_ENABLE_COMPONENT_DEPENDS ON)
set(CPACK_COMPONENT_DEV_DEPENDS runtime)
set(CPACK_COMPONENT_TOOLS_DEPENDS runtime)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME libkorva0)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)  # for the packages of agents linking us
set(CPACK_DEBIAN_DEV_PACKAGE_NAME libkorva-dev)
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS "libssl-dev, libpcre2-dev, pkg-config")
set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME korva)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION net)
include(CPack)
