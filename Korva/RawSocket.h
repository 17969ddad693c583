#pragma once
// Raw sockets: IpSocket, a raw AF_INET socket of one IP protocol, and EthSocket, an
// AF_PACKET socket bound to one Ethernet device that receives its IPv4 frames. Both open
// their socket in the calling thread's network namespace and fail set-up with
// Mox::ErrnoException (errno, empty message).
//
//   auto manager = Korva::RawSocketManagerFactory();
//   auto ospf = manager->newIpSocket("eth1", Korva::Protocol(89), 0);
//   ospf->sendPkt(pkt, Korva::IpAddr(224, 0, 0, 5));

#include <Korva/IpAddr.h>
#include <Korva/PktSocket.h>
#include <Mox/Entity.h>

namespace Korva {

class RawSocket : public PktSocket {
 public:
  class Manager;

  enum Kind : U8 { ip = 0, ethernet = 1 };

  const Mox::String8& device() const noexcept { return device_; }
  Protocol protocol() const noexcept { return protocol_; }
  Kind kind() const noexcept { return kind_; }

  using PktSocket::sendPkt;
  // Sends the packet to `dst` (port 0) with sendmsg(2), flags 0. EAGAIN returns the
  // negative result quietly; other failures throw Mox::ErrnoException, printing nothing.
  virtual ssize_t sendPkt(Mox::Ptr<Pkt> pkt, IpAddr dst);

  // SO_SNDBUF and SO_RCVBUF as the kernel reports them (it doubles what is set).
  U32 sendBufSize() const;
  void setSendBufSize(U32 bytes);
  U32 recvBufSize() const;
  void setRecvBufSize(U32 bytes);

 protected:
  RawSocket(Mox::String8 name, Mox::String8 device, Protocol protocol, Kind kind);

  Mox::String8 device_;
  Protocol protocol_;
  Kind kind_;

 private:
  U32 bufSize(int option) const;
  void bufSizeIs(int option, U32 bytes);
};

class IpSocket : public RawSocket {
 public:
  // Bit set; with headerIncluded the caller writes the IP header of every packet.
  using Options = U32;
  static constexpr Options headerIncluded = 1u << 0;

  // socket(AF_INET, SOCK_RAW, protocol), where Protocol::any opens (and keeps) IPPROTO_RAW.
  // The device is only remembered; deviceIs binds to it.
  IpSocket(Mox::String8 device, Protocol protocol, Options options);

  Options options() const noexcept { return options_; }
  // Remembers the device and binds the socket to it (SO_BINDTODEVICE).
  void deviceIs(const Mox::String8& device);
  // Binds to (address, port 0).
  void bind(IpAddr address);

 private:
  Options options_;
};

class EthSocket : public RawSocket {
 public:
  // socket(AF_PACKET, SOCK_RAW, protocol), Protocol::any opening 3, then bound to `device`
  // for IPv4 frames whatever the protocol. The datagram socket used to look the device up
  // stays open afterwards, as callers of this wrapper have always seen it.
  EthSocket(Mox::String8 name, Mox::String8 device, Protocol protocol);
};

class RawSocket::Manager : public Mox::Entity {
 public:
  Manager() : Entity("RawSocket::Manager") {}

  Mox::Ptr<EthSocket> newEthSocket(Mox::String8 name, Mox::String8 device, Protocol protocol);
  Mox::Ptr<IpSocket> newIpSocket(Mox::String8 device, Protocol protocol, IpSocket::Options options);
};

Mox::Ptr<RawSocket::Manager> RawSocketManagerFactory();

}  // namespace Korva
