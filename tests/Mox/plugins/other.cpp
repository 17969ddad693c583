// A plugin of another category: loading MoxTest plugins must skip it.
#include <string>
#include <vector>

extern "C" void korva_plugin_MoxOther(void* context) {
  static_cast<std::vector<std::string>*>(context)->push_back("other");
}
