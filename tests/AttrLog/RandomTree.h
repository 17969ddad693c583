#pragma once
// Random changes to the test tree (models/AttrLogTest/Tree.mox), the same for a seed in
// every process: the publishing program makes them, the test replays them on a tree of its
// own to know what the mirror must hold. And the text of a tree, to compare two.

#include <AttrLogTest/Tree.mox.h>

#include <functional>
#include <random>
#include <string>
#include <utility>
#include <vector>

namespace AttrLogTest {

class RandomTree {
 public:
  explicit RandomTree(unsigned seed) : next_(std::mt19937(seed)) {}
  // Choices taken from another source (a fuzzer's bytes).
  explicit RandomTree(std::function<unsigned()> next) : next_(std::move(next)) {}

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
  unsigned pick(unsigned n) { return next_() % n; }
  Pair pair() {
    return Pair(Korva::IpAddr::fromHostOrder(pick(1000)),
                Korva::EthAddr(0, 0, static_cast<Mox::U16>(pick(1000))));
  }

  std::function<unsigned()> next_;
};

// Every line of a tree as its mount or a local walk prints it: path, attribute, key, value.
inline void dump(const Mox::Entity& entity, const std::string& path,
                 std::vector<std::string>* out) {
  const Mox::AttrLogClass* cls = entity.attrLogClass();
  if (!cls) return;
  Mox::AttrLogTextSink text;
  cls->snapshot(entity, 0, text);
  for (const auto& line : text.lines) {
    const std::string where =
        path + "/" + cls->attr(line.attr)->name + (line.key ? "[" + *line.key + "]" : "");
    out->push_back(where + (line.value ? " = " + *line.value : ""));
    if (line.child) dump(*line.child, where, out);
  }
}

inline std::vector<std::string> dump(const Mox::Entity& root) {
  std::vector<std::string> lines;
  dump(root, "", &lines);
  return lines;
}

}  // namespace AttrLogTest
