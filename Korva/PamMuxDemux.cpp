#include <Korva/PamMuxDemux.h>
#include <Mox/Activity.h>
#include <Mox/Assert.h>
#include <Mox/Time.h>
#include <Mox/Trace.h>

#include <algorithm>
#include <bit>

namespace Korva {

namespace {

Mox::TraceHandle trace("PamMuxDemux");

// The most one source is read in one go before the loop gets a turn.
constexpr double burstBudgetSeconds = 1.0;

// Copies the packet's bytes into one buffer of its own, keeping its separate VLAN tag.
void flatten(Pkt& pkt) {
  const bool tagged = pkt.separateVlanTagPresent();
  const U16 tci = pkt.separateVlanTci();
  const U16 tpid = pkt.separateVlanTpid();
  pkt.stringValueIs(pkt.stringValue());
  if (tagged) pkt.newSeparateVlanTag(tci, tpid);
}

// The per-packet index of outputs: (key, output) slots in a power-of-two array, open
// addressing with linear probing, an empty slot holding no output. It is kept at most half
// full, so a look-up mostly reads the key's home slot and nothing else.
using OutputIndex = std::vector<std::pair<U32, Pam*>>;

size_t homeSlot(U32 key, size_t mask) {
  // Fibonacci hashing: the product's high bits spread consecutive keys (ports, ids) apart.
  return static_cast<size_t>((U64(key) * 0x9E3779B97F4A7C15ull) >> 32) & mask;
}

// The slot holding `key`, or the empty slot where it would go.
size_t slotOf(const OutputIndex& index, U32 key) {
  const size_t mask = index.size() - 1;
  size_t slot = homeSlot(key, mask);
  while (index[slot].second && index[slot].first != key) slot = (slot + 1) & mask;
  return slot;
}

// Lays `entries` (key, output) pairs out afresh, a quarter full.
template <class Entries>
void indexRebuild(OutputIndex& index, const Entries& entries) {
  index.assign(std::bit_ceil(std::max<size_t>(8, 4 * entries.size())), {0, nullptr});
  for (const auto& [key, output] : entries) index[slotOf(index, key)] = {key, output.get()};
}

void indexErase(OutputIndex& index, U32 key) {
  if (index.empty()) return;
  const size_t mask = index.size() - 1;
  size_t hole = slotOf(index, key);
  if (!index[hole].second) return;
  // Later entries of the probe run move back into the hole unless that would put them in
  // front of their home slot, so every entry stays reachable from its home.
  for (size_t slot = (hole + 1) & mask; index[slot].second; slot = (slot + 1) & mask) {
    const size_t home = homeSlot(index[slot].first, mask);
    if (((slot - home) & mask) >= ((slot - hole) & mask)) {
      index[hole] = index[slot];
      hole = slot;
    }
  }
  index[hole] = {0, nullptr};
}

}  // namespace

PamMuxDemux::MoxOnePam::MoxOnePam(PamMuxDemux* owner, Pam* pam) : owner_(owner) {
  notifierIs(pam);
}

void PamMuxDemux::MoxOnePam::onReadableCount() {
  owner_->handleReadableOne();
}

PamMuxDemux::MoxManyPamSm::MoxManyPamSm(PamMuxDemux* owner, Pam* pam, U32 key)
    : owner_(owner), key_(key) {
  notifierIs(pam);
}

void PamMuxDemux::MoxManyPamSm::onReadableCount() {
  handleReadableMany();
}

void PamMuxDemux::MoxManyPamSm::handleReadableMany() {
  PamMuxDemux* me = owner_;
  if (me->mode() == Mode::demux) return;
  MOX_ASSERT(me->onePam());
  Pam& source = *pam();
  Pam& dest = *me->onePam();
  const Mox::TimeBudget budget(burstBudgetSeconds);
  while (Mox::Ptr<Pkt> pkt = source.rxPkt()) {
    MOX_TRACE(
        trace, 8,
        "Pkt from many source " << key_ << " (" << source.name() << "). Size: " << pkt->bytes());
    if (me->mode() == Mode::disabled) {
      MOX_TRACE(trace, 7,
                "Discarding Pkt to single dest " << dest.name() << " since mode is disabled.");
    } else if (me->filterManyPamInboundPacket(pkt, key_)) {
      MOX_TRACE(trace, 7, " Pkt is filtered out. Discarding " << source.name());
    } else {
      me->doEncapsulate(pkt, key_);
      MOX_TRACE(trace, 8, "Pkt to single dest " << dest.name() << ". Size: " << pkt->bytes());
      dest.txPktIs(pkt);
    }
    if (budget.usedUp()) {
      MOX_TRACE(trace, 5, "Packet processing exceeds 1 second. Reschedule.");
      me->defer(key_);
      return;
    }
  }
}

PamMuxDemux::MoxClock::MoxClock(PamMuxDemux* owner, const Mox::Ptr<Mox::Clock>& clock)
    : owner_(owner) {
  notifierIs(clock);
}

void PamMuxDemux::MoxClock::onTime() {
  owner_->handleTime();
}

PamMuxDemux::PamMuxDemux(Mox::Ptr<Pam> onePam) {
  onePamIs(onePam);
  handleInitialized();
}

PamMuxDemux::~PamMuxDemux() = default;

void PamMuxDemux::handleInitialized() {
  MOX_TRACE(trace, 9, "void Korva::PamMuxDemux::handleInitialized()");
  clockIs(Mox::ActivityManagerConfig::current()->clock());
  initialized_ = true;
}

Mox::Ptr<Pam> PamMuxDemux::manyPam(U32 key) const {
  auto entry = manyPam_.find(key);
  return entry == manyPam_.end() ? Mox::Ptr<Pam>() : entry->second;
}

PamMuxDemux::MoxManyPamSm* PamMuxDemux::manyPamSm(U32 key) const {
  auto entry = manyPamSm_.find(key);
  return entry == manyPamSm_.end() ? nullptr : entry->second.get();
}

void PamMuxDemux::doEncapsulate(const Mox::Ptr<Pkt>&, U32) {}

bool PamMuxDemux::filterManyPamInboundPacket(const Mox::Ptr<Pkt>&, U32) {
  return false;
}

U32 PamMuxDemux::decapsulate(const Mox::Ptr<Pkt>&) {
  MOX_ASSERT_TEXT(false, "0 && \"Need to implement decapsulate in a derived class\"");
  return invalidKey;
}

void PamMuxDemux::manyPamIs(U32 key, const Mox::Ptr<Pam>& pam) {
  if (!pam) return manyPamDel(key);
  manyPam_[key] = pam;
  if (2 * manyPam_.size() > manyPamIndex_.size()) return indexRebuild(manyPamIndex_, manyPam_);
  manyPamIndex_[slotOf(manyPamIndex_, key)] = {key, pam.get()};
}

void PamMuxDemux::manyPamDel(U32 key) {
  manyPam_.erase(key);
  indexErase(manyPamIndex_, key);
}

Pam* PamMuxDemux::manyPamFind(U32 key) const noexcept {
  return manyPamIndex_.empty() ? nullptr : manyPamIndex_[slotOf(manyPamIndex_, key)].second;
}

void PamMuxDemux::manyPamSmIs(U32 key, const Mox::Ptr<Pam>& pam) {
  if (!pam) return manyPamSmDel(key);
  MoxManyPamSm* present = manyPamSm(key);
  if (present && present->pam() == pam.get()) return;
  manyPamSm_[key] = std::make_unique<MoxManyPamSm>(this, pam.get(), key);
}

void PamMuxDemux::manyPamSmDel(U32 key) {
  manyPamSm_.erase(key);
}

void PamMuxDemux::pamDeferredEnq(U32 key) {
  pamDeferred_.push_back(key);
}

U32 PamMuxDemux::pamDeferredDeq() {
  if (pamDeferred_.empty()) return onePamKey;
  const U32 key = pamDeferred_.front();
  pamDeferred_.pop_front();
  return key;
}

void PamMuxDemux::onePamIs(const Mox::Ptr<Pam>& pam) {
  if (pam == onePam_) return;
  onePamReactor_.reset();
  onePam_ = pam;
  if (onePam_) onePamReactor_ = std::make_unique<MoxOnePam>(this, onePam_.get());
}

void PamMuxDemux::onePamDel() {
  onePamIs(nullptr);
}

void PamMuxDemux::modeIs(Mode mode) {
  mode_ = mode;
}

void PamMuxDemux::clockIs(const Mox::Ptr<Mox::Clock>& clock) {
  if (clock == clock_) return;
  clockReactor_.reset();
  clock_ = clock;
  if (clock_) clockReactor_ = std::make_unique<MoxClock>(this, clock_);
}

void PamMuxDemux::clockDel() {
  clockIs(nullptr);
}

void PamMuxDemux::handleReadableOne() {
  if (mode_ == Mode::mux || !onePam_) return;
  Pam& source = *onePam_;
  const Mox::TimeBudget budget(burstBudgetSeconds);
  while (Mox::Ptr<Pkt> pkt = source.rxPkt()) {
    MOX_TRACE(trace, 8, "Pkt from single source " << source.name() << ". Size: " << pkt->bytes());
    if (mode_ == Mode::disabled) {
      MOX_TRACE(trace, 7,
                "Discarding Pkt from " << source.name() << ". Size: " << pkt->bytes()
                                       << " since mode is disabled.");
    } else if (const U32 key = decapsulate(pkt); key == invalidKey) {
      MOX_TRACE(trace, 6, "Invalid packet");
    } else if (Pam* output = manyPamFind(key)) {
      MOX_TRACE(trace, 8,
                "Pkt to " << key << " (" << output->name() << "). Size: " << pkt->bytes());
      output->txPktIs(pkt);
    } else {
      MOX_TRACE(trace, 6, "No corresponding output for key: " << key);
    }
    if (budget.usedUp()) {
      MOX_TRACE(trace, 5, "Packet processing exceeds 1 second. Reschedule.");
      defer(onePamKey);
      return;
    }
  }
}

void PamMuxDemux::defer(U32 key) {
  if (2 * pamDeferred_.size() < pamDeferredBound_) {
    pamDeferredEnq(key);
  } else {
    MOX_TRACE(trace, 3, "pamDeferred queue is too long");
  }
  if (clock_) clock_->minimumTimeIs(0.0);
}

void PamMuxDemux::handleTime() {
  MOX_TRACE(trace, 9, "void Korva::PamMuxDemux::handleTime()");
  clock_->minimumTimeIs(Mox::kNever);
  const U32 key = pamDeferredDeq();
  if (key == onePamKey) {
    handleReadableOne();
  } else if (MoxManyPamSm* reactor = manyPamSm(key)) {
    reactor->handleReadableMany();
  } else {
    MOX_TRACE(trace, 3, "pamKey " << key << " not found");
  }
  if (!pamDeferred_.empty()) clock_->minimumTimeIs(0.0);
}

Mox::Ptr<PamMuxDemux> PamMuxDemuxIs(Mox::Ptr<Pam> onePam) {
  return Mox::make<PamMuxDemux>(std::move(onePam));
}

void PamKeyMuxDemux::doEncapsulate(const Mox::Ptr<Pkt>& pkt, U32 key) {
  if (pkt->privateHeadBytes() + headerBytes > Pkt::privateHeadAreaBytes) {
    // No room left in front: one flat copy makes room in the packet's own buffer.
    flatten(*pkt);
  }
  U8* header = pkt->newPrivateHeadData(headerBytes);
  for (U32 i = 0; i < headerBytes; ++i) header[i] = U8(key >> (8 * (headerBytes - 1 - i)));
}

U32 PamKeyMuxDemux::decapsulate(const Mox::Ptr<Pkt>& pkt) {
  // The header is read from the first scatter entry (through the inline accessors: this
  // runs per packet). Encapsulated here and looped back in process, it sits in the private
  // head, perhaps only partly: the bytes are made flat first.
  if (pkt->privateHeadBytes() != 0 || pkt->iovecCount() == 0 ||
      pkt->iovecs()->iov_len < headerBytes) {
    if (pkt->bytes() < headerBytes) return invalidKey;
    flatten(*pkt);
  }
  const U8* header = static_cast<const U8*>(pkt->iovecs()->iov_base);
  U32 key = 0;
  for (U32 i = 0; i < headerBytes; ++i) key = (key << 8) | header[i];
  pkt->delSharedHeadData(headerBytes);
  return key;
}

Mox::Ptr<PamKeyMuxDemux> PamKeyMuxDemuxIs(Mox::Ptr<Pam> onePam) {
  return Mox::make<PamKeyMuxDemux>(std::move(onePam));
}

}  // namespace Korva
