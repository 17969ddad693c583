#pragma once
// The ARP object tree an ARP shim fills, as the korva tool prints it.

#include <Arp/ArpShim.h>

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace KorvaTool {

// One mirrored entry.
struct ArpRow {
  std::string vrf;
  std::string intf;
  std::string address;
  std::string ethAddr;
  bool isStatic = false;
  std::string source;
};

// The entries of one interface status of the VRF, by address (IPv4 before IPv6).
std::vector<ArpRow> arpRows(const std::string& vrf, const Arp::ArpIntfStatus& status);

// The tree, indented: "vrf NAME", "  INTERFACE", "    ADDRESS ETHADDR static|dynamic SOURCE".
std::string arpTreeText(const Arp::ArpVrfStatusDir& dir);

// Follows the tree through the model's notifications, from the entries it holds now, and
// hands `print` one line per change: "+ VRF INTERFACE ADDRESS ETHADDR static|dynamic SOURCE"
// for an entry that came or changed, "- VRF INTERFACE ADDRESS" for one that went, also when
// its interface or VRF went (which takes the entries without a notification of each).
class ArpTreeWatcher : public Arp::ArpVrfStatusDir::Notifiee {
 public:
  using Printer = std::function<void(const std::string& line)>;
  ArpTreeWatcher(Arp::ArpVrfStatusDir* dir, Printer print);
  ~ArpTreeWatcher() override;
  void onVrfStatus(const Mox::Name& vrf) override;

 private:
  class VrfWatcher;
  class IntfWatcher;
  Printer print_;
  std::map<std::string, std::unique_ptr<VrfWatcher>> vrfs_;
};

}  // namespace KorvaTool
