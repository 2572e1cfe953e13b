/// A console on which a certain line makes something happen.
#ifndef OSKERNEL_TESTS_ACTS_AT_A_LINE_H
#define OSKERNEL_TESTS_ACTS_AT_A_LINE_H

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <functional>
#include <string>
#include <utility>

#include "network_fixture.h"

namespace oskernel_test {

/// Does something once, on the thread that is the first to print a certain text. The console of the program while it
/// lives; lives longer than the threads that print.
class ActsOnceAtALine : public RecordingConsole {
 public:
  ActsOnceAtALine(std::string text, std::function<void()> act)
      : text_(std::move(text)), act_(std::move(act)), before_(Console) {
    Console = this;
  }
  ~ActsOnceAtALine() override { Console = before_; }
  ActsOnceAtALine(const ActsOnceAtALine&) = delete;
  ActsOnceAtALine& operator=(const ActsOnceAtALine&) = delete;

  bool has_acted() const { return acted_; }

  void vPrint(const char* format, va_list arguments) override OSKERNEL_PRINTF(2, 0) {
    char line[1024];
    va_list again;
    va_copy(again, arguments);
    vsnprintf(line, sizeof line, format, again);
    va_end(again);
    RecordingConsole::vPrint(format, arguments);
    if (std::string(line).find(text_) != std::string::npos && !acted_.exchange(true)) act_();
  }

 private:
  std::string text_;
  std::function<void()> act_;
  OSConsole* before_;
  std::atomic<bool> acted_{false};
};

}  // namespace oskernel_test

#endif
