// `korva demo` step: DTLS across the demo's two namespaces. A throwaway CA signs a server
// and a client certificate made for the demo; a UdpPamDtlsServer echoes what a
// UdpPamDtlsClient sends, the first packet before there is a handshake. Runs DTLS 1.2 and
// then 1.0; the certificates, Pams and namespaces are removed whatever happens.

#include "Command.h"
#include "DemoNs.h"

#include <Korva/UdpPamDtls.h>
#include <Mox/Activity.h>
#include <Mox/Exception.h>

#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509v3.h>

#include <stdlib.h>
#include <unistd.h>

#include <cstdio>
#include <memory>
#include <string>

namespace {

using Korva::UdpPamDtls;
using KorvaTool::ThrowawayNs;
using Mox::Ptr;

constexpr Mox::U16 kServerPort = 7100;
constexpr double kTimeoutSeconds = 5.0;

using Key = std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)>;
using Certificate = std::unique_ptr<X509, decltype(&X509_free)>;

// A certificate for `key` named `commonName`, valid for an hour, signed by the issuer's key
// (itself when there is no issuer certificate: then it is the CA).
Certificate certify(EVP_PKEY* key, const char* commonName, X509* issuer, EVP_PKEY* issuerKey,
                    long serial) {
  Certificate cert(X509_new(), X509_free);
  X509_set_version(cert.get(), 2);
  ASN1_INTEGER_set(X509_get_serialNumber(cert.get()), serial);
  X509_gmtime_adj(X509_getm_notBefore(cert.get()), 0);
  X509_gmtime_adj(X509_getm_notAfter(cert.get()), 3600);
  X509_set_pubkey(cert.get(), key);
  X509_NAME_add_entry_by_txt(X509_get_subject_name(cert.get()), "CN", MBSTRING_ASC,
                             reinterpret_cast<const unsigned char*>(commonName), -1, -1, 0);
  X509_set_issuer_name(cert.get(), X509_get_subject_name(issuer ? issuer : cert.get()));
  X509V3_CTX context;
  X509V3_set_ctx(&context, issuer ? issuer : cert.get(), cert.get(), nullptr, nullptr, 0);
  X509_EXTENSION* constraints = X509V3_EXT_conf_nid(nullptr, &context, NID_basic_constraints,
                                                    issuer ? "CA:FALSE" : "critical,CA:TRUE");
  const bool ok = constraints && X509_add_ext(cert.get(), constraints, -1) &&
                  X509_sign(cert.get(), issuerKey, EVP_sha256()) > 0;
  X509_EXTENSION_free(constraints);
  if (!ok) cert.reset();
  return cert;
}

// The demo's CA, server and client certificates in a private folder removed again when
// this goes: ca.pem, server.pem and client.pem (certificate and key in one file).
class DemoCertificates {
 public:
  DemoCertificates() {
    char dir[] = "/tmp/korva-demo-dtls-XXXXXX";
    if (!mkdtemp(dir)) return;
    dir_ = dir;
    Key caKey(EVP_EC_gen("P-256"), EVP_PKEY_free);
    Certificate ca = caKey ? certify(caKey.get(), "korva demo CA", nullptr, caKey.get(), 1)
                           : Certificate(nullptr, X509_free);
    made_ = ca && write("ca.pem", ca.get(), nullptr) &&
            issue("server.pem", "korva demo server", ca.get(), caKey.get(), 2) &&
            issue("client.pem", "korva demo client", ca.get(), caKey.get(), 3);
  }
  ~DemoCertificates() {
    if (dir_.empty()) return;
    for (const char* file : {"ca.pem", "server.pem", "client.pem"}) unlink(path(file).c_str());
    rmdir(dir_.c_str());
  }
  bool made() const { return made_; }
  std::string path(const char* file) const { return dir_ + "/" + file; }

 private:
  bool issue(const char* file, const char* commonName, X509* ca, EVP_PKEY* caKey, long serial) {
    Key key(EVP_EC_gen("P-256"), EVP_PKEY_free);
    if (!key) return false;
    Certificate cert = certify(key.get(), commonName, ca, caKey, serial);
    return cert && write(file, cert.get(), key.get());
  }
  bool write(const char* file, X509* cert, EVP_PKEY* key) const {
    BIO* out = BIO_new_file(path(file).c_str(), "w");
    const bool ok =
        out && PEM_write_bio_X509(out, cert) &&
        (!key || PEM_write_bio_PrivateKey(out, key, nullptr, nullptr, 0, nullptr, nullptr));
    BIO_free(out);
    return ok;
  }

  std::string dir_;
  bool made_ = false;
};

// Prints each record a Pam reads; a server echoes it to its sender.
class Peer : public UdpPamDtls::Notifiee {
 public:
  Peer(const char* role, UdpPamDtls* pam, bool echoes) : role_(role), echoes_(echoes) {
    notifierIs(pam);
  }
  void onReadableDataCount() override {
    UdpPamDtls& pam = *notifier();
    while (Ptr<Korva::Pkt> pkt = pam.rxPkt()) {
      std::printf("  %s got \"%s\" from %s port %u\n", role_, pkt->stringValue().c_str(),
                  pam.rxSrcIpAddr().stringValue().c_str(), pam.rxSrcPort());
      ++received_;
      if (!echoes_) continue;
      pam.txDstIpAddrIs(pam.rxSrcIpAddr());
      pam.txPortIs(pam.rxSrcPort());
      pam.txPktIs(pkt);
    }
  }
  int received() const { return received_; }

 private:
  const char* role_;
  bool echoes_;
  int received_ = 0;
};

bool exchange(const DemoCertificates& certificates, const ThrowawayNs& serverNs,
              const ThrowawayNs& clientNs, Mox::U8 version, const char* versionText) {
  Ptr<Korva::UdpPamDtlsServer> server = Korva::udpPamDtlsServerFactory(
      "demo-dtls-server", version, "DEFAULT", certificates.path("server.pem"),
      certificates.path("ca.pem"), "");
  server->netNsIs(Korva::NamespaceName(serverNs.name()));
  server->rxPortIs(kServerPort);
  server->modeIs(Korva::UdpPam::Mode::server);
  Ptr<Korva::UdpPamDtlsClient> client =
      Korva::udpPamDtlsClientFactory("demo-dtls-client", version, "DEFAULT",
                                     certificates.path("client.pem"), certificates.path("ca.pem"));
  client->netNsIs(Korva::NamespaceName(clientNs.name()));
  client->txDstIpAddrIs(Korva::IpAddr(10, 99, 0, 1));
  client->txPortIs(kServerPort);
  client->modeIs(Korva::UdpPam::Mode::client);
  Peer serverSide("server", server.get(), true);
  Peer clientSide("client", client.get(), false);

  Ptr<Korva::Pkt> pkt = Korva::globalPktManager()->newPkt();
  pkt->stringValueIs(std::string("hello over DTLS ") + versionText);
  client->txPktIs(pkt);
  std::printf("  DTLS %s: client sent its first packet before the handshake\n", versionText);
  const bool answered = Mox::runUntil([&] { return clientSide.received() == 1; }, kTimeoutSeconds);
  std::printf("  DTLS %s: server has %zu session(s); client sent %llu, server received %llu\n",
              versionText, server->udpPamDtlsSessionColl().size(),
              static_cast<unsigned long long>(client->txPkts()),
              static_cast<unsigned long long>(server->rxPkts()));
  if (!answered)
    std::printf("  no answer over DTLS %s within %.0f s\n", versionText, kTimeoutSeconds);
  client->destroy();
  server->destroy();
  return answered;
}

int runDtlsDemo() {
  if (!KorvaTool::demoCapabilitiesPresent()) return 1;
  const DemoCertificates certificates;
  if (!certificates.made()) {
    std::printf("  could not make the demo's certificates\n");
    return 1;
  }
  std::printf("  throwaway CA, server and client certificates in %s\n",
              certificates.path("").c_str());
  const ThrowawayNs serverNs("dtls-server");
  const ThrowawayNs clientNs("dtls-client");
  if (!KorvaTool::joinByVeth(serverNs, clientNs)) return 1;
  try {
    if (!exchange(certificates, serverNs, clientNs, Korva::DtlsConstants::dtlsV12(), "1.2") ||
        !exchange(certificates, serverNs, clientNs, Korva::DtlsConstants::dtlsV1(), "1.0")) {
      return 1;
    }
  } catch (const std::exception& error) {
    std::printf("  DTLS set-up failed: %s\n", error.what());
    return 1;
  }
  std::printf("  removing the certificates, %s and %s\n", serverNs.name().c_str(),
              clientNs.name().c_str());
  return 0;
}

const bool registered =
    KorvaTool::registerDemoStep({35, "DTLS across two namespaces", runDtlsDemo});

}  // namespace
