// How the sizes are shown.
#ifndef OSKERNEL_SIZE_REPORT_H
#define OSKERNEL_SIZE_REPORT_H

#include <string>

#include "examples/oskernel-size/sizes.h"

namespace oskernel_size {

/// A piece of C++ that declares `KernelCfg cfg`, every number with its reasons, and says in a comment what it takes.
///   command  what it was made with, for the first line
std::string cpp_report(const Sizes& sizes, const std::string& command);

/// The same to look at.
std::string table_report(const Sizes& sizes);

/// The same for programs: one JSON object.
std::string json_report(const Sizes& sizes);

}  // namespace oskernel_size

#endif
