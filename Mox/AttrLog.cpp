#include <Mox/AttrLog.h>

#include <algorithm>

namespace Mox {

void AttrLogWriter::grow(size_t size) {
  // Doubling, as appending would: a long run of writes costs amortised constant time.
  out_->resize(std::max(size_ + size, 2 * out_->size()));
  out_->resize(out_->capacity());
}

void AttrLogReader::truncated(size_t size) const {
  throw AttrLogError("truncated: " + std::to_string(size) + " bytes wanted, " +
                     std::to_string(remaining()) + " left");
}

void AttrLogReader::leftOver() const {
  throw AttrLogError(std::to_string(remaining()) + " bytes left over");
}

void attrLogBadBool(U8 byte) {
  throw AttrLogError("bool byte " + std::to_string(byte) + " is neither 0 nor 1");
}

void attrLogWrite(AttrLogWriter& out, std::string_view value) {
  out.integer(static_cast<U32>(value.size()));
  out.bytes(value.data(), value.size());
}

void attrLogRead(AttrLogReader& in, std::string* value) {
  const U32 size = in.integer<U32>();
  *value = std::string(in.bytes(size));
}

}  // namespace Mox
