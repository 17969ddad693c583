#pragma once
// The abstract packet access point: a named entity that owns one kernel descriptor and moves
// packets between it and an agent. Its counters, packet slots and their notifications are
// generated (PamBase, from models/Korva/Pam.mox); a concrete Pam derives from Pam, overrides
// doGetRxPkt() and txPktIs(), and clients read with rxPkt().

#include <Korva/Pam.mox.h>
#include <Korva/SocketUtils.h>

#include <sys/socket.h>
#include <sys/types.h>

namespace Korva {

class Pam : public PamBase {
 public:
  // The one way a client reads: at most one read per call, empty when nothing came.
  Mox::Ptr<Pkt> rxPkt();

 protected:
  explicit Pam(const Mox::Name& name) : PamBase(name) {}

  // rxPkt() on `pam`: a final class passes itself, so that the calls bind at compile time.
  template <class P>
  static Mox::Ptr<Pkt> rxPktOf(P& pam) {
    pam.doGetRxPkt();
    Mox::Ptr<Pkt> pkt = pam.rxPktHolder();
    pam.rxPktHolderIs(nullptr);
    return pkt;
  }

  // Reads at most one packet into rxPktHolder; every concrete Pam overrides it (this one
  // aborts).
  virtual void doGetRxPkt();

  // One message read from a socket straight into a fresh packet: room for `capacity` bytes
  // at the end of the packet's buffer (what is in front stays head room), for the sender's
  // address and for the control messages. A receive hook makes one per read. When the
  // packet manager is at its limit there is no packet: `receive` then reads the message
  // into nothing, dropping it rather than leaving the socket readable for ever.
  struct RxMessage {
    explicit RxMessage(U32 capacity);
    RxMessage(const RxMessage&) = delete;
    RxMessage& operator=(const RxMessage&) = delete;
    // recvmsg(2) into the packet, which is trimmed to what came; its result.
    ssize_t receive(int fd, int flags);

    U32 capacity;
    Mox::Ptr<Pkt> pkt;
    SockAddr source;
    alignas(cmsghdr) char control[256];
    iovec iov;
    msghdr msg{};
  };
};

}  // namespace Korva
