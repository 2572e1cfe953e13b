/// @file
/// The console through which every diagnostic of the library passes.
#ifndef OSKERNEL_CONSOLE_H
#define OSKERNEL_CONSOLE_H

#include <cstdarg>
#include <cstddef>
#include <type_traits>

#include "types.h"

/// Lets a console send warnings of one kind elsewhere.
enum WarningType {
  WARNING_SYSTEM = 0,    ///< what the one-argument Warning reports
  WARNING_RECORDING = 1  ///< warnings about recordings
};

/// Base of an application's console: frames warnings, notifications and fatal errors, and edits lines. Where
/// text goes and where characters come from is the application's: it overrides vPrint and Getc and, where it
/// likes, any of the others. A base console discards everything and has no input.
///
/// The framing goes through the virtual Print and vPrint. A console that overrides only vPrint therefore gets
/// three calls for a warning: "WARNING:\r\n", the message, "\r\n".
///
///   format    printf's; the compiler checks it against the arguments
///   threads   the kernel calls from all of its threads, sometimes inside sections: an override serialises
///             its own output, does not call back into the kernel and does not wait for another of its
///             threads. The base keeps no state.
class OSKERNEL_API OSConsole {
 public:
  /// Nothing to set up.
  OSConsole() = default;
  virtual ~OSConsole();  ///< `Console` is the application's to reset before

  /// Where all text ends up. The base discards it.
  virtual void vPrint(const char* format, va_list arguments) OSKERNEL_PRINTF(2, 0);

  /// Prints without framing: vPrint with the same arguments.
  virtual void Print(const char* format, ...) OSKERNEL_PRINTF(2, 3);

  /// A warning of the kind WARNING_SYSTEM, through the va_list form.
  virtual void Warning(const char* format, ...) OSKERNEL_PRINTF(2, 3);

  /// A warning of the given kind, through the va_list form.
  virtual void Warning(WarningType type, const char* format, ...) OSKERNEL_PRINTF(3, 4);

  /// What both other forms come to: "WARNING:\r\n", the message, "\r\n". The base does not look at the kind.
  virtual void Warning(WarningType type, const char* format, va_list arguments) OSKERNEL_PRINTF(3, 0);

  /// Reports what the program cannot go on after: "FATAL:\r\n", the message, "\r\n". The base then spins for
  /// ever, so that a debugger finds the thread where it failed and nothing built on the failure runs.
  /// Deliberate: not [[noreturn]]. Overrides may return, and the kernel goes on safely when they do. Pinned
  /// by console_test.cpp, OfADerivedConsoleMayReturn.
  virtual void Fatal(const char* format, ...) OSKERNEL_PRINTF(2, 3);

  /// Tells the operator something: "NOTIFICATION:\r\n", the message, "\r\n".
  virtual void Notify(const char* format, ...) OSKERNEL_PRINTF(2, 3);

  /// Redirects the output; what `output` points to is the application's. The base does nothing.
  virtual void SetOutput(void* output);

  /// Waits for the next character of the input.
  ///   returns   the character, or a negative value when there is no input; the base always returns -1
  virtual int Getc();

  /// Reads one line through Getc and echoes it through Print. Backspace and delete take back the last
  /// character, control-R replaces the line by the next entry of the history, return ends the line. A line
  /// feed and every other control character ring the bell. Of what is typed only the low 7 bits count.
  ///   line      lent; holds the line, ended by a zero byte, when 0 is returned, and nothing useful
  ///             otherwise. Never written beyond `size`.
  ///   size      room in `line`, the zero byte included
  ///   history   lent; earlier lines and a null behind the last, or null for none. Each control-R takes the
  ///             next, after the last the first again. An entry counts up to its first control character.
  ///   returns   0 when the line is complete; -1 when the input ends, when the line leaves no room for the
  ///             zero byte, when `line` is null or `size` below 1
  virtual int Gets(char* line, int size, char** history);

  /// Warning with a single number or nullptr behind the format, 0 included: passes it on to the variadic
  /// form. Where va_list is a pointer, a plain 0 would otherwise be taken for a null va_list.
  ///
  /// On 32-bit x86 va_list is `char*` itself and no overload can tell them apart: a single argument that is a
  /// pointer to characters must be a `const char*` there.
  template <class Argument,
            std::enable_if_t<
                std::is_integral<Argument>::value || std::is_same<Argument, std::nullptr_t>::value, int> = 0>
  void Warning(WarningType type, const char* format, Argument argument) {
    void (OSConsole::*const variadic)(WarningType, const char*, ...) = &OSConsole::Warning;
    (this->*variadic)(type, format, argument);
  }
};

/// The application's console, null until it sets one; set it before os_startup. The kernel does not own it.
extern OSKERNEL_API OSConsole* Console;

#endif
