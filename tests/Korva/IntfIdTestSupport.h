#pragma once
// The interface-id manager as every interface test sees it: initialised once per process,
// with the test plugins of KORVA_TEST_PLUGIN_DIR loaded beside the built-in types.

#include <Korva/IntfIdDesc.h>

#include <cstdlib>

namespace KorvaTest {

inline Korva::IntfIdMgr* intfIdMgr() {
  setenv("KORVA_PLUGIN_PATH", KORVA_TEST_PLUGIN_DIR, 0);
  return Korva::IntfIdMgr::ensureInitialized();
}

}  // namespace KorvaTest
