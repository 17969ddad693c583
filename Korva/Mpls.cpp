#include <Korva/Mpls.h>

#include <Korva/ValueType.h>
#include <Mox/Assert.h>
#include <Mox/Text.h>

#include <algorithm>
#include <cstdio>
#include <ostream>

namespace Korva {

using Mox::TextIter;

namespace {

using Error = BoundedMplsLabelStackError;
using Mox::S64;

bool isDigit(char c) noexcept {
  return c >= '0' && c <= '9';
}

// Reads a decimal label at `it`; false (and `it` unmoved) when the text is not one.
bool readLabel(TextIter& it, TextIter end, MplsLabel* label) noexcept {
  if (it == end || !isDigit(*it)) return false;
  TextIter cursor = it;
  const S64 number = Mox::dectol(cursor, end);
  if (number > S64(MplsLabel::luWithdraw)) return false;
  *label = MplsLabel(U32(number));
  it = cursor;
  return true;
}

// Reads "[l0, l1, ...]" into `stack`; false (and `it` unmoved) when the text is not one.
bool readStack(TextIter& it, TextIter end, BoundedMplsLabelStack* stack) {
  TextIter cursor = it;
  if (!Mox::skipString(cursor, end, "[")) return false;
  BoundedMplsLabelStack parsed;
  if (!Mox::skipString(cursor, end, "]")) {
    do {
      MplsLabel label;
      if (parsed.stackSize() == BoundedMplsLabelStack::maxSize) return false;
      if (!readLabel(cursor, end, &label)) return false;
      parsed.labelIs(parsed.stackSize(), label);
      parsed.stackSizeIs(U8(parsed.stackSize() + 1));
    } while (Mox::skipString(cursor, end, ", "));
    if (!Mox::skipString(cursor, end, "]")) return false;
  }
  *stack = parsed;
  it = cursor;
  return true;
}

bool readOperation(TextIter& it, TextIter end, MplsLabelOperation* operation) {
  TextIter cursor = it;
  MplsLabelOperation parsed;
  if (Mox::skipString(cursor, end, "push ")) {
    parsed.operationIs(MplsOperation::push);
  } else if (Mox::skipString(cursor, end, "pop ")) {
    parsed.operationIs(MplsOperation::pop);
  } else if (Mox::skipString(cursor, end, "swap ")) {
    parsed.operationIs(MplsOperation::swap);
  } else {
    return false;
  }
  BoundedMplsLabelStack stack;
  if (!readStack(cursor, end, &stack)) return false;
  parsed.boundedLabelStackIs(stack);
  parsed.entropyLabelIs(Mox::skipString(cursor, end, " entropyLabel"));
  parsed.controlWordIs(Mox::skipString(cursor, end, " controlWord"));
  *operation = parsed;
  it = cursor;
  return true;
}

template <class Value, class Reader>
void parseWhole(std::string_view text, Value* value, Reader read, const char* message) {
  TextIter it = text.data();
  TextIter end = it + text.size();
  Value parsed;
  if (!read(it, end, &parsed) || it != end) throw Mox::RangeException(message);
  *value = parsed;
}

}  // namespace

// --- MplsLabel ---

void MplsLabel::valueIs(U32 value) {
  if (value > luWithdraw) {
    throw Mox::RangeException(
        "MplsLabel::value < MplsLabel::min or > MplsLabel::luWithdraw not allowed");
  }
  value_ = value;
}

std::string MplsLabel::stringValue() const {
  return std::to_string(value_);
}

void MplsLabel::stringValueIs(std::string_view text) {
  TextIter it = text.data();
  TextIter end = it + text.size();
  if (it == end || !isDigit(*it)) throw Mox::RangeException("Invalid MplsLabel");
  const S64 number = Mox::dectol(it, end);
  if (it != end) throw Mox::RangeException("Invalid MplsLabel");
  valueIs(U32(std::min<S64>(number, S64(luWithdraw) + 1)));
}

std::string MplsLabel::prettyString() const {
  static constexpr const char* reservedWords[] = {"exp-null-v4", "router-alert", "exp-null-v6",
                                                  "imp-null"};
  char text[32];
  switch (value_) {
    case null:
      return "N/A";
    case any:
      return "(any)";
    case luWithdraw:
      return "(lu-withdraw)";
  }
  int length = value_ <= implicitNull
                   ? std::snprintf(text, sizeof text, "%s(%d)", reservedWords[value_], int(value_))
                   : std::snprintf(text, sizeof text, "%d", int(value_));
  return std::string(text, size_t(length));
}

U32 MplsLabel::hash() const noexcept {
  return valueHashMix(value_);
}

std::string valueToStrep(const MplsLabel& value) {
  return value.stringValue();
}

void sequenceToValue(TextIter& it, TextIter end, MplsLabel* value) {
  if (!readLabel(it, end, value)) throw Mox::RangeException("Invalid MplsLabel");
}

std::ostream& operator<<(std::ostream& os, const MplsLabel& value) {
  return os << value.value();
}

// --- MplsStackEntryIndex ---

void MplsStackEntryIndex::valueIs(U32 value) {
  if (value > max) {
    throw Mox::RangeException(
        "MplsStackEntryIndex::value < MplsStackEntryIndex::min or > MplsStackEntryIndex::max "
        "not allowed");
  }
  value_ = value;
}

// --- BoundedMplsLabelStackResult ---

std::string valueToStrep(BoundedMplsLabelStackError value) {
  switch (value) {
    case Error::SUCCESS:
      return "SUCCESS";
    case Error::STACK_FULL:
      return "STACK_FULL";
    case Error::LABEL_IGNORED:
      return "LABEL_IGNORED";
  }
  return std::to_string(int(value));
}

std::ostream& operator<<(std::ostream& os, BoundedMplsLabelStackError value) {
  return os << valueToStrep(value);
}

void BoundedMplsLabelStackResult::combine(BoundedMplsLabelStackError error) {
  switch (error) {
    case Error::SUCCESS:
      return;
    case Error::STACK_FULL:
    case Error::LABEL_IGNORED:
      // The first refusal explains what went wrong; later ones follow from it.
      if (success()) stackError_ = error;
      return;
  }
  MOX_ASSERT(false &&
             "Please update BoundedMplsLabelStackResult::combine to "
             "handle any new result types");
}

std::ostream& operator<<(std::ostream& os, const BoundedMplsLabelStackResult& value) {
  return os << value.stackError();
}

// --- BoundedMplsLabelStack ---

void BoundedMplsLabelStack::stackSizeIs(U8 size) {
  if (size > maxSize) throw Mox::RangeException("BoundedMplsLabelStack::stackSize > 6 not allowed");
  stackSize_ = size;
}

MplsLabel BoundedMplsLabelStack::label(unsigned index) const {
  if (index >= maxSize)
    throw Mox::RangeException("BoundedMplsLabelStack::labelIs: index out of range");
  return labels_[index];
}

void BoundedMplsLabelStack::labelIs(unsigned index, MplsLabel label) {
  if (index >= maxSize)
    throw Mox::RangeException("BoundedMplsLabelStack::labelIs: index out of range");
  labels_[index] = label;
}

BoundedMplsLabelStackResult BoundedMplsLabelStack::append(MplsLabel label) {
  if (stackSize_ == 0) {
    if (label.isRouterAlert()) return BoundedMplsLabelStackResult(Error::LABEL_IGNORED);
    labels_[0] = label;
    stackSize_ = 1;
    return BoundedMplsLabelStackResult();
  }
  if (stackSize_ == 1 && labels_[0].isImplicitNull()) {
    // The implicit null gives way to the new label; what was dropped is the implicit null,
    // so the result still says a label was ignored.
    if (!label.isRouterAlert() && !label.isImplicitNull()) labels_[0] = label;
    return BoundedMplsLabelStackResult(Error::LABEL_IGNORED);
  }
  if (label.isExplicitNull() || label.isImplicitNull()) {
    return BoundedMplsLabelStackResult(Error::LABEL_IGNORED);
  }
  if (stackSize_ == maxSize) return BoundedMplsLabelStackResult(Error::STACK_FULL);
  labels_[stackSize_++] = label;
  return BoundedMplsLabelStackResult();
}

BoundedMplsLabelStackResult BoundedMplsLabelStack::prepend(MplsLabel label) {
  if (label.isRouterAlert()) return BoundedMplsLabelStackResult(Error::LABEL_IGNORED);
  if (stackSize_ > 0 && label.isImplicitNull()) {
    return BoundedMplsLabelStackResult(Error::LABEL_IGNORED);
  }
  // label0 is compared whatever the size: a cleared stack may still hold an explicit null.
  if (label.isExplicitNull() && labels_[0].isExplicitNull()) {
    return BoundedMplsLabelStackResult(Error::LABEL_IGNORED);
  }
  if (stackSize_ == maxSize) return BoundedMplsLabelStackResult(Error::STACK_FULL);
  std::copy_backward(labels_.begin(), labels_.begin() + stackSize_,
                     labels_.begin() + stackSize_ + 1);
  labels_[0] = label;
  ++stackSize_;
  return BoundedMplsLabelStackResult();
}

BoundedMplsLabelStackResult BoundedMplsLabelStack::extend(const BoundedMplsLabelStack& other) {
  const BoundedMplsLabelStack original = *this;
  BoundedMplsLabelStackResult result;
  for (unsigned i = 0; i < other.stackSize_; ++i) {
    BoundedMplsLabelStackResult step = append(other.labels_[i]);
    result.combine(step);
    if (!step.success()) {
      *this = original;
      return result;
    }
  }
  return result;
}

std::string BoundedMplsLabelStack::stringValue() const {
  std::string text = "[";
  for (unsigned i = 0; i < stackSize_; ++i) {
    if (i) text += ", ";
    text += labels_[i].stringValue();
  }
  return text + "]";
}

void BoundedMplsLabelStack::stringValueIs(std::string_view text) {
  parseWhole(text, this, readStack, "Invalid BoundedMplsLabelStack");
}

U32 BoundedMplsLabelStack::hash() const noexcept {
  U32 h = valueHashMix(stackSize_);
  for (unsigned i = 0; i < stackSize_; ++i) h = valueHashMix(h ^ labels_[i].value());
  return h;
}

bool operator==(const BoundedMplsLabelStack& a, const BoundedMplsLabelStack& b) noexcept {
  return a.stackSize_ == b.stackSize_ &&
         std::equal(a.labels_.begin(), a.labels_.begin() + a.stackSize_, b.labels_.begin());
}

std::strong_ordering operator<=>(const BoundedMplsLabelStack& a,
                                 const BoundedMplsLabelStack& b) noexcept {
  return std::lexicographical_compare_three_way(a.labels_.begin(), a.labels_.begin() + a.stackSize_,
                                                b.labels_.begin(),
                                                b.labels_.begin() + b.stackSize_);
}

std::string valueToStrep(const BoundedMplsLabelStack& value) {
  return value.stringValue();
}

void sequenceToValue(TextIter& it, TextIter end, BoundedMplsLabelStack* value) {
  if (!readStack(it, end, value)) throw Mox::RangeException("Invalid BoundedMplsLabelStack");
}

std::ostream& operator<<(std::ostream& os, const BoundedMplsLabelStack& value) {
  return os << value.stringValue();
}

// --- SmushError ---

void SmushError::valueIs(U32 value) {
  if (value > 0x3) throw Mox::RangeException("SmushError::value > 0x3 not allowed");
  value_ = value;
}

std::ostream& operator<<(std::ostream& os, const SmushError& value) {
  os << "SmushError(";
  if (value.badControlWord()) os << "badControlWord" << (value.badEntropyLabel() ? "|" : "");
  if (value.badEntropyLabel()) os << "badEntropyLabel";
  return os << ")";
}

// --- MplsLabelOperation ---

std::string valueToStrep(MplsOperation value) {
  switch (value) {
    case MplsOperation::push:
      return "push";
    case MplsOperation::pop:
      return "pop";
    case MplsOperation::swap:
      return "swap";
  }
  return std::to_string(int(value));
}

std::ostream& operator<<(std::ostream& os, MplsOperation value) {
  return os << valueToStrep(value);
}

MplsLabel MplsLabelOperation::labelStack(unsigned index) const {
  if (index >= stackSize()) {
    throw Mox::RangeException("MplsLabelOperation::labelStack: index out of range");
  }
  return boundedLabelStack_.labels_[index];
}

MplsLabel MplsLabelOperation::topLabel() const {
  if (stackSize() == 0)
    throw Mox::RangeException("MplsLabelOperation::topLabel: label stack size 0");
  return boundedLabelStack_.top();
}

void MplsLabelOperation::removeImplicitNullForPush() noexcept {
  auto& labels = boundedLabelStack_.labels_;
  const U8 oldSize = boundedLabelStack_.stackSize_;
  U8 newSize = 0;
  if (operation_ == MplsOperation::push) {
    auto kept = std::remove_if(labels.begin(), labels.begin() + oldSize,
                               [](MplsLabel label) { return label.isImplicitNull(); });
    newSize = U8(kept - labels.begin());
  }
  std::fill(labels.begin() + newSize, labels.begin() + oldSize, MplsLabel());
  boundedLabelStack_.stackSize_ = newSize;
}

SmushResult MplsLabelOperation::smush(const MplsLabelOperation& other) {
  if (operation_ != MplsOperation::push || other.operation_ != MplsOperation::push) {
    throw Mox::OpNotSupportedException(
        "Both *this and other argument to MplsLabelOperation::smush must be push operations");
  }
  // Only the outer operation may carry a control word; the inner one's is not taken over.
  SmushError error(other.controlWord_ ? SmushError::badControlWordBit : 0);
  if (entropyLabel_) {
    error.badEntropyLabelIs(true);
  } else {
    entropyLabel_ = other.entropyLabel_;
  }
  return SmushResult(error, boundedLabelStack_.extend(other.boundedLabelStack_));
}

std::string MplsLabelOperation::stringValue() const {
  std::string text = valueToStrep(operation_) + " " + boundedLabelStack_.stringValue();
  if (entropyLabel_) text += " entropyLabel";
  if (controlWord_) text += " controlWord";
  return text;
}

void MplsLabelOperation::stringValueIs(std::string_view text) {
  parseWhole(text, this, readOperation, "Invalid MplsLabelOperation");
}

U32 MplsLabelOperation::hash() const noexcept {
  const U32 flags = U32(operation_) | U32(entropyLabel_) << 8 | U32(controlWord_) << 9;
  return valueHashMix(boundedLabelStack_.hash() ^ valueHashMix(flags));
}

std::string valueToStrep(const MplsLabelOperation& value) {
  return value.stringValue();
}

void sequenceToValue(TextIter& it, TextIter end, MplsLabelOperation* value) {
  if (!readOperation(it, end, value)) throw Mox::RangeException("Invalid MplsLabelOperation");
}

std::ostream& operator<<(std::ostream& os, const MplsLabelOperation& value) {
  return os << value.stringValue();
}

// A label as U32 (checked on reading); a stack as its size (U8) and that many labels; an
// operation as its kind (U8), the entropy-label and control-word flags, and its stack.
void attrLogWrite(Mox::AttrLogWriter& out, const MplsLabel& value) { out.integer(value.value()); }

void attrLogRead(Mox::AttrLogReader& in, MplsLabel* value) { value->valueIs(in.integer<U32>()); }

void attrLogWrite(Mox::AttrLogWriter& out, const BoundedMplsLabelStack& value) {
  out.integer(value.stackSize());
  for (unsigned i = 0; i < value.stackSize(); ++i) attrLogWrite(out, value.label(i));
}

void attrLogRead(Mox::AttrLogReader& in, BoundedMplsLabelStack* value) {
  BoundedMplsLabelStack read;
  read.stackSizeIs(in.integer<U8>());
  for (unsigned i = 0; i < read.stackSize(); ++i) read.labelIs(i, Mox::attrLogGet<MplsLabel>(in));
  *value = read;
}

void attrLogWrite(Mox::AttrLogWriter& out, MplsOperation value) {
  out.integer(static_cast<U8>(value));
}

void attrLogRead(Mox::AttrLogReader& in, MplsOperation* value) {
  const U8 operation = in.integer<U8>();
  if (operation > static_cast<U8>(MplsOperation::swap)) {
    throw Mox::AttrLogError("Invalid MplsOperation " + std::to_string(operation));
  }
  *value = static_cast<MplsOperation>(operation);
}

void attrLogWrite(Mox::AttrLogWriter& out, const MplsLabelOperation& value) {
  attrLogWrite(out, value.operation());
  attrLogWrite(out, value.entropyLabel());
  attrLogWrite(out, value.controlWord());
  attrLogWrite(out, value.boundedLabelStack());
}

void attrLogRead(Mox::AttrLogReader& in, MplsLabelOperation* value) {
  const auto operation = Mox::attrLogGet<MplsOperation>(in);
  const bool entropyLabel = Mox::attrLogGet<bool>(in);
  const bool controlWord = Mox::attrLogGet<bool>(in);
  *value = MplsLabelOperation(operation, Mox::attrLogGet<BoundedMplsLabelStack>(in),
                              entropyLabel, controlWord);
}

}  // namespace Korva
