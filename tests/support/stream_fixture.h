/// Streams whose accounting is reachable, and buffers whose release is noted.
#ifndef OSKERNEL_TESTS_STREAM_FIXTURE_H
#define OSKERNEL_TESTS_STREAM_FIXTURE_H

#include <string>
#include <utility>
#include <vector>

#include "buffer_fixture.h"
#include "kernel/buffer.h"
#include "kernel/link.h"
#include "link_objects.h"
#include "queue_probe.h"
#include "ring_check.h"

namespace oskernel_test {

inline constexpr int kSlots = 32;

/// Makes the accounting reachable.
class Stream : public OSStream {
 public:
  explicit Stream(int compress, char delete_contents = 0) : OSStream(compress, delete_contents) {}
  using OSStream::DiscardLen;
};

/// Where the callbacks of the running test note their numbers.
inline std::vector<ULONG>* ran = nullptr;

/// Streams whose buffers and callbacks must all go home; `ran_` are the numbers of the callbacks that ran.
class StreamTest : public PoolTest {
 protected:
  void SetUp() override {
    PoolTest::SetUp();
    ran = &ran_;
  }
  void TearDown() override {
    PoolTest::TearDown();
    ran = nullptr;
  }

  static OSCallback* callback(ULONG number) {
    return OSCallback::Alloc(
        nullptr, [](OSObj*, ADDR, ULONG value) { ran->push_back(value); }, nullptr, nullptr, number);
  }
  /// A buffer with `text` whose data release is reported as `number`.
  static OSBuf* guarded(const std::string& text, ULONG number) {
    OSBuf* buf = OSBuf::Alloc(bytes_of(text), static_cast<int>(text.size()));
    buf->AddDataCallback(callback(number));
    return buf;
  }
  static std::vector<int> lengths(const OSStream& stream) {
    std::vector<int> found;
    for (OSLink* node : ring_nodes(stream)) found.push_back(as<OSBuf>(node->object)->length);
    return found;
  }
  /// All bytes, taken from the buffers themselves.
  static std::string held(const OSStream& stream) {
    std::string text;
    for (OSLink* node : ring_nodes(stream)) text += content(as<OSBuf>(node->object));
    return text;
  }
  std::vector<ULONG> taken_runs() { return std::exchange(ran_, {}); }

  std::vector<ULONG> ran_;
};

}  // namespace oskernel_test

#endif
