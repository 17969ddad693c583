#pragma once
// The ready-made PDU framing: every PDU starts with a 20-byte header whose bytes 2-3 hold
// the PDU's total length (header included) as a big-endian U16; the other header bytes are
// the owner's. A length field below 20 is a read error ("PDU length too small"): such a PDU
// could never end.

#include <Korva/TcpPduPam.h>

namespace Korva {

class SimpleTcpPduPam : public TcpPduPam {
 public:
  static constexpr U16 headerBytes = 20;

  // 20 while the header is incomplete, then the header's length field.
  U16 getPduSize() override;

 protected:
  using TcpPduPam::TcpPduPam;

 private:
  friend Mox::Ptr<SimpleTcpPduPam> simpleTcpPduPamFactory(const Mox::Ptr<TcpFd>& fd);
};

Mox::Ptr<SimpleTcpPduPam> simpleTcpPduPamFactory(const Mox::Ptr<TcpFd>& fd);

}  // namespace Korva
