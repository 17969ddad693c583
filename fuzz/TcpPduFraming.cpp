// A byte stream framed into PDUs by SimpleTcpPduPam, over a real connected stream pair.
// The first input byte picks the watch (bit 0: edge-triggered), whether the peer closes at
// the end (bit 1) and the largest PDU (bits 2-3); the rest is pieces, each a length byte
// then that many bytes, written one at a time. The PDUs delivered are those an independent
// framing by the length field finds, in order, whole and once (held ones never change); a
// bad length ends the read with its reason and nothing is read after it; without an error
// the PDU being assembled holds exactly the unframed rest.
#include "FuzzCheck.h"

#include <Korva/SimpleTcpPduPam.h>
#include <Mox/Activity.h>

#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>
#include <vector>

using namespace KorvaFuzz;
using Korva::U16;

namespace {

std::string_view input;

// What a reader framing by bytes 2-3 of each 20-byte header must deliver and report.
struct Framing {
  std::vector<std::string> pdus;
  std::string rest;    // the start of the next PDU
  std::string reason;  // of the read error, if any
};

Framing frame(const std::string& stream, size_t maxPdu) {
  Framing framing;
  size_t at = 0;
  while (stream.size() - at >= Korva::SimpleTcpPduPam::headerBytes) {
    const size_t length = size_t(Mox::U8(stream[at + 2])) << 8 | Mox::U8(stream[at + 3]);
    if (length < Korva::SimpleTcpPduPam::headerBytes) framing.reason = "PDU length too small";
    if (length > maxPdu) framing.reason = "PDU length too big";
    if (!framing.reason.empty() || stream.size() - at < length) break;
    framing.pdus.push_back(stream.substr(at, length));
    at += length;
  }
  framing.rest = stream.substr(at);
  return framing;
}

// Takes every PDU as it comes, keeping every other one to see that nobody reuses its bytes.
struct Collector : Korva::TcpPduPam::Notifiee {
  explicit Collector(Korva::TcpPduPam* pam) { notifierIs(pam); }
  void onReadable() override {
    if (!notifier()->readable()) return;
    const Mox::Ptr<Korva::Pkt> pkt = notifier()->rxPkt();
    pdus.push_back(pkt->stringValue());
    if (pdus.size() % 2) held.emplace_back(pkt, pdus.size() - 1);
  }
  std::vector<std::string> pdus;
  std::vector<std::pair<Mox::Ptr<Korva::Pkt>, size_t>> held;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 1) return 0;
  input = std::string_view(reinterpret_cast<const char*>(data), size);
  const bool edge = data[0] & 1, closes = data[0] & 2;
  static constexpr U16 maxPdus[] = {9600, 20, 100, 65535};
  const U16 maxPdu = maxPdus[data[0] >> 2 & 3];
  int pair[2];
  require(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair) == 0, "a stream pair", input);
  const Mox::Ptr<Korva::TcpFd> fd = Korva::tcpFdFactory("fuzz");
  fd->descriptorIs(pair[0]);
  fd->edgeTriggeredIs(edge);
  const Mox::Ptr<Korva::SimpleTcpPduPam> pam = Korva::simpleTcpPduPamFactory(fd);
  pam->maxPduLengthIs(maxPdu);
  Collector collector(pam.get());
  pam->enabledIs(true);

  std::string sent;
  for (size_t at = 1; at < size;) {
    const size_t length = std::min<size_t>(data[at], size - at - 1);
    const char* piece = reinterpret_cast<const char*>(data + at + 1);
    at += 1 + length;
    require(send(pair[1], piece, length, MSG_DONTWAIT) == ssize_t(length), "a piece is sent",
            input);
    if (pam->rxErrors()) continue;  // nothing is read after an error
    sent.append(piece, length);
    int unread = -1;
    require(Mox::runUntil(
                [&] {
                  return pam->rxErrors() > 0 ||
                         (ioctl(pair[0], FIONREAD, &unread) == 0 && unread == 0);
                },
                5.0),
            "the piece is read", input);
  }
  if (closes) {
    close(pair[1]);
    pair[1] = -1;
    require(Mox::runUntil([&] { return pam->rxErrors() > 0; }, 5.0), "the close is seen", input);
  }
  Mox::runOnce();

  const Framing expected = frame(sent, maxPdu);
  require(collector.pdus == expected.pdus, "delivered PDUs differ from the framing", input);
  for (const auto& [pkt, index] : collector.held) {
    require(pkt->stringValue() == collector.pdus[index], "a held PDU changed", input);
  }
  const std::string reason =
      expected.reason.empty() && closes ? "Connection closed by peer" : expected.reason;
  require(pam->rxErrorReason() == reason && pam->rxErrors() == (reason.empty() ? 0u : 1u),
          "read error: <" + pam->rxErrorReason() + "> expected <" + reason + ">", input);
  const Mox::Ptr<Korva::Pkt> assembling = pam->rxPktHolderShadow();
  const std::string partial = assembling ? assembling->stringValue() : "";
  require(partial == (reason.empty() ? expected.rest : ""), "the PDU being assembled differs",
          input);
  pam->cleanup();
  fd->cleanup();
  if (pair[1] >= 0) close(pair[1]);
  return 0;
}
