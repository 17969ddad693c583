#pragma once
// The IPv4 raw-socket Pam: a raw AF_INET socket of one protocol inside one network
// namespace. Enabling opens and configures it from `options`; TOS, TTL, the options and
// the Router Alert option of sent packets apply at once to an open socket. Sends and
// receives never throw: failures are traced and counted in txErrors and rxErrors.
//
//   Mox::Ptr<Korva::IpSocketPam> pam =
//       Korva::ipSocketPamFactory("rsvp", Korva::ipProtoRsvp, Korva::NamespaceName(""));
//   pam->ipPktOptionIs(Korva::IpPktOption::ipPktRouterAlert, true);
//   pam->enabledIs(true);
//   pam->txDstIpAddrIs(Korva::IpGenAddr(Korva::IpAddr(10, 0, 0, 2)));
//   pam->txPktIs(pkt);   // leaves with the Router Alert option in its IPv4 header

#include <Korva/IpSocketPam.mox.h>

namespace Korva {

class IpSocketPam : public IpSocketPamBase {
 public:
  // Router Alert on or off for the packets sent from now on.
  void ipPktOptionIs(IpPktOption option, bool value) override;
  void ipPktOptionDel(IpPktOption option) override;
  void ipPktOptionDelAll() override;

 protected:
  using IpSocketPamBase::IpSocketPamBase;

  const IpSocketFamily* socketFamily() const override;
  // IP_HDRINCL when the caller builds the header, else the IP options of sent packets.
  void doConfigureHeader(int fd, bool live) override;
  // Sets (or clears) the Router Alert option of sent packets from ipPktOption; a failure
  // is traced, not thrown.
  virtual void setIpPktOptions(int fd);

 private:
  // Applies ipPktOption to an open socket that does not take the caller's header.
  void refreshIpPktOptions();
  friend Mox::Ptr<IpSocketPam> ipSocketPamFactory(const Mox::Name& name,
                                                  const IpProtocolNumber& protocol,
                                                  const NamespaceName& netNs);
};

}  // namespace Korva
