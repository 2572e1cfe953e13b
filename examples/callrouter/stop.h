// The program's one way of ending early.
#ifndef CALLROUTER_STOP_H
#define CALLROUTER_STOP_H

#include <atomic>

namespace callrouter {

/// A request to stop reading. Whoever waits on a descriptor waits on fd() as well: it is readable, for all and
/// for good, once a stop has been requested. What has been read is still answered.
class Stop {
 public:
  enum class Reason : int { kNone, kSignal, kOutputClosed, kOperator };

  Stop();
  ~Stop();
  Stop(const Stop&) = delete;
  Stop& operator=(const Stop&) = delete;

  /// The first reason stays. Any thread; safe in a signal handler.
  void request(Reason reason) noexcept;
  bool requested() const noexcept { return reason() != Reason::kNone; }
  Reason reason() const noexcept { return reason_.load(std::memory_order_acquire); }
  int fd() const noexcept { return fd_; }

 private:
  std::atomic<Reason> reason_{Reason::kNone};
  int fd_;
};

}  // namespace callrouter

#endif
