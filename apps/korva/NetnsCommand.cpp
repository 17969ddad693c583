// korva netns: named network namespaces (add, del, list, exists).

#include "Command.h"

#include <Korva/NetnsUtils.h>

#include <dirent.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

namespace KorvaTool {

namespace {

int report(int result, const char* what, const std::string& name) {
  if (result == 0) return 0;
  std::fprintf(stderr, "korva netns %s %s: %s\n", what, name.c_str(), std::strerror(errno));
  return 1;
}

int listNamespaces() {
  int fd = Korva::openNsRunDir();
  if (fd < 0) return errno == ENOENT ? 0 : report(-1, "list", "");
  DIR* dir = fdopendir(fd);
  std::vector<std::string> names;
  while (dirent* entry = readdir(dir)) {
    if (entry->d_name[0] != '.') names.push_back(entry->d_name);
  }
  closedir(dir);
  std::sort(names.begin(), names.end());
  for (const std::string& name : names) std::printf("%s\n", name.c_str());
  return 0;
}

void setupNetns(CLI::App& app, int& exitStatus) {
  auto* netns = app.add_subcommand("netns", "Named network namespaces under /var/run/netns");
  netns->require_subcommand(1);
  static std::string name;

  auto* add = netns->add_subcommand("add", "Create a namespace (its loopback comes up)");
  add->add_option("name", name, "namespace name")->required();
  add->callback([&exitStatus] { exitStatus = report(Korva::netNsAdd(name), "add", name); });

  auto* del = netns->add_subcommand("del", "Delete a namespace");
  del->add_option("name", name, "namespace name")->required();
  del->callback([&exitStatus] { exitStatus = report(Korva::netNsDelete(name), "del", name); });

  auto* list = netns->add_subcommand("list", "List the named namespaces");
  list->callback([&exitStatus] { exitStatus = listNamespaces(); });

  auto* exists = netns->add_subcommand("exists", "Exit 0 when the namespace exists, 1 otherwise");
  exists->add_option("name", name, "namespace name")->required();
  exists->callback([&exitStatus] { exitStatus = Korva::netNsExists(name) ? 0 : 1; });
}

const bool registered = registerCommand(setupNetns);

}  // namespace

}  // namespace KorvaTool
