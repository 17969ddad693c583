#include "ArpTree.h"

#include <set>

namespace KorvaTool {

namespace {

std::string describe(const ArpRow& row) {
  return row.address + " " + row.ethAddr + (row.isStatic ? " static " : " dynamic ") + row.source;
}

template <class Addr, class Entry>
ArpRow rowOf(const std::string& vrf, const std::string& intf, const Addr& addr,
             const Entry& entry) {
  return {vrf,
          intf,
          addr.stringValue(),
          entry.ethAddr().stringValue(),
          entry.isStatic(),
          entry.source().stringValue()};
}

// Keeps `watchers[key]` on the key's child `status`: a child replaced or removed is forgotten
// (its entries print as gone) and a new one gets a watcher from make(child); a child that
// was only notified keeps its watcher.
template <class Watcher, class Status, class Make>
void follow(std::map<std::string, std::unique_ptr<Watcher>>& watchers, const std::string& key,
            const Mox::Ptr<Status>& status, Make&& make) {
  auto known = watchers.find(key);
  if (known != watchers.end()) {
    if (known->second->notifier() == status.get()) return;
    known->second->forget();
    watchers.erase(known);
  }
  if (status) watchers[key] = make(status.get());
}

}  // namespace

std::vector<ArpRow> arpRows(const std::string& vrf, const Arp::ArpIntfStatus& status) {
  std::vector<ArpRow> rows;
  for (const auto& [ip, entry] : status.arpEntryColl()) {
    rows.push_back(rowOf(vrf, status.name(), ip, entry));
  }
  for (const auto& [ip6, entry] : status.ip6NeighborEntryColl()) {
    rows.push_back(rowOf(vrf, status.name(), ip6, entry));
  }
  return rows;
}

std::string arpTreeText(const Arp::ArpVrfStatusDir& dir) {
  std::string text;
  for (const auto& [vrf, vrfStatus] : dir.vrfStatusColl()) {
    text += "vrf " + vrf + "\n";
    for (const auto& [intf, status] : vrfStatus->arpIntfStatusColl()) {
      text += "  " + intf + "\n";
      for (const ArpRow& row : arpRows(vrf, *status)) text += "    " + describe(row) + "\n";
    }
  }
  return text;
}

// The entries of one interface: each printed as it comes, changes and goes.
class ArpTreeWatcher::IntfWatcher : public Arp::ArpIntfStatus::Notifiee {
 public:
  IntfWatcher(const Printer& print, std::string vrf, Arp::ArpIntfStatus* status)
      : print_(print), vrf_(std::move(vrf)) {
    notifierIs(status);
    for (const auto& [ip, entry] : status->arpEntryColl()) onArpEntry(ip);
    for (const auto& [ip6, entry] : status->ip6NeighborEntryColl()) onIp6NeighborEntry(ip6);
  }
  void onArpEntry(const Korva::IpAddr& ip) override {
    show(ip, notifier()->arpEntryColl().find(ip), notifier()->arpEntryColl().end());
  }
  void onIp6NeighborEntry(const Korva::Ip6Addr& ip6) override {
    show(ip6, notifier()->ip6NeighborEntryColl().find(ip6),
         notifier()->ip6NeighborEntryColl().end());
  }
  // The interface went: so did everything shown of it.
  void forget() {
    for (const std::string& address : shown_) print_("- " + prefix() + address);
    shown_.clear();
  }

 private:
  std::string prefix() const { return vrf_ + " " + notifier()->name() + " "; }
  template <class Addr, class Found>
  void show(const Addr& addr, Found found, Found end) {
    const std::string address = addr.stringValue();
    if (found == end) {
      if (shown_.erase(address)) print_("- " + prefix() + address);
      return;
    }
    shown_.insert(address);
    print_("+ " + prefix() + describe(rowOf(vrf_, notifier()->name(), addr, found->second)));
  }

  const Printer& print_;
  std::string vrf_;
  std::set<std::string> shown_;
};

// The interfaces of one VRF.
class ArpTreeWatcher::VrfWatcher : public Arp::NeighborDir::Notifiee {
 public:
  VrfWatcher(const Printer& print, Arp::NeighborDir* status) : print_(print) {
    notifierIs(status);
    for (const auto& [intf, intfStatus] : status->arpIntfStatusColl()) onArpIntfStatus(intf);
  }
  // The VRF went: so did its interfaces.
  void forget() {
    for (auto& [intf, watcher] : intfs_) watcher->forget();
    intfs_.clear();
  }
  void onArpIntfStatus(const Mox::Name& intf) override {
    follow(intfs_, intf, notifier()->arpIntfStatus(intf), [&](Arp::ArpIntfStatus* status) {
      return std::make_unique<IntfWatcher>(print_, notifier()->name(), status);
    });
  }

 private:
  const Printer& print_;
  std::map<std::string, std::unique_ptr<IntfWatcher>> intfs_;
};

ArpTreeWatcher::ArpTreeWatcher(Arp::ArpVrfStatusDir* dir, Printer print)
    : print_(std::move(print)) {
  notifierIs(dir);
  for (const auto& [vrf, status] : dir->vrfStatusColl()) onVrfStatus(vrf);
}

ArpTreeWatcher::~ArpTreeWatcher() = default;

void ArpTreeWatcher::onVrfStatus(const Mox::Name& vrf) {
  follow(vrfs_, vrf, notifier()->vrfStatus(vrf),
         [&](Arp::NeighborDir* status) { return std::make_unique<VrfWatcher>(print_, status); });
}

}  // namespace KorvaTool
