// Cuts a stream of bytes into lines.
#ifndef CALLROUTER_LINE_CUTTER_H
#define CALLROUTER_LINE_CUTTER_H

#include <cstdint>
#include <string>
#include <string_view>

namespace callrouter {

struct InputLine {
  std::string_view text;  ///< without the line end; lent until the next call of the cutter
  std::uint64_t number;   ///< from 1
  bool cut;               ///< the text is the beginning of a longer line
};

/// Lines end with LF or CR LF; a last line needs no end. Any other byte, NUL included, belongs to the text. Of
/// a line longer than the limit the beginning is kept and the rest is passed over, so that no input makes the
/// program grow.
///
/// Used as: add() a block, then next() until it says there is no more; at the end of the input finish(), and
/// next() once more. The block is lent until next() has said so.
class LineCutter {
 public:
  explicit LineCutter(std::size_t limit) : limit_(limit) {}

  void add(std::string_view block) { rest_ = block; }
  void finish() { finished_ = true; }
  bool next(InputLine& line);

 private:
  void hold(std::string_view piece);
  bool emit(InputLine& line, std::string_view text);

  const std::size_t limit_;
  std::string_view rest_;  // of the block, not looked at yet
  std::string held_;       // the beginning of a line whose end no block has brought yet
  bool taken_ = false;     // the last next() lent held_ out
  bool finished_ = false;
  std::uint64_t number_ = 0;
};

}  // namespace callrouter

#endif
