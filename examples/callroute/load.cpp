// Generates calls, checks every answer, and measures.
#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <boost/timer/progress_display.hpp>
#include <cmath>
#include <iostream>
#include <memory>
#include <nlohmann/json.hpp>
#include <random>
#include <vector>

#include "examples/callroute/run.h"
#include "examples/callrouter/answer.h"
#include "examples/callrouter/plan_file.h"
#include "examples/callrouter/stats.h"

namespace callroute {
namespace {

using callrouter::grouped;

// A listener has room for four connections that it has not accepted yet; with more at a time, some would be told
// to try again, a second later.
constexpr int kConnecting = 4;

constexpr unsigned long kBarSteps = 1000;
constexpr int kShownMistakes = 3;

// Numbers of the plan, most of them: a prefix, filled up with digits. Each is different enough from the last that
// an answer in the wrong place is seen.
class Numbers {
 public:
  explicit Numbers(const callrouter::Plan& plan) : rows_(plan.rows()) {}

  std::string next() {
    ++count_;
    const auto row = static_cast<std::size_t>(random_() % rows_.size());
    std::string number = fmt::format("+{}{:08}", rows_[row]->prefix, random_() % 100'000'000);
    if (number.size() > callrouter::kMaxDigits + 1) number.resize(callrouter::kMaxDigits + 1);
    // Some that have no route, and some that are no numbers.
    if (count_ % 50 == 25) number[1] = '0';
    if (count_ % 50 == 0) number += 'x';
    return number;
  }

 private:
  const std::vector<const callrouter::PlanRow*>& rows_;
  std::mt19937_64 random_{1};
  std::uint64_t count_ = 0;
};

class Load : public Run {
 public:
  Load(const Options& options, const callrouter::Plan& plan)
      : Run(options),
        plan_(plan),
        formatter_(callrouter::make_formatter(callrouter::Format::kText)),
        numbers_(plan) {
    latencies_us_.reserve(static_cast<std::size_t>(options.load));
  }

 private:
  void connected(Line&) override {
    ++connected_;
    if (connected_ < options_.connections) {
      while (static_cast<int>(lines_.size()) < options_.connections &&
             static_cast<int>(lines_.size()) - connected_ < kConnecting) {
        connect();
      }
      return;
    }
    if (!options_.quiet && isatty(STDERR_FILENO)) {
      bar_ = std::make_unique<boost::timer::progress_display>(kBarSteps, std::cerr, "");
    }
    started_ = Clock::now();
    for (int i = 0; i < options_.pipeline; ++i) {
      for (Line& line : lines_) call(line);
    }
  }

  void call(Line& line) {
    if (issued_ == options_.load || done()) return;
    ++issued_;
    ask(line, line.peer->askable(numbers_.next()));
  }

  bool answered(Line& line, const Call& call_made, std::string_view answer) override {
    const Clock::time_point now = Clock::now();
    const callrouter::Answer right = callrouter::answer_line(plan_, call_made.number);
    std::string text;
    formatter_->append(text, {right, call_made.number, "", 0});
    text.pop_back();  // its line end
    text = line.peer->as_received(text);
    if (answer != text) {
      if (answer.starts_with("error: ")) return false;
      if (wrong_ < kShownMistakes) {
        std::cerr << fmt::format("callroute: wrong answer to {}: {}\n  the plan says: {}\n", call_made.number,
                                 answer, text);
      }
      ++wrong_;
    }
    ++(right.malformed() ? malformed_ : right.routed() ? routed_ : unroutable_);
    latencies_us_.push_back(
        static_cast<float>(std::chrono::duration<double, std::micro>(now - call_made.sent_at).count()));
    ended_ = now;
    if (latencies_us_.size() == options_.load) {
      if (wrong_ > 0)
        fail(kExitWrong, fmt::format("{} of {} answers were wrong", grouped(wrong_), grouped(options_.load)));
      finish();
    } else {
      call(line);
    }
    return true;
  }

  void tick() override {
    if (!bar_) return;
    const auto steps = static_cast<unsigned long>(static_cast<double>(latencies_us_.size()) /
                                                  static_cast<double>(options_.load) * kBarSteps);
    // The display draws a star even for an increment of 0, which a stalled router would turn into a lie.
    if (steps > bar_->count()) *bar_ += steps - bar_->count();
  }

  void report() override {
    if (bar_) {
      tick();
      if (bar_->count() < kBarSteps) std::cerr << std::endl;
    }
    if (latencies_us_.size() < options_.load) return;  // figures of a part would mislead
    std::sort(latencies_us_.begin(), latencies_us_.end());
    const double seconds = std::chrono::duration<double>(ended_ - started_).count();
    const auto per_second =
        seconds > 0 ? static_cast<std::uint64_t>(static_cast<double>(latencies_us_.size()) / seconds) : 0;
    if (options_.json) return report_json(seconds, per_second);
    std::cout << fmt::format(
        "{} call{} over {} connection{} ({}), {} at a time on each: {} routed, {} unroutable, "
        "{} malformed, {} wrong\n",
        grouped(latencies_us_.size()), latencies_us_.size() == 1 ? "" : "s",
        grouped(static_cast<std::uint64_t>(options_.connections)), options_.connections == 1 ? "" : "s",
        callrouter::name_of(options_.offer), options_.pipeline, grouped(routed_), grouped(unroutable_),
        grouped(malformed_), grouped(wrong_));
    std::cout << fmt::format(
                     "{} calls a second in {:.3f} s; latency p50 {:.3f} ms, p99 {:.3f} ms, max {:.3f} ms\n",
                     grouped(per_second), seconds, latency_ms(50), latency_ms(99), latency_ms(100))
              << std::flush;
  }

  void report_json(double seconds, std::uint64_t per_second) const {
    const auto rounded = [](double value) { return std::round(value * 1000) / 1000; };
    const nlohmann::ordered_json json = {{"calls", latencies_us_.size()},
                                         {"connections", options_.connections},
                                         {"framing", callrouter::name_of(options_.offer)},
                                         {"pipeline", options_.pipeline},
                                         {"routed", routed_},
                                         {"unroutable", unroutable_},
                                         {"malformed", malformed_},
                                         {"wrong", wrong_},
                                         {"seconds", rounded(seconds)},
                                         {"calls_per_second", per_second},
                                         {"latency_ms",
                                          {{"p50", rounded(latency_ms(50))},
                                           {"p99", rounded(latency_ms(99))},
                                           {"max", rounded(latency_ms(100))}}}};
    std::cout << json.dump() << std::endl;
  }

  // The smallest that so many of a hundred calls do not exceed.
  double latency_ms(int percent) const {
    const std::size_t rank = (latencies_us_.size() * static_cast<std::size_t>(percent) + 99) / 100;
    return static_cast<double>(latencies_us_[std::max<std::size_t>(rank, 1) - 1]) / 1000;
  }

  const callrouter::Plan& plan_;
  const std::unique_ptr<callrouter::Formatter> formatter_;
  Numbers numbers_;
  int connected_ = 0;
  std::uint64_t issued_ = 0, routed_ = 0, unroutable_ = 0, malformed_ = 0, wrong_ = 0;
  std::vector<float> latencies_us_;
  Clock::time_point started_, ended_;
  std::unique_ptr<boost::timer::progress_display> bar_;
};

}  // namespace

int generate_load(const Options& options, bool& looking_up) {
  const auto plan = options.plan.empty() ? callrouter::default_plan() : callrouter::load_plan(options.plan);
  Load load(options, *plan);
  const int exit_code = load.run();
  looking_up = load.looking_up();
  return exit_code;
}

}  // namespace callroute
