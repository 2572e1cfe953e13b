// The operator's commands.
#ifndef CALLROUTER_SESSION_H
#define CALLROUTER_SESSION_H

#include <list>
#include <string>
#include <string_view>
#include <vector>

#include "examples/callrouter/operator_console.h"
#include "examples/callrouter/plan.h"
#include "examples/callrouter/progress.h"
#include "examples/callrouter/server.h"
#include "examples/callrouter/stats.h"
#include "examples/callrouter/window.h"

namespace callrouter {

/// Reads commands through the console's line editor and carries them out, while the kernel runs. One thread.
class Session {
 public:
  enum class End { kQuit, kNoMoreInput };

  struct Subjects {
    const Plan& plan;
    const Stats& stats;
    const Progress& progress;
    const Window* window;      ///< null while the network is served
    const ServerTask* server;  ///< null while files are routed
  };

  /// Lends everything.
  Session(OperatorConsole& console, const Subjects& subjects) : console_(console), subjects_(subjects) {}

  /// Until `quit`, or until there is no more input: its end, or a stop.
  End run();

 private:
  struct Command;
  static const std::vector<Command>& commands();

  bool read_line(std::string& line);
  void remember(const std::string& line);
  void carry_out(std::string_view line);

  void stats(std::string_view);
  void buffers(std::string_view);
  void tasks(std::string_view);
  void timers(std::string_view);
  void sockets(std::string_view);
  void gateways(std::string_view);
  void names(std::string_view);
  void resolve(std::string_view name);
  void route(std::string_view number);
  void trace(std::string_view);
  void help(std::string_view);
  void quit(std::string_view) { quit_ = true; }

  OperatorConsole& console_;
  const Subjects subjects_;
  std::list<std::string> history_;  // newest first, as control-R shows them
  bool quit_ = false;
};

}  // namespace callrouter

#endif
