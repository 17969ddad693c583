#include <Korva/TcpPduPam.h>
#include <Mox/Assert.h>
#include <Mox/Trace.h>

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <new>
#include <span>

namespace Korva {

namespace {

Mox::TraceHandle trace("TcpPduPam");

using Result = TcpPduPamReadReturn::Result;

// PDUs a level-triggered reader delivers per readiness report before it lets the loop
// serve others; an edge-triggered one reads until the socket is empty, as it must.
constexpr int pdusPerTurn = 64;

TcpPduPamReadReturn readResult(Result result) {
  TcpPduPamReadReturn read;
  read.resultIs(result);
  return read;
}

TcpPduPamReadReturn readError(const char* reason) {
  return TcpPduPamReadReturn(Result::error, reason);
}

TcpPduPamReadReturn readError(const char* what, int error) {
  return TcpPduPamReadReturn(Result::error, Mox::String8(what) + " " + strerror(error));
}

// One keep-alive setting: the option and the words of its failure.
struct KeepaliveStep {
  int level;
  int option;
  const char* failure;
};

constexpr KeepaliveStep keepaliveStep{SOL_SOCKET, SO_KEEPALIVE,
                                      "setsockopt() error while setting SO_KEEPALIVE: %s"};
constexpr KeepaliveStep keepIdleStep{IPPROTO_TCP, TCP_KEEPIDLE,
                                     "setsockopt() error while setting TCP_KEEPIDLE: %s"};
constexpr KeepaliveStep keepIntervalStep{IPPROTO_TCP, TCP_KEEPINTVL,
                                         "setsockopt() error while setting TCP_KEEPINTVL: %s"};
constexpr KeepaliveStep keepCountStep{IPPROTO_TCP, TCP_KEEPCNT,
                                      "setsockopt() error while setting TCP_KEEPCNT: %s"};

size_t piecesBytes(const iovec* iov, size_t count) {
  size_t total = 0;
  for (size_t i = 0; i < count; ++i) total += iov[i].iov_len;
  return total;
}

}  // namespace

// --- TcpPduFdSm ---

TcpPduFdSm::TcpPduFdSm(const Mox::Ptr<TcpFd>& fd, TcpPduPam* pam) : pam_(pam) {
  notifierIs(fd.get());
}

void TcpPduFdSm::onSocketReadableCount() {
  pam_->readableCountInc();
  pam_->handleSocketReadable();
}

void TcpPduFdSm::onSocketWritableCount() {
  pam_->writableCountInc();
  pam_->handleSocketWritable();
}

// --- TcpPduPam ---

Mox::Ptr<TcpPduPam> tcpPduPamFactory(const Mox::Ptr<TcpFd>& fd) {
  return Mox::Ptr<TcpPduPam>(new TcpPduPam("TcpPduPam", fd));
}

TcpPduPam::TcpPduPam(const Mox::Name& name, const Mox::Ptr<TcpFd>& fd) : TcpPduPamBase(name, fd) {}

TcpPduPam::~TcpPduPam() {
  cleanup();
}

void TcpPduPam::cleanup() {
  enabledIs(false);
  stopReactor();
}

void TcpPduPam::enableWithFdSmIs(bool enabled, const Mox::Ptr<TcpPduFdSm>& fdSm) {
  if (enabled) tcpPduFdSm_ = fdSm;
  enabledIs(enabled);
}

void TcpPduPam::handleEnabled() {
  if (!enabled()) {
    stopReactor();
    return;
  }
  if (!tcpPduFdSm_) tcpPduFdSm_ = Mox::make<TcpPduFdSm>(fd(), this);
  handleKeepaliveOptions();
  fd()->notifyOnReadableIs(true);
  MOX_ASSERT_TEXT(fd()->notifyOnReadable(), "fd()->notifyOnReadable()");
  fd()->enabledIs(true);
  if (!txPktHolderShadow() && txIovHolderShadow_.empty()) writableIs(true);
}

void TcpPduPam::stopReactor() {
  tcpPduFdSm_ = nullptr;
  fd()->enabledIs(false);
  txPktHolderShadowDel();
  txIovHolderShadow_.clear();
  txIovShadowBytes_.clear();
  rxPktHolderShadowDel();
  lastRxBuffer_ = nullptr;
  rxRemainingLengthDel();
  txRemainingLengthDel();
  readableIs(false);
  writableIs(false);
}

void TcpPduPam::handleKeepaliveOptions() {
  const int sd = fd()->descriptor();
  if (sd == -1) return;
  const TcpKeepaliveOptions& opts = keepaliveOpts();
  const bool on = opts.idleTime() != 0 && opts.probeInterval() != 0 && opts.probeCount() != 0;
  const std::pair<KeepaliveStep, int> steps[] = {{keepaliveStep, on ? 1 : 0},
                                                 {keepIdleStep, int(opts.idleTime())},
                                                 {keepIntervalStep, int(opts.probeInterval())},
                                                 {keepCountStep, int(opts.probeCount())}};
  for (const auto& [step, value] : std::span(steps, on ? 4 : 1)) {
    if (setsockopt(sd, step.level, step.option, &value, sizeof value) == 0) continue;
    char reason[160];
    std::snprintf(reason, sizeof reason, step.failure, strerror(errno));
    MOX_TRACE(trace, 0, name() << ": " << reason);
    tcpOptErrorsInc();
    tcpOptErrorReasonIs(reason);
    return;
  }
  if (on) {
    MOX_TRACE(trace, 3,
              name() << ": Setsockopt(): TCP Keepalive enabled ( idletime:" << opts.idleTime()
                     << ", probeinterval:" << opts.probeInterval()
                     << ", probetime:" << opts.probeCount() << ")");
  } else {
    MOX_TRACE(trace, 3, name() << ": Setsockopt(): TCP Keepalive disabled");
  }
}

U16 TcpPduPam::getPduSize() {
  MOX_ASSERT(0 && "Need to implement getRemainingLength in a derived class");
}

// --- receiving ---

Mox::Ptr<Pkt> TcpPduPam::newRxPkt() {
  const U32 capacity = maxPduLength();
  Mox::Ptr<Pkt> pkt;
  try {
    // The packet manager recycles only buffers of its default size, and a PDU buffer is
    // bigger: the buffer of the PDU handed over last is read into again once nobody else
    // holds it (then nobody can see its bytes change).
    Mox::Ptr<Pkt::SharedBuffer> buffer = std::move(lastRxBuffer_);
    if (!buffer || buffer->references() != 1 || buffer->size() < capacity) {
      buffer = globalPktManager()->newSharedBuffer(capacity);
    }
    // Empty at the very front: the whole PDU is read in place after it.
    buffer->delTailData(buffer->dataBytes());
    buffer->newHeadData(buffer->headRoom());
    buffer->delTailData(buffer->dataBytes());
    pkt = new Pkt;
    pkt->sharedBufferIs(std::move(buffer));
    pkt->delSharedTailData(0);
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
  MOX_ASSERT_TEXT(pkt->maxSharedData() >= maxPduLength(), "pkt->maxSharedData() >= maxPduLength()");
  return pkt;
}

TcpPduPamReadReturn TcpPduPam::readFromSocket() {
  if (!rxPktHolderShadow()) {
    Mox::Ptr<Pkt> fresh = newRxPkt();
    if (!fresh) return readError("Failed to allocate packet");
    rxPktHolderShadowIs(fresh);
  }
  Pkt& pkt = *rxPktHolderShadow();
  // Received PDUs sit in one piece of the shared buffer, with room for the largest after it.
  const Pkt::SharedBuffer& buffer = *pkt.sharedBuffer();
  const U32 dataRead = buffer.dataBytes();
  const U16 pduTotalLength = getPduSize();
  if (pduTotalLength > maxPduLength()) return readError("PDU length too big");
  MOX_ASSERT_TEXT(pduTotalLength >= dataRead, "pduTotalLength >= dataRead");
  // Kept here and published once per read: watchers see it after each read.
  const U16 remaining = U16(pduTotalLength - dataRead);

  U8* tail = buffer.data() + dataRead;
  const ssize_t received = recv(fd()->descriptor(), tail, remaining, MSG_DONTWAIT);
  if (received > 0) pkt.newSharedTailData(U32(received));
  rxRemainingLengthIs(U16(remaining - std::max<ssize_t>(received, 0)));
  if (received == 0) return readError("Connection closed by peer");
  if (received < 0) {
    const int error = errno;
    if (error == EAGAIN) return readResult(Result::waitForMoreData);
    // Interrupted before any byte: the bytes are still there, and an edge-triggered
    // watch would not report them again.
    if (error == EINTR) return readResult(Result::readMoreData);
    return readError("Recv failed with", error);
  }
  MOX_TRACE(trace, 9,
            name() << ": PDU size:" << pduTotalLength << " Remaining:" << rxRemainingLength());
  if (rxRemainingLength() != 0) return readResult(Result::readMoreData);
  // What was read may have completed a header that tells the real size.
  const U16 size = getPduSize();
  const U32 nowRead = dataRead + U32(received);
  if (size < nowRead) return readError("PDU length too small");
  if (size == nowRead) return readResult(Result::fullPduRead);
  return readResult(Result::readMoreData);
}

void TcpPduPam::readNextPdu() {
  reading_ = true;
  int delivered = 0;
  for (;;) {
    const TcpPduPamReadReturn read = readFromSocket();
    if (read.result() == Result::readMoreData) continue;
    if (read.result() == Result::waitForMoreData) break;
    if (read.result() == Result::error) {
      handleReadError(read.reason());
      break;
    }
    // A whole PDU: its owner may take it from the hook, and then the next one is read.
    readableIs(true);
    if (readable()) {
      if (fd()->levelTriggered()) fd()->notifyOnReadableIs(false);
      break;
    }
    if (fd()->levelTriggered() && ++delivered == pdusPerTurn) break;
  }
  reading_ = false;
}

void TcpPduPam::handleReadError(const Mox::String8& reason) {
  MOX_TRACE(trace, 1, name() << ": read error: " << reason);
  rxErrorReasonIs(reason);
  rxErrorsInc();
  rxPktHolderShadowDel();
  rxRemainingLengthIs(0);
  readableIs(false);
  fd()->notifyOnReadableIs(false);
}

void TcpPduPam::handleSocketReadable() {
  if (readable()) {
    if (fd()->edgeTriggered())
      MOX_TRACE(trace, 9, name() << ": Additional edgeTriggered notification");
    return;
  }
  if (!reading_) readNextPdu();
}

void TcpPduPam::doGetRxPkt() {
  if (!readable()) return;
  rxPktHolderIs(rxPktHolderShadow());
  lastRxBuffer_ = rxPktHolderShadow()->sharedBuffer();
  rxPktHolderShadowDel();
  rxRemainingLengthIs(0);
  readableIs(false);
  if (reading_ || !enabled()) return;
  if (fd()->levelTriggered()) {
    fd()->notifyOnReadableIs(true);
  } else {
    // No new edge comes for bytes that are already waiting.
    readNextPdu();
  }
}

// --- sending ---

void TcpPduPam::txPktIs(const Mox::Ptr<Pkt>& pkt) {
  MOX_ASSERT_TEXT(writable(), "writable()");
  sendPkt(pkt);
}

void TcpPduPam::txIovIs(const iovec* iov, U16 count) {
  MOX_ASSERT_TEXT(writable(), "writable()");
  sendIov(iov, count);
}

ssize_t TcpPduPam::sendPieces(const iovec* iov, size_t count) {
  msghdr msg{};
  msg.msg_iov = const_cast<iovec*>(iov);
  msg.msg_iovlen = count;
  ssize_t sent;
  do {
    sent = sendmsg(fd()->descriptor(), &msg, MSG_DONTWAIT | MSG_NOSIGNAL);
  } while (sent < 0 && errno == EINTR);
  if (sent >= 0) return sent;
  const int error = errno;
  if (error == EAGAIN) return 0;
  txErrorReasonIs(Mox::String8("Send failed with ") + strerror(error));
  handleWriteError();
  return -1;
}

void TcpPduPam::handleWriteError() {
  MOX_TRACE(trace, 1, name() << ": write error: " << txErrorReason());
  writableIs(false);
  txErrorsInc();
  // A failed socket stays writable to the kernel: a watch would report it every turn.
  fd()->notifyOnWritableIs(false);
}

void TcpPduPam::sendPkt(const Mox::Ptr<Pkt>& pkt) {
  MOX_ASSERT_TEXT(!txPktHolderShadow(), "!txPktHolderShadow()");
  MOX_ASSERT_TEXT(pkt->sharedBuffer()->dataBytes() <= maxPduLength(),
                  "pkt->sharedBuffer()->dataBytes() <= maxPduLength()");
  if (pkt->empty()) {
    MOX_TRACE(trace, 5, name() << ": Nothing to send");
    return;
  }
  txRemainingLengthIs(U16(pkt->bytes()));
  writeLengthIs(U16(pkt->bytes()));
  const ssize_t ret = sendPieces(pkt->iovecs(), pkt->iovecCount());
  if (ret < 0) return;
  if (ret < txRemainingLength()) {
    saveShadowPktCopy(pkt->iovecs(), pkt->iovecCount(), size_t(ret));
    MOX_TRACE(trace, 5, name() << ": Partial send " << ret << " of " << txRemainingLength());
    txRemainingLengthIs(U16(txRemainingLength() - ret));
    outOfWriteSpace();
    return;
  }
  MOX_ASSERT_TEXT(ret == txRemainingLength(), "ret == txRemainingLength()");
  txRemainingLengthIs(0);
  MOX_TRACE(trace, 9, name() << ": Sent " << ret << " bytes");
}

void TcpPduPam::sendIov(const iovec* iov, U16 count) {
  MOX_ASSERT_TEXT(iov != nullptr, "!iov");
  MOX_ASSERT_TEXT(txIovHolderShadow_.empty(), "!txIovHolderShadow()");
  const size_t total = piecesBytes(iov, count);
  MOX_ASSERT_TEXT(total <= maxPduLength(), "iovLength <= maxPduLength()");
  txRemainingLengthIs(U16(total));
  writeLengthIs(U16(total));
  const ssize_t ret = sendPieces(iov, count);
  if (ret < 0) return;
  if (size_t(ret) < total) {
    saveShadowIovCopy(iov, count, size_t(ret));
    txRemainingLengthIs(U16(total - ret));
    outOfWriteSpace();
    return;
  }
  txRemainingLengthIs(0);
  MOX_TRACE(trace, 9, name() << ": Sent " << ret << " bytes");
}

void TcpPduPam::saveShadowPktCopy(const iovec* iov, size_t count, size_t sent) {
  Mox::Ptr<Pkt> copy = globalPktManager()->newPkt();
  const size_t rest = piecesBytes(iov, count) - sent;
  if (copy->maxSharedData() < rest) {
    copy->sharedBufferIs(globalPktManager()->newSharedBuffer(U32(rest)));
  }
  U8* out = copy->newSharedHeadData(U32(rest));
  for (size_t i = 0; i < count; ++i) {
    const size_t skip = std::min(sent, iov[i].iov_len);
    sent -= skip;
    std::memcpy(out, static_cast<const U8*>(iov[i].iov_base) + skip, iov[i].iov_len - skip);
    out += iov[i].iov_len - skip;
  }
  txPktHolderShadowIs(copy);
}

void TcpPduPam::saveShadowIovCopy(const iovec* iov, U16 iovLen, size_t written) {
  // Find the piece the kernel stopped in.
  U16 curr = 0;
  while (written >= iov[curr].iov_len) {
    written -= iov[curr].iov_len;
    ++curr;
    MOX_ASSERT_TEXT(curr < iovLen, "curr < iovLen");
  }
  txIovShadowBytes_.clear();
  std::vector<size_t> lengths;
  for (U16 i = curr; i < iovLen; ++i) {
    const auto* start = static_cast<const U8*>(iov[i].iov_base) + written;
    txIovShadowBytes_.insert(txIovShadowBytes_.end(), start, start + iov[i].iov_len - written);
    lengths.push_back(iov[i].iov_len - written);
    written = 0;
  }
  MOX_ASSERT_TEXT(0 == written, "0 == written");
  txIovHolderShadow_.clear();
  U8* at = txIovShadowBytes_.data();
  for (size_t length : lengths) {
    txIovHolderShadow_.push_back({at, length});
    at += length;
  }
  MOX_TRACE(trace, 5,
            name() << ": Partial send " << txRemainingLength() << " bytes. Curr iovec:" << curr
                   << " bytes. Remaining to send " << txIovShadowBytes_.size());
}

void TcpPduPam::outOfWriteSpace() {
  writableIs(false);
  fd()->notifyOnWritableIs(true);
}

bool TcpPduPam::sendShadow() {
  if (Mox::Ptr<Pkt> shadow = txPktHolderShadow()) {
    const ssize_t ret = sendPieces(shadow->iovecs(), shadow->iovecCount());
    if (ret < 0) return false;
    if (size_t(ret) < shadow->bytes()) {
      shadow->delSharedHeadData(U32(ret));
      txRemainingLengthIs(U16(shadow->bytes()));
      return false;
    }
    txPktHolderShadowDel();
  }
  if (!txIovHolderShadow_.empty()) {
    const ssize_t ret = sendPieces(txIovHolderShadow_.data(), txIovHolderShadow_.size());
    if (ret < 0) return false;
    const size_t rest = txIovShadowBytes_.size() - size_t(ret);
    if (rest != 0) {
      // The pieces' boundaries no longer matter: the rest goes as one.
      txIovShadowBytes_.erase(txIovShadowBytes_.begin(), txIovShadowBytes_.begin() + ret);
      txIovHolderShadow_.assign(1, {txIovShadowBytes_.data(), rest});
      txRemainingLengthIs(U16(rest));
      return false;
    }
    txIovHolderShadow_.clear();
    txIovShadowBytes_.clear();
  }
  return true;
}

void TcpPduPam::handleSocketWritable() {
  if (!sendShadow()) return;
  writeCompleteAndSpaceAvailable();
}

void TcpPduPam::writeCompleteAndSpaceAvailable() {
  txRemainingLengthIs(0);
  writableIs(true);
  // Edge-triggered, the watch stays: re-arming it would cost a system call per send.
  if (fd()->levelTriggered()) fd()->notifyOnWritableIs(false);
}

}  // namespace Korva
