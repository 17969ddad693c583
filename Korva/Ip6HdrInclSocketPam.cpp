#include <Korva/Ip6Hdr.h>
#include <Korva/Ip6HdrInclSocketPam.h>
#include <Mox/Assert.h>

#include <netinet/in.h>

namespace Korva {

namespace {

Mox::TraceHandle trace("Ip6SocketPam");

const U32 transmitOptions =
    ipSocketOptions({IpSocketOptions::ipFreeBind, IpSocketOptions::ipMulticastLoop,
                     IpSocketOptions::ipTransparent, IpSocketOptions::ipPriority});

}  // namespace

Ip6HdrInclSocketPam::Ip6HdrInclSocketPam(const Mox::Name& name, const IpProtocolNumber& protocol,
                                         const NamespaceName& netNs)
    : Ip6HdrInclSocketPamBase(name, protocol, netNs) {
  handleInitialized();
}

// The transmit side is a raw IPv6 socket of protocol IPPROTO_RAW. On Linux that one socket
// kind takes the caller's whole IPv6 header as it is (header included by its protocol
// alone, whatever the next header), still routes by the destination, and receives nothing:
// no packet waits on a descriptor that nobody reads, and the event loop is never woken for
// it. A packet socket would also take the header, but would need the link and the
// neighbour's address, which routing gives for free here.
void Ip6HdrInclSocketPam::handleInitialized() {
  txPamIs(newTxPam(name() + ".tx", IpProtocolNumber(IPPROTO_RAW), netNs()));
}

Mox::Ptr<Ip6SocketPam> Ip6HdrInclSocketPam::newTxPam(const Mox::Name& name,
                                                     const IpProtocolNumber& protocol,
                                                     const NamespaceName& netNs) {
  return ip6SocketPamFactory(name, protocol, netNs);
}

void Ip6HdrInclSocketPam::enabledIs(bool enabled) {
  if (!enabled) {
    txPam()->enabledIs(false);
    Ip6HdrInclSocketPamBase::enabledIs(false);
    return;
  }
  txPam()->priorityIs(priority());
  txPam()->enabledIs(true);
  try {
    Ip6HdrInclSocketPamBase::enabledIs(true);
  } catch (...) {
    txPam()->enabledIs(false);
    throw;
  }
}

void Ip6HdrInclSocketPam::optionsIs(U32 options) {
  txPam()->priorityIs(priority());
  txPam()->optionsIs(options & transmitOptions);
  Ip6HdrInclSocketPamBase::optionsIs(options);
}

void Ip6HdrInclSocketPam::txPktIs(const Mox::Ptr<Pkt>& pkt) {
  MOX_ASSERT_TEXT(enabled(), "enabled()");
  if (pkt->frontBytes() < sizeof(Ip6Hdr)) {
    MOX_TRACE(trace, 3, name() << ": no IPv6 header in a packet of size " << pkt->bytes());
    txErrorsInc(1);
    return;
  }
  const auto* header = reinterpret_cast<const Ip6Hdr*>(pkt->frontData());
  Ip6SocketPam& tx = *txPam();
  tx.txDstIpAddrIs(IpGenAddr(header->dstAddr()));
  tx.txIfNameIs(txIfName());
  tx.txIfIndexIs(txIfIndex());
  const U32 failures = tx.txErrors();
  tx.txPktIs(pkt);
  if (tx.txErrors() != failures) {
    txErrorsInc(1);
  } else {
    txPktCountInc(1);
  }
}

}  // namespace Korva
