// What the program finds out about one line, and how that travels in a message buffer.
#ifndef CALLROUTER_ANSWER_H
#define CALLROUTER_ANSWER_H

#include <cstdint>
#include <string>
#include <string_view>
#include <type_traits>

#include "examples/callrouter/number.h"
#include "examples/callrouter/plan.h"

class OSBuf;
class OSIO;

namespace callrouter {

/// Where a line comes from; the reader puts it in front of the line's text.
struct LineMark {
  std::uint64_t line;    ///< in its source, from 1
  std::uint32_t source;  ///< which of the inputs
  std::uint32_t cut;     ///< 1 when the line was too long for a buffer and its end is missing
};

/// The answer; the router puts it in front of the mark.
struct Answer {
  const PlanRow* row;  ///< where the call goes; null when unroutable or malformed. The plan keeps it.
  Number number;

  bool malformed() const { return !number.ok(); }
  bool routed() const { return row != nullptr; }
};

/// Bytes that a line's buffer needs in front of the text.
inline constexpr int kHeaderBytes = sizeof(LineMark) + sizeof(Answer);

static_assert(std::is_trivially_copyable_v<LineMark> && std::is_trivially_copyable_v<Answer>,
              "both are copied in and out of buffers byte by byte, where nothing is aligned");

/// Routes one line. Any thread.
Answer answer_line(const Plan& plan, std::string_view line, bool cut = false);

/// Why a number has no route; empty when it has one.
std::string reason(const Answer& answer);

/// Notes which layer a buffer is on its way to, for the operator who lists the buffers.
void stamp(OSBuf* buf, const OSIO& layer);

/// A buffer on its way to the router: mark and text.
void push_mark(OSBuf* buf, const LineMark& mark);
LineMark peek_mark(const OSBuf* buf);
std::string_view peek_text(const OSBuf* buf);

/// A buffer on its way from the router: answer, mark and text. Pulling leaves the others in front.
void push_answer(OSBuf* buf, const Answer& answer);
Answer pull_answer(OSBuf* buf);

}  // namespace callrouter

#endif
