#pragma once
// The older descriptor wrappers' base: a counted object owning one descriptor through a
// Mox::FileDescriptor and receiving into packets of the global packet manager. Raw IP,
// packet and TAP sockets (RawSocket.h, TapSocket.h) derive from it.
//
//   Mox::Ptr<Korva::PktSocket> sock = ...;
//   sockaddr_in from;
//   while (Mox::Ptr<Korva::Pkt> pkt = sock->recvPkt(&from)) handle(pkt, from);

#include <Korva/Pkt.h>
#include <Korva/Types.h>
#include <Korva/ValueType.h>
#include <Mox/FileDescriptor.h>
#include <Mox/Ptr.h>
#include <Mox/Text.h>

#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/types.h>

#include <compare>
#include <iosfwd>
#include <string>
#include <string_view>

namespace Korva {

// A 16-bit protocol number (an IP protocol or an EtherType, as the socket kind reads it);
// decimal text.
class Protocol {
 public:
  static constexpr U16 any = 65535;

  constexpr Protocol() noexcept = default;
  constexpr explicit Protocol(U16 value) noexcept : value_(value) {}

  constexpr U16 value() const noexcept { return value_; }
  constexpr bool isAny() const noexcept { return value_ == any; }

  std::string stringValue() const;
  // Raises Mox::RangeException "Invalid Protocol" and keeps the value on bad text.
  void stringValueIs(std::string_view text);

  U32 hash() const noexcept;
  friend constexpr bool operator==(const Protocol&, const Protocol&) = default;
  friend constexpr auto operator<=>(const Protocol&, const Protocol&) = default;

 private:
  U16 value_ = 0;
};

std::string valueToStrep(const Protocol& value);
void sequenceToValue(Mox::TextIter& it, Mox::TextIter end, Protocol* value);
std::ostream& operator<<(std::ostream& os, const Protocol& value);

class PktSocket : public Mox::PtrInterface {
 public:
  // The descriptor entity is named `name`; it holds no descriptor until descriptorIs.
  explicit PktSocket(Mox::String8 name);

  const Mox::Ptr<Mox::FileDescriptor>& fileDescriptor() const noexcept { return fileDescriptor_; }
  int descriptor() const noexcept { return fileDescriptor_->descriptor(); }
  // Hands `fd` to the descriptor entity, which owns it from now on and makes it non-blocking.
  void descriptorIs(int fd) { fileDescriptor_->descriptorIs(fd); }
  const Mox::Ptr<Pkt::Manager>& pktManager() const noexcept { return pktManager_; }

  // Sends through sendmsg() and returns its result. EAGAIN returns the negative result
  // quietly; any other failure is written to standard error and thrown as
  // Mox::ErrnoException.
  virtual ssize_t sendPkt(Mox::Ptr<Pkt> pkt, const sockaddr_in& to);
  // One non-blocking read into a fresh packet trimmed to what arrived; empty when nothing
  // is waiting. Other failures are written to standard error and thrown; a zero-length read
  // throws Mox::InternalException.
  virtual Mox::Ptr<Pkt> recvPkt(sockaddr_in* from);
  virtual ssize_t recvfrom(int fd, void* buf, U32 len, int flags, sockaddr* from,
                           socklen_t* fromLen);
  // One sendmsg(2) of the packet's scatter entries to `to` (always as AF_INET), flags 0.
  virtual ssize_t sendmsg(Mox::Ptr<Pkt> pkt, const sockaddr_in& to);

 protected:
  Mox::Ptr<Mox::FileDescriptor> fileDescriptor_;
  Mox::Ptr<Pkt::Manager> pktManager_;
};

}  // namespace Korva

template <>
struct std::hash<Korva::Protocol> : Korva::ValueHash<Korva::Protocol> {};
