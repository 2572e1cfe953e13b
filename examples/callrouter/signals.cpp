#include "examples/callrouter/signals.h"

#include <unistd.h>

#include <atomic>
#include <cerrno>

#include "examples/callrouter/options.h"
#include "examples/callrouter/terminal.h"

namespace callrouter {
namespace {

std::atomic<Stop*> stop_on_signal{nullptr};
std::atomic<int> signal_received{0};

// Whoever sends a second signal does not want to wait for the end that the first one asked for.
extern "C" void on_signal(int number) {
  Stop* stop = stop_on_signal.load();
  int none = 0;
  if (stop == nullptr || !signal_received.compare_exchange_strong(none, number)) {
    RawTerminal::restore();
    _exit(kExitSignal + number);
  }
  const int saved_errno = errno;
  stop->request(Stop::Reason::kSignal);
  errno = saved_errno;
}

}  // namespace

SignalStop::SignalStop(Stop& stop) {
  stop_on_signal = &stop;
  struct sigaction action {};
  action.sa_handler = on_signal;
  action.sa_flags = SA_RESTART;
  sigfillset(&action.sa_mask);
  sigemptyset(&set_);
  for (const int number : {SIGINT, SIGTERM, SIGHUP, SIGQUIT}) {
    sigaddset(&set_, number);
    // What our parent ignores stays ignored: nohup works, and so does a background job of a plain shell.
    struct sigaction before {};
    sigaction(number, nullptr, &before);
    if (before.sa_handler != SIG_IGN) sigaction(number, &action, nullptr);
  }
  pthread_sigmask(SIG_BLOCK, &set_, nullptr);
}

SignalStop::~SignalStop() { stop_on_signal = nullptr; }

void SignalStop::deliver() { pthread_sigmask(SIG_UNBLOCK, &set_, nullptr); }

int SignalStop::received() { return signal_received.load(); }

}  // namespace callrouter
