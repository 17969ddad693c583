#pragma once
// Random changes to the test tree (models/AttrLogTest/Tree.mox), the same for a seed in
// every process: the publishing program makes them, the test replays them on a tree of its
// own to know what the mirror must hold.

#include <AttrLogTest/Tree.mox.h>

#include <random>
#include <string>

namespace AttrLogTest {

class RandomTree {
 public:
  explicit RandomTree(unsigned seed) : rng_(seed) {}

  // One random change somewhere in the tree: a scalar, an entry, a child made or deleted.
  void change(Root& root) {
    const std::string name = "b" + std::to_string(pick(6));
    switch (pick(9)) {
      case 0:
        root.countInc(static_cast<Mox::U32>(pick(3)));
        return;
      case 1:
        root.flagIs(static_cast<Mox::U32>(pick(20)), pick(2));
        return;
      case 2:
        return pick(4) ? void(root.newBranch(name)) : root.branchDel(name);
      case 3:
        root.newQuiet(name)->seenIs(static_cast<Mox::U32>(pick(5)), true);
        return;
    }
    const auto branch = root.newBranch(name);
    const std::string leafName = "l" + std::to_string(pick(4));
    switch (pick(6)) {
      case 0:
        return branch->labelIs("label" + std::to_string(pick(50)));
      case 1:
        return branch->pairIs(Korva::IpAddr::fromHostOrder(pick(30)), pair());
      case 2:
        return branch->pairDel(Korva::IpAddr::fromHostOrder(pick(30)));
      case 3:
        return pick(3) ? void(branch->newLeaf(leafName)) : branch->leafDel(leafName);
    }
    const auto leaf = branch->newLeaf(leafName);
    switch (pick(5)) {
      case 0:
        return leaf->colorIs(static_cast<Color>(1 + pick(3)));
      case 1:
        return leaf->weightIs(Weight(static_cast<Mox::U16>(pick(1001))));
      case 2:
        return leaf->slotIs(static_cast<Mox::U8>(pick(8)), static_cast<Mox::U16>(pick(3)));
      case 3:
        return void(leaf->pendingEnq(pair()));
      default:
        return void(leaf->pendingDeq());
    }
  }

 private:
  unsigned pick(unsigned n) { return static_cast<unsigned>(rng_() % n); }
  Pair pair() {
    return Pair(Korva::IpAddr::fromHostOrder(pick(1000)),
                Korva::EthAddr(0, 0, static_cast<Mox::U16>(pick(1000))));
  }

  std::mt19937 rng_;
};

}  // namespace AttrLogTest
