#pragma once
// A Pam over one UDP socket, IPv4 or IPv6, inside one network namespace. Its attributes
// (addresses, ports, counters, what the last datagram carried) are generated (UdpPamBase,
// from models/Korva/UdpPam.mox). The socket is made when a mode is set and made anew on each
// change of mode or namespace; set-up failures throw Mox::ErrnoException naming the step,
// after closing what was opened. Per-datagram failures are traced, never thrown.
//
//   Mox::Ptr<Korva::UdpPam> pam = Korva::udpPamFactory("dns");
//   pam->rxPortIs(5353);
//   pam->modeIs(Korva::UdpPam::Mode::server);   // bound, watched by the event loop
//   if (Mox::Ptr<Korva::Pkt> pkt = pam->rxPkt()) { ... pam->rxSrcIpAddr() ... }

#include <Korva/PamFdSm.h>
#include <Korva/UdpPam.mox.h>

namespace Korva {

class UdpPam : public UdpPamBase {
 public:
  // Sends one datagram: a server to txDstIpAddr (txDstIp6Addr) and txPort, a client to its
  // peer, connecting first.
  void txPktIs(const Mox::Ptr<Pkt>& pkt) override;
  // Joins (or leaves) an IPv6 multicast group on the named device.
  void handleMcastGroup(const Mox::String8& devName, const Ip6Addr& group, bool join);
  void handleV4McastGroup(const Mox::String8& devName, const IpAddr& group, bool join);
  // Raises the socket's receive and send buffers to at least `bytes`.
  void incSockBufSize(U32 bytes);
  void assertNotConnected() const;

  // The socket's descriptor entity and its readiness reactor; empty without a socket.
  const Mox::Ptr<Mox::FileDescriptor>& fileDesc() const noexcept { return fd_.fileDesc(); }
  const Mox::Ptr<PamFdSm>& fdSm() const noexcept { return fd_.fdSm(); }

 protected:
  explicit UdpPam(const Mox::Name& name) : UdpPamBase(name) {}

  void handleMode() override;
  void handleNetNs() override;
  void doGetRxPkt() override;
  virtual void doNewSocket();
  virtual void doDelSocket();
  virtual void doBind();
  // Connects a client that is not connected yet; false when it could not.
  virtual bool doConnect();

 private:
  friend Mox::Ptr<UdpPam> udpPamFactory(const Mox::Name& name);

  // Deletes the socket and, unless disabled, makes a new one.
  void renewSocket();
  // Reads back the local port the kernel gave the socket into rxPortLocal.
  void noteLocalPort();

  PamFd fd_;
};

}  // namespace Korva
