# Model files (*.mox) are compiled by tools/moxgen into C++ under the build tree.
# models/Dir/Name.mox becomes ${KORVA_GEN_DIR}/Dir/Name.mox.h and .mox.cpp, included as
# <Dir/Name.mox.h>. A model belongs to the library its `library` line names; without one,
# models/Mox/** belong to libMox and every other model to libKorva. The models of a test
# binary live in tests/<Dir>/models/ and are generated into ${CMAKE_BINARY_DIR}/gen-tests/<Dir>.
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
  korva_compile_models(${target} ${CMAKE_SOURCE_DIR}/models ${KORVA_GEN_DIR} ${mine})
endfunction()

function(korva_add_test_models target dir)
  file(GLOB_RECURSE models CONFIGURE_DEPENDS ${dir}/models/*.mox)
  if(NOT models)
    return()
  endif()
  get_filename_component(name ${dir} NAME)
  set(out_dir ${CMAKE_BINARY_DIR}/gen-tests/${name})
  korva_compile_models(${target} ${dir}/models ${out_dir} ${models})
  target_include_directories(${target} PRIVATE ${out_dir})
endfunction()
