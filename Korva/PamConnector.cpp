#include <Korva/PamConnector.h>
#include <Mox/Assert.h>
#include <Mox/Trace.h>

namespace Korva {

namespace {

Mox::TraceHandle trace("PamConnector");

// Delivery waits one tick of 1/1024 s, so a burst of sends is announced together.
constexpr double deliveryDelay = 0.0009765625;

}  // namespace

PamConnectorPam::PamConnectorPam(const Mox::Name& name, PamConnector* connector)
    : PamConnectorPamBase(name), connector_(connector) {}

// Flattened: the generated accessors it calls once per packet inline into one body.
[[gnu::flatten]] void PamConnectorPam::txPktIs(const Mox::Ptr<Pkt>& pkt) {
  if (!pkt || !otherEnd_ || !connector_) return;
  PamConnectorPam& receiver = *otherEnd_;
  if (receiver.inputQueueSize() > receiver.maxBuffer()) {
    MOX_TRACE(trace, 5, "Dropping packet");
    receiver.rxDropsInc(1);
    return;
  }
  receiver.inputQueueEnq(pkt);
  MOX_TRACE(trace, 8, "PamConnector: enqueue, total packets: " << receiver.inputQueueSize());
  if (notifieeCount() != 0) {
    peekPktIs(pkt);
    peekPktCountInc(1);
  }
  writableCountInc(1);
  connector_->doScheduleEvent();
}

PamConnector::MoxClock::MoxClock(PamConnector* owner, const Mox::Ptr<Mox::Clock>& clock)
    : owner_(owner) {
  notifierIs(clock);
}

void PamConnector::MoxClock::onTime() {
  owner_->handleClock();
}

PamConnector::PamConnector(Mox::Ptr<Mox::ActivityConfig> activity, Mox::Ptr<Mox::Clock> clock)
    : activity_(std::move(activity)), clock_(std::move(clock)), clockReactor_(this, clock_) {
  handleInitialized();
}

PamConnector::~PamConnector() {
  pamDelAll();
}

void PamConnector::handleInitialized() {
  MOX_TRACE(trace, 9, "virtual void Korva::PamConnector::handleInitialized()");
  Mox::Ptr<PamConnectorPam> pam0 = Mox::make<PamConnectorPam>("pam0", this);
  Mox::Ptr<PamConnectorPam> pam1 = Mox::make<PamConnectorPam>("pam1", this);
  pam0->otherEndIs(pam1.get());
  pam1->otherEndIs(pam0.get());
  pam_.emplace(pam0->name(), pam0);
  pam_.emplace(pam1->name(), pam1);
  initialized_ = true;
}

Mox::Ptr<PamConnectorPam> PamConnector::pam(const Mox::Name& name) const {
  auto entry = pam_.find(name);
  return entry == pam_.end() ? Mox::Ptr<PamConnectorPam>() : entry->second;
}

void PamConnector::pamDel(const Mox::Name& name) {
  auto entry = pam_.find(name);
  if (entry == pam_.end()) return;
  // An agent may still hold the end: it must not reach this connector or its peer again.
  PamConnectorPam& end = *entry->second;
  if (end.otherEnd()) end.otherEnd()->otherEndIs(nullptr);
  end.otherEndIs(nullptr);
  end.connectorIs(nullptr);
  pam_.erase(entry);
}

void PamConnector::pamDelAll() {
  while (!pam_.empty()) pamDel(pam_.begin()->first);
}

void PamConnector::doScheduleEvent() {
  MOX_ASSERT(initialized());
  if (!clock_->armed()) clock_->minimumTimeIs(Mox::now() + deliveryDelay);
}

void PamConnector::handleClock() {
  // A clock stays due until it is re-armed; sends during the announcements arm it anew.
  clock_->minimumTimeIs(Mox::kNever);
  for (const char* name : {"pam0", "pam1"}) {
    if (Mox::Ptr<PamConnectorPam> end = pam(name)) announce(*end);
  }
}

void PamConnector::announce(PamConnectorPam& end) {
  const size_t queued = end.inputQueueSize();
  MOX_TRACE(trace, 8, "PamConnector: handleClock " << end.name() << ", total packets: " << queued);
  for (size_t i = 0; i < queued; ++i) {
    end.readableCountInc(1);
    MOX_TRACE(trace, 9,
              "PamConnector: handleClock " << end.name()
                                           << ", remaining packets: " << end.inputQueueSize());
  }
}

Mox::Ptr<PamConnector> PamConnectorIs(Mox::Ptr<Mox::ActivityConfig> activity,
                                      Mox::Ptr<Mox::Clock> clock) {
  return Mox::make<PamConnector>(std::move(activity), std::move(clock));
}

}  // namespace Korva
