// The multiplexer's 4-byte key header taken off arbitrary packets, whose bytes may lie
// partly in the private head area (a packet encapsulated and looped back in process). The
// first byte says how many of the rest go to the private head; the last four are also the
// key put back on. The key read is the first four bytes, big-endian, and the rest of the
// packet stays; a packet too short is invalid and unchanged; encapsulating then taking
// the header off again gives back the key and the bytes.
#include "FuzzCheck.h"

#include <Korva/PamMuxDemux.h>
#include <Korva/Pkt.h>
#include <Korva/SimpleTestPam.h>

#include <algorithm>
#include <cstring>
#include <string>

using namespace KorvaFuzz;
using Korva::U32;
using Korva::U8;

namespace {

Mox::Ptr<Korva::Pkt> packetOf(const U8* bytes, U32 shared, U32 privateHead) {
  Mox::Ptr<Korva::Pkt> pkt = Korva::globalPktManager()->newPkt();
  std::memcpy(pkt->newSharedHeadData(shared), bytes + privateHead, shared);
  if (privateHead) std::memcpy(pkt->newPrivateHeadData(privateHead), bytes, privateHead);
  return pkt;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const Mox::Ptr<Korva::PamKeyMuxDemux> mux =
      Korva::PamKeyMuxDemuxIs(Korva::simpleTestPamFactory());
  if (size < 1 || size > 4096) return 0;
  const std::string_view input(reinterpret_cast<const char*>(data), size);
  const U32 length = U32(size - 1);
  const U32 privateHead = std::min<U32>(data[0] % (Korva::Pkt::privateHeadAreaBytes + 1), length);
  const U8* bytes = data + 1;
  const Mox::Ptr<Korva::Pkt> pkt = packetOf(bytes, length - privateHead, privateHead);
  const std::string whole(reinterpret_cast<const char*>(bytes), length);
  require(pkt->stringValue() == whole, "the packet holds the input", input);

  const U32 key = mux->decapsulate(pkt);
  if (length < Korva::PamKeyMuxDemux::headerBytes) {
    require(key == Korva::PamMuxDemux::invalidKey && pkt->stringValue() == whole,
            "a short packet is not invalid and unchanged", input);
    return 0;
  }
  const U32 expected = U32(bytes[0]) << 24 | U32(bytes[1]) << 16 | U32(bytes[2]) << 8 | bytes[3];
  require(key == expected, "the key is not the first four bytes, big-endian", input);
  require(pkt->stringValue() == whole.substr(4), "taking the header off lost bytes", input);

  const U32 again = U32(bytes[length - 4]) << 24 | U32(bytes[length - 3]) << 16 |
                    U32(bytes[length - 2]) << 8 | bytes[length - 1];
  mux->doEncapsulate(pkt, again);
  require(mux->decapsulate(pkt) == again && pkt->stringValue() == whole.substr(4),
          "encapsulated then decapsulated differs", input);
  return 0;
}
