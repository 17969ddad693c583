#pragma once
// The attribute-log stream between a publisher and its mounts: a Unix stream socket
// carrying records, each a U32 byte count (of what follows) and then:
//   hello   U8 1, U32 magic "KALG", U16 version, string root type, string root name,
//           U64 schema (attrLogSchema of the root's class: a mount reads only its own)
//   synced  U8 2                      (the snapshot is complete)
//   set     U8 3, U32 handle, U16 attribute, U16 key bytes, key, value
//   del     U8 4, U32 handle, U16 attribute, U16 key bytes, key
//   child   U8 5, U32 handle, U16 attribute, U16 key bytes, key, U32 child handle,
//           string child type
// in the byte order of Mox/AttrLog.h. The root is handle 1; a scalar's key is empty.
//
// An endpoint names the socket: "@name" is the abstract name "name" (gone with the
// publisher, nothing on disk), anything else a file path (replaced when the publisher binds).

#include <Mox/AttrLog.h>
#include <Mox/Types.h>

#include <sys/socket.h>
#include <sys/un.h>

#include <string>
#include <string_view>

namespace Mox {

enum class AttrLogOp : U8 { hello = 1, synced = 2, set = 3, del = 4, child = 5 };

constexpr U32 kAttrLogMagic = 0x4b414c47;  // "KALG"
constexpr U16 kAttrLogVersion = 2;
// A record longer than this is taken for garbage.
constexpr U32 kAttrLogMaxRecord = 16u << 20;
constexpr U32 kAttrLogRootHandle = 1;

// The socket address of `endpoint`; raises Mox::Exception for an empty or too long name.
socklen_t attrLogAddress(const std::string& endpoint, sockaddr_un* address);

// Appends whole records to a byte string (through one AttrLogWriter: see its rule).
class AttrLogRecordWriter {
 public:
  explicit AttrLogRecordWriter(std::string* out) noexcept : writer_(out) {}

  // Starts a record; for set, del and child records the key follows, then endKey().
  AttrLogWriter& begin(AttrLogOp op) {
    start_ = writer_.position();
    writer_.integer(U32(0));
    writer_.integer(static_cast<U8>(op));
    return writer_;
  }
  AttrLogWriter& begin(AttrLogOp op, U32 handle, U16 attr) {
    begin(op);
    writer_.integer(handle);
    writer_.integer(attr);
    keyStart_ = writer_.position();
    writer_.integer(U16(0));
    return writer_;
  }
  void endKey() noexcept {
    writer_.u16At(keyStart_, static_cast<U16>(writer_.position() - keyStart_ - 2));
  }
  void end() noexcept { writer_.u32At(start_, static_cast<U32>(writer_.position() - start_ - 4)); }

  void hello(std::string_view rootType, std::string_view rootName, U64 schema);
  void synced();

  // Bytes written so far, the records' and any before them.
  size_t size() const noexcept { return writer_.position(); }
  void flush() noexcept { writer_.flush(); }

 private:
  AttrLogWriter writer_;
  size_t start_ = 0;
  size_t keyStart_ = 0;
};

}  // namespace Mox
