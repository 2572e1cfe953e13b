// The whole program behind its command line.
#ifndef CALLROUTER_APP_H
#define CALLROUTER_APP_H

#include "examples/callrouter/options.h"

namespace callrouter {

/// Builds the road of the numbers, runs it to the end and takes it down again.
///   returns   the exit code
///   throws    UsageError before anything has been put out
int run(const Options& options);

}  // namespace callrouter

#endif
