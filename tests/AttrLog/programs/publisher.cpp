// Publishes a random test tree at an endpoint, for the attribute-log tests:
//   publisher ENDPOINT SEED SETUP CHANGES
// makes SETUP random changes, publishes the tree, waits for one mount, makes CHANGES more
// in a burst, sends them, and exits; with CHANGES < 0 it keeps publishing until killed.

#include "AttrLog/RandomTree.h"

#include <Mox/Activity.h>
#include <Mox/AttrLogPublisher.h>

#include <cstdio>
#include <cstdlib>

int main(int argc, char** argv) {
  if (argc != 5) {
    std::fprintf(stderr, "usage: publisher ENDPOINT SEED SETUP CHANGES\n");
    return 2;
  }
  const int changes = std::atoi(argv[4]);
  auto root = AttrLogTest::rootFactory("root");
  AttrLogTest::RandomTree random(static_cast<unsigned>(std::atoi(argv[2])));
  for (int i = std::atoi(argv[3]); i > 0; --i) random.change(*root);
  auto publisher = Mox::make<Mox::AttrLogPublisher>(argv[1], root);
  if (changes < 0) Mox::ActivityManagerConfig::current()->run();
  if (!Mox::runUntil([&] { return publisher->mountCount() > 0; }, 10.0)) return 1;
  for (int i = 0; i < changes; ++i) random.change(*root);
  publisher->flush();
  return Mox::runUntil([&] { return publisher->backlog() == 0; }, 10.0) ? 0 : 1;
}
