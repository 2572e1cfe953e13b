#include "examples/callrouter/reader.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <vector>

#include "examples/callrouter/answer.h"
#include "kernel/buffer.h"
#include "kernel/kernel.h"

namespace callrouter {
namespace {

constexpr UWORD kPriority = 3;
constexpr ULONG kStackBytes = 256 * 1024;
constexpr std::size_t kBlockBytes = 64 * 1024;

bool is_stdin(const std::string& path) { return path == "-"; }

std::string failure(const std::string& path, int error) {
  return (is_stdin(path) ? "standard input" : path) + ": " + std::strerror(error);
}

}  // namespace

std::optional<std::uint64_t> check_inputs(const std::vector<std::string>& paths) {
  std::optional<std::uint64_t> total = 0;
  for (const std::string& path : paths) {
    struct stat status;
    if ((is_stdin(path) ? fstat(STDIN_FILENO, &status) : stat(path.c_str(), &status)) != 0) {
      throw UsageError(failure(path, errno));
    }
    if (S_ISDIR(status.st_mode)) throw UsageError(failure(path, EISDIR));
    if (!is_stdin(path) && access(path.c_str(), R_OK) != 0) throw UsageError(failure(path, errno));
    if (!S_ISREG(status.st_mode)) total.reset();
    if (total) *total += static_cast<std::uint64_t>(status.st_size);
  }
  return total;
}

ReaderTask::ReaderTask(const Road& road) : OSTask(kPriority, kStackBytes, nullptr, nullptr), road_(road) {
  _LockDelete();  // the object stays its owner's when Main returns
  OSTaskTag::SetName("reader", thread_id);
  LeaveCriticalSection(&cs);
}

void ReaderTask::Main() {
  std::uint32_t index = 0;
  while (index < road_.inputs.size() && read_input(index)) ++index;
  complete_ = index == road_.inputs.size();
  hand_over();
  road_.window.close();
}

// True when the input was read to its end.
bool ReaderTask::read_input(std::uint32_t index) {
  const std::string& path = road_.inputs[index];
  // Not blocking: to open a named pipe that nobody writes to yet would wait, deaf to a request to stop.
  const int fd =
      is_stdin(path) ? STDIN_FILENO : open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK);
  if (fd < 0) {
    error_ = failure(path, errno);
    return false;
  }
  LineCutter cutter(static_cast<std::size_t>(Window::max_text()));
  std::vector<char> block(kBlockBytes);
  InputLine line;
  bool ended = false;
  while (!ended && error_.empty() && wait_readable(fd)) {
    const ssize_t got = read(fd, block.data(), block.size());
    if (got < 0) {
      if (errno != EINTR && errno != EAGAIN) error_ = failure(path, errno);
      continue;
    }
    Stats::count(road_.stats.bytes_read, static_cast<std::uint64_t>(got));
    cutter.add({block.data(), static_cast<std::size_t>(got)});
    ended = got == 0;
    // Only here does a line without an end count: after a stop, half a number would be routed as if it were one.
    if (ended) cutter.finish();
    while (cutter.next(line)) put(line, index);
    hand_over();  // the next read may wait
  }
  if (fd != STDIN_FILENO) close(fd);
  return ended;
}

// False when a stop has been requested. The reader is where the program waits for most of its life, so this is
// also where it learns that nobody reads the answers any more, though there may be none to write for hours.
bool ReaderTask::wait_readable(int fd) {
  for (;;) {
    pollfd wait[3] = {{fd, POLLIN, 0}, {road_.stop.fd(), POLLIN, 0}, {road_.output_fd, 0, 0}};
    if (poll(wait, 3, -1) < 0) continue;  // EINTR
    if (wait[2].revents & (POLLERR | POLLHUP)) road_.stop.request(Stop::Reason::kOutputClosed);
    if (road_.stop.requested()) return false;
    if (wait[0].revents != 0) return true;  // errors too: read() names them
  }
}

void ReaderTask::put(const InputLine& line, std::uint32_t index) {
  OSBuf* buf;
  while ((buf = road_.window.alloc(line.text.data(), static_cast<int>(line.text.size()))) == nullptr) {
    hand_over();
    road_.window.wait_for_room();
  }
  push_mark(buf, {line.number, index, line.cut ? 1u : 0u});
  stamp(buf, road_.router);
  buf->trace = road_.tracing.load(std::memory_order_relaxed) ? 1 : 0;
  batch_[batched_++] = buf;
  if (batched_ == kBatch) hand_over();
}

// One hold of the queue's lock for the whole batch; the first line of it wakes the router when it sleeps.
void ReaderTask::hand_over() {
  if (batched_ == 0) return;
  EnterCriticalSection(&road_.queue.cs);
  for (std::size_t i = 0; i < batched_; ++i) road_.queue.Append(batch_[i]);
  LeaveCriticalSection(&road_.queue.cs);
  batched_ = 0;
}

}  // namespace callrouter
