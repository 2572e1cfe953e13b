// A ring's thread that waits for a buffer, and threads that bring buffers home, stopped inside the system's calls.

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <semaphore.h>

#include <atomic>
#include <cerrno>
#include <functional>
#include <memory>
#include <utility>

#include "support/ring_fixture.h"
#include "support/watched_thread.h"

using namespace oskernel_test;

namespace {

/// What this thread's next call for a semaphore does first. Answers whether the call goes on to the system; when not,
/// errno is set and the call fails.
thread_local std::function<bool()> before_wait;
thread_local std::function<void(sem_t*)> before_post;

template <class Call>
Call next_of(const char* name) {
  return reinterpret_cast<Call>(dlsym(RTLD_NEXT, name));
}

}  // namespace

// The executable's symbols come before the C library's, for the shared library under test too.
extern "C" {

__attribute__((visibility("default"))) int sem_clockwait(sem_t* sem, clockid_t clock, const timespec* until) {
  const auto first = std::exchange(before_wait, nullptr);
  if (first != nullptr && !first()) return -1;
  return next_of<int (*)(sem_t*, clockid_t, const timespec*)>("sem_clockwait")(sem, clock, until);
}

__attribute__((visibility("default"))) int sem_post(sem_t* sem) noexcept {
  if (before_post != nullptr) before_post(sem);
  static const auto real = next_of<int (*)(sem_t*)>("sem_post");
  return real(sem);
}

}  // extern "C"

namespace {

constexpr ULONG kForEver_ms = 0x7FFFFFFF;

using RingWait = RingTest;

TEST_F(RingWait, GoesOnAfterASignalHandlerHasRun) {
  const auto ring = std::make_unique<RingBuffer>(2);
  OSBuf* buf = ring->Get();
  std::atomic<bool> interrupted{false};
  WatchedThread waiter([&] {
    before_wait = [&interrupted] {
      interrupted = true;
      errno = EINTR;
      return false;
    };
    ring->WaitForBuffer(kForEver_ms);
  });
  EXPECT_TRUE(waiter.blocked());
  EXPECT_TRUE(interrupted);
  buf->Free();
  EXPECT_TRUE(waiter.finished_within(kPatienceMs));
}

TEST_F(RingWait, IsNotEndedByTheWakeUpOfAnEarlierOne) {
  const auto ring = std::make_unique<RingBuffer>(2);
  OSBuf* buf = ring->Get();
  std::atomic<OSBuf*> lent{nullptr};
  WatchedThread waiter([&] {
    // The buffer comes home at the very moment when the first wait gives up.
    before_wait = [&] {
      buf->Free();
      errno = ETIMEDOUT;
      return false;
    };
    ring->WaitForBuffer(kForEver_ms);
    lent = ring->Get();
    ring->WaitForBuffer(kForEver_ms);
  });
  EXPECT_TRUE(wait_until([&] { return lent != nullptr; }, kPatienceMs));
  EXPECT_TRUE(waiter.blocked()) << "the ring is empty again";
  EXPECT_EQ(lent, buf);
  lent.load()->Free();
  EXPECT_TRUE(waiter.finished_within(kPatienceMs));
}

/// A ring of three whose thread waits, and a freeing thread that stands where it wakes that thread.
class RingPut : public RingTest {
 protected:
  void SetUp() override {
    RingTest::SetUp();
    ring_ = new WatchedRing(3, &deleted_);
    first_ = ring_->Get();
    second_ = ring_->Get();
    waiter_ = std::make_unique<WatchedThread>([this] { ring_->WaitForBuffer(kForEver_ms); });
    ASSERT_TRUE(waiter_->blocked());
    freer_ = std::make_unique<WatchedThread>([this] {
      const char* const begin = reinterpret_cast<char*>(static_cast<RingBuffer*>(ring_));
      before_post = [this, begin](sem_t* sem) {
        const char* const at = reinterpret_cast<char*>(sem);
        if (at < begin || at >= begin + sizeof(RingBuffer)) return;
        inside_.open();
        door_.wait();
      };
      first_->Free();
      before_post = nullptr;
    });
    ASSERT_TRUE(inside_.wait());
  }
  void let_it_finish() {
    door_.open();
    EXPECT_TRUE(freer_->finished_within(kPatienceMs));
    EXPECT_TRUE(waiter_->finished_within(kPatienceMs));
  }

  std::atomic<int> deleted_{0};
  WatchedRing* ring_ = nullptr;
  OSBuf* first_ = nullptr;
  OSBuf* second_ = nullptr;

 private:
  Gate inside_, door_;
  std::unique_ptr<WatchedThread> waiter_, freer_;
};

TEST_F(RingPut, ThatIsNotOverKeepsTheNextOneWaiting) {
  WatchedThread other([this] { second_->Free(); });
  EXPECT_TRUE(other.blocked());
  let_it_finish();
  EXPECT_TRUE(other.finished_within(kPatienceMs));
  ring_->Free();
  EXPECT_EQ(deleted_, 1);
}

// Whoever finds all buffers at home deletes the ring: nobody may still be inside it.
TEST_F(RingPut, ThatIsNotOverKeepsTheRingsEndWaiting) {
  WatchedThread ending([this] { ring_->Free(); });
  EXPECT_TRUE(ending.blocked());
  let_it_finish();
  EXPECT_TRUE(ending.finished_within(kPatienceMs));
  EXPECT_EQ(deleted_, 0) << "the second buffer is out";
  second_->Free();
  RingBuffer::Cleanup(nullptr, nullptr, 0);
  EXPECT_EQ(deleted_, 1);
}

}  // namespace
