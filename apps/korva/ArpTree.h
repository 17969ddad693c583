#pragma once
// The ARP object tree an ARP shim fills, as the korva tool prints it.

#include <Arp/ArpShim.h>

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
  bool operator==(const ArpRow&) const = default;
};

// Every entry, by VRF, interface and address (IPv4 before IPv6).
std::vector<ArpRow> arpRows(const Arp::ArpVrfStatusDir& dir);

// The tree, indented: "vrf NAME", "  INTERFACE", "    ADDRESS ETHADDR static|dynamic SOURCE".
std::string arpTreeText(const Arp::ArpVrfStatusDir& dir);

// One line per difference: "+ VRF INTERFACE ADDRESS ETHADDR static|dynamic SOURCE" for a new
// or changed entry, "- VRF INTERFACE ADDRESS" for one that went.
std::string arpRowChanges(const std::vector<ArpRow>& before, const std::vector<ArpRow>& now);

}  // namespace KorvaTool
