// Numbers from standard input, read by a task of its own.
#ifndef CALLROUTE_INPUT_H
#define CALLROUTE_INPUT_H

#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <optional>
#include <string>

#include "examples/callrouter/stop.h"
#include "kernel/task.h"
#include "kernel/trigger.h"

namespace callroute {

/// Reading may wait for a person; the thread that talks to the router must not. Lines are handed over through a
/// short list, and a trigger on the ready list of the thread that has made this tells of them.
class Input : public OSTask {
 public:
  /// Starts at once. `news` is called on the making thread's ready list when take() may have something new to say.
  explicit Input(std::function<void()> news);
  /// Ends the reading.
  ~Input() override;

  struct Line {
    std::string text;
    bool cut;  ///< it is the beginning of a longer one
  };

  /// The next line, if there is one.
  std::optional<Line> take();
  /// The input has ended and every line has been taken.
  bool ended() const;
  /// What went wrong with it; empty for nothing. When it has ended.
  std::string error() const;

  void Main() override;

 private:
  bool put(std::string text, bool cut);
  void end(std::string error);
  static void on_news(OSObj* input, ADDR, ULONG);

  const std::function<void()> news_;
  callrouter::Stop stop_;
  OSTimerTrigger trigger_;
  mutable std::mutex mutex_;  // guards what follows; the trigger is fired outside
  std::condition_variable room_;
  std::deque<Line> lines_;
  bool ended_ = false;
  bool stopping_ = false;
  std::string error_;
};

}  // namespace callroute

#endif
