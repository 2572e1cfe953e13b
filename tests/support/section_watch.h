/// A console that notices whether it is called inside a section.
#ifndef OSKERNEL_TESTS_SECTION_WATCH_H
#define OSKERNEL_TESTS_SECTION_WATCH_H

#include <atomic>
#include <cstdarg>
#include <cstdio>

#include "kernel_fixture.h"

namespace oskernel_test {

/// Records as its base does, and counts the calls that come while somebody holds the section. Meant for tests of
/// one thread: a section that another thread holds counts too. In place from construction to destruction.
class SectionWatch : public RecordingConsole {
 public:
  explicit SectionWatch(CRITICAL_SECTION* section) : section_(section), before_(Console) { Console = this; }
  ~SectionWatch() override { Console = before_; }
  SectionWatch(const SectionWatch&) = delete;
  SectionWatch& operator=(const SectionWatch&) = delete;

  void vPrint(const char* format, va_list arguments) override OSKERNEL_PRINTF(2, 0) {
    look();
    RecordingConsole::vPrint(format, arguments);
  }
  void Fatal(const char* format, ...) override OSKERNEL_PRINTF(2, 3) {
    look();
    char message[300];
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(message, sizeof message, format, arguments);
    va_end(arguments);
    RecordingConsole::Fatal("%s", message);
  }
  /// How many calls came while the section was held.
  int calls_inside() const { return inside_; }

 private:
  void look() {
    if (section_->owner_count != 0) ++inside_;
  }

  CRITICAL_SECTION* section_;
  OSConsole* before_;
  std::atomic<int> inside_{0};
};

}  // namespace oskernel_test

#endif
