// The kernel for as long as an object lives.
#ifndef CALLROUTER_KERNEL_RUN_H
#define CALLROUTER_KERNEL_RUN_H

#include "kernel/console.h"
#include "kernel/kernel.h"
#include "kernel/task.h"

namespace callrouter {

class KernelRun {
 public:
  KernelRun(OSConsole& console, const KernelCfg& cfg) : cfg_(cfg) {
    Console = &console;
    os_startup(nullptr, 0, &cfg_);
    if (OS_TRIG_TASK != nullptr) OSTaskTag::SetName("trigger", OS_TRIG_TASK->thread_id);
  }
  ~KernelRun() {
    os_cleanup();
    Console = nullptr;
  }
  KernelRun(const KernelRun&) = delete;
  KernelRun& operator=(const KernelRun&) = delete;

 private:
  KernelCfg cfg_;  // the kernel refers to it as long as it runs
};

}  // namespace callrouter

#endif
