#include "examples/callrouter/road.h"

#include <unistd.h>

namespace callrouter {

Road::Road(const Plan& plan, const std::vector<std::string>& inputs, const std::vector<std::string>& names,
           const Formatter& formatter, Stats& stats, Stop& stop, const std::atomic<bool>& tracing)
    : has_inputs_(!inputs.empty()), output_(STDOUT_FILENO, formatter, names, stats, stop), layer_(plan) {
  layer_.Bind(&output_);
  router_ = std::make_unique<RouterTask>(queue_, layer_);
  reader_ = std::make_unique<ReaderTask>(
      ReaderTask::Road{inputs, queue_, layer_, window_, stats, stop, tracing, STDOUT_FILENO});
}

Road::~Road() {
  if (reader_) finish();
}

// The reader closes the window when it ends and the router empties it, so both are idle after the wait.
void Road::finish() {
  window_.wait_until_empty();
  complete_ = reader_->complete();
  input_error_ = reader_->error();
  end(reader_);
  router_->stop();
  end(router_);
  if (has_inputs_) {
    EndOfBatch rest;
    layer_.Service(&rest);
  }
}

// Kill joins the thread while the whole object is still there; the destructor alone would join when the derived
// part is gone already.
template <class Task>
void Road::end(std::unique_ptr<Task>& task) {
  task->Kill();
  task.reset();
}

}  // namespace callrouter
