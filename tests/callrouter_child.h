// Runs the call router, or another program, as a child process, with a time limit on everything.
#ifndef OSKERNEL_TESTS_CALLROUTER_CHILD_H
#define OSKERNEL_TESTS_CALLROUTER_CHILD_H

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include "support/launcher.h"

namespace callrouter_test {

// The sanitizers slow everything down, and their own memory says nothing about ours.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
inline constexpr bool kPlainBuild = false;
#else
inline constexpr bool kPlainBuild = true;
#endif

inline constexpr int kLimitMs = 60000;

class Descriptor {
 public:
  Descriptor() = default;
  explicit Descriptor(int fd) : fd_(fd) {}
  Descriptor(Descriptor&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
  Descriptor& operator=(Descriptor&& other) noexcept {
    std::swap(fd_, other.fd_);
    return *this;
  }
  ~Descriptor() { reset(); }
  void reset() {
    if (fd_ >= 0) close(fd_);
    fd_ = -1;
  }
  int get() const { return fd_; }

 private:
  int fd_ = -1;
};

struct Pipe {
  Pipe() {
    int fds[2] = {-1, -1};
    EXPECT_EQ(pipe2(fds, O_CLOEXEC), 0);
    read = Descriptor(fds[0]);
    write = Descriptor(fds[1]);
  }
  Descriptor read, write;
};

/// Collects what arrives on a descriptor, in a thread of its own.
class Collector {
 public:
  explicit Collector(Descriptor fd) : fd_(std::move(fd)), thread_([this] { collect(); }) {}
  ~Collector() { thread_.join(); }
  Collector(const Collector&) = delete;
  Collector& operator=(const Collector&) = delete;

  /// Waits until `text` has arrived behind everything that an earlier wait_for found.
  bool wait_for(std::string_view text) {
    std::unique_lock lock(mutex_);
    std::size_t at = std::string::npos;
    arrived_.wait_for(lock, std::chrono::milliseconds(kLimitMs), [&] {
      at = text_.find(text, seen_);
      return at != std::string::npos || ended_;
    });
    if (at == std::string::npos) return false;
    seen_ = at + text.size();
    return true;
  }

  /// What has arrived until now.
  std::string so_far() {
    const std::lock_guard lock(mutex_);
    return text_;
  }

  /// Everything, once the other side has closed.
  std::string all() {
    std::unique_lock lock(mutex_);
    EXPECT_TRUE(arrived_.wait_for(lock, std::chrono::milliseconds(kLimitMs), [&] { return ended_; }));
    return text_;
  }

 private:
  void collect() {
    char block[4096];
    for (;;) {
      const ssize_t got = read(fd_.get(), block, sizeof block);
      if (got < 0 && errno == EINTR) continue;
      const std::lock_guard lock(mutex_);
      if (got > 0) text_.append(block, static_cast<std::size_t>(got));
      // A terminal whose other side is gone reports an error instead of an end.
      ended_ = got <= 0;
      arrived_.notify_all();
      if (ended_) return;
    }
  }

  Descriptor fd_;
  std::mutex mutex_;
  std::condition_variable arrived_;
  std::string text_;
  std::size_t seen_ = 0;
  bool ended_ = false;
  std::thread thread_;
};

/// One run of the program. A run that is not over when this is destroyed is killed.
class Child {
 public:
  struct Result {
    int exit_code = -1;  ///< 128 + signal when a signal ended it; -1 when it did not end in time
    long max_rss_kib = 0;
  };

  /// The descriptors become the program's first three; -1 leaves one closed. With `terminal` the program leads
  /// a session whose terminal is its standard input.
  Child(std::vector<std::string> arguments, int in, int out, int err, bool terminal = false,
        const char* program = CALLROUTER_PROGRAM) {
    std::vector<std::string> command = oskernel_test::launched(program);
    arguments.insert(arguments.begin(), command.begin(), command.end());
    std::vector<char*> argv;
    for (std::string& argument : arguments) argv.push_back(argument.data());
    argv.push_back(nullptr);
    pid_ = fork();
    if (pid_ != 0) return;
    // Only calls that are allowed between fork and exec in a program with threads.
    signal(SIGPIPE, SIG_DFL);
    const int fds[3] = {in, out, err};
    int high[3];
    for (int i = 0; i < 3; ++i) high[i] = fds[i] < 0 ? -1 : fcntl(fds[i], F_DUPFD, 10);
    for (int i = 0; i < 3; ++i) {
      close(i);
      if (high[i] >= 0) dup2(high[i], i);
      if (high[i] >= 0) close(high[i]);
    }
    if (terminal) {
      setsid();
      ioctl(0, TIOCSCTTY, 0);
    }
    execvp(argv[0], argv.data());
    _exit(127);
  }
  ~Child() {
    if (pid_ <= 0) return;
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
  }
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;

  void send(int number) const { kill(pid_, number); }
  pid_t pid() const { return pid_; }

  Result wait() {
    Result result;
    const Descriptor ended(static_cast<int>(syscall(SYS_pidfd_open, pid_, 0)));
    pollfd poll_ended{ended.get(), POLLIN, 0};
    int ready;
    while ((ready = poll(&poll_ended, 1, kLimitMs)) < 0 && errno == EINTR) {
    }
    if (ready <= 0) return result;
    int status = 0;
    rusage usage{};
    wait4(pid_, &status, 0, &usage);
    pid_ = -1;
    result.exit_code = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    result.max_rss_kib = usage.ru_maxrss;
    return result;
  }

 private:
  pid_t pid_;
};

/// A whole run: what went in, what came out.
struct Outcome {
  int exit_code;
  std::string out, err;
};

inline void write_all(int fd, std::string_view text) {
  while (!text.empty()) {
    const ssize_t written = write(fd, text.data(), text.size());
    if (written < 0 && errno == EINTR) continue;
    if (written < 0) return;  // the program has stopped reading
    text.remove_prefix(static_cast<std::size_t>(written));
  }
}

/// The program with a pipe at each of its first three descriptors; the test holds the other ends.
class PipedChild {
  Pipe in_pipe_, out_pipe_, err_pipe_;

 public:
  explicit PipedChild(std::vector<std::string> arguments, const char* program = CALLROUTER_PROGRAM)
      : child(std::move(arguments), in_pipe_.read.get(), out_pipe_.write.get(), err_pipe_.write.get(), false,
              program),
        in(std::move(in_pipe_.write)),
        out(std::move(out_pipe_.read)),
        err(std::move(err_pipe_.read)) {
    // Kept open here, these would hide that the program has closed them.
    in_pipe_.read.reset();
    out_pipe_.write.reset();
    err_pipe_.write.reset();
  }

  Child child;
  Descriptor in, out, err;
};

inline Outcome run_program(std::vector<std::string> arguments, std::string_view input = "",
                           const char* path = CALLROUTER_PROGRAM) {
  PipedChild program(std::move(arguments), path);
  Collector out_text(std::move(program.out)), err_text(std::move(program.err));
  std::thread feeder([&] {
    write_all(program.in.get(), input);
    program.in.reset();
  });
  const int exit_code = program.child.wait().exit_code;
  if (exit_code < 0) program.child.send(SIGKILL);
  feeder.join();
  return {exit_code, out_text.all(), err_text.all()};
}

}  // namespace callrouter_test

#endif
