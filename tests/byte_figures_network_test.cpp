// The byte figures of the networking layer that programs and peers rely on, the same on every architecture: widths of
// addresses, how much is asked of the pools and of the heap for what is received, and what control buffers hold.

#include <dlfcn.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <new>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "network/asocket.h"
#include "network/assl.h"
#include "support/buffer_drought.h"
#include "support/interposed_calls.h"
#include "support/socket_pairs.h"
#include "support/socket_watch.h"
#include "support/tpkt_packets.h"

using namespace oskernel_test;
using testing::Each;
using testing::ElementsAre;

namespace {

// ---- What the system is asked for --------------------------------------------------------------------------------

/// The lengths of addresses that the calls for a descriptor have been given.
class AddressLengths {
 public:
  void note(const char* call, int fd, socklen_t length) {
    const std::lock_guard<std::mutex> lock(mutex_);
    lengths_[{call, fd}].insert(length);
  }
  std::set<socklen_t> of(const char* call, int fd) {
    const std::lock_guard<std::mutex> lock(mutex_);
    return lengths_[{call, fd}];
  }

 private:
  std::mutex mutex_;
  std::map<std::pair<std::string, int>, std::set<socklen_t>> lengths_;
};

/// What bind is given is noted here while there is one.
std::atomic<AddressLengths*> noting_binds{nullptr};

/// One read of the monitor thread's pipe.
struct PipeRead {
  std::size_t asked;
  ssize_t got;
};

/// The reads of the monitor thread's pipe while one of these exists.
class PipeReads {
 public:
  PipeReads() {
    const std::lock_guard<std::mutex> lock(mutex_);
    current_ = this;
  }
  ~PipeReads() {
    const std::lock_guard<std::mutex> lock(mutex_);
    current_ = nullptr;
  }
  PipeReads(const PipeReads&) = delete;
  PipeReads& operator=(const PipeReads&) = delete;

  std::vector<PipeRead> all() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return reads_;
  }
  std::size_t bytes() const {
    std::size_t total = 0;
    for (const PipeRead& one : all()) total += one.got > 0 ? static_cast<std::size_t>(one.got) : 0;
    return total;
  }
  static void note(const PipeRead& read) {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (current_ != nullptr) current_->reads_.push_back(read);
  }

 private:
  static inline std::mutex mutex_;
  static inline PipeReads* current_ = nullptr;
  std::vector<PipeRead> reads_;
};

/// The sizes of the arrays that any thread takes from the heap while one of these exists.
class ArraySizes {
 public:
  ArraySizes() {
    const std::lock_guard<std::mutex> lock(mutex_);
    current_ = this;
  }
  ~ArraySizes() {
    const std::lock_guard<std::mutex> lock(mutex_);
    current_ = nullptr;
  }
  ArraySizes(const ArraySizes&) = delete;
  ArraySizes& operator=(const ArraySizes&) = delete;

  std::vector<std::size_t> taken() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return taken_;
  }
  std::ptrdiff_t count(std::size_t bytes) const {
    const std::vector<std::size_t> sizes = taken();
    return std::count(sizes.begin(), sizes.end(), bytes);
  }
  static void note(std::size_t bytes) {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (current_ != nullptr) current_->taken_.push_back(bytes);
  }

 private:
  static inline std::mutex mutex_;
  static inline ArraySizes* current_ = nullptr;
  std::vector<std::size_t> taken_;
};

}  // namespace

// Replaces the nothrow form for the process, the shared library under test included.
void* operator new[](std::size_t bytes, const std::nothrow_t&) noexcept {
  try {
    ArraySizes::note(bytes);
    return ::operator new[](bytes);
  } catch (...) {
    return nullptr;
  }
}

// The executable's symbols come before the C library's, for the shared library under test too.
extern "C" {

__attribute__((visibility("default"))) int bind(int fd, const sockaddr* address, socklen_t length) noexcept {
  static const auto real =
      reinterpret_cast<int (*)(int, const sockaddr*, socklen_t)>(dlsym(RTLD_NEXT, "bind"));
  if (AddressLengths* const lengths = noting_binds) lengths->note("bind", fd, length);
  return real(fd, address, length);
}

__attribute__((visibility("default"))) ssize_t read(int fd, void* bytes, size_t count) {
  static const auto real = reinterpret_cast<ssize_t (*)(int, void*, size_t)>(dlsym(RTLD_NEXT, "read"));
  const ssize_t got = real(fd, bytes, count);
  if (fd >= 0 && fd == std::atomic_ref<int>(AsyncSocket::sigfd).load()) {
    const int error = errno;
    PipeReads::note({count, got});
    errno = error;
  }
  return got;
}

}  // extern "C"

namespace {

std::string out_of_buffers(int size) { return "OSBuffer::Alloc Out Of Buffers " + std::to_string(size); }

/// The storage that a buffer of the pools has when so much is asked for.
int pool_room(int size) {
  OSBuf* const buf = OSBuf::Alloc(size);
  const int room = buf->size;
  buf->Free();
  return room;
}

class ByteFigures : public NetworkTest {
 protected:
  void TearDown() override {
    noting_binds = nullptr;
    calls().restore_all();
    NetworkTest::TearDown();
  }
  /// So much waits in the socket, which has not been started.
  static void arrive(PeerStream& peer, AsyncSocket& socket, std::size_t bytes) {
    ASSERT_TRUE(peer.send_all(numbered_bytes(bytes)));
    ASSERT_TRUE(wait_until([&] { return bytes_waiting(socket.s) == static_cast<int>(bytes); }, kPatienceMs));
  }
};

// ---- Addresses ---------------------------------------------------------------------------------------------------

static_assert(sizeof(sockaddr_in) == 16 && offsetof(sockaddr_in, sin_port) == 2 &&
              offsetof(sockaddr_in, sin_addr) == 4 && offsetof(sockaddr_in, sin_zero) == 8 &&
              sizeof(sockaddr_in::sin_port) == 2 && sizeof(sockaddr_in::sin_addr) == 4 &&
              sizeof(sockaddr_in::sin_zero) == 8);
static_assert(sizeof(SockAddr) == 48 && offsetof(SockAddr, sin) == 0 && offsetof(SockAddr, addr_str) == 16 &&
              sizeof(SockAddr::addr_str) == 32);
static_assert(sizeof(SSLInfo::x509_peer_name_string) == 256);
static_assert(sizeof(AsyncSocket::local_ifname) == 7 * sizeof(char*));

TEST(ByteFiguresOfAnAddress, SixteenBytesAreCopiedAndNoOthers) {
  SockAddr from, to;
  std::memset(from.addr_str, 'f', sizeof from.addr_str);
  std::memset(from.sin.sin_zero, 'z', sizeof from.sin.sin_zero);
  std::memset(to.addr_str, 't', sizeof to.addr_str);
  to = from;
  EXPECT_EQ(std::memcmp(&to, &from, 16), 0);
  EXPECT_EQ(std::string(to.addr_str, 32), std::string(32, 't'));

  alignas(sockaddr_in) UBYTE bytes[48];
  for (UBYTE& byte : bytes) byte = static_cast<UBYTE>(&byte - bytes + 1);
  to = reinterpret_cast<sockaddr*>(bytes);
  EXPECT_EQ(std::memcmp(&to, bytes, 16), 0);
  EXPECT_EQ(std::string(to.addr_str, 32), std::string(32, 't'));
}

TEST_F(ByteFigures, TheSystemIsGivenAddressesOfSixteenBytes) {
  AddressLengths lengths;
  noting_binds = &lengths;
  calls().connect.replace([&lengths](auto real, int fd, const sockaddr* to, socklen_t length) {
    lengths.note("connect", fd, length);
    return real(fd, to, length);
  });
  calls().accept.replace([&lengths](auto real, int fd, sockaddr* from, socklen_t* length) {
    if (length != nullptr) lengths.note("accept", fd, *length);
    return real(fd, from, length);
  });
  calls().getsockname.replace([&lengths](auto real, int fd, sockaddr* name, socklen_t* length) {
    lengths.note("getsockname", fd, *length);
    return real(fd, name, length);
  });
  calls().recvfrom.replace(
      [&lengths](auto real, int fd, void* bytes, size_t count, int flags, sockaddr* from, socklen_t* length) {
        if (length != nullptr) lengths.note("recvfrom", fd, *length);
        return real(fd, bytes, count, flags, from, length);
      });
  calls().sendto.replace([&lengths](auto real, int fd, const void* bytes, size_t count, int flags,
                                    const sockaddr* to, socklen_t length) {
    lengths.note("sendto", fd, length);
    return real(fd, bytes, count, flags, to, length);
  });

  RecordingLayer client_layer, server_layer, datagram_layer;
  Acceptor acceptor;
  const OwnedSocket listener = indirect_socket();
  ASSERT_EQ(acceptor.listen_with(*listener), 0);
  const OwnedSocket client = indirect_socket();
  client->Bind(&client_layer);
  ASSERT_EQ(client->Create(SOCK_STREAM, 0, kLoopback, false), 0);
  client->Connect(kLoopback, listener->LocalPort());
  ASSERT_TRUE(client_layer.wait_for_connect());
  const OwnedSocket server = acceptor.take();
  ASSERT_NE(server, nullptr);
  server->Bind(&server_layer);
  server->ConnectAck();
  ASSERT_EQ(client->DataIndication(buffer_of("stream")), Success);
  ASSERT_TRUE(server_layer.wait_for_bytes(6));

  PeerUdp peer;
  const OwnedSocket datagrams = datagram_socket(&datagram_layer);
  ASSERT_TRUE(peer.send_to(datagrams->LocalPort(), "datagram"));
  ASSERT_TRUE(datagram_layer.wait_for(1));
  SockAddr to(kLoopback, peer.port());
  EXPECT_EQ(datagrams->DatagramIndication(buffer_of("to it"), nullptr, &to.sin), Success);
  EXPECT_EQ(peer.receive_text(), "to it");

  calls().restore_all();
  noting_binds = nullptr;
  EXPECT_THAT(lengths.of("bind", client->s), ElementsAre(16U));
  EXPECT_THAT(lengths.of("getsockname", client->s), ElementsAre(16U));
  EXPECT_THAT(lengths.of("connect", client->s), ElementsAre(16U));
  EXPECT_THAT(lengths.of("accept", listener->s), ElementsAre(16U));
  EXPECT_THAT(lengths.of("getsockname", server->s), ElementsAre(16U)) << "of an adopted descriptor";
  EXPECT_THAT(lengths.of("recvfrom", server->s), ElementsAre(16U));
  EXPECT_THAT(lengths.of("recvfrom", datagrams->s), ElementsAre(16U));
  EXPECT_THAT(lengths.of("sendto", datagrams->s), ElementsAre(16U));
}

// ---- Control buffers ---------------------------------------------------------------------------------------------

/// Keeps the six bytes of each control buffer that would go up.
class KeepingSocket : public AsyncSocket {
 public:
  explicit KeepingSocket(bool indirect = true) : AsyncSocket(indirect) {}
  void ProcessData(OSBuf* buf) override {
    if (buf->length == 0) {
      EXPECT_GE(buf->data, buf->payload);
      EXPECT_LE(buf->data + 6, buf->payload + buf->size) << "the bytes stand in the buffer's storage";
      const std::lock_guard<std::mutex> lock(mutex_);
      controls_.emplace_back(reinterpret_cast<const char*>(buf->data), 6);
    }
    buf->Free();
  }
  /// Waits for the n-th, from 1; "(none)" when it does not come. The first `bytes` of it.
  std::string control(std::size_t n, std::size_t bytes) {
    const bool comes = wait_until(
        [&] {
          const std::lock_guard<std::mutex> lock(mutex_);
          return controls_.size() >= n;
        },
        kPatienceMs);
    const std::lock_guard<std::mutex> lock(mutex_);
    return comes ? controls_[n - 1].substr(0, bytes) : "(none)";
  }

 private:
  std::mutex mutex_;
  std::vector<std::string> controls_;
};
using OwnedKeeper = Owned<KeepingSocket>;

TEST_F(ByteFigures, AConnectionIsAZeroAndItsNormalEndAOneAndAFive) {
  for (const bool indirect : {true, false}) {
    SCOPED_TRACE(indirect);
    PeerListener listener;
    const OwnedKeeper socket(new KeepingSocket(indirect));
    ASSERT_EQ(socket->Create(SOCK_STREAM, 0, kLoopback, false), 0);
    socket->Connect(kLoopback, listener.port());
    PeerStream peer = listener.accept();
    ASSERT_TRUE(peer.is_open());
    EXPECT_EQ(socket->control(1, 1), std::string("\0", 1));
    peer.close();
    EXPECT_EQ(socket->control(2, 2), "\x01\x05");
  }
}

TEST_F(ByteFigures, AFailureIsAOneAFourAndItsCodeInFourBytesTheHighestFirst) {
  for (const bool indirect : {true, false}) {
    SCOPED_TRACE(indirect);
    RecordingLayer layer;
    PeerStream peer;
    const OwnedKeeper socket(new KeepingSocket(indirect));
    adopt_stream(socket.get(), &layer, &peer);
    const FailingReads failing(socket->s, 0x01020304);
    socket->ConnectAck();
    ASSERT_TRUE(peer.send_all("x"));
    EXPECT_EQ(socket->control(1, 6), "\x01\x04\x01\x02\x03\x04");
  }
  RefusingPort port;
  const OwnedKeeper refused(new KeepingSocket);
  ASSERT_EQ(refused->Create(SOCK_STREAM, 0, kLoopback, false), 0);
  refused->Connect(kLoopback, port.port());
  EXPECT_EQ(refused->control(1, 6), std::string("\x01\x04\0\0\0\x6F", 6)) << "ECONNREFUSED is 111 everywhere";
}

TEST_F(ByteFigures, ADirectSocketThatCannotConnectSaysAOneAndAThree) {
  RefusingPort port;
  const OwnedKeeper socket(new KeepingSocket(false));
  ASSERT_EQ(socket->Create(SOCK_STREAM, 0, kLoopback, false), 0);
  socket->Connect(kLoopback, port.port());
  EXPECT_EQ(socket->control(1, 2), "\x01\x03");
}

TEST_F(ByteFigures, AControlBufferTakesSixBytesOfThePools) {
  const OwnedKeeper socket(new KeepingSocket);
  ASSERT_EQ(socket->Create(SOCK_STREAM, 0, kLoopback, false), 0);
  {
    const BufferDrought drought(cfg);
    socket->DNSResult("nobody", 0);
  }
  EXPECT_THAT(console.fatals(), ElementsAre(out_of_buffers(6)));
  console.clear();
}

// ---- What is received ---------------------------------------------------------------------------------------------

TEST_F(ByteFigures, AllocBufferAsksForFiftyBytesMore) {
  const OwnedSocket socket = indirect_socket();
  {
    const BufferDrought drought(cfg);
    for (const int size : {1, 50, 1550, 1600}) EXPECT_EQ(socket->AllocBuffer(size), nullptr);
  }
  EXPECT_THAT(console.fatals(), ElementsAre(out_of_buffers(51), out_of_buffers(100), out_of_buffers(1600),
                                            out_of_buffers(1650)));
  console.clear();
}

TEST_F(ByteFigures, AReadAsksForFiftyBytesMoreThanItTakes) {
  const struct {
    bool large_allowed;
    std::size_t waiting;
    int asked;
  } rows[] = {{false, 1, 51}, {false, 1600, 1650}, {false, 1601, 1650}, {false, 4000, 1650},
              {true, 1, 51},  {true, 1600, 1650},  {true, 1601, 1651},  {true, 1679, 1729}};
  for (const auto& row : rows) {
    SCOPED_TRACE(testing::Message() << row.waiting << (row.large_allowed ? ", large ones allowed" : ""));
    RecordingLayer layer;
    PeerStream peer;
    OwnedSocket socket = adopted_stream(&layer, &peer);
    socket->SetBigBuffers(row.large_allowed);
    arrive(peer, *socket, row.waiting);
    {
      const BufferDrought drought(cfg);
      socket->ConnectAck();
      ASSERT_TRUE(wait_until([this] { return !console.fatals().empty(); }, kPatienceMs));
    }
    ASSERT_TRUE(layer.wait_for_bytes(row.waiting));
    EXPECT_THAT(console.fatals(), Each(out_of_buffers(row.asked)));
    socket.reset();
    console.clear();
  }
}

TEST_F(ByteFigures, ALargeReadHasAnArrayWithFiftyBytesInFront) {
  for (const std::size_t size : {1679U, 1680U, 1681U, 5000U, 40000U}) {
    SCOPED_TRACE(size);
    RecordingLayer layer;
    PeerStream peer;
    OwnedSocket socket = adopted_stream(&layer, &peer);
    socket->SetBigBuffers(true);
    arrive(peer, *socket, size);
    const ArraySizes arrays;
    socket->ConnectAck();
    ASSERT_TRUE(layer.wait_for_bytes(size));
    ASSERT_EQ(layer.count(), 1U);
    const bool large = size >= 1680;
    EXPECT_EQ(arrays.count(size + 50), large ? 1 : 0);
    const int room = static_cast<int>(size) + 50;
    EXPECT_EQ(layer.at(0).size, large ? room : pool_room(room));
    EXPECT_EQ(layer.at(0).headroom, layer.at(0).size - static_cast<long>(size));
  }
}

TEST_F(ByteFigures, ALargeDatagramHasItsSenderInTheSixteenBytesBeforeIt) {
  RecordingLayer layer;
  PeerUdp peer;
  const OwnedSocket socket = datagram_socket(&layer);
  socket->SetBigBuffers(true);
  for (const std::size_t size : {1680U, 60000U, 65485U, 65507U}) {
    SCOPED_TRACE(size);
    layer.clear();
    layer.hold_buffers(true);
    const ArraySizes arrays;
    ASSERT_TRUE(peer.send_to(socket->LocalPort(), numbered_bytes(size)));
    ASSERT_TRUE(layer.wait_for(1));
    EXPECT_EQ(arrays.count(size + 50), 1);
    ASSERT_EQ(layer.held(), 1U);
    const OSBuf* const buf = layer.held_buffers()[0];
    // What a buffer's 16 bits cannot count is taken from the room in front.
    EXPECT_EQ(buf->data - buf->payload, std::min<long>(50, 65535 - static_cast<long>(size)));
    sockaddr_in sender = loopback_address(peer.port());
    EXPECT_EQ(std::memcmp(buf->data - 16, &sender, 16), 0);
    layer.release_held();
  }
}

TEST_F(ByteFigures, ARingIsItsArraysAndStorageOf1824BytesForEachBuffer) {
  AsyncSocket::Init();
  const ArraySizes arrays;
  const auto ring = std::make_unique<RingBuffer>(32);
  EXPECT_EQ(arrays.count(32 * sizeof(SocketBuffer*)), 1);
  EXPECT_EQ(arrays.count(33 * sizeof(OSBuf*)), 1);
  EXPECT_EQ(arrays.count(1824), 32);
}

TEST_F(ByteFigures, TheWakeUpPipeIsReadInPiecesOfOneHundredBytes) {
  const OwnedSocket socket = indirect_socket();
  MonitorBeat monitor;
  ASSERT_TRUE(monitor.passes());
  ASSERT_TRUE(wait_until([] { return bytes_waiting(look_at(AsyncSocket::sigfd)) == 0; }, kPatienceMs));
  for (const std::size_t count : {1U, 99U, 100U, 101U, 250U}) {
    SCOPED_TRACE(count);
    const PipeReads reads;
    const std::string bytes(count, '\0');
    ASSERT_EQ(write(look_at(AsyncSocket::sigpipefd), bytes.data(), count), static_cast<ssize_t>(count));
    ASSERT_TRUE(wait_until([&] { return reads.bytes() >= count; }, kPatienceMs));
    ASSERT_TRUE(monitor.passes());
    const std::vector<PipeRead> all = reads.all();
    EXPECT_EQ(all.size(), count / 100 + 1) << "a whole piece is followed by another";
    for (const PipeRead& one : all) EXPECT_EQ(one.asked, 100U);
  }
}

// ---- Packets, lines and names --------------------------------------------------------------------------------------

class ByteFiguresQuietly : public QuietNetworkTest {};

TEST_F(ByteFiguresQuietly, APacketTakesFourBytesForItsHeaderAndThenItsLengthAndFifty) {
  {
    const Owned<TakingSocket> socket(new TakingSocket);
    const BufferDrought drought(cfg);
    feed(*socket, "\x03");
    EXPECT_THAT(console.fatals(), ElementsAre(out_of_buffers(4)));
  }
  for (const int length : {4, 5, 1000, 1679}) {
    SCOPED_TRACE(length);
    console.clear();
    const std::string header = tpkt_header(static_cast<std::size_t>(length));
    const Owned<TakingSocket> socket(new TakingSocket);
    feed(*socket, header.substr(0, 3));
    ASSERT_NE(socket->tpktBuf, nullptr);
    EXPECT_EQ(socket->tpktBuf->size, pool_room(4));
    const BufferDrought drought(cfg);
    feed(*socket, header.substr(3));
    EXPECT_THAT(console.fatals(), ElementsAre(out_of_buffers(length + 50)));
  }
  console.clear();
}

TEST_F(ByteFiguresQuietly, ALargePacketHasAnArrayWithFiftyBytesInFront) {
  for (const std::size_t length : {1679U, 1680U, 1681U, 65485U, 65535U}) {
    SCOPED_TRACE(length);
    const Owned<TakingSocket> socket(new TakingSocket);
    const ArraySizes arrays;
    feed(*socket, tpkt_header(length) + "x");
    EXPECT_EQ(arrays.count(length + 50), length >= 1680 ? 1 : 0);
    const OSBuf* const packet = socket->tpktBuf;
    ASSERT_NE(packet, nullptr);
    EXPECT_EQ(packet->length, 5);
    EXPECT_EQ(std::memcmp(packet->data, (tpkt_header(length) + "x").data(), 5), 0);
    EXPECT_EQ(packet->payload + packet->size - packet->data, static_cast<long>(length));
    if (length >= 1680) {
      EXPECT_EQ(packet->data - packet->payload, std::min<long>(50, 65535 - static_cast<long>(length)));
    }
  }
}

TEST_F(ByteFiguresQuietly, ALineHasTheStorageThatItIsMadeWith) {
  for (const int size : {80, 1000}) {
    const ArraySizes arrays;
    const LineSocket line_socket(size);
    EXPECT_EQ(arrays.count(static_cast<std::size_t>(size)), 1);
  }
}

TEST_F(ByteFiguresQuietly, ANameIsCopiedWithItsTerminatingZero) {
  class Entry : public DNSEntry {
   public:
    explicit Entry(const char* name) : DNSEntry(name, 0) {}
  };
  AsyncSocket::Init();
  EnterCriticalSection(&DNSEntry::cs);
  {
    const ArraySizes arrays;
    const Entry entry("a.name.of.23.characters");
    EXPECT_EQ(arrays.count(24), 1);
    EXPECT_STREQ(entry.dnsname, "a.name.of.23.characters");
  }
  LeaveCriticalSection(&DNSEntry::cs);
}

}  // namespace
