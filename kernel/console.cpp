/// What a console does when the application overrides only its input and output.
#include "kernel/console.h"

#include <cstddef>

namespace {

constexpr int kBackspace = 8;
constexpr int kBell = 7;
constexpr int kReturn = 13;
constexpr int kHistory = 18;  // control-R
constexpr int kDelete = 127;
constexpr int kFirstPrintable = 32;

/// Read in a loop that must not end; volatile, so that the compiler may neither drop the loop nor conclude
/// that it is never reached.
volatile bool spinning = true;

/// The line that Gets edits, its echo, and the place in the history.
class LineEditor {
 public:
  LineEditor(OSConsole* console, char* line, std::size_t size, char** history)
      : console_(console), line_(line), size_(size), history_(history) {}

  /// No room is left for the zero byte.
  bool full() const { return length_ >= size_; }

  void finish() {
    console_->Print("\r\n");
    line_[length_] = '\0';
  }

  /// Only while the line is not full.
  void append(int c) {
    console_->Print("%c", c);
    line_[length_++] = static_cast<char>(c);
  }

  void erase_last() {
    if (length_ == 0) return;
    console_->Print("\b \b");
    --length_;
  }

  void bell() { console_->Print("%c", kBell); }

  /// Replaces the line by the next entry of the history. Returns false when the entry does not fit.
  bool recall() {
    const char* const entry = next_entry();
    if (entry == nullptr) return true;
    while (length_ > 0) erase_last();
    // Unsigned: characters above 127 are text of some national set, not control characters.
    for (const char* p = entry; static_cast<unsigned char>(*p) >= kFirstPrintable; ++p) {
      if (length_ + 1 >= size_) return false;
      append(static_cast<unsigned char>(*p));
    }
    return true;
  }

 private:
  const char* next_entry() {
    if (history_ == nullptr) return nullptr;
    if (history_[position_] == nullptr) position_ = 0;
    if (history_[position_] == nullptr) return nullptr;
    return history_[position_++];
  }

  OSConsole* console_;
  char* line_;
  std::size_t size_;
  char** history_;
  std::size_t length_ = 0;
  std::size_t position_ = 0;
};

}  // namespace

OSConsole::~OSConsole() = default;

void OSConsole::vPrint(const char* /*format*/, va_list /*arguments*/) {}

void OSConsole::Print(const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  vPrint(format, arguments);
  va_end(arguments);
}

void OSConsole::Warning(const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  Warning(WARNING_SYSTEM, format, arguments);
  va_end(arguments);
}

void OSConsole::Warning(WarningType type, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  Warning(type, format, arguments);
  va_end(arguments);
}

void OSConsole::Warning(WarningType /*type*/, const char* format, va_list arguments) {
  Print("WARNING:\r\n");
  vPrint(format, arguments);
  Print("\r\n");
}

void OSConsole::Fatal(const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  Print("FATAL:\r\n");
  vPrint(format, arguments);
  Print("\r\n");
  va_end(arguments);
  while (spinning) {
  }
}

void OSConsole::Notify(const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  Print("NOTIFICATION:\r\n");
  vPrint(format, arguments);
  Print("\r\n");
  va_end(arguments);
}

void OSConsole::SetOutput(void* /*output*/) {}

int OSConsole::Getc() { return -1; }

int OSConsole::Gets(char* line, int size, char** history) {
  if (line == nullptr || size < 1) return -1;
  LineEditor editor(this, line, static_cast<std::size_t>(size), history);
  while (!editor.full()) {
    int c = Getc();
    if (c < 0) return -1;
    c &= 0x7F;
    switch (c) {
      case kReturn:
        editor.finish();
        return 0;
      case kBackspace:
      case kDelete:
        editor.erase_last();
        break;
      case kHistory:
        if (!editor.recall()) return -1;
        break;
      default:
        if (c < kFirstPrintable) {
          editor.bell();
        } else {
          editor.append(c);
        }
    }
  }
  return -1;
}
