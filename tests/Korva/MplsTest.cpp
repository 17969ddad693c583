#include <Korva/Mpls.h>

#include <gtest/gtest.h>

#include <initializer_list>
#include <random>
#include <sstream>
#include <unordered_set>

namespace Korva {
namespace {

using Error = BoundedMplsLabelStackError;

BoundedMplsLabelStack stackOf(std::initializer_list<U32> labels) {
  BoundedMplsLabelStack stack;
  for (U32 value : labels) {
    stack.labelIs(stack.stackSize(), MplsLabel(value));
    stack.stackSizeIs(U8(stack.stackSize() + 1));
  }
  return stack;
}

MplsLabelOperation push(std::initializer_list<U32> labels, bool entropyLabel = false,
                        bool controlWord = false) {
  return MplsLabelOperation(MplsOperation::push, stackOf(labels), entropyLabel, controlWord);
}

std::string failureText(auto&& action) {
  try {
    action();
  } catch (const Mox::Exception& e) {
    return e.what();
  }
  return "no exception";
}

// --- labels ---

TEST(MplsLabel, RangeAndTexts) {
  EXPECT_EQ(MplsLabel().value(), MplsLabel::null);
  EXPECT_EQ(MplsLabel(MplsLabel::luWithdraw).value(), 0x800000u);
  EXPECT_EQ(failureText([] { MplsLabel(0x800001); }),
            "MplsLabel::value < MplsLabel::min or > MplsLabel::luWithdraw not allowed");
  EXPECT_EQ(MplsLabel(1048575).stringValue(), "1048575");

  EXPECT_EQ(MplsLabel(0).prettyString(), "exp-null-v4(0)");
  EXPECT_EQ(MplsLabel(1).prettyString(), "router-alert(1)");
  EXPECT_EQ(MplsLabel(2).prettyString(), "exp-null-v6(2)");
  EXPECT_EQ(MplsLabel(3).prettyString(), "imp-null(3)");
  EXPECT_EQ(MplsLabel(MplsLabel::null).prettyString(), "N/A");
  EXPECT_EQ(MplsLabel(MplsLabel::any).prettyString(), "(any)");
  EXPECT_EQ(MplsLabel(0x800000).prettyString(), "(lu-withdraw)");
  EXPECT_EQ(MplsLabel(17).prettyString(), "17");
}

TEST(MplsLabel, ParseRoundTripsAndFailuresKeepTheValue) {
  std::mt19937 rng(5);
  for (int i = 0; i < 100000; ++i) {
    MplsLabel label(rng() % (MplsLabel::luWithdraw + 1));
    MplsLabel back;
    back.stringValueIs(label.stringValue());
    ASSERT_EQ(back, label);
  }
  MplsLabel label(16);
  EXPECT_EQ(failureText([&] { label.stringValueIs("8388609"); }),
            "MplsLabel::value < MplsLabel::min or > MplsLabel::luWithdraw not allowed");
  EXPECT_EQ(failureText([&] { label.stringValueIs("99999999999999999999999"); }),
            "MplsLabel::value < MplsLabel::min or > MplsLabel::luWithdraw not allowed");
  EXPECT_EQ(failureText([&] { label.stringValueIs("16x"); }), "Invalid MplsLabel");
  EXPECT_EQ(failureText([&] { label.stringValueIs(""); }), "Invalid MplsLabel");
  EXPECT_EQ(failureText([&] { label.stringValueIs("-1"); }), "Invalid MplsLabel");
  EXPECT_EQ(label, MplsLabel(16));
}

TEST(MplsLabel, OrderAndHash) {
  EXPECT_LT(MplsLabel(3), MplsLabel(16));
  EXPECT_GT(MplsLabel(MplsLabel::null), MplsLabel(1048575));
  EXPECT_NE(MplsLabel(16).hash(), MplsLabel(17).hash());
  EXPECT_EQ(MplsLabel(16).hash(), MplsLabel(16).hash());
}

TEST(MplsStackEntryIndex, Range) {
  EXPECT_EQ(MplsStackEntryIndex(5).value(), 5u);
  EXPECT_EQ(failureText([] { MplsStackEntryIndex(6); }),
            "MplsStackEntryIndex::value < MplsStackEntryIndex::min or > "
            "MplsStackEntryIndex::max not allowed");
}

// --- append ---

TEST(MplsStackAppend, EmptyStack) {
  BoundedMplsLabelStack stack;
  EXPECT_EQ(stack.append(MplsLabel(MplsLabel::routerAlert)).stackError(), Error::LABEL_IGNORED);
  EXPECT_EQ(stack, BoundedMplsLabelStack());
  EXPECT_TRUE(stack.append(MplsLabel(16)).success());
  EXPECT_EQ(stack, stackOf({16}));
  BoundedMplsLabelStack nulls;
  EXPECT_TRUE(nulls.append(MplsLabel(MplsLabel::implicitNull)).success());
  EXPECT_EQ(nulls, stackOf({3}));
}

TEST(MplsStackAppend, LoneImplicitNullGivesWayButReportsIgnored) {
  BoundedMplsLabelStack stack = stackOf({3});
  EXPECT_EQ(stack.append(MplsLabel(100)).stackError(), Error::LABEL_IGNORED);
  EXPECT_EQ(stack, stackOf({100}));

  for (U32 refused : {MplsLabel::routerAlert, MplsLabel::implicitNull}) {
    BoundedMplsLabelStack lone = stackOf({3});
    EXPECT_EQ(lone.append(MplsLabel(refused)).stackError(), Error::LABEL_IGNORED);
    EXPECT_EQ(lone, stackOf({3}));
  }
  BoundedMplsLabelStack lone = stackOf({3});
  EXPECT_EQ(lone.append(MplsLabel(0)).stackError(), Error::LABEL_IGNORED);
  EXPECT_EQ(lone, stackOf({0}));
}

TEST(MplsStackAppend, BelowTheTop) {
  BoundedMplsLabelStack stack = stackOf({16});
  for (U32 refused : {0u, 2u, 3u}) {
    EXPECT_EQ(stack.append(MplsLabel(refused)).stackError(), Error::LABEL_IGNORED);
  }
  EXPECT_TRUE(stack.append(MplsLabel(MplsLabel::routerAlert)).success());
  EXPECT_EQ(stack, stackOf({16, 1}));
}

TEST(MplsStackAppend, SeventhLabelIsRefused) {
  BoundedMplsLabelStack stack = stackOf({10, 11, 12, 13, 14, 15});
  EXPECT_EQ(stack.append(MplsLabel(16)).stackError(), Error::STACK_FULL);
  EXPECT_EQ(stack, stackOf({10, 11, 12, 13, 14, 15}));
}

// --- prepend ---

TEST(MplsStackPrepend, Rules) {
  BoundedMplsLabelStack stack;
  EXPECT_EQ(stack.prepend(MplsLabel(MplsLabel::routerAlert)).stackError(), Error::LABEL_IGNORED);
  EXPECT_TRUE(stack.prepend(MplsLabel(MplsLabel::implicitNull)).success());
  EXPECT_EQ(stack, stackOf({3}));

  BoundedMplsLabelStack labels = stackOf({0, 20});
  EXPECT_EQ(labels.prepend(MplsLabel(MplsLabel::implicitNull)).stackError(), Error::LABEL_IGNORED);
  EXPECT_EQ(labels.prepend(MplsLabel(MplsLabel::explicitNullV6)).stackError(),
            Error::LABEL_IGNORED);
  EXPECT_EQ(labels, stackOf({0, 20}));
  EXPECT_TRUE(labels.prepend(MplsLabel(30)).success());
  EXPECT_TRUE(labels.prepend(MplsLabel(MplsLabel::explicitNullV6)).success());
  EXPECT_EQ(labels, stackOf({2, 30, 0, 20}));
  EXPECT_EQ(labels.top(), MplsLabel(2));

  BoundedMplsLabelStack full = stackOf({10, 11, 12, 13, 14, 15});
  EXPECT_EQ(full.prepend(MplsLabel(9)).stackError(), Error::STACK_FULL);
  EXPECT_EQ(full, stackOf({10, 11, 12, 13, 14, 15}));
}

// --- extend ---

TEST(MplsStackExtend, AllOrNothing) {
  BoundedMplsLabelStack stack = stackOf({3});
  EXPECT_EQ(stack.extend(stackOf({100})).stackError(), Error::LABEL_IGNORED);
  EXPECT_EQ(stack, stackOf({3}));

  BoundedMplsLabelStack five = stackOf({10, 11, 12, 13, 14});
  EXPECT_EQ(five.extend(stackOf({20, 21})).stackError(), Error::STACK_FULL);
  EXPECT_EQ(five, stackOf({10, 11, 12, 13, 14}));

  BoundedMplsLabelStack mixed = stackOf({10});
  EXPECT_EQ(mixed.extend(stackOf({20, 0, 21})).stackError(), Error::LABEL_IGNORED);
  EXPECT_EQ(mixed, stackOf({10}));

  EXPECT_TRUE(mixed.extend(stackOf({20, 21})).success());
  EXPECT_EQ(mixed, stackOf({10, 20, 21}));
  EXPECT_TRUE(mixed.extend(BoundedMplsLabelStack()).success());
}

TEST(MplsStackResult, CombineKeepsTheFirstRefusal) {
  BoundedMplsLabelStackResult result;
  result.combine(Error::SUCCESS);
  EXPECT_TRUE(result.success());
  result.combine(Error::STACK_FULL);
  result.combine(BoundedMplsLabelStackResult(Error::LABEL_IGNORED));
  EXPECT_EQ(result.stackError(), Error::STACK_FULL);
  EXPECT_FALSE(result.success());
}

TEST(MplsStackResultDeathTest, UnknownErrorFailsTheAssertion) {
  BoundedMplsLabelStackResult result;
  EXPECT_DEATH(result.combine(static_cast<Error>(7)),
               "Assertion \"false && \"Please update BoundedMplsLabelStackResult::combine to \" "
               "\"handle any new result types\"\" failed");
}

// --- accessors ---

TEST(MplsStackAccess, IndexesAndSizes) {
  BoundedMplsLabelStack stack;
  EXPECT_EQ(failureText([&] { stack.labelIs(6, MplsLabel(1)); }),
            "BoundedMplsLabelStack::labelIs: index out of range");
  EXPECT_EQ(failureText([&] { stack.label(6); }),
            "BoundedMplsLabelStack::labelIs: index out of range");
  EXPECT_EQ(failureText([&] { stack.stackSizeIs(7); }),
            "BoundedMplsLabelStack::stackSize > 6 not allowed");

  MplsLabelOperation operation = push({16, 17});
  EXPECT_EQ(operation.labelStack(1), MplsLabel(17));
  EXPECT_EQ(operation.topLabel(), MplsLabel(16));
  EXPECT_EQ(failureText([&] { operation.labelStack(2); }),
            "MplsLabelOperation::labelStack: index out of range");
  EXPECT_EQ(failureText([] { MplsLabelOperation().topLabel(); }),
            "MplsLabelOperation::topLabel: label stack size 0");
}

// --- comparisons, hash and text ---

TEST(MplsStackValue, SlotsAboveTheSizeCarryNoMeaning) {
  BoundedMplsLabelStack a = stackOf({16, 17});
  BoundedMplsLabelStack b = stackOf({16, 17});
  b.labelIs(4, MplsLabel(99));
  EXPECT_EQ(a, b);
  EXPECT_EQ(a.hash(), b.hash());
  EXPECT_LT(stackOf({16}), stackOf({16, 17}));
  EXPECT_LT(stackOf({16, 17}), stackOf({17}));
  EXPECT_NE(stackOf({16, 17}).hash(), stackOf({17, 16}).hash());
  std::unordered_set<BoundedMplsLabelStack> stacks{a, b, stackOf({16}), stackOf({})};
  EXPECT_EQ(stacks.size(), 3u);
}

TEST(MplsStackValue, TextRoundTripsAndFailures) {
  std::mt19937 rng(17);
  for (int i = 0; i < 20000; ++i) {
    BoundedMplsLabelStack stack;
    unsigned size = rng() % 7;
    for (unsigned s = 0; s < size; ++s) stack.labelIs(s, MplsLabel(rng() % 0x800001));
    stack.stackSizeIs(U8(size));
    BoundedMplsLabelStack back;
    back.stringValueIs(stack.stringValue());
    ASSERT_EQ(back, stack);
  }
  EXPECT_EQ(stackOf({16, 3}).stringValue(), "[16, 3]");
  EXPECT_EQ(BoundedMplsLabelStack().stringValue(), "[]");
  BoundedMplsLabelStack stack = stackOf({1});
  for (const char* bad :
       {"", "[", "[16,17]", "[16, ]", "[1, 2, 3, 4, 5, 6, 7]", "[8388609]", "[16] ", "16"}) {
    EXPECT_EQ(failureText([&] { stack.stringValueIs(bad); }), "Invalid BoundedMplsLabelStack")
        << bad;
  }
  EXPECT_EQ(stack, stackOf({1}));
}

TEST(MplsOperationValue, TextRoundTripsAndOrder) {
  MplsLabelOperation operation = push({16, 17}, true, true);
  EXPECT_EQ(operation.stringValue(), "push [16, 17] entropyLabel controlWord");
  EXPECT_EQ(operation.stackStringValue(), "[16, 17]");
  for (const MplsLabelOperation& value :
       {operation, push({}), MplsLabelOperation(MplsOperation::swap, stackOf({5}), false, true),
        MplsLabelOperation(MplsOperation::pop, stackOf({}), true)}) {
    MplsLabelOperation back;
    back.stringValueIs(value.stringValue());
    EXPECT_EQ(back, value) << value.stringValue();
  }
  EXPECT_EQ(failureText([&] { operation.stringValueIs("jump [16]"); }),
            "Invalid MplsLabelOperation");
  EXPECT_EQ(failureText([&] { operation.stringValueIs("push [16] controlWord entropyLabel"); }),
            "Invalid MplsLabelOperation");
  EXPECT_EQ(operation, push({16, 17}, true, true));
  EXPECT_LT(push({16}), MplsLabelOperation(MplsOperation::pop, stackOf({16})));
  EXPECT_LT(push({16}), push({16}, true));
  EXPECT_NE(push({16}).hash(), push({16}, true).hash());
}

// --- implicit nulls of a push ---

TEST(MplsOperationImplicitNull, PushDropsThemInOrder) {
  MplsLabelOperation operation = push({3, 16, 3, 17, 3});
  operation.removeImplicitNullForPush();
  EXPECT_EQ(operation.boundedLabelStack(), stackOf({16, 17}));
  for (unsigned slot = 2; slot < 5; ++slot) {
    EXPECT_EQ(operation.boundedLabelStack().label(slot), MplsLabel(MplsLabel::null));
  }
}

TEST(MplsOperationImplicitNull, PopAndSwapEmptyTheStack) {
  for (MplsOperation kind : {MplsOperation::pop, MplsOperation::swap}) {
    MplsLabelOperation operation(kind, stackOf({16, 3}));
    operation.removeImplicitNullForPush();
    EXPECT_EQ(operation.stackSize(), 0);
    EXPECT_EQ(operation.boundedLabelStack().label(0), MplsLabel(MplsLabel::null));
    EXPECT_EQ(operation.boundedLabelStack().label(1), MplsLabel(MplsLabel::null));
  }
}

// --- smush ---

TEST(MplsSmush, MergesTheInnerPushBelow) {
  MplsLabelOperation outer = push({16}, false, true);
  SmushResult result = outer.smush(push({17, 18}, true));
  EXPECT_EQ(result, SmushResult(SmushError(0), BoundedMplsLabelStackResult()));
  EXPECT_EQ(outer, push({16, 17, 18}, true, true));
}

TEST(MplsSmush, ReportsWhatItCouldNotTakeOver) {
  MplsLabelOperation outer = push({16}, true);
  SmushResult result = outer.smush(push({17}, true, true));
  EXPECT_TRUE(result.smushError.badControlWord());
  EXPECT_TRUE(result.smushError.badEntropyLabel());
  EXPECT_EQ(result.smushError.value(), 3u);
  EXPECT_TRUE(result.stackResult.success());
  EXPECT_EQ(outer, push({16, 17}, true));
}

TEST(MplsSmush, StackRefusalLeavesTheStackButKeepsTheFlags) {
  MplsLabelOperation outer = push({10, 11, 12, 13, 14});
  SmushResult result = outer.smush(push({20, 21}, true));
  EXPECT_EQ(result.stackResult.stackError(), Error::STACK_FULL);
  EXPECT_EQ(result.smushError, SmushError());
  EXPECT_EQ(outer, push({10, 11, 12, 13, 14}, true));
}

TEST(MplsSmush, OnlyPushes) {
  MplsLabelOperation outer = push({16});
  MplsLabelOperation pop(MplsOperation::pop, stackOf({}));
  const char* text =
      "Both *this and other argument to MplsLabelOperation::smush must be push operations";
  EXPECT_EQ(failureText([&] { outer.smush(pop); }), text);
  EXPECT_EQ(failureText([&] { pop.smush(outer); }), text);
  EXPECT_THROW(outer.smush(pop), Mox::OpNotSupportedException);
  EXPECT_EQ(outer, push({16}));
}

TEST(MplsSmush, ErrorBitsAreBounded) {
  EXPECT_EQ(failureText([] { SmushError(4); }), "SmushError::value > 0x3 not allowed");
  SmushError error;
  error.badEntropyLabelIs(true);
  EXPECT_EQ(error.value(), 2u);
  std::ostringstream os;
  os << error;
  EXPECT_EQ(os.str(), "SmushError(badEntropyLabel)");
}

}  // namespace
}  // namespace Korva
