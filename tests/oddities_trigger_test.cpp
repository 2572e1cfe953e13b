// What looks wrong about triggers and is relied on, as far as no other test shows it.

#include <gtest/gtest.h>

#include "kernel/trigger.h"
#include "support/task_watch.h"
#include "support/trigger_fixtures.h"
#include "trigger_probes.h"

using namespace oskernel_test;

namespace {

using TriggerOddities = QuietTriggerTest;

TEST_F(TriggerOddities, SnoozeAsksForNoPassThoughATriggerIsReadyForTheTask) {
  Owned<> task;
  HandTrigger wake(OS_TA_WAKE);
  wake.SetTask(task.get());
  wake.ArmAndFire();
  os_check_triggers();  // in vain: the task is running
  ASSERT_EQ(wake.State(), OS_T_READY);
  drain(os_trig_event);

  task->Snooze();
  EXPECT_EQ(drain(os_trig_event), 0) << "nobody has been told to dispatch";
  EXPECT_EQ(wake.State(), OS_T_READY);
  EXPECT_EQ(state_of(*task), OS_ST_HOLD);

  os_check_triggers();
  EXPECT_EQ(wake.State(), OS_T_ACTIONED);
  EXPECT_EQ(state_of(*task), OS_ST_OK);
  EXPECT_EQ(task->WakeCode(), 1);
}

}  // namespace
