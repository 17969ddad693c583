#pragma once
// MPLS labels, bounded label stacks and label operations, and the merging ("smushing") of
// two push operations into one.
//
// A stack refuses labels that make no sense at their position (router alert on top, a null
// label below another label) and reports what it refused instead of throwing, so callers
// can build stacks label by label and decide what a refusal means to them.

#include <Korva/Types.h>
#include <Mox/AttrLog.h>
#include <Korva/ValueType.h>
#include <Mox/Exception.h>

#include <array>
#include <compare>
#include <iosfwd>
#include <string>
#include <string_view>

namespace Korva {

// One 20-bit label value, or one of three markers beyond the label space.
class MplsLabel {
 public:
  static constexpr U32 min = 0;
  static constexpr U32 explicitNullV4 = 0;
  static constexpr U32 routerAlert = 1;
  static constexpr U32 explicitNullV6 = 2;
  static constexpr U32 implicitNull = 3;
  static constexpr U32 entropyLabelIndicator = 7;
  static constexpr U32 null = 0x100000;  // no label
  static constexpr U32 any = 0x100001;   // wildcard
  static constexpr U32 luWithdraw = 0x800000;

  // "No label" until set: empty stack slots hold this too.
  constexpr MplsLabel() = default;
  // Raises Mox::RangeException when `value` is outside min..luWithdraw.
  explicit MplsLabel(U32 value) { valueIs(value); }

  U32 value() const noexcept { return value_; }
  void valueIs(U32 value);

  bool isExplicitNull() const noexcept {
    return value_ == explicitNullV4 || value_ == explicitNullV6;
  }
  bool isImplicitNull() const noexcept { return value_ == implicitNull; }
  bool isRouterAlert() const noexcept { return value_ == routerAlert; }

  // Decimal.
  std::string stringValue() const;
  void stringValueIs(std::string_view text);
  // Reserved labels by name ("imp-null(3)"), the markers by their words, others in decimal.
  std::string prettyString() const;

  U32 hash() const noexcept;
  friend bool operator==(const MplsLabel&, const MplsLabel&) = default;
  friend auto operator<=>(const MplsLabel&, const MplsLabel&) = default;

 private:
  U32 value_ = null;
};

std::string valueToStrep(const MplsLabel& value);
void sequenceToValue(Mox::TextIter& it, Mox::TextIter end, MplsLabel* value);
std::ostream& operator<<(std::ostream& os, const MplsLabel& value);
// The attribute-log form (see Mox/AttrLog.h).
void attrLogWrite(Mox::AttrLogWriter& out, const MplsLabel& value);
void attrLogRead(Mox::AttrLogReader& in, MplsLabel* value);

// The index of a slot of a label stack, 0..5.
class MplsStackEntryIndex {
 public:
  static constexpr U32 min = 0;
  static constexpr U32 max = 5;

  constexpr MplsStackEntryIndex() = default;
  explicit MplsStackEntryIndex(U32 value) { valueIs(value); }
  U32 value() const noexcept { return value_; }
  void valueIs(U32 value);
  friend bool operator==(const MplsStackEntryIndex&, const MplsStackEntryIndex&) = default;
  friend auto operator<=>(const MplsStackEntryIndex&, const MplsStackEntryIndex&) = default;

 private:
  U32 value_ = min;
};

enum class BoundedMplsLabelStackError : U8 { SUCCESS = 0, STACK_FULL = 1, LABEL_IGNORED = 2 };

std::string valueToStrep(BoundedMplsLabelStackError value);
std::ostream& operator<<(std::ostream& os, BoundedMplsLabelStackError value);

// What became of the labels given to a stack: the first refusal is what is reported.
class BoundedMplsLabelStackResult {
 public:
  constexpr BoundedMplsLabelStackResult() = default;
  constexpr explicit BoundedMplsLabelStackResult(BoundedMplsLabelStackError error)
      : stackError_(error) {}

  BoundedMplsLabelStackError stackError() const noexcept { return stackError_; }
  bool success() const noexcept { return stackError_ == BoundedMplsLabelStackError::SUCCESS; }
  void combine(BoundedMplsLabelStackError error);
  void combine(const BoundedMplsLabelStackResult& other) { combine(other.stackError_); }

  friend bool operator==(const BoundedMplsLabelStackResult&,
                         const BoundedMplsLabelStackResult&) = default;
  friend auto operator<=>(const BoundedMplsLabelStackResult&,
                          const BoundedMplsLabelStackResult&) = default;

 private:
  BoundedMplsLabelStackError stackError_ = BoundedMplsLabelStackError::SUCCESS;
};

std::ostream& operator<<(std::ostream& os, const BoundedMplsLabelStackResult& value);

// At most six labels; label0 is the top (outermost) label. Slots at and above stackSize
// carry no meaning: comparisons, hash and text ignore them.
class BoundedMplsLabelStack {
 public:
  static constexpr unsigned maxSize = 6;

  constexpr BoundedMplsLabelStack() = default;

  U8 stackSize() const noexcept { return stackSize_; }
  void stackSizeIs(U8 size);
  MplsLabel label(unsigned index) const;
  void labelIs(unsigned index, MplsLabel label);
  MplsLabel top() const noexcept { return labels_[0]; }
  bool empty() const noexcept { return stackSize_ == 0; }

  // Adds a label below the others.
  BoundedMplsLabelStackResult append(MplsLabel label);
  // Pushes a label on top.
  BoundedMplsLabelStackResult prepend(MplsLabel label);
  // Appends all of `other`'s labels, or none of them.
  BoundedMplsLabelStackResult extend(const BoundedMplsLabelStack& other);

  // "[16, 17]", top first.
  std::string stringValue() const;
  // Reads the form above; raises "Invalid BoundedMplsLabelStack" and keeps the value.
  void stringValueIs(std::string_view text);

  U32 hash() const noexcept;
  friend bool operator==(const BoundedMplsLabelStack& a, const BoundedMplsLabelStack& b) noexcept;
  // Label by label from the top; a stack sorts before any deeper stack that starts with it.
  friend std::strong_ordering operator<=>(const BoundedMplsLabelStack& a,
                                          const BoundedMplsLabelStack& b) noexcept;

 private:
  friend class MplsLabelOperation;

  U8 stackSize_ = 0;
  std::array<MplsLabel, maxSize> labels_{};
};

std::string valueToStrep(const BoundedMplsLabelStack& value);
void sequenceToValue(Mox::TextIter& it, Mox::TextIter end, BoundedMplsLabelStack* value);
std::ostream& operator<<(std::ostream& os, const BoundedMplsLabelStack& value);
void attrLogWrite(Mox::AttrLogWriter& out, const BoundedMplsLabelStack& value);
void attrLogRead(Mox::AttrLogReader& in, BoundedMplsLabelStack* value);

enum class MplsOperation : U8 { push = 0, pop = 1, swap = 2 };

std::string valueToStrep(MplsOperation value);
std::ostream& operator<<(std::ostream& os, MplsOperation value);
void attrLogWrite(Mox::AttrLogWriter& out, MplsOperation value);
void attrLogRead(Mox::AttrLogReader& in, MplsOperation* value);

// The bits of what a smush could not take over from the inner operation.
class SmushError {
 public:
  static constexpr U32 badControlWordBit = 0x1;
  static constexpr U32 badEntropyLabelBit = 0x2;

  constexpr SmushError() = default;
  // Raises "SmushError::value > 0x3 not allowed" for unknown bits.
  explicit SmushError(U32 value) { valueIs(value); }

  U32 value() const noexcept { return value_; }
  void valueIs(U32 value);
  bool badControlWord() const noexcept { return value_ & badControlWordBit; }
  void badControlWordIs(bool set) noexcept { setBit(badControlWordBit, set); }
  bool badEntropyLabel() const noexcept { return value_ & badEntropyLabelBit; }
  void badEntropyLabelIs(bool set) noexcept { setBit(badEntropyLabelBit, set); }

  friend bool operator==(const SmushError&, const SmushError&) = default;
  friend auto operator<=>(const SmushError&, const SmushError&) = default;

 private:
  void setBit(U32 bit, bool set) noexcept { value_ = set ? (value_ | bit) : (value_ & ~bit); }

  U32 value_ = 0;
};

std::ostream& operator<<(std::ostream& os, const SmushError& value);

struct SmushResult {
  SmushResult() = default;
  SmushResult(SmushError error, BoundedMplsLabelStackResult result)
      : smushError(error), stackResult(result) {}

  SmushError smushError;
  BoundedMplsLabelStackResult stackResult;

  friend bool operator==(const SmushResult&, const SmushResult&) = default;
  friend auto operator<=>(const SmushResult&, const SmushResult&) = default;
};

// A push, pop or swap with its labels and its entropy-label and control-word flags.
class MplsLabelOperation {
 public:
  MplsLabelOperation() = default;
  MplsLabelOperation(MplsOperation operation, const BoundedMplsLabelStack& stack,
                     bool entropyLabel = false, bool controlWord = false)
      : operation_(operation),
        entropyLabel_(entropyLabel),
        controlWord_(controlWord),
        boundedLabelStack_(stack) {}

  MplsOperation operation() const noexcept { return operation_; }
  void operationIs(MplsOperation operation) noexcept { operation_ = operation; }
  bool entropyLabel() const noexcept { return entropyLabel_; }
  void entropyLabelIs(bool set) noexcept { entropyLabel_ = set; }
  bool controlWord() const noexcept { return controlWord_; }
  void controlWordIs(bool set) noexcept { controlWord_ = set; }
  const BoundedMplsLabelStack& boundedLabelStack() const noexcept { return boundedLabelStack_; }
  void boundedLabelStackIs(const BoundedMplsLabelStack& stack) noexcept {
    boundedLabelStack_ = stack;
  }

  // Reads one of the operation's labels; index must be below stackSize().
  MplsLabel labelStack(unsigned index) const;
  U8 stackSize() const noexcept { return boundedLabelStack_.stackSize(); }
  MplsLabel topLabel() const;

  // A push keeps its labels other than implicit nulls, in order; a pop or swap keeps none.
  void removeImplicitNullForPush() noexcept;
  // Merges the push `other` below this push; raises Mox::OpNotSupportedException otherwise.
  SmushResult smush(const MplsLabelOperation& other);

  // "push [16, 17]", followed by " entropyLabel" and " controlWord" when set.
  std::string stringValue() const;
  std::string stackStringValue() const { return boundedLabelStack_.stringValue(); }
  // Reads the form above; raises "Invalid MplsLabelOperation" and keeps the value.
  void stringValueIs(std::string_view text);

  U32 hash() const noexcept;
  friend bool operator==(const MplsLabelOperation&, const MplsLabelOperation&) = default;
  friend auto operator<=>(const MplsLabelOperation&, const MplsLabelOperation&) = default;

 private:
  MplsOperation operation_ = MplsOperation::push;
  bool entropyLabel_ = false;
  bool controlWord_ = false;
  BoundedMplsLabelStack boundedLabelStack_;
};

std::string valueToStrep(const MplsLabelOperation& value);
void sequenceToValue(Mox::TextIter& it, Mox::TextIter end, MplsLabelOperation* value);
std::ostream& operator<<(std::ostream& os, const MplsLabelOperation& value);
void attrLogWrite(Mox::AttrLogWriter& out, const MplsLabelOperation& value);
void attrLogRead(Mox::AttrLogReader& in, MplsLabelOperation* value);

}  // namespace Korva

template <>
struct std::hash<Korva::MplsLabel> : Korva::ValueHash<Korva::MplsLabel> {};
template <>
struct std::hash<Korva::BoundedMplsLabelStack> : Korva::ValueHash<Korva::BoundedMplsLabelStack> {};
template <>
struct std::hash<Korva::MplsLabelOperation> : Korva::ValueHash<Korva::MplsLabelOperation> {};
