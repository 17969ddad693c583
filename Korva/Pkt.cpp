#include <Korva/Pkt.h>

#include <Mox/Assert.h>
#include <Mox/Exception.h>

#include <algorithm>
#include <cstring>
#include <new>

namespace Korva {

namespace {

// Packets and default-size buffer blocks are recycled per thread: a 1.5 KiB block is well
// beyond the allocator's fast per-thread caches, and every received packet needs one of
// each. A bounded number is kept; the rest go back to the allocator.
class BlockCache {
 public:
  static constexpr U32 maxKept = 256;

  constexpr explicit BlockCache(size_t blockBytes) noexcept : blockBytes_(blockBytes) {}

  size_t blockBytes() const noexcept { return blockBytes_; }
  void* take() {
    if (Node* node = head_) {
      head_ = node->next;
      --kept_;
      return node;
    }
    return ::operator new(blockBytes_);
  }
  // False when the block was not kept.
  bool keep(void* block) noexcept {
    if (kept_ == maxKept) return false;
    head_ = new (block) Node{head_};
    ++kept_;
    return true;
  }
  void drain() noexcept {
    while (Node* node = head_) {
      head_ = node->next;
      ::operator delete(node);
    }
    kept_ = 0;
  }

 private:
  struct Node {
    Node* next;
  };

  size_t blockBytes_;
  Node* head_ = nullptr;
  U32 kept_ = 0;
};

struct ThreadCaches {
  BlockCache pkts{sizeof(Pkt)};
  BlockCache buffers{sizeof(Pkt::SharedBuffer) + Pkt::Manager::defaultBufferSize};
  bool drainerArmed = false;
  bool closed = false;  // the thread is ending: free blocks at once

  void give(BlockCache& cache, void* block) noexcept {
    if (!closed) {
      if (!drainerArmed) armDrainer();
      if (cache.keep(block)) return;
    }
    ::operator delete(block);
  }
  void armDrainer() noexcept;
};

// Constant-initialised and trivially destructible: no guard on each access, and it stays
// usable while other thread-exit destructors still release packets. Initial-exec TLS
// saves a call per access; the footprint is a few words.
thread_local ThreadCaches threadCaches __attribute__((tls_model("initial-exec")));

// Returns the kept blocks when the thread ends.
struct ThreadCachesDrainer {
  ~ThreadCachesDrainer() {
    threadCaches.closed = true;
    threadCaches.pkts.drain();
    threadCaches.buffers.drain();
  }
};

void ThreadCaches::armDrainer() noexcept {
  static thread_local ThreadCachesDrainer drainer;
  (void)&drainer;
  drainerArmed = true;
}

void* allocateBlock(BlockCache& cache, size_t bytes) {
  return bytes == cache.blockBytes() ? cache.take() : ::operator new(bytes);
}

void releaseBlock(BlockCache& cache, void* block, size_t bytes) noexcept {
  if (bytes == cache.blockBytes()) return threadCaches.give(cache, block);
  ::operator delete(block);
}

bool isVlanTpid(U16 tpid) {
  return tpid == 0x8100 || tpid == 0x88A8 || tpid == 0x9100;
}

}  // namespace

// --- SharedBuffer ---

Pkt::SharedBuffer::SharedBuffer(U32 size) noexcept
    : buffer_(reinterpret_cast<U8*>(this + 1)), size_(size), data_(buffer_ + size) {}

Mox::Ptr<Pkt::SharedBuffer> Pkt::SharedBuffer::newBuffer(U32 size) {
  void* block = allocateBlock(threadCaches.buffers, sizeof(SharedBuffer) + size);
  return Mox::Ptr<SharedBuffer>(::new (block) SharedBuffer(size));
}

void Pkt::SharedBuffer::operator delete(SharedBuffer* buffer, std::destroying_delete_t) noexcept {
  size_t blockBytes = sizeof(SharedBuffer) + buffer->size_;
  buffer->~SharedBuffer();
  releaseBlock(threadCaches.buffers, buffer, blockBytes);
}

// --- Pkt ---

void* Pkt::operator new(size_t bytes) {
  return allocateBlock(threadCaches.pkts, bytes);
}

void Pkt::operator delete(void* pkt, size_t bytes) noexcept {
  releaseBlock(threadCaches.pkts, pkt, bytes);
}

Pkt::Pkt() noexcept : privateHeadEnd_(privateHead_ + privateHeadAreaBytes) {}

Pkt::~Pkt() {
  MOX_ASSERT(guardsIntact());
  if (limitedBy_) limitedBy_->livePkts_.fetch_sub(1, std::memory_order_relaxed);
}

void Pkt::sharedBufferIs(Mox::Ptr<SharedBuffer> buffer) {
  MOX_ASSERT(firstIoVec_ == maxIovecs_);
  sharedBuffer_ = std::move(buffer);
}

U32 Pkt::maxSharedData() const noexcept {
  return sharedBuffer_ ? sharedBuffer_->size() : 0;
}

void Pkt::updateSharedIovec() {
  MOX_ASSERT_TEXT(sharedBuffer_, "sharedBuffer_ != 0");
  iov_[maxIovecs_ - 1] = {sharedBuffer_->data(), sharedBuffer_->dataBytes()};
  firstIoVec_ = maxIovecs_ - 1;
  privateHeadBytes_ = 0;
  MOX_ASSERT(firstIoVec_ != maxIovecs_);
}

void Pkt::moveDataToNewBuffer(U32 size, U32 headRoom) {
  Mox::Ptr<SharedBuffer> fresh = SharedBuffer::newBuffer(size);
  U32 dataBytes = sharedBuffer_->dataBytes();
  fresh->newHeadData(size - headRoom);
  fresh->delTailData(size - headRoom - dataBytes);
  std::memcpy(fresh->data(), sharedBuffer_->data(), dataBytes);
  sharedBuffer_ = std::move(fresh);
}

U8* Pkt::newSharedHeadData(U32 n) {
  MOX_ASSERT_TEXT(sharedBuffer_, "sharedBuffer_ != 0");
  if (n > sharedBuffer_->headRoom()) {
    // The data goes to the end of the new block: all the new room is in front of it.
    U32 size = sharedBuffer_->size() + n;
    moveDataToNewBuffer(size, size - sharedBuffer_->dataBytes());
  }
  sharedBuffer_->newHeadData(n);
  updateSharedIovec();
  return sharedBuffer_->data();
}

void Pkt::delSharedHeadData(U32 n) {
  MOX_ASSERT_TEXT(sharedBuffer_, "sharedBuffer_ != 0");
  sharedBuffer_->delHeadData(n);
  updateSharedIovec();
}

U8* Pkt::newSharedTailData(U32 n) {
  MOX_ASSERT_TEXT(sharedBuffer_, "sharedBuffer_ != 0");
  if (n > sharedBuffer_->tailRoom()) {
    U32 headRoom = globalPktManager()->reallocHeadRoom();
    moveDataToNewBuffer(headRoom + sharedBuffer_->dataBytes() + n, headRoom);
  }
  U8* tail = sharedBuffer_->data() + sharedBuffer_->dataBytes();
  sharedBuffer_->newTailData(n);
  updateSharedIovec();
  return tail;
}

void Pkt::delSharedTailData(U32 n) {
  MOX_ASSERT_TEXT(sharedBuffer_, "sharedBuffer_ != 0");
  sharedBuffer_->delTailData(n);
  updateSharedIovec();
}

U8* Pkt::newPrivateHeadData(U32 n) {
  MOX_ASSERT(n <= privateHeadAreaBytes - privateHeadBytes_);
  if (firstIoVec_ == maxIovecs_) iov_[maxIovecs_ - 1] = {};
  privateHeadBytes_ += n;
  U8* start = privateHeadEnd_ - privateHeadBytes_;
  iov_[0] = {start, privateHeadBytes_};
  firstIoVec_ = 0;
  return start;
}

const ::iovec& Pkt::iov(U8 i) const {
  if (i < firstIoVec_ || i >= maxIovecs_) throw Mox::RangeException("no such iovec");
  return iov_[i];
}

U8* Pkt::frontData() const noexcept {
  return firstIoVec_ == maxIovecs_ ? nullptr : static_cast<U8*>(iov_[firstIoVec_].iov_base);
}

U32 Pkt::frontBytes() const noexcept {
  return firstIoVec_ == maxIovecs_ ? 0 : U32(iov_[firstIoVec_].iov_len);
}

U32 Pkt::bytes() const noexcept {
  U32 total = 0;
  for (U8 i = firstIoVec_; i < maxIovecs_; ++i) total += U32(iov_[i].iov_len);
  return total;
}

U8* Pkt::locate(U32 i) const {
  for (U8 entry = firstIoVec_; entry < maxIovecs_; ++entry) {
    if (i < iov_[entry].iov_len) return static_cast<U8*>(iov_[entry].iov_base) + i;
    i -= U32(iov_[entry].iov_len);
  }
  MOX_ASSERT(0);
}

U8 Pkt::rawByte(U32 i) const {
  return *locate(i);
}

void Pkt::rawByteIs(U32 i, U8 value) {
  *locate(i) = value;
}

std::string Pkt::stringValue() const {
  std::string bytes;
  bytes.reserve(this->bytes());
  for (U8 i = firstIoVec_; i < maxIovecs_; ++i) {
    bytes.append(static_cast<const char*>(iov(i).iov_base), iov(i).iov_len);
  }
  return bytes;
}

std::string Pkt::stringValueMaybeWithVlan() const {
  std::string bytes = stringValue();
  if (!separateVlanTagPresent_) return bytes;
  const char tag[4] = {char(separateVlanTpid_ >> 8), char(separateVlanTpid_),
                       char(separateVlanTci_ >> 8), char(separateVlanTci_)};
  // After the destination and source Ethernet addresses.
  bytes.insert(std::min<size_t>(12, bytes.size()), tag, sizeof tag);
  return bytes;
}

void Pkt::stringValueIs(const std::string& bytes, bool offloadVlanTag) {
  // A buffer of its own, so packets that shared the old one keep their bytes.
  Manager* manager = globalPktManager();
  U32 len = U32(bytes.size());
  sharedBuffer_ = manager->newSharedBuffer(std::max(manager->bufferSize(), len));
  firstIoVec_ = maxIovecs_;
  delSeparateVlanTag();
  std::memcpy(newSharedHeadData(len), bytes.data(), len);
  if (offloadVlanTag) maybeOffloadAnyVlanTag(*this);
}

void Pkt::newSeparateVlanTag(U16 tci, U16 tpid) noexcept {
  separateVlanTci_ = tci;
  separateVlanTpid_ = tpid;
  separateVlanTagPresent_ = true;
}

void Pkt::delSeparateVlanTag() noexcept {
  separateVlanTci_ = 0;
  separateVlanTpid_ = 0;
  separateVlanTagPresent_ = false;
}

// --- Manager ---

Mox::Ptr<Pkt::SharedBuffer> Pkt::Manager::newSharedBuffer(U32 size) const {
  return SharedBuffer::newBuffer(size);
}

Mox::Ptr<Pkt> Pkt::Manager::newPkt() {
  if (pktLimit_ && livePkts_.fetch_add(1, std::memory_order_relaxed) >= pktLimit_) {
    livePkts_.fetch_sub(1, std::memory_order_relaxed);
    return nullptr;
  }
  Mox::Ptr<Pkt> pkt(new Pkt);
  if (pktLimit_) pkt->limitedBy_ = this;
  pkt->sharedBufferIs(newSharedBuffer());
  ++pktCount_;
  return pkt;
}

Mox::Ptr<Pkt> Pkt::Manager::newShallowCopy(const Mox::Ptr<Pkt>& source) {
  Mox::Ptr<Pkt> pkt(new Pkt);
  if (source->separateVlanTagPresent_) {
    pkt->newSeparateVlanTag(source->separateVlanTci_, source->separateVlanTpid_);
  }
  if (source->sharedBuffer_) {
    pkt->sharedBufferIs(source->sharedBuffer_);
    pkt->updateSharedIovec();
  }
  ++pktCount_;
  return pkt;
}

Pkt::Manager* globalPktManager() {
  // Never destroyed: packets released by other static destructors may still need it.
  static Pkt::Manager* const manager = [] {
    auto* created = new Pkt::Manager("Pkt::Manager");
    created->ref();
    return created;
  }();
  return manager;
}

bool maybeOffloadAnyVlanTag(Pkt& pkt) {
  // The tag must be in the shared bytes, with an EtherType behind it.
  constexpr U32 taggedHeaderBytes = 18;
  if (pkt.separateVlanTagPresent() || pkt.firstIoVec() != Pkt::maxIovecs_ - 1 ||
      pkt.frontBytes() < taggedHeaderBytes) {
    return false;
  }
  U8* frame = pkt.frontData();
  U16 tpid = U16(frame[12] << 8 | frame[13]);
  if (!isVlanTpid(tpid)) return false;
  U16 tci = U16(frame[14] << 8 | frame[15]);
  std::memmove(frame + 4, frame, 12);
  pkt.delSharedHeadData(4);
  pkt.newSeparateVlanTag(tci, tpid);
  return true;
}

}  // namespace Korva
