/// A trigger that writes down when and how its queue asks it to look.
#ifndef OSKERNEL_TESTS_QUEUE_PROBE_H
#define OSKERNEL_TESTS_QUEUE_PROBE_H

#include <functional>
#include <utility>

#include "kernel/link.h"
#include "kernel/trigger.h"
#include "section_wait.h"

namespace oskernel_test {

/// Counts how often a queue asks it to look, and what was locked then.
class Probe : public OSTrigger {
 public:
  Probe() : OSTrigger(OS_TA_NONE) {}
  void Check() override {
    ++checks;
    trigger_section_held = is_inside(OS_CRITICAL_TRIGGER);
    if (watched_section != nullptr) queue_section_held = is_inside(*watched_section);
    if (watched != nullptr) size_at_check = watched->Size();
    if (on_check) on_check();
  }
  int taken_checks() { return std::exchange(checks, 0); }

  int checks = 0;
  bool trigger_section_held = false;
  bool queue_section_held = false;
  CRITICAL_SECTION* watched_section = nullptr;
  OSLinkList* watched = nullptr;
  int size_at_check = -1;
  std::function<void()> on_check;
};

}  // namespace oskernel_test

#endif
