/// A link pool that has no links and gets none.
#ifndef OSKERNEL_TESTS_LINK_DROUGHT_H
#define OSKERNEL_TESTS_LINK_DROUGHT_H

#include <vector>

#include "failing_new.h"
#include "kernel/link.h"

namespace oskernel_test {

/// What the pool reports then.
inline constexpr char kOutOfLinks[] = "OSLink::Alloc Out Of links";

/// Takes every link but `left` out of the pool and, while the heap is not let go, keeps the pool from growing. The
/// destructor gives all back.
class LinkDrought {
 public:
  explicit LinkDrought(ULONG left = 0) {
    while (OSLink::link_pool_size > left) taken_.push_back(OSLink::Alloc());
    FailingNew::fail_at_least(1);
  }
  ~LinkDrought() {
    FailingNew::reset();
    for (OSLink* link : taken_) link->Free();
  }
  LinkDrought(const LinkDrought&) = delete;
  LinkDrought& operator=(const LinkDrought&) = delete;

 private:
  std::vector<OSLink*> taken_;
};

}  // namespace oskernel_test

#endif
