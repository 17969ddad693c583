#pragma once
// Two in-process Pams back to back, "pam0" and "pam1": a packet sent on one end waits in
// the other end's queue and is announced there on the connector's next clock tick, 1/1024 s
// after the first send of a burst, one readableCount increment per queued packet, exactly
// as if it had come from a socket. A send never re-enters the receiver.
//
//   Mox::Ptr<Korva::PamConnector> connector = Korva::PamConnectorIs(
//       Mox::ActivityConfig::current(), Mox::make<Mox::Clock>("connector"));
//   Korva::PamConnectorPam* a = connector->pam("pam0").get();
//   a->txPktIs(pkt);   // pam1's readableCount rises on the tick; pam1->rxPkt() yields pkt
//
// The connector arms and disarms its clock as it pleases, so give it a clock of its own.

#include <Korva/PamConnector.mox.h>
#include <Mox/Activity.h>
#include <Mox/Clock.h>

#include <map>

namespace Korva {

class PamConnector;

// Final: the connector makes its ends itself, and a final class lets each packet's
// accessor calls bind, and inline, at compile time.
class PamConnectorPam final : public PamConnectorPamBase {
 public:
  PamConnectorPam(const Mox::Name& name, PamConnector* connector);

  // Pam::rxPkt(), bound at compile time.
  Mox::Ptr<Pkt> rxPkt() { return rxPktOf(*this); }

  PamConnector* connector() const noexcept { return connector_; }
  void connectorIs(PamConnector* connector) noexcept { connector_ = connector; }
  PamConnectorPam* otherEnd() const noexcept { return otherEnd_; }
  virtual void otherEndIs(PamConnectorPam* otherEnd) noexcept { otherEnd_ = otherEnd; }

  // Queues the packet on the other end (or drops it there when that queue is full).
  void txPktIs(const Mox::Ptr<Pkt>& pkt) override;

 protected:
  // Pam::rxPktOf calls it.
  friend class Pam;
  // Takes the oldest queued packet, its VLAN tag offloaded when the connector says so.
  void doGetRxPkt() override;

 private:
  PamConnector* connector_;
  PamConnectorPam* otherEnd_ = nullptr;
};

class PamConnector : public Mox::PtrInterface {
 public:
  // Runs handleClock() on each tick of the connector's clock.
  class MoxClock : public Mox::Clock::Notifiee {
   public:
    MoxClock(PamConnector* owner, const Mox::Ptr<Mox::Clock>& clock);
    void onTime() override;

   private:
    PamConnector* owner_;
  };

  PamConnector(Mox::Ptr<Mox::ActivityConfig> activity, Mox::Ptr<Mox::Clock> clock);
  ~PamConnector() override;

  // The end of that name ("pam0" or "pam1"), or null.
  Mox::Ptr<PamConnectorPam> pam(const Mox::Name& name) const;
  const std::map<Mox::Name, Mox::Ptr<PamConnectorPam>>& pamColl() const noexcept { return pam_; }
  // Drops an end; its peer then sends nowhere.
  void pamDel(const Mox::Name& name);
  void pamDelAll();

  const Mox::Ptr<Mox::ActivityConfig>& activity() const noexcept { return activity_; }
  const Mox::Ptr<Mox::Clock>& clock() const noexcept { return clock_; }
  bool initialized() const noexcept { return initialized_; }
  // Received packets have their VLAN tag moved out of the frame into the packet's
  // separate tag record (as a device with tag offload would). Off by default.
  bool vlanOffloadEn() const noexcept { return vlanOffloadEn_; }
  void vlanOffloadEnIs(bool enabled) noexcept { vlanOffloadEn_ = enabled; }

  // Arms the clock 1/1024 s ahead unless it is armed already.
  void doScheduleEvent();
  // Announces every queued packet of "pam0", then of "pam1".
  void handleClock();

 private:
  // Makes the two ends, each the other's peer.
  void handleInitialized();
  void announce(PamConnectorPam& end);

  Mox::Ptr<Mox::ActivityConfig> activity_;
  Mox::Ptr<Mox::Clock> clock_;
  MoxClock clockReactor_;
  std::map<Mox::Name, Mox::Ptr<PamConnectorPam>> pam_;
  bool initialized_ = false;
  bool vlanOffloadEn_ = false;
};

Mox::Ptr<PamConnector> PamConnectorIs(Mox::Ptr<Mox::ActivityConfig> activity,
                                      Mox::Ptr<Mox::Clock> clock);

// Here rather than in the source, so that a reader's rxPkt() inlines the whole receive.
inline void PamConnectorPam::doGetRxPkt() {
  Mox::Ptr<Pkt> pkt = inputQueueDeq();
  if (!pkt) return;
  if (connector_ && connector_->vlanOffloadEn()) maybeOffloadAnyVlanTag(*pkt);
  rxPktHolderIs(pkt);
}

}  // namespace Korva
