// Whether the program has given back what it took.
#ifndef CALLROUTER_LEFTOVERS_H
#define CALLROUTER_LEFTOVERS_H

#include <cstddef>
#include <set>
#include <string>
#include <vector>

namespace callrouter {

/// Notes which threads and descriptors the process has when it is made, and says later which have been added.
class Leftovers {
 public:
  Leftovers();

  /// Message buffers that are not in their pools. The kernel runs, and nobody uses a buffer any more.
  void count_buffers();

  /// What is left, one line each; empty when nothing is. A thread that has been joined may need a moment until
  /// the system has forgotten it.
  std::vector<std::string> find() const;

 private:
  std::set<std::string> threads_, descriptors_;
  int buffers_ = 0;
};

}  // namespace callrouter

#endif
