#pragma once
// A Pam over one UDP socket: see models/Korva/UdpPam.mox for its attributes. The socket
// is made when a mode is set and made anew on each change of mode or namespace; set-up
// failures throw Mox::ErrnoException naming the step, after closing what was opened and
// returning the Pam to `disabled`. Per-datagram failures are traced, never thrown.
//
//   Mox::Ptr<Korva::UdpPam> pam = Korva::udpPamFactory("dns");
//   pam->rxPortIs(5353);
//   pam->modeIs(Korva::UdpPam::Mode::server);   // bound, watched by the event loop
//   if (Mox::Ptr<Korva::Pkt> pkt = pam->rxPkt()) { ... pam->rxSrcIpAddr() ... }

#include <Korva/UdpPam.mox.h>
