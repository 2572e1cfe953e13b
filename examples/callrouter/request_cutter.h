// Cuts what a peer sends into lines, whatever it ends them with.
#ifndef CALLROUTER_REQUEST_CUTTER_H
#define CALLROUTER_REQUEST_CUTTER_H

#include <cstdint>
#include <string>
#include <string_view>
#include <utility>

#include "examples/callrouter/line_cutter.h"

namespace callrouter {

/// A line ends with CR, LF, CR LF or CR NUL (RFC 854: a terminal's Enter): programs, people and terminals all
/// send something else. The line is there as soon as its CR is; what belongs to the same end and comes later,
/// in the next segment perhaps, is passed over. Of a line longer than the limit the beginning is kept and the
/// rest is passed over, so that no peer makes the program grow.
///
/// Used as: add() a piece, then next() until it says there is no more, or take_rest(); when the peer has ended,
/// finish(), and next() once more. The piece is lent until then.
class RequestCutter {
 public:
  explicit RequestCutter(std::size_t limit) : limit_(limit) {}

  void add(std::string_view piece) { rest_ = piece; }
  void finish() { finished_ = true; }
  bool next(InputLine& line);
  /// Gives back what has not been looked at yet: the caller adds it again later.
  std::string_view take_rest() { return std::exchange(rest_, {}); }

 private:
  void hold(std::string_view piece);
  bool emit(InputLine& line, std::string_view text);

  const std::size_t limit_;
  std::string_view rest_;  // of the piece, not looked at yet
  std::string held_;       // the beginning of a line whose end no piece has brought yet
  bool taken_ = false;     // the last next() lent held_ out
  bool behind_cr_ = false;
  bool finished_ = false;
  std::uint64_t number_ = 0;
};

}  // namespace callrouter

#endif
