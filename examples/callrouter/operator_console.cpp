#include "examples/callrouter/operator_console.h"

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <iterator>
#include <optional>

#include "examples/callrouter/terminal.h"

namespace callrouter {
namespace {

constexpr int kEndOfInput = 4;  // control-D

thread_local std::optional<OperatorConsole::Dialog::Mode> dialog;

std::string formatted(const char* format, va_list arguments) OSKERNEL_PRINTF(1, 0);
std::string formatted(const char* format, va_list arguments) {
  va_list again;
  va_copy(again, arguments);
  const int len = vsnprintf(nullptr, 0, format, again);
  va_end(again);
  if (len <= 0) return {};
  std::string text(static_cast<std::size_t>(len) + 1, '\0');
  vsnprintf(text.data(), text.size(), format, arguments);
  text.pop_back();
  return text;
}

void strip_line_end(std::string& text) {
  while (!text.empty() && (text.back() == '\n' || text.back() == '\r')) text.pop_back();
}

}  // namespace

OperatorConsole::Dialog::Dialog(Mode mode) { dialog = mode; }
OperatorConsole::Dialog::~Dialog() { dialog.reset(); }

OperatorConsole::OperatorConsole(int in, int out, const Stop& stop)
    : in_(in), out_(out), stop_(stop), terminal_(isatty(in) != 0) {}

void OperatorConsole::vPrint(const char* format, va_list arguments) {
  std::string text = formatted(format, arguments);
  if (!dialog) {
    strip_line_end(text);
    const std::lock_guard lock(mutex_);
    write_all(STDERR_FILENO, "callrouter: " + text + "\n");
    return;
  }
  if (dialog == Dialog::kLines) {
    strip_line_end(text);
    text += '\n';
  }
  say(text);
}

void OperatorConsole::Print(const char* format, ...) {
  if (!dialog && !tracing_.load(std::memory_order_relaxed)) return;
  va_list arguments;
  va_start(arguments, format);
  vPrint(format, arguments);
  va_end(arguments);
}

void OperatorConsole::log(std::string_view kind, const char* format, va_list arguments) {
  std::string text = formatted(format, arguments);
  strip_line_end(text);
  const std::lock_guard lock(mutex_);
  write_all(STDERR_FILENO, std::string("callrouter: ").append(kind).append(text).append("\n"));
}

void OperatorConsole::Warning(WarningType, const char* format, va_list arguments) {
  log("warning: ", format, arguments);
}

void OperatorConsole::Fatal(const char* format, ...) {
  RawTerminal::restore();
  va_list arguments;
  va_start(arguments, format);
  log("fatal: ", format, arguments);
  va_end(arguments);
  _exit(kFatalExit);
}

void OperatorConsole::Notify(const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  log("", format, arguments);
  va_end(arguments);
}

bool OperatorConsole::wait_for_input() {
  while (at_ == filled_ && !ended_) {
    pollfd wait[2] = {{in_, POLLIN, 0}, {stop_.fd(), POLLIN, 0}};
    if (poll(wait, 2, -1) < 0) continue;  // EINTR
    if (wait[1].revents != 0) break;
    const ssize_t got = read(in_, block_, sizeof block_);
    if (got < 0 && (errno == EINTR || errno == EAGAIN)) continue;
    at_ = 0;
    filled_ = got > 0 ? static_cast<std::size_t>(got) : 0;
    if (got <= 0) break;
  }
  return at_ != filled_;
}

int OperatorConsole::Getc() {
  if (!wait_for_input() || (terminal_ && block_[at_] == kEndOfInput)) {
    ended_ = true;
    at_ = filled_;
    return -1;
  }
  const int c = block_[at_++];
  return c == '\n' && !terminal_ ? '\r' : c;
}

// The line editor ends lines with CR LF, our own texts with LF. A terminal translates LF itself (its output
// processing stays on), a file or pipe is to hold plain lines: so no CR is ever needed.
void OperatorConsole::say(std::string_view text) {
  std::string plain;
  plain.reserve(text.size());
  std::copy_if(text.begin(), text.end(), std::back_inserter(plain), [](char c) { return c != '\r'; });
  const std::lock_guard lock(mutex_);
  write_all(out_, plain);
}

// What cannot be written has no better place to be reported.
void OperatorConsole::write_all(int fd, std::string_view text) {
  while (!text.empty()) {
    const ssize_t written = write(fd, text.data(), text.size());
    if (written < 0 && errno == EINTR) continue;
    if (written < 0) return;
    text.remove_prefix(static_cast<std::size_t>(written));
  }
}

}  // namespace callrouter
