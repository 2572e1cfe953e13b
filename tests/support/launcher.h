/// How a test starts a program of this build: as it is, or through the emulator of a foreign one.
#ifndef OSKERNEL_TESTS_LAUNCHER_H
#define OSKERNEL_TESTS_LAUNCHER_H

#include <sstream>
#include <string>
#include <utility>
#include <vector>

// The words of CMAKE_CROSSCOMPILING_EMULATOR, with blanks between; empty where the system runs the programs itself.
#ifndef OSKERNEL_TEST_LAUNCHER
#define OSKERNEL_TEST_LAUNCHER ""
#endif

/// Ends a test that the emulator cannot run. docs/platforms.md has each of them with the system call and the reason.
#define SKIP_WHERE_EMULATED(why) \
  if (oskernel_test::emulated()) GTEST_SKIP() << "the emulator cannot run this: " << (why)

namespace oskernel_test {

/// Whether an emulator runs this program.
inline bool emulated() { return OSKERNEL_TEST_LAUNCHER[0] != '\0'; }

/// The command line that starts a program. Those of this build are given by their path; those of the machine itself
/// (a name server, openssl) by their name alone, and need no emulator.
inline std::vector<std::string> launched(std::string program) {
  std::vector<std::string> command;
  if (program.find('/') != std::string::npos) {
    std::istringstream words(OSKERNEL_TEST_LAUNCHER);
    for (std::string word; words >> word;) command.push_back(std::move(word));
  }
  command.push_back(std::move(program));
  return command;
}

}  // namespace oskernel_test

#endif
