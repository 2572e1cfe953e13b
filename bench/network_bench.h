/// What the parts of the network benchmark share.
///
/// The program measures one echo server at a time: it starts the server as a process of its own, drives it with load
/// from this process, and ends it. Each row is measured with every server in turn, and the whole again for each
/// repetition, so that whatever else the machine does meets all of them alike.
#ifndef OSKERNEL_BENCH_NETWORK_BENCH_H
#define OSKERNEL_BENCH_NETWORK_BENCH_H

#include <cstddef>
#include <cstdint>
#include <string>

namespace oskernel_bench {

enum class Protocol {
  kStream,   // TCP: what comes goes back
  kPackets,  // TCP in packets of RFC 1006: each whole packet goes back as a packet
  kDatagrams,
  kTls,  // TCP under TLS: what comes goes back
};

/// An echo server on 127.0.0.1.
struct Implementation {
  const char* name;
  /// Calls announce() when it can be reached, and serves until its process is ended.
  ///   connections   the most that there will be at a time
  void (*serve)(Protocol protocol, int connections);
  bool tls;  // serves Protocol::kTls, too
};

inline constexpr int kImplementationCount = 5;
extern const Implementation kImplementations[kImplementationCount];  // this library first

void serve_oskernel(Protocol protocol, int connections);
void serve_libuv(Protocol protocol, int connections);
void serve_libevent(Protocol protocol, int connections);
void serve_asio(Protocol protocol, int connections);
void serve_epoll(Protocol protocol, int connections);

// ---- For the servers ---------------------------------------------------------------------------------------

/// Bytes that a server reads at a time at most.
inline constexpr std::size_t kReadBytes = 64 * 1024;

/// Tells the process that drives the load where the server is.
void announce(int port);

/// Ends the server, with errno's text behind `what`, unless `ok`.
void require(bool ok, const char* what);

/// A non-blocking socket on a free port of 127.0.0.1, announced; a stream's is listening.
int open_server_socket(Protocol protocol);

/// Cuts a stream into packets of RFC 1006 (section 6: version 3, 0, big-endian length with these 4 bytes) for the
/// peers, which bring no such framing, and frames them anew.
class PacketEcho {
 public:
  /// Takes what has been received and appends what is to be sent to `out`.
  ///   returns   false for bytes that are no packet
  bool take(const std::uint8_t* bytes, std::size_t count, std::string* out);

 private:
  static constexpr std::size_t kHeaderBytes = 4;
  static bool put(const std::uint8_t* packet, std::size_t length, std::string* out);

  std::string held_;  // the beginning of a packet
};

// ---- For the load ------------------------------------------------------------------------------------------

/// What a server is to be given.
struct Load {
  enum class Kind {
    kEcho,    // `busy` connections with one message outstanding each, beside `idle` ones
    kChurn,   // `busy` at a time: connect, one echo, close
    kMemory,  // no load: what the server's private memory grows by with each of `idle` connections
  };
  Kind kind;
  Protocol protocol;
  int size;  // of a message, without the header of a packet
  int busy;
  int idle;

  int connections() const { return busy + idle; }
};

struct Figures {
  double value;          // messages or connections per second; bytes for a connection
  double processor_us;   // processor time of the server for one of them, in microseconds; 0 for memory
  double load_share;     // how much of its processor the load took; near 1 it is the limit
  double others_share;   // how much of all processors other programs took meanwhile
  std::uint64_t resent;  // datagrams that were lost on the way
};

/// Starts the server, measures it, and ends it. Throws std::runtime_error when the server does not do what it is to
/// do, an answer that differs from what was sent in one byte included.
Figures measure(const Implementation& implementation, const Load& load, double seconds);

}  // namespace oskernel_bench

#endif
