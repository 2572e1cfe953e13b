#include "examples/callrouter/output.h"

#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>

#include "kernel/buffer.h"

namespace callrouter {
namespace {

constexpr std::size_t kHoldBytes = 64 * 1024;

// After a stop has been requested, a peer that takes nothing for so long is not waited for any longer.
constexpr int kGraceMs = 2000;

// A pipe that poll() calls writable takes PIPE_BUF bytes at once; with more, write() would sleep until a reader
// has made room, deaf to a request to stop. A file never makes us wait.
std::size_t piece_for(int fd) {
  struct stat status;
  if (fstat(fd, &status) == 0 && S_ISREG(status.st_mode)) return kHoldBytes;
  return PIPE_BUF;
}

}  // namespace

OutputLayer::OutputLayer(int fd, const Formatter& formatter, const std::vector<std::string>& sources,
                         Stats& stats, Stop& stop)
    : fd_(fd),
      formatter_(formatter),
      sources_(sources),
      stats_(stats),
      stop_(stop),
      piece_bytes_(piece_for(fd)) {
  pending_.reserve(2 * kHoldBytes);
  formatter_.header(pending_);
}

OSIORetCode OutputLayer::DataIndication(OSBuf* buf) {
  const Answer answer = pull_answer(buf);
  const LineMark mark = peek_mark(buf);
  count(answer);
  if (error_ == 0) formatter_.append(pending_, {answer, peek_text(buf), sources_[mark.source], mark.line});
  buf->Free();
  if (pending_.size() >= kHoldBytes) write_out();
  return error_ == 0 ? Success : NoConnection;
}

OSIORetCode OutputLayer::Service(OSIOParam* param) {
  if (param->Type() != EndOfBatch::kType) return NotSupported;
  write_out();
  return Success;
}

void OutputLayer::count(const Answer& answer) {
  if (answer.malformed()) {
    Stats::count(stats_.malformed);
  } else {
    Stats::count(answer.routed() ? stats_.routed : stats_.unroutable);
  }
}

void OutputLayer::write_out() {
  std::string_view rest = pending_;
  while (!rest.empty() && error_ == 0) {
    if (!wait_writable()) break;
    const ssize_t written = write(fd_, rest.data(), std::min(rest.size(), piece_bytes_));
    if (written >= 0) {
      rest.remove_prefix(static_cast<std::size_t>(written));
    } else if (errno != EINTR && errno != EAGAIN) {
      give_up(errno);
    }
  }
  pending_.clear();
}

// False when the peer has been given up.
bool OutputLayer::wait_writable() {
  for (;;) {
    const bool stopping = stop_.requested();
    // While nothing stops us the wait has no end: a pager is left open over night. The stop descriptor stays
    // readable, so once it has been seen it is left out and the grace time runs.
    pollfd wait[2] = {{fd_, POLLOUT, 0}, {stopping ? -1 : stop_.fd(), POLLIN, 0}};
    const int ready = poll(wait, 2, stopping ? kGraceMs : -1);
    if (ready < 0 && errno != EINTR) return give_up(errno), false;
    if (ready == 0) return give_up(ETIMEDOUT), false;
    // An error on the descriptor is left to write(), which names it.
    if (ready > 0 && wait[0].revents != 0) return true;
  }
}

// Nobody reads the answers: there is no use in reading on.
void OutputLayer::give_up(int error) {
  error_ = error;
  pending_.clear();
  stop_.request(Stop::Reason::kOutputClosed);
}

}  // namespace callrouter
