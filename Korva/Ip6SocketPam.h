#pragma once
// The IPv6 raw-socket Pam: a raw AF_INET6 socket of one protocol inside one network
// namespace, with the IPv6 forms of the options (packet information, traffic class, hop
// limit); traffic class and hop limits apply at once to an open socket.
//
//   Mox::Ptr<Korva::Ip6SocketPam> pam =
//       Korva::ip6SocketPamFactory("vrrp6", Korva::ipProtoVrrp, Korva::NamespaceName(""));
//   pam->optionsIs(Korva::ipSocketOptions({Korva::IpSocketOptions::ipPktInfo}));
//   pam->enabledIs(true);

#include <Korva/Ip6SocketPam.mox.h>

namespace Korva {

class Ip6SocketPam : public Ip6SocketPamBase {
 protected:
  using Ip6SocketPamBase::Ip6SocketPamBase;

  const IpSocketFamily* socketFamily() const override;

 private:
  friend Mox::Ptr<Ip6SocketPam> ip6SocketPamFactory(const Mox::Name& name,
                                                    const IpProtocolNumber& protocol,
                                                    const NamespaceName& netNs);
};

}  // namespace Korva
