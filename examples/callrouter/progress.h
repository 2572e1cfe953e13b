// Progress of a long input, once a second.
#ifndef CALLROUTER_PROGRESS_H
#define CALLROUTER_PROGRESS_H

#include <atomic>
#include <boost/timer/progress_display.hpp>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "examples/callrouter/stats.h"
#include "kernel/trigger.h"

namespace callrouter {

/// Prints on standard error while numbers are routed: nothing in the first second, then a bar, when the input
/// has a known size and somebody watches a terminal, or a line a second. A timer trigger of the kernel's trigger
/// task calls it.
class Progress {
 public:
  enum class Show { kNothing, kBar, kLine, kLogLines, kJsonLines };

  /// `total_bytes`: the size of the input, if it has one. Made before the kernel starts and destroyed after it
  /// has stopped: a call of the timer that has begun goes on though the timer is deleted, and uses this object.
  Progress(const Stats& stats, Show show, std::optional<std::uint64_t> total_bytes);

  void start();
  /// Nothing is printed any more; ends the line that a bar has begun. Not from the trigger task.
  void finish();

  /// Numbers answered in the last whole second, for the operator. Any thread.
  std::uint64_t last_second() const { return last_second_.load(std::memory_order_relaxed); }

  /// What suits the descriptors.
  ///   json    where no terminal is, programs read both descriptors
  static Show choose(bool json, bool stdout_is_terminal, bool stderr_is_terminal, bool size_known);

 private:
  static void on_second(OSObj* progress, ADDR, ULONG);
  void show();
  void show_bar();
  std::string line(std::uint64_t answered, std::uint64_t rate) const;

  const Stats& stats_;
  const Show show_;
  const std::optional<std::uint64_t> total_bytes_;
  std::atomic<std::uint64_t> last_second_{0};

  std::mutex mutex_;  // guards what follows; OS_CRITICAL_TRIGGER is entered from inside
  std::unique_ptr<OSTimerTrigger> timer_;
  std::uint64_t answered_before_ = 0;
  bool idle_ = false;
  std::unique_ptr<boost::timer::progress_display> bar_;
  bool line_open_ = false;
};

}  // namespace callrouter

#endif
