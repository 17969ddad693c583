#pragma once
// One Pam shared by many. Demultiplexing: every packet read from the one Pam is
// decapsulated, which yields its key, and sent on the many-side Pam registered for that key
// (manyPamIs). Multiplexing: every packet read from a watched many-side Pam (manyPamSmIs) is
// filtered, encapsulated for its key and sent on the one Pam. Derived classes supply the
// encapsulation; PamKeyMuxDemux below is a ready one.
//
// Reading one source is cut short after one second of work (Mox::now(), which is
// virtual time under Mox::VirtualTime); the source is then queued in pamDeferred and
// resumed from the activity clock, one source per clock turn, oldest first. The clock is
// re-armed from onTime() while work is left, so where another watcher of the activity
// clock also disarms it there, give the multiplexer a clock of its own (clockIs).
//
//   Mox::Ptr<Korva::PamKeyMuxDemux> mux = Korva::PamKeyMuxDemuxIs(udpPam);
//   mux->manyPamIs(7, userPam);     // packets with key 7 go to userPam
//   mux->manyPamSmIs(7, userPam);   // what userPam sends goes out with key 7
//   mux->modeIs(Korva::PamMuxDemux::Mode::both);

#include <Korva/Pam.h>
#include <Mox/Clock.h>

#include <deque>
#include <map>
#include <memory>
#include <utility>
#include <vector>

namespace Korva {

class PamMuxDemux : public Mox::PtrInterface {
 public:
  enum class Mode : U8 { disabled = 0, mux = 1, demux = 2, both = 3 };
  // The key of the one Pam in pamDeferred, and what decapsulate says of an invalid packet.
  static constexpr U32 onePamKey = 0xFFFFFFFF;
  static constexpr U32 invalidKey = 0xFFFFFFFF;
  // Twice the deferred queue's length must stay below this, unless changed.
  static constexpr U32 defaultPamDeferredBound = 256;

  // Reads the one Pam whenever its readableCount changes.
  class MoxOnePam : public Pam::Notifiee {
   public:
    MoxOnePam(PamMuxDemux* owner, Pam* pam);
    void onReadableCount() override;

   private:
    PamMuxDemux* owner_;
  };

  // Reads one many-side Pam, under its key, whenever its readableCount changes.
  class MoxManyPamSm : public Pam::Notifiee {
   public:
    MoxManyPamSm(PamMuxDemux* owner, Pam* pam, U32 key);
    U32 key() const noexcept { return key_; }
    Pam* pam() const noexcept { return notifier(); }
    void onReadableCount() override;
    void handleReadableMany();

   private:
    PamMuxDemux* owner_;
    U32 key_;
  };

  // Resumes deferred work on each turn of the activity clock.
  class MoxClock : public Mox::Clock::Notifiee {
   public:
    MoxClock(PamMuxDemux* owner, const Mox::Ptr<Mox::Clock>& clock);
    void onTime() override;

   private:
    PamMuxDemux* owner_;
  };

  explicit PamMuxDemux(Mox::Ptr<Pam> onePam);
  ~PamMuxDemux() override;

  const Mox::Ptr<Pam>& onePam() const noexcept { return onePam_; }
  // The output of a key, or null.
  Mox::Ptr<Pam> manyPam(U32 key) const;
  const std::map<U32, Mox::Ptr<Pam>>& manyPamColl() const noexcept { return manyPam_; }
  // The input reactor of a key, or null.
  MoxManyPamSm* manyPamSm(U32 key) const;
  size_t manyPamSmSize() const noexcept { return manyPamSm_.size(); }
  const std::deque<U32>& pamDeferred() const noexcept { return pamDeferred_; }
  U32 pamDeferredBound() const noexcept { return pamDeferredBound_; }
  void pamDeferredBoundIs(U32 bound) noexcept { pamDeferredBound_ = bound; }
  Mode mode() const noexcept { return mode_; }
  const Mox::Ptr<Mox::Clock>& clock() const noexcept { return clock_; }
  bool initialized() const noexcept { return initialized_; }

  // --- the encapsulation, supplied by derived classes ---
  // Prepares a packet read from the many-side Pam of `key` for the one Pam.
  virtual void doEncapsulate(const Mox::Ptr<Pkt>& pkt, U32 key);
  // True drops the packet; the base keeps every packet.
  virtual bool filterManyPamInboundPacket(const Mox::Ptr<Pkt>& pkt, U32 key);
  // The key of a packet read from the one Pam (leaving what the key's Pam should get), or
  // invalidKey. The base aborts: every multiplexer must say how keys are carried.
  virtual U32 decapsulate(const Mox::Ptr<Pkt>& pkt);

  virtual void manyPamIs(U32 key, const Mox::Ptr<Pam>& pam);
  virtual void manyPamDel(U32 key);
  virtual void manyPamSmIs(U32 key, const Mox::Ptr<Pam>& pam);
  virtual void manyPamSmDel(U32 key);
  virtual void pamDeferredEnq(U32 key);
  // The oldest deferred key. An empty queue yields onePamKey: a clock turn with nothing
  // deferred then only polls the one Pam, which finds nothing or reads what is waiting,
  // and never resumes a many-side Pam nobody deferred.
  virtual U32 pamDeferredDeq();
  virtual void onePamIs(const Mox::Ptr<Pam>& pam);
  virtual void onePamDel();
  virtual void modeIs(Mode mode);
  virtual void clockIs(const Mox::Ptr<Mox::Clock>& clock);
  virtual void clockDel();

  // Reads the one Pam until it yields nothing or the second is used up.
  void handleReadableOne();
  // Resumes the oldest deferred source.
  void handleTime();

 private:
  // Takes the activity's clock and watches it.
  void handleInitialized();
  // Queues a source whose reading was cut short and asks for the next clock turn.
  void defer(U32 key);
  // The output of a key, or null, from the per-packet index.
  Pam* manyPamFind(U32 key) const noexcept;

  Mox::Ptr<Pam> onePam_;
  std::unique_ptr<MoxOnePam> onePamReactor_;
  std::map<U32, Mox::Ptr<Pam>> manyPam_;
  // manyPam_ again, as a hash index: every packet looks its key up, which a tree (or a
  // binary search) does in a chain of dependent loads and compares.
  std::vector<std::pair<U32, Pam*>> manyPamIndex_;
  std::map<U32, std::unique_ptr<MoxManyPamSm>> manyPamSm_;
  std::deque<U32> pamDeferred_;
  U32 pamDeferredBound_ = defaultPamDeferredBound;
  Mode mode_ = Mode::disabled;
  Mox::Ptr<Mox::Clock> clock_;
  std::unique_ptr<MoxClock> clockReactor_;
  bool initialized_ = false;
};

Mox::Ptr<PamMuxDemux> PamMuxDemuxIs(Mox::Ptr<Pam> onePam);

// A multiplexer that carries the key in a 4-byte header, big-endian, in front of each
// packet on the one Pam. A packet shorter than the header, or whose header holds
// invalidKey, is invalid. The header is added in the packet's private head area, so a
// buffer shared with other packets is never written.
class PamKeyMuxDemux : public PamMuxDemux {
 public:
  static constexpr U32 headerBytes = 4;

  using PamMuxDemux::PamMuxDemux;
  void doEncapsulate(const Mox::Ptr<Pkt>& pkt, U32 key) override;
  U32 decapsulate(const Mox::Ptr<Pkt>& pkt) override;
};

Mox::Ptr<PamKeyMuxDemux> PamKeyMuxDemuxIs(Mox::Ptr<Pam> onePam);

}  // namespace Korva
