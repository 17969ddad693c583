#pragma once
// The hand-written class of the test model models/ModelTest/Handlers.mox.

#include <ModelTest/Handlers.mox.h>

namespace ModelTest {

class Switch : public SwitchBase {
 protected:
  using SwitchBase::SwitchBase;
  // Counts each call; throws while `refuse` is set.
  void handleState() override;

 private:
  friend Mox::Ptr<Switch> switchFactory(const Mox::Name& name);
};

}  // namespace ModelTest
