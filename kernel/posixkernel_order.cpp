/// Checks the order in which a thread enters the kernel's own sections; docs/threads.md draws it.
#if defined(OSKERNEL_CHECK_LOCK_ORDER)

#include <array>
#include <cstdio>
#include <cstdlib>

#include "kernel/buffer.h"
#include "kernel/buffer_callback.h"
#include "kernel/link_list.h"
#include "kernel/posixkernel_priv.h"
#include "kernel/posixkernel_time.h"
#include "kernel/task.h"
#include "kernel/trigger.h"

namespace {

struct Ranked {
  const CRITICAL_SECTION* section;
  const char* name;
};

/// Sections of the library's outer layers, outermost first, stand in front; see rank_outer_section.
constexpr std::size_t kOuter = 3;

/// A thread that holds one of these may enter only those behind it. It is one line through the tree of
/// docs/threads.md: branches that never meet stand in some order. The first are filled in while the library is
/// loaded, before there are threads.
constinit std::array<Ranked, kOuter + 6> order{{
    {nullptr, nullptr},
    {nullptr, nullptr},
    {nullptr, nullptr},
    {&OS_CRITICAL_TRIGGER, "OS_CRITICAL_TRIGGER"},
    {&OS_CRITICAL_TASK, "OS_CRITICAL_TASK"},
    {&OS_CRITICAL_TIME, "OS_CRITICAL_TIME"},
    {&OS_CRITICAL_CALLBACKS, "OS_CRITICAL_CALLBACKS"},
    {&OS_CRITICAL_BUFFERS, "OS_CRITICAL_BUFFERS"},
    {&OS_CRITICAL_LINK, "OS_CRITICAL_LINK"},
}};

/// Bit i: the calling thread holds order[i].
thread_local unsigned held __attribute__((tls_model("initial-exec"))) = 0;

/// The section's place in the order, or its length for a section that is not the kernel's.
std::size_t place_of(const CRITICAL_SECTION* section) {
  std::size_t place = 0;
  while (place < order.size() && order[place].section != section) ++place;
  return place;
}

}  // namespace

void rank_outer_section(std::size_t place, const CRITICAL_SECTION* section, const char* name) {
  order[place] = {section, name};
}

void check_section_order(const CRITICAL_SECTION* section) {
  const std::size_t place = place_of(section);
  if (place == order.size()) return;
  for (std::size_t later = place + 1; later < order.size(); ++later) {
    if ((held & (1U << later)) == 0) continue;
    // Not through Console, which may enter sections itself.
    std::fprintf(stderr, "oskernel: %s is entered by a thread that holds %s: wrong order\n",
                 order[place].name, order[later].name);
    std::abort();
  }
}

void note_section_entered(const CRITICAL_SECTION* section) {
  const std::size_t place = place_of(section);
  if (place < order.size()) held |= 1U << place;
}

void note_section_left(const CRITICAL_SECTION* section) {
  const std::size_t place = place_of(section);
  if (place < order.size()) held &= ~(1U << place);
}

#endif
