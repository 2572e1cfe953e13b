#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <map>
#include <memory>
#include <ostream>
#include <random>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

#include "examples/callrouter/answer.h"
#include "examples/callrouter/plan.h"
#include "examples/callrouter/plan_file.h"
#include "tests/support/kernel_fixture.h"

namespace callrouter {
namespace {

using namespace std::string_literals;

// A search that takes more comparisons than any before says so on the console.
class PlanTest : public ::testing::Test {
 protected:
  void SetUp() override { Console = &console_; }
  void TearDown() override { Console = nullptr; }

  oskernel_test::RecordingConsole console_;
};

std::string complaint(const std::string& csv) {
  try {
    parse_plan(csv, "test.csv");
  } catch (const UsageError& error) {
    return error.what();
  }
  return "";
}

std::string matched(const Plan& plan, std::string_view digits) {
  const PlanRow* row = plan.match(digits);
  return row ? row->prefix : "none";
}

struct BadPlan {
  const char* name;
  std::string csv;
  std::string complaint;

  friend void PrintTo(const BadPlan& plan, std::ostream* out) { *out << plan.name; }
};

class BadPlanTest : public PlanTest, public ::testing::WithParamInterface<BadPlan> {};

TEST_P(BadPlanTest, IsRefusedWithFileLineAndReason) {
  EXPECT_EQ(complaint(GetParam().csv), GetParam().complaint);
}

const BadPlan kBadPlans[] = {
    {"Empty", "", "test.csv:1: no rows"},
    {"OnlyNamesAndComments", "# nothing\n\nprefix,destination,gateway\n", "test.csv:3: no rows"},
    {"PrefixWithLetter", "44,UK,gw\n4x,Oops,gw\n", "test.csv:2: prefix '4x' is not all digits"},
    {"PrefixWithPlus", "+44,UK,gw\n", "test.csv:1: prefix '+44' is not all digits"},
    {"PrefixWithNul", "4\0,UK,gw\n"s, "test.csv:1: prefix '4\\x00' is not all digits"},
    {"PrefixWithInnerSpace", "4 4,UK,gw\n", "test.csv:1: prefix '4 4' is not all digits"},
    {"EmptyPrefix", ",UK,gw\n", "test.csv:1: the prefix is empty"},
    {"EmptyDestination", "44,,gw\n", "test.csv:1: the destination is empty"},
    {"BlankDestination", "44,   ,gw\n", "test.csv:1: the destination is empty"},
    {"EmptyGateway", "44,UK,\n", "test.csv:1: the gateway is empty"},
    {"OneColumn", "44\n", "test.csv:1: 1 column instead of 3"},
    {"TwoColumns", "44,UK\n", "test.csv:1: 2 columns instead of 3"},
    {"FourColumns", "44,UK,gw,more\n", "test.csv:1: 4 columns instead of 3"},
    {"TrailingComma", "44,UK,gw,\n", "test.csv:1: 4 columns instead of 3"},
    {"Duplicate", "1,A,gw\n# one more\n44,UK,gw\n44,Again,gw\n",
     "test.csv:4: prefix 44 stands already in line 3"},
    {"SixteenDigits", "1234567890123456,A,gw\n",
     "test.csv:1: prefix 1234567890123456 has 16 digits, the most is 15"},
    {"OpenQuote", "44,\"UK,gw\n1,A,gw\n", "test.csv:1: a quote is missing or misplaced"},
    {"QuoteInside", "44,U\"K,gw\n", "test.csv:1: a quote is missing or misplaced"},
    {"TextBehindQuote", "44,\"UK\"x,gw\n", "test.csv:1: a quote is missing or misplaced"},
    {"ControlInDestination", "44,U\tK,gw\n", "test.csv:1: the destination holds a control character"},
    {"ControlInGateway", "44,UK,g\x1bw\n", "test.csv:1: the gateway holds a control character"},
    {"NamesInTheMiddle", "44,UK,gw\nprefix,destination,gateway\n",
     "test.csv:2: prefix 'prefix' is not all digits"},
    {"OtherNames", "code,country,gateway\n", "test.csv:1: prefix 'code' is not all digits"},
    {"CarriageReturns", "44,UK,gw\r\n45\r\n", "test.csv:2: 1 column instead of 3"},
    {"NoEndAtTheLastLine", "44,UK,gw\n45", "test.csv:2: 1 column instead of 3"},
};

INSTANTIATE_TEST_SUITE_P(Table, BadPlanTest, ::testing::ValuesIn(kBadPlans),
                         [](const auto& row) { return std::string(row.param.name); });

TEST_F(PlanTest, NamesCommentsBlankLinesQuotesAndLineEndsOfEveryKindAreRead) {
  const auto plan = parse_plan(
      "\xEF\xBB\xBF# a plan\r\n"
      "\r\n"
      "prefix,destination,gateway\r\n"
      "852,\"Hong Kong, China\",gw-1\r\n"
      "   \n"
      "# 999,not this,gw\n"
      " 44 , United Kingdom ,\"gw-\"\"2\"\"\"\n"
      "599,Curaçao,gw-3",
      "test.csv");
  EXPECT_EQ(plan->size(), 3);
  const PlanRow* row = plan->match("85212345");
  ASSERT_NE(row, nullptr);
  EXPECT_EQ(row->destination, "Hong Kong, China");
  EXPECT_EQ(row->line, 4);
  row = plan->match("4420");
  ASSERT_NE(row, nullptr);
  EXPECT_EQ(row->destination, "United Kingdom");
  EXPECT_EQ(row->gateway, "gw-\"2\"");
  EXPECT_EQ(matched(*plan, "5999"), "599");
  EXPECT_EQ(matched(*plan, "999"), "none");
}

TEST_F(PlanTest, PrefixOfFifteenDigitsIsTheLongest) {
  const auto plan = parse_plan("123456789012345,All of it,gw\n1,One,gw\n", "test.csv");
  EXPECT_EQ(matched(*plan, "123456789012345"), "123456789012345");
  EXPECT_EQ(matched(*plan, "123456789012346"), "1");
  EXPECT_EQ(matched(*plan, "12345678901234"), "1");
}

TEST_F(PlanTest, RefusedRowLeavesThePlanAsItWas) {
  Plan plan;
  plan.add("44", "UK", "gw", 1);
  EXPECT_THROW(plan.add("44", "Other", "gw", 2), std::invalid_argument);
  EXPECT_THROW(plan.add("4a", "Other", "gw", 3), std::invalid_argument);
  EXPECT_EQ(plan.size(), 1);
  EXPECT_EQ(plan.match("44")->destination, "UK");
}

TEST_F(PlanTest, FilesThatCannotBeReadAreNamedWithTheReason) {
  const auto told = [](const std::string& path) {
    try {
      load_plan(path);
    } catch (const UsageError& error) {
      return std::string(error.what());
    }
    return ""s;
  };
  EXPECT_EQ(told("no-such-plan.csv"), "no-such-plan.csv: No such file or directory");
  EXPECT_EQ(told("/"), "/: Is a directory");
  EXPECT_EQ(told("/dev/zero"), "/dev/zero: File too large");
}

TEST_F(PlanTest, CompiledInPlanIsTheFileAndReadsWell) {
  std::ifstream file(CALLROUTER_DIR "/e164.csv");
  std::stringstream text;
  text << file.rdbuf();
  EXPECT_EQ(kDefaultPlanText, text.str());
  EXPECT_GE(default_plan()->size(), 230);
}

struct Known {
  const char* digits;
  const char* prefix;
  const char* destination;
};

TEST_F(PlanTest, CompiledInPlanKnowsTheSharedCodes) {
  const auto plan = default_plan();
  const Known known[] = {
      {"12015550123", "1", "United States and Canada"},
      {"12425550107", "1242", "Bahamas"},
      {"16585550107", "1658", "Jamaica"},
      {"18765550107", "1876", "Jamaica"},
      {"18495550107", "1849", "Dominican Republic"},
      {"442079460123", "44", "United Kingdom"},
      {"441481496012", "441481", "Guernsey"},
      {"441534496012", "441534", "Jersey"},
      {"441624496012", "441624", "Isle of Man"},
      {"4414", "44", "United Kingdom"},
      {"390669855010", "3906698", "Vatican City"},
      {"390255500100", "39", "Italy"},
      {"3581855010", "35818", "Åland"},
      {"4779025501", "4779", "Svalbard"},
      {"74955550100", "7", "Russian Federation"},
      {"77272550100", "77", "Kazakhstan"},
      {"76005550100", "76", "Kazakhstan"},
      {"61891625501", "6189162", "Cocos (Keeling) Islands"},
      {"61891645501", "6189164", "Christmas Island"},
      {"59935550100", "5993", "Sint Eustatius"},
      {"59975550100", "5997", "Bonaire"},
      {"59995550100", "5999", "Curaçao"},
      {"262692550100", "262", "Réunion"},
      {"262269550100", "262269", "Mayotte"},
      {"2693255010", "269", "Comoros"},
      {"881655501000", "8816", "Iridium"},
      {"8821655500100", "88216", "Thuraya"},
      {"80055500100", "800", "International Freephone Service"},
      {"80855500100", "808", "International Shared Cost Service"},
      {"870773155010", "870", "Inmarsat"},
      {"8785550100", "878", "Universal Personal Telecommunication Service"},
      {"8885550100", "888", "Telecommunications for Disaster Relief"},
      {"979155500100", "979", "International Premium Rate Service"},
  };
  for (const Known& number : known) {
    const PlanRow* row = plan->match(number.digits);
    ASSERT_NE(row, nullptr) << number.digits;
    EXPECT_EQ(row->prefix, number.prefix) << number.digits;
    EXPECT_EQ(row->destination, number.destination) << number.digits;
  }
  // Spare codes, and digits that are no international number.
  for (const char* digits :
       {"2105550100", "2895550100", "6935550100", "8015550100", "9995550100", "02079460123"}) {
    EXPECT_EQ(matched(*plan, digits), "none") << digits;
  }
}

// ---- against a model: the longest of the row prefixes that the number begins with, found by trying all

std::string longest_by_hand(const std::vector<std::string>& prefixes, const std::string& digits) {
  std::string best = "none";
  for (const std::string& prefix : prefixes) {
    if (digits.compare(0, prefix.size(), prefix) != 0) continue;
    if (best == "none" || prefix.size() > best.size()) best = prefix;
  }
  return best;
}

unsigned seed() {
  if (const char* text = getenv("OSKERNEL_SEED")) return static_cast<unsigned>(strtoul(text, nullptr, 10));
  return std::random_device()();
}

TEST_F(PlanTest, LongestMatchOnRandomPlansAgreesWithTryingEveryRow) {
  const unsigned start = seed();
  SCOPED_TRACE("OSKERNEL_SEED=" + std::to_string(start));
  std::mt19937 random(start);
  const auto pick = [&random](int low, int high) {
    return std::uniform_int_distribution<int>(low, high)(random);
  };
  for (int round = 0; round < 200; ++round) {
    // Few different digits and many lengths make prefixes of prefixes, the case that matters.
    const int digits = pick(1, 4);
    const int longest = pick(1, 15);
    const auto make = [&](int len) {
      std::string text;
      while (static_cast<int>(text.size()) < len) text += static_cast<char>('0' + pick(0, digits - 1));
      return text;
    };
    Plan plan;
    std::map<std::string, bool> seen;
    std::vector<std::string> prefixes;
    for (int i = pick(1, 300); i > 0; --i) {
      const std::string prefix = make(pick(1, longest));
      if (!seen.emplace(prefix, true).second) continue;
      prefixes.push_back(prefix);
      plan.add(prefix, "to " + prefix, "gw", i);
    }
    for (int i = 0; i < 200; ++i) {
      std::string number = make(pick(1, 15));
      if (i % 3 == 0)
        number = prefixes[static_cast<std::size_t>(pick(0, static_cast<int>(prefixes.size()) - 1))];
      ASSERT_EQ(matched(plan, number), longest_by_hand(prefixes, number)) << number << " in round " << round;
    }
  }
}

TEST_F(PlanTest, MatchOfNoDigitsOrInAnEmptyPlanIsNone) {
  Plan plan;
  EXPECT_EQ(matched(plan, "44"), "none");
  plan.add("44", "UK", "gw", 1);
  EXPECT_EQ(matched(plan, ""), "none");
  EXPECT_EQ(matched(plan, "4"), "none");
}

TEST_F(PlanTest, AnswerOfALineTellsRoutedUnroutableAndMalformedApart) {
  Plan plan;
  plan.add("44", "UK", "gw", 1);
  EXPECT_TRUE(answer_line(plan, "+44 20").routed());
  EXPECT_EQ(reason(answer_line(plan, "+44 20")), "");
  EXPECT_FALSE(answer_line(plan, "+45 20").routed());
  EXPECT_FALSE(answer_line(plan, "+45 20").malformed());
  EXPECT_EQ(reason(answer_line(plan, "+45 20")), "no prefix of the plan matches");
  EXPECT_TRUE(answer_line(plan, "x").malformed());
  EXPECT_EQ(reason(answer_line(plan, "+44 20", true)), "line too long");
}

}  // namespace
}  // namespace callrouter
