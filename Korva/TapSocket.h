#pragma once
// TAP devices: TapSocket opens /dev/net/tun and creates (or attaches to) the named TAP
// device in the calling thread's network namespace; TapPktSocket moves whole Ethernet
// frames through it with read(2) and writev(2).
//
//   auto tap = Mox::make<Korva::TapPktSocket>("tap0", Korva::TapSocket::tap);
//   tap->sendmsg(frame);

#include <Korva/PktSocket.h>

namespace Korva {

class TapSocket : public PktSocket {
 public:
  // Remembered only: every type opens a TAP device without packet information.
  enum Type : U8 { tap = 0, tun = 1 };

  // Set-up failures throw Mox::Exception "<step>: <system text><hint>".
  TapSocket(Mox::String8 name, Type type);

  Type type() const noexcept { return type_; }

 private:
  Type type_;
};

class TapPktSocket : public TapSocket {
 public:
  TapPktSocket(Mox::String8 name, Type type) : TapSocket(std::move(name), type) {}

  // A device has no peer address: the address buffer is zeroed and read(2) used; `flags`
  // are ignored.
  ssize_t recvfrom(int fd, void* buf, U32 len, int flags, sockaddr* from,
                   socklen_t* fromLen) override;
  using PktSocket::sendmsg;
  // writev(2) of the packet's scatter entries: the frame as it is.
  virtual ssize_t sendmsg(Mox::Ptr<Pkt> pkt);
};

}  // namespace Korva
