#include "examples/callrouter/session.h"

#include <cxxabi.h>
#include <dlfcn.h>
#include <fmt/format.h>

#include <algorithm>
#include <cstdlib>
#include <memory>

#include "examples/callrouter/answer.h"
#include "examples/callrouter/format.h"
#include "examples/callrouter/terminal.h"
#include "kernel/buffer.h"
#include "kernel/kernel.h"
#include "kernel/task.h"
#include "kernel/trigger.h"

namespace callrouter {
namespace {

constexpr int kLineBytes = 256;
constexpr std::size_t kHistoryLines = 20;

using Dialog = OperatorConsole::Dialog;

std::string_view task_state(OSTState state) {
  switch (state) {
    case OS_ST_HOLD:
      return "snoozing";
    case OS_ST_OK:
      return "running";
    case OS_ST_KILL:
      break;
  }
  return "stopping";
}

// The function's name without its arguments, or its address.
std::string function_name(OSCallbackFunction function) {
  Dl_info info{};
  void* address = reinterpret_cast<void*>(function);
  if (dladdr(address, &info) == 0 || info.dli_sname == nullptr) return fmt::format("{}", address);
  int status = 0;
  const std::unique_ptr<char, decltype(&std::free)> name(
      abi::__cxa_demangle(info.dli_sname, nullptr, nullptr, &status), &std::free);
  const std::string_view full = name ? name.get() : info.dli_sname;
  return std::string(full.substr(0, full.find('(')));
}

}  // namespace

struct Session::Command {
  std::string_view name, argument, does;
  void (Session::*action)(std::string_view);
};

const std::vector<Session::Command>& Session::commands() {
  static const std::vector<Command> all = {
      {"stats", "", "what has been routed so far", &Session::stats},
      {"buffers", "", "every message buffer in use, and what the pools hold", &Session::buffers},
      {"tasks", "", "every task", &Session::tasks},
      {"timers", "", "every timer that is armed", &Session::timers},
      {"route", "NUMBER", "where a number goes", &Session::route},
      {"trace", "", "show each number's way and the kernel's remarks, or stop showing them", &Session::trace},
      {"help", "", "this list", &Session::help},
      {"quit", "", "stop routing and end the program", &Session::quit},
  };
  return all;
}

Session::End Session::run() {
  const RawTerminal raw(STDIN_FILENO);
  console_.say("Operator console. \"help\" lists the commands, control-R brings back earlier lines.\n");
  std::string line;
  while (!quit_ && read_line(line)) carry_out(line);
  if (!quit_ && console_.terminal()) console_.say("\n");
  return quit_ ? End::kQuit : End::kNoMoreInput;
}

bool Session::read_line(std::string& line) {
  std::vector<char*> history;
  for (std::string& earlier : history_) history.push_back(earlier.data());
  history.push_back(nullptr);
  for (;;) {
    console_.say("> ");
    char typed[kLineBytes];
    const Dialog dialog(Dialog::kVerbatim);
    if (Console->Gets(typed, sizeof typed, history.data()) == 0) {
      line = typed;
      return true;
    }
    if (console_.ended()) return false;
    console_.say(fmt::format("\nA line holds at most {} characters.\n", kLineBytes - 1));
    // A pipe brings the rest of the line; nobody waits for an echo of it.
    for (int c = 0; !console_.terminal() && c >= 0 && c != '\r';) c = Console->Getc();
  }
}

void Session::remember(const std::string& line) {
  history_.remove(line);
  history_.push_front(line);
  if (history_.size() > kHistoryLines) history_.pop_back();
}

void Session::carry_out(std::string_view line) {
  const std::size_t first = line.find_first_not_of(' ');
  if (first == std::string_view::npos) return;
  line = line.substr(first, line.find_last_not_of(' ') + 1 - first);
  remember(std::string(line));
  const std::string_view name = line.substr(0, line.find(' '));
  std::string_view argument = line.substr(name.size());
  argument.remove_prefix(std::min(argument.find_first_not_of(' '), argument.size()));
  for (const Command& command : commands()) {
    if (command.name != name) continue;
    if (command.argument.empty() != argument.empty()) {
      console_.say(
          fmt::format("Usage: {}{}{}\n", name, command.argument.empty() ? "" : " ", command.argument));
      return;
    }
    return (this->*command.action)(argument);
  }
  console_.say(fmt::format("There is no command \"{}\"; \"help\" lists those there are.\n", name));
}

void Session::stats(std::string_view) {
  std::string text = summarize(subjects_.stats).text();
  text += fmt::format("in the last second {}, on the way now {}\n", grouped(subjects_.progress.last_second()),
                      subjects_.window.in_flight());
  console_.say(text);
}

void Session::buffers(std::string_view) {
  const Dialog dialog(Dialog::kLines);
  dump_allocated();
}

void Session::tasks(std::string_view) {
  std::string text = fmt::format("{:<16} {:<8} {:>10} {:>10}\n", "task", "state", "priority", "stack");
  EnterCriticalSection(&OS_CRITICAL_TASK);
  OSListIterator walk(OSTask::all_tasks);
  while (OSListObj* object = walk++) {
    const auto* task = static_cast<OSTask*>(static_cast<OSLinkListObj*>(object));
    char unnamed[32];
    text += fmt::format("{:<16} {:<8} {:>10} {:>10}\n", OSTaskTag::FindName(unnamed, task->thread_id),
                        task_state(task->state), task->priority, task->stksize);
  }
  LeaveCriticalSection(&OS_CRITICAL_TASK);
  console_.say(text);
}

void Session::timers(std::string_view) {
  std::string text;
  EnterCriticalSection(&OS_CRITICAL_TRIGGER);
  OSListIterator walk(&OS_TIMER_LIST);
  while (OSListObj* object = walk++) {
    const auto* timer = static_cast<OSTimerTrigger*>(static_cast<OSLinkListObj*>(object));
    const auto left_ms = static_cast<std::int32_t>(timer->start_time + timer->duration - os_clock());
    text += fmt::format("{:<40} every {} ms, due in {} ms, fired {} times\n",
                        timer->action == OS_TA_FUNC ? function_name(timer->callback) : "wakes a task",
                        timer->duration, std::max(left_ms, 0), timer->fired);
  }
  LeaveCriticalSection(&OS_CRITICAL_TRIGGER);
  console_.say(text.empty() ? "no timer is armed\n" : text);
}

void Session::route(std::string_view number) {
  const Answer answer = answer_line(subjects_.plan, number);
  std::string text;
  make_formatter(Format::kText)->append(text, {answer, number, "", 0});
  console_.say(text);
}

void Session::trace(std::string_view) {
  const bool on = !console_.tracing().load(std::memory_order_relaxed);
  console_.tracing().store(on, std::memory_order_relaxed);
  console_.say(on ? "tracing on\n" : "tracing off\n");
}

void Session::help(std::string_view) {
  std::string text;
  for (const Command& command : commands()) {
    text += fmt::format("  {:<16} {}\n", fmt::format("{} {}", command.name, command.argument), command.does);
  }
  console_.say(text);
}

}  // namespace callrouter
