// korva: the library's command-line tool.

#include "Command.h"

#include <algorithm>
#include <cstdio>
#include <vector>

namespace KorvaTool {

namespace {

std::vector<CommandSetup>& commands() {
  static std::vector<CommandSetup> list;
  return list;
}

std::vector<DemoStep>& demoSteps() {
  static std::vector<DemoStep> list;
  return list;
}

int runDemo() {
  auto steps = demoSteps();
  std::stable_sort(steps.begin(), steps.end(),
                   [](const DemoStep& a, const DemoStep& b) { return a.order < b.order; });
  for (const DemoStep& step : steps) {
    std::printf("== %s\n", step.name.c_str());
    std::fflush(stdout);
    if (int status = step.run()) {
      std::fprintf(stderr, "korva demo: step '%s' failed\n", step.name.c_str());
      return status;
    }
  }
  std::printf("demo finished: %zu steps\n", steps.size());
  return 0;
}

void setupDemo(CLI::App& app, int& exitStatus) {
  auto* demo = app.add_subcommand("demo", "Run the library's end-to-end scenario");
  demo->callback([&exitStatus] { exitStatus = runDemo(); });
}

void setupVersion(CLI::App& app, int& exitStatus) {
  auto* version = app.add_subcommand("version", "Print the library version");
  version->callback([&exitStatus] {
    std::printf("korva %s (libKorva.so.0)\n", KORVA_VERSION);
    exitStatus = 0;
  });
}

}  // namespace

bool registerCommand(CommandSetup setup) {
  commands().push_back(setup);
  return true;
}

bool registerDemoStep(DemoStep step) {
  demoSteps().push_back(std::move(step));
  return true;
}

}  // namespace KorvaTool

int main(int argc, char** argv) {
  using namespace KorvaTool;
  CLI::App app{"korva: addresses, interfaces, namespaces and packets of libKorva"};
  app.require_subcommand(1);
  int exitStatus = 0;
  setupVersion(app, exitStatus);
  setupDemo(app, exitStatus);
  for (CommandSetup setup : commands()) setup(app, exitStatus);
  CLI11_PARSE(app, argc, argv);
  return exitStatus;
}
