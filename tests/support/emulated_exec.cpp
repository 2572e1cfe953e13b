// The exec of a test that an emulator runs; linked into no other. A death test starts its program anew, and the system
// does not know what to do with a program of another architecture: the emulator has to be put in front.

#include <unistd.h>

#include <cstddef>
#include <string>
#include <vector>

#include "launcher.h"

namespace {

constexpr std::size_t kMostWords = 64;

// Made before main: the child of a fork in a program with threads must not allocate.
const std::vector<std::string> emulator = [] {
  std::vector<std::string> command = oskernel_test::launched("/");
  command.pop_back();
  return command;
}();

}  // namespace

extern "C" int execv(const char* path, char* const argv[]) {
  const char* command[kMostWords];
  std::size_t count = 0;
  for (const std::string& word : emulator) command[count++] = word.c_str();
  command[count++] = path;
  for (char* const* word = argv + 1; *word != nullptr && count + 1 < kMostWords; ++word)
    command[count++] = *word;
  command[count] = nullptr;
  return execvp(command[0], const_cast<char* const*>(command));
}
