// Dialled numbers: from the spellings that people write to the digits that are routed.
#ifndef CALLROUTER_NUMBER_H
#define CALLROUTER_NUMBER_H

#include <cstdint>
#include <string>
#include <string_view>

namespace callrouter {

/// ITU-T E.164 section 6: an international number has at most 15 digits.
inline constexpr int kMaxDigits = 15;

enum class NumberError : std::uint8_t {
  kNone,
  kEmptyLine,
  kNoDigits,
  kTooManyDigits,
  kUnexpected,
  kLineTooLong
};

/// What became of one line. Plain data: it travels inside a message buffer.
struct Number {
  char digits[kMaxDigits];  ///< international digits, without + or 00; not terminated
  std::uint8_t count;       ///< how many of them; 0 with an error
  NumberError error;
  unsigned char offender;  ///< kUnexpected: the character
  std::uint16_t where;     ///< kUnexpected: its column, from 1; kTooManyDigits: how many digits there were

  /// The digits as people write them: +44..., or 020... when there is no country code in front.
  std::string text() const;
  std::string_view view() const { return {digits, count}; }
  bool ok() const { return error == NumberError::kNone; }
};

/// Reads a number as people write it: +44 20 7946 0123, 0044 (0)20 7946-0123, 1.201.555.0123 are all
/// international numbers. Space, tab, '-', '.', '/' and parentheses separate digits; a '+' or 00 in front says
/// nothing that the digits do not; "(0)" after other digits is the trunk digit that is dialled inside the
/// country only, and is left out. Anything else makes the line malformed.
Number parse_number(std::string_view line);

/// Why the number could not be read, for people; empty for a good one.
std::string describe(const Number& number);

/// `text` as one line of printable ASCII: other bytes become \xNN, a backslash becomes two.
std::string printable(std::string_view text);

}  // namespace callrouter

#endif
