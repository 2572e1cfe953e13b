// How many buffers, links and callbacks a load needs, and how much memory they take. docs/sizing.md derives the
// formulas. Nothing here depends on the machine that calculates: 32-bit and 64-bit builds give the same numbers.
#ifndef OSKERNEL_SIZE_SIZES_H
#define OSKERNEL_SIZE_SIZES_H

#include <cstdint>
#include <limits>
#include <stdexcept>
#include <string>
#include <vector>

namespace oskernel_size {

using Number = std::int64_t;

inline constexpr int kClasses = 4;

/// How much of what a peer sends may wait in one received buffer.
enum class Peers {
  kAny,        ///< as much as one read takes: peers send what and when they like
  kOneAtATime  ///< one message: a peer sends nothing more before it has its answer
};

/// "What fits the rest": calculate() puts the number right.
inline constexpr Number kFitting = std::numeric_limits<Number>::min();

/// What the program does.
struct Load {
  // What arrives and leaves.
  Number message_size = 0;
  Number largest_message = kFitting;  ///< message_size
  Number large_messages = kFitting;   ///< one for each socket, when there can be larger messages
  Peers peers = Peers::kAny;

  // Sockets.
  Number connections = 0;
  bool direct = false;
  bool tls = false;
  bool tpkt = false;
  bool big_buffers = false;
  Number listeners = kFitting;  ///< one, when there are connections
  Number datagram_sockets = 0;
  Number lookups = 0;
  Number names = 0;
  Number blocking_sockets = 0;

  // Buffers of one socket.
  Number waiting = kFitting;  ///< 10, or 1 of peers that send one message at a time
  Number held = 0;
  Number queued = kFitting;  ///< 1, or 11 of connections with TLS
  Number dispatchers = 1;

  // What the program takes for itself.
  Number own_buffers = 0;
  Number own_arrays = 0;
  Number own_callbacks = 0;
  Number own_links = 0;
  Number queue_triggers = 0;
  Number tasks = 0;

  Number headroom = 50;
  Number trigger_stack = 8000;
  Number reserve_percent = 10;
};

/// A part of a quantity, and what for.
struct Part {
  Number count;
  std::string what;
};

/// A quantity that is the sum of its parts.
struct Quantity {
  Number count = 0;
  std::vector<Part> parts;

  void add(Number part, std::string what);
};

struct BufferClass {
  Number size = 0;
  std::string size_why;
  Quantity quantity;
};

/// Bytes that a kernel with the calculated configuration takes.
struct Memory {
  Number buffers;    ///< the one block of all buffers
  Number links;      ///< the first block of links
  Number callbacks;  ///< the block of callbacks
  Number rings;      ///< of direct sockets, each when its thread starts
  Number total() const { return buffers + links + callbacks + rings; }
};

struct Sizes {
  Load load;  ///< with every number put right
  BufferClass buffers[kClasses];
  Quantity links;
  Quantity callbacks;
  Memory on32, on64;
  Number memsize;      ///< bytes of os_startup's block that hold the buffers' storage when the heap cannot
  Number descriptors;  ///< that the sockets and the networking layer have open
  std::vector<std::string> notes;
};

/// What a load cannot be; what() begins with the option's name.
class BadLoad : public std::invalid_argument {
 public:
  BadLoad(const std::string& option, const std::string& why) : invalid_argument(option + ": " + why) {}
};

/// The configuration for a load.
///   throws  BadLoad
Sizes calculate(const Load& load);

/// The sizes that decide the memory, of 32-bit ARM and of 64-bit systems.
struct Layout {
  Number buffer;         ///< sizeof(OSBuf)
  Number alignment;      ///< of buffers and their storage
  Number link;           ///< sizeof(OSLink2)
  Number link_block;     ///< what a block of links begins with
  Number callback;       ///< sizeof(OSCallback)
  Number socket_buffer;  ///< sizeof(SocketBuffer)
};
inline constexpr Layout kLayout32{144, 8, 20, 4, 64, 160};
inline constexpr Layout kLayout64{256, 16, 40, 8, 120, 280};

inline constexpr Number kGuardBytes = 64;
inline constexpr Number kRingBuffers = 32;
inline constexpr Number kRingBufferBytes = 1760;

/// Bytes of the block that holds the buffers of a class.
Number buffer_bytes(const Layout& layout, Number size, Number quantity);

/// `number` with commas between the thousands.
std::string grouped(Number number);

}  // namespace oskernel_size

#endif
