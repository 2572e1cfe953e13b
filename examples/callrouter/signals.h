// Signals that end the program, as a request to stop.
#ifndef CALLROUTER_SIGNALS_H
#define CALLROUTER_SIGNALS_H

#include <signal.h>

#include "examples/callrouter/stop.h"

namespace callrouter {

/// While it lives, the signals that end a program request a stop. They are delivered to the thread that makes
/// it: every thread that starts meanwhile inherits them blocked, so that no wait of the kernel is interrupted.
/// The first signal asks for an orderly end; a second one ends the process at once. One at a time.
class SignalStop {
 public:
  explicit SignalStop(Stop& stop);
  ~SignalStop();
  SignalStop(const SignalStop&) = delete;
  SignalStop& operator=(const SignalStop&) = delete;

  /// From now on, with every thread of the program started.
  void deliver();
  /// The signal that came first, 0 for none.
  static int received();

 private:
  sigset_t set_;
};

}  // namespace callrouter

#endif
