// Runs the built korva tool's addr command as a user would, through the shell.

#include <nlohmann/json.hpp>

#include <cstdio>
#include <sstream>

#include "KorvaToolRun.h"

namespace {

using KorvaTest::ToolRun;

class AddrCommand : public KorvaTest::KorvaTool {
 protected:
  AddrCommand() : KorvaTool("addr") {}
};

TEST_F(AddrCommand, ArgumentsPrintCanonicalTexts) {
  ToolRun r = run("00-11-22-33-44-55 0011.2233.4455 AA:BB:CC:DD:EE:FF");
  EXPECT_EQ(r.output, "00:11:22:33:44:55\n00:11:22:33:44:55\naa:bb:cc:dd:ee:ff\n");
  EXPECT_EQ(r.status, 0);
}

TEST_F(AddrCommand, StandardInputOneLinePerInputAndFailuresSetTheStatus) {
  ToolRun r = run("", "00:11:22:33:44:55\r\n00-11-22-33-44\n0-1-2-3-4-5\n");
  EXPECT_EQ(r.output, "00:11:22:33:44:55\nerror: Invalid EthAddr\n00:01:02:03:04:05\n");
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(run("", "").output, "");
  EXPECT_EQ(run("", "").status, 0);
}

TEST_F(AddrCommand, PicksTheMostSpecificIpv4Type) {
  ToolRun r = run("001.002.003.004 10.0.0.0/8 10.0.0.1/8 1.2.3.4.5 10.0.0.0/ 10.0.0.0/8x");
  EXPECT_EQ(r.output,
            "1.2.3.4\n10.0.0.0/8\n10.0.0.1/8\nerror: Invalid IpAddr\n"
            "error: premature end of Prefix type\n"
            "error: Invalid Prefix - non-zero after prefixlen\n");
  EXPECT_EQ(r.status, 1);
}

TEST_F(AddrCommand, TellsIpv6FromMacByTheColons) {
  ToolRun r = run("2001:DB8::1 1:2:3:4:5:6 1:2:3:4:5::6 fe80::/10 2001:db8::1/64");
  EXPECT_EQ(r.output, "2001:db8::1\n01:02:03:04:05:06\n1:2:3:4:5::6\nfe80::/10\n2001:db8::1/64\n");
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(run("00:11:22:33:44:100").output, "error: Invalid EthAddr\n");
  EXPECT_EQ(nlohmann::json::parse(run("--json 2001:db8::/64").output)["type"], "ip6prefix");
}

TEST_F(AddrCommand, ForcedTypes) {
  EXPECT_EQ(run("--type ipgenaddr 10.0.0.1 ::1").output, "10.0.0.1\n::1\n");
  EXPECT_EQ(run("--type ipgenprefix 10.0.0.0/8 ::/0").output, "10.0.0.0/8\n::/0\n");
  EXPECT_EQ(run("--type ip6addr 10.0.0.1").status, 1);
  EXPECT_EQ(run("--type prefix 10.0.0.1/8").output,
            "error: Invalid Prefix - non-zero after prefixlen\n");
  EXPECT_EQ(run("--type ipaddr 0011.2233.4455").output, "error: Invalid IpAddr\n");
  EXPECT_EQ(run("--type ethaddr 10.0.0.1").output, "error: Invalid EthAddr\n");
  EXPECT_EQ(run("--type eui64 0011.2233.4455.6677").output, "00:11:22:33:44:55:66:77\n");
  ToolRun labels = run("--type mplslabel 3 8388609");
  EXPECT_EQ(labels.output,
            "3\nerror: MplsLabel::value < MplsLabel::min or > MplsLabel::luWithdraw not allowed\n");
  EXPECT_EQ(labels.status, 1);
  EXPECT_NE(run("--type nosuchtype 1").status, 0);
}

TEST_F(AddrCommand, JsonCarriesTypeTextFamilyHashAndPredicates) {
  ToolRun r = run("--json", "ff:ff:ff:ff:ff:ff\nnot-an-address\n224.0.0.13\n");
  std::istringstream lines(r.output);
  std::string line;
  ASSERT_TRUE(std::getline(lines, line));
  auto broadcast = nlohmann::json::parse(line);
  EXPECT_EQ(broadcast["type"], "ethaddr");
  EXPECT_EQ(broadcast["text"], "ff:ff:ff:ff:ff:ff");
  EXPECT_EQ(broadcast["family"], "ethernet");
  EXPECT_EQ(broadcast["hash"], 0x4d7a068au);
  EXPECT_EQ(broadcast["predicates"], nlohmann::json::array({"isBroadcast"}));
  ASSERT_TRUE(std::getline(lines, line));
  auto failure = nlohmann::json::parse(line);
  EXPECT_EQ(failure["input"], "not-an-address");
  EXPECT_EQ(failure["error"], "Invalid EthAddr");
  ASSERT_TRUE(std::getline(lines, line));
  auto group = nlohmann::json::parse(line);
  EXPECT_EQ(group["type"], "ipaddr");
  EXPECT_EQ(group["family"], "ipv4");
  EXPECT_EQ(group["predicates"],
            nlohmann::json::array({"isMulticast", "isReservedMulticast", "isPimRouters"}));
  EXPECT_FALSE(std::getline(lines, line));
  EXPECT_EQ(r.status, 1);
}

TEST_F(AddrCommand, ManyLinesInOneRun) {
  std::string input;
  std::string expected;
  for (int i = 0; i < 20000; ++i) {
    char text[32];
    std::snprintf(text, sizeof text, "%x-%x-%x-%x-%x-%x", i & 0xff, i >> 8, 1, 2, 3, 4);
    input += text;
    input += '\n';
    std::snprintf(text, sizeof text, "%02x:%02x:01:02:03:04\n", i & 0xff, i >> 8);
    expected += text;
  }
  ToolRun r = run("", input);
  EXPECT_EQ(r.output, expected);
  EXPECT_EQ(r.status, 0);
}

}  // namespace
