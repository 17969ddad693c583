#include <Korva/Pam.h>
#include <Mox/Assert.h>

namespace Korva {

void Pam::doGetRxPkt() {
  MOX_ASSERT(0 && "Need to implement doGetRxPkt in a derived class");
}

Mox::Ptr<Pkt> Pam::rxPkt() {
  doGetRxPkt();
  Mox::Ptr<Pkt> pkt = rxPktHolder();
  rxPktHolderIs(nullptr);
  return pkt;
}

}  // namespace Korva
