// Lines as peers end them.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "examples/callrouter/request_cutter.h"

namespace callrouter {
namespace {

using Lines = std::vector<std::string>;

constexpr std::size_t kLimit = 10;

// What comes out of the pieces; a line that was cut ends in "...".
Lines cut(const std::vector<std::string>& pieces, bool finish = false) {
  RequestCutter cutter(kLimit);
  Lines lines;
  InputLine line;
  const auto collect = [&] {
    while (cutter.next(line)) {
      lines.push_back(std::string(line.text) + (line.cut ? "..." : ""));
      EXPECT_EQ(line.number, lines.size());
    }
  };
  for (const std::string& piece : pieces) {
    cutter.add(piece);
    collect();
  }
  if (finish) {
    cutter.finish();
    collect();
  }
  return lines;
}

struct Row {
  const char* name;
  std::string bytes;
  Lines lines;
};

const std::vector<Row>& rows() {
  using namespace std::string_literals;
  static const std::vector<Row> all = {
      {"LineFeed", "1\n22\n", {"1", "22"}},
      {"CarriageReturn", "1\r22\r", {"1", "22"}},
      {"Both", "1\r\n22\r\n", {"1", "22"}},
      {"Mixed", "1\r22\n333\r\n4\r", {"1", "22", "333", "4"}},
      {"TerminalsEnter", "1\r\0"s + "22\r\0"s, {"1", "22"}},
      {"EmptyLines", "\n\n\r\r\r\n\r\n", {"", "", "", "", "", ""}},
      {"LineFeedFirst", "\n\r1\n\r", {"", "", "1", ""}},
      {"OtherZeroBytesBelongToTheText", "1\0"s + "2\n\0\n"s, {"1\0"s + "2", "\0"s}},
      {"LongestLine", "1234567890\r\n1\r", {"1234567890", "1"}},
      {"LongerLine", "1234567890A\r\n1\r", {"1234567890...", "1"}},
      {"MuchLongerLine", std::string(1000, 'x') + "\n1\n", {"xxxxxxxxxx...", "1"}},
  };
  return all;
}

TEST(RequestCutter, EndsLinesAsPeersDoWhateverTheSegments) {
  for (const Row& row : rows()) {
    EXPECT_EQ(cut({row.bytes}), row.lines) << row.name;
    std::vector<std::string> bytes;
    for (const char c : row.bytes) bytes.emplace_back(1, c);
    EXPECT_EQ(cut(bytes), row.lines) << row.name << ", byte by byte";
    for (std::size_t at = 0; at <= row.bytes.size(); ++at) {
      EXPECT_EQ(cut({row.bytes.substr(0, at), row.bytes.substr(at)}), row.lines) << row.name << " at " << at;
    }
  }
}

TEST(RequestCutter, LineIsThereAsSoonAsItsCarriageReturnIs) { EXPECT_EQ(cut({"1\r"}), Lines{"1"}); }

TEST(RequestCutter, LastLineNeedsNoEndWhenThePeerHasEnded) {
  EXPECT_EQ(cut({"1\n2", "2"}), Lines{"1"});
  EXPECT_EQ(cut({"1\n2", "2"}, true), (Lines{"1", "22"}));
  EXPECT_EQ(cut({"1\n"}, true), Lines{"1"});
  EXPECT_EQ(cut({"1\r"}, true), Lines{"1"});
  EXPECT_EQ(cut({}, true), Lines{});
}

TEST(RequestCutter, RestThatIsTakenBackIsCutLater) {
  RequestCutter cutter(kLimit);
  InputLine line;
  const std::string text = "1\r\n2\n3";
  cutter.add(text);
  ASSERT_TRUE(cutter.next(line));
  const std::string rest(cutter.take_rest());
  EXPECT_EQ(rest, "\n2\n3");
  EXPECT_FALSE(cutter.next(line));
  cutter.add(rest);
  ASSERT_TRUE(cutter.next(line));
  EXPECT_EQ(line.text, "2");
  EXPECT_FALSE(cutter.next(line));
}

}  // namespace
}  // namespace callrouter
