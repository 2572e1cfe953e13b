#include <gtest/gtest.h>
#include <stdlib.h>

#include <cstdint>
#include <random>
#include <string>
#include <vector>

#include "examples/callrouter/line_cutter.h"

namespace callrouter {
namespace {

using namespace std::string_literals;

struct Line {
  std::string text;
  std::uint64_t number;
  bool cut;

  bool operator==(const Line&) const = default;
  friend void PrintTo(const Line& line, std::ostream* out) {
    *out << line.number << ": \"" << line.text << "\"" << (line.cut ? " cut" : "");
  }
};

std::vector<Line> cut(const std::vector<std::string>& blocks, std::size_t limit) {
  LineCutter cutter(limit);
  std::vector<Line> lines;
  InputLine line;
  const auto take = [&] {
    while (cutter.next(line)) lines.push_back({std::string(line.text), line.number, line.cut});
  };
  for (const std::string& block : blocks) {
    cutter.add(block);
    take();
  }
  cutter.finish();
  take();
  return lines;
}

// All at once, and a byte at a time.
std::vector<Line> cut_both_ways(const std::string& input, std::size_t limit = 10) {
  std::vector<std::string> bytes;
  for (const char c : input) bytes.push_back(std::string(1, c));
  const std::vector<Line> lines = cut({input}, limit);
  EXPECT_EQ(cut(bytes, limit), lines);
  return lines;
}

using Lines = std::vector<Line>;

TEST(LineCutter, EmptyInputHasNoLines) { EXPECT_EQ(cut_both_ways(""), Lines{}); }

TEST(LineCutter, LastLineNeedsNoEnd) {
  EXPECT_EQ(cut_both_ways("a\nb"), (Lines{{"a", 1, false}, {"b", 2, false}}));
  EXPECT_EQ(cut_both_ways("a\nb\n"), (Lines{{"a", 1, false}, {"b", 2, false}}));
}

TEST(LineCutter, EmptyLinesCount) {
  EXPECT_EQ(cut_both_ways("\n\nx\n\n"),
            (Lines{{"", 1, false}, {"", 2, false}, {"x", 3, false}, {"", 4, false}}));
}

TEST(LineCutter, CarriageReturnBelongsToTheEndOnlyRightBeforeIt) {
  EXPECT_EQ(cut_both_ways("a\r\nb\rc\r\r\nd\r"),
            (Lines{{"a", 1, false}, {"b\rc\r", 2, false}, {"d", 3, false}}));
}

TEST(LineCutter, NulIsTextLikeAnyOther) {
  EXPECT_EQ(cut_both_ways("a\0b\n\0"s), (Lines{{"a\0b"s, 1, false}, {"\0"s, 2, false}}));
}

TEST(LineCutter, LineOfTheLimitFitsWithEitherEnd) {
  EXPECT_EQ(cut_both_ways("0123456789\n0123456789\r\n0123456789\r"),
            (Lines{{"0123456789", 1, false}, {"0123456789", 2, false}, {"0123456789", 3, false}}));
}

TEST(LineCutter, LongerLineIsCutAndTheNextOneWhole) {
  EXPECT_EQ(cut_both_ways("0123456789x\nnext\n0123456789\rx\r\nnext\n" + std::string(1000, 'y') + "\nnext"),
            (Lines{{"0123456789", 1, true},
                   {"next", 2, false},
                   {"0123456789", 3, true},
                   {"next", 4, false},
                   {"yyyyyyyyyy", 5, true},
                   {"next", 6, false}}));
  EXPECT_EQ(cut_both_ways("0123456789\r\r\n"), (Lines{{"0123456789", 1, true}}));
}

TEST(LineCutter, WhereBlocksEndMakesNoDifference) {
  const char* text = getenv("OSKERNEL_SEED");
  const unsigned start = text ? static_cast<unsigned>(strtoul(text, nullptr, 10)) : std::random_device()();
  SCOPED_TRACE("OSKERNEL_SEED=" + std::to_string(start));
  std::mt19937 random(start);
  const auto pick = [&random](std::size_t low, std::size_t high) {
    return std::uniform_int_distribution<std::size_t>(low, high)(random);
  };
  for (int round = 0; round < 500; ++round) {
    std::string input;
    for (std::size_t n = pick(0, 200); n > 0; --n) input += "ab\r\n\n\0"[pick(0, 5)];
    const std::size_t limit = pick(1, 12);
    std::vector<std::string> blocks;
    for (std::size_t at = 0; at < input.size();) {
      const std::size_t len = pick(1, 9);
      blocks.push_back(input.substr(at, len));
      at += len;
    }
    ASSERT_EQ(cut(blocks, limit), cut({input}, limit)) << "round " << round;
  }
}

}  // namespace
}  // namespace callrouter
