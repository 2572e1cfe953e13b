// The layer that answers numbers, and the task that brings it what the queue holds.
#ifndef CALLROUTER_ROUTER_H
#define CALLROUTER_ROUTER_H

#include <atomic>

#include "examples/callrouter/plan.h"
#include "kernel/io.h"
#include "kernel/link.h"
#include "kernel/task.h"
#include "kernel/trigger.h"

namespace callrouter {

/// Routes: each line that is indicated goes to the partner layer with its answer in front. It knows neither
/// where lines come from nor what becomes of the answers.
class RouterLayer : public OSIO {
 public:
  explicit RouterLayer(const Plan& plan) : plan_(plan) {}

  /// Takes a marked line; the answer's fate is the partner's result.
  OSIORetCode DataIndication(OSBuf* buf) override;
  /// For the layers below.
  OSIORetCode Service(OSIOParam* param) override { return Partner()->Service(param); }

 private:
  const Plan& plan_;
};

/// Empties a queue into a layer. The task dispatches its queue trigger itself, on a ready list of its own: a
/// stream of lines keeps the trigger ready all the time, and a wait for a slow output may be long, neither of
/// which the kernel's trigger task should see, since it keeps everybody's timers.
class RouterTask : public OSTask {
 public:
  /// Lends both; they outlive the task.
  RouterTask(OSProtectedQueue& queue, OSIO& layer);

  /// Ends the task when the present pass is done; what is queued then stays queued. The caller then kills and
  /// deletes the task. Not from the task itself.
  void stop();

  void Main() override;

 private:
  static void on_lines(OSObj* task, ADDR trigger, ULONG);
  bool pass_batch();

  OSProtectedQueue& queue_;
  OSIO& layer_;
  std::atomic<bool> stopping_{false};
  // The event of the task's own ready list, 0 before the task has one. stop() sets the flag and then reads the
  // handle, Main stores the handle and then reads the flag: one of them sees the other.
  std::atomic<HANDLE> wake_{0};
};

}  // namespace callrouter

#endif
