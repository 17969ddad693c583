#pragma once
// One TCP socket inside a network namespace, and the connection it carries. The TcpFd owns
// the descriptor and closes it when it goes (or on cleanup()); while enabled, this thread's
// event loop watches it and each readiness report bumps socketReadableCount or
// socketWritableCount, which its reactors (the TCP machines, TcpPduFdSm) act on. Its
// attributes are generated (TcpFdBase, from models/Korva/TcpFd.mox).
//
//   Mox::Ptr<Korva::TcpFd> fd = Korva::TcpFd::socket(Korva::AddressFamily::ipv4, ns);
//   if (!fd) { ... errno ... }
//   fd->notifyOnWritableIs(true);
//   fd->enabledIs(true);

#include <Korva/TcpFd.mox.h>
#include <Mox/FileDescriptor.h>

#include <iosfwd>
#include <string>

namespace Korva {

class TcpFd : public TcpFdBase {
 public:
  // A new non-blocking stream socket of family `af` in the namespace; none (errno set)
  // when the socket could not be made.
  static Mox::Ptr<TcpFd> socket(AddressFamily af, const NamespaceName& networkNamespace);
  // The next connection waiting on the listening `serverFd`, non-blocking; none with errno
  // left as accept(2) set it (EAGAIN when nobody is waiting).
  static Mox::Ptr<TcpFd> socketAccept(const Mox::Ptr<TcpFd>& serverFd, AddressFamily af,
                                      const NamespaceName& networkNamespace);
  ~TcpFd() override;

  // The listening socket this one was accepted from; none for the others.
  const Mox::Ptr<TcpFd>& serverFd() const noexcept { return serverFd_; }
  // The watched descriptor while enabled; none otherwise.
  const Mox::Ptr<Mox::FileDescriptor>& fileDesc() const noexcept { return fileDesc_; }
  // Stops the watch and closes the socket; the descriptor is -1 afterwards.
  void cleanup();
  // "<sd=5 notifyOnReadable=True notifyOnWritable=False>".
  std::string stringValue() const;

 protected:
  using TcpFdBase::TcpFdBase;
  void handleEnabled() override;
  void handleNotifyOnReadable() override;
  void handleNotifyOnWritable() override;
  void handleEdgeTriggered() override;

 private:
  friend Mox::Ptr<TcpFd> tcpFdFactory(const Mox::Name& name);

  // Reports the watched descriptor's readiness as the TcpFd's counters.
  class Watch : public Mox::FileDescriptor::Notifiee {
   public:
    explicit Watch(TcpFd* owner) : owner_(owner) {}
    void onReadableCount() override { owner_->socketReadableCountInc(); }
    void onWritableCount() override { owner_->socketWritableCountInc(); }

   private:
    TcpFd* owner_;
  };

  static Mox::Ptr<TcpFd> newTcpFd(int descriptor, AddressFamily af,
                                  const NamespaceName& networkNamespace);
  // Watches the socket under `name`, as configured.
  Mox::Ptr<Mox::FileDescriptor> newFileDesc(const Mox::Name& name);
  void unwatch() noexcept;

  Mox::Ptr<TcpFd> serverFd_;
  Mox::Ptr<Mox::FileDescriptor> fileDesc_;
  Watch watch_{this};
};

std::ostream& operator<<(std::ostream& os, const TcpFd& fd);
// A TcpFd's text form; "None" for no descriptor.
std::string valueToStrep(const Mox::Ptr<TcpFd>& fd);
// Only "None" reads back: a descriptor cannot be made from text.
void sequenceToValue(Mox::TextIter& it, Mox::TextIter end, Mox::Ptr<TcpFd>* fd);

// An established connection: its socket and both ends (ports in host order).
class TcpConnSocket {
 public:
  TcpConnSocket() = default;
  TcpConnSocket(Mox::Ptr<TcpFd> fd, const IpGenAddr& srcIpAddr, Port srcPort,
                const IpGenAddr& dstIpAddr, Port dstPort)
      : fd_(std::move(fd)),
        srcIpAddr_(srcIpAddr),
        srcPort_(srcPort),
        dstIpAddr_(dstIpAddr),
        dstPort_(dstPort) {}

  const Mox::Ptr<TcpFd>& fd() const noexcept { return fd_; }
  void fdIs(Mox::Ptr<TcpFd> fd) { fd_ = std::move(fd); }
  const IpGenAddr& srcIpAddr() const noexcept { return srcIpAddr_; }
  void srcIpAddrIs(const IpGenAddr& addr) noexcept { srcIpAddr_ = addr; }
  Port srcPort() const noexcept { return srcPort_; }
  void srcPortIs(Port port) noexcept { srcPort_ = port; }
  const IpGenAddr& dstIpAddr() const noexcept { return dstIpAddr_; }
  void dstIpAddrIs(const IpGenAddr& addr) noexcept { dstIpAddr_ = addr; }
  Port dstPort() const noexcept { return dstPort_; }
  void dstPortIs(Port port) noexcept { dstPort_ = port; }

  // "Value('Korva::TcpConnSocket', ** {'fd': ..., 'srcIpAddr': ..., ...})".
  std::string stringValue() const;
  // Reads that form (with fd None); "Invalid TcpConnSocket" leaves the value unchanged.
  void stringValueIs(std::string_view text);
  U32 hash() const noexcept;

  friend bool operator==(const TcpConnSocket&, const TcpConnSocket&) = default;
  friend bool operator<(const TcpConnSocket& a, const TcpConnSocket& b);

 private:
  Mox::Ptr<TcpFd> fd_;
  IpGenAddr srcIpAddr_;
  Port srcPort_;
  IpGenAddr dstIpAddr_;
  Port dstPort_;
};

std::string valueToStrep(const TcpConnSocket& value);
void sequenceToValue(Mox::TextIter& it, Mox::TextIter end, TcpConnSocket* value);
std::ostream& operator<<(std::ostream& os, const TcpConnSocket& value);

}  // namespace Korva
