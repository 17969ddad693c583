#include "ArpTree.h"

#include <map>
#include <tuple>

namespace KorvaTool {

namespace {

std::string describe(const ArpRow& row) {
  return row.address + " " + row.ethAddr + (row.isStatic ? " static " : " dynamic ") + row.source;
}

// Calls fn(vrf, interface, rows of the interface) for every interface of the tree.
template <class Fn>
void forEachIntf(const Arp::ArpVrfStatusDir& dir, Fn&& fn) {
  for (const auto& [vrf, vrfStatus] : dir.vrfStatusColl()) {
    for (const auto& [intf, status] : vrfStatus->arpIntfStatusColl()) {
      std::vector<ArpRow> rows;
      for (const auto& [ip, entry] : status->arpEntryColl()) {
        rows.push_back({vrf, intf, ip.stringValue(), entry.ethAddr().stringValue(),
                        entry.isStatic(), entry.source().stringValue()});
      }
      for (const auto& [ip6, entry] : status->ip6NeighborEntryColl()) {
        rows.push_back({vrf, intf, ip6.stringValue(), entry.ethAddr().stringValue(),
                        entry.isStatic(), entry.source().stringValue()});
      }
      fn(vrf, intf, rows);
    }
  }
}

}  // namespace

std::vector<ArpRow> arpRows(const Arp::ArpVrfStatusDir& dir) {
  std::vector<ArpRow> all;
  forEachIntf(dir, [&](const std::string&, const std::string&, const std::vector<ArpRow>& rows) {
    all.insert(all.end(), rows.begin(), rows.end());
  });
  return all;
}

std::string arpTreeText(const Arp::ArpVrfStatusDir& dir) {
  std::string text, lastVrf;
  for (const auto& [vrf, vrfStatus] : dir.vrfStatusColl()) {
    if (vrfStatus->arpIntfStatusSize() == 0) text += "vrf " + vrf + "\n";
  }
  forEachIntf(
      dir, [&](const std::string& vrf, const std::string& intf, const std::vector<ArpRow>& rows) {
        if (vrf != lastVrf) text += "vrf " + vrf + "\n";
        lastVrf = vrf;
        text += "  " + intf + "\n";
        for (const ArpRow& row : rows) text += "    " + describe(row) + "\n";
      });
  return text;
}

std::string arpRowChanges(const std::vector<ArpRow>& before, const std::vector<ArpRow>& now) {
  auto byEntry = [](const std::vector<ArpRow>& rows) {
    std::map<std::tuple<std::string, std::string, std::string>, const ArpRow*> index;
    for (const ArpRow& row : rows) index[{row.vrf, row.intf, row.address}] = &row;
    return index;
  };
  const auto was = byEntry(before), is = byEntry(now);
  std::string text;
  for (const auto& [entry, row] : was) {
    if (!is.count(entry)) text += "- " + row->vrf + " " + row->intf + " " + row->address + "\n";
  }
  for (const auto& [entry, row] : is) {
    const auto old = was.find(entry);
    if (old == was.end() || !(*old->second == *row)) {
      text += "+ " + row->vrf + " " + row->intf + " " + describe(*row) + "\n";
    }
  }
  return text;
}

}  // namespace KorvaTool
