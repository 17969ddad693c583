// Runs the built korva tool's intf command as a user would, through the shell.

#include <nlohmann/json.hpp>

#include "KorvaToolRun.h"

namespace {

using KorvaTest::ToolRun;

class IntfCommand : public KorvaTest::KorvaTool {
 protected:
  IntfCommand() : KorvaTool("intf") {}
};

// Every form gives all forms; failures print the error and set the status; --sort prints
// long names in natural order.
TEST_F(IntfCommand, PrintsEveryFormOrTheError) {
  expectRuns({
      {"Ethernet3/1 et3_1.100 Po10 vlan100 Lo0", "",
       "Ethernet3/1 Et3/1 et3_1 0x00000c0102000000\n"
       "Ethernet3/1.100 Et3/1.100 et3_1.100 0x00000c0102000064\n"
       "Port-Channel10 Po10 po10 0x0000000a04000000\n"
       "Vlan100 Vl100 vlan100 0x000000000a000064\n"
       "Loopback0 Lo0 lo0 0x0000000008000000\n",
       0},
      {"", "Vlan5\r\nFoo1\nVl0\n",
       "Vlan5 Vl5 vlan5 0x000000000a000005\n"
       "error: Unable to convert short if name to VEX if name\n"
       "error: Invalid IntfId, zero not valid <Vlan0>\n",
       1},
      {"--sort", "Ethernet10\nvlan2\nEt2\nEthernet1/1\nEthernet1\nLo0\nEthernet1.5\n",
       "Ethernet1\nEthernet1.5\nEthernet1/1\nEthernet2\nEthernet10\nLoopback0\nVlan2\n", 0},
  });
}

TEST_F(IntfCommand, JsonCarriesEveryForm) {
  const ToolRun r = run("--json Management1/1 Bogus");
  const auto json = nlohmann::json::parse(r.output);
  EXPECT_EQ(json, nlohmann::json::parse(
                      R"([{"input": "Management1/1", "long": "Management1/1", "short": "Ma1/1",
      "kernel": "ma1_1", "value": "0x0000000006000401"}, {"input": "Bogus",
      "error": "Unable to convert short if name to VEX if name"}])"));
  EXPECT_EQ(r.status, 1);
}

}  // namespace
