#pragma once
// The abstract packet access point: a named entity that owns one kernel descriptor and moves
// packets between it and an agent. Its counters, packet slots and their notifications are
// generated (PamBase, from models/Korva/Pam.mox); a concrete Pam derives from Pam, overrides
// doGetRxPkt() and txPktIs(), and clients read with rxPkt().

#include <Korva/Pam.mox.h>

namespace Korva {

class Pam : public PamBase {
 public:
  // The one way a client reads: at most one read per call, empty when nothing came.
  Mox::Ptr<Pkt> rxPkt();

 protected:
  explicit Pam(const Mox::Name& name) : PamBase(name) {}

  // Reads at most one packet into rxPktHolder; every concrete Pam overrides it (this one
  // aborts).
  virtual void doGetRxPkt();
};

}  // namespace Korva
