// Blocking sockets and the memory they get: pools whose classes are not the usual ones, storage of a buffer's own, and
// a connection that nothing can be made for.

#include <malloc.h>

#include <algorithm>
#include <iterator>
#include <memory>
#include <string>

#include "support/blocking_fixture.h"
#include "support/failing_heap.h"
#include "support/failing_new.h"

namespace oskernel_test {
namespace {

using ::testing::IsEmpty;

/// Every test starts the kernel itself, with begin().
class BlockingSocketMemory : public BlockingTest {
 protected:
  void SetUp() override {}
  void begin() { BlockingTest::SetUp(); }
  void TearDown() override {
    FailingNew::reset();
    BlockingTest::TearDown();
  }

  static void deliver(Wrapped<>& wrapped, const std::string& bytes) {
    const int room = 1 << 20;
    ASSERT_EQ(setsockopt(wrapped->s, SOL_SOCKET, SO_RCVBUF, &room, sizeof room), 0);
    ASSERT_TRUE(wrapped.peer.send_all(bytes));
    ASSERT_TRUE(
        wait_until([&] { return bytes_waiting(wrapped->s) == static_cast<int>(bytes.size()); }, kPatienceMs));
  }
  /// So many bytes come in one buffer, whole, and everything is home behind it.
  void expect_one_buffer(int size) {
    SCOPED_TRACE(size);
    Wrapped<> wrapped;
    const std::string sent = numbered_bytes(static_cast<std::size_t>(size));
    deliver(wrapped, sent);
    const PoolState before = PoolState::now();
    OSBuf* const buf = wrapped->RecWait(0);
    ASSERT_NE(buf, nullptr);
    EXPECT_LE(buf->payload, buf->data);
    ASSERT_LE(buf->data + size, buf->payload + buf->size) << "the data lies in the buffer's storage";
    EXPECT_TRUE(taken(buf) == sent);
    EXPECT_EQ(PoolState::now().buffers_out, before.buffers_out);
    EXPECT_EQ(PoolState::now().callbacks, before.callbacks);
    EXPECT_EQ(wrapped->state, Socket::CONNECTED);
    EXPECT_THAT(said(), IsEmpty());
    EXPECT_THAT(console.fatals(), IsEmpty()) << "the pools are not asked for what they do not have";
    wrapped.peer.close();
  }
  /// A listener of this kind whose connection nothing can be made for drops it and goes on.
  template <class Kind>
  void expect_connection_dropped() {
    Kind listener(Socket::TCP_SERVER, 0, true, kLoopback);
    PeerStream dropped = PeerStream::connect_to(listener.LocalPort());
    const int before = open_descriptors();
    FailingNew::fail_at_least(sizeof(Kind));
    Socket* const none = listener.Accept();
    FailingNew::reset();
    EXPECT_EQ(none, nullptr);
    EXPECT_EQ(open_descriptors(), before);
    EXPECT_TRUE(dropped.ended()) << "the peer is not left waiting";
    EXPECT_EQ(listener.state, Socket::READY);
    PeerStream next = PeerStream::connect_to(listener.LocalPort());
    const std::unique_ptr<Socket> accepted(listener.Accept());
    ASSERT_NE(accepted, nullptr);
    EXPECT_EQ(accepted->RemotePort(), next.local_port());
    next.close();
  }
};

TEST_F(BlockingSocketMemory, AClassWithoutBuffersIsPassedOver) {
  cfg.buf_qty[3] = 0;
  begin();
  for (const int size : {10, 99, 100, 599, 600, 601, 1739, 5000}) expect_one_buffer(size);
}

TEST_F(BlockingSocketMemory, WithoutAnyClassEverythingHasStorageOfItsOwn) {
  for (const int i : {1, 2, 3}) cfg.buf_qty[i] = 0;
  begin();
  for (const int size : {1, 99, 1000, 40000}) expect_one_buffer(size);
}

TEST_F(BlockingSocketMemory, TheFirstClassIsNotReadInto) {
  cfg.buf_size[0] = 2000;  // the pools give its buffers out for a size of 0 alone
  cfg.buf_qty[3] = 0;
  begin();
  for (const int size : {1, 700, 1999}) expect_one_buffer(size);
}

TEST_F(BlockingSocketMemory, AClassThatIsLargerThanThePoolsLookAtIsReadIntoAsFarAsTheyDo) {
  cfg.buf_size[3] = 65000;
  cfg.buf_qty[3] = 4;
  begin();
  // Above 32767 the pools see what is left of the size without its highest bit.
  for (const int size : {1000, 32766, 32767, 32768, 32769, 33000, 50000, 64999, 65535})
    expect_one_buffer(size);
}

TEST_F(BlockingSocketMemory, StorageOfItsOwnIsGivenBack) {
  begin();
  constexpr std::size_t kBytes = 60000;
  constexpr std::size_t kRounds = 40;
  Wrapped<> wrapped;
  const std::string sent = numbered_bytes(kBytes);
  const auto in_use = [] {
    const struct mallinfo2 heap = mallinfo2();  // all 0 under a sanitizer, whose own report comes at the end
    return heap.uordblks + heap.hblkhd;
  };
  deliver(wrapped, sent);
  EXPECT_TRUE(taken(wrapped->RecWait(0)) == sent);
  const std::size_t before = in_use();
  for (std::size_t i = 0; i < kRounds; ++i) {
    deliver(wrapped, sent);
    OSBuf* const buf = wrapped->RecWait(0);
    ASSERT_NE(buf, nullptr);
    buf->Free();
  }
  EXPECT_LT(in_use(), before + kRounds * kBytes / 2);
  wrapped.peer.close();
}

TEST_F(BlockingSocketMemory, WithoutStorageTheStateStaysAndTheDataToo) {
  begin();
  Wrapped<> wrapped;
  const std::string sent = numbered_bytes(50000);
  deliver(wrapped, sent);
  {
    const FailingHeap short_of_memory(sent.size());
    EXPECT_EQ(wrapped->RecWait(0), nullptr);
  }
  EXPECT_EQ(wrapped->state, Socket::CONNECTED);
  EXPECT_THAT(said(), IsEmpty());
  EXPECT_EQ(PoolState::now().buffers_out, 0);
  EXPECT_TRUE(taken(wrapped->RecWait(0)) == sent);
  wrapped.peer.close();
}

TEST_F(BlockingSocketMemory, AConnectionThatNoSocketCanBeMadeForIsClosed) {
  begin();
  expect_connection_dropped<Socket>();
  expect_connection_dropped<SecureSocket>();
  EXPECT_THAT(said(), IsEmpty());
}

}  // namespace
}  // namespace oskernel_test
