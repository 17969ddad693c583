# Model files (models/*.mox) are compiled by tools/moxgen into C++ under the build tree.
# Each model names the library it belongs to; see tools/moxgen/README.md.
function(korva_add_models target prefix)
endfunction()
function(korva_add_test_models target dir)
endfunction()
