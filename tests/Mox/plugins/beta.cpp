// A second MoxTest plugin, so the test can see the order shared objects run in.
#include <string>
#include <vector>

extern "C" void korva_plugin_MoxTest(void* context) {
  static_cast<std::vector<std::string>*>(context)->push_back("beta");
}
