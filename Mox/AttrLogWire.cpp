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

void AttrLogRecordWriter::hello(std::string_view rootType, std::string_view rootName, U64 schema) {
  begin(AttrLogOp::hello);
  writer_.integer(kAttrLogMagic);
  writer_.integer(kAttrLogVersion);
  attrLogWrite(writer_, rootType);
  attrLogWrite(writer_, rootName);
  writer_.integer(schema);
  end();
}

void AttrLogRecordWriter::synced() {
  begin(AttrLogOp::synced);
  end();
}

}  // namespace Mox
