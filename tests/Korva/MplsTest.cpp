#include <Korva/Mpls.h>

#include <gtest/gtest.h>

#include <random>
#include <sstream>
#include <vector>

#include "ValueTestUtil.h"

namespace Korva {
namespace {

using Error = BoundedMplsLabelStackError;
using KorvaTest::failureText;
using KorvaTest::parsed;

BoundedMplsLabelStack stackOf(const std::vector<U32>& labels) {
  BoundedMplsLabelStack stack;
  for (U32 value : labels) {
    stack.labelIs(stack.stackSize(), MplsLabel(value));
    stack.stackSizeIs(U8(stack.stackSize() + 1));
  }
  return stack;
}

MplsLabelOperation push(const std::vector<U32>& labels, bool entropyLabel = false,
                        bool controlWord = false) {
  return MplsLabelOperation(MplsOperation::push, stackOf(labels), entropyLabel, controlWord);
}

const char* const labelRangeText =
    "MplsLabel::value < MplsLabel::min or > MplsLabel::luWithdraw not allowed";

TEST(MplsLabel, RangeAndPrettyTexts) {
  EXPECT_EQ(MplsLabel().value(), MplsLabel::null);
  EXPECT_EQ(failureText([] { MplsLabel(0x800001); }), labelRangeText);
  const std::pair<U32, const char*> pretty[] = {{0, "exp-null-v4(0)"},
                                                {1, "router-alert(1)"},
                                                {2, "exp-null-v6(2)"},
                                                {3, "imp-null(3)"},
                                                {MplsLabel::null, "N/A"},
                                                {MplsLabel::any, "(any)"},
                                                {17, "17"},
                                                {MplsLabel::luWithdraw, "(lu-withdraw)"}};
  for (const auto& [value, text] : pretty) EXPECT_EQ(MplsLabel(value).prettyString(), text);
  EXPECT_GT(MplsLabel(MplsLabel::null), MplsLabel(1048575));
  EXPECT_NE(MplsLabel(16).hash(), MplsLabel(17).hash());
  EXPECT_EQ(failureText([] { MplsStackEntryIndex(6); }),
            "MplsStackEntryIndex::value < MplsStackEntryIndex::min or > "
            "MplsStackEntryIndex::max not allowed");
}

TEST(MplsLabel, ParseRoundTripsAndFailuresKeepTheValue) {
  for (Mox::U32 value : {0u, 1u, 15u, 16u, MplsLabel::luWithdraw - 1, MplsLabel::luWithdraw}) {
    EXPECT_EQ(parsed<MplsLabel>(MplsLabel(value).stringValue()), MplsLabel(value)) << value;
  }
  const std::pair<const char*, const char*> cases[] = {{"8388609", labelRangeText},
                                                       {"99999999999999999999999", labelRangeText},
                                                       {"16x", "Invalid MplsLabel"},
                                                       {"", "Invalid MplsLabel"},
                                                       {"-1", "Invalid MplsLabel"}};
  for (const auto& [text, message] : cases) {
    EXPECT_EQ(KorvaTest::parseFailure(text, MplsLabel(16)), message) << text;
  }
}

struct StackCase {
  char op;  // 'a'ppend, 'p'repend or 'e'xtend
  std::vector<U32> before, labels;
  Error error;
  std::vector<U32> after;
};

TEST(MplsStackRules, AppendPrependExtend) {
  const std::vector<U32> six = {10, 11, 12, 13, 14, 15}, five = {10, 11, 12, 13, 14};
  const StackCase cases[] = {
      {'a', {}, {1}, Error::LABEL_IGNORED, {}},
      {'a', {}, {16}, Error::SUCCESS, {16}},
      {'a', {}, {3}, Error::SUCCESS, {3}},
      // A lone implicit null gives way but reports the label ignored.
      {'a', {3}, {100}, Error::LABEL_IGNORED, {100}},
      {'a', {3}, {0}, Error::LABEL_IGNORED, {0}},
      {'a', {3}, {1}, Error::LABEL_IGNORED, {3}},
      {'a', {3}, {3}, Error::LABEL_IGNORED, {3}},
      {'a', {16}, {0}, Error::LABEL_IGNORED, {16}},
      {'a', {16}, {2}, Error::LABEL_IGNORED, {16}},
      {'a', {16}, {3}, Error::LABEL_IGNORED, {16}},
      {'a', {16}, {1}, Error::SUCCESS, {16, 1}},
      {'a', six, {16}, Error::STACK_FULL, six},
      {'p', {}, {1}, Error::LABEL_IGNORED, {}},
      {'p', {}, {3}, Error::SUCCESS, {3}},
      {'p', {0, 20}, {3}, Error::LABEL_IGNORED, {0, 20}},
      {'p', {0, 20}, {2}, Error::LABEL_IGNORED, {0, 20}},
      {'p', {0, 20}, {30}, Error::SUCCESS, {30, 0, 20}},
      {'p', {30, 0, 20}, {2}, Error::SUCCESS, {2, 30, 0, 20}},
      {'p', six, {9}, Error::STACK_FULL, six},
      // Extending is all or nothing.
      {'e', {3}, {100}, Error::LABEL_IGNORED, {3}},
      {'e', five, {20, 21}, Error::STACK_FULL, five},
      {'e', {10}, {20, 0, 21}, Error::LABEL_IGNORED, {10}},
      {'e', {10}, {20, 21}, Error::SUCCESS, {10, 20, 21}},
      {'e', {10}, {}, Error::SUCCESS, {10}},
  };
  for (const StackCase& c : cases) {
    BoundedMplsLabelStack stack = stackOf(c.before);
    const BoundedMplsLabelStackResult result = c.op == 'e' ? stack.extend(stackOf(c.labels))
                                               : c.op == 'a'
                                                   ? stack.append(MplsLabel(c.labels[0]))
                                                   : stack.prepend(MplsLabel(c.labels[0]));
    const std::string what =
        c.op + stackOf(c.before).stringValue() + stackOf(c.labels).stringValue();
    EXPECT_EQ(result.stackError(), c.error) << what;
    EXPECT_EQ(result.success(), c.error == Error::SUCCESS) << what;
    EXPECT_EQ(stack, stackOf(c.after)) << what;
  }
}

TEST(MplsStackResult, CombineKeepsTheFirstRefusal) {
  BoundedMplsLabelStackResult result;
  result.combine(Error::SUCCESS);
  EXPECT_TRUE(result.success());
  result.combine(Error::STACK_FULL);
  result.combine(BoundedMplsLabelStackResult(Error::LABEL_IGNORED));
  EXPECT_EQ(result.stackError(), Error::STACK_FULL);
}

TEST(MplsStackResultDeathTest, UnknownErrorFailsTheAssertion) {
  BoundedMplsLabelStackResult result;
  EXPECT_DEATH(result.combine(static_cast<Error>(7)),
               "Assertion \"false && \"Please update BoundedMplsLabelStackResult::combine to \" "
               "\"handle any new result types\"\" failed");
}

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

TEST(MplsStackRules, PrependComparesLabelZeroEvenOnAClearedStack) {
  BoundedMplsLabelStack stack;
  stack.labelIs(0, MplsLabel(0));
  stack.stackSizeIs(0);  // the explicit null stays in label0
  EXPECT_EQ(stack.prepend(MplsLabel(2)).stackError(), Error::LABEL_IGNORED);
  EXPECT_EQ(stack.stackSize(), 0u);
}

TEST(MplsStackValue, SlotsAboveTheSizeCarryNoMeaning) {
  BoundedMplsLabelStack a = stackOf({16, 17});
  BoundedMplsLabelStack b = stackOf({16, 17});
  b.labelIs(4, MplsLabel(99));
  EXPECT_EQ(a, b);
  EXPECT_EQ(a.hash(), b.hash());
  EXPECT_LT(stackOf({16}), stackOf({16, 17}));
  EXPECT_LT(stackOf({16, 17}), stackOf({17}));
  EXPECT_NE(stackOf({16, 17}).hash(), stackOf({17, 16}).hash());
}

TEST(MplsStackValue, TextRoundTripsAndFailures) {
  std::mt19937 rng(17);
  for (int i = 0; i < 20000; ++i) {
    BoundedMplsLabelStack stack;
    unsigned size = rng() % 7;
    for (unsigned s = 0; s < size; ++s) stack.labelIs(s, MplsLabel(rng() % 0x800001));
    stack.stackSizeIs(U8(size));
    ASSERT_EQ(parsed<BoundedMplsLabelStack>(stack.stringValue()), stack);
  }
  EXPECT_EQ(stackOf({16, 3}).stringValue(), "[16, 3]");
  EXPECT_EQ(BoundedMplsLabelStack().stringValue(), "[]");
  for (const char* bad :
       {"", "[", "[16,17]", "[16, ]", "[1, 2, 3, 4, 5, 6, 7]", "[8388609]", "[16] ", "16"}) {
    EXPECT_EQ(KorvaTest::parseFailure(bad, stackOf({1})), "Invalid BoundedMplsLabelStack") << bad;
  }
}

TEST(MplsOperationValue, TextRoundTripsAndOrder) {
  const MplsLabelOperation operation = push({16, 17}, true, true);
  EXPECT_EQ(operation.stringValue(), "push [16, 17] entropyLabel controlWord");
  EXPECT_EQ(operation.stackStringValue(), "[16, 17]");
  for (const MplsLabelOperation& value :
       {operation, push({}), MplsLabelOperation(MplsOperation::swap, stackOf({5}), false, true),
        MplsLabelOperation(MplsOperation::pop, stackOf({}), true)}) {
    EXPECT_EQ(parsed<MplsLabelOperation>(value.stringValue()), value) << value.stringValue();
  }
  for (const char* bad : {"jump [16]", "push [16] controlWord entropyLabel"}) {
    EXPECT_EQ(KorvaTest::parseFailure(bad, operation), "Invalid MplsLabelOperation") << bad;
  }
  EXPECT_LT(push({16}), MplsLabelOperation(MplsOperation::pop, stackOf({16})));
  EXPECT_LT(push({16}), push({16}, true));
  EXPECT_NE(push({16}).hash(), push({16}, true).hash());
}

TEST(MplsOperationImplicitNull, PushDropsThemPopAndSwapEmptyTheStack) {
  MplsLabelOperation operation = push({3, 16, 3, 17, 3});
  operation.removeImplicitNullForPush();
  EXPECT_EQ(operation.boundedLabelStack(), stackOf({16, 17}));
  for (unsigned slot = 2; slot < 5; ++slot) {
    EXPECT_EQ(operation.boundedLabelStack().label(slot), MplsLabel(MplsLabel::null));
  }
  for (MplsOperation kind : {MplsOperation::pop, MplsOperation::swap}) {
    MplsLabelOperation other(kind, stackOf({16, 3}));
    other.removeImplicitNullForPush();
    EXPECT_EQ(other.stackSize(), 0);
    EXPECT_EQ(other.boundedLabelStack().label(0), MplsLabel(MplsLabel::null));
    EXPECT_EQ(other.boundedLabelStack().label(1), MplsLabel(MplsLabel::null));
  }
}

// The inner push goes below the outer one; flags the outer push cannot take over are
// reported, and a refused stack is left alone while the flags still move.
TEST(MplsSmush, MergesTheInnerPushBelowAndReportsWhatItCouldNotTakeOver) {
  struct Case {
    MplsLabelOperation outer, inner;
    U32 smushError;
    Error stackError;
    MplsLabelOperation after;
  };
  const std::vector<U32> five = {10, 11, 12, 13, 14};
  Case cases[] = {
      {push({16}, false, true), push({17, 18}, true), 0, Error::SUCCESS,
       push({16, 17, 18}, true, true)},
      {push({16}, true), push({17}, true, true), 3, Error::SUCCESS, push({16, 17}, true)},
      {push(five), push({20, 21}, true), 0, Error::STACK_FULL, push(five, true)},
  };
  for (Case& c : cases) {
    EXPECT_EQ(c.outer.smush(c.inner),
              SmushResult(SmushError(c.smushError), BoundedMplsLabelStackResult(c.stackError)));
    EXPECT_EQ(c.outer, c.after);
  }
}

TEST(MplsSmush, OnlyPushes) {
  MplsLabelOperation outer = push({16});
  MplsLabelOperation pop(MplsOperation::pop, stackOf({}));
  const char* text =
      "Both *this and other argument to MplsLabelOperation::smush must be push operations";
  EXPECT_EQ(failureText<Mox::OpNotSupportedException>([&] { outer.smush(pop); }), text);
  EXPECT_EQ(failureText<Mox::OpNotSupportedException>([&] { pop.smush(outer); }), text);
  EXPECT_EQ(outer, push({16}));
}

TEST(MplsSmush, ErrorBitsAreBounded) {
  EXPECT_EQ(failureText([] { SmushError(4); }), "SmushError::value > 0x3 not allowed");
  SmushError error;
  error.badEntropyLabelIs(true);
  EXPECT_EQ(error.value(), 2u);
  EXPECT_TRUE(SmushError(1).badControlWord());
  std::ostringstream os;
  os << error;
  EXPECT_EQ(os.str(), "SmushError(badEntropyLabel)");
}

}  // namespace
}  // namespace Korva
