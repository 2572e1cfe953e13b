// The age of a buffer, driven by a clock that the tests set.

#include <cstdio>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "kernel/buffer.h"
#include "kernel/io.h"
#include "support/fake_clock.h"
#include "support/kernel_fixture.h"

namespace oskernel_test {
namespace {

const bool kFakeClock = FakeClock::use();

class BufferClock : public KernelTest {
 protected:
  void SetUp() override {
    ASSERT_TRUE(kFakeClock);
    KernelTest::SetUp();
    StartQuiet();
  }
  std::string age_shown(OSBuf* buf) {
    console.clear();
    buf->Print();
    const std::string line = console.calls().front();
    const std::size_t at = line.find(", age ");
    return line.substr(at + 6, line.find("s, ptr", at) - at - 6);
  }
};

TEST_F(BufferClock, AnAllocationTakesTheTime) {
  FakeClock::set(123456);
  OSBuf* buf = OSBuf::Alloc(10);
  EXPECT_EQ(buf->timeStamp, 123456u);
  FakeClock::advance(1000);
  OSBuf* copy = buf->Duplicate();
  EXPECT_EQ(copy->timeStamp, 124456u);
  EXPECT_EQ(buf->timeStamp, 123456u);
  copy->Free();
  buf->Free();
  EXPECT_EQ(buf->timeStamp, 123456u) << "the return leaves it";
  FakeClock::set(0xFFFFFFFF);
  buf = OSBuf::Alloc(10);
  EXPECT_EQ(buf->timeStamp, 0xFFFFFFFFu);
  buf->Free();
}

TEST_F(BufferClock, TheAgeIsShownInWholeSeconds) {
  FakeClock::set(5000);
  OSBuf* buf = OSBuf::Alloc(10);
  struct Row {
    ULONG elapsed;
    const char* shown;
  };
  for (const Row& row : {Row{0, "0"}, Row{999, "0"}, Row{1000, "1"}, Row{1999, "1"}, Row{12345, "12"},
                         Row{3600000, "3600"}, Row{4294967295u, "4294967"}}) {
    FakeClock::set(5000 + row.elapsed);
    EXPECT_EQ(age_shown(buf), row.shown) << row.elapsed;
  }
  buf->Free();
}

TEST_F(BufferClock, TheAgeSurvivesTheWrapOfTheTick) {
  FakeClock::set(0xFFFFFFFF - 499);
  OSBuf* buf = OSBuf::Alloc(10);
  FakeClock::set(1500);
  EXPECT_EQ(age_shown(buf), "2");
  FakeClock::set(1499);
  EXPECT_EQ(age_shown(buf), "1");
  buf->Free();
}

TEST_F(BufferClock, BothLinesShowTheAge) {
  FakeClock::set(1000);
  OSBuf* buf = OSBuf::Alloc(10);
  FakeClock::set(8000);
  char expected[200];
  snprintf(expected, sizeof expected, "Buf: buf %p, data=%p, size %d, len %d, age %us, ptr %p",
           static_cast<void*>(buf), static_cast<void*>(buf->data), 100, 0, 7u, static_cast<void*>(nullptr));
  buf->Print();
  EXPECT_EQ(console.calls().front(), expected);
  console.clear();
  buf->destPtr = &OSNullIO;
  buf->Print();
  EXPECT_NE(console.text().find(", age 7s, ptr "), std::string::npos);
  EXPECT_NE(console.text().find("OSNullIO"), std::string::npos);
  buf->Free();
}

TEST_F(BufferClock, ABufferThatWasNeverAllocatedHasNoTime) {
  OSBuf buf;
  EXPECT_EQ(buf.timeStamp, 0u);
}

}  // namespace
}  // namespace oskernel_test
