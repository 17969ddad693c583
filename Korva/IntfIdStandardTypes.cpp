// The switch's own interface types, registered by a built-in "IntfIdPlugin" so that names
// parse and print as soon as the manager is initialised.
//
// Widths leave room for real systems: up to 1023 per port number, sub-interfaces up to
// 65535. Type ids and widths are part of the identifiers other processes read, so they
// never change once shipped. Short prefixes of the types that have a kernel or short-name
// conversion are chosen so that stringToVexIntf reads a short name back to its identifier.

#include <Korva/IntfIdDesc.h>
#include <Mox/Plugin.h>

#include <initializer_list>

namespace Korva {

namespace {

constexpr IntfIdPart subIntfPart{16, false, '.'};
constexpr IntfIdPart portPart{10, false, '/'};

struct StandardType {
  U8 typeId;
  const char* prefix;
  const char* shortPrefix;
  U8 minPart;
  std::initializer_list<IntfIdPart> parts;  // part 0 first
};

const StandardType standardTypes[] = {
    {1, "Ethernet", "Et", 2, {subIntfPart, portPart, portPart, portPart}},
    {2, "Port-Channel", "Po", 2, {subIntfPart, {16, false, '/'}}},
    {3, "Management", "Ma", 1, {portPart, portPart}},
    {4, "Loopback", "Lo", 1, {{16, true, '/'}}},
    {5, "Vlan", "Vl", 1, {{12, false, '/'}}},
    {6, "Vxlan", "Vx", 1, {{16, false, '/'}}},
    {7, "Tunnel", "Tun", 1, {{16, true, '/'}}},
    {8, "Test", "Te", 1, {portPart, portPart}},
    {9, "Internal", "In", 1, {{16, false, '/'}}},
    {10, "Fabric", "Fa", 1, {{16, false, '/'}}},
};

void registerStandardIntfTypes(void* context) {
  auto* mgr = static_cast<IntfIdMgr*>(context);
  for (const StandardType& type : standardTypes) {
    Mox::Ptr<IntfIdDesc> desc = mgr->newIntfIdDesc(type.typeId, type.prefix, type.minPart);
    U8 key = 0;
    for (const IntfIdPart& part : type.parts) desc->partIs(key++, part);
    desc->shortPrefixIs(ShortPrefix(type.shortPrefix));
    desc->initializedIs(true);
  }
}

const bool registered = Mox::pluginIs(IntfIdDescPluginLoader::category, "StandardIntfTypes",
                                      &registerStandardIntfTypes);

}  // namespace

}  // namespace Korva
