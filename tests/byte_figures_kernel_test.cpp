// Byte figures of the kernel that hold on every platform: widths and places of fields, the words of a memory pool's
// block, the blocks of links, copies of strings.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <malloc.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <type_traits>
#include <vector>

#include "kernel/btree.h"
#include "kernel/buffer.h"
#include "kernel/kernel.h"
#include "kernel/link_stream.h"
#include "kernel/task.h"
#include "kernel/trigger.h"
#include "support/failing_new.h"
#include "support/kernel_fixture.h"

// Conditionally supported for classes with virtual operations; GCC and Clang support it (Itanium C++ ABI, 2.4).
#pragma GCC diagnostic ignored "-Winvalid-offsetof"

#define IS_A(field, type) static_assert(std::is_same_v<decltype(field), type>, #field " is no " #type)
#define STANDS_BEHIND(owner, earlier, field, bytes) \
  static_assert(offsetof(owner, field) == offsetof(owner, earlier) + (bytes), #field " has moved")

namespace oskernel_test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr std::size_t kPointer = sizeof(void*);

// ---- Widths ------------------------------------------------------------------------------------------------
// Where a figure has another width, programs that store to it or print it go wrong without a word.

static_assert(sizeof(wchar_t) == 4, "wide characters are narrowed from 32 bits");

IS_A(KernelCfg::buf_size, int[4]);
IS_A(KernelCfg::buf_qty, int[4]);
IS_A(KernelCfg::buf_min_space, int);
IS_A(KernelCfg::callback_qty, int);
IS_A(KernelCfg::link_qty, int);
IS_A(KernelCfg::trigger_stack, int);
static_assert(sizeof(int) == 4);

IS_A(os_stdscan, UBYTE[33]);
IS_A(OSProgram::lev, OSLevel[8]);
IS_A(OSProgram::scantab, OSScanTableEntry[40]);
static_assert(sizeof(OSLevel) == 2 * kPointer && sizeof(OSScanTableEntry) == 2 * kPointer);
static_assert(offsetof(OSProgram, lev) == 2 * kPointer && offsetof(OSProgram, scantab) == 18 * kPointer);

IS_A(_SYSTEMTIME::wMonth, WORD);
IS_A(_SYSTEMTIME::wDayOfWeek, WORD);
IS_A(_SYSTEMTIME::wDay, WORD);
IS_A(_SYSTEMTIME::wHour, WORD);
IS_A(_SYSTEMTIME::wMinute, WORD);
IS_A(_SYSTEMTIME::wSecond, WORD);
IS_A(_SYSTEMTIME::wMilliseconds, WORD);
IS_A(_SYSTEMTIME::isDst, WORD);

IS_A(OSMemArea::next, ULONG);
IS_A(OSMemArea::last, ULONG);
IS_A(OSMemArea::size, ULONG);
IS_A(OSMemBlock::pool, ULONG);
IS_A(OSMemBlock::size, ULONG);
static_assert(offsetof(OSMemArea, next) == 0 && offsetof(OSMemArea, last) == 4 &&
              offsetof(OSMemArea, size) == 8);
static_assert(offsetof(OSMemBlock, pool) == 0 && offsetof(OSMemBlock, size) == 4);

IS_A(OSLink::isFree, bool);
IS_A(OSLink::link_pool_size, ULONG);
IS_A(OSLinkHead::delete_contents_on_destroy, char);
IS_A(OSLinkList::number_in_list, int);
IS_A(OSLinkList::signature, ULONG);
static_assert(sizeof(OSLink) == 5 * kPointer, "programs carve links and put them into their own records");
static_assert(sizeof(OSIndirectList) == sizeof(OSLinkList), "references add no data");
static_assert(sizeof(CRITICAL_SECTION) == 3 * kPointer, "programs put sections into their own records");

IS_A(OSBuf::size, UWORD);
IS_A(OSBuf::length, UWORD);
IS_A(OSBuf::trace, UBYTE);
IS_A(OSBuf::flags, UBYTE);
IS_A(OSBuf::id, ULONG);
IS_A(OSBuf::timeStamp, ULONG);
IS_A(OSBuf::local_ipaddr, ULONG);
IS_A(OSBuf::remote_ipaddr, ULONG);
IS_A(OSBuf::remote_port, UWORD);
IS_A(OSBuf::local_port, UWORD);
IS_A(OSBuf::buffer_pool, OSLinkList[4]);
IS_A(OSBuf::min_count, int[4]);

IS_A(OSCallback::value, ULONG);
IS_A(OSCallback::callback_pool_size, ULONG);

IS_A(OSStream::total_length, ULONG);
IS_A(OSStream::max_buffer_size, UWORD);
IS_A(OSStream::max_total_length, ULONG);
IS_A(OSStream::max_num_buffers, ULONG);
IS_A(OSStream::compressible, int);
IS_A(OSStream::comp_callbacks, OSLink[32]);
IS_A(OSStream::comp_lengths, UWORD[32]);
IS_A(OSStream::comp_w, int);
IS_A(OSStream::comp_r, int);

IS_A(OSBTree::count, int);
IS_A(OSBTree::size, int);
IS_A(OSBTreeObj::link, OSBTreeObj* [3]);

IS_A(OSPollTrigger::pollfunc, OSPollFunction);
IS_A(OSPollTrigger::pobj, OSObj*);
IS_A(OSPollTrigger::paddr, ADDR);
IS_A(OSPollTrigger::pvalue, ULONG);
IS_A(OSQTrigger::q, OSQueue*);

IS_A(OSTaskTag::name, char[128]);
IS_A(OSTaskTag::task, OSTask*);
IS_A(OSTaskTag::thread_id, pthread_t);
IS_A(OSAxeTask::axeq, OSQueue*);
IS_A(OSAxeTask::trig, OSTrigger*);
IS_A(os_task_count, int);

// ---- Places that no pointer changes ------------------------------------------------------------------------

STANDS_BEHIND(OSLink, next, previous, kPointer);
STANDS_BEHIND(OSLink, previous, object, kPointer);
STANDS_BEHIND(OSLink, object, isFree, kPointer);
STANDS_BEHIND(OSLinkList, number_in_list, signature, 4);

STANDS_BEHIND(OSBuf, payload, size, kPointer);
STANDS_BEHIND(OSBuf, data_free_callback, buffer_free_callback, 5 * kPointer);
STANDS_BEHIND(OSBuf, data, length, kPointer);
STANDS_BEHIND(OSBuf, length, trace, 2);
STANDS_BEHIND(OSBuf, length, flags, 3);
STANDS_BEHIND(OSBuf, length, id, 4);
STANDS_BEHIND(OSBuf, length, timeStamp, 8);
STANDS_BEHIND(OSBuf, local_ipaddr, remote_ipaddr, 4);
STANDS_BEHIND(OSBuf, local_ipaddr, remote_port, 8);
STANDS_BEHIND(OSBuf, local_ipaddr, local_port, 10);

STANDS_BEHIND(OSStream, total_length, max_buffer_size, 4);
STANDS_BEHIND(OSStream, total_length, max_total_length, 8);
STANDS_BEHIND(OSStream, total_length, max_num_buffers, 12);
STANDS_BEHIND(OSStream, total_length, compressible, 16);
STANDS_BEHIND(OSStream, comp_callbacks, comp_lengths, 160 * kPointer);
STANDS_BEHIND(OSStream, comp_lengths, comp_w, 64);
STANDS_BEHIND(OSStream, comp_lengths, comp_r, 68);

STANDS_BEHIND(OSBTreeObj, link, balance, 3 * kPointer);
STANDS_BEHIND(OSBTreeObj, balance, cache, 1);
STANDS_BEHIND(OSBTree, count, size, 4);

STANDS_BEHIND(OSTask, stksize, proc_time, 4);
STANDS_BEHIND(OSTask, stksize, max_time, 8);
STANDS_BEHIND(OSTask, stksize, rcode, 10);
STANDS_BEHIND(OSTask, stksize, priority, 12);
STANDS_BEHIND(OSTask, thread_pid, thread_event, 4);

STANDS_BEHIND(OSTrigger, state, action, 4);
STANDS_BEHIND(OSTrigger, state, reason, 8);
STANDS_BEHIND(OSTrigger, state, async, 9);
STANDS_BEHIND(OSTrigger, value, fired, 4);
STANDS_BEHIND(OSTimerTrigger, start_time, duration, 4);
STANDS_BEHIND(OSTimerTrigger, start_time, single_shot, 8);
STANDS_BEHIND(OSQTrigger, minqlen, maxqlen, 4);

// ---- What is made at run time ------------------------------------------------------------------------------

class ByteFigures : public KernelTest {
 protected:
  void TearDown() override {
    FailingNew::reset();
    KernelTest::TearDown();
  }
};

std::vector<ULONG> words_at(const unsigned char* block, std::size_t offset, std::size_t count) {
  std::vector<ULONG> words(count);
  std::memcpy(words.data(), block + offset, count * sizeof(ULONG));
  return words;
}

// A program may look at a dump of its block. Only the pool's first word, which leads to the next pool, differs from one
// platform to the other.
TEST_F(ByteFigures, APoolsBlockHoldsTheSameWordsEverywhere) {
  alignas(ULONG) unsigned char block[100];
  auto* pool = new (block) OSMemPool(sizeof block, 7);
  EXPECT_THAT(words_at(block, 4, 5), ElementsAre(100, 7, 0, 0, 88)) << "size, NoMemIsFatal; the head area";

  pool->Allocate(4);
  ADDR middle = pool->Allocate(20);
  pool->Allocate(4);
  EXPECT_THAT(words_at(block, 12, 3), ElementsAre(0, 0, 36)) << "the head area gives from its top";
  EXPECT_THAT(words_at(block, 48, 2), ElementsAre(48, 12)) << "the block cut last: pool, size";
  EXPECT_THAT(words_at(block, 60, 2), ElementsAre(60, 28));
  EXPECT_THAT(words_at(block, 88, 2), ElementsAre(88, 12)) << "the block cut first";
  EXPECT_EQ(middle, block + 68);
  EXPECT_EQ(pool->FreeSpace(), 36u);

  OSMemPool::Free(middle);
  EXPECT_THAT(words_at(block, 12, 3), ElementsAre(48, 0, 36)) << "the head area: next, last, size";
  EXPECT_THAT(words_at(block, 60, 3), ElementsAre(0, 48, 28)) << "the area that was a block";
  EXPECT_EQ(pool->FreeSpace(), 64u);
  pool->~OSMemPool();
}

// One pointer in front of each block, and nothing between the links: a heap that has one byte less is too small, and
// one that has no byte more is large enough.
TEST_F(ByteFigures, EveryBlockOfLinksTakesItsLinksAndOnePointer) {
  constexpr ULONG kLinks = 1000;
  constexpr std::size_t kBlock = kLinks * 5 * kPointer + kPointer;
  cfg.link_qty = kLinks;
  StartQuiet();
  for (ULONG blocks = 2; blocks < 6; ++blocks) {
    SCOPED_TRACE(blocks);
    const ULONG before = OSLink::link_pool_size;
    FailingNew::fail_at_least(kBlock + 1);
    OSLink::GrowLinks();
    EXPECT_THAT(console.fatals(), IsEmpty());
    EXPECT_EQ(OSLink::link_pool_size, before + kLinks);
    FailingNew::fail_at_least(kBlock);
    OSLink::GrowLinks();
    EXPECT_THAT(console.fatals(), ElementsAre("OSLink::Alloc Out Of links"));
    EXPECT_EQ(OSLink::link_pool_size, before + kLinks);
    console.clear();
  }
}

TEST_F(ByteFigures, TheMarksOfABuffersLengthAreThoseOfItsTwoStates) {
  StartQuiet();
  auto* const first = static_cast<OSBuf*>(static_cast<OSLinkListObj*>(OSBuf::buffer_pool[1].FirstObject()));
  EXPECT_EQ(first->length, 21845) << "never allocated";
  OSBuf* buf = OSBuf::Alloc(99);
  ASSERT_EQ(buf, first);
  EXPECT_EQ(buf->size, 100);
  UBYTE* const end = buf->payload + 100;
  EXPECT_EQ(buf->data, end);
  for (int i = 0; i < 64; ++i) ASSERT_EQ(end[i], 165) << i;
  buf->Free();
  EXPECT_EQ(buf->length, 43690);
}

TEST(ByteFiguresOfTexts, ACopyHasRoomForTheTextAndItsZero) {
  for (std::size_t length = 0; length < 300; ++length) {
    SCOPED_TRACE(length);
    const std::string text(length, 'x');
    char* copy = sp_strdup(text.c_str());
    ASSERT_NE(copy, nullptr);
    EXPECT_GE(malloc_usable_size(copy), length + 1);
    EXPECT_EQ(copy[length], '\0');
    std::free(copy);
  }
}

// What stands behind the characters is the program's next field as a rule.
TEST(ByteFiguresOfTexts, WideCharactersAreThirtyTwoBitsApartAndNarrowOnesEight) {
  const std::array<std::uint32_t, 4> wide{0x12345641, 0xFFFFFF42, 0x00010043, 0};
  std::array<wchar_t, 4> from;
  static_assert(sizeof from == sizeof wide);
  std::memcpy(from.data(), wide.data(), sizeof wide);
  char narrow[6] = {'-', '-', '-', '-', '-', '\0'};
  EXPECT_EQ(wcstostr(narrow, from.data(), 4), 3u);
  EXPECT_EQ(std::string(narrow, 5), std::string("ABC\0-", 5));

  std::array<std::uint32_t, 4> back;
  back.fill(0xEEEEEEEE);
  std::array<wchar_t, 4> to;
  std::memcpy(to.data(), back.data(), sizeof to);
  EXPECT_EQ(strtowcs(to.data(), "\x80\xFF", 3), 2u);
  std::memcpy(back.data(), to.data(), sizeof back);
  EXPECT_THAT(back, ElementsAre(0x80u, 0xFFu, 0u, 0xEEEEEEEEu));
}

}  // namespace
}  // namespace oskernel_test
