#include <gtest/gtest.h>

#include <algorithm>
#include <sstream>
#include <string>
#include <vector>

#include "Korva/DtlsTestUtil.h"

namespace {

const std::string kKorva = std::string(KORVA_BINARY_DIR) + "/korva";

std::vector<std::string> sortedLines(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  std::sort(lines.begin(), lines.end());
  return lines;
}

class DtlsCommandTest : public DtlsTest::Fixture {
 protected:
  // `korva dtls <words>` with the namespace and the certificates of `role`.
  std::vector<std::string> korva(const std::vector<std::string>& words, const std::string& role) {
    std::vector<std::string> command{kKorva, "dtls"};
    command.insert(command.end(), words.begin(), words.end());
    command.insert(command.end(), {"--netns", ns(), "--cert", file(role + ".crt"), "--key",
                                   file(role + ".key"), "--ca", file("ca.pem")});
    return command;
  }
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
    // Records are datagrams: DTLS delivers each once but promises no order (OpenSSL hands
    // out a record that arrived during the server's last handshake step after later ones).
    EXPECT_EQ(sortedLines(client.drained()),
              (std::vector<std::string>{"first line", "last, unterminated", "second line"}));
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
