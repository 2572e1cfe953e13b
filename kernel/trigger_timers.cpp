/// The index over OS_TIMER_LIST.
///
/// The list's order is part of the interface: a new timer goes in front of the first one that has not expired
/// and has more time left than the new timer's whole duration. A timer that is armed late into its period is
/// therefore listed as if the period began now, and the list as a whole is not sorted by expiry. A search tree
/// over expiry cannot give that place; a tree over the list's positions, in which every node knows the latest
/// expiry below it, finds "the first with more time left" in logarithmic time. It is a treap: random priorities
/// keep it balanced whatever order timers come in.
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

OSTimerTrigger* OSTimerIndex::first_due_after(std::uint64_t tick) {
  OSTimerTrigger* at = root_;
  if (at == nullptr || at->node_.max_due <= tick) return nullptr;
  for (;;) {
    OSTimerTrigger* const left = at->node_.left;
    if (left != nullptr && left->node_.max_due > tick) {
      at = left;
    } else if (at->node_.due > tick) {
      return at;
    } else {
      at = at->node_.right;  // it has one: the maximum of this subtree lies nowhere else
    }
  }
}

void OSTimerIndex::refresh(OSTimerTrigger* timer) {
  Node& node = timer->node_;
  node.max_due = node.due;
  if (node.left != nullptr) node.max_due = std::max(node.max_due, node.left->node_.max_due);
  if (node.right != nullptr) node.max_due = std::max(node.max_due, node.right->node_.max_due);
}

void OSTimerIndex::refresh_upwards(OSTimerTrigger* timer) {
  for (; timer != nullptr; timer = timer->node_.parent) {
    const std::uint64_t before = timer->node_.max_due;
    refresh(timer);
    if (timer->node_.max_due == before) return;
  }
}

void OSTimerIndex::replace_child(OSTimerTrigger* parent, OSTimerTrigger* child, OSTimerTrigger* by) {
  if (parent == nullptr) {
    root_ = by;
  } else if (parent->node_.left == child) {
    parent->node_.left = by;
  } else {
    parent->node_.right = by;
  }
  if (by != nullptr) by->node_.parent = parent;
}

/// Exchanges a node with its parent; the order of positions stays.
void OSTimerIndex::rotate_up(OSTimerTrigger* timer) {
  OSTimerTrigger* const parent = timer->node_.parent;
  const bool is_left = parent->node_.left == timer;
  OSTimerTrigger*& inner_of_timer = is_left ? timer->node_.right : timer->node_.left;
  OSTimerTrigger*& side_of_parent = is_left ? parent->node_.left : parent->node_.right;
  replace_child(parent->node_.parent, parent, timer);
  side_of_parent = inner_of_timer;
  if (side_of_parent != nullptr) side_of_parent->node_.parent = parent;
  inner_of_timer = parent;
  parent->node_.parent = timer;
  refresh(parent);
  refresh(timer);
}

void OSTimerIndex::link_before(OSTimerTrigger* timer, OSTimerTrigger* position) {
  OSTimerTrigger* parent = nullptr;
  if (position != nullptr && position->node_.left == nullptr) {
    parent = position;
    parent->node_.left = timer;
  } else {
    // The last position of the left subtree, or of the whole tree.
    parent = position != nullptr ? position->node_.left : root_;
    if (parent == nullptr) {
      root_ = timer;
    } else {
      while (parent->node_.right != nullptr) parent = parent->node_.right;
      parent->node_.right = timer;
    }
  }
  timer->node_.parent = parent;
}

bool OSTimerIndex::insert_locked(OSTimerTrigger* timer) {
  const ULONG tick = os_clock();
  const std::uint64_t now = unwrapped(tick);
  const ULONG elapsed = tick - timer->start_time;

  Node& node = timer->node_;
  node = {};
  node.due = now - elapsed + timer->duration;
  node.max_due = node.due;
  node.priority = random_priority();
  node.listed = true;

  OSTimerTrigger* const position = first_due_after(now + timer->duration);
  if (position != nullptr) {
    OS_TIMER_LIST.InsertAt(position, timer, timer);
  } else {
    OS_TIMER_LIST.Append(timer);
  }
  link_before(timer, position);
  refresh_upwards(node.parent);
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
