#pragma once
// A throwaway CA with a server and a client certificate (EC P-256, valid for an hour), made
// with the OpenSSL API for the demo's DTLS step and the DTLS benchmarks: ca.pem, server.pem
// and client.pem (certificate and key in one file) in a private folder that is removed
// again when the object goes.

#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509v3.h>

#include <stdlib.h>
#include <unistd.h>

#include <memory>
#include <string>

namespace KorvaTool {

using Key = std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)>;
using Certificate = std::unique_ptr<X509, decltype(&X509_free)>;

// A certificate for `key` named `commonName`, valid for an hour, signed by the issuer's key
// (itself when there is no issuer certificate: then it is the CA).
inline Certificate certify(EVP_PKEY* key, const char* commonName, X509* issuer, EVP_PKEY* issuerKey,
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

}  // namespace KorvaTool
