/// Tests that need a network of their own: fresh network and mount namespaces, pairs of joined interfaces, a second
/// machine to talk to.
///
///     TEST_F(Multicast, ReachesTheOtherMachine) {
///       OSKERNEL_IN_NETWORK_NAMESPACE();
///       Namespace here = Namespace::own(), there = Namespace::fresh();
///       join(here, "left", there, "right");
///       here.add_address("left", "10.9.0.1/24");
///       there.add_address("right", "10.9.0.2/24");
///       there.in([&] { peer = socket(AF_INET, SOCK_DGRAM, 0); });  // a socket of the other machine
///       Process server = there.start({"dnsmasq", "--no-daemon", "--port=53"});
///       ...
///     }
///
/// The test program runs itself again for that one test, because a process with threads cannot change its namespaces,
/// and the sanitizers' threads are there from the start. Root makes the namespaces directly, everyone else inside a
/// user namespace. Where neither is allowed the test fails; it is never skipped. Everything ends with the test: the
/// processes are killed, and the interfaces go with their namespaces.
#ifndef OSKERNEL_TESTS_NET_NAMESPACE_H
#define OSKERNEL_TESTS_NET_NAMESPACE_H

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <initializer_list>
#include <sstream>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include "launcher.h"

namespace oskernel_test {

/// How long a helper program may take, and how long a whole test inside its namespaces; the latter ends before the
/// test's own time limit does, so that its output is seen.
inline constexpr int kHelperLimitMs = 30000;
inline constexpr int kNamespaceTestLimitMs = 110000;

// ---- Programs ----------------------------------------------------------------------------------------------------

/// A program that runs beside the test. It is killed, with everything in its process group, when the object goes.
class Process {
 public:
  /// What happens in the new process before the program starts; allowed there are system calls alone. Returns null,
  /// or what failed, with errno.
  using Preparation = const char* (*)(int argument);

  /// Standard output and standard error are collected in one place; standard input is empty.
  ///   arguments   [0] is the program, searched along PATH and in the directories of system programs
  ///   extra       further environment entries, "NAME=value"
  explicit Process(std::vector<std::string> arguments, Preparation prepare = nullptr, int argument = 0,
                   std::vector<std::string> extra = {}) {
    std::vector<std::string> environment = inherited_environment();
    for (std::string& entry : extra) environment.push_back(std::move(entry));
    std::vector<char*> argv = pointers(arguments), envp = pointers(environment);
    name_ = arguments.front();
    output_ = memfd_create("output", MFD_CLOEXEC);
    const int null = open("/dev/null", O_RDONLY | O_CLOEXEC);
    const pid_t parent = getpid();
    pid_ = fork();
    if (pid_ < 0) ADD_FAILURE() << "fork: " << std::strerror(errno);
    if (pid_ == 0) run_child(null, parent, prepare, argument, argv.data(), envp.data());
    close(null);
    if (pid_ > 0) setpgid(pid_, pid_);  // the child does it too; whoever comes first
  }
  Process(Process&& other) noexcept
      : name_(std::move(other.name_)),
        pid_(std::exchange(other.pid_, -1)),
        output_(std::exchange(other.output_, -1)),
        exit_code_(other.exit_code_) {}
  Process& operator=(Process&&) = delete;
  ~Process() {
    stop();
    if (output_ >= 0) close(output_);
  }

  /// The exit code, 128 + signal when a signal ended it; -1 when it still runs after the time.
  int wait(int timeout_ms = kHelperLimitMs) {
    if (pid_ <= 0) return exit_code_;
    const int ended = static_cast<int>(::syscall(SYS_pidfd_open, pid_, 0));
    pollfd poll_ended{ended, POLLIN, 0};
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
    int ready = -1;
    do {
      const auto left =
          std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
      ready = poll(&poll_ended, 1, left.count() > 0 ? static_cast<int>(left.count()) : 0);
    } while (ready < 0 && errno == EINTR);
    close(ended);
    if (ready <= 0) return -1;
    collect();
    return exit_code_;
  }

  /// Everything it has written so far.
  std::string output() const {
    std::string text;
    char block[4096];
    ssize_t got;
    while ((got = pread(output_, block, sizeof block, static_cast<off_t>(text.size()))) > 0) {
      text.append(block, static_cast<std::size_t>(got));
    }
    return text;
  }

  /// Waits until it has written `text`; false, and a failure of the test, when it ends or takes too long.
  bool wait_for_output(std::string_view text, int timeout_ms = kHelperLimitMs) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
    for (;;) {
      const bool over = wait(2) >= 0;
      if (output().find(text) != std::string::npos) return true;
      if (over || std::chrono::steady_clock::now() >= deadline) {
        ADD_FAILURE() << name_ << (over ? " ended" : " ran on") << " without writing \"" << text << "\"\n"
                      << output();
        return false;
      }
    }
  }

  pid_t pid() const { return pid_; }
  void send(int number) const {
    if (pid_ > 0) kill(pid_, number);
  }
  /// Ends it and everything that it started.
  void stop() {
    if (pid_ <= 0) return;
    kill(-pid_, SIGKILL);
    kill(pid_, SIGKILL);
    collect();
  }

  /// The environment without what would steer a test program.
  static std::vector<std::string> inherited_environment() {
    std::vector<std::string> kept;
    std::string path = "PATH=/usr/local/bin:/usr/bin:/bin";
    for (char** entry = environ; *entry != nullptr; ++entry) {
      const std::string_view text(*entry);
      if (text.starts_with("GTEST_") || text.starts_with("TEST_") || text.starts_with("TESTBRIDGE_"))
        continue;
      if (text.starts_with("PATH=")) {
        path = text;
      } else {
        kept.emplace_back(text);
      }
    }
    kept.push_back(path + ":/usr/sbin:/sbin");
    return kept;
  }

 private:
  static std::vector<char*> pointers(std::vector<std::string>& texts) {
    std::vector<char*> list;
    for (std::string& text : texts) list.push_back(text.data());
    list.push_back(nullptr);
    return list;
  }

  static void complain(const char* what) {
    const char* error = strerrordesc_np(errno);
    if (error == nullptr) error = "unknown error";
    for (const char* part : {what, ": ", error, "\n"}) {
      if (write(STDERR_FILENO, part, std::strlen(part)) < 0) return;
    }
  }

  // Only what is allowed between fork and exec in a process with threads.
  [[noreturn]] void run_child(int null, pid_t parent, Preparation prepare, int argument, char** argv,
                              char** envp) const {
    setpgid(0, 0);
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != parent) _exit(127);
    dup2(null, STDIN_FILENO);
    dup2(output_, STDOUT_FILENO);
    dup2(output_, STDERR_FILENO);
    const char* failed = prepare == nullptr ? nullptr : prepare(argument);
    if (failed != nullptr) {
      complain(failed);
      _exit(126);
    }
    // Nothing of the library's may stay open in a helper: a port would stay in use, a peer's end would not come.
    ::syscall(SYS_close_range, 3U, ~0U, 0U);
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    signal(SIGPIPE, SIG_DFL);
    environ = envp;  // execvp searches the PATH that the program is given
    execvp(argv[0], argv);
    complain(argv[0]);
    _exit(127);
  }

  void collect() {
    int status = 0;
    while (waitpid(pid_, &status, 0) < 0 && errno == EINTR) {
    }
    pid_ = -1;
    exit_code_ = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  }

  std::string name_;
  pid_t pid_ = -1;
  int output_ = -1;
  int exit_code_ = -1;
};

// ---- Namespaces --------------------------------------------------------------------------------------------------

/// One machine's network: the namespace of the test itself, or a second one beside it. Sockets and programs belong to
/// the namespace they are made in.
class Namespace {
 public:
  /// The test's own; its loopback interface is up.
  static Namespace own() { return Namespace(open("/proc/self/ns/net", O_RDONLY | O_CLOEXEC)); }

  /// A new one without connections; its loopback interface is up.
  static Namespace fresh() {
    int made = -1;
    // A namespace belongs to threads. This one makes it, and the descriptor keeps it when the thread has ended.
    std::thread([&made] {
      if (unshare(CLONE_NEWNET) != 0) {
        ADD_FAILURE() << "cannot make a second network namespace: " << std::strerror(errno);
        return;
      }
      made = open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC);
    }).join();
    Namespace fresh_one(made);
    fresh_one.link_up("lo");
    return fresh_one;
  }

  Namespace(Namespace&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
  Namespace& operator=(Namespace&&) = delete;
  ~Namespace() {
    if (fd_ >= 0) close(fd_);
  }

  /// Runs `body` on a thread inside the namespace and waits for it. Sockets that it opens stay usable from everywhere.
  void in(const std::function<void()>& body) const {
    std::thread([&] {
      if (setns(fd_, CLONE_NEWNET) != 0) {
        ADD_FAILURE() << "cannot enter a network namespace: " << std::strerror(errno);
        return;
      }
      body();
    }).join();
  }

  /// Starts a program inside the namespace.
  Process start(std::vector<std::string> arguments) const {
    return Process(std::move(arguments), enter, fd_);
  }

  /// Runs a program to its end. A failure of the program, or its absence, is one of the test.
  ///   returns   what it wrote
  std::string run(std::vector<std::string> arguments) const {
    std::string line;
    for (const std::string& argument : arguments) line += (line.empty() ? "" : " ") + argument;
    Process program = start(std::move(arguments));
    const int exit_code = program.wait();
    EXPECT_EQ(exit_code, 0) << line << "\n" << program.output();
    return program.output();
  }

  /// Runs iproute2's ip with the words of `line`: ip("link set left mtu 1200").
  std::string ip(const std::string& line) const {
    std::istringstream words(line);
    std::vector<std::string> arguments{"ip"};
    for (std::string word; words >> word;) arguments.push_back(word);
    return run(std::move(arguments));
  }

  void link_up(const std::string& link) const { ip("link set dev " + link + " up"); }
  void link_down(const std::string& link) const { ip("link set dev " + link + " down"); }
  void delete_link(const std::string& link) const { ip("link delete dev " + link); }
  /// "02:00:00:00:00:01"; some drivers want the link down.
  void set_mac(const std::string& link, const std::string& mac) const {
    ip("link set dev " + link + " address " + mac);
  }
  /// "10.9.0.1/24". Without a word about it, the address gets the last address of its net for broadcasts.
  void add_address(const std::string& link, const std::string& address) const {
    ip("addr add " + address + " broadcast + dev " + link);
  }
  /// "224.0.0.0/4 dev left" or "default via 10.9.0.2".
  void add_route(const std::string& route) const { ip("route add " + route); }

  /// A path by which programs find the namespace while this process lives.
  std::string path() const { return "/proc/" + std::to_string(getpid()) + "/fd/" + std::to_string(fd_); }
  int fd() const { return fd_; }

 private:
  explicit Namespace(int fd) : fd_(fd) {}

  static const char* enter(int fd) {
    return setns(fd, CLONE_NEWNET) == 0 ? nullptr : "cannot enter a network namespace";
  }

  int fd_;
};

/// Joins two namespaces by a pair of interfaces; both are up and have no address yet. Both may be in one namespace,
/// for interfaces that lead nowhere.
inline void join(const Namespace& left, const std::string& left_link, const Namespace& right,
                 const std::string& right_link) {
  left.ip("link add " + left_link + " type veth peer name " + right_link + " netns " + right.path());
  left.link_up(left_link);
  right.link_up(right_link);
}

/// Replaces a file for this test and the programs that it starts, in its own mount namespace: "/etc/resolv.conf",
/// "/etc/hosts", "/etc/nsswitch.conf". The file must exist; nothing outside sees the change.
inline void replace_file(const char* path, std::string_view content) {
  char name[] = "/dev/shm/oskernel-test-XXXXXX";
  char fallback[] = P_tmpdir "/oskernel-test-XXXXXX";
  char* made = name;
  int fd = mkostemp(made, O_CLOEXEC);
  if (fd < 0) fd = mkostemp(made = fallback, O_CLOEXEC);
  ASSERT_GE(fd, 0) << std::strerror(errno);
  EXPECT_EQ(fchmod(fd, 0644), 0);
  EXPECT_EQ(write(fd, content.data(), content.size()), static_cast<ssize_t>(content.size()));
  EXPECT_EQ(mount(made, path, nullptr, MS_BIND, nullptr), 0)
      << "cannot replace " << path << ": " << std::strerror(errno);
  unlink(made);  // the mount keeps what is in it
  close(fd);
}
inline void use_resolv_conf(std::string_view content) { replace_file("/etc/resolv.conf", content); }

// ---- The test inside ---------------------------------------------------------------------------------------------

namespace net_namespace_detail {

inline constexpr char kMark[] = "OSKERNEL_TEST_IN_NAMESPACE";

/// The beginning of the command line that makes the namespaces and then starts what follows. That program changes its
/// own ones: a process of the thread sanitizer has a second thread as soon as it is forked, and may not.
inline std::vector<std::string> unshare_command() {
  const std::vector<std::string> direct{"unshare", "--net", "--mount", "--propagation", "private"};
  const std::vector<std::string> as_user{"unshare", "--user",        "--map-root-user", "--net",
                                         "--mount", "--propagation", "private"};
  std::vector<std::string> trial = direct;
  trial.push_back("true");
  return Process(std::move(trial)).wait() == 0 ? direct : as_user;
}

inline std::string own_program() {
  char path[4096];
  const ssize_t length = readlink("/proc/self/exe", path, sizeof path);
  return std::string(path, length > 0 ? static_cast<std::size_t>(length) : 0);
}

inline bool inside() {
  static const bool is_inside = [] {
    if (std::getenv(kMark) == nullptr) return false;
    // A new user namespace has taken it away again.
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    Namespace::own().link_up("lo");
    return true;
  }();
  return is_inside;
}

inline std::string indented(std::string text) {
  // A test driver takes the word for the whole program's; here it is a failure.
  constexpr std::string_view kSkipped = "[  SKIPPED ]";
  for (std::size_t at; (at = text.find(kSkipped)) != std::string::npos;) {
    text.replace(at, kSkipped.size(), "[ NOT RUN  ]");
  }
  std::istringstream lines(text);
  std::string result;
  for (std::string line; std::getline(lines, line);) result += "  | " + line + "\n";
  return result;
}

inline void run_again_inside(int timeout_ms) {
  const testing::TestInfo& test = *testing::UnitTest::GetInstance()->current_test_info();
  const std::string name = std::string(test.test_suite_name()) + "." + test.name();
  std::vector<std::string> command = unshare_command();
  for (std::string& word : launched(own_program())) command.push_back(std::move(word));
  command.push_back("--gtest_filter=" + name);
  command.emplace_back("--gtest_also_run_disabled_tests");
  command.emplace_back("--gtest_color=no");
  Process again(std::move(command), nullptr, 0, {std::string(kMark) + "=1"});
  const int exit_code = again.wait(timeout_ms);
  again.stop();
  const std::string output = again.output();
  std::fputs(indented(output).c_str(), stdout);
  std::fflush(stdout);
  if (exit_code < 0) {
    ADD_FAILURE() << name << " has not ended inside its namespaces within " << timeout_ms << " ms";
  } else if (output.find("[ RUN      ] " + name) == std::string::npos) {
    ADD_FAILURE() << name
                  << " needs network and mount namespaces, made as root or in a user namespace: " << output;
  } else if (exit_code != 0) {
    ADD_FAILURE() << name << " ended with exit code " << exit_code << " inside its namespaces";
  } else if (output.find("[       OK ] " + name) == std::string::npos) {
    ADD_FAILURE() << name << " has not run inside its namespaces";
  }
}

}  // namespace net_namespace_detail

/// Whether this process is the one that runs inside the test's namespaces; for fixtures that start nothing outside.
inline bool inside_network_namespace() { return net_namespace_detail::inside(); }

}  // namespace oskernel_test

/// First statement of a test: its rest runs in fresh network and mount namespaces, in a process of its own, and the
/// result becomes this test's. The fixture is set up in both processes.
#define OSKERNEL_IN_NETWORK_NAMESPACE()                 \
  if (!::oskernel_test::net_namespace_detail::inside()) \
  return ::oskernel_test::net_namespace_detail::run_again_inside(::oskernel_test::kNamespaceTestLimitMs)

#endif
