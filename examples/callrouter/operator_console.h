// The program's console: where the kernel's words go, and where the operator types.
#ifndef CALLROUTER_OPERATOR_CONSOLE_H
#define CALLROUTER_OPERATOR_CONSOLE_H

#include <atomic>
#include <cstdarg>
#include <mutex>
#include <string>
#include <string_view>

#include "examples/callrouter/stop.h"
#include "kernel/console.h"

namespace callrouter {

/// Warnings and fatal reports always appear, on standard error. What the kernel prints in passing (a search
/// that took more comparisons than any before, a slow action) appears only while tracing. A Dialog is a
/// thread's conversation with the operator: what is printed inside one appears on the dialog's descriptor.
class OperatorConsole : public OSConsole {
 public:
  /// Reads keys from `in`, until a stop is requested. The dialog's text goes to `out`.
  OperatorConsole(int in, int out, const Stop& stop);

  void vPrint(const char* format, va_list arguments) override OSKERNEL_PRINTF(2, 0);
  void Print(const char* format, ...) override OSKERNEL_PRINTF(2, 3);
  using OSConsole::Warning;
  void Warning(WarningType type, const char* format, va_list arguments) override OSKERNEL_PRINTF(3, 0);
  /// Restores the terminal and ends the process with kFatalExit: nothing built on the failure may go on.
  void Fatal(const char* format, ...) override OSKERNEL_PRINTF(2, 3);
  void Notify(const char* format, ...) override OSKERNEL_PRINTF(2, 3);

  /// The next key, -1 at the end of the input or when a stop is requested. From a pipe or file a line feed
  /// counts as Enter, which the line editor knows as carriage return; so does control-D as the end on a
  /// terminal.
  int Getc() override;

  /// Waits until the input brings something.
  ///   returns   false when it ends first, or a stop is requested
  bool wait_for_input();

  /// Text to the dialog.
  void say(std::string_view text);

  bool terminal() const { return terminal_; }
  bool ended() const { return ended_; }  ///< Getc has returned -1
  std::atomic<bool>& tracing() { return tracing_; }

  static constexpr int kFatalExit = 70;  ///< EX_SOFTWARE

  /// Makes what this thread prints appear, for its lifetime.
  class Dialog {
   public:
    /// kVerbatim for the line editor's echo. kLines for lists that the kernel prints: it ends no lines itself.
    enum Mode { kVerbatim, kLines };
    explicit Dialog(Mode mode);
    ~Dialog();
    Dialog(const Dialog&) = delete;
    Dialog& operator=(const Dialog&) = delete;
  };

 private:
  void log(std::string_view kind, const char* format, va_list arguments) OSKERNEL_PRINTF(3, 0);
  void write_all(int fd, std::string_view text);

  const int in_;
  const int out_;
  const Stop& stop_;
  const bool terminal_;
  std::atomic<bool> tracing_{false};
  bool ended_ = false;  // the dialog's thread only
  unsigned char block_[512];
  std::size_t at_ = 0, filled_ = 0;
  std::mutex mutex_;  // one line at a time; a leaf
};

}  // namespace callrouter

#endif
