#include <Korva/NetnsUtils.h>
#include <Korva/TcpFd.h>
#include <Mox/Exception.h>
#include <Mox/Model.h>
#include <Mox/Trace.h>

#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <ostream>
#include <tuple>

namespace Korva {

namespace {

Mox::TraceHandle trace("TcpFd");

int domainOf(AddressFamily af) {
  return af == AddressFamily::ipv6 ? AF_INET6 : AF_INET;
}

}  // namespace

Mox::Ptr<TcpFd> TcpFd::newTcpFd(int descriptor, AddressFamily af,
                                const NamespaceName& networkNamespace) {
  Mox::Ptr<TcpFd> fd = tcpFdFactory("TcpFd");
  fd->descriptorIs(descriptor);
  fd->afIs(af);
  fd->networkNamespaceIs(networkNamespace);
  return fd;
}

Mox::Ptr<TcpFd> TcpFd::socket(AddressFamily af, const NamespaceName& networkNamespace) {
  MOX_TRACE(trace, 5, "Socket: af=" << af << " networkNamespace=" << networkNamespace.value());
  const int descriptor =
      socketAt(domainOf(af), SOCK_STREAM | SOCK_NONBLOCK, 0, networkNamespace.value());
  if (descriptor < 0) return nullptr;
  return newTcpFd(descriptor, af, networkNamespace);
}

Mox::Ptr<TcpFd> TcpFd::socketAccept(const Mox::Ptr<TcpFd>& serverFd, AddressFamily af,
                                    const NamespaceName& networkNamespace) {
  MOX_TRACE(trace, 5, "Accept: sd=" << serverFd->descriptor());
  const int descriptor = accept4(serverFd->descriptor(), nullptr, nullptr, SOCK_NONBLOCK);
  MOX_TRACE(trace, 5, "Accept: fd=" << descriptor);
  if (descriptor < 0) return nullptr;
  Mox::Ptr<TcpFd> fd = newTcpFd(descriptor, af, networkNamespace);
  fd->serverFd_ = serverFd;
  return fd;
}

TcpFd::~TcpFd() {
  cleanup();
}

void TcpFd::cleanup() {
  unwatch();
  if (descriptor() < 0) return;
  MOX_TRACE(trace, 5, "Close: sd=" << descriptor());
  ::close(descriptor());
  descriptorIs(-1);
}

void TcpFd::handleEnabled() {
  MOX_TRACE(trace, 5, "Setting enabled to " << enabled());
  unwatch();
  if (enabled() && useMoxEventLoop() && descriptor() >= 0) fileDesc_ = newFileDesc(name());
}

Mox::Ptr<Mox::FileDescriptor> TcpFd::newFileDesc(const Mox::Name& name) {
  // The TcpFd, not the watch, closes the socket, even when the watch cannot be set up.
  auto fileDesc = Mox::make<Mox::FileDescriptor>(name, -1, [](int) { return 0; });
  // Configured before it takes the socket over: one epoll_ctl, not one per setting.
  fileDesc->edgeTriggeredIs(edgeTriggered());
  fileDesc->notifyOnReadableIs(notifyOnReadable());
  fileDesc->notifyOnWritableIs(notifyOnWritable());
  fileDesc->descriptorIs(descriptor());
  watch_.notifierIs(fileDesc);
  return fileDesc;
}

void TcpFd::unwatch() noexcept {
  if (!fileDesc_) return;
  watch_.notifierIs(nullptr);
  fileDesc_->release();
  fileDesc_ = nullptr;
}

void TcpFd::handleNotifyOnReadable() {
  if (fileDesc_) fileDesc_->notifyOnReadableIs(notifyOnReadable());
}

void TcpFd::handleNotifyOnWritable() {
  if (fileDesc_) fileDesc_->notifyOnWritableIs(notifyOnWritable());
}

void TcpFd::handleEdgeTriggered() {
  levelTriggeredIs(!edgeTriggered());
  if (fileDesc_) fileDesc_->edgeTriggeredIs(edgeTriggered());
}

std::string TcpFd::stringValue() const {
  return "<sd=" + std::to_string(descriptor()) +
         " notifyOnReadable=" + Mox::valueToStrep(notifyOnReadable()) +
         " notifyOnWritable=" + Mox::valueToStrep(notifyOnWritable()) + ">";
}

std::ostream& operator<<(std::ostream& os, const TcpFd& fd) {
  return os << fd.stringValue();
}

std::string valueToStrep(const Mox::Ptr<TcpFd>& fd) {
  return fd ? fd->stringValue() : "None";
}

void sequenceToValue(Mox::TextIter& it, Mox::TextIter end, Mox::Ptr<TcpFd>* fd) {
  if (!Mox::skipString(it, end, "None")) throw Mox::RangeException("Invalid TcpFd");
  *fd = nullptr;
}

// --- TcpConnSocket ---

std::string TcpConnSocket::stringValue() const {
  return Mox::ValueText("Korva::TcpConnSocket")
      .attr("fd", fd_)
      .attr("srcIpAddr", srcIpAddr_)
      .attr("srcPort", srcPort_)
      .attr("dstIpAddr", dstIpAddr_)
      .attr("dstPort", dstPort_)
      .str();
}

void TcpConnSocket::stringValueIs(std::string_view text) {
  *this = Mox::valueFromText<TcpConnSocket>(text, "Invalid TcpConnSocket");
}

U32 TcpConnSocket::hash() const noexcept {
  U32 seed = Mox::attrHash(fd_);
  for (U32 part :
       {srcIpAddr_.hash(), Mox::attrHash(srcPort_), dstIpAddr_.hash(), Mox::attrHash(dstPort_)}) {
    seed = Mox::hashCombine(seed, part);
  }
  return seed;
}

bool operator<(const TcpConnSocket& a, const TcpConnSocket& b) {
  const auto key = [](const TcpConnSocket& c) {
    return std::make_tuple(c.srcIpAddr_, c.srcPort_, c.dstIpAddr_, c.dstPort_, c.fd_.get());
  };
  return key(a) < key(b);
}

std::string valueToStrep(const TcpConnSocket& value) {
  return value.stringValue();
}

void sequenceToValue(Mox::TextIter& it, Mox::TextIter end, TcpConnSocket* value) {
  Mox::Ptr<TcpFd> fd;
  IpGenAddr src, dst;
  Port srcPort, dstPort;
  Mox::ValueParser(it, end, "Korva::TcpConnSocket")
      .attr("fd", &fd)
      .attr("srcIpAddr", &src)
      .attr("srcPort", &srcPort)
      .attr("dstIpAddr", &dst)
      .attr("dstPort", &dstPort)
      .finish();
  *value = TcpConnSocket(fd, src, srcPort, dst, dstPort);
}

std::ostream& operator<<(std::ostream& os, const TcpConnSocket& value) {
  return os << value.stringValue();
}

}  // namespace Korva
