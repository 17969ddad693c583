# Model files (*.mox) are compiled by tools/moxgen into C++ under the build tree, each
# library into a folder of its own: models/Dir/Name.mox becomes Dir/Name.mox.h and
# .mox.cpp under ${KORVA_GEN_DIR}/korva (libKorva) or ${KORVA_GEN_DIR}/mox (libMox), included
# as <Dir/Name.mox.h>. A model belongs to the library its `library` line names; without one,
# models/Mox/** belong to libMox and every other model to libKorva. The models of a test
# binary live in tests/<Dir>/models/ and are generated into ${CMAKE_BINARY_DIR}/gen-tests/<Dir>;
# the hand-written classes of those models are declared under tests/<Dir>/ (as
# tests/Models/ModelTest/Handlers.h for tests/Models/models/ModelTest/Handlers.mox).
# See tools/moxgen/README.md for the language.

set(MOXGEN ${CMAKE_SOURCE_DIR}/tools/moxgen/moxgen)
file(GLOB MOXGEN_SOURCES CONFIGURE_DEPENDS ${CMAKE_SOURCE_DIR}/tools/moxgen/moxc/*.py)
list(APPEND MOXGEN_SOURCES ${MOXGEN})

# Sets `out` to the library (Mox or Korva) that `model`, found under models/, belongs to.
function(korva_model_library model out)
  file(STRINGS ${model} library_lines REGEX "^library[ \t]+")
  if(library_lines)
    list(GET library_lines 0 line)
    string(REGEX REPLACE "^library[ \t]+([A-Za-z]+).*$" "\\1" library "${line}")
  else()
    file(RELATIVE_PATH relative ${CMAKE_SOURCE_DIR}/models ${model})
    if(relative MATCHES "^Mox/")
      set(library Mox)
    else()
      set(library Korva)
    endif()
  endif()
  set(${out} ${library} PARENT_SCOPE)
endfunction()

# Generates the C++ of each model (paths under `root`) into `out_dir` at build time and
# adds it to `target`.
function(korva_compile_models target root out_dir)
  foreach(model ${ARGN})
    file(RELATIVE_PATH relative ${root} ${model})
    string(REGEX REPLACE "\\.mox$" "" stem ${relative})
    set(header ${out_dir}/${stem}.mox.h)
    set(source ${out_dir}/${stem}.mox.cpp)
    add_custom_command(
      OUTPUT ${header} ${source}
      COMMAND ${Python3_EXECUTABLE} ${MOXGEN} --root ${root} --out ${out_dir} ${model}
      DEPENDS ${model} ${MOXGEN_SOURCES}
      COMMENT "moxgen ${relative}"
      VERBATIM)
    target_sources(${target} PRIVATE ${header} ${source})
  endforeach()
endfunction()

# Compiles the models of one library (prefix MOX or KORVA) into its own generated folder,
# puts that folder on the library's include path and installs its headers beside the
# hand-written ones.
function(korva_add_models target prefix)
  file(GLOB_RECURSE models CONFIGURE_DEPENDS ${CMAKE_SOURCE_DIR}/models/*.mox)
  set(mine "")
  foreach(model ${models})
    # A changed `library` line must move the model, so model edits re-run configuration.
    set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${model})
    korva_model_library(${model} library)
    string(TOUPPER ${library} library)
    if(library STREQUAL prefix)
      list(APPEND mine ${model})
    endif()
  endforeach()
  if(NOT mine)
    return()
  endif()
  string(TOLOWER ${prefix} folder)
  set(out_dir ${KORVA_GEN_DIR}/${folder})
  korva_compile_models(${target} ${CMAKE_SOURCE_DIR}/models ${out_dir} ${mine})
  target_include_directories(${target} PUBLIC $<BUILD_INTERFACE:${out_dir}>)
  install(DIRECTORY ${out_dir}/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/korva
    FILES_MATCHING PATTERN "*.h")
endfunction()

# The models of a test folder go into a static library of their own, `<target>_models`,
# which the folder's test binary and its programs (other processes of the same tests) link.
function(korva_add_test_models target dir)
  file(GLOB_RECURSE models CONFIGURE_DEPENDS ${dir}/models/*.mox)
  if(NOT models)
    return()
  endif()
  get_filename_component(name ${dir} NAME)
  set(out_dir ${CMAKE_BINARY_DIR}/gen-tests/${name})
  add_library(${target}_models STATIC)
  target_link_libraries(${target}_models PUBLIC Korva)
  korva_compile_models(${target}_models ${dir}/models ${out_dir} ${models})
  target_include_directories(${target}_models PUBLIC ${out_dir} ${dir} ${CMAKE_SOURCE_DIR}/tests)
  target_link_libraries(${target} PRIVATE ${target}_models)
endfunction()
