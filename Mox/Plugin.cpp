#include <Mox/Log.h>
#include <Mox/Plugin.h>
#include <Mox/Trace.h>

#include <dlfcn.h>

#include <algorithm>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <map>
#include <string_view>

namespace Mox {

namespace {

TraceHandle trace("Plugin");

constexpr LogHandle<std::string, std::string, std::string> PLUGIN_LOAD_FAILED{
    "PLUGIN_LOAD_FAILED", LogSeverity::error, "Plugin %s of category %s failed to load: %s",
    "The features this plugin brings are missing. Check that the plugin was built for this "
    "version of the library and that KORVA_PLUGIN_PATH names the intended directories."};

struct BuiltIn {
  std::string name;
  PluginEntry entry;
};

// Function-local so that static initialisers of any unit can register.
std::map<std::string, std::vector<BuiltIn>, std::less<>>& builtIns() {
  static auto* registry = new std::map<std::string, std::vector<BuiltIn>, std::less<>>;
  return *registry;
}

// Runs one entry; the error text when it throws, empty when it returned.
std::string runEntry(PluginEntry entry, void* context) {
  try {
    entry(context);
    return {};
  } catch (const std::exception& e) {
    return std::string("entry threw: ") + e.what();
  }
}

void fail(PluginLoadReport* report, const char* category, const std::string& plugin,
          std::string_view error) {
  // dlerror() usually starts with the path already; say it once.
  if (error.starts_with(plugin + ": ")) error.remove_prefix(plugin.size() + 2);
  report->failures.push_back(plugin + ": " + std::string(error));
  PLUGIN_LOAD_FAILED.log(plugin, category, std::string(error));
  MOX_TRACE(trace, 0, "Failed to load " << report->failures.back());
}

// The *.so files of one directory, sorted by name; none when it cannot be read.
std::vector<std::string> sharedObjectsIn(const std::string& directory) {
  namespace fs = std::filesystem;
  std::vector<std::string> paths;
  std::error_code error;
  for (fs::directory_iterator it(directory, error), end; !error && it != end; it.increment(error)) {
    std::error_code typeError;
    if (it->path().extension() == ".so" && it->is_regular_file(typeError)) {
      paths.push_back(it->path().string());
    }
  }
  if (error)
    MOX_TRACE(trace, 1, "Cannot read plugin directory " << directory << ": " << error.message());
  std::sort(paths.begin(), paths.end());
  return paths;
}

void loadSharedObject(const std::string& path, const char* category, void* context,
                      PluginLoadReport* report) {
  void* handle = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
  if (!handle) return fail(report, category, path, dlerror());
  const std::string symbol = std::string("korva_plugin_") + category;
  auto entry = reinterpret_cast<PluginEntry>(dlsym(handle, symbol.c_str()));
  if (!entry) {
    MOX_TRACE(trace, 2, "Skipping " << path << ": no " << symbol);
    dlclose(handle);
    return;
  }
  if (std::string error = runEntry(entry, context); !error.empty()) {
    return fail(report, category, path, error);  // stays loaded: it may have registered code
  }
  MOX_TRACE(trace, 1, "Loaded " << category << " plugin " << path);
  report->loaded.push_back(path);
}

}  // namespace

bool pluginIs(const char* category, const char* name, PluginEntry entry) {
  std::vector<BuiltIn>& plugins = builtIns()[category];
  if (std::any_of(plugins.begin(), plugins.end(),
                  [&](const BuiltIn& plugin) { return plugin.name == name; })) {
    return false;
  }
  plugins.push_back({name, entry});
  return true;
}

PluginLoadReport loadPlugins(const char* category, void* context) {
  PluginLoadReport report;
  if (auto found = builtIns().find(std::string_view(category)); found != builtIns().end()) {
    // A copy: an entry may register more plugins while we walk.
    const std::vector<BuiltIn> plugins = found->second;
    for (const BuiltIn& plugin : plugins) {
      if (std::string error = runEntry(plugin.entry, context); !error.empty()) {
        fail(&report, category, plugin.name, error);
      } else {
        MOX_TRACE(trace, 1, "Ran built-in " << category << " plugin " << plugin.name);
        report.loaded.push_back(plugin.name);
      }
    }
  }
  const char* path = std::getenv("KORVA_PLUGIN_PATH");
  for (std::string_view rest = path ? path : ""; !rest.empty();) {
    const size_t colon = rest.find(':');
    const std::string directory(rest.substr(0, colon));
    rest = colon == std::string_view::npos ? std::string_view() : rest.substr(colon + 1);
    if (directory.empty()) continue;
    for (const std::string& object : sharedObjectsIn(directory)) {
      loadSharedObject(object, category, context, &report);
    }
  }
  return report;
}

}  // namespace Mox
