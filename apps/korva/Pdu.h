#pragma once
// What `korva pdu` and the demo's TCP step share: the framing of a line as one PDU and the
// way a received PDU is printed.

#include <Korva/Pkt.h>

#include <string>

namespace KorvaTool {

// A PDU of `body` behind a 20-byte header whose bytes 2-3 hold the total length
// (big-endian); the other header bytes are zero.
std::string framedPdu(const std::string& body);
Mox::Ptr<Korva::Pkt> framedPduPkt(const std::string& body);
// "<length> bytes: <first header bytes in hex> | <body as text>".
std::string describePdu(const Korva::Pkt& pdu);

}  // namespace KorvaTool
