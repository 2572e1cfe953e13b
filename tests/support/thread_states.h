/// What the threads of this process are doing, as the system sees it.
#ifndef OSKERNEL_TESTS_THREAD_STATES_H
#define OSKERNEL_TESTS_THREAD_STATES_H

#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <system_error>

namespace oskernel_test {

/// Every thread but the calling one is waiting in the system. One whose wait is over counts as running, even while
/// it has no processor yet.
inline bool other_threads_sleep() {
  const std::string self = std::to_string(gettid());
  std::error_code gone;
  for (const auto& thread : std::filesystem::directory_iterator("/proc/self/task", gone)) {
    if (thread.path().filename() == self) continue;
    std::ifstream file(thread.path() / "stat");
    const std::string stat((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
    const std::size_t name_end = stat.rfind(") ");
    if (name_end == std::string::npos || stat[name_end + 2] != 'S') return false;
  }
  return !gone;
}

}  // namespace oskernel_test

#endif
