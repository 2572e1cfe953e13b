// Asks numbers and shows the answers.
#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <iostream>
#include <memory>
#include <nlohmann/json.hpp>

#include "examples/callroute/input.h"
#include "examples/callroute/run.h"
#include "examples/callrouter/number.h"

namespace callroute {
namespace {

// Numbers that are on the way at a time. Far below what the network between two programs holds, so that both can
// be sending without either waiting for the other.
constexpr std::size_t kMostCalls = 64;

std::string_view trimmed(std::string_view text) {
  const std::size_t first = text.find_first_not_of(' ');
  if (first == std::string_view::npos) return {};
  return text.substr(first, text.find_last_not_of(' ') + 1 - first);
}

// The answer's columns are at least two spaces apart, and a router's texts hold no two spaces in a row.
nlohmann::ordered_json as_json(std::string_view asked, std::string_view answer, double latency_ms) {
  nlohmann::ordered_json json = {{"asked", asked},         {"number", nullptr},       {"prefix", nullptr},
                                 {"destination", nullptr}, {"gateway", nullptr},      {"status", "malformed"},
                                 {"reason", nullptr},      {"latency_ms", latency_ms}};
  constexpr std::string_view kMalformed = "malformed: ", kUnroutable = "unroutable: ";
  const callrouter::Number number = callrouter::parse_number(asked);
  if (const std::size_t at = answer.rfind(kMalformed); at != std::string_view::npos && !number.ok()) {
    json["reason"] = answer.substr(at + kMalformed.size());
    return json;
  }
  const std::string text = number.text();
  json["number"] = text;
  const std::string_view rest = trimmed(answer.substr(std::min(text.size(), answer.size())));
  if (rest.starts_with(kUnroutable)) {
    json["status"] = "unroutable";
    json["reason"] = rest.substr(kUnroutable.size());
    return json;
  }
  const std::size_t first = std::min(rest.find("  "), rest.size());
  const std::size_t last = std::min(rest.rfind("  "), rest.size());
  json["status"] = "routed";
  json["prefix"] = rest.substr(0, first);
  json["destination"] = trimmed(rest.substr(first, std::max(last, first) - first));
  json["gateway"] = trimmed(rest.substr(last));
  return json;
}

class Ask : public Run {
 public:
  explicit Ask(const Options& options)
      : Run(options), left_(options.numbers.begin(), options.numbers.end()), from_input_(left_.empty()) {
    if (from_input_ && isatty(STDIN_FILENO) && isatty(STDERR_FILENO) && !options.quiet) {
      std::cerr << "Type numbers, one a line; control-D ends." << std::endl;
    }
  }
  ~Ask() override { std::fflush(stdout); }

 private:
  void connected(Line&) override {
    if (from_input_) input_ = std::make_unique<Input>([this] { feed(); });
    feed();
  }

  bool answered(Line&, const Call& call, std::string_view answer) override {
    const callrouter::Number number = callrouter::parse_number(call.number);
    const bool fits = number.ok() ? answer.starts_with(number.text() + " ")
                                  : answer.find("malformed: ") != std::string_view::npos;
    if (!fits) return false;
    const std::chrono::duration<double, std::milli> latency = Clock::now() - call.sent_at;
    std::string out(answer);
    if (options_.json) {
      out = as_json(call.number, answer, latency.count())
                .dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
    }
    out += '\n';
    std::fwrite(out.data(), 1, out.size(), stdout);
    feed();
    return true;
  }

  void feed() {
    if (done()) return;
    Line& line = lines_.front();
    while (line.calls.size() < kMostCalls) {
      std::optional<std::string> number = next();
      if (!number) break;
      ask(line, line.peer->askable(*number));
      if (done()) return;
    }
    if (line.calls.empty() && (input_ ? input_->ended() : left_.empty())) {
      if (input_ && !input_->error().empty()) return fail(kExitUsage, "standard input: " + input_->error());
      return finish();
    }
    // Whoever reads along sees each answer when nothing follows at once.
    if (line.calls.empty()) std::fflush(stdout);
  }

  std::optional<std::string> next() {
    if (input_) {
      auto line = input_->take();
      if (!line) return std::nullopt;
      // Without its end it could be a number that nobody has asked for.
      if (line->cut) line->text += '?';
      return std::move(line->text);
    }
    if (left_.empty()) return std::nullopt;
    std::string number = std::move(left_.front());
    left_.pop_front();
    return number;
  }

  void report() override { std::fflush(stdout); }

  std::deque<std::string> left_;
  const bool from_input_;
  std::unique_ptr<Input> input_;
};

}  // namespace

int ask_numbers(const Options& options, bool& looking_up) {
  Ask ask(options);
  const int exit_code = ask.run();
  looking_up = ask.looking_up();
  return exit_code;
}

}  // namespace callroute
