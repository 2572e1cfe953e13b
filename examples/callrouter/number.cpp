#include "examples/callrouter/number.h"

#include <fmt/format.h>

#include <algorithm>
#include <limits>

namespace callrouter {
namespace {

constexpr std::string_view kBlank = " \t\r\n\v\f";
constexpr std::string_view kSeparators = " \t-./()";

std::uint16_t to_u16(std::size_t n) {
  return static_cast<std::uint16_t>(std::min<std::size_t>(n, std::numeric_limits<std::uint16_t>::max()));
}

Number failed(NumberError error, std::size_t where = 0, char offender = 0) {
  Number number{};
  number.error = error;
  number.where = to_u16(where);
  number.offender = static_cast<unsigned char>(offender);
  return number;
}

}  // namespace

Number parse_number(std::string_view line) {
  const std::size_t first = line.find_first_not_of(kBlank);
  if (first == std::string_view::npos) return failed(NumberError::kEmptyLine);
  const std::size_t end = line.find_last_not_of(kBlank) + 1;

  std::size_t at = first;
  const bool plus = line[at] == '+';
  if (plus) ++at;

  // Two more than an international number holds: the 00 in front of one is taken off at the end.
  char digits[kMaxDigits + 2];
  std::size_t count = 0;
  for (; at < end; ++at) {
    const char c = line[at];
    if (c >= '0' && c <= '9') {
      if (count < sizeof digits) digits[count] = c;
      ++count;
    } else if (c == '(' && count > 0 && line.substr(at, 3) == "(0)") {
      at += 2;
    } else if (kSeparators.find(c) == std::string_view::npos) {
      return failed(NumberError::kUnexpected, at + 1, c);
    }
  }

  std::size_t skip = 0;
  if (!plus && count >= 2 && digits[0] == '0' && digits[1] == '0') skip = 2;
  count -= skip;
  if (count == 0) return failed(NumberError::kNoDigits);
  if (count > kMaxDigits) return failed(NumberError::kTooManyDigits, count);

  Number number{};
  number.count = static_cast<std::uint8_t>(count);
  std::copy_n(digits + skip, count, number.digits);
  return number;
}

// No country code begins with 0, so such digits are a national number. A plan may have rows for those.
std::string Number::text() const {
  std::string text = count > 0 && digits[0] == '0' ? "" : "+";
  return text.append(view());
}

std::string describe(const Number& number) {
  switch (number.error) {
    case NumberError::kNone:
      return {};
    case NumberError::kEmptyLine:
      return "empty line";
    case NumberError::kNoDigits:
      return "no digits";
    case NumberError::kTooManyDigits:
      return fmt::format("{} digits, the most is {}", number.where, kMaxDigits);
    case NumberError::kLineTooLong:
      return "line too long";
    case NumberError::kUnexpected:
      break;
  }
  const char c = static_cast<char>(number.offender);
  if (c > ' ' && c <= '~') return fmt::format("unexpected '{}' at column {}", c, number.where);
  return fmt::format("unexpected byte 0x{:02X} at column {}", number.offender, number.where);
}

std::string printable(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  for (const char c : text) {
    if (c == '\\') {
      out += "\\\\";
    } else if (c >= ' ' && c <= '~') {
      out += c;
    } else {
      out += fmt::format("\\x{:02X}", static_cast<unsigned char>(c));
    }
  }
  return out;
}

}  // namespace callrouter
