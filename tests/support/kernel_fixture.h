/// The console and the fixture that every test of the kernel uses.
#ifndef OSKERNEL_TESTS_KERNEL_FIXTURE_H
#define OSKERNEL_TESTS_KERNEL_FIXTURE_H

#include <gtest/gtest.h>

#include <functional>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "kernel/kernel.h"

namespace oskernel_test {

/// Records everything that is printed. Fatal records its message and returns, so that a test can see what is
/// left behind. Any thread.
class RecordingConsole : public OSConsole {
 public:
  void vPrint(const char* format, va_list arguments) override OSKERNEL_PRINTF(2, 0);
  void Fatal(const char* format, ...) override OSKERNEL_PRINTF(2, 3);
  int Getc() override;

  /// All text so far, in the order of the calls.
  std::string text() const;
  /// The text of each vPrint call.
  std::vector<std::string> calls() const;
  /// The formatted messages of Fatal, without framing.
  std::vector<std::string> fatals() const;
  /// How often `needle` occurs in text().
  int count(std::string_view needle) const;
  void clear();
  /// The characters that Getc returns from now on; then -1.
  void script(std::string characters);

 private:
  mutable std::mutex mutex_;
  std::vector<std::string> calls_;
  std::vector<std::string> fatals_;
  std::string script_;
  std::size_t script_at_ = 0;
};

/// Installs a recording console and stops the kernel at the end; each test starts it as it needs it.
class KernelTest : public ::testing::Test {
 protected:
  void SetUp() override;
  void TearDown() override;

  void Start();       ///< os_startup(nullptr, 0, &cfg)
  void StartQuiet();  ///< the same without trigger task and timer thread
  void Stop();        ///< os_cleanup()

  RecordingConsole console;
  KernelCfg cfg;

 private:
  bool started_ = false;
};

/// Polls `done` every millisecond; false when it has not become true in time.
bool wait_until(const std::function<bool()>& done, int timeout_ms = 10000);

}  // namespace oskernel_test

#endif
