// Byte streams against a string and a plain model of the slots, with seeds printed.

#include <algorithm>
#include <cstring>
#include <deque>
#include <random>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "kernel/buffer.h"
#include "kernel/link.h"
#include "kernel/trigger.h"
#include "support/seed.h"
#include "support/stream_fixture.h"

namespace oskernel_test {
namespace {

using ::testing::IsEmpty;

TEST_F(StreamTest, APlainStreamBehavesLikeAString) {
  const unsigned seed = test_seed();
  SCOPED_TRACE(seed);
  std::mt19937 random(seed);
  OSStream stream(0, 0);
  ULONG limit = 1000000;
  std::string model;
  std::deque<std::size_t> parts;  // the buffers' lengths
  std::size_t written = 0;
  const auto consume = [&](std::size_t len) {
    model.erase(0, len);
    while (len > 0 && len >= parts.front()) {
      len -= parts.front();
      parts.pop_front();
    }
    if (len > 0) parts.front() -= len;
  };
  for (int round = 0; round < 20000; ++round) {
    switch (pick(random, 0, 9)) {
      case 0:
      case 1:
      case 2:
      case 3: {
        if (parts.size() > 20) break;
        const std::size_t len =
            static_cast<std::size_t>(pick(random, 1, pick(random, 0, 4) == 0 ? 1600 : 40));
        const std::string text = pattern(static_cast<int>(len), static_cast<int>(written % 26));
        written += len;
        stream.Add(bytes_of(text), static_cast<UWORD>(len));
        model += text;
        parts.push_back(len);
        if (parts.size() > limit) {
          model.erase(0, parts.front());
          parts.pop_front();
        }
        break;
      }
      case 4: {
        const ULONG len = static_cast<ULONG>(pick(random, 0, 200));
        const std::size_t expected = std::min<std::size_t>(len, model.size());
        ASSERT_EQ(stream.Discard(len), expected);
        consume(expected);
        break;
      }
      case 5: {
        OSBuf* buf = stream.Get();
        ASSERT_EQ(buf == nullptr, parts.empty());
        if (buf == nullptr) break;
        ASSERT_EQ(buf->length, parts.front());
        ASSERT_EQ(std::memcmp(buf->data, model.data(), buf->length), 0);
        consume(parts.front());
        buf->Free();
        break;
      }
      case 6: {
        const int c = stream.Getc();
        ASSERT_EQ(c, model.empty() ? -1 : static_cast<unsigned char>(model.front()));
        if (!model.empty()) consume(1);
        break;
      }
      case 7: {
        UBYTE c = 0;
        ASSERT_EQ(stream.Get(&c), model.empty() ? FALSE : TRUE);
        if (model.empty()) break;
        ASSERT_EQ(c, static_cast<UBYTE>(model.front()));
        consume(1);
        break;
      }
      case 8:
        if (pick(random, 0, 20) == 0) {
          limit = pick(random, 0, 1) == 0 ? 1000000 : static_cast<ULONG>(pick(random, 1, 8));
          stream.SetMaxLength(static_cast<ULONG>(pick(random, 0, 3000)), limit);
        } else if (pick(random, 0, 50) == 0) {
          stream.Flush();
          model.clear();
          parts.clear();
        }
        break;
      default: {
        const ULONG offset = static_cast<ULONG>(pick(random, 0, static_cast<int>(model.size()) + 5));
        const ULONG len =
            pick(random, 0, 9) == 0 ? 0xFFFFFFFF - offset / 2 : static_cast<ULONG>(pick(random, 0, 3000));
        const std::string expected = offset < model.size() ? model.substr(offset, len) : "";
        std::vector<UBYTE> dest(model.size() + 1, '#');
        ASSERT_EQ(stream.Read(offset, len, dest.data()), expected.size());
        ASSERT_EQ(std::string(dest.begin(), dest.begin() + static_cast<std::ptrdiff_t>(expected.size())),
                  expected);
        ASSERT_EQ(dest[expected.size()], '#');
        break;
      }
    }
    ASSERT_EQ(stream.Length(), model.size());
    ASSERT_EQ(stream.Size(), static_cast<int>(parts.size()));
    ASSERT_EQ(stream.IsFull() != 0, stream.Length() >= stream.max_total_length || parts.size() >= limit);
    ASSERT_EQ(OSBuf::allocated_list->Size(), static_cast<int>(parts.size()));
  }
  ASSERT_EQ(held(stream), model);
}

/// The accounting of a compressible stream, as plain as it can be said.
struct SlotModel {
  UWORD length[kSlots] = {};
  std::vector<ULONG> callbacks[kSlots];
  int w = 0, r = 0;
  std::vector<ULONG> due;

  void add(std::size_t len, const std::vector<ULONG>& numbers) {
    const std::size_t at = static_cast<std::size_t>(w);
    if ((w + 1) % kSlots == r) {
      length[at] = static_cast<UWORD>(length[at] + len);
    } else {
      length[at] = static_cast<UWORD>(len);
      w = (w + 1) % kSlots;
    }
    callbacks[at].insert(callbacks[at].end(), numbers.begin(), numbers.end());
  }
  void retire() {
    const std::size_t at = static_cast<std::size_t>(r);
    due.insert(due.end(), callbacks[at].begin(), callbacks[at].end());
    callbacks[at].clear();
    r = (r + 1) % kSlots;
  }
  void consume(std::size_t len) {
    while (len > 0 && r != w) {
      const std::size_t at = static_cast<std::size_t>(r);
      if (len > length[at]) {
        len -= length[at];
        length[at] = 0;
      } else {
        length[at] = static_cast<UWORD>(length[at] - len);
        len = 0;
      }
      retire();
    }
  }
};

TEST_F(StreamTest, ACompressibleStreamKeepsItsBytesAndItsSlots) {
  const unsigned seed = test_seed();
  SCOPED_TRACE(seed);
  std::mt19937 random(seed);
  Stop();
  cfg.buf_qty[1] = cfg.buf_qty[2] = 200;  // enough for a long buffer in short fragments
  StartQuiet();
  Stream stream(1);
  UWORD fragment = 600;
  stream.SetMaxFragment(fragment);
  std::string model;
  SlotModel slots;
  std::size_t written = 0;
  ULONG number = 0;
  for (int round = 0; round < 10000; ++round) {
    switch (pick(random, 0, 9)) {
      case 0:
      case 1:
      case 2:
      case 3:
      case 4: {
        if (model.size() > 6000 || stream.Size() > 15) break;
        std::size_t len = static_cast<std::size_t>(pick(random, 0, pick(random, 0, 6) == 0 ? 1600 : 12));
        const std::string text = pattern(static_cast<int>(len), static_cast<int>(written % 26));
        written += len;
        OSBuf* buf = OSBuf::Alloc(bytes_of(text), static_cast<int>(len));
        std::vector<ULONG> numbers;
        for (int i = pick(random, 0, 2); i > 0 && OSCallback::callback_pool_size > 10; --i) {
          buf->AddDataCallback(callback(number));
          numbers.insert(numbers.begin(), number++);
        }
        stream.Add(buf);
        model += text;
        while (len > fragment) {
          slots.add(fragment, {});
          len -= fragment;
        }
        slots.add(len, numbers);
        break;
      }
      case 5:
      case 6: {
        const std::size_t len =
            static_cast<std::size_t>(pick(random, 0, pick(random, 0, 3) == 0 ? 1000 : 20));
        const std::size_t expected = std::min(len, model.size());
        ASSERT_EQ(stream.Discard(static_cast<ULONG>(len)), expected);
        slots.consume(expected);
        model.erase(0, expected);
        break;
      }
      case 7:
        ASSERT_EQ(stream.Getc(), model.empty() ? -1 : static_cast<unsigned char>(model.front()));
        if (model.empty()) break;
        slots.consume(1);
        model.erase(0, 1);
        break;
      case 8: {
        if (pick(random, 0, 5) != 0) break;
        OSBuf* buf = stream.Get();
        if (buf == nullptr) break;
        ASSERT_EQ(content(buf), model.substr(0, buf->length));
        slots.consume(buf->length);
        model.erase(0, buf->length);
        buf->Free();
        break;
      }
      default:
        if (pick(random, 0, 100) == 0) {
          fragment = static_cast<UWORD>(pick(random, 30, 600));
          stream.SetMaxFragment(fragment);
        }
        if (pick(random, 0, 100) == 0) {
          stream.Flush();
          while (slots.r != slots.w) slots.retire();
          model.clear();
        }
        break;
    }
    ASSERT_EQ(stream.Length(), model.size());
    ASSERT_EQ(held(stream), model);
    ASSERT_EQ(ran_, slots.due);
    ASSERT_EQ(stream.comp_w, slots.w);
    ASSERT_EQ(stream.comp_r, slots.r);
    for (int i = slots.r; i != slots.w; i = (i + 1) % kSlots) {
      ASSERT_EQ(stream.comp_lengths[i], slots.length[i]);
    }
    ran_.clear();
    slots.due.clear();
  }
  EXPECT_THAT(console.fatals(), IsEmpty());
}

}  // namespace
}  // namespace oskernel_test
