/// The pool of links for those who need several at a time.
#ifndef OSKERNEL_LINK_PRIV_H
#define OSKERNEL_LINK_PRIV_H

#include <cstddef>

#include "link_list.h"

/// Takes up to `wanted` links out of the pool, inside its section once. When the pool has fewer, these: it grows, and
/// reports, only for the first, as OSLink::Alloc does.
///   links     room for `wanted`; detached links, the caller's
///   returns   how many; 0 only when OSLink::Alloc gives none
std::size_t take_links(OSLink** links, std::size_t wanted);

/// Gives detached links back, inside the pool's section once. The last is the next one handed out.
void give_links(OSLink* const* links, std::size_t count);

#endif
