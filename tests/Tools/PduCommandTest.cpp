// Runs the built korva tool's pdu commands as an operator would: a server and a client in a
// throwaway namespace, the client started first.

#include <signal.h>

#include "Korva/SocketTestUtil.h"
#include "KorvaToolRun.h"

namespace {

class PduCommand : public KorvaTest::KorvaTool {
 protected:
  PduCommand() : KorvaTool("pdu") {}
  std::string korva_ = std::string(KORVA_BINARY_DIR) + "/korva";
  std::string serverOutput_ = ::testing::TempDir() + "korva-pdu-serve-" + std::to_string(getpid());
};

TEST_F(PduCommand, AServerEchoesEveryLineOfAClientAsOnePdu) {
  SocketTest::ScopedNs ns("pdu");
  if (!ns.created()) GTEST_SKIP() << "needs CAP_SYS_ADMIN to create network namespaces";
  ASSERT_TRUE(ns.ip("link set lo up"));
  // The shell hands back the server's id; the client backs off until the server listens.
  FILE* started = popen((korva_ + " pdu serve --netns " + ns.name() +
                         " --addr 127.0.0.1 --port 7560 > " + serverOutput_ + " & echo $!")
                            .c_str(),
                        "r");
  ASSERT_TRUE(started);
  int serverPid = 0;
  ASSERT_EQ(std::fscanf(started, "%d", &serverPid), 1);
  pclose(started);

  const KorvaTest::ToolRun client =
      run("connect --netns " + ns.name() + " 127.0.0.1 7560", "one\nthree\n");
  kill(serverPid, SIGTERM);
  EXPECT_EQ(client.status, 0) << client.output;
  EXPECT_NE(client.output.find("echo 23 bytes: 00 00 00 17 00 00 00 00 | \"one\""),
            std::string::npos)
      << client.output;
  EXPECT_NE(client.output.find("echo 25 bytes: 00 00 00 19 00 00 00 00 | \"three\""),
            std::string::npos);
  std::ifstream served(serverOutput_);
  const std::string serverText((std::istreambuf_iterator<char>(served)), {});
  EXPECT_NE(serverText.find(": 25 bytes: 00 00 00 19 00 00 00 00 | \"three\""), std::string::npos)
      << serverText;
  std::remove(serverOutput_.c_str());
}

TEST_F(PduCommand, BadArgumentsFailWithAMessage) {
  EXPECT_EQ(run("connect 1.2.3 179").status, 2);
  EXPECT_NE(run("serve --port 0").status, 0);
  EXPECT_NE(run("connect 10.0.0.1").status, 0);
  EXPECT_EQ(run("serve --netns korva-no-such-ns --port 7561").status, 2);
  EXPECT_EQ(run("connect --netns korva-no-such-ns 127.0.0.1 7561").status, 2);
}

}  // namespace
