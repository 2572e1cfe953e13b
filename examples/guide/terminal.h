// The console of the guide's programs: where the library's diagnostics go.
#ifndef OSKERNEL_EXAMPLES_GUIDE_TERMINAL_H
#define OSKERNEL_EXAMPLES_GUIDE_TERMINAL_H

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "kernel/console.h"

// [terminal]
class Terminal : public OSConsole {
 public:
  ~Terminal() override { Console = nullptr; }  // the library must not go on using it
  void vPrint(const char* format, va_list arguments) override {
    char text[2048];
    std::vsnprintf(text, sizeof text, format, arguments);
    text[std::strcspn(text, "\r\n")] = '\0';  // some texts bring their line end, some do not
    if (*text != '\0') std::fprintf(stderr, "oskernel: %s\n", text);
  }
  void Fatal(const char* format, ...) override {
    va_list arguments;
    va_start(arguments, format);
    vPrint(format, arguments);
    va_end(arguments);
    std::abort();  // the base would keep this thread here for ever, for a debugger to find
  }
};
// [/terminal]

#endif
