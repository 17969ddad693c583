#include <Korva/PktSocket.h>
#include <Korva/ValueType.h>
#include <Mox/Assert.h>
#include <Mox/Exception.h>
#include <Mox/Trace.h>

#include <cerrno>
#include <cstring>
#include <iostream>
#include <new>

namespace Korva {

namespace {

Mox::TraceHandle trace("PktSocket");

}  // namespace

// --- Protocol ---

std::string Protocol::stringValue() const {
  return std::to_string(value_);
}

void Protocol::stringValueIs(std::string_view text) {
  value_ = Mox::valueFromText<U16>(text, "Invalid Protocol");
}

U32 Protocol::hash() const noexcept {
  return valueHashMix(value_);
}

std::string valueToStrep(const Protocol& value) {
  return value.stringValue();
}

void sequenceToValue(Mox::TextIter& it, Mox::TextIter end, Protocol* value) {
  U16 number = 0;
  try {
    Mox::sequenceToValue(it, end, &number);
  } catch (const Mox::RangeException&) {
    throw Mox::RangeException("Invalid Protocol");
  }
  *value = Protocol(number);
}

std::ostream& operator<<(std::ostream& os, const Protocol& value) {
  return os << value.value();
}

// --- PktSocket ---

PktSocket::PktSocket(Mox::String8 name)
    : fileDescriptor_(new (std::nothrow) Mox::FileDescriptor(std::move(name))),
      pktManager_(globalPktManager()) {
  if (!fileDescriptor_) throw Mox::RangeException("null ValidPtr");
}

ssize_t PktSocket::sendmsg(Mox::Ptr<Pkt> pkt, const sockaddr_in& to) {
  sockaddr_in name = to;
  name.sin_family = AF_INET;
  msghdr message{};
  message.msg_name = &name;
  message.msg_namelen = sizeof name;
  message.msg_iov = const_cast<iovec*>(pkt->iovecs());
  message.msg_iovlen = pkt->iovecCount();
  return ::sendmsg(descriptor(), &message, 0);
}

ssize_t PktSocket::sendPkt(Mox::Ptr<Pkt> pkt, const sockaddr_in& to) {
  const ssize_t sent = sendmsg(std::move(pkt), to);
  if (sent >= 0 || errno == EAGAIN) return sent;
  const int error = errno;
  std::cerr << "error sending pkt:" << error << ' ' << std::strerror(error) << '\n';
  throw Mox::ErrnoException(error, "");
}

ssize_t PktSocket::recvfrom(int fd, void* buf, U32 len, int flags, sockaddr* from,
                            socklen_t* fromLen) {
  return ::recvfrom(fd, buf, len, flags, from, fromLen);
}

Mox::Ptr<Pkt> PktSocket::recvPkt(sockaddr_in* from) {
  Mox::Ptr<Pkt> pkt = pktManager_->newPkt();
  if (!pkt) throw Mox::MemoryException("Unable to allocate Pkt");
  const U32 size = pkt->maxSharedData();
  U8* data = pkt->newSharedHeadData(size);
  MOX_ASSERT(fileDescriptor_->nonBlocking());
  socklen_t fromLen = sizeof(sockaddr_in);
  const ssize_t received =
      recvfrom(descriptor(), data, size, 0, reinterpret_cast<sockaddr*>(from), &fromLen);
  if (received < 0) {
    const int error = errno;
    if (error == EAGAIN) return nullptr;
    // Descriptors here are non-blocking and never interrupted by design.
    MOX_ASSERT_TEXT(error != EINTR, "(*__errno_location ()) != 4");
    std::cerr << " error is  " << error << std::strerror(error) << '\n';
    throw Mox::ErrnoException(error, "");
  }
  // Every socket kind reports an empty read with the tap socket's words.
  if (received == 0) throw Mox::InternalException("read from tap socket returned 0");
  pkt->delSharedTailData(size - U32(received));
  MOX_TRACE(trace, 8, fileDescriptor_->name() << ": received " << received << " bytes");
  return pkt;
}

}  // namespace Korva
