// Answers as text: one line each, for people, as CSV or as JSON.
#ifndef CALLROUTER_FORMAT_H
#define CALLROUTER_FORMAT_H

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "examples/callrouter/answer.h"

namespace callrouter {

/// A line and what was found out about it.
struct Report {
  const Answer& answer;
  std::string_view text;    ///< the line as it came
  std::string_view source;  ///< the file it stands in; empty when there is none
  std::uint64_t line;       ///< and where, from 1
};

/// Each answer is exactly one line of output, whatever bytes the input held.
class Formatter {
 public:
  virtual ~Formatter() = default;
  /// Appends what comes before the first answer.
  virtual void header(std::string& out) const { static_cast<void>(out); }
  virtual void append(std::string& out, const Report& report) const = 0;
};

enum class Format { kText, kCsv, kJson };

std::unique_ptr<Formatter> make_formatter(Format format);

}  // namespace callrouter

#endif
