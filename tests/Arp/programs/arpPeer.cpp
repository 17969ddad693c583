// The writer on the other side of the shared ARP table and VRF id map, for the shim tests:
//   arpPeer ARPTABLE VRFTABLE   reads commands from standard input, one per line, and
//                               answers each with "ok" (or "error TEXT") once it is done:
//     vrf add NAME | vrf del NAME
//     set 4|6 VRFID INTF ADDR MAC STATIC(0|1) | del|notify 4|6 VRFID INTF ADDR
#include <Arp/ArpTable.h>
#include <Korva/IntfIdDesc.h>
#include <Mox/Exception.h>
#include <Vrf/VrfIdMap.h>

#include <cstdio>
#include <iostream>
#include <sstream>
#include <string>

namespace {

using namespace Arp::Table;
using Vrf::VrfIdMap::VrfId;

ArpKey readKey(std::istringstream& words) {
  std::string vrf, intf, addr;
  words >> vrf >> intf >> addr;
  VrfId vrfId;
  vrfId.stringValueIs(vrf);
  return ArpKey(vrfId, Korva::IntfId(intf), Korva::IpGenAddr(addr));
}

void run(const std::string& line, Status& table, Vrf::VrfIdMap::Writer& vrfs) {
  std::istringstream words(line);
  std::string command, what;
  words >> command >> what;
  if (command == "vrf") {
    std::string name;
    words >> name;
    what == "add" ? static_cast<void>(vrfs.vrfIs(name)) : vrfs.vrfDel(name);
    return;
  }
  const bool isArp = what == "4";
  const ArpKey key = readKey(words);
  if (command == "del") return table.entryMap(isArp).entryDel(key);
  if (command == "notify") return table.entryMap(isArp).entryNotify(key);
  std::string mac;
  bool isStatic = false;
  words >> mac >> isStatic;
  table.entryMap(isArp).entryIs(
      ArpEntry(key, Korva::EthAddr(mac), isStatic, false, Arp::ArpSource()));
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) return 64;
  Korva::IntfIdMgr::ensureInitialized();
  auto table = statusFactory(argv[1], 1024);
  auto vrfs = Vrf::VrfIdMap::writerFactory(Vrf::VrfIdMap::statusFactory(argv[2]), argv[2]);
  for (std::string line; std::getline(std::cin, line);) {
    try {
      run(line, *table, *vrfs);
      std::printf("ok\n");
    } catch (const Mox::Exception& e) {
      std::printf("error %s\n", e.what());
    }
    std::fflush(stdout);
  }
  return 0;
}
