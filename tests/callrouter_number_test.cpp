#include <gtest/gtest.h>

#include <ostream>
#include <string>
#include <string_view>

#include "examples/callrouter/number.h"

namespace callrouter {
namespace {

using namespace std::string_view_literals;

struct Row {
  std::string_view line;
  std::string_view text;    // of a good number
  std::string_view reason;  // of a bad one

  friend void PrintTo(const Row& row, std::ostream* out) { *out << printable(row.line); }
};

class NumberSpelling : public ::testing::TestWithParam<Row> {};

TEST_P(NumberSpelling, IsReadAsExpected) {
  const Row& row = GetParam();
  const Number number = parse_number(row.line);
  EXPECT_EQ(describe(number), row.reason);
  EXPECT_EQ(number.ok(), row.reason.empty());
  EXPECT_EQ(number.ok() ? number.text() : std::string(), row.text);
}

const Row kRows[] = {
    // International spellings of one number.
    {"+442079460123", "+442079460123", ""},
    {"442079460123", "+442079460123", ""},
    {"00442079460123", "+442079460123", ""},
    {"+44 20 7946 0123", "+442079460123", ""},
    {"+44-20-7946-0123", "+442079460123", ""},
    {"+44.20.7946.0123", "+442079460123", ""},
    {"+44/20/7946/0123", "+442079460123", ""},
    {"+44\t20 7946\t0123", "+442079460123", ""},
    {"  \t+442079460123 \r", "+442079460123", ""},
    {"0 0 44 20 7946 0123", "+442079460123", ""},
    {"(00) 44 20 7946 0123", "+442079460123", ""},
    // The trunk digit that is dialled inside the country only.
    {"+44 (0)20 7946 0123", "+442079460123", ""},
    {"0044(0)2079460123", "+442079460123", ""},
    {"44 (0) 20 7946 0123", "+442079460123", ""},
    {"+1 (201) 555-0123", "+12015550123", ""},
    {"(0)20 7946 0123", "02079460123", ""},
    {"+44 (01)20 7946 0123",
     "+440120794601"
     "23",
     ""},
    // A national number stays one, and takes no plus.
    {"020 7946 0123", "02079460123", ""},
    {"0", "0", ""},
    // After a plus, zeros are digits.
    {"+0044207946012", "0044207946012", ""},
    {"+00", "00", ""},
    // Lengths.
    {"1", "+1", ""},
    {"123456789012345", "+123456789012345", ""},
    {"+123456789012345", "+123456789012345", ""},
    {"00123456789012345", "+123456789012345", ""},
    {"1234567890123456", "", "16 digits, the most is 15"},
    {"+1234567890123456", "", "16 digits, the most is 15"},
    {"001234567890123456", "", "16 digits, the most is 15"},
    {"012345678901234567", "", "18 digits, the most is 15"},
    // No number at all.
    {"", "", "empty line"},
    {" \t\r", "", "empty line"},
    {"+", "", "no digits"},
    {"00", "", "no digits"},
    {"-", "", "no digits"},
    {"()", "", "no digits"},
    {"+ -./()", "", "no digits"},
    // Something else in it.
    {"1-800-FLOWERS", "", "unexpected 'F' at column 7"},
    {"+44 20 7946 0123 ext 5", "", "unexpected 'e' at column 18"},
    {"++44", "", "unexpected '+' at column 2"},
    {"44+20", "", "unexpected '+' at column 3"},
    {"4 4\v20", "", "unexpected byte 0x0B at column 4"},
    {"44\0"sv
     "20",
     "", "unexpected byte 0x00 at column 3"},
    {"44\xC2\xA0"sv
     "20",
     "", "unexpected byte 0xC2 at column 3"},
    {"44\r20", "", "unexpected byte 0x0D at column 3"},
    {"*31#", "", "unexpected '*' at column 1"},
    {"#comment", "", "unexpected '#' at column 1"},
};

INSTANTIATE_TEST_SUITE_P(Table, NumberSpelling, ::testing::ValuesIn(kRows));

TEST(CallNumber, CountsColumnsAndDigitsOfAnyLength) {
  EXPECT_EQ(describe(parse_number(std::string(70000, '1'))), "65535 digits, the most is 15");
  std::string far_off(70000, ' ');
  far_off += 'x';
  EXPECT_EQ(describe(parse_number(far_off)), "unexpected 'x' at column 65535");
}

TEST(CallNumber, PrintableTextIsOneLineThatCanBeToldApart) {
  EXPECT_EQ(printable("+44 20"), "+44 20");
  EXPECT_EQ(printable("a\\n\n\r\t\0\x7F\xC3\xA9"sv), "a\\\\n\\x0A\\x0D\\x09\\x00\\x7F\\xC3\\xA9");
}

}  // namespace
}  // namespace callrouter
