/// Line cutting, any stream in any segments, beside a reference.
///
/// Flags: bits 0 to 2: the longest line that is collected, 8 to 1024 bytes by powers of two, or, for 0, the ordinary
/// 1 MiB; bits 3 and 4: the size of the line that the program asks for, 0, 1, 16 or 128 bytes; bits 5 to 7: after so
/// many lines the program is done, 0 for never.
#ifndef OSKERNEL_FUZZ_LINE_TARGET_H
#define OSKERNEL_FUZZ_LINE_TARGET_H

#include <cstring>
#include <vector>

#include "fuzz/segments.h"

namespace oskernel_fuzz {

/// What the comments in linesocket.h say.
class ReferenceCutter {
 public:
  explicit ReferenceCutter(std::size_t most) : most_(most) {}

  void receive(const std::string& segment) {
    for (const char c : segment) {
      if (shut_down_) return;
      if (c == '\n' || static_cast<UBYTE>(c) >= 128) continue;
      if (c == '\r') {
        lines_.push_back(line_);
        line_.clear();
      } else if (line_.size() + 2 > most_) {
        shut_down_ = true;
      } else {
        line_.push_back(c);
      }
    }
  }
  const std::vector<std::string>& lines() const { return lines_; }

 private:
  std::size_t most_;
  std::string line_;
  bool shut_down_ = false;
  std::vector<std::string> lines_;
};

class WatchedLineSocket : public LineSocket {
 public:
  /// The story outlives the object, which may delete itself.
  struct Story {
    std::vector<std::string> lines;  // text, and after each the length that was announced
    bool gone = false;
  };
  WatchedLineSocket(int max_line, std::size_t done_after, Story* story)
      : LineSocket(max_line), done_after_(done_after), story_(story) {}
  ~WatchedLineSocket() override { story_->gone = true; }
  void Receive(char* text) override {
    expect(text == line, "the line is lent where it was collected");
    // A zero byte is an ordinary character of a line; the text ends there, the line does not.
    const auto length = static_cast<std::size_t>(linelen);
    expect(text[length] == '\0', "the line is terminated");
    story_->lines.emplace_back(text, length);
    std::memset(text, '#', length);  // it is the program's to change
    if (done_after_ != 0 && story_->lines.size() >= done_after_) done = true;
  }

 private:
  std::size_t done_after_;
  Story* story_;
};

inline int run_line(const std::uint8_t* input, std::size_t size) {
  Kernel::start();
  const Inventory before;
  SegmentedStream stream(input, size);
  const unsigned power = stream.flags() & 7U;
  const int most = power == 0 ? 1 << 20 : 4 << power;
  constexpr int kAskedFor[] = {0, 1, 16, 128};
  LineSocket::max_line_bytes = most;

  const std::size_t done_after = stream.flags() >> 5U;
  WatchedLineSocket::Story story;
  ReferenceCutter reference(static_cast<std::size_t>(most));
  auto* socket = new WatchedLineSocket(kAskedFor[stream.flags() >> 3U & 3U], done_after, &story);
  while (!stream.at_end() && !story.gone) {
    const std::string segment = stream.next();
    const OSIORetCode answer = socket->DataIndication(received_buffer(segment));
    expect(answer == Success, "the stream is always accepted");
    reference.receive(segment);
    const bool done = done_after != 0 && story.lines.size() >= done_after;
    expect(story.gone == done, "the object is gone behind the buffer in which it was done, and not before");
  }
  if (story.lines != reference.lines()) {
    report("lines differ", std::to_string(story.lines.size()) + " lines",
           std::to_string(reference.lines().size()) + " lines");
  }
  if (!story.gone) delete socket;
  before.check();
  return 0;
}

}  // namespace oskernel_fuzz

#endif
