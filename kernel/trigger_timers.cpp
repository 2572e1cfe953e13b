/// The index over OS_TIMER_LIST.
///
/// The list's order is part of the interface: a new timer goes in front of the first one that has not expired
/// and has more time left than the new timer's whole duration. A timer that is armed late into its period is
/// therefore listed as if the period began now, and the list as a whole is not sorted by expiry. A search tree
/// over expiry cannot give that place; a tree over the list's positions, in which every node knows the latest
/// expiry on either side below it, finds "the first with more time left" in logarithmic time. It is a treap:
/// random priorities keep it balanced whatever order timers come in.
#include <algorithm>
#include <utility>

#include "kernel/posixkernel_time.h"
#include "kernel/trigger_priv.h"

OSTimerTrigger* OSTimerIndex::root_ = nullptr;

namespace {

/// The tick without its wrap. Starts high, so that a timer which expired before the first call still has a
/// due that is not negative. Under OS_CRITICAL_TRIGGER, where the tick never goes back.
std::uint64_t unwrapped(ULONG tick) {
  static std::uint64_t unwrapped_at = std::uint64_t{1} << 33;
  static ULONG last_tick = tick;
  unwrapped_at += ULONG{tick - last_tick};
  last_tick = tick;
  return unwrapped_at;
}

/// xorshift32: cheap, and good enough to keep a treap balanced. Under OS_CRITICAL_TRIGGER.
std::uint32_t random_priority() {
  static std::uint32_t value = 2463534242U;
  value ^= value << 13;
  value ^= value >> 17;
  value ^= value << 5;
  return value;
}

}  // namespace

/// The latest due of a subtree, 0 of none.
std::uint64_t OSTimerIndex::latest(const OSTimerTrigger* timer) {
  if (timer == nullptr) return 0;
  return std::max({timer->node_.due, timer->node_.left_max, timer->node_.right_max});
}

OSTimerTrigger* OSTimerIndex::first_due_after(std::uint64_t tick) {
  OSTimerTrigger* at = root_;
  if (latest(at) <= tick) return nullptr;
  for (;;) {
    const Node& node = at->node_;
    if (node.left_max > tick) {
      at = node.left;
    } else if (node.due > tick) {
      return at;
    } else {
      at = node.right;  // it has one: the latest of this subtree lies nowhere else
    }
  }
}

void OSTimerIndex::set_left(OSTimerTrigger* parent, OSTimerTrigger* child) {
  parent->node_.left = child;
  parent->node_.left_max = latest(child);
  if (child != nullptr) child->node_.parent = parent;
}

void OSTimerIndex::set_right(OSTimerTrigger* parent, OSTimerTrigger* child) {
  parent->node_.right = child;
  parent->node_.right_max = latest(child);
  if (child != nullptr) child->node_.parent = parent;
}

void OSTimerIndex::replace_child(OSTimerTrigger* parent, const OSTimerTrigger* child, OSTimerTrigger* by) {
  if (parent == nullptr) {
    root_ = by;
    if (by != nullptr) by->node_.parent = nullptr;
  } else if (parent->node_.left == child) {
    set_left(parent, by);
  } else {
    set_right(parent, by);
  }
}

/// The timer's subtree has changed: tells its ancestors, up to the first one to whom it makes no difference.
void OSTimerIndex::refresh_upwards(OSTimerTrigger* timer) {
  for (; timer != nullptr && timer->node_.parent != nullptr; timer = timer->node_.parent) {
    Node& above = timer->node_.parent->node_;
    std::uint64_t& side_max = above.left == timer ? above.left_max : above.right_max;
    const std::uint64_t now_max = latest(timer);
    if (side_max == now_max) return;
    side_max = now_max;
  }
}

/// Exchanges a node with its parent; the order of positions stays.
void OSTimerIndex::rotate_up(OSTimerTrigger* timer) {
  OSTimerTrigger* const parent = timer->node_.parent;
  OSTimerTrigger* const above = parent->node_.parent;
  if (parent->node_.left == timer) {
    set_left(parent, timer->node_.right);
    set_right(timer, parent);
  } else {
    set_right(parent, timer->node_.left);
    set_left(timer, parent);
  }
  replace_child(above, parent, timer);
}

void OSTimerIndex::link_before(OSTimerTrigger* timer, OSTimerTrigger* position) {
  if (root_ == nullptr) {
    root_ = timer;
  } else if (position != nullptr && position->node_.left == nullptr) {
    set_left(position, timer);
  } else {
    // Behind the timer that is listed before the new one, which has nothing on its right.
    set_right(static_cast<OSTimerTrigger*>(trigger_of(timer->previous)), timer);
  }
  refresh_upwards(timer->node_.parent);
}

bool OSTimerIndex::insert_locked(OSTimerTrigger* timer) {
  const ULONG tick = os_clock();
  const std::uint64_t now = unwrapped(tick);
  const ULONG elapsed = tick - timer->start_time;

  Node& node = timer->node_;
  node = {};
  node.due = now - elapsed + timer->duration;
  node.priority = random_priority();
  node.listed = true;

  OSTimerTrigger* const position = first_due_after(now + timer->duration);
  if (position != nullptr) {
    OS_TIMER_LIST.InsertAt(position, timer, timer);
  } else {
    OS_TIMER_LIST.Append(timer);
  }
  link_before(timer, position);
  while (node.parent != nullptr && node.parent->node_.priority < node.priority) rotate_up(timer);
  return OS_TIMER_LIST.First() == timer;
}

void OSTimerIndex::remove_locked(OSTimerTrigger* timer) {
  Node& node = timer->node_;
  OSTriggerDispatch::unlist_locked(&OS_TIMER_LIST, timer);
  while (node.left != nullptr && node.right != nullptr) {
    rotate_up(node.left->node_.priority > node.right->node_.priority ? node.left : node.right);
  }
  OSTimerTrigger* const parent = node.parent;
  replace_child(parent, timer, node.left != nullptr ? node.left : node.right);
  refresh_upwards(parent);
  node = {};
}
