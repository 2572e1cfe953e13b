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
#include "network/asocket.h"

namespace callrouter {
namespace {

constexpr int kLineBytes = 256;
constexpr std::size_t kHistoryLines = 20;

constexpr std::string_view kNotServing = "the network is not served; that takes --serve\n";

using Dialog = OperatorConsole::Dialog;

std::string dotted(std::uint32_t address) {
  char text[16];
  return SockAddr(address, 0).AddressStr(text);
}

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
      {"sockets", "", "every connection that is served", &Session::sockets},
      {"gateways", "", "the gateways of --gateways-from", &Session::gateways},
      {"names", "", "the host names that are known", &Session::names},
      {"resolve", "NAME", "look up a host name", &Session::resolve},
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
  text += fmt::format("in the last second {}", grouped(subjects_.progress.last_second()));
  if (subjects_.window != nullptr) text += fmt::format(", on the way now {}", subjects_.window->in_flight());
  text += '\n';
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

void Session::sockets(std::string_view) {
  if (subjects_.server == nullptr) return console_.say(kNotServing);
  std::string text;
  for (const Offer offer : kOffers) {
    if (const int port = subjects_.server->port(offer)) {
      text += fmt::format("serving {} on port {}\n", name_of(offer), port);
    }
  }
  const auto all = subjects_.server->connections();
  text += fmt::format("{} of {} connections\n", grouped(all.size()),
                      grouped(static_cast<std::uint64_t>(subjects_.server->most_connections())));
  if (!all.empty()) {
    text +=
        fmt::format("{:>6}  {:<6} {:<22} {:>10} {:>7} {:>9}\n", "", "", "peer", "answered", "queued", "idle");
  }
  for (const auto& one : all) {
    text += fmt::format("{:>6}  {:<6} {:<22} {:>10} {:>7} {:>7} s{}\n", one.number,
                        is_secure(one.offer) ? "tls" : name_of(one.offer), one.peer, grouped(one.answered),
                        one.queued, one.idle_ms / 1000, one.waiting ? "  does not read its answers" : "");
  }
  console_.say(text);
}

void Session::gateways(std::string_view) {
  if (subjects_.server == nullptr) return console_.say(kNotServing);
  const Gateways* gateways = subjects_.server->gateways();
  console_.say(gateways != nullptr ? gateways->text()
                                   : "no gateways are looked up; that takes --gateways-from\n");
}

void Session::names(std::string_view) {
  if (subjects_.server == nullptr) return console_.say(kNotServing);
  std::string text;
  EnterCriticalSection(&DNSEntry::cs);
  OSListIterator walk(&DNSEntry::entries);
  while (OSListObj* object = walk++) {
    const auto* entry = static_cast<DNSEntry*>(object);
    if (entry->dnsaddr == 0) {
      text += fmt::format("{:<40} being looked up\n", entry->dnsname);
      continue;
    }
    // Delivered a moment after it is found; the time to live runs from then.
    const bool delivered = entry->timer.duration != 0;
    const auto left_ms =
        static_cast<std::int32_t>(entry->timer.start_time + entry->timer.duration - os_clock());
    text += fmt::format("{:<40} {:<15}", entry->dnsname, dotted(entry->dnsaddr));
    text += delivered ? fmt::format(" for another {} s\n", std::max(left_ms, 0) / 1000) : std::string("\n");
  }
  LeaveCriticalSection(&DNSEntry::cs);
  console_.say(text.empty() ? "no name is known\n" : text);
}

void Session::resolve(std::string_view name) {
  if (subjects_.server == nullptr) return console_.say(kNotServing);
  const std::uint32_t address = DNSEntry::Lookup(std::string(name).c_str(), nullptr);
  console_.say(address != 0
                   ? fmt::format("{} is {}\n", name, dotted(address))
                   : fmt::format("{} is being looked up; \"names\" shows it once it is found\n", name));
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
