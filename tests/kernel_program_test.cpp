// What a program leaves in OS_AXE_TASK and OS_PROGRAM for the stop: each is released once, though the pointers stay.

#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <new>
#include <vector>

#include "kernel/kernel.h"
#include "kernel/task.h"
#include "support/kernel_fixture.h"
#include "trigger_probes.h"

// ---- Storage whose release is counted --------------------------------------------------------------------------

namespace {
std::atomic<void*> watched{nullptr};
std::atomic<int> releases{0};

void release(void* storage) {
  if (storage != nullptr && storage == watched) {
    ++releases;  // and kept, so that nobody else is given it
  } else {
    std::free(storage);
  }
}
}  // namespace

void* operator new(std::size_t bytes) {
  void* const storage = std::malloc(bytes != 0 ? bytes : 1);
  if (storage == nullptr) throw std::bad_alloc();
  return storage;
}
void operator delete(void* storage) noexcept { release(storage); }
void operator delete(void* storage, std::size_t) noexcept { release(storage); }

namespace oskernel_test {
namespace {

/// A place where a program makes one object after another.
template <class Kind>
class Place {
 public:
  Place() : storage_(::operator new(sizeof(Kind))) {
    watched = storage_;
    releases = 0;
  }
  ~Place() {
    watched = nullptr;
    ::operator delete(storage_);
  }
  Place(const Place&) = delete;
  Place& operator=(const Place&) = delete;

  template <class... Arguments>
  Kind* make(Arguments&&... arguments) {
    return new (storage_) Kind(std::forward<Arguments>(arguments)...);
  }

 private:
  void* storage_;
};

class Left : public KernelTest {
 protected:
  void TearDown() override {
    OS_PROGRAM = nullptr;
    OS_AXE_TASK = nullptr;
    KernelTest::TearDown();
  }
  void round() {
    StartQuiet();
    Stop();
  }
};

TEST_F(Left, AProgramIsReleasedOnceHoweverOftenTheKernelStops) {
  Place<OSProgram> place;
  OSProgram* const program = place.make(os_stdscan);
  OS_PROGRAM = program;
  round();
  EXPECT_EQ(releases, 1);
  EXPECT_EQ(OS_PROGRAM, program) << "the pointer is not reset";
  EXPECT_EQ(program->nswaps, 0) << "only the storage is released";
  round();
  EXPECT_EQ(releases, 1);
  const OSProgram elsewhere(os_stdscan);
  round();
  EXPECT_EQ(releases, 1) << "another object is another matter";
}

TEST_F(Left, AProgramMadeAnewInTheSamePlaceIsReleasedAgain) {
  Place<OSProgram> place;
  for (int made = 1; made <= 3; ++made) {
    OS_PROGRAM = place.make(os_stdscan);
    round();
    EXPECT_EQ(releases, made);
  }
  OS_PROGRAM = nullptr;
  round();
  EXPECT_EQ(releases, 3);
}

TEST_F(Left, AProgramIsReleasedWithoutADestructor) {
  // Its scan entries may stand in static storage, say.
  Place<OSProgram> place;
  OS_PROGRAM = place.make(os_stdscan);
  OS_PROGRAM->nswaps = 77;
  OS_PROGRAM->lev[3].ntsks = 5;
  round();
  EXPECT_EQ(OS_PROGRAM->nswaps, 77);
  EXPECT_EQ(OS_PROGRAM->lev[3].ntsks, 5);
}

TEST_F(Left, AnAxeTaskIsDeletedOnceHoweverOftenTheKernelStops) {
  Place<OSAxeTask> place;
  StartQuiet();
  OSAxeTask* const axe = place.make();
  OS_AXE_TASK = axe;
  Stop();
  EXPECT_EQ(releases, 1);
  EXPECT_EQ(OS_AXE_TASK, axe) << "the pointer is not reset";
  round();
  EXPECT_EQ(releases, 1);
  StartQuiet();
  { const OSAxeTask elsewhere; }
  Stop();
  EXPECT_EQ(releases, 1) << "another object is another matter";
}

TEST_F(Left, AnAxeTaskMadeAnewInTheSamePlaceIsDeletedAgain) {
  Place<OSAxeTask> place;
  for (int made = 1; made <= 3; ++made) {
    StartQuiet();
    OS_AXE_TASK = place.make();
    Stop();
    EXPECT_EQ(releases, made);
  }
  OS_AXE_TASK = nullptr;
  round();
  EXPECT_EQ(releases, 3);
}

}  // namespace
}  // namespace oskernel_test
