// The program while it serves the network.
#ifndef CALLROUTER_SERVE_H
#define CALLROUTER_SERVE_H

#include "examples/callrouter/options.h"

namespace callrouter {

/// Serves until the operator or a signal ends it.
///   returns   the exit code
///   throws    UsageError when the plan is bad, or the address or a port cannot be served
int serve(const Options& options);

}  // namespace callrouter

#endif
