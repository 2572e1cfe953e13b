#include "examples/callrouter/line_cutter.h"

#include <algorithm>

namespace callrouter {

bool LineCutter::next(InputLine& line) {
  if (taken_) {
    held_.clear();
    taken_ = false;
  }
  const std::size_t end = rest_.find('\n');
  if (end != std::string_view::npos) {
    const std::string_view piece = rest_.substr(0, end);
    rest_.remove_prefix(end + 1);
    if (held_.empty()) return emit(line, piece);  // the usual case: no copy
    hold(piece);
    taken_ = true;
    return emit(line, held_);
  }
  hold(rest_);
  rest_ = {};
  if (!finished_ || held_.empty()) return false;
  taken_ = true;
  return emit(line, held_);
}

// One byte more than the limit tells a line that just fits, with its CR, from one that does not.
void LineCutter::hold(std::string_view piece) {
  held_ += piece.substr(0, limit_ + 2 - std::min(held_.size(), limit_ + 2));
}

bool LineCutter::emit(InputLine& line, std::string_view text) {
  if (!text.empty() && text.back() == '\r') text.remove_suffix(1);
  line.cut = text.size() > limit_;
  line.text = text.substr(0, limit_);
  line.number = ++number_;
  return true;
}

}  // namespace callrouter
