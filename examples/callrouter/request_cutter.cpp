#include "examples/callrouter/request_cutter.h"

#include <algorithm>

namespace callrouter {

bool RequestCutter::next(InputLine& line) {
  if (taken_) {
    held_.clear();
    taken_ = false;
  }
  if (behind_cr_ && !rest_.empty()) {
    if (rest_.front() == '\n' || rest_.front() == '\0') rest_.remove_prefix(1);
    behind_cr_ = false;
  }
  constexpr std::string_view kEnds = "\r\n";
  const std::size_t end = rest_.find_first_of(kEnds);
  if (end != std::string_view::npos) {
    const std::string_view piece = rest_.substr(0, end);
    behind_cr_ = rest_[end] == '\r';
    rest_.remove_prefix(end + 1);
    if (held_.empty()) return emit(line, piece);  // the usual case: no copy
    hold(piece);
    taken_ = true;
    return emit(line, held_);
  }
  hold(std::exchange(rest_, {}));
  if (!finished_ || held_.empty()) return false;
  taken_ = true;
  return emit(line, held_);
}

// One byte more than the limit tells a line that just fits from one that does not.
void RequestCutter::hold(std::string_view piece) {
  held_ += piece.substr(0, limit_ + 1 - std::min(held_.size(), limit_ + 1));
}

bool RequestCutter::emit(InputLine& line, std::string_view text) {
  line.cut = text.size() > limit_;
  line.text = text.substr(0, limit_);
  line.number = ++number_;
  return true;
}

}  // namespace callrouter
