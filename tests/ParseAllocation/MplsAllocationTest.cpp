#include "AllocationCounter.h"

#include <Korva/Mpls.h>

#include <gtest/gtest.h>

namespace Korva {
namespace {

TEST(MplsAllocation, SuccessfulParsesAndStackRulesAllocateNothing) {
  MplsLabel label;
  BoundedMplsLabelStack stack;
  MplsLabelOperation operation;
  BoundedMplsLabelStackResult result;
  long count = AllocationCounter::during([&] {
    label.stringValueIs("1048575");
    stack.stringValueIs("[16, 17, 3]");
    operation.stringValueIs("push [100, 200] entropyLabel");
    result = stack.extend(BoundedMplsLabelStack(stack));
    operation.smush(MplsLabelOperation(MplsOperation::push, stack));
  });
  EXPECT_EQ(count, 0);
  EXPECT_EQ(label.value(), 1048575u);
  EXPECT_EQ(result.stackError(), BoundedMplsLabelStackError::LABEL_IGNORED);
  EXPECT_EQ(operation.stackSize(), 2);
}

}  // namespace
}  // namespace Korva
