#include "examples/oskernel-size/sizes.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <limits>
#include <utility>

namespace oskernel_size {
namespace {

constexpr Number kMostOfAnything = 1'000'000;
constexpr Number kMostReserve = 1000;
constexpr Number kMostStack = 1LL << 30;
constexpr Number kMostHeadroom = 16384;
constexpr Number kLargestInt = std::numeric_limits<std::int32_t>::max();

// A socket is not read while so many received buffers wait.
constexpr Number kMostWaiting = 10;
// What a TLS session keeps of what its connection does not take.
constexpr Number kMostUnwritten = 11;

// What OSBuf::Alloc looks at of a size.
constexpr Number kMostRequested = 0x7FFF;
// A read keeps so much room in front of its bytes, whatever buf_min_space is.
constexpr Number kReadHeadroom = 50;
// From here on a packet, or a read that may be large, comes in an array of its own.
constexpr Number kArrayFrom = 1680;
constexpr Number kPacketHeader = 4;
// A class of this size serves every read, which is of 1600 bytes, and every packet of less than 1680.
constexpr Number kReadClass = 1740;

// An indirect list of all sockets, and two queue triggers.
constexpr Number kLinksOfASocket = 3;
// A datagram of 1600 bytes has room for 317 questions without a name, and links for them are taken 32 at a time.
constexpr Number kLinksOfAnAnswer = 320;

constexpr Number kStandardDescriptors = 3;
constexpr Number kMonitorDescriptors = 3;  // both ends of its pipe, and epoll
constexpr Number kUsualDescriptorLimit = 1024;

constexpr Number kPoolHeader = 12;
constexpr Number kBlockHeader = 8;

Number round_up(Number bytes, Number to) { return (bytes + to - 1) / to * to; }

// Storage and guard bytes of such a class fill their place on every platform.
Number class_size(Number needed) { return round_up(needed + kGuardBytes, 16) - kGuardBytes; }

std::string times(Number number, const char* what) {
  return fmt::format("{} {}{}", grouped(number), what, number == 1 ? "" : "s");
}

void must_be(const char* option, Number value, Number least, Number most) {
  if (value >= least && value <= most) return;
  throw BadLoad(option,
                fmt::format("{} is not between {} and {}", grouped(value), grouped(least), grouped(most)));
}

void check_counts(const Load& load) {
  const std::pair<const char*, Number> counts[] = {
      {"--connections", load.connections},
      {"--datagram-sockets", load.datagram_sockets},
      {"--lookups", load.lookups},
      {"--names", load.names},
      {"--blocking-sockets", load.blocking_sockets},
      {"--listeners", load.listeners},
      {"--held", load.held},
      {"--queued", load.queued},
      {"--own-buffers", load.own_buffers},
      {"--own-arrays", load.own_arrays},
      {"--own-callbacks", load.own_callbacks},
      {"--own-links", load.own_links},
      {"--queue-triggers", load.queue_triggers},
      {"--tasks", load.tasks},
  };
  for (const auto& [option, value] : counts) must_be(option, value, 0, kMostOfAnything);
  must_be("--waiting", load.waiting, 1, kMostWaiting);
  must_be("--dispatchers", load.dispatchers, 1, kMostOfAnything);
  must_be("--headroom", load.headroom, 0, kMostHeadroom);
  must_be("--trigger-stack", load.trigger_stack, 0, kMostStack);
  must_be("--reserve", load.reserve_percent, 0, kMostReserve);
}

Number room_in_front(const Load& load) { return std::max(kReadHeadroom, load.headroom); }

void check_sizes(const Load& load) {
  const Number most = kMostRequested - room_in_front(load) - (load.tpkt ? kPacketHeader : 0);
  const auto check = [most](const char* option, Number size) {
    if (size > most) {
      throw BadLoad(option,
                    fmt::format("{} bytes do not fit a buffer of the pools, which holds {} at the most; "
                                "give such messages storage of their own (SetPayload, --own-arrays)",
                                grouped(size), grouped(most)));
    }
  };
  must_be("--message-size", load.message_size, 1, kMostOfAnything);
  check("--message-size", load.message_size);
  if (load.largest_message < load.message_size) {
    throw BadLoad("--largest-message",
                  fmt::format("{} is less than --message-size {}", grouped(load.largest_message),
                              grouped(load.message_size)));
  }
  check("--largest-message", load.largest_message);
}

void check_kinds(const Load& load) {
  const auto only_with_connections = [&load](const char* option, bool set) {
    if (set && load.connections == 0) throw BadLoad(option, "needs --connections");
  };
  only_with_connections("--direct", load.direct);
  only_with_connections("--tls", load.tls);
  only_with_connections("--tpkt", load.tpkt);
  only_with_connections("--big-buffers", load.big_buffers);
  if (load.direct && load.tpkt) throw BadLoad("--tpkt", "excludes --direct: packet sockets are indirect");
  if (load.connections + load.datagram_sockets + load.lookups + load.blocking_sockets + load.own_buffers ==
      0) {
    throw BadLoad("--connections",
                  "nothing to size; give --connections, --datagram-sockets, --lookups, --blocking-sockets or "
                  "--own-buffers");
  }
}

Number asynchronous_sockets(const Load& load) {
  return load.connections + load.datagram_sockets + load.lookups;
}

/// Whether what is received may come in arrays of its own.
bool makes_arrays(const Load& load) { return load.tpkt || load.big_buffers; }

void put_large_messages_right(Load& load) {
  const bool possible = load.largest_message > load.message_size || makes_arrays(load);
  if (load.large_messages == kFitting) {
    load.large_messages = possible ? asynchronous_sockets(load) : 0;
    return;
  }
  must_be("--large-messages", load.large_messages, 1, kMostOfAnything);
  if (!possible) {
    throw BadLoad("--large-messages",
                  "needs a --largest-message above --message-size, or --tpkt, or --big-buffers");
  }
}

Load put_right(Load load) {
  const auto fit = [](Number& number, Number fitting) {
    if (number == kFitting) number = fitting;
  };
  fit(load.largest_message, load.message_size);
  fit(load.listeners, load.connections > 0 ? 1 : 0);
  fit(load.waiting, load.peers == Peers::kAny ? kMostWaiting : 1);
  fit(load.queued, load.tls ? kMostUnwritten : 1);
  check_counts(load);
  check_sizes(load);
  check_kinds(load);
  put_large_messages_right(load);
  return load;
}

/// So many buffers that hold so much.
struct Demand {
  Number needed;
  Number count;
  std::string what;
};

/// Collects what a load needs, and distributes it.
class Calculation {
 public:
  explicit Calculation(const Load& load) : load_(load) {
    indirect_ = (load.direct ? 0 : load.connections) + load.datagram_sockets + load.lookups;
    message_ = load.message_size + room_in_front(load) + (load.tpkt ? kPacketHeader : 0) + 1;
    larger_ = load.largest_message + room_in_front(load) + (load.tpkt ? kPacketHeader : 0) + 1;
  }

  Sizes result() {
    collect_received();
    collect_sent();
    collect_arrays();
    Sizes sizes;
    sizes.load = load_;
    distribute(sizes);
    count_links(sizes);
    measure(sizes);
    note(sizes);
    return sizes;
  }

 private:
  bool any_peer() const { return load_.peers == Peers::kAny; }

  void need(Number needed, Number count, std::string what) {
    if (count > 0) demands_.push_back({needed, count, std::move(what)});
  }

  /// Storage of one received buffer: of a read, of a packet, or of what a session has deciphered.
  Number received_size(bool connection) const {
    const bool largest_read = any_peer() || (connection && load_.tls) || message_ > kReadClass;
    return largest_read ? kReadClass : message_;
  }

  void collect_received() {
    const Number datagram_like = load_.datagram_sockets + load_.lookups;
    if (!load_.direct) {
      need(received_size(true), load_.connections * load_.waiting,
           fmt::format("received and waiting ({} x {})", times(load_.connections, "connection"),
                       load_.waiting));
    } else if (load_.tls || load_.big_buffers) {
      need(kReadClass, load_.connections,
           fmt::format("being read ({})", times(load_.connections, "direct connection")));
    }
    if (load_.tpkt) {
      need(kReadClass, load_.connections,
           fmt::format("segments being cut into packets ({})", times(load_.connections, "connection")));
      need(kPacketHeader + 1, 1, "header of the packet that is being begun");
    }
    need(received_size(false), datagram_like * load_.waiting,
         fmt::format("received and waiting ({} x {})", times(datagram_like, "datagram socket"),
                     load_.waiting));
    if (!any_peer()) {
      const Number more = std::max(asynchronous_sockets(load_) / 10, kMostWaiting);
      need(kReadClass, more, "reads of more than one message after all");
    }
    if (indirect_ > 0) {
      need(received_size(true), load_.dispatchers,
           fmt::format("being delivered ({})", times(load_.dispatchers, "dispatcher")));
    }
    const Number holders =
        load_.direct && !load_.tls && !load_.big_buffers ? datagram_like : load_.connections + datagram_like;
    need(received_size(true), holders * load_.held,
         fmt::format("kept by the program ({} x {})", times(holders, "socket"), grouped(load_.held)));
    need(kReadClass, load_.blocking_sockets,
         fmt::format("being read ({})", times(load_.blocking_sockets, "blocking socket")));
  }

  void collect_sent() {
    const Number all = asynchronous_sockets(load_);
    const Number senders = load_.connections + load_.datagram_sockets;
    constexpr Number kControl = 7;  // more than the 6 bytes that are asked for
    need(kControl, all, fmt::format("for ends and failed sends ({})", times(all, "socket")));
    if (load_.tls) {
      need(kControl, load_.connections,
           fmt::format("for ends of handshakes ({})", times(load_.connections, "connection")));
    }
    need(message_, senders * load_.queued,
         fmt::format("on their way out ({} x {})", times(senders, "socket"), grouped(load_.queued)));
    need(message_, load_.own_buffers, "of the program's own");
    constexpr Number kQuestion = 1025;
    need(kQuestion, load_.lookups, fmt::format("for questions ({})", times(load_.lookups, "lookup")));
    if (load_.largest_message > load_.message_size) {
      need(larger_, load_.large_messages, "larger messages on their way out");
      if (!any_peer() && received_size(true) < kReadClass) {
        need(std::min(larger_, kReadClass), load_.large_messages, "larger messages received");
      }
    }
  }

  /// Buffers of class 0 whose storage is an array that a callback deletes.
  void collect_arrays() {
    const Number packet = load_.message_size + (load_.tpkt ? kPacketHeader : 0);
    if (makes_arrays(load_)) {
      if (packet >= kArrayFrom) {
        arrays_.add(
            load_.connections * (load_.waiting + load_.held + 1),
            fmt::format("arrays of {} bytes and more ({} x {})", grouped(kArrayFrom),
                        times(load_.connections, "connection"), grouped(load_.waiting + load_.held + 1)));
      } else {
        arrays_.add(load_.large_messages, fmt::format("arrays of {} bytes and more", grouped(kArrayFrom)));
      }
    }
    if (load_.blocking_sockets > 0) {
      arrays_.add(load_.blocking_sockets, fmt::format("reads that no class holds ({})",
                                                      times(load_.blocking_sockets, "blocking socket")));
    }
  }

  /// The sizes of the classes that carry storage, ascending: messages, reads, larger messages.
  std::vector<Number> choose_classes() const {
    const Number message = class_size(message_);
    // Reads that would waste half of a message's storage, or do not fit it, have a class of their own.
    const bool apart = message < kReadClass || message > kReadClass * 3 / 2;
    const bool reads = std::any_of(demands_.begin(), demands_.end(), [message](const Demand& demand) {
      return demand.needed <= kReadClass && (demand.needed > message || message > kReadClass);
    });
    std::vector<Number> sizes{message};
    if (reads && apart) sizes.push_back(kReadClass);
    std::sort(sizes.begin(), sizes.end());
    if (larger_ > sizes.back() && load_.large_messages > 0) sizes.push_back(class_size(larger_));
    return sizes;
  }

  void distribute(Sizes& sizes) {
    const std::vector<Number> classes = choose_classes();
    for (std::size_t i = 0; i + 1 < kClasses; ++i) {
      BufferClass& place = sizes.buffers[i + 1];
      place.size = i < classes.size() ? classes[i] : classes.back();
      place.size_why = why_size(place.size, i < classes.size());
    }
    for (const Demand& demand : demands_) {
      for (int i = 1; i < kClasses; ++i) {
        if (sizes.buffers[i].size < demand.needed) continue;
        sizes.buffers[i].quantity.add(demand.count, demand.what);
        break;
      }
    }
    for (int i = 1; i < kClasses; ++i) reserve(sizes.buffers[i].quantity);

    sizes.callbacks = arrays_;
    sizes.callbacks.add(load_.own_callbacks, "of the program's own");
    reserve(sizes.callbacks);
    Quantity& without_storage = sizes.buffers[0].quantity;
    sizes.buffers[0].size_why = "no storage of their own";
    if (arrays_.count > 0) {
      // More than callbacks: a thread that finds no callback for its array gives it up, and one that finds no buffer
      // ends the program.
      const Number readers =
          load_.blocking_sockets + (load_.direct ? load_.connections : 0) + (indirect_ > 0 ? 1 : 0);
      without_storage.add(sizes.callbacks.count, "with callbacks");
      without_storage.add(
          readers, fmt::format("given up when callbacks run out ({})", times(readers, "reading thread")));
    }
    without_storage.add(load_.own_arrays, "with storage that the program brings");
  }

  std::string why_size(Number size, bool used) const {
    if (!used) return "as the class before";
    const Number front = room_in_front(load_);
    const char* header = load_.tpkt ? ", 4 of header" : "";
    if (size == class_size(message_)) {
      return fmt::format("{} of message, {} in front{}, 1 because a class must be larger than the request",
                         grouped(load_.message_size), front, header);
    }
    if (size == kReadClass)
      return "serves every read: 1,600 bytes, or packets of up to 1,679, and 50 in front";
    return fmt::format(
        "{} of the largest message, {} in front{}, 1 because a class must be larger than the request",
        grouped(load_.largest_message), front, header);
  }

  void reserve(Quantity& quantity) const {
    if (load_.reserve_percent == 0) return;
    const Number more = (quantity.count * load_.reserve_percent + 99) / 100;
    quantity.add(more, fmt::format("in reserve ({} %)", load_.reserve_percent));
  }

  void count_links(Sizes& sizes) const {
    Number buffers = 0;
    for (const BufferClass& one : sizes.buffers) buffers += one.quantity.count;
    const Number sockets = asynchronous_sockets(load_) + load_.listeners;
    const Number senders = load_.connections + load_.datagram_sockets;
    Quantity& links = sizes.links;
    links.add(buffers, "for buffers that are out");
    links.add(sockets * kLinksOfASocket,
              fmt::format("for sockets ({} x {})", grouped(sockets), kLinksOfASocket));
    links.add(senders * load_.queued + load_.lookups, "for buffers that wait to be sent");
    links.add(load_.direct ? load_.connections : 0, "for rings that wait for their buffers");
    links.add(load_.blocking_sockets, "for blocking sockets");
    links.add(load_.names * 2, fmt::format("for names ({} x 2)", grouped(load_.names)));
    if (load_.names > 0) links.add(asynchronous_sockets(load_), "for sockets that wait for a name");
    links.add(load_.lookups * kLinksOfAnAnswer,
              fmt::format("for records of answers ({} x {})", grouped(load_.lookups), kLinksOfAnAnswer));
    links.add(load_.queue_triggers, "for queue triggers");
    links.add(load_.tasks * 2, fmt::format("for tasks and their names ({} x 2)", grouped(load_.tasks)));
    links.add(load_.trigger_stack != 0 ? 1 : 0, "for the trigger task");
    links.add(load_.own_callbacks, "for callbacks in a record");
    links.add(load_.own_links, "for the program's own lists");
    reserve(links);
  }

  Memory memory_on(const Layout& layout, const Sizes& sizes) const {
    Memory memory{};
    for (const BufferClass& one : sizes.buffers) {
      memory.buffers += buffer_bytes(layout, one.size, one.quantity.count);
    }
    memory.links = layout.link_block + sizes.links.count * layout.link;
    memory.callbacks = sizes.callbacks.count * layout.callback;
    if (load_.direct) {
      memory.rings =
          load_.connections * kRingBuffers * (layout.socket_buffer + kRingBufferBytes + kGuardBytes);
    }
    return memory;
  }

  void measure(Sizes& sizes) const {
    for (int i = 0; i < kClasses; ++i)
      check_quantity(fmt::format("buf_qty[{}]", i), sizes.buffers[i].quantity);
    check_quantity("link_qty", sizes.links);
    check_quantity("callback_qty", sizes.callbacks);
    sizes.on32 = memory_on(kLayout32, sizes);
    sizes.on64 = memory_on(kLayout64, sizes);
    // The pool's own words, a head area that is never handed out whole, and each block with its header.
    sizes.memsize = kPoolHeader + kPoolHeader + 4;
    for (const BufferClass& one : sizes.buffers) {
      if (one.size != 0) sizes.memsize += one.quantity.count * round_up(one.size + kBlockHeader, 4);
    }
    const Number sockets = asynchronous_sockets(load_) + load_.listeners;
    sizes.descriptors =
        kStandardDescriptors + (sockets > 0 ? kMonitorDescriptors : 0) + sockets + load_.blocking_sockets;
  }

  static void check_quantity(const std::string& field, const Quantity& quantity) {
    if (quantity.count <= kLargestInt) return;
    const Part& most = *std::max_element(quantity.parts.begin(), quantity.parts.end(),
                                         [](const Part& a, const Part& b) { return a.count < b.count; });
    throw BadLoad(field,
                  fmt::format("would have to be {}, {} of them {}, and an int holds {} at the most",
                              grouped(quantity.count), grouped(most.count), most.what, grouped(kLargestInt)));
  }

  void note(Sizes& sizes) const {
    constexpr Number kAddressable = 3LL << 30;
    if (load_.peers == Peers::kOneAtATime) {
      sizes.notes.push_back(
          "counts on peers that wait for their answers: one that does not can exhaust the buffers, which is "
          "fatal");
    }
    if (load_.waiting < kMostWaiting && indirect_ > 0) {
      sizes.notes.push_back(
          fmt::format("counts on {} waiting for each socket on average; a socket stops being read at {}",
                      times(load_.waiting, "received buffer"), kMostWaiting));
    }
    if (sizes.on32.total() > kAddressable) {
      sizes.notes.push_back("is more than a 32-bit process can be expected to get");
    }
    if (sizes.descriptors > kUsualDescriptorLimit) {
      sizes.notes.push_back(fmt::format("needs {} descriptors and more; the usual limit is {}",
                                        grouped(sizes.descriptors), grouped(kUsualDescriptorLimit)));
    }
    if (load_.direct) {
      sizes.notes.push_back(fmt::format("starts {} of 1 MiB of stack each beside the kernel's",
                                        times(load_.connections, "thread")));
    }
  }

  const Load load_;
  Number indirect_ = 0;  ///< sockets that the monitor thread reads
  Number message_ = 0;   ///< storage that a message of the usual size needs
  Number larger_ = 0;    ///< the same of the largest message
  std::vector<Demand> demands_;
  Quantity arrays_;
};

}  // namespace

void Quantity::add(Number part, std::string what) {
  if (part == 0) return;
  count += part;
  parts.push_back({part, std::move(what)});
}

Sizes calculate(const Load& load) { return Calculation(put_right(load)).result(); }

Number buffer_bytes(const Layout& layout, Number size, Number quantity) {
  Number one = round_up(layout.buffer, layout.alignment);
  if (size != 0) one += round_up(size + kGuardBytes, layout.alignment);
  return one * quantity;
}

std::string grouped(Number number) {
  std::string text = std::to_string(number);
  const std::size_t first_digit = number < 0 ? 1 : 0;
  for (std::size_t at = text.size(); at > first_digit + 3;) text.insert(at -= 3, ",");
  return text;
}

}  // namespace oskernel_size
