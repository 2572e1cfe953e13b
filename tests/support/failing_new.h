/// Lets large nothrow allocations fail, as they do on a machine that is short of memory.
#ifndef OSKERNEL_TESTS_FAILING_NEW_H
#define OSKERNEL_TESTS_FAILING_NEW_H

#include <cstddef>

namespace oskernel_test {

class FailingNew {
 public:
  /// From now on operator new(size, std::nothrow) of at least `bytes` bytes returns null.
  static void fail_at_least(std::size_t bytes);
  static void reset();
};

}  // namespace oskernel_test

#endif
