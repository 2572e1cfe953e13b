// The task that reads the input and puts every line on the queue.
#ifndef CALLROUTER_READER_H
#define CALLROUTER_READER_H

#include <array>
#include <atomic>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "examples/callrouter/line_cutter.h"
#include "examples/callrouter/stats.h"
#include "examples/callrouter/stop.h"
#include "examples/callrouter/window.h"
#include "kernel/io.h"
#include "kernel/link.h"
#include "kernel/task.h"

namespace callrouter {

/// Throws UsageError when one of the files cannot be read, so that a typing error is told before any output.
/// "-" is standard input. Returns the bytes in all of them together, or nothing when one has no fixed size.
std::optional<std::uint64_t> check_inputs(const std::vector<std::string>& paths);

/// Reads one input after the other, and at the end closes the window. What is read is queued in batches; a
/// batch is handed over early whenever the reader is about to wait.
class ReaderTask : public OSTask {
 public:
  struct Road {
    const std::vector<std::string>& inputs;
    OSProtectedQueue& queue;
    const OSIO& router;  ///< where the queue leads
    Window& window;
    Stats& stats;
    Stop& stop;
    const std::atomic<bool>& tracing;  ///< mark the buffers for the layers' diagnostics
    int output_fd;                     ///< its reader's going away ends the reading; -1 for none
  };

  /// Lends everything in `road`, which outlives the task.
  explicit ReaderTask(const Road& road);

  void Main() override;

  /// Every input has been read to its end. When the window is empty, as is the next.
  bool complete() const { return complete_; }
  /// What went wrong with an input, empty for nothing.
  const std::string& error() const { return error_; }

 private:
  bool read_input(std::uint32_t index);
  bool wait_readable(int fd);
  void put(const InputLine& line, std::uint32_t index);
  void hand_over();

  static constexpr std::size_t kBatch = 64;

  const Road road_;
  std::array<OSBuf*, kBatch> batch_;
  std::size_t batched_ = 0;
  bool complete_ = false;
  std::string error_;
};

}  // namespace callrouter

#endif
