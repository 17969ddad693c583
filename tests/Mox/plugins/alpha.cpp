// A test plugin of category MoxTest: records that it ran in the caller's list.
#include <string>
#include <vector>

extern "C" void korva_plugin_MoxTest(void* context) {
  static_cast<std::vector<std::string>*>(context)->push_back("alpha");
}
