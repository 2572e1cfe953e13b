// oskernel-size and the kernel: what it says of the pools is what a start with its configuration makes and takes.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <cstdlib>
#include <memory>
#include <new>
#include <string>
#include <vector>

#include "examples/oskernel-size/sizes.h"
#include "examples/oskernel-size/use_of_pools.h"
#include "network/asocket.h"
#include "network/ringbuffer.h"
#include "support/failing_new.h"
#include "support/kernel_fixture.h"

namespace {

// Every allocation of the program, the library's included, while `recording` is set.
std::atomic<bool> recording{false};
std::atomic<std::size_t> recorded{0};
std::array<std::atomic<std::size_t>, 4096> allocations{};

void* allocate(std::size_t bytes) {
  if (recording) {
    const std::size_t at = recorded.fetch_add(1);
    if (at < allocations.size()) allocations[at] = bytes;
  }
  return std::malloc(bytes != 0 ? bytes : 1);
}

}  // namespace

#define OSKERNEL_NOT_INLINED __attribute__((noinline))
OSKERNEL_NOT_INLINED void* operator new(std::size_t bytes) {
  void* const storage = allocate(bytes);
  if (storage == nullptr) throw std::bad_alloc();
  return storage;
}
OSKERNEL_NOT_INLINED void* operator new[](std::size_t bytes) { return ::operator new(bytes); }
OSKERNEL_NOT_INLINED void* operator new[](std::size_t bytes, const std::nothrow_t&) noexcept {
  return allocate(bytes);
}
OSKERNEL_NOT_INLINED void operator delete(void* storage) noexcept { std::free(storage); }
OSKERNEL_NOT_INLINED void operator delete[](void* storage) noexcept { std::free(storage); }
OSKERNEL_NOT_INLINED void operator delete(void* storage, std::size_t) noexcept { std::free(storage); }
OSKERNEL_NOT_INLINED void operator delete[](void* storage, std::size_t) noexcept { std::free(storage); }

namespace oskernel_test {
namespace {

using namespace oskernel_size;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

const Layout& own_layout() { return sizeof(void*) == 4 ? kLayout32 : kLayout64; }
const Memory& own_memory(const Sizes& sizes) { return sizeof(void*) == 4 ? sizes.on32 : sizes.on64; }

KernelCfg config_of(const Sizes& sizes) {
  KernelCfg cfg;
  for (int i = 0; i < kClasses; ++i) {
    cfg.buf_size[i] = static_cast<int>(sizes.buffers[i].size);
    cfg.buf_qty[i] = static_cast<int>(sizes.buffers[i].quantity.count);
  }
  cfg.buf_min_space = static_cast<int>(sizes.load.headroom);
  cfg.callback_qty = static_cast<int>(sizes.callbacks.count);
  cfg.link_qty = static_cast<int>(sizes.links.count);
  cfg.trigger_stack = static_cast<int>(sizes.load.trigger_stack);
  return cfg;
}

Load load_of(Number connections, Number message, Number largest) {
  Load load;
  load.connections = connections;
  load.message_size = message;
  load.largest_message = largest;
  load.own_callbacks = 7;
  return load;
}

Load tls_packets(Number message) {
  Load load = load_of(3, message, message);
  load.tls = true;
  load.tpkt = true;
  load.tasks = 2;
  return load;
}

/// Loads with two and three classes, with and without buffers of class 0.
const std::vector<Load>& loads() {
  static const std::vector<Load> all{load_of(1, 1, 1),       load_of(20, 512, 512),    load_of(5, 100, 4000),
                                     load_of(7, 1689, 1690), load_of(2, 32717, 32717), tls_packets(200),
                                     tls_packets(3000)};
  return all;
}

class SizedPools : public KernelTest {
 protected:
  void TearDown() override {
    recording = false;
    FailingNew::reset();
    KernelTest::TearDown();
  }
};

TEST_F(SizedPools, SizesOfObjectsAreThoseOfThisPlatform) {
  const Layout& layout = own_layout();
  EXPECT_EQ(sizeof(OSBuf), static_cast<std::size_t>(layout.buffer));
  EXPECT_EQ(sizeof(OSLink2), static_cast<std::size_t>(layout.link));
  EXPECT_EQ(sizeof(void*), static_cast<std::size_t>(layout.link_block));
  EXPECT_EQ(sizeof(OSCallback), static_cast<std::size_t>(layout.callback));
  EXPECT_EQ(sizeof(SocketBuffer), static_cast<std::size_t>(layout.socket_buffer));
}

TEST_F(SizedPools, AStartTakesTheBytesThatAreStatedForEachPool) {
  for (const Load& load : loads()) {
    const Sizes sizes = calculate(load);
    SCOPED_TRACE(sizes.load.message_size);
    cfg = config_of(sizes);
    recorded = 0;
    recording = true;
    StartQuiet();
    recording = false;
    const std::size_t count = std::min<std::size_t>(recorded, allocations.size());
    const std::vector<std::size_t> taken(allocations.begin(), allocations.begin() + static_cast<long>(count));
    const Memory& memory = own_memory(sizes);
    EXPECT_THAT(taken, Contains(static_cast<std::size_t>(memory.buffers)));
    EXPECT_THAT(taken, Contains(static_cast<std::size_t>(memory.links)));
    EXPECT_THAT(taken, Contains(static_cast<std::size_t>(memory.callbacks)));
    Stop();
  }
}

TEST_F(SizedPools, TheDefaultConfigurationTakesWhatIsWrittenDown) {
  recorded = 0;
  recording = true;
  StartQuiet();
  recording = false;
  const std::size_t count = std::min<std::size_t>(recorded, allocations.size());
  const std::vector<std::size_t> taken(allocations.begin(), allocations.begin() + static_cast<long>(count));
#if defined(__i386__)
  const std::size_t buffers = 150160;
#else
  const std::size_t buffers = sizeof(void*) == 4 ? 149760 : 173120;
#endif
  EXPECT_THAT(taken, Contains(buffers));
  EXPECT_THAT(taken, Contains(sizeof(void*) == 4 ? 80004U : 160008U));
  EXPECT_THAT(taken, Contains(sizeof(void*) == 4 ? 25600U : 48000U));
}

TEST_F(SizedPools, AStartMakesWhatIsStated) {
  for (const Load& load : loads()) {
    const Sizes sizes = calculate(load);
    SCOPED_TRACE(sizes.load.message_size);
    cfg = config_of(sizes);
    StartQuiet();
    for (int i = 0; i < kClasses; ++i) {
      EXPECT_EQ(OSBuf::PoolSize(i), sizes.buffers[i].quantity.count) << i;
      EXPECT_EQ(OSBuf::min_count[i], sizes.buffers[i].quantity.count) << i;
    }
    EXPECT_EQ(OSLink::link_pool_size, static_cast<ULONG>(sizes.links.count));
    EXPECT_EQ(OSCallback::callback_pool_size, static_cast<ULONG>(sizes.callbacks.count));
    Stop();
  }
}

TEST_F(SizedPools, TheBlockOfTheStatedSizeHoldsAllStorageWhenTheHeapCannot) {
  for (const Load& load : loads()) {
    const Sizes sizes = calculate(load);
    SCOPED_TRACE(sizes.load.message_size);
    const Memory& memory = own_memory(sizes);
    cfg = config_of(sizes);
    cfg.trigger_stack = 0;
    const auto start = [this, &memory](std::size_t memsize) {
      auto block = std::make_unique<ULONG[]>(memsize / sizeof(ULONG) + 1);
      // The block of the buffers is the largest of all.
      FailingNew::fail_at_least(static_cast<std::size_t>(memory.buffers));
      os_startup(reinterpret_cast<UBYTE*>(block.get()), static_cast<ULONG>(memsize), &cfg);
      FailingNew::reset();
      int made = 0;
      for (int i = 0; i < kClasses; ++i) made += OSBuf::PoolSize(i);
      const ULONG left = OS_MEMORY->FreeSpace();
      os_cleanup();
      return std::pair<int, ULONG>(made, left);
    };
    Number all = 0;
    for (const BufferClass& one : sizes.buffers) all += one.quantity.count;
    const auto [made, left] = start(static_cast<std::size_t>(sizes.memsize));
    EXPECT_EQ(made, all);
    EXPECT_EQ(left, 16U) << "the head area, which is never handed out whole";
    EXPECT_THAT(console.fatals(), IsEmpty());
    EXPECT_EQ(start(static_cast<std::size_t>(sizes.memsize) - 4).first, all - 1);
    EXPECT_THAT(console.fatals(), ElementsAre("OSMemPool::Allocate Out of Memory"));
    console.clear();
  }
}

TEST_F(SizedPools, ABlockIsNotTouchedWhileTheHeapHasMemory) {
  std::vector<ULONG> block(1000);
  cfg.trigger_stack = 0;
  os_startup(reinterpret_cast<UBYTE*>(block.data()), 4000, &cfg);
  EXPECT_EQ(OS_MEMORY->FreeSpace(), 4000U - 12);
  os_cleanup();
}

TEST_F(SizedPools, TheBuffersOfARingTakeTheBytesThatAreStated) {
  Load load = load_of(1, 100, 100);
  load.direct = true;
  StartQuiet();
  recorded = 0;
  recording = true;
  auto* const ring = new RingBuffer(static_cast<int>(kRingBuffers));
  recording = false;
  std::size_t storage = 0;
  for (std::size_t i = 0; i < recorded; ++i) {
    if (allocations[i] == kRingBufferBytes + kGuardBytes) ++storage;
  }
  EXPECT_EQ(storage, static_cast<std::size_t>(kRingBuffers));
  const auto objects = static_cast<Number>(sizeof(SocketBuffer)) * kRingBuffers;
  const auto stated = own_memory(calculate(load)).rings - kRingBuffers * (kRingBufferBytes + kGuardBytes);
  EXPECT_EQ(objects, stated);
  ring->Free();
}

TEST_F(SizedPools, TheLowWaterMarksTellHowMuchWasInUse) {
  StartQuiet();
  std::vector<OSBuf*> taken;
  for (int i = 0; i < 3; ++i) taken.push_back(OSBuf::Alloc(1000));
  for (OSBuf* buf : taken) buf->Free();
  OSBuf::Alloc(10)->Free();
  testing::internal::CaptureStdout();
  print_use_of_pools();
  EXPECT_EQ(testing::internal::GetCapturedStdout(),
            "class 0: 0 of 100 were in use\nclass 1: 1 of 25 were in use\n"
            "class 2: 0 of 25 were in use\nclass 3: 3 of 55 were in use\n");
}

TEST_F(SizedPools, ARequestTakesTheSmallestClassThatIsLargerAndFallsThroughToTheNext) {
  Load load = load_of(1, 100, 4000);
  load.reserve_percent = 0;
  load.queued = 1;
  const Sizes sizes = calculate(load);
  cfg = config_of(sizes);
  StartQuiet();
  std::vector<OSBuf*> taken;
  const std::string message(100, 'm');
  const auto take = [&] {
    taken.push_back(OSBuf::Alloc(message.c_str()));
    return taken.back()->size;
  };
  for (Number n = 0; n < sizes.buffers[1].quantity.count; ++n) EXPECT_EQ(take(), sizes.buffers[1].size);
  EXPECT_EQ(take(), sizes.buffers[2].size);
  taken.push_back(OSBuf::Alloc(static_cast<int>(sizes.buffers[2].size)));
  EXPECT_EQ(taken.back()->size, sizes.buffers[3].size) << "as large as the class is not smaller";
  for (OSBuf* buf : taken) buf->Free();
}

}  // namespace
}  // namespace oskernel_test
