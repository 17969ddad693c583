#pragma once
// A Pam that carries PDUs over one connected TCP socket (a TcpFd). Reading assembles the
// byte stream into whole PDUs, one packet each, straight into the packet and never past the
// current PDU; how long a PDU is, the derived class says through getPduSize()
// (SimpleTcpPduPam is the ready-made framing). Sending never blocks: what the kernel does
// not take is kept as a private shadow copy and goes out when the socket is writable again;
// until then `writable` is false and no other send may be issued. Failures end in
// rxErrorReason / txErrorReason and counters, never in an exception; after one the Pam stays
// quiet until its owner acts. Attributes are generated (TcpPduPamBase, from
// models/Korva/TcpPduPam.mox).
//
//   Mox::Ptr<Korva::SimpleTcpPduPam> pam = Korva::simpleTcpPduPamFactory(conn.fd());
//   pam->enabledIs(true);
//   struct Owner : Korva::TcpPduPam::Notifiee {
//     void onReadable() override {
//       if (notifier()->readable()) handle(notifier()->rxPkt());
//     }
//   };
//   if (pam->writable()) pam->txPktIs(pdu);

#include <Korva/TcpPduPam.mox.h>

#include <sys/uio.h>

#include <vector>

namespace Korva {

class TcpPduPam;

// The reactor between a TcpPduPam's socket and the Pam: readiness of the socket becomes a
// call to the Pam. The Pam owns it and drops it when disabled; it keeps only a plain pointer
// back.
class TcpPduFdSm : public Mox::PtrInterface, public TcpFd::Notifiee {
 public:
  TcpPduFdSm(const Mox::Ptr<TcpFd>& fd, TcpPduPam* pam);
  void onSocketReadableCount() override;
  void onSocketWritableCount() override;
  TcpPduPam* pam() const noexcept { return pam_; }

 private:
  TcpPduPam* pam_;
};

class TcpPduPam : public TcpPduPamBase {
 public:
  ~TcpPduPam() override;

  // Sends one PDU; only while writable() (a partial send makes it false until the rest is
  // out).
  void txPktIs(const Mox::Ptr<Pkt>& pkt) override;
  // The same for a PDU gathered from `count` pieces.
  void txIovIs(const iovec* iov, U16 count);
  // Enables with the caller's reactor in place of a fresh one.
  void enableWithFdSmIs(bool enabled, const Mox::Ptr<TcpPduFdSm>& fdSm);
  const Mox::Ptr<TcpPduFdSm>& tcpPduFdSm() const noexcept { return tcpPduFdSm_; }
  // The unsent rest of a partly sent vector: its pieces (in one private copy).
  const std::vector<iovec>& txIovHolderShadow() const noexcept { return txIovHolderShadow_; }
  U16 txIovLenHolderShadow() const noexcept { return U16(txIovHolderShadow_.size()); }
  // Disables and drops the shadows and the PDU being assembled; the socket stays open.
  void cleanup();

  // The reactor's calls.
  void handleSocketReadable();
  void handleSocketWritable();

  // The total length of the PDU whose first bytes are in rxPktHolderShadow.
  virtual U16 getPduSize();

 protected:
  TcpPduPam(const Mox::Name& name, const Mox::Ptr<TcpFd>& fd);

  // Hands over the waiting PDU and reads on.
  void doGetRxPkt() override;
  void handleEnabled() override;
  void handleKeepaliveOptions() override;
  virtual TcpPduPamReadReturn readFromSocket();
  void readNextPdu();
  void handleReadError(const Mox::String8& reason);
  void handleWriteError();
  void sendPkt(const Mox::Ptr<Pkt>& pkt);
  void sendIov(const iovec* iov, U16 count);
  void outOfWriteSpace();
  void writeCompleteAndSpaceAvailable();

 private:
  friend Mox::Ptr<TcpPduPam> tcpPduPamFactory(const Mox::Ptr<TcpFd>& fd);

  // A fresh packet with room for the largest PDU at its tail; none when it cannot be had.
  Mox::Ptr<Pkt> newRxPkt();
  // One non-blocking send of the pieces: the bytes sent (0 when the kernel took none), or
  // -1 after a failure, which has been recorded.
  ssize_t sendPieces(const iovec* iov, size_t count);
  void saveShadowPktCopy(const iovec* iov, size_t count, size_t sent);
  void saveShadowIovCopy(const iovec* iov, U16 count, size_t sent);
  // Sends what the shadow holds; true when it is all gone.
  bool sendShadow();
  void stopReactor();

  Mox::Ptr<TcpPduFdSm> tcpPduFdSm_;
  std::vector<iovec> txIovHolderShadow_;
  std::vector<U8> txIovShadowBytes_;
  Mox::Ptr<Pkt::SharedBuffer> lastRxBuffer_;
  // Set while readNextPdu runs, so an owner taking a PDU from its hook does not start a
  // nested read.
  bool reading_ = false;
};

// A TcpPduPam for a connected socket; reading needs a derived class that frames PDUs.
Mox::Ptr<TcpPduPam> tcpPduPamFactory(const Mox::Ptr<TcpFd>& fd);

}  // namespace Korva
