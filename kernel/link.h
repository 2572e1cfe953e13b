/// @file
/// Links, lists, queues, protected lists and byte streams.
#ifndef OSKERNEL_LINK_H
#define OSKERNEL_LINK_H

#include "link_indirect.h"
#include "link_list.h"
#include "link_stream.h"

#endif
