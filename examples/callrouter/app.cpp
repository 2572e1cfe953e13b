#include "examples/callrouter/app.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <iostream>
#include <memory>
#include <optional>

#include "examples/callrouter/kernel_run.h"
#include "examples/callrouter/operator_console.h"
#include "examples/callrouter/plan_file.h"
#include "examples/callrouter/progress.h"
#include "examples/callrouter/reader.h"
#include "examples/callrouter/road.h"
#include "examples/callrouter/serve.h"
#include "examples/callrouter/session.h"
#include "examples/callrouter/signals.h"
#include "examples/callrouter/stop.h"
#include "examples/callrouter/terminal.h"

namespace callrouter {
namespace {

// An input's name as it appears in the answers, which are lines.
std::string name_of(const std::string& input) {
  if (input == "-") return "stdin";
  std::string name = input;
  std::replace_if(
      name.begin(), name.end(), [](char c) { return static_cast<unsigned char>(c) < ' '; }, '?');
  return name;
}

bool numbers_are_typed(const Options& options) {
  return std::count(options.inputs.begin(), options.inputs.end(), "-") > 0 && isatty(STDIN_FILENO);
}

void greet(const Options& options) {
  if (numbers_are_typed(options) && !options.quiet && isatty(STDERR_FILENO)) {
    std::cerr << "Type numbers, one a line; control-D ends." << std::endl;
  }
}

// Progress is for whoever waits: not for an operator, who has `stats`, nor for whoever types the numbers.
Progress::Show progress_for(const Options& options, bool size_known) {
  if (options.quiet || options.console || options.inputs.empty() || numbers_are_typed(options)) {
    return Progress::Show::kNothing;
  }
  return Progress::choose(options.format == Format::kJson, isatty(STDOUT_FILENO) != 0,
                          isatty(STDERR_FILENO) != 0, size_known);
}

int report(const Options& options, const Road& road, const Stop& stop, const Summary& summary) {
  // A reader that has seen enough (callrouter ... | head) went away on purpose; nothing is to be said.
  const bool left = road.output_error() == EPIPE;
  if (!options.inputs.empty() && !options.quiet && !left) {
    // A terminal shows ^C where the cursor was.
    if (stop.reason() == Stop::Reason::kSignal && isatty(STDERR_FILENO)) std::cerr << '\n';
    std::cerr << (options.format == Format::kJson ? summary.json() : summary.text()) << std::flush;
  }
  if (!road.input_error().empty()) {
    std::cerr << "callrouter: " << road.input_error() << std::endl;
    return kExitUsage;
  }
  if (road.output_error() == ETIMEDOUT) {
    std::cerr << "callrouter: ended while nobody took the answers; some are lost" << std::endl;
  } else if (road.output_error() != 0 && !left) {
    std::cerr << "callrouter: standard output: " << std::strerror(road.output_error()) << std::endl;
    return kExitOutput;
  }
  if (stop.reason() == Stop::Reason::kSignal && !road.complete()) return kExitSignal + SignalStop::received();
  return kExitOk;
}

}  // namespace

int run(const Options& options) {
  if (options.serving) return serve(options);
  const std::unique_ptr<Plan> plan = options.plan.empty() ? default_plan() : load_plan(options.plan);
  const std::optional<std::uint64_t> total_bytes = check_inputs(options.inputs);
  std::vector<std::string> names;
  for (const std::string& input : options.inputs) names.push_back(name_of(input));
  const std::unique_ptr<Formatter> formatter = make_formatter(options.format);
  greet(options);

  Stop stop;
  SignalStop signals(stop);
  // With numbers to answer, standard output belongs to the answers and the dialog goes to standard error.
  OperatorConsole console(STDIN_FILENO, options.inputs.empty() ? STDOUT_FILENO : STDERR_FILENO, stop);
  Stats stats;
  Progress progress(stats, progress_for(options, total_bytes.has_value()), total_bytes);
  const KernelRun kernel(console, road_config());
  Road road(*plan, options.inputs, names, *formatter, stats, stop, console.tracing());
  progress.start();
  signals.deliver();

  if (options.console) {
    Session session(console, {*plan, stats, progress, &road.window(), nullptr});
    // Without a word from the operator the numbers are all answered first.
    if (session.run() == Session::End::kQuit) stop.request(Stop::Reason::kOperator);
  }
  road.finish();
  progress.finish();
  return report(options, road, stop, summarize(stats));
}

}  // namespace callrouter
