#include "examples/callrouter/leftovers.h"

#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <thread>

#include "kernel/buffer.h"
#include "kernel/kernel.h"

namespace callrouter {
namespace {

using namespace std::chrono_literals;

constexpr int kPasses = 200;  // 5 ms each

// The names in a directory of /proc/self. The descriptor that reads the directory is among its own entries and
// gone afterwards: it leads to that directory.
std::set<std::string> entries(const char* directory) {
  std::set<std::string> names;
  std::error_code error;
  for (const auto& entry : std::filesystem::directory_iterator(directory, error)) {
    const std::string target = std::filesystem::read_symlink(entry, error).string();
    if (target.ends_with("/fd")) continue;
    names.insert(entry.path().filename().string() + (target.empty() ? "" : " (" + target + ")"));
  }
  return names;
}

std::set<std::string> added(const char* directory, const std::set<std::string>& before) {
  std::set<std::string> now = entries(directory);
  for (const std::string& name : before) now.erase(name);
  return now;
}

}  // namespace

// Under a checker of memory or races, the first thread brings another one that stays.
Leftovers::Leftovers() {
  std::thread([] {}).join();
  threads_ = entries("/proc/self/task");
  descriptors_ = entries("/proc/self/fd");
}

void Leftovers::count_buffers() {
  buffers_ = 0;
  for (int i = 0; i < 4; ++i) buffers_ += std::max(KERNELCFG->buf_qty[i], 0) - OSBuf::PoolSize(i);
}

std::vector<std::string> Leftovers::find() const {
  std::set<std::string> threads = added("/proc/self/task", threads_);
  for (int pass = 0; pass < kPasses && !threads.empty(); ++pass) {
    std::this_thread::sleep_for(5ms);
    threads = added("/proc/self/task", threads_);
  }
  std::vector<std::string> left;
  for (const std::string& name : threads) left.push_back("thread " + name);
  for (const std::string& name : added("/proc/self/fd", descriptors_)) left.push_back("descriptor " + name);
  if (buffers_ != 0) left.push_back(fmt::format("{} message buffers", buffers_));
  return left;
}

}  // namespace callrouter
