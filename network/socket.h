/// @file
/// The blocking sockets: this header brings the whole family.
#ifndef OSKERNEL_SOCKET_H
#define OSKERNEL_SOCKET_H

#include "socketX.h"
#include "socketX_secure.h"

#endif
