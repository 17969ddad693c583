// Runs the built korva tool's addr command as a user would, through the shell.

#include <nlohmann/json.hpp>

#include <cstdio>

#include "KorvaToolRun.h"

namespace {

using KorvaTest::ToolRun;

class AddrCommand : public KorvaTest::KorvaTool {
 protected:
  AddrCommand() : KorvaTool("addr") {}
};

// Each input in its canonical text or the parser's message; any failure sets the status.
TEST_F(AddrCommand, PrintsCanonicalTextsOrTheError) {
  expectRuns({
      {"00-11-22-33-44-55 0011.2233.4455 AA:BB:CC:DD:EE:FF", "",
       "00:11:22:33:44:55\n00:11:22:33:44:55\naa:bb:cc:dd:ee:ff\n", 0},
      // Standard input: one line per input.
      {"", "00:11:22:33:44:55\r\n00-11-22-33-44\n0-1-2-3-4-5\n",
       "00:11:22:33:44:55\nerror: Invalid EthAddr\n00:01:02:03:04:05\n", 1},
      {"", "", "", 0},
      // The most specific IPv4 type.
      {"001.002.003.004 10.0.0.0/8 10.0.0.1/8 1.2.3.4.5 10.0.0.0/ 10.0.0.0/8x", "",
       "1.2.3.4\n10.0.0.0/8\n10.0.0.1/8\nerror: Invalid IpAddr\n"
       "error: premature end of Prefix type\nerror: Invalid Prefix - non-zero after prefixlen\n",
       1},
      // IPv6 or Ethernet by the colons.
      {"2001:DB8::1 1:2:3:4:5:6 1:2:3:4:5::6 fe80::/10 2001:db8::1/64", "",
       "2001:db8::1\n01:02:03:04:05:06\n1:2:3:4:5::6\nfe80::/10\n2001:db8::1/64\n", 0},
      {"00:11:22:33:44:100", "", "error: Invalid EthAddr\n", 1},
      // Forced types.
      {"--type ipgenaddr 10.0.0.1 ::1", "", "10.0.0.1\n::1\n", 0},
      {"--type ipgenprefix 10.0.0.0/8 ::/0", "", "10.0.0.0/8\n::/0\n", 0},
      {"--type prefix 10.0.0.1/8", "", "error: Invalid Prefix - non-zero after prefixlen\n", 1},
      {"--type ipaddr 0011.2233.4455", "", "error: Invalid IpAddr\n", 1},
      {"--type ethaddr 10.0.0.1", "", "error: Invalid EthAddr\n", 1},
      {"--type eui64 0011.2233.4455.6677", "", "00:11:22:33:44:55:66:77\n", 0},
      {"--type mplslabel 3 8388609", "",
       "3\nerror: MplsLabel::value < MplsLabel::min or > MplsLabel::luWithdraw not allowed\n", 1},
  });
  EXPECT_EQ(run("--type ip6addr 10.0.0.1").status, 1);
  EXPECT_NE(run("--type nosuchtype 1").status, 0);
}

// One JSON object per line; the hash is the value's own (a known answer).
TEST_F(AddrCommand, JsonCarriesTypeTextFamilyHashAndPredicates) {
  EXPECT_EQ(nlohmann::json::parse(run("--json 2001:db8::/64").output)["type"], "ip6prefix");
  const ToolRun r = run("--json", "ff:ff:ff:ff:ff:ff\nnot-an-address\n224.0.0.13\n");
  EXPECT_EQ(
      r.output,
      R"({"input":"ff:ff:ff:ff:ff:ff","type":"ethaddr","text":"ff:ff:ff:ff:ff:ff",)"
      R"("family":"ethernet","hash":1299842698,"predicates":["isBroadcast"]})"
      "\n"
      R"({"input":"not-an-address","error":"Invalid EthAddr"})"
      "\n"
      R"({"input":"224.0.0.13","type":"ipaddr","text":"224.0.0.13","family":"ipv4",)"
      R"("hash":2731495657,"predicates":["isMulticast","isReservedMulticast","isPimRouters"]})"
      "\n");
  EXPECT_EQ(r.status, 1);
}

TEST_F(AddrCommand, ManyLinesInOneRun) {
  std::string input;
  std::string expected;
  for (int i = 0; i < 20000; ++i) {
    char text[32];
    std::snprintf(text, sizeof text, "%x-%x-%x-%x-%x-%x\n", i & 0xff, i >> 8, 1, 2, 3, 4);
    input += text;
    std::snprintf(text, sizeof text, "%02x:%02x:01:02:03:04\n", i & 0xff, i >> 8);
    expected += text;
  }
  ToolRun r = run("", input);
  EXPECT_EQ(r.output, expected);
  EXPECT_EQ(r.status, 0);
}

}  // namespace
