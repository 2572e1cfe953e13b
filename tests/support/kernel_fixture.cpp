#include "kernel_fixture.h"

#include <chrono>
#include <cstdio>
#include <thread>

namespace oskernel_test {
namespace {

std::string formatted(const char* format, va_list arguments) {
  va_list copy;
  va_copy(copy, arguments);
  const int length = vsnprintf(nullptr, 0, format, copy);
  va_end(copy);
  if (length < 0) return {};
  std::string text(static_cast<std::size_t>(length) + 1, '\0');
  vsnprintf(text.data(), text.size(), format, arguments);
  text.resize(static_cast<std::size_t>(length));
  return text;
}

}  // namespace

void RecordingConsole::vPrint(const char* format, va_list arguments) {
  std::string text = formatted(format, arguments);
  const std::lock_guard<std::mutex> lock(mutex_);
  calls_.push_back(std::move(text));
}

void RecordingConsole::Fatal(const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  std::string text = formatted(format, arguments);
  va_end(arguments);
  const std::lock_guard<std::mutex> lock(mutex_);
  fatals_.push_back(std::move(text));
}

int RecordingConsole::Getc() {
  const std::lock_guard<std::mutex> lock(mutex_);
  if (script_at_ >= script_.size()) return -1;
  return static_cast<unsigned char>(script_[script_at_++]);
}

std::string RecordingConsole::text() const {
  const std::lock_guard<std::mutex> lock(mutex_);
  std::string all;
  for (const std::string& call : calls_) all += call;
  return all;
}

std::vector<std::string> RecordingConsole::calls() const {
  const std::lock_guard<std::mutex> lock(mutex_);
  return calls_;
}

std::vector<std::string> RecordingConsole::fatals() const {
  const std::lock_guard<std::mutex> lock(mutex_);
  return fatals_;
}

int RecordingConsole::count(std::string_view needle) const {
  const std::string all = text();
  int found = 0;
  for (std::size_t at = all.find(needle); at != std::string::npos;
       at = all.find(needle, at + needle.size())) {
    ++found;
  }
  return found;
}

void RecordingConsole::clear() {
  const std::lock_guard<std::mutex> lock(mutex_);
  calls_.clear();
  fatals_.clear();
}

void RecordingConsole::script(std::string characters) {
  const std::lock_guard<std::mutex> lock(mutex_);
  script_ = std::move(characters);
  script_at_ = 0;
}

void KernelTest::SetUp() { Console = &console; }

void KernelTest::TearDown() {
  if (started_) Stop();
  Console = nullptr;
}

void KernelTest::Start() {
  os_startup(nullptr, 0, &cfg);
  started_ = true;
}

void KernelTest::StartQuiet() {
  cfg.trigger_stack = 0;
  Start();
}

void KernelTest::Stop() {
  os_cleanup();
  started_ = false;
}

bool wait_until(const std::function<bool()>& done, int timeout_ms) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
  while (!done()) {
    if (std::chrono::steady_clock::now() >= deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return true;
}

}  // namespace oskernel_test
