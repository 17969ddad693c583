#include <Korva/IntfId.h>

#include <Korva/IntfIdDesc.h>
#include <Mox/Exception.h>

#include <algorithm>
#include <ostream>

namespace Korva {

IntfId::IntfId(std::string_view name)
    : value_(name.empty() ? nullValue : IntfIdMgr::singleton()->stringToIntfId(name)) {}

Mox::String8 IntfId::stringValue() const {
  return IntfIdMgr::singleton()->intfIdToString(*this, true);
}

Mox::String8 IntfId::shortName() const {
  return IntfIdMgr::singleton()->intfIdToString(*this, false);
}

std::ostream& operator<<(std::ostream& out, IntfId id) {
  return out << id.stringValue();
}

Mox::String8 valueToStrep(IntfId id) {
  return "'" + id.stringValue() + "'";
}

void sequenceToValue(Mox::TextIter& it, Mox::TextIter end, IntfId* value) {
  static constexpr const char* failure = "Error deserializing IntfId";
  if (it == end || *it != '\'') throw Mox::RangeException(failure);
  const Mox::TextIter close = std::find(it + 1, end, '\'');
  if (close == end) throw Mox::RangeException(failure);
  try {
    *value = IntfId(std::string_view(it + 1, close - (it + 1)));
  } catch (const Mox::RangeException&) {
    throw Mox::RangeException(failure);
  }
  it = close + 1;
}

}  // namespace Korva
