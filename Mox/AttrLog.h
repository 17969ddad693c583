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

// Appends binary forms to a byte string. So that a write is a store and not a call, the
// string may hold spare bytes past what was written while the writer lives; flush(), or
// the writer's end, trims them. Nothing else may change the string meanwhile.
class AttrLogWriter {
 public:
  explicit AttrLogWriter(std::string* out) noexcept : out_(out), size_(out->size()) {}
  ~AttrLogWriter() { flush(); }
  AttrLogWriter(const AttrLogWriter&) = delete;
  AttrLogWriter& operator=(const AttrLogWriter&) = delete;

  template <class I>
  requires std::is_integral_v<I>
  void integer(I value) {
    const auto bits = networkOrder(static_cast<std::make_unsigned_t<I>>(value));
    std::memcpy(room(sizeof(I)), &bits, sizeof(I));
  }
  void bytes(const void* data, size_t size) {
    if (size != 0) std::memcpy(room(size), data, size);
  }

  // Where the next byte goes; with u16At() a length can be filled in once it is known.
  size_t position() const noexcept { return size_; }
  void u16At(size_t position, U16 value) noexcept {
    const U16 bits = networkOrder(value);
    std::memcpy(out_->data() + position, &bits, sizeof(bits));
  }
  void u32At(size_t position, U32 value) noexcept {
    const U32 bits = networkOrder(value);
    std::memcpy(out_->data() + position, &bits, sizeof(bits));
  }
  // Trims the string to the bytes written.
  void flush() noexcept { out_->resize(size_); }

 private:
  char* room(size_t size) {
    if (out_->size() - size_ < size) grow(size);
    char* at = out_->data() + size_;
    size_ += size;
    return at;
  }
  void grow(size_t size);

  std::string* out_;
  size_t size_;  // bytes written; the string's own size counts the spare ones too
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
  requires std::is_integral_v<I> I integer() {
    std::make_unsigned_t<I> bits;
    std::memcpy(&bits, take(sizeof(I)), sizeof(I));
    return static_cast<I>(networkOrder(bits));
  }
  // The next `size` bytes; raises AttrLogError when fewer are left.
  std::string_view bytes(size_t size) { return {take(size), size}; }
  // Raises AttrLogError unless every byte has been read.
  void finish() const {
    if (remaining() != 0) leftOver();
  }

 private:
  const char* take(size_t size) {
    if (size > remaining()) truncated(size);
    const char* taken = next_;
    next_ += size;
    return taken;
  }
  [[noreturn]] void truncated(size_t size) const;
  [[noreturn]] void leftOver() const;

  const char* next_;
  const char* end_;
};

// The primitive forms.
template <class I>
requires std::is_integral_v<I> &&
    (!std::is_same_v<I, bool>)void attrLogWrite(AttrLogWriter& out, I value) {
  out.integer(value);
}
template <class I>
requires std::is_integral_v<I> &&
    (!std::is_same_v<I, bool>)void attrLogRead(AttrLogReader& in, I* value) {
  *value = in.integer<I>();
}
inline void attrLogWrite(AttrLogWriter& out, bool value) {
  out.integer(U8(value ? 1 : 0));
}
[[noreturn]] void attrLogBadBool(U8 byte);
inline void attrLogRead(AttrLogReader& in, bool* value) {
  const U8 byte = in.integer<U8>();
  if (byte > 1) attrLogBadBool(byte);
  *value = byte == 1;
}
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
