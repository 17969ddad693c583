// Runs the built korva tool's pdu commands as an operator would: a server and a client in a
// throwaway namespace, the client started first.

#include "Korva/DtlsTestUtil.h"
#include "KorvaToolRun.h"

namespace {

class PduCommand : public KorvaTest::KorvaTool {
 protected:
  PduCommand() : KorvaTool("pdu") {}
};

TEST_F(PduCommand, AServerEchoesEveryLineOfAClientAsOnePdu) {
  SocketTest::ScopedNs ns("pdu");
  if (!ns.created()) GTEST_SKIP() << "needs CAP_SYS_ADMIN to create network namespaces";
  ASSERT_TRUE(ns.ip("link set lo up"));
  // The client backs off until the server listens.
  DtlsTest::Peer server({std::string(KORVA_BINARY_DIR) + "/korva", "pdu", "serve", "--netns",
                         ns.name(), "--addr", "127.0.0.1", "--port", "7560"});
  const KorvaTest::ToolRun client =
      run("connect --netns " + ns.name() + " 127.0.0.1 7560", "one\nthree\n");
  EXPECT_EQ(client.status, 0) << client.output;
  EXPECT_NE(client.output.find("echo 23 bytes: 00 00 00 17 00 00 00 00 | \"one\""),
            std::string::npos)
      << client.output;
  EXPECT_NE(client.output.find("echo 25 bytes: 00 00 00 19 00 00 00 00 | \"three\""),
            std::string::npos);
  EXPECT_TRUE(server.prints(": 25 bytes: 00 00 00 19 00 00 00 00 | \"three\"")) << server.drained();
}

TEST_F(PduCommand, BadArgumentsFailWithAMessage) {
  EXPECT_EQ(run("connect 1.2.3 179").status, 2);
  EXPECT_NE(run("serve --port 0").status, 0);
  EXPECT_NE(run("connect 10.0.0.1").status, 0);
  EXPECT_EQ(run("serve --netns korva-no-such-ns --port 7561").status, 2);
  EXPECT_EQ(run("connect --netns korva-no-such-ns 127.0.0.1 7561").status, 2);
}

}  // namespace
