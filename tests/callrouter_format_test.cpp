#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <string>
#include <string_view>

#include "examples/callrouter/format.h"
#include "examples/callrouter/number.h"
#include "examples/callrouter/plan.h"
#include "examples/callrouter/stats.h"

namespace callrouter {
namespace {

using namespace std::string_literals;
using namespace std::string_view_literals;

class FormatTest : public ::testing::Test {
 protected:
  FormatTest() {
    plan_.add("44", "United Kingdom", "gw-eu-1", 1);
    plan_.add("599", "Curaçao, \"the\" island", "gw-1", 2);
    plan_.add("6", "A destination whose name is wider than its column", "gw-2", 3);
  }

  std::string formatted(Format format, std::string_view line, bool cut = false,
                        std::string_view source = "in.txt") {
    std::string out = "before\n";
    const Answer answer = answer_line(plan_, line, cut);
    make_formatter(format)->append(out, {answer, line, source, 7});
    EXPECT_EQ(out.substr(0, 7), "before\n");
    return out.substr(7);
  }

  Plan plan_;
};

TEST_F(FormatTest, TextLinesUpNumberPrefixDestinationAndGateway) {
  EXPECT_EQ(formatted(Format::kText, "+44 (0)20 7946 0123"),
            "+442079460123      44       United Kingdom                          gw-eu-1\n");
  EXPECT_EQ(formatted(Format::kText, "5991"),
            "+5991              599      Curaçao, \"the\" island                   gw-1\n");
  EXPECT_EQ(formatted(Format::kText, "6"),
            "+6                 6        A destination whose name is wider than its column  gw-2\n");
}

TEST_F(FormatTest, TextSaysWhyAndWhereANumberHasNoRoute) {
  EXPECT_EQ(formatted(Format::kText, "+1 201 555 0123"),
            "+12015550123       unroutable: no prefix of the plan matches (in.txt:7)\n");
  EXPECT_EQ(formatted(Format::kText, "020 7946 0123"),
            "02079460123        unroutable: no prefix of the plan matches (in.txt:7)\n");
  EXPECT_EQ(formatted(Format::kText, "1-800-FLOWERS"),
            "1-800-FLOWERS      malformed: unexpected 'F' at column 7 (in.txt:7)\n");
  EXPECT_EQ(formatted(Format::kText, ""), "                   malformed: empty line (in.txt:7)\n");
  EXPECT_EQ(formatted(Format::kText, "x", false, ""),
            "x                  malformed: unexpected 'x' at column 1\n");
}

TEST_F(FormatTest, TextIsOneLineWhateverTheInputHolds) {
  EXPECT_EQ(formatted(Format::kText, "4\n4\0\x1b[2J"sv),
            "4\\x0A4\\x00\\x1B[2J  malformed: unexpected byte 0x0A at column 2 (in.txt:7)\n");
  EXPECT_EQ(formatted(Format::kText, std::string(1000, '4'), true),
            std::string(60, '4') + "...  malformed: line too long (in.txt:7)\n");
}

TEST_F(FormatTest, CsvQuotesEveryField) {
  std::string header;
  make_formatter(Format::kCsv)->header(header);
  EXPECT_EQ(header,
            "\"number\",\"prefix\",\"destination\",\"gateway\",\"status\",\"reason\",\"input\",\"file\","
            "\"line\"\n");
  EXPECT_EQ(formatted(Format::kCsv, "+44 20"),
            "\"+4420\",\"44\",\"United Kingdom\",\"gw-eu-1\",\"routed\",\"\",\"+44 20\",\"in.txt\",\"7\"\n");
  EXPECT_EQ(formatted(Format::kCsv, "5991"),
            "\"+5991\",\"599\",\"Curaçao, \"\"the\"\" "
            "island\",\"gw-1\",\"routed\",\"\",\"5991\",\"in.txt\",\"7\"\n");
  EXPECT_EQ(
      formatted(Format::kCsv, "1"),
      "\"+1\",\"\",\"\",\"\",\"unroutable\",\"no prefix of the plan matches\",\"1\",\"in.txt\",\"7\"\n");
  EXPECT_EQ(
      formatted(Format::kCsv, "a\"b\nc"),
      "\"\",\"\",\"\",\"\",\"malformed\",\"unexpected 'a' at column 1\",\"a\"\"b\\x0Ac\",\"in.txt\",\"7\"\n");
}

TEST_F(FormatTest, JsonIsOneObjectWithTheSameKeysForEveryAnswer) {
  EXPECT_EQ(formatted(Format::kJson, "+44 20"),
            R"({"number":"+4420","prefix":"44","destination":"United Kingdom","gateway":"gw-eu-1",)"
            R"("status":"routed","reason":null,"input":"+44 20","file":"in.txt","line":7})"
            "\n");
  EXPECT_EQ(
      formatted(Format::kJson, "1"),
      R"({"number":"+1","prefix":null,"destination":null,"gateway":null,)"
      R"("status":"unroutable","reason":"no prefix of the plan matches","input":"1","file":"in.txt","line":7})"
      "\n");
  EXPECT_EQ(
      formatted(Format::kJson, "a"),
      R"({"number":null,"prefix":null,"destination":null,"gateway":null,)"
      R"("status":"malformed","reason":"unexpected 'a' at column 1","input":"a","file":"in.txt","line":7})"
      "\n");
}

TEST_F(FormatTest, JsonStaysJsonWhateverTheInputHolds) {
  const std::string_view lines[] = {"\0"sv, "\"\\\n\r\t", "\xC3\xA9", "\xFF\xFE bad \xC3",
                                    "\xF0\x9F\x93\x9E"};
  const std::string inputs[] = {"\0"s, "\"\\\n\r\t", "\xC3\xA9", "\xEF\xBF\xBD\xEF\xBF\xBD bad \xEF\xBF\xBD",
                                "\xF0\x9F\x93\x9E"};
  for (std::size_t i = 0; i < std::size(lines); ++i) {
    const std::string text = formatted(Format::kJson, lines[i]);
    EXPECT_EQ(text.find('\n'), text.size() - 1);
    EXPECT_EQ(nlohmann::json::parse(text)["input"], inputs[i]);
  }
}

TEST(SummaryFormat, TextAndJsonSayTheSame) {
  const Summary summary{1234567, 89, 1, 2.5, {{{0, 0, 0}, {128, 1032, 7}, {600, 72, 72}, {1740, 40, 39}}}};
  EXPECT_EQ(summary.text(),
            "routed 1,234,567, unroutable 89, malformed 1: 1,234,657 numbers in 2.500 s, 493,862 a second\n"
            "lowest free buffers: 7 of 1,032 (128 bytes), 72 of 72 (600 bytes), 39 of 40 (1740 bytes)\n");
  EXPECT_EQ(summary.json(),
            R"({"routed":1234567,"unroutable":89,"malformed":1,"numbers":1234657,"seconds":2.5,)"
            R"("numbers_per_second":493862,"buffers":[{"bytes":128,"quantity":1032,"lowest_free":7},)"
            R"({"bytes":600,"quantity":72,"lowest_free":72},{"bytes":1740,"quantity":40,"lowest_free":39}]})"
            "\n");
}

TEST(SummaryFormat, OneNumberInNoTimeIsNoDivisionByZero) {
  const Summary summary{1, 0, 0, 0.0, {}};
  EXPECT_EQ(summary.per_second(), 0u);
  EXPECT_EQ(summary.text().substr(0, 48), "routed 1, unroutable 0, malformed 0: 1 number in");
}

TEST(SummaryFormat, GroupsDigitsByThousands) {
  EXPECT_EQ(grouped(0), "0");
  EXPECT_EQ(grouped(999), "999");
  EXPECT_EQ(grouped(1000), "1,000");
  EXPECT_EQ(grouped(18446744073709551615u), "18,446,744,073,709,551,615");
}

}  // namespace
}  // namespace callrouter
