#include <gtest/gtest.h>

#include <string>

#include "Korva/DtlsTestUtil.h"
#include "Korva/SocketTestUtil.h"

namespace {

const std::string kKorva = std::string(KORVA_BINARY_DIR) + "/korva";

class DtlsCommandTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() { certificates_ = new DtlsTest::Certificates(); }
  static void TearDownTestSuite() {
    delete certificates_;
    certificates_ = nullptr;
  }
  void SetUp() override {
    if (!certificates_->made()) GTEST_SKIP() << "the openssl command could not make certificates";
    ns_ = std::make_unique<SocketTest::ScopedNs>("dtlscmd");
    if (!ns_->created()) GTEST_SKIP() << "needs CAP_SYS_ADMIN to create network namespaces";
    ASSERT_TRUE(ns_->ip("link set lo up"));
  }
  static std::string file(const std::string& name) { return certificates_->path(name); }
  // `korva dtls <words>` with the namespace and the certificates of `role`.
  std::vector<std::string> korva(const std::vector<std::string>& words, const std::string& role) {
    std::vector<std::string> command{kKorva, "dtls"};
    command.insert(command.end(), words.begin(), words.end());
    command.insert(command.end(), {"--netns", ns_->name(), "--cert", file(role + ".crt"), "--key",
                                   file(role + ".key"), "--ca", file("ca.pem")});
    return command;
  }

  static inline DtlsTest::Certificates* certificates_ = nullptr;
  std::unique_ptr<SocketTest::ScopedNs> ns_;
};

TEST_F(DtlsCommandTest, ServeEchoesEachLineConnectSends) {
  for (const char* version : {"1.2", "1.0"}) {
    SCOPED_TRACE(version);
    DtlsTest::Peer server(
        korva({"serve", "--addr", "127.0.0.1", "--port", "4460", "--version", version}, "server"));
    ASSERT_TRUE(server.prints("listening on 127.0.0.1:4460")) << server.drained();
    DtlsTest::Peer client(korva({"connect", "127.0.0.1", "4460", "--version", version}, "client"));
    client.send("first line\nsecond line\nlast, unterminated");
    client.closeInput();
    EXPECT_EQ(client.exitStatus(), 0);
    EXPECT_EQ(client.drained(), "first line\nsecond line\nlast, unterminated\n");
    EXPECT_TRUE(server.prints(": last, unterminated")) << server.drained();
  }
}

TEST_F(DtlsCommandTest, BadFilesAndArgumentsExitNonZeroWithTheMessage) {
  std::vector<std::string> noCertificate = korva({"serve", "--port", "4461"}, "server");
  noCertificate[noCertificate.size() - 5] = noCertificate[noCertificate.size() - 3] =
      file("missing.pem");
  DtlsTest::Peer missing(noCertificate);
  EXPECT_NE(missing.exitStatus(), 0);
  EXPECT_NE(missing.drained().find("SSL_CTX_use_certificate_file error"), std::string::npos);
  std::vector<std::string> wrongKey = korva({"connect", "127.0.0.1", "4461"}, "client");
  wrongKey[wrongKey.size() - 3] = file("server.key");
  DtlsTest::Peer mismatch(wrongKey);
  EXPECT_NE(mismatch.exitStatus(), 0);
  EXPECT_NE(mismatch.drained().find("SSL_CTX_use_PrivateKey_file error"), std::string::npos);
  DtlsTest::Peer version(korva({"connect", "127.0.0.1", "4461", "--version", "1.1"}, "client"));
  EXPECT_NE(version.exitStatus(), 0);
}

}  // namespace
