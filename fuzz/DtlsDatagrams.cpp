// Arbitrary datagrams sent to a DTLS server Pam on the loopback, from a plain UDP socket.
// An input is datagrams, each a length byte then that many bytes. Whatever came, no session
// starts (a session needs the cookie exchange, whose HMAC cannot be guessed), and a real
// ClientHello sent after them is still answered with a HelloVerifyRequest.
#include "FuzzCheck.h"

#include <Korva/UdpPamDtls.h>
#include <Mox/Activity.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <openssl/bio.h>
#include <openssl/ssl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <memory>
#include <string>

using namespace KorvaFuzz;

namespace {

std::string_view input;

// A self-signed certificate and its key, in a folder that goes with the run.
struct Certificate {
  Certificate() {
    char folder[] = "/tmp/korva-fuzz-dtls-XXXXXX";
    require(mkdtemp(folder) != nullptr, "a folder for the certificate", "");
    dir = folder;
    const std::string script = "cd " + dir +
                               " && openssl req -x509 -newkey ec -pkeyopt "
                               "ec_paramgen_curve:P-256 -nodes -keyout key.pem -out cert.pem"
                               " -subj /CN=fuzz -days 2 && cat cert.pem key.pem > both.pem";
    require(std::system(("(" + script + ") >/dev/null 2>&1").c_str()) == 0,
            "openssl makes a certificate", "");
  }
  ~Certificate() { std::system(("rm -rf " + dir).c_str()); }
  std::string dir;
};

// The first flight of a real DTLS 1.2 client, taken from memory BIOs.
std::string clientHello() {
  std::unique_ptr<SSL_CTX, decltype(&SSL_CTX_free)> ctx(SSL_CTX_new(DTLS_client_method()),
                                                        SSL_CTX_free);
  std::unique_ptr<SSL, decltype(&SSL_free)> ssl(SSL_new(ctx.get()), SSL_free);
  BIO* out = BIO_new(BIO_s_mem());
  SSL_set_bio(ssl.get(), BIO_new(BIO_s_mem()), out);
  SSL_set_options(ssl.get(), SSL_OP_NO_QUERY_MTU);
  DTLS_set_link_mtu(ssl.get(), 1400);
  SSL_connect(ssl.get());  // wants to read, its hello written
  char* bytes = nullptr;
  const long length = BIO_get_mem_data(out, &bytes);
  return std::string(bytes, size_t(length));
}

struct Loopback {
  Loopback() {
    server = Korva::udpPamDtlsServerFactory("fuzz", Korva::DtlsConstants::dtlsV12(), "DEFAULT",
                                            certificate.dir + "/both.pem",
                                            certificate.dir + "/cert.pem", "");
    server->rxIpAddrIs(Korva::IpAddr(127, 0, 0, 1));
    server->modeIs(Korva::UdpPam::Mode::server);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(server->rxPortLocal());
    client = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    require(
        client >= 0 && connect(client, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0,
        "a client socket connected to the server", "");
  }
  ~Loopback() { close(client); }

  // Sends the datagram and lets the server read everything it has.
  void send(const void* bytes, size_t length) {
    require(::send(client, bytes, length, 0) == ssize_t(length), "the datagram is sent", input);
    const Mox::U32 before = server->readableCount();
    require(Mox::runUntil([&] { return server->readableCount() != before; }, 5.0),
            "the server reads the datagram", input);
  }
  // The last datagram the server sent back, dropping the others.
  std::string lastAnswer() {
    std::string last;
    char buffer[2048];
    for (ssize_t n; (n = recv(client, buffer, sizeof buffer, MSG_DONTWAIT)) >= 0;) {
      last.assign(buffer, size_t(n));
    }
    return last;
  }

  Certificate certificate;
  Mox::Ptr<Korva::UdpPamDtlsServer> server;
  int client = -1;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static Loopback loopback;
  static const std::string hello = clientHello();
  input = std::string_view(reinterpret_cast<const char*>(data), size);
  while (size > 0) {
    const size_t length = std::min<size_t>(data[0], size - 1);
    loopback.send(data + 1, length);
    data += 1 + length;
    size -= 1 + length;
  }
  require(loopback.server->udpPamDtlsSessionColl().empty(), "a session started without a cookie",
          input);
  loopback.lastAnswer();
  loopback.send(hello.data(), hello.size());
  const std::string answer = loopback.lastAnswer();
  // A handshake record (22) carrying a HelloVerifyRequest (handshake type 3).
  require(answer.size() > 14 && answer[0] == 22 && answer[13] == 3,
          "a real hello is no longer answered", input);
  return 0;
}
