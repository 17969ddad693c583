# One benchmark binary per file under bench/; `make bench` runs them all.
find_package(benchmark REQUIRED)
file(GLOB bench_sources CONFIGURE_DEPENDS ${CMAKE_SOURCE_DIR}/bench/*.cpp)
set(KORVA_BENCH_TARGETS "")
foreach(source ${bench_sources})
  get_filename_component(name ${source} NAME_WE)
  add_executable(bench_${name} ${source})
  target_link_libraries(bench_${name} PRIVATE Korva benchmark::benchmark benchmark::benchmark_main ZLIB::ZLIB)
  target_include_directories(bench_${name} PRIVATE ${CMAKE_SOURCE_DIR}/bench)
  list(APPEND KORVA_BENCH_TARGETS bench_${name})
endforeach()
# LMDB is the baseline of the shared-memory table benchmark only.
find_library(LMDB_LIBRARY lmdb REQUIRED)
target_link_libraries(bench_Cairn PRIVATE ${LMDB_LIBRARY})
