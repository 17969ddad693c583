# Toolchain for the 32-bit x86 build: the host's g++ with -m32 (g++-multilib) and the
# i386 packages that scripts/i386-sysroot unpacked into KORVA_I386_SYSROOT. The binaries
# run on the host.
if(NOT KORVA_I386_SYSROOT)
  message(FATAL_ERROR "set KORVA_I386_SYSROOT to the folder scripts/i386-sysroot filled")
endif()
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES KORVA_I386_SYSROOT)
set(sysroot ${KORVA_I386_SYSROOT})
set(multiarch ${sysroot}/usr/lib/i386-linux-gnu)
set(CMAKE_LIBRARY_ARCHITECTURE i386-linux-gnu)
set(CMAKE_SYSTEM_PROCESSOR i686)

# The sysroot's headers come before the host's (amd64) copies of the same packages.
set(CMAKE_CXX_FLAGS_INIT
  "-m32 -isystem ${sysroot}/usr/include/i386-linux-gnu -isystem ${sysroot}/usr/include")
# The sysroot's libraries are no system's: every binary finds them through its RPATH
# (DT_RPATH, which also serves the libraries it loads, such as libssl's libcrypto).
set(runtime_dirs ${multiarch}:${sysroot}/lib/i386-linux-gnu)
set(link_flags "-m32 -L${multiarch} -Wl,-rpath-link,${runtime_dirs}")
string(APPEND link_flags " -Wl,--disable-new-dtags -Wl,-rpath,${runtime_dirs}")
set(CMAKE_EXE_LINKER_FLAGS_INIT ${link_flags})
set(CMAKE_SHARED_LINKER_FLAGS_INIT ${link_flags})
set(CMAKE_MODULE_LINKER_FLAGS_INIT ${link_flags})

# Packages are looked up in the sysroot only; programs (python3, pkg-config) on the host.
set(CMAKE_FIND_ROOT_PATH ${sysroot})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
set(ENV{PKG_CONFIG_LIBDIR} ${multiarch}/pkgconfig:${sysroot}/usr/share/pkgconfig)
set(ENV{PKG_CONFIG_SYSROOT_DIR} ${sysroot})

# The installed-library test builds its example agent for this width and against these.
set(KORVA_AGENT_FLAGS "-m32 -Wl,-rpath-link,${multiarch}")
set(KORVA_AGENT_PKG_CONFIG_LIBDIR $ENV{PKG_CONFIG_LIBDIR})
