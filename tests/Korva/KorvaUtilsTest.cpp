#include <Korva/KorvaUtils.h>
#include <Mox/Trace.h>

#include <gtest/gtest.h>

#define PCRE2_CODE_UNIT_WIDTH 8
#include <pcre2.h>

#include <algorithm>
#include <cstring>
#include <functional>
#include <random>
#include <set>
#include <thread>
#include <vector>

#include "Korva/IntfIdTestSupport.h"
#include "ValueTestUtil.h"

namespace {

using Korva::IntfId;
using KorvaTest::failureText;

struct Case {
  const char* in;
  const char* out;
};

// Every row of the long and kernel tables, both ways where the names map back.
TEST(IntfNameConverters, LongAndKernelEveryRow) {
  enum Way { both, toKernel, toLong };
  const struct {
    const char* longName;
    const char* kernelName;
    Way way;
  } cases[] = {
      {"Ethernet3/1", "et3_1", both},
      {"Ethernet3/1.100", "et3_1.100", both},
      {"Ethernet49/1", "et49_1", both},
      {"Vlan100", "vlan100", both},
      {"Vxlan1", "vxlan1", both},
      {"Loopback0", "lo0", both},
      {"Internal1/2", "internal1_2", both},
      {"Fabric3", "fabric3", both},
      {"Management1/1", "ma1_1", both},
      {"Port-Channel10", "po10", both},
      {"Test5", "tap-5", both},
      {"Tunnel7", "tun7", both},
      {"ETHERNET1", "et1", toKernel},
      {"VLAN100", "vlan100", toKernel},
      {"ethernet1/2/3", "et1_2_3", toKernel},
      {"Ethernet1/A", "et1_A", toKernel},  // the tail keeps its case
      {"Testing", "tap-ing", toKernel},    // match words are not guarded by a digit
      {"Ethernet1", "ET1", toLong},
      {"Testtap3", "tap3", toLong},  // no "-": the whole name follows
      {"Etherneth0", "eth0", toLong},
      {"Managementcvlan0", "macvlan0", toLong},
      {"Loopbacknely", "lonely", toLong},
  };
  for (const auto& c : cases) {
    if (c.way != toLong) {
      EXPECT_EQ(Korva::vexIntfToKernelIntf(c.longName), c.kernelName);
    }
    if (c.way != toKernel) {
      EXPECT_EQ(Korva::kernelIntfToVexIntf(c.kernelName), c.longName);
    }
  }
}

TEST(IntfNameConverters, ShortToLongEveryRow) {
  const Case cases[] = {
      {"Et3/1", "Ethernet3/1"},   {"et3/1.5", "Ethernet3/1.5"},
      {"Vl10", "Vlan10"},         {"Vx2", "Vxlan2"},
      {"Lo0", "Loopback0"},       {"Internal1", "Internal1"},
      {"Fabric3", "Fabric3"},     {"Ma1/1", "Management1/1"},
      {"Po10", "Port-Channel10"}, {"tap-3", "Test3"},
      {"Tun7", "Tunnel7"},        {"et3_1", "Ethernet3_1"},  // no separator replacement
      {"Vlan10", "Vlanan10"},
  };
  for (const Case& c : cases) EXPECT_EQ(Korva::shortIntfToVexIntf(c.in), c.out) << c.in;
}

TEST(IntfNameConverters, NoMatchingWordThrowsEachConvertersMessage) {
  // Match words must begin the name.
  for (const char* name : {"Foo1", "", "xEthernet1"}) {
    EXPECT_EQ(failureText([&] { Korva::vexIntfToKernelIntf(name); }),
              "Unable to convert VEX if name to kernel if name");
  }
  EXPECT_EQ(failureText([] { Korva::kernelIntfToVexIntf("Foo1"); }),
            "Unable to convert kernel if name to VEX if name");
  EXPECT_EQ(failureText([] { Korva::shortIntfToVexIntf("Foo1"); }),
            "Unable to convert short if name to VEX if name");
}

TEST(IntfNameLenientParse, AcceptsEveryFormAndPassesTheLastFailureOn) {
  KorvaTest::intfIdMgr();
  for (const char* name : {"Ethernet3/1", "et3_1", "Et3/1"}) {
    EXPECT_EQ(Korva::stringToVexIntf(name), IntfId("Ethernet3/1")) << name;
  }
  EXPECT_EQ(Korva::stringToVexIntf("vlan10"), IntfId("Vlan10"));
  EXPECT_EQ(Korva::stringToVexIntf("tap-3"), IntfId("Test3"));
  EXPECT_EQ(Korva::stringToVexIntf("Po10.5"), IntfId("Port-Channel10.5"));
  EXPECT_FALSE(Korva::stringToVexIntf(""));
  EXPECT_EQ(failureText([] { Korva::stringToVexIntf("Foo1"); }),
            "Unable to convert short if name to VEX if name");
  // The short converter matched "vl", so the parser has the last word.
  EXPECT_EQ(failureText([] { Korva::stringToVexIntf("Vl0"); }),
            "Invalid IntfId, zero not valid <Vlan0>");
}

class IntfNameOrder : public ::testing::Test {
 protected:
  void SetUp() override { KorvaTest::intfIdMgr(); }
  static int cmp(const char* a, const char* b) {
    return Korva::compareIntfName(IntfId(a), IntfId(b));
  }
};

TEST_F(IntfNameOrder, ThreadsCompareWithoutDisturbingEachOther) {
  // Once the pattern is compiled, comparisons on several threads must agree with one thread.
  const std::vector<IntfId> ids = {IntfId("Ethernet2"),   IntfId("Ethernet10"),
                                   IntfId("Ethernet1/1"), IntfId("Ethernet1/1.3"),
                                   IntfId("Vlan7"),       IntfId("Port-Channel12")};
  std::vector<int> expected;
  for (IntfId a : ids) {
    for (IntfId b : ids) expected.push_back(Korva::compareIntfName(a, b));
  }
  auto agrees = [&] {
    for (int round = 0; round < 2000; ++round) {
      size_t k = 0;
      for (IntfId a : ids) {
        for (IntfId b : ids) {
          if (Korva::compareIntfName(a, b) != expected[k++]) return false;
        }
      }
    }
    return true;
  };
  bool otherAgrees = false;
  std::thread other([&] { otherAgrees = agrees(); });
  const bool thisAgrees = agrees();
  other.join();
  EXPECT_TRUE(thisAgrees);
  EXPECT_TRUE(otherAgrees);
}

// Numbers compare as -1, 0 or 1 (their order is the sort test's business); the type word
// gives the raw strcmp value.
TEST_F(IntfNameOrder, NumbersGiveTheSignTheTypeWordTheRawStrcmpValue) {
  EXPECT_EQ(cmp("Ethernet2", "Ethernet10"), -1);
  EXPECT_EQ(cmp("Ethernet1/1.3", "Ethernet1/1"), 1);
  EXPECT_EQ(cmp("Ethernet1/1", "Ethernet1/1"), 0);
  // Called through a pointer so that the compiler cannot fold it to a bare sign.
  int (*volatile libcStrcmp)(const char*, const char*) = &std::strcmp;
  EXPECT_EQ(cmp("Ethernet1", "Vlan1"), libcStrcmp("Ethernet", "Vlan"));
  EXPECT_EQ(cmp("Vlan1", "Ethernet1"), libcStrcmp("Vlan", "Ethernet"));
  EXPECT_EQ(cmp("Port-Channel1", "Loopback0"), libcStrcmp("Port-Channel", "Loopback"));
}

TEST_F(IntfNameOrder, NullIdAborts) {
  EXPECT_DEATH(Korva::compareIntfName(IntfId(), IntfId("Ethernet1")),
               "Assertion \"aret > 1\" failed in Korva/KorvaUtils.cpp, S32 "
               "Korva::compareIntfName\\(Korva::IntfId, Korva::IntfId\\)");
  EXPECT_DEATH(Korva::compareIntfName(IntfId("Ethernet1"), IntfId()), "\"bret > 1\"");
}

// An independent reading of the order: the type word, then the "/" numbers and the ".n"
// number as one list (the ".n" number always in the fourth slot), shorter list first.
struct ReferenceKey {
  std::string word;
  std::vector<long> numbers;
};

ReferenceKey referenceKey(const std::string& name) {
  ReferenceKey key;
  size_t i = name.find_first_of("0123456789");
  key.word = name.substr(0, i);
  const size_t dot = name.find('.', i);
  std::string slashPart = name.substr(i, dot == std::string::npos ? std::string::npos : dot - i);
  for (size_t start = 0; start < slashPart.size();) {
    size_t end = slashPart.find('/', start);
    if (end == std::string::npos) end = slashPart.size();
    key.numbers.push_back(std::stol(slashPart.substr(start, end - start)));
    start = end + 1;
  }
  if (dot != std::string::npos) {
    key.numbers.resize(3, 0);
    key.numbers.push_back(std::stol(name.substr(dot + 1)));
  }
  return key;
}

bool referenceLess(const std::string& a, const std::string& b) {
  const ReferenceKey ka = referenceKey(a);
  const ReferenceKey kb = referenceKey(b);
  if (ka.word != kb.word) return ka.word < kb.word;
  return ka.numbers < kb.numbers;  // lexicographic, a proper prefix first
}

std::vector<IntfId> realisticIds(size_t count, std::mt19937& rng) {
  auto n = [&rng](int low, int high) {
    return std::to_string(std::uniform_int_distribution<int>(low, high)(rng));
  };
  auto maybe = [&rng](const std::string& tail) { return rng() % 2 ? tail : ""; };
  const std::function<std::string()> forms[] = {
      [&] { return "Ethernet" + n(1, 64); },
      [&] { return "Ethernet" + n(1, 12) + "/" + n(1, 48); },
      [&] { return "Ethernet" + n(1, 8) + "/" + n(1, 36) + "/" + n(1, 4); },
      [&] { return "Ethernet" + n(1, 12) + "/" + n(1, 48) + "." + n(1, 4094); },
      [&] { return "Port-Channel" + n(1, 2000) + maybe("." + n(1, 100)); },
      [&] { return "Vlan" + n(1, 4094); },
      [&] { return "Management" + n(1, 2) + maybe("/" + n(1, 2)); },
      [&] { return "Loopback" + n(0, 999); },
  };
  std::set<IntfId> ids;
  for (size_t draw = 0; ids.size() < count && draw < 100 * count; ++draw) {
    ids.insert(IntfId(forms[rng() % std::size(forms)]()));
  }
  std::vector<IntfId> list(ids.begin(), ids.end());
  std::shuffle(list.begin(), list.end(), rng);
  return list;
}

std::vector<std::string> names(const std::vector<IntfId>& ids) {
  std::vector<std::string> out;
  for (IntfId id : ids) out.push_back(id.stringValue());
  return out;
}

TEST_F(IntfNameOrder, SortAgreesWithAnIndependentComparison) {
  std::mt19937 rng(1657);
  const std::vector<IntfId> shuffled = realisticIds(3000, rng);

  std::vector<std::string> expected = names(shuffled);
  std::sort(expected.begin(), expected.end(), referenceLess);

  std::vector<IntfId> byCompare = shuffled;
  std::sort(byCompare.begin(), byCompare.end(),
            [](IntfId a, IntfId b) { return Korva::compareIntfName(a, b) < 0; });
  EXPECT_EQ(names(byCompare), expected);

  std::vector<IntfId> byKey = shuffled;
  Korva::sortByIntfName(byKey);
  EXPECT_EQ(names(byKey), expected);
}

}  // namespace
