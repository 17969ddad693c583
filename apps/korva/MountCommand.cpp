// korva mount ENDPOINT: the entity tree an agent publishes on the attribute log, in the
// runtime's text forms (or JSON), and with --watch each change as it arrives.

#include "Command.h"

#include <Mox/Activity.h>
#include <Mox/AttrLogMount.h>
#include <Mox/Exception.h>

#include <nlohmann/json.hpp>

#include <cstdio>
#include <string>

namespace KorvaTool {

namespace {

struct MountOptions {
  std::string endpoint;
  bool json = false;
  bool watch = false;
  double timeout = 5.0;
  long changes = -1;
};

std::string where(const std::string& path, const Mox::AttrLogClass& cls,
                  const Mox::AttrLogTextSink::Line& line) {
  return path + "/" + cls.attr(line.attr)->name + (line.key ? "[" + *line.key + "]" : "");
}

// A value, or a child entity, as the tree and the watch print it.
const char* shown(const Mox::AttrLogTextSink::Line& line) {
  return line.value ? line.value->c_str() : "(entity)";
}

// The text lines of a tree, a child's after the line of the entry that holds it.
void printTree(const Mox::Entity& entity, const std::string& path) {
  const Mox::AttrLogClass* cls = entity.attrLogClass();
  Mox::AttrLogTextSink text;
  cls->snapshot(entity, 0, text);
  for (const auto& line : text.lines) {
    const std::string at = where(path, *cls, line);
    std::printf("%s = %s\n", at.c_str(), shown(line));
    if (line.child) printTree(*line.child, at);
  }
}

// The tree as nested JSON objects: attributes by name; a collection as an object by key
// text, whose members are values or, for child entities, objects of the same shape.
nlohmann::json jsonTree(const Mox::Entity& entity) {
  const Mox::AttrLogClass* cls = entity.attrLogClass();
  Mox::AttrLogTextSink text;
  cls->snapshot(entity, 0, text);
  nlohmann::json attributes = nlohmann::json::object();
  for (const auto& line : text.lines) {
    nlohmann::json& attr = attributes[cls->attr(line.attr)->name];
    if (!line.key) {
      attr = *line.value;
    } else if (line.child) {
      attr[*line.key] = jsonTree(*line.child);
    } else {
      attr[*line.key] = *line.value;
    }
  }
  return {{"type", cls->typeName()}, {"name", entity.name()}, {"attributes", attributes}};
}

class Printer : public Mox::AttrLogMount::Observer {
 public:
  Printer(Mox::AttrLogMount* mount, const MountOptions& options)
      : mount_(mount), options_(options) {
    mount->observerIs(this);
  }
  bool done() const { return options_.changes >= 0 && printed_ >= options_.changes; }

  void onSynced() override {
    if (options_.json) {
      std::printf("%s\n", jsonTree(*mount_->root()).dump().c_str());
    } else {
      std::printf("%s %s\n", mount_->root()->attrLogClass()->typeName(),
                  mount_->root()->name().c_str());
      printTree(*mount_->root(), "");
    }
    std::fflush(stdout);
  }

  void onChange(const Mox::Entity& entity, Mox::U16 attr, std::string_view key) override {
    if (!options_.watch || !mount_->connected()) return;  // the snapshot prints as a whole
    const Mox::AttrLogClass* cls = entity.attrLogClass();
    Mox::AttrLogTextSink text;
    Mox::AttrLogReader keyIn(key);
    cls->emit(entity, 0, attr, keyIn, text);
    for (const auto& line : text.lines) {
      const std::string at = where(mount_->pathOf(entity), *cls, line);
      const bool gone = !line.value && !line.child;
      if (options_.json) {
        nlohmann::json change = {{"path", at}, {"value", nullptr}};
        if (line.value) change["value"] = *line.value;
        if (line.child) change["value"] = jsonTree(*line.child);
        std::printf("%s\n", change.dump().c_str());
      } else if (gone) {
        std::printf("%s deleted\n", at.c_str());
      } else {
        std::printf("%s = %s\n", at.c_str(), shown(line));
      }
    }
    std::fflush(stdout);
    ++printed_;
  }

  void onDisconnected(const std::string& reason) override {
    std::fprintf(stderr, "korva mount: %s: disconnected: %s\n", options_.endpoint.c_str(),
                 reason.c_str());
  }

 private:
  Mox::AttrLogMount* mount_;
  const MountOptions& options_;
  long printed_ = 0;
};

int runMount(const MountOptions& options) {
  try {
    auto mount = Mox::make<Mox::AttrLogMount>(options.endpoint);
    Printer printer(mount.get(), options);
    if (!Mox::runUntil([&] { return mount->connected(); }, options.timeout)) {
      std::fprintf(stderr, "korva mount: %s: no tree within %g s%s%s\n", options.endpoint.c_str(),
                   options.timeout, mount->lastError().empty() ? "" : ": ",
                   mount->lastError().c_str());
      return 1;
    }
    if (!options.watch) return 0;
    auto* loop = Mox::ActivityManagerConfig::current().get();
    while (!printer.done()) loop->runOnce(1.0);
    return 0;
  } catch (const Mox::Exception& e) {
    // Set-up failures, and values this process cannot print (an interface id no plug-in
    // of this process names).
    std::fprintf(stderr, "korva mount: %s\n", e.what());
    return 1;
  }
}

void setupMount(CLI::App& app, int& exitStatus) {
  static MountOptions options;
  auto* mount = app.add_subcommand(
      "mount", "Print the entity tree an agent publishes at ENDPOINT (@name: abstract socket)");
  mount->add_option("endpoint", options.endpoint, "@abstract-name or socket file path")->required();
  mount->add_flag("--json", options.json, "print JSON (one object per change with --watch)");
  mount->add_flag("--watch", options.watch, "after the tree, print each change as it arrives");
  mount->add_option("--timeout", options.timeout, "seconds to wait for the tree")
      ->check(CLI::PositiveNumber);
  mount->add_option("--changes", options.changes, "with --watch: stop after this many changes")
      ->check(CLI::NonNegativeNumber);
  mount->callback([&exitStatus] { exitStatus = runMount(options); });
}

const bool registered = registerCommand(setupMount);

}  // namespace

}  // namespace KorvaTool
