/// Deferred deletion of tasks, and the end of what the program has put into OS_AXE_TASK and OS_PROGRAM.
#include <new>

#include "kernel/kernel.h"
#include "kernel/task.h"
#include "kernel/task_priv.h"
#include "kernel/trigger.h"

namespace {

// Addresses released by the last stop and not made anew since; start and stop only.
const OSAxeTask* released_axe_task = nullptr;
const OSProgram* released_program = nullptr;

/// The queue is filled by any thread and emptied by the dispatcher.
OSProtectedQueue* protected_queue(OSQueue* queue) { return static_cast<OSProtectedQueue*>(queue); }

}  // namespace

OSAxeTask::OSAxeTask() : axeq(new OSProtectedQueue), trig(new OSQTrigger(axeq, 1, 0, 0)) {
  trig->SetCallback(OSAxeTask::Trigger, reinterpret_cast<OSObj*>(this), nullptr, 0);
  if (released_axe_task == this) released_axe_task = nullptr;
}

OSAxeTask::~OSAxeTask() {
  delete trig;
  delete axeq;
}

void OSAxeTask::Axe(OSTask* task) { protected_queue(axeq)->Append(task); }

void OSAxeTask::Trigger(OSObj* axe_task, ADDR /*addr*/, ULONG /*value*/) {
  auto* const axe = reinterpret_cast<OSAxeTask*>(axe_task);
  OSProtectedQueue* const queue = protected_queue(axe->axeq);
  while (OSListObj* const first = queue->FirstObject()) {
    auto* const task = static_cast<OSTask*>(static_cast<OSLinkListObj*>(first));
    queue->Remove(task);
    delete task;
  }
  axe->trig->Clear();
}

void program_constructed(const OSProgram* program) {
  if (released_program == program) released_program = nullptr;
}

void delete_program_objects() {
  if (OS_AXE_TASK != released_axe_task) {
    released_axe_task = OS_AXE_TASK;
    delete OS_AXE_TASK;
  }
  if (OS_PROGRAM != released_program) {
    released_program = OS_PROGRAM;
    ::operator delete(OS_PROGRAM);
  }
}
