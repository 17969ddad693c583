// Demo step: a UDP/IPv4 frame built back to front in one packet, checksummed and printed.

#include "Command.h"

#include <Korva/EthHdr.h>
#include <Korva/IpHdr.h>
#include <Korva/Pkt.h>
#include <Korva/UdpHdr.h>

#include <cstdio>
#include <cstring>
#include <string>

namespace KorvaTool {

namespace {

using Korva::U16;
using Korva::U32;
using Korva::U8;

void printHex(const std::string& bytes) {
  for (size_t line = 0; line < bytes.size(); line += 16) {
    std::printf("  %04zx ", line);
    for (size_t i = line; i < std::min(bytes.size(), line + 16); ++i) {
      std::printf(" %02x", U8(bytes[i]));
    }
    std::printf("\n");
  }
}

int runPacketDemo() {
  const std::string payload = "hello from libKorva";
  const Korva::IpAddr src(192, 0, 2, 1), dst(192, 0, 2, 2);
  Mox::Ptr<Korva::Pkt> pkt = Korva::globalPktManager()->newPkt();

  // Payload first, then each header in front of it, in the head room of the same buffer.
  U8* data = pkt->newSharedHeadData(U32(payload.size()));
  std::memcpy(data, payload.data(), payload.size());
  const Korva::Pkt::SharedBuffer* buffer = pkt->sharedBuffer().get();

  auto* udp = new (pkt->newSharedHeadData(sizeof(Korva::UdpHdr))) Korva::UdpHdr;
  udp->srcPort.valueIs(49152);
  udp->dstPort.valueIs(7);
  udp->len.valueIs(U16(sizeof(Korva::UdpHdr) + payload.size()));
  auto udpView = Korva::udpHdrWrapperFactory(pkt, 0);
  udpView->ipSrcIs(src);
  udpView->ipDstIs(dst);
  udp->checksum = udpView->computedChecksum();

  auto* ip = new (pkt->newSharedHeadData(sizeof(Korva::IpHdr))) Korva::IpHdr;
  ip->versionIs(4);
  ip->headerBytesIs(sizeof(Korva::IpHdr));
  ip->totalLen.valueIs(U16(pkt->bytes()));
  ip->id.valueIs(0x1234);
  ip->dontFragIs(true);
  ip->ttl.valueIs(64);
  ip->protocolNumIs(Korva::ipProtoUdp);
  ip->srcAddrIs(src);
  ip->dstAddrIs(dst);
  ip->checksum = ip->computedChecksum();

  auto* eth = new (pkt->newSharedHeadData(sizeof(Korva::EthHdr))) Korva::EthHdr;
  eth->dstAddrIs(Korva::EthAddr(0x0200, 0x0000, 0x0002));
  eth->srcAddrIs(Korva::EthAddr(0x0200, 0x0000, 0x0001));
  eth->etherTypeIs(Korva::EthType::ethTypeIp);

  bool inPlace = pkt->sharedBuffer().get() == buffer && pkt->frontData() + 42 == data;
  std::printf("frame: %u bytes, headers prepended %s\n", pkt->bytes(),
              inPlace ? "in place (payload never copied)" : "WITH A COPY");
  printHex(pkt->stringValue());

  // Parse it back through the views.
  auto ethView = Korva::ethHdrWrapperFactory(pkt, 0);
  U32 ipOffset = ethView->ipHdrOffset();
  auto ipView = Korva::ipHdrWrapperFactory(pkt, ipOffset);
  const Korva::IpHdr& ipHdr = *ipView->header();
  auto parsedUdp = Korva::udpHdrWrapperFactory(pkt, ipOffset + ipHdr.headerBytes());
  parsedUdp->ipSrcIs(ipHdr.srcAddr());
  parsedUdp->ipDstIs(ipHdr.dstAddr());
  const Korva::UdpHdr& udpHdr = *parsedUdp->header();

  std::printf("ethernet: %s -> %s type %s\n", ethView->header()->srcAddr().stringValue().c_str(),
              ethView->header()->dstAddr().stringValue().c_str(),
              Korva::valueToStrep(ethView->header()->etherType()).c_str());
  std::printf("ipv4: %s -> %s ihl %u total %u id 0x%04x df %d ttl %u proto %s checksum 0x%04x%s\n",
              ipHdr.srcAddr().stringValue().c_str(), ipHdr.dstAddr().stringValue().c_str(),
              ipHdr.headerBytes(), ipHdr.totalLen.value(), ipHdr.id.value(), ipHdr.dontFrag(),
              ipHdr.ttl.value(), Korva::valueToStrep(ipHdr.protocolNum()).c_str(),
              ipHdr.checksum.value(),
              ipView->computedChecksum().value() == 0 ? " (valid)" : " (BAD)");
  bool udpValid = parsedUdp->computedChecksumU16() == parsedUdp->validChecksum();
  std::printf("udp: port %u -> %u len %u checksum 0x%04x%s\n", udpHdr.srcPort.value(),
              udpHdr.dstPort.value(), udpHdr.len.value(), udpHdr.checksum.value(),
              udpValid ? " (valid)" : " (BAD)");
  std::printf("payload: \"%s\"\n",
              pkt->stringValue().substr(ipOffset + ipHdr.headerBytes() + 8).c_str());
  return inPlace && udpValid && ipView->computedChecksum().value() == 0 ? 0 : 1;
}

const bool registered =
    registerDemoStep({20, "packet: a UDP/IPv4 frame built back to front", runPacketDemo});

}  // namespace

}  // namespace KorvaTool
