#include <Mox/AttrLogWire.h>
#include <Mox/Exception.h>

#include <cstring>

namespace Mox {

socklen_t attrLogAddress(const std::string& endpoint, sockaddr_un* address) {
  *address = {};
  address->sun_family = AF_UNIX;
  const bool abstract = !endpoint.empty() && endpoint[0] == '@';
  if (endpoint.size() < (abstract ? 2u : 1u) || endpoint.size() >= sizeof(address->sun_path)) {
    throw Exception("Invalid attribute-log endpoint '" + endpoint + "'");
  }
  std::memcpy(address->sun_path, endpoint.data(), endpoint.size());
  if (abstract) {
    address->sun_path[0] = '\0';
    return static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + endpoint.size());
  }
  return static_cast<socklen_t>(sizeof(sockaddr_un));
}

AttrLogWriter& AttrLogRecordWriter::begin(AttrLogOp op) {
  start_ = writer_.position();
  writer_.integer(U32(0));
  writer_.integer(static_cast<U8>(op));
  return writer_;
}

AttrLogWriter& AttrLogRecordWriter::begin(AttrLogOp op, U32 handle, U16 attr) {
  begin(op);
  writer_.integer(handle);
  writer_.integer(attr);
  keyStart_ = writer_.position();
  writer_.integer(U16(0));
  return writer_;
}

void AttrLogRecordWriter::endKey() noexcept {
  writer_.u16At(keyStart_, static_cast<U16>(writer_.position() - keyStart_ - 2));
}

void AttrLogRecordWriter::end() noexcept {
  writer_.u32At(start_, static_cast<U32>(writer_.position() - start_ - 4));
}

void AttrLogRecordWriter::hello(std::string_view rootType, std::string_view rootName) {
  begin(AttrLogOp::hello);
  writer_.integer(kAttrLogMagic);
  writer_.integer(kAttrLogVersion);
  attrLogWrite(writer_, rootType);
  attrLogWrite(writer_, rootName);
  end();
}

void AttrLogRecordWriter::synced() {
  begin(AttrLogOp::synced);
  end();
}

}  // namespace Mox
