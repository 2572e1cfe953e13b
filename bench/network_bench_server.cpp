/// Starting, observing and ending the servers under test, and what the servers share.
#include "network_bench_server.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sched.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <stdexcept>

namespace oskernel_bench {
namespace {

constexpr int kStartSeconds = 20;
constexpr int kEndSeconds = 5;

cpu_set_t allowed_processors;  // before pin_load
bool pinned = false;

}  // namespace

// ---- In the server's process -------------------------------------------------------------------------------

void announce(int port) {
  char line[16];
  const int length = std::snprintf(line, sizeof line, "%d\n", port);
  require(write(STDOUT_FILENO, line, static_cast<std::size_t>(length)) == length, "announce");
  close(STDOUT_FILENO);
}

void require(bool ok, const char* what) {
  if (ok) return;
  std::fprintf(stderr, "%s: %s\n", what, std::strerror(errno));
  std::_Exit(1);
}

int open_server_socket(Protocol protocol) {
  const int type = protocol == Protocol::kDatagrams ? SOCK_DGRAM : SOCK_STREAM;
  const int s = socket(AF_INET, type | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  require(s >= 0, "socket");
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  require(bind(s, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0, "bind");
  if (type == SOCK_STREAM) require(listen(s, SOMAXCONN) == 0, "listen");
  socklen_t length = sizeof address;
  require(getsockname(s, reinterpret_cast<sockaddr*>(&address), &length) == 0, "getsockname");
  announce(ntohs(address.sin_port));
  return s;
}

bool PacketEcho::put(const std::uint8_t* packet, std::size_t length, std::string* out) {
  const char header[kHeaderBytes] = {3, 0, static_cast<char>(length >> 8), static_cast<char>(length & 0xFF)};
  out->append(header, kHeaderBytes);
  out->append(reinterpret_cast<const char*>(packet) + kHeaderBytes, length - kHeaderBytes);
  return true;
}

bool PacketEcho::take(const std::uint8_t* bytes, std::size_t count, std::string* out) {
  if (!held_.empty()) {
    held_.append(reinterpret_cast<const char*>(bytes), count);
    bytes = reinterpret_cast<const std::uint8_t*>(held_.data());
    count = held_.size();
  }
  std::size_t used = 0;
  while (count - used >= kHeaderBytes) {
    const std::uint8_t* const packet = bytes + used;
    const std::size_t length = static_cast<std::size_t>(packet[2] << 8 | packet[3]);
    if (packet[0] != 3 || length < kHeaderBytes) return false;
    if (count - used < length) break;
    put(packet, length, out);
    used += length;
  }
  if (held_.empty()) {
    held_.assign(reinterpret_cast<const char*>(bytes) + used, count - used);
  } else {
    held_.erase(0, used);
  }
  return true;
}

// ---- In the process that drives the load -------------------------------------------------------------------

ServerProcess::ServerProcess(const Implementation& implementation, Protocol protocol, int connections) {
  int announcement[2];
  if (pipe2(announcement, O_CLOEXEC) != 0) throw std::runtime_error("no pipe for the server");
  const std::string protocol_text = std::to_string(static_cast<int>(protocol));
  const std::string connections_text = std::to_string(connections);
  const pid_t parent = getpid();

  pid_ = fork();
  if (pid_ == 0) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != parent) _exit(1);  // it was killed before it could take this process with it
    if (pinned) sched_setaffinity(0, sizeof allowed_processors, &allowed_processors);
    dup2(announcement[1], STDOUT_FILENO);
    execl("/proc/self/exe", "network_bench", "--serve", implementation.name, protocol_text.c_str(),
          connections_text.c_str(), static_cast<char*>(nullptr));
    _exit(127);
  }
  close(announcement[1]);
  if (pid_ < 0) {
    close(announcement[0]);
    throw std::runtime_error("cannot start a server");
  }

  std::string line;
  pollfd readable{announcement[0], POLLIN, 0};
  while (line.find('\n') == std::string::npos && poll(&readable, 1, kStartSeconds * 1000) == 1) {
    char bytes[16];
    const ssize_t got = read(announcement[0], bytes, sizeof bytes);
    if (got <= 0) break;
    line.append(bytes, static_cast<std::size_t>(got));
  }
  close(announcement[0]);
  port_ = std::atoi(line.c_str());
  if (port_ == 0) {
    const std::string how = condition();
    end();
    throw std::runtime_error("the server did not start: " + how);
  }
}

ServerProcess::~ServerProcess() { end(); }

std::string ServerProcess::condition() {
  if (pid_ > 0 && waitpid(pid_, &status_, WNOHANG) == pid_) pid_ = -1;
  if (pid_ > 0) return "its process is running";
  if (WIFSIGNALED(status_)) return "its process was ended by signal " + std::to_string(WTERMSIG(status_));
  return "its process ended with " + std::to_string(WEXITSTATUS(status_));
}

void ServerProcess::end() {
  if (pid_ <= 0) return;
  kill(pid_, SIGTERM);
  for (int ms = 0; ms < kEndSeconds * 1000; ++ms) {
    if (waitpid(pid_, &status_, WNOHANG) != 0) {
      pid_ = -1;
      return;
    }
    usleep(1000);
  }
  kill(pid_, SIGKILL);
  waitpid(pid_, &status_, 0);
  pid_ = -1;
}

double ServerProcess::processor_seconds() const {
  clockid_t clock;
  timespec used{};
  if (clock_getcpuclockid(pid_, &clock) != 0 || clock_gettime(clock, &used) != 0) {
    throw std::runtime_error("the server has ended");
  }
  return static_cast<double>(used.tv_sec) + static_cast<double>(used.tv_nsec) * 1e-9;
}

double ServerProcess::private_bytes() const {
  std::ifstream status("/proc/" + std::to_string(pid_) + "/status");
  std::string word;
  while (status >> word) {
    double kib = 0;
    if (word == "RssAnon:" && status >> kib) return kib * 1024;
  }
  throw std::runtime_error("the system does not say how much memory the server has");
}

// ---- Processor time ----------------------------------------------------------------------------------------

namespace {

double own_seconds() {
  timespec used{};
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &used);
  return static_cast<double>(used.tv_sec) + static_cast<double>(used.tv_nsec) * 1e-9;
}

/// Of all programs and all processors.
double machine_seconds() {
  std::ifstream statistics("/proc/stat");
  std::string word;
  double user = 0, nice = 0, system = 0, idle = 0, iowait = 0, irq = 0, softirq = 0;
  statistics >> word >> user >> nice >> system >> idle >> iowait >> irq >> softirq;
  return (user + nice + system + irq + softirq) / static_cast<double>(sysconf(_SC_CLK_TCK));
}

}  // namespace

Usage::Usage(const ServerProcess& server)
    : processor_(server.processor_seconds()), machine_(machine_seconds()), own_(own_seconds()) {}

Figures Usage::figures(const ServerProcess& server, std::uint64_t completed, double seconds) const {
  const double own = own_seconds() - own_;
  const double processor = server.processor_seconds() - processor_;
  const double others = machine_seconds() - machine_ - own - processor;
  const double all = seconds * static_cast<double>(sysconf(_SC_NPROCESSORS_ONLN));
  const auto count = static_cast<double>(completed);
  return {count / seconds, completed > 0 ? processor * 1e6 / count : 0, own / seconds,
          std::clamp(others / all, 0.0, 1.0), 0};
}

// ---- Limits ------------------------------------------------------------------------------------------------

std::size_t allow_descriptors(std::size_t wanted) {
  rlimit limit{};
  getrlimit(RLIMIT_NOFILE, &limit);
  if (limit.rlim_cur < wanted) {
    rlimit higher{wanted, std::max<rlim_t>(wanted, limit.rlim_max)};
    if (setrlimit(RLIMIT_NOFILE, &higher) != 0) {  // not allowed beyond the hard limit
      higher = {std::min<rlim_t>(wanted, limit.rlim_max), limit.rlim_max};
      setrlimit(RLIMIT_NOFILE, &higher);
    }
    getrlimit(RLIMIT_NOFILE, &limit);
  }
  return static_cast<std::size_t>(limit.rlim_cur);
}

int pin_load() {
  if (sched_getaffinity(0, sizeof allowed_processors, &allowed_processors) != 0) return -1;
  if (CPU_COUNT(&allowed_processors) < 2) return -1;
  for (int processor = CPU_SETSIZE - 1; processor >= 0; --processor) {
    if (!CPU_ISSET(processor, &allowed_processors)) continue;
    cpu_set_t one;
    CPU_ZERO(&one);
    CPU_SET(processor, &one);
    pinned = sched_setaffinity(0, sizeof one, &one) == 0;
    return pinned ? processor : -1;
  }
  return -1;
}

}  // namespace oskernel_bench
