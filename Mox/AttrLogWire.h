#pragma once
// The attribute-log stream between a publisher and its mounts: a Unix stream socket
// carrying records, each a U32 byte count (of what follows) and then:
//   hello   U8 1, U32 magic "KALG", U16 version, string root type, string root name
//   synced  U8 2                      (the snapshot is complete)
//   set     U8 3, U32 handle, U16 attribute, U16 key bytes, key, value
//   del     U8 4, U32 handle, U16 attribute, U16 key bytes, key
//   child   U8 5, U32 handle, U16 attribute, U16 key bytes, key, U32 child handle,
//           string child type
// in the byte order of Mox/AttrLog.h. The root is handle 1; a scalar's key is empty.
//
// An endpoint names the socket: "@name" is the abstract name "name" (gone with the
// publisher, nothing on disk), anything else a file path (replaced when the publisher binds).

#include <Mox/AttrLogClass.h>
#include <Mox/Types.h>

#include <sys/socket.h>
#include <sys/un.h>

#include <string>
#include <string_view>

namespace Mox {

constexpr U32 kAttrLogMagic = 0x4b414c47;  // "KALG"
constexpr U16 kAttrLogVersion = 1;
// A record longer than this is taken for garbage.
constexpr U32 kAttrLogMaxRecord = 16u << 20;
constexpr U32 kAttrLogRootHandle = 1;

// The socket address of `endpoint`; raises Mox::Exception for an empty or too long name.
socklen_t attrLogAddress(const std::string& endpoint, sockaddr_un* address);

// Appends whole records to a byte string.
class AttrLogRecordWriter {
 public:
  explicit AttrLogRecordWriter(std::string* out) noexcept : writer_(out) {}

  // Starts a record; for set, del and child records the key follows, then endKey().
  AttrLogWriter& begin(AttrLogOp op);
  AttrLogWriter& begin(AttrLogOp op, U32 handle, U16 attr);
  void endKey() noexcept;
  void end() noexcept;

  void hello(std::string_view rootType, std::string_view rootName);
  void synced();

 private:
  AttrLogWriter writer_;
  size_t start_ = 0;
  size_t keyStart_ = 0;
};

}  // namespace Mox
