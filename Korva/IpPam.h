#pragma once
// A raw IP access point: a Pam that sends and receives whole IP packets of one protocol
// inside one network namespace. Its attributes (socket options, transmit parameters, what
// the last packet carried, counters, the filter program) are generated (IpPamBase, from
// models/Korva/IpPam.mox). IpPam itself opens no socket: IpSocketPam (IPv4) and
// Ip6SocketPam (IPv6) do, and share the socket work written here.
//
//   Mox::Ptr<Korva::IpSocketPam> pam =
//       Korva::ipSocketPamFactory("ospf", Korva::ipProtoOspf, Korva::NamespaceName("blue"));
//   pam->optionsIs(Korva::ipSocketOptions({IpSocketOptions::ipPktInfo,
//                                          IpSocketOptions::ipRecvTTL}));
//   pam->enabledIs(true);   // opens the socket; set-up failures throw Mox::ErrnoException
//   if (Mox::Ptr<Korva::Pkt> pkt = pam->rxPkt()) { ... pam->rxIfIndex() ... }

#include <Korva/IpPam.mox.h>
#include <Korva/PamFdSm.h>
#include <Mox/Trace.h>

#include <sys/socket.h>

#include <initializer_list>
#include <span>

namespace Korva {

// The options word of the listed bits.
U32 ipSocketOptions(std::initializer_list<IpSocketOptions> bits);

// One socket option that a bit of `options` switches on at enable (and on or off on an
// enabled Pam); `always` options are written at every enable, 0 when the bit is clear.
struct IpOptionStep {
  IpSocketOptions bit;
  int level;
  int option;
  const char* step;  // the failure message
  bool always = false;
  // What a clear bit writes on an enabled Pam.
  int off = 0;
};
// What sets the IPv4 and IPv6 sockets apart.
struct IpSocketFamily {
  int domain;
  const char* unit;
  Mox::TraceHandle& trace;
  // The options of the receive path, in the order they are set.
  std::span<const IpOptionStep> receiveSteps;
  IpOptionStep transparent;
  IpOptionStep tos;
  // The TTL (hop limit) options, all set from txTTL, and the message of their failure.
  std::span<const int> ttlOptions;
  const char* ttlStep;
};

class IpPam : public IpPamBase {
 public:
  bool hasOption(IpSocketOptions bit) const { return options() & U32(bit); }

  // On a Pam with a socket family (IpSocketPam, Ip6SocketPam): true opens and configures
  // the socket, in this order: the header options, the receive options, the filter, the
  // receive buffer, TOS, TTL, transparency and priority; a failure closes it and throws
  // Mox::ErrnoException naming the step, leaving the Pam disabled. False closes it.
  void enabledIs(bool enabled) override;
  // On an enabled Pam, applies the bits that differ at once (a failure throws and keeps the
  // old bits); otherwise only stores them.
  void optionsIs(U32 options) override;
  void txTOSIs(const IpDscp& txTOS) override;
  void txTTLIs(const IpTtl& txTTL) override;
  // Sends one packet to txDstIpAddr; the Pam must be enabled. Failures count in txErrors.
  void txPktIs(const Mox::Ptr<Pkt>& pkt) override;

  // The socket's descriptor entity and its readiness reactor; empty while disabled.
  const Mox::Ptr<Mox::FileDescriptor>& fileDesc() const noexcept { return fd_.fileDesc(); }
  const Mox::Ptr<PamFdSm>& fdSm() const noexcept { return fd_.fdSm(); }

 protected:
  IpPam(const Mox::Name& name, const IpProtocolNumber& protocol, const NamespaceName& netNs)
      : IpPamBase(name, protocol, netNs) {}

  // The socket this Pam opens; none for the bare model, which only stores its attributes.
  virtual const IpSocketFamily* socketFamily() const { return nullptr; }
  // The header step of the IPv4 socket; IPv6 sockets leave the header to the kernel.
  virtual void doConfigureHeader(int fd, bool live);
  // Reads at most one packet; finding none counts in rxErrors.
  void doGetRxPkt() override;
  // Drops the reactor and the descriptor entity, which closes the socket.
  virtual void handleCleanup();

  int descriptor() const noexcept { return fd_.descriptor(); }
  // Sets an int option; a failure is traced and thrown with the step's message.
  void setOption(int fd, int level, int option, int value, const char* step);

 private:
  friend Mox::Ptr<IpPam> ipPamFactory(const Mox::Name& name, const IpProtocolNumber& protocol,
                                      const NamespaceName& netNs);

  const IpSocketFamily& family() const { return *socketFamily(); }
  void openSocket();
  void changeOptions(U32 newOptions);
  void attachFilter(int fd);
  void applyTOS(int fd, IpDscp tos);
  void applyTTL(int fd, IpTtl ttl);
  // The index of txIfName in the socket's namespace, stored in txIfIndex.
  void resolveTxIfName();

  PamFd fd_;
};

}  // namespace Korva
