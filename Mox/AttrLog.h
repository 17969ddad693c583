#pragma once
// The binary forms of the attribute log: every value has one exact byte layout, so that an
// entity tree can be streamed to other processes (Mox/AttrLogPublisher.h) and read back
// there into a mirror (Mox/AttrLogMount.h).
//
// Byte order: network order (big-endian) for every multi-byte quantity, written down here
// once. Integers take their own width (U8 one byte ... U64 eight), bool one byte (0 or 1),
// double its IEEE-754 bits as a U64, a string a U32 byte count followed by the bytes.
// Composite values are their attributes in model order; enumerations their underlying
// integer; bounded values their wrapped value, checked on reading.
//
// A type has a binary form when these two free functions exist for it (found by
// argument-dependent lookup for types of other namespaces):
//   void attrLogWrite(Mox::AttrLogWriter& out, const T& value);
//   void attrLogRead(Mox::AttrLogReader& in, T* value);
// A reader never reads past its end: a short read raises AttrLogError ("truncated ...")
// and, like every failed read, leaves the value as it was.

#include <Mox/Exception.h>
#include <Mox/Types.h>

#include <bit>
#include <cstring>
#include <string>
#include <string_view>
#include <type_traits>

namespace Mox {

// Bytes on an attribute-log stream that do not form what they should.
class AttrLogError : public Exception {
 public:
  using Exception::Exception;
};

// Appends binary forms to a byte string.
class AttrLogWriter {
 public:
  explicit AttrLogWriter(std::string* out) noexcept : out_(out) {}

  template <class I>
    requires std::is_integral_v<I>
  void integer(I value) {
    using U = std::make_unsigned_t<I>;
    char bytes[sizeof(I)];
    U bits = static_cast<U>(value);
    for (size_t i = sizeof(I); i-- > 0; bits = static_cast<U>(bits >> 4 >> 4)) {
      bytes[i] = static_cast<char>(bits & 0xff);
    }
    out_->append(bytes, sizeof(I));
  }
  void bytes(const void* data, size_t size) { out_->append(static_cast<const char*>(data), size); }

  // Where the next byte goes; with u16At() a length can be filled in once it is known.
  size_t position() const noexcept { return out_->size(); }
  void u16At(size_t position, U16 value) noexcept {
    (*out_)[position] = static_cast<char>(value >> 8);
    (*out_)[position + 1] = static_cast<char>(value & 0xff);
  }
  void u32At(size_t position, U32 value) noexcept {
    u16At(position, static_cast<U16>(value >> 16));
    u16At(position + 2, static_cast<U16>(value & 0xffff));
  }

 private:
  std::string* out_;
};

// Reads binary forms from a byte range it never leaves.
class AttrLogReader {
 public:
  AttrLogReader(const char* data, size_t size) noexcept : next_(data), end_(data + size) {}
  explicit AttrLogReader(std::string_view bytes) noexcept
      : AttrLogReader(bytes.data(), bytes.size()) {}
  // A reader does not own its bytes: it cannot outlive a temporary string.
  explicit AttrLogReader(std::string&&) = delete;

  size_t remaining() const noexcept { return static_cast<size_t>(end_ - next_); }
  const char* position() const noexcept { return next_; }

  template <class I>
    requires std::is_integral_v<I>
  I integer() {
    using U = std::make_unsigned_t<I>;
    const char* bytes = take(sizeof(I));
    U bits = 0;
    for (size_t i = 0; i < sizeof(I); ++i) {
      bits = static_cast<U>((bits << 4 << 4) | static_cast<unsigned char>(bytes[i]));
    }
    return static_cast<I>(bits);
  }
  // The next `size` bytes; raises AttrLogError when fewer are left.
  std::string_view bytes(size_t size) { return {take(size), size}; }
  // Raises AttrLogError unless every byte has been read.
  void finish() const;

 private:
  const char* take(size_t size);

  const char* next_;
  const char* end_;
};

// The primitive forms.
template <class I>
  requires std::is_integral_v<I> && (!std::is_same_v<I, bool>)
void attrLogWrite(AttrLogWriter& out, I value) {
  out.integer(value);
}
template <class I>
  requires std::is_integral_v<I> && (!std::is_same_v<I, bool>)
void attrLogRead(AttrLogReader& in, I* value) {
  *value = in.integer<I>();
}
inline void attrLogWrite(AttrLogWriter& out, bool value) { out.integer(U8(value ? 1 : 0)); }
void attrLogRead(AttrLogReader& in, bool* value);
inline void attrLogWrite(AttrLogWriter& out, double value) {
  out.integer(std::bit_cast<U64>(value));
}
inline void attrLogRead(AttrLogReader& in, double* value) {
  *value = std::bit_cast<double>(in.integer<U64>());
}
void attrLogWrite(AttrLogWriter& out, std::string_view value);
inline void attrLogWrite(AttrLogWriter& out, const std::string& value) {
  attrLogWrite(out, std::string_view(value));
}
void attrLogRead(AttrLogReader& in, std::string* value);

// True for the types that have a binary form. Types without one (pointers to entities or
// packets, descriptors) belong to their process and are never streamed.
template <class T>
concept AttrLoggable = requires(AttrLogWriter& out, AttrLogReader& in, const T& value, T* into) {
  attrLogWrite(out, value);
  attrLogRead(in, into);
};

// Reads one T (default-constructed first).
template <class T>
T attrLogGet(AttrLogReader& in) {
  T value{};
  attrLogRead(in, &value);
  return value;
}

}  // namespace Mox
