/// A thread whose waiting can be seen from outside, and a process that has done nothing yet.
#ifndef OSKERNEL_TESTS_WATCHED_THREAD_H
#define OSKERNEL_TESTS_WATCHED_THREAD_H

#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <iterator>
#include <string>
#include <thread>
#include <utility>

#include "kernel_fixture.h"

/// Runs the statements in a new process that has executed nothing of the library yet, with the test's fixture
/// set up in it. Failed expectations in there fail the test.
#define IN_FRESH_PROCESS(...)                          \
  do {                                                 \
    const auto in_fresh_process = [&] { __VA_ARGS__ }; \
    GTEST_FLAG_SET(death_test_style, "threadsafe");    \
    EXPECT_EXIT(                                       \
        {                                              \
          in_fresh_process();                          \
          oskernel_test::end_fresh_process();          \
        },                                             \
        ::testing::ExitedWithCode(0), "");             \
  } while (false)

namespace oskernel_test {

/// The new process tells its failures by exit code and standard error; it prints no report of its own.
[[noreturn]] inline void end_fresh_process() {
  const testing::TestResult& result = *testing::UnitTest::GetInstance()->current_test_info()->result();
  for (int i = 0; i < result.total_part_count(); ++i) {
    const testing::TestPartResult& part = result.GetTestPartResult(i);
    if (part.failed()) std::fprintf(stderr, "line %d: %s\n", part.line_number(), part.message());
  }
  std::fflush(nullptr);
  _exit(result.Failed() ? 1 : 0);
}

class WatchedThread {
 public:
  explicit WatchedThread(std::function<void()> body)
      : thread_([this, run = std::move(body)] {
          tid_ = gettid();
          run();
          done_ = true;
        }) {}
  WatchedThread(const WatchedThread&) = delete;
  WatchedThread& operator=(const WatchedThread&) = delete;

  /// A thread that never ends would hang the whole run without a word.
  ~WatchedThread() {
    if (!finished_within(60000)) {
      std::fprintf(stderr, "a test's thread does not end, it is %s\n", asleep() ? "waiting" : "running");
      std::abort();
    }
    thread_.join();
  }

  bool finished() const { return done_; }
  bool finished_within(int timeout_ms) {
    return wait_until([this] { return finished(); }, timeout_ms);
  }

  /// True as soon as the thread is seen waiting in the system several times in a row; false when it has ended
  /// or keeps running.
  bool blocked(int timeout_ms = 10000) {
    int seen = 0;
    wait_until(
        [this, &seen] {
          seen = asleep() ? seen + 1 : 0;
          return seen >= 4 || finished();
        },
        timeout_ms);
    return seen >= 4 && !finished();
  }

  /// Sends the signal to the thread until `done`, at most ten seconds. An installed handler interrupts the wait
  /// that the thread is in, whenever it gets there.
  bool interrupt_until(int signal_number, const std::function<bool()>& done) {
    return wait_until([this, signal_number, &done] {
      if (done()) return true;
      if (!finished()) pthread_kill(thread_.native_handle(), signal_number);
      return done();
    });
  }

 private:
  bool asleep() const {
    if (tid_ == 0) return false;
    std::ifstream file("/proc/self/task/" + std::to_string(tid_) + "/stat");
    const std::string stat((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
    const std::size_t name_end = stat.rfind(") ");
    return name_end != std::string::npos && stat[name_end + 2] == 'S';
  }

  std::atomic<pid_t> tid_{0};
  std::atomic<bool> done_{false};
  std::thread thread_;
};

/// Signals of this number interrupt what a thread waits for: there is no SA_RESTART.
class InterruptingHandler {
 public:
  explicit InterruptingHandler(int number) : number_(number) {
    struct sigaction action = {};
    action.sa_handler = [](int) {};
    sigaction(number, &action, &before_);
  }
  ~InterruptingHandler() { sigaction(number_, &before_, nullptr); }

 private:
  int number_;
  struct sigaction before_ = {};
};

}  // namespace oskernel_test

#endif
