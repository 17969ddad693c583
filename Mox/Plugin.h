#pragma once
// Plugins by category. A category's plugins are the entries built into the program or its
// libraries (registered by static initialisers with pluginIs) and the shared objects found
// on KORVA_PLUGIN_PATH. loadPlugins runs them all, each with the caller's context object,
// which the plugin uses to register what it brings.
//
//   // in a plugin built into a library:
//   static const bool registered = Mox::pluginIs("IntfIdPlugin", "Ethernet", &addEthernet);
//   // in a shared object on KORVA_PLUGIN_PATH:
//   extern "C" void korva_plugin_IntfIdPlugin(void* context) { ... }

#include <string>
#include <vector>

namespace Mox {

using PluginEntry = void (*)(void* context);

// Registers a plugin built into the binary or a library; called from a static initialiser.
// False (and nothing registered) when the category already has a plugin of that name.
bool pluginIs(const char* category, const char* name, PluginEntry entry);

struct PluginLoadReport {
  std::vector<std::string> loaded;    // built-in plugin names and shared-object paths
  std::vector<std::string> failures;  // "<path>: <loader's error>"
};

// Runs every built-in plugin of the category (registration order), then every shared object
// (*.so, sorted by name) in the colon-separated directories of KORVA_PLUGIN_PATH that exports
// extern "C" void korva_plugin_<category>(void* context); objects without that symbol are
// unloaded and skipped. A plugin that fails to load (or throws from its entry) is reported
// in `failures`, in the log (PLUGIN_LOAD_FAILED) and in a trace line, and the others still
// load. Loaded shared objects stay loaded for the life of the process.
PluginLoadReport loadPlugins(const char* category, void* context);

}  // namespace Mox
