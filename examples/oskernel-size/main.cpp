// oskernel-size: prints a KernelCfg for a load. See README.md.
#include <exception>
#include <iostream>
#include <string>

#include "examples/oskernel-size/options.h"
#include "examples/oskernel-size/report.h"

namespace {

using namespace oskernel_size;

std::string command_line(int argc, char** argv) {
  std::string text = "oskernel-size";
  for (int i = 1; i < argc; ++i) text += std::string(" ") + argv[i];
  return text;
}

std::string report(const Sizes& sizes, Format format, const std::string& command) {
  switch (format) {
    case Format::kTable:
      return table_report(sizes);
    case Format::kJson:
      return json_report(sizes);
    case Format::kCpp:
      break;
  }
  return cpp_report(sizes, command);
}

int print(const std::string& text) {
  std::cout << text << std::flush;
  if (std::cout) return kExitPrinted;
  std::cerr << "oskernel-size: the output cannot be written" << std::endl;
  return kExitUnwritten;
}

}  // namespace

int main(int argc, char** argv) {
  try {
    int exit_code = kExitPrinted;
    const auto options = read_options(argc, argv, exit_code);
    if (!options) return exit_code;
    return print(report(calculate(options->load), options->format, command_line(argc, argv)));
  } catch (const std::exception& error) {
    std::cerr << "oskernel-size: " << error.what() << "\nTry oskernel-size --help\n";
  }
  return kExitUsage;
}
