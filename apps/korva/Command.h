#pragma once
// The korva tool's subcommands and demo steps register themselves from their own source
// files, so adding one touches no shared list.

#include <CLI/CLI.hpp>

#include <functional>
#include <string>

namespace KorvaTool {

// Adds a subcommand to the tool. The setup function creates it on `app` and arranges for
// its callback to store the command's exit status in `exitStatus`.
using CommandSetup = void (*)(CLI::App& app, int& exitStatus);
bool registerCommand(CommandSetup setup);

// One step of `korva demo`. Steps run in ascending order; a step returns 0 on success and
// prints what it did to standard output. The demo stops at the first failing step.
struct DemoStep {
  int order;
  std::string name;
  std::function<int()> run;
};
bool registerDemoStep(DemoStep step);

}  // namespace KorvaTool
