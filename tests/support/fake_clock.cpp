#include "fake_clock.h"

#include <cerrno>
#include <cstdarg>
#include <cstring>

#include <atomic>

#include <fcntl.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace {

constexpr char kDevice[] = "/dev/os_clock";

std::atomic<bool> in_use{false};
std::atomic<bool> failing{false};
std::atomic<ULONG> tick{0};
std::atomic<int> open_count{0};
std::atomic<int> request_count{0};
std::atomic<int> device_fd{-1};

int interposed_open(const char* path, int flags, mode_t mode) {
  if (in_use && std::strcmp(path, kDevice) == 0) {
    ++open_count;
    usleep(2000);  // a device takes its time to open, and two threads may ask first
    // Any readable file gives a real descriptor that the process owns and can close.
    device_fd = static_cast<int>(syscall(SYS_openat, AT_FDCWD, "/dev/null", O_RDONLY | O_CLOEXEC, 0));
    return device_fd;
  }
  return static_cast<int>(syscall(SYS_openat, AT_FDCWD, path, flags, mode));
}

mode_t mode_argument(int flags, va_list arguments) {
  if ((flags & O_CREAT) == 0 && (flags & O_TMPFILE) != O_TMPFILE) return 0;
  return va_arg(arguments, mode_t);
}

}  // namespace

// The executable's symbols come before the C library's, for the shared library under test too.
extern "C" {

__attribute__((visibility("default"))) int open(const char* path, int flags, ...) {
  va_list arguments;
  va_start(arguments, flags);
  const mode_t mode = mode_argument(flags, arguments);
  va_end(arguments);
  return interposed_open(path, flags, mode);
}

__attribute__((visibility("default"))) int open64(const char* path, int flags, ...) {
  va_list arguments;
  va_start(arguments, flags);
  const mode_t mode = mode_argument(flags, arguments);
  va_end(arguments);
  return interposed_open(path, flags | O_LARGEFILE, mode);
}

__attribute__((visibility("default"))) int ioctl(int fd, unsigned long request, ...) {
  va_list arguments;
  va_start(arguments, request);
  void* argument = va_arg(arguments, void*);
  va_end(arguments);
  if (in_use && fd == device_fd && request == 1) {
    ++request_count;
    if (failing) {
      errno = EIO;
      return -1;
    }
    *static_cast<ULONG*>(argument) = tick;
    return 0;
  }
  return static_cast<int>(syscall(SYS_ioctl, fd, request, argument));
}

}  // extern "C"

namespace oskernel_test {

bool FakeClock::use() {
  in_use = true;
  return true;
}

void FakeClock::set(ULONG new_tick) { tick = new_tick; }
void FakeClock::advance(ULONG ms) { tick += ms; }
ULONG FakeClock::now() { return tick; }
void FakeClock::fail_requests(bool fail) { failing = fail; }
int FakeClock::opens() { return open_count; }
int FakeClock::requests() { return request_count; }

}  // namespace oskernel_test
