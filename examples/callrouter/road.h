// The road of a number: reader, queue, router, output.
#ifndef CALLROUTER_ROAD_H
#define CALLROUTER_ROAD_H

#include <atomic>
#include <memory>
#include <string>
#include <vector>

#include "examples/callrouter/format.h"
#include "examples/callrouter/output.h"
#include "examples/callrouter/plan.h"
#include "examples/callrouter/reader.h"
#include "examples/callrouter/router.h"
#include "examples/callrouter/stats.h"
#include "examples/callrouter/stop.h"
#include "examples/callrouter/window.h"
#include "kernel/link.h"

namespace callrouter {

/// Two tasks and what lies between them:
///
///   ReaderTask --OSBuf--> OSProtectedQueue --OSQTrigger--> RouterTask: RouterLayer --> OutputLayer
///        ^                                                                                |
///        +------------------------- Window: a callback of each freed buffer <-------------+
///
/// Lives while the kernel runs. Everything but its making and its end is done by its own tasks.
class Road {
 public:
  /// Starts at once. Lends everything. `names` are the inputs' names in the answers.
  Road(const Plan& plan, const std::vector<std::string>& inputs, const std::vector<std::string>& names,
       const Formatter& formatter, Stats& stats, Stop& stop, const std::atomic<bool>& tracing);
  ~Road();
  Road(const Road&) = delete;
  Road& operator=(const Road&) = delete;

  /// Waits until the input has ended or a stop is requested and all that was read is answered; then ends the
  /// tasks. The results below are there from then on.
  void finish();

  bool complete() const { return complete_; }                      ///< every input was read to its end
  const std::string& input_error() const { return input_error_; }  ///< empty for none
  int output_error() const { return output_.error(); }             ///< an errno value, 0 for none

  const Window& window() const { return window_; }

 private:
  template <class Task>
  static void end(std::unique_ptr<Task>& task);

  const bool has_inputs_;
  Window window_;
  OSProtectedQueue queue_;
  OutputLayer output_;
  RouterLayer layer_;
  std::unique_ptr<RouterTask> router_;
  std::unique_ptr<ReaderTask> reader_;
  bool complete_ = false;
  std::string input_error_;
};

}  // namespace callrouter

#endif
