/// What the tests of message buffers share: texts as bytes, callbacks that write down that they ran, and a fixture
/// that sees every buffer and every callback home.
#ifndef OSKERNEL_TESTS_BUFFER_FIXTURE_H
#define OSKERNEL_TESTS_BUFFER_FIXTURE_H

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "kernel/buffer.h"
#include "kernel_fixture.h"
#include "ring_check.h"

namespace oskernel_test {

/// The valid bytes of a buffer.
inline std::string content(const OSBuf* buf) {
  return std::string(reinterpret_cast<const char*>(buf->data), buf->length);
}

inline const UBYTE* bytes_of(const std::string& text) { return reinterpret_cast<const UBYTE*>(text.data()); }

/// `len` letters, the first of them letter number `first` of the alphabet.
inline std::string pattern(int len, int first = 0) {
  std::string text;
  for (int i = 0; i < len; ++i) text += static_cast<char>('a' + (first + i) % 26);
  return text;
}

class Buffer : public KernelTest {
 protected:
  void SetUp() override {
    KernelTest::SetUp();
    StartQuiet();
    ran_here = &ran_;
    callbacks_ = OSCallback::callback_pool_size;
  }
  void TearDown() override {
    EXPECT_EQ(OSBuf::allocated_list->Size(), 0) << "every buffer goes home";
    EXPECT_EQ(OSCallback::callback_pool_size, callbacks_) << "every callback goes home";
    for (int i = 0; i < 4; ++i) EXPECT_TRUE(ListIsSound(OSBuf::buffer_pool[i]));
    ran_here = nullptr;
    KernelTest::TearDown();
  }
  /// A callback that writes its name and value into ran_.
  static OSCallback* callback(const char* name, ULONG value = 0, OSCallbackRecord* record = nullptr) {
    return OSCallback::Alloc(record, note, nullptr, const_cast<char*>(name), value);
  }
  /// A buffer whose storage lies in the middle of an array, so that a stray byte is seen.
  OSBuf* framed(UWORD storage) {
    std::memset(frame_, 0xEE, sizeof frame_);
    OSBuf* buf = OSBuf::Alloc(0);
    buf->SetPayload(frame_ + kMargin, storage);
    return buf;
  }
  void ExpectFrameUntouched(UWORD storage) {
    for (std::size_t i = 0; i < sizeof frame_; ++i) {
      if (i >= kMargin && i < kMargin + storage) continue;
      ASSERT_EQ(frame_[i], 0xEE) << "byte " << static_cast<long>(i) - static_cast<long>(kMargin);
    }
  }
  /// Frees a buffer after a refused operation, whatever the refusal did to data and length.
  static void reset_and_free(OSBuf* buf) {
    buf->data = buf->payload == nullptr ? nullptr : buf->payload + buf->size;
    buf->length = 0;
    buf->Free();
  }

  static constexpr std::size_t kMargin = 70000;
  std::vector<std::string> ran_;
  UBYTE frame_[kMargin + 200];

 private:
  static void note(OSObj*, ADDR name, ULONG value) {
    ran_here->push_back(std::string(static_cast<const char*>(name)) + std::to_string(value));
  }

  inline static std::vector<std::string>* ran_here = nullptr;
  ULONG callbacks_ = 0;
};

}  // namespace oskernel_test

#endif
