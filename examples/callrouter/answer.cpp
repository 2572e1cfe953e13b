#include "examples/callrouter/answer.h"

#include <cassert>
#include <cstring>
#include <typeinfo>

#include "kernel/buffer.h"
#include "kernel/io.h"

namespace callrouter {

Answer answer_line(const Plan& plan, std::string_view line, bool cut) {
  Answer answer{};
  if (cut) {
    answer.number.error = NumberError::kLineTooLong;
  } else {
    answer.number = parse_number(line);
  }
  if (answer.number.ok()) answer.row = plan.match(answer.number.view());
  return answer;
}

std::string reason(const Answer& answer) {
  if (answer.malformed()) return describe(answer.number);
  return answer.routed() ? std::string() : "no prefix of the plan matches";
}

// The dynamic linker can name the symbol of a class's type information.
void stamp(OSBuf* buf, const OSIO& layer) { buf->destPtr = const_cast<std::type_info*>(&typeid(layer)); }

void push_mark(OSBuf* buf, const LineMark& mark) {
  buf->PushData(reinterpret_cast<const UBYTE*>(&mark), static_cast<UWORD>(sizeof mark));
}

LineMark peek_mark(const OSBuf* buf) {
  assert(buf->length >= sizeof(LineMark));
  LineMark mark;
  std::memcpy(&mark, buf->data, sizeof mark);
  return mark;
}

std::string_view peek_text(const OSBuf* buf) {
  assert(buf->length >= sizeof(LineMark));
  return {reinterpret_cast<const char*>(buf->data) + sizeof(LineMark), buf->length - sizeof(LineMark)};
}

void push_answer(OSBuf* buf, const Answer& answer) {
  buf->PushData(reinterpret_cast<const UBYTE*>(&answer), static_cast<UWORD>(sizeof answer));
}

Answer pull_answer(OSBuf* buf) {
  Answer answer;
  buf->PullData(reinterpret_cast<UBYTE*>(&answer), static_cast<UWORD>(sizeof answer));
  return answer;
}

}  // namespace callrouter
