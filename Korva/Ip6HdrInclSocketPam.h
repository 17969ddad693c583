#pragma once
// An IPv6 raw-socket Pam that receives as Ip6SocketPam does and sends packets whose IPv6
// header the caller built, through a second Pam (txPam) made when this one is. Enabling and
// the options apply to both.
//
//   Mox::Ptr<Korva::Ip6HdrInclSocketPam> pam = Korva::ip6HdrInclSocketPamFactory(
//       "ra", Korva::ipProtoIcmpv6, Korva::NamespaceName(""));
//   pam->enabledIs(true);
//   pam->txPktIs(pkt);   // pkt starts with its IPv6 header; sent to that header's destination

#include <Korva/Ip6HdrInclSocketPam.mox.h>

namespace Korva {

class Ip6HdrInclSocketPam : public Ip6HdrInclSocketPamBase {
 public:
  void enabledIs(bool enabled) override;
  // The transmit Pam takes the bits that shape sending (free bind, multicast loop,
  // transparency, priority); the receive bits are this Pam's alone.
  void optionsIs(U32 options) override;
  // Sends through txPam to the destination of the packet's own IPv6 header; a packet too
  // short for one, or a failed send, counts in txErrors.
  void txPktIs(const Mox::Ptr<Pkt>& pkt) override;

 protected:
  Ip6HdrInclSocketPam(const Mox::Name& name, const IpProtocolNumber& protocol,
                      const NamespaceName& netNs);

  // Makes the transmit Pam.
  virtual void handleInitialized();
  virtual Mox::Ptr<Ip6SocketPam> newTxPam(const Mox::Name& name, const IpProtocolNumber& protocol,
                                          const NamespaceName& netNs);

 private:
  friend Mox::Ptr<Ip6HdrInclSocketPam> ip6HdrInclSocketPamFactory(const Mox::Name& name,
                                                                  const IpProtocolNumber& protocol,
                                                                  const NamespaceName& netNs);
};

}  // namespace Korva
