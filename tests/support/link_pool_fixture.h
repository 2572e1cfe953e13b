/// The pool of links under test: small, and whole again after each test.
#ifndef OSKERNEL_TESTS_LINK_POOL_FIXTURE_H
#define OSKERNEL_TESTS_LINK_POOL_FIXTURE_H

#include <vector>

#include "failing_new.h"
#include "kernel/link.h"
#include "kernel_fixture.h"
#include "link_drought.h"
#include "ring_check.h"
#include "section_watch.h"

namespace oskernel_test {

/// A pool of few links, whole again after each test.
class LinkPool : public KernelTest {
 protected:
  void SetUp() override {
    KernelTest::SetUp();
    Console = &console;
    FailingNew::reset();
    cfg.link_qty = kLinks;
  }
  void TearDown() override {
    FailingNew::reset();
    KernelTest::TearDown();
    EXPECT_TRUE(LinkPoolIsSound());
    EXPECT_EQ(console.calls_inside(), 0) << "a report that never returns would keep the section";
  }

  /// Releases the pool that earlier tests left, so that the next start has to build one.
  static void forget_pool() {
    if (OSLink::link_pool != nullptr) OSLink::UnInitialise();
  }

  static int free_links() { return static_cast<int>(OSLink::link_pool_size); }

  /// Takes every free link.
  static std::vector<OSLink*> take_all() {
    std::vector<OSLink*> taken;
    while (OSLink::link_pool_size != 0) taken.push_back(OSLink::Alloc());
    return taken;
  }
  static void give_back(std::vector<OSLink*>& links) {
    for (OSLink* link : links) link->Free();
    links.clear();
  }

  SectionWatch console{&OS_CRITICAL_LINK};

  static constexpr int kLinks = 24;
};

}  // namespace oskernel_test

#endif
