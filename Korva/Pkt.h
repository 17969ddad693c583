#pragma once
// The packet every access point receives into and sends from.
//
// A packet's bytes live in a counted SharedBuffer that keeps free room in front of the
// data, so headers are prepended without copying: build a packet from the back (payload,
// then each header in front of it). Two packets may share one buffer (a shallow copy).
//
// The packet describes its bytes with two scatter entries, ready for sendmsg/writev: the
// shared buffer always sits in the last entry; the first one can carry a small header from
// the packet's private head area in front of a buffer the packet shares. `firstIoVec_` is
// the first entry in use; `maxIovecs_` means the packet has no data.
//
//   Mox::Ptr<Korva::Pkt> pkt = Korva::globalPktManager()->newPkt();
//   std::memcpy(pkt->newSharedHeadData(payloadLen), payload, payloadLen);
//   auto* udp = reinterpret_cast<Korva::UdpHdr*>(pkt->newSharedHeadData(sizeof(UdpHdr)));

#include <Korva/Types.h>
#include <Mox/Assert.h>
#include <Mox/Exception.h>
#include <Mox/Ptr.h>

#include <sys/uio.h>

#include <cstdint>
#include <new>
#include <string>

namespace Korva {

class Pkt : public Mox::PtrInterface {
 public:
  class SharedBuffer;
  class Manager;

  static constexpr U8 maxIovecs_ = 2;
  static constexpr U32 privateHeadAreaBytes = 64;
  static constexpr U32 guardWord = 0xBEEFCAFE;

  // Packets are made by a Manager; this one has no buffer and no data.
  Pkt() noexcept;
  ~Pkt() override;
  Pkt(const Pkt&) = delete;
  Pkt& operator=(const Pkt&) = delete;
  // Packet objects are recycled per thread, like their buffers.
  static void* operator new(size_t bytes);
  static void operator delete(void* pkt, size_t bytes) noexcept;

  // --- the shared buffer ---
  const Mox::Ptr<SharedBuffer>& sharedBuffer() const noexcept { return sharedBuffer_; }
  // Attaches a buffer to a packet that has no data yet.
  void sharedBufferIs(Mox::Ptr<SharedBuffer> buffer);
  // The most bytes the buffer holds without growing.
  U32 maxSharedData() const noexcept;

  // Makes n more bytes valid in front of the data and returns their start; they are not
  // initialised. Grows the buffer (moving the data once) only when head room runs out.
  U8* newSharedHeadData(U32 n);
  void delSharedHeadData(U32 n);
  // Makes n more bytes valid after the data and returns their start (not initialised).
  U8* newSharedTailData(U32 n);
  void delSharedTailData(U32 n);

  // --- the private head area: a header in front of the shared bytes ---
  // Makes n more bytes valid in front of the packet's data, in the packet's own 64-byte
  // area (entry 0), leaving a shared buffer untouched; returns their start. Any later change
  // to the shared bytes drops the private head, so add it last.
  U8* newPrivateHeadData(U32 n);
  U32 privateHeadBytes() const noexcept { return privateHeadBytes_; }
  bool guardsIntact() const noexcept { return headGuard_ == guardWord && tailGuard_ == guardWord; }

  // --- the scatter entries ---
  U8 firstIoVec() const noexcept { return firstIoVec_; }
  // Entry i, which must be in use; otherwise RangeException "no such iovec".
  const ::iovec& iov(U8 i) const;
  // The entries in use, from the first one, for sendmsg/writev.
  const ::iovec* iovecs() const noexcept { return iov_ + firstIoVec_; }
  U8 iovecCount() const noexcept { return U8(maxIovecs_ - firstIoVec_); }
  // The first entry in use: where header views are laid.
  U8* frontData() const noexcept;
  U32 frontBytes() const noexcept;
  U32 bytes() const noexcept;
  bool empty() const noexcept { return bytes() == 0; }

  // Byte i counted across the entries in use; an index past the end aborts.
  U8 rawByte(U32 i) const;
  void rawByteIs(U32 i, U8 value);

  // --- text forms ---
  // The bytes of the entries in use, concatenated.
  std::string stringValue() const;
  // As stringValue(), with a separate VLAN tag put back after the two Ethernet addresses.
  std::string stringValueMaybeWithVlan() const;
  // Replaces the packet's data with `bytes`, in a buffer of its own; the separate VLAN tag
  // is cleared. With `offloadVlanTag`, an 802.1Q-style tag in the frame is moved out into the
  // separate tag, the inverse of stringValueMaybeWithVlan().
  void stringValueIs(const std::string& bytes, bool offloadVlanTag = false);

  // --- a VLAN tag kept outside the bytes (offloaded by a device or a connector) ---
  void newSeparateVlanTag(U16 tci, U16 tpid) noexcept;
  void delSeparateVlanTag() noexcept;
  bool separateVlanTagPresent() const noexcept { return separateVlanTagPresent_; }
  U16 separateVlanTci() const noexcept { return separateVlanTci_; }
  U16 separateVlanTpid() const noexcept { return separateVlanTpid_; }

 private:
  friend class Manager;
  void updateSharedIovec();
  // Replaces the buffer by one of `size` bytes holding the data, `headRoom` bytes in.
  void moveDataToNewBuffer(U32 size, U32 headRoom);
  // Locates byte i: the entry and the offset inside it.
  U8* locate(U32 i) const;

  ::iovec iov_[maxIovecs_] = {};
  Mox::Ptr<SharedBuffer> sharedBuffer_;
  U8 firstIoVec_ = maxIovecs_;
  bool separateVlanTagPresent_ = false;
  U16 separateVlanTci_ = 0;
  U16 separateVlanTpid_ = 0;
  U32 privateHeadBytes_ = 0;
  U8* privateHeadEnd_;
  U32 headGuard_ = guardWord;
  U8 privateHead_[privateHeadAreaBytes];  // not initialised: written before it is read
  U32 tailGuard_ = guardWord;
};

// A counted block of bytes with the valid data somewhere inside it. Made with all of it
// head room: the data starts empty at the block's end.
class Pkt::SharedBuffer : public Mox::PtrInterface {
 public:
  // One allocation holds the object and its bytes; default-size blocks are recycled.
  static Mox::Ptr<SharedBuffer> newBuffer(U32 size);
  void operator delete(SharedBuffer* buffer, std::destroying_delete_t) noexcept;

  U8* buffer() const noexcept { return buffer_; }
  U32 size() const noexcept { return size_; }
  U8* data() const noexcept { return data_; }
  U32 dataBytes() const noexcept { return dataBytes_; }
  U32 headRoom() const noexcept { return U32(data_ - buffer_); }
  U32 tailRoom() const noexcept { return U32(buffer_ + size_ - (data_ + dataBytes_)); }

  // Inline: they are on every packet's path.
  void newHeadData(U32 n) {
    data_ -= n;
    dataBytes_ += n;
    checkInvariant();
  }
  void delHeadData(U32 n) {
    data_ += n;
    dataBytes_ -= n;
    checkInvariant();
  }
  void newTailData(U32 n) {
    dataBytes_ += n;
    checkInvariant();
  }
  void delTailData(U32 n) {
    dataBytes_ -= n;
    checkInvariant();
  }

 private:
  explicit SharedBuffer(U32 size) noexcept;
  // Unsigned offsets: a pointer before the block wraps to a huge offset.
  static bool ptrWithinRegion(const U8* p, const U8* base, U32 size) noexcept {
    return uintptr_t(p) - uintptr_t(base) <= size;
  }
  // Whether `bytes` from `p` stay within the region. Counted in 64 bits, not as p + bytes:
  // with 32-bit pointers that sum wraps and a huge count would look like a small one.
  static bool rangeWithinRegion(const U8* p, U32 bytes, const U8* base, U32 size) noexcept {
    return ptrWithinRegion(p, base, size) && U64(p - base) + bytes <= size;
  }
  void checkInvariant() const {
    MOX_ASSERT_TEXT(ptrWithinRegion(data_, buffer_, size_),
                    "ptrWithinRegion( data_, buffer_, size_ )");
    MOX_ASSERT_TEXT(rangeWithinRegion(data_, dataBytes_, buffer_, size_),
                    "ptrWithinRegion( data_ + dataBytes_, buffer_, size_ )");
  }

  U8* buffer_;
  U32 size_;
  U8* data_;
  U32 dataBytes_ = 0;
};

// Makes packets and buffers of a default size.
class Pkt::Manager : public Mox::PtrInterface {
 public:
  static constexpr U32 defaultBufferSize = 1536;
  static constexpr U32 defaultReallocHeadRoom = 136;

  explicit Manager(std::string name) : name_(std::move(name)) {}

  const std::string& name() const noexcept { return name_; }
  U32 bufferSize() const noexcept { return bufferSize_; }
  void bufferSizeIs(U32 size) noexcept { bufferSize_ = size; }
  // Head room a buffer keeps when it grows at the tail, for headers prepended later.
  U32 reallocHeadRoom() const noexcept { return reallocHeadRoom_; }
  void reallocHeadRoomIs(U32 bytes) noexcept { reallocHeadRoom_ = bytes; }
  // Packets made so far.
  U64 pktCount() const noexcept { return pktCount_; }

  Mox::Ptr<SharedBuffer> newSharedBuffer(U32 size) const;
  Mox::Ptr<SharedBuffer> newSharedBuffer() const { return newSharedBuffer(bufferSize_); }
  // A packet with no data and a fresh buffer that is all head room.
  Mox::Ptr<Pkt> newPkt();
  Mox::Ptr<Pkt> pktFactory() { return newPkt(); }
  // A packet sharing the source's buffer (no bytes copied) and its separate VLAN tag.
  Mox::Ptr<Pkt> newShallowCopy(const Mox::Ptr<Pkt>& source);

 private:
  std::string name_;
  U32 bufferSize_ = defaultBufferSize;
  U32 reallocHeadRoom_ = defaultReallocHeadRoom;
  U64 pktCount_ = 0;
};

// A packet that may be looked at but not changed (an observer's copy).
using ConstPktPtr = Mox::Ptr<const Pkt>;

// The process-wide manager, "Pkt::Manager", made on first use and never destroyed.
Pkt::Manager* globalPktManager();

// A header view: ties a header structure (`Header`, laid over the packet's bytes) to a
// packet at a byte offset into the packet's first data entry. The whole header must lie in
// that entry; a header that does not is a program fault, not bad input.
template <class Header>
class HdrWrapper : public Mox::PtrInterface {
 public:
  using HeaderType = Header;

  HdrWrapper(Mox::Ptr<Pkt> pkt, U32 offset) : pkt_(std::move(pkt)), offset_(offset) {
    handleHeader();
  }

  const Mox::Ptr<Pkt>& pkt() const noexcept { return pkt_; }
  U32 offset() const noexcept { return offset_; }
  Header* header() const noexcept { return header_; }
  void headerIs(Header* header) noexcept { header_ = header; }

  // Re-derives `header` from the packet, after the packet's bytes have moved.
  void handleHeader() {
    if (U64(offset_) + sizeof(Header) > pkt_->frontBytes()) {
      std::string condition =
          std::string("( offset_ + sizeof( ") + Header::typeName + " ) ) <= pkt_->frontBytes()";
      Mox::assertionFailed(condition.c_str(), __FILE__, __PRETTY_FUNCTION__);
    }
    header_ = reinterpret_cast<Header*>(pkt_->frontData() + offset_);
  }

 private:
  Mox::Ptr<Pkt> pkt_;
  U32 offset_;
  Header* header_ = nullptr;
};

// Makes a wrapper of type W; an empty packet pointer raises "null ValidPtr".
template <class W>
Mox::Ptr<W> hdrWrapperFactory(Mox::Ptr<Pkt> pkt, U32 offset) {
  if (!pkt) throw Mox::RangeException("null ValidPtr");
  return Mox::Ptr<W>(new W(std::move(pkt), offset));
}

// The look-ups for bytes from the wire: the header at `offset`, or null when it does not
// fit in the `len` bytes (or the packet's first data entry). They never abort, unlike the
// views above, which assert that the header fits.
template <class Header>
Header* hdrAt(U8* bytes, U32 len, U32 offset) noexcept {
  if (U64(offset) + sizeof(Header) > len) return nullptr;
  return reinterpret_cast<Header*>(bytes + offset);
}
template <class Header>
const Header* hdrAt(const U8* bytes, U32 len, U32 offset) noexcept {
  return hdrAt<Header>(const_cast<U8*>(bytes), len, offset);
}
template <class Header>
Header* hdrAt(const Pkt& pkt, U32 offset) noexcept {
  return hdrAt<Header>(pkt.frontData(), pkt.frontBytes(), offset);
}

// The view of type W, or null when there is no packet or its header does not fit.
template <class W>
Mox::Ptr<W> hdrWrapperIfFits(Mox::Ptr<Pkt> pkt, U32 offset) {
  if (!pkt || !hdrAt<typename W::HeaderType>(*pkt, offset)) return nullptr;
  return Mox::Ptr<W>(new W(std::move(pkt), offset));
}

// Moves an 802.1Q, 802.1ad or QinQ tag out of an Ethernet frame into the packet's separate
// VLAN tag, when the packet has none yet; true when a tag was moved.
bool maybeOffloadAnyVlanTag(Pkt& pkt);

}  // namespace Korva
