#include "examples/callroute/input.h"

#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <utility>
#include <vector>

#include "examples/callroute/options.h"
#include "examples/callrouter/line_cutter.h"

namespace callroute {
namespace {

constexpr UWORD kPriority = 3;
constexpr ULONG kStackBytes = 256 * 1024;
constexpr std::size_t kBlockBytes = 16 * 1024;
constexpr std::size_t kMostLines = 256;

}  // namespace

Input::Input(std::function<void()> news)
    : OSTask(kPriority, kStackBytes, nullptr, nullptr), news_(std::move(news)), trigger_(0, 1) {
  trigger_.SetCallback(on_news, reinterpret_cast<OSObj*>(this), nullptr, 0);
  trigger_.Clear();
  _LockDelete();  // the object stays its owner's when Main returns
  LeaveCriticalSection(&cs);
}

Input::~Input() {
  {
    const std::lock_guard lock(mutex_);
    stopping_ = true;
  }
  room_.notify_all();
  stop_.request(callrouter::Stop::Reason::kOperator);
  Kill();
}

std::optional<Input::Line> Input::take() {
  std::optional<Line> line;
  const std::lock_guard lock(mutex_);
  if (!lines_.empty()) {
    line = std::move(lines_.front());
    lines_.pop_front();
    if (lines_.size() == kMostLines / 2) room_.notify_all();
  }
  return line;
}

bool Input::ended() const {
  const std::lock_guard lock(mutex_);
  return ended_ && lines_.empty();
}

std::string Input::error() const {
  const std::lock_guard lock(mutex_);
  return error_;
}

void Input::Main() {
  callrouter::LineCutter cutter(kMostNumberBytes);
  std::vector<char> block(kBlockBytes);
  callrouter::InputLine line;
  bool more = true;
  while (more) {
    pollfd wait[2] = {{STDIN_FILENO, POLLIN, 0}, {stop_.fd(), POLLIN, 0}};
    if (poll(wait, 2, -1) < 0) continue;  // EINTR
    if (stop_.requested()) return;
    const ssize_t got = read(STDIN_FILENO, block.data(), block.size());
    if (got < 0 && (errno == EINTR || errno == EAGAIN)) continue;
    if (got < 0) return end(std::strerror(errno));
    more = got > 0;
    cutter.add({block.data(), static_cast<std::size_t>(got)});
    if (!more) cutter.finish();
    while (cutter.next(line)) {
      if (!put(std::string(line.text), line.cut)) return;
    }
    trigger_.Fire();
  }
  end({});
}

bool Input::put(std::string text, bool cut) {
  std::unique_lock lock(mutex_);
  if (lines_.size() >= kMostLines) {
    lock.unlock();
    trigger_.Fire();
    lock.lock();
    room_.wait(lock, [this] { return stopping_ || lines_.size() <= kMostLines / 2; });
  }
  lines_.push_back({std::move(text), cut});
  return !stopping_;
}

void Input::end(std::string error) {
  {
    const std::lock_guard lock(mutex_);
    ended_ = true;
    error_ = std::move(error);
  }
  trigger_.Fire();
}

// Armed before the lines are looked at: what comes meanwhile fires again.
void Input::on_news(OSObj* input, ADDR, ULONG) {
  auto* self = reinterpret_cast<Input*>(input);
  self->trigger_.Clear();
  self->news_();
}

}  // namespace callroute
