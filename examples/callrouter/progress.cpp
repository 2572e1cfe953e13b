#include "examples/callrouter/progress.h"

#include <fmt/format.h>

#include <algorithm>
#include <iostream>
#include <nlohmann/json.hpp>
#include <utility>

namespace callrouter {
namespace {

constexpr ULONG kPeriodMs = 1000;
constexpr unsigned long kBarSteps = 1000;

}  // namespace

Progress::Show Progress::choose(bool json, bool stdout_is_terminal, bool stderr_is_terminal,
                                bool size_known) {
  if (!stderr_is_terminal) return json ? Show::kJsonLines : Show::kLogLines;
  // Answers that scroll by on the terminal are progress enough, and a bar between them could not be read.
  if (stdout_is_terminal) return Show::kNothing;
  return size_known ? Show::kBar : Show::kLine;
}

Progress::Progress(const Stats& stats, Show show, std::optional<std::uint64_t> total_bytes)
    : stats_(stats),
      show_(show == Show::kBar && total_bytes.value_or(0) == 0 ? Show::kLine : show),
      total_bytes_(total_bytes) {}

void Progress::start() {
  const std::lock_guard lock(mutex_);
  timer_ = std::make_unique<OSTimerTrigger>(kPeriodMs, 1);
  timer_->SetCallback(on_second, reinterpret_cast<OSObj*>(this), nullptr, 0);
  timer_->SetTimer(kPeriodMs);
}

void Progress::finish() {
  const std::lock_guard lock(mutex_);
  timer_.reset();
  if (bar_) show_bar();
  bar_.reset();
  if (line_open_) std::cerr << std::endl;
  line_open_ = false;
}

void Progress::on_second(OSObj* progress, ADDR, ULONG) {
  auto* self = reinterpret_cast<Progress*>(progress);
  const std::lock_guard lock(self->mutex_);
  if (!self->timer_) return;  // finished between the timer's expiry and this call
  self->show();
  self->timer_->Clear();
}

void Progress::show() {
  const std::uint64_t answered = stats_.answered();
  const std::uint64_t rate = answered - answered_before_;
  answered_before_ = answered;
  last_second_.store(rate, std::memory_order_relaxed);
  const bool idle = rate == 0 && idle_;
  idle_ = rate == 0;
  if (show_ == Show::kNothing) return;
  if (show_ == Show::kBar) return show_bar();
  if (idle) return;  // a source that says nothing for hours fills no log; that it stopped has been told

  // On a terminal one line changes in place; what was longer before is wiped.
  const std::string text = line(answered, rate);
  std::cerr << (show_ == Show::kLine ? "\r" + text + "\x1b[K" : text + "\n") << std::flush;
  line_open_ = show_ == Show::kLine;
}

std::string Progress::line(std::uint64_t answered, std::uint64_t rate) const {
  std::optional<std::uint64_t> percent;
  if (total_bytes_.value_or(0) != 0) {
    const std::uint64_t read = std::min(stats_.bytes_read.load(std::memory_order_relaxed), *total_bytes_);
    percent =
        static_cast<std::uint64_t>(100.0 * static_cast<double>(read) / static_cast<double>(*total_bytes_));
  }
  if (show_ == Show::kJsonLines) {
    nlohmann::ordered_json progress = {
        {"numbers", answered}, {"numbers_per_second", rate}, {"percent", nullptr}};
    if (percent) progress["percent"] = *percent;
    return nlohmann::ordered_json{{"progress", std::move(progress)}}.dump();
  }
  std::string text = fmt::format("callrouter: {} numbers, {} a second", grouped(answered), grouped(rate));
  if (percent) text += fmt::format(", {}% of the input", *percent);
  return text;
}

void Progress::show_bar() {
  if (!bar_) bar_ = std::make_unique<boost::timer::progress_display>(kBarSteps, std::cerr, "");
  // A file that grows while it is read would draw the bar past its end.
  const std::uint64_t read = std::min(stats_.bytes_read.load(std::memory_order_relaxed), *total_bytes_);
  const double done = static_cast<double>(read) / static_cast<double>(*total_bytes_);
  const auto steps = static_cast<unsigned long>(done * static_cast<double>(kBarSteps));
  // The display draws a star even for an increment of 0, which a stalled output would turn into a lie.
  if (steps > bar_->count()) *bar_ += steps - bar_->count();
  line_open_ = read != *total_bytes_;  // the full bar ends its line itself
}

}  // namespace callrouter
