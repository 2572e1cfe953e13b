// How message buffers are printed.

#include <arpa/inet.h>
#include <dlfcn.h>
#include <sys/mman.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <memory>
#include <regex>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "kernel/buffer.h"
#include "kernel/io.h"
#include "support/buffer_fixture.h"
#include "support/failing_new.h"

namespace oskernel_test {
namespace {

using ::testing::ElementsAre;
using ::testing::ElementsAreArray;

/// The line that Print begins with, as if the buffer had just been allocated.
std::string formatted_line(const OSBuf* buf) {
  char text[200];
  snprintf(text, sizeof text, "Buf: buf %p, data=%p, size %d, len %d, age %us, ptr %p",
           static_cast<const void*>(buf), static_cast<void*>(buf->data), buf->size, buf->length, 0u,
           buf->destPtr);
  return text;
}

/// What was printed, call by call. On a loaded machine a buffer grows a second old in a test: every age becomes 0.
class BufferPrint : public Buffer {
 protected:
  void TearDown() override {
    FailingNew::reset();
    Buffer::TearDown();
  }
  std::vector<std::string> printed() const {
    std::vector<std::string> calls = console.calls();
    for (std::string& call : calls) call = std::regex_replace(call, std::regex(", age \\d+s"), ", age 0s");
    return calls;
  }
  /// The line that ends dump_allocated.
  static std::string summary() {
    char text[100];
    snprintf(text, sizeof text, "OSBuffer: L=%04d CB=%04d B=%02d,%02d,%02d,%02d",
             ring_length(*OSLink::link_pool), ring_length(OSCallback::callback_pool), OSBuf::PoolSize(0),
             OSBuf::PoolSize(1), OSBuf::PoolSize(2), OSBuf::PoolSize(3));
    return text;
  }
  /// Whether the system lets a process read its own memory by address; some containers do not.
  static bool own_memory_can_be_asked_for() {
    int from = 1, to = 0;
    const iovec local{&to, sizeof to};
    const iovec remote{&from, sizeof from};
    return process_vm_readv(getpid(), &local, 1, &remote, 1, 0) == sizeof from;
  }
};

TEST_F(BufferPrint, PrintsOneLineForAnEmptyBuffer) {
  OSBuf* buf = OSBuf::Alloc(10);
  buf->Print();
  EXPECT_THAT(printed(), ElementsAre(formatted_line(buf)));
  console.clear();
  OSBuf* none = OSBuf::Alloc(0);
  none->Print();
  EXPECT_THAT(printed(), ElementsAre(formatted_line(none)));
  buf->Free();
  none->Free();
}

TEST_F(BufferPrint, PrintsAHexDumpOfSixteenBytesALine) {
  OSBuf* buf = OSBuf::Alloc("ABCDEFGHIJKLMNOPqrs");
  buf->Print();
  EXPECT_THAT(printed(),
              ElementsAre(formatted_line(buf),
                          "0000  41 42 43 44 45 46 47 48 49 4a 4b 4c 4d 4e 4f 50  ABCDEFGHIJKLMNOP",
                          "0010  71 72 73                                         qrs"));
  buf->Free();
}

/// The dump as it is described: offset, bytes, blanks for missing ones, two blanks, characters.
std::vector<std::string> dump_lines(const std::string& data) {
  std::vector<std::string> lines;
  const std::size_t shown = std::min<std::size_t>(data.size(), 64);
  for (std::size_t line = 0; line < shown; line += 16) {
    char part[16];
    snprintf(part, sizeof part, "%04x ", static_cast<unsigned>(line));
    std::string text = part, characters;
    for (std::size_t i = line; i < line + 16; ++i) {
      if (i < shown) {
        const unsigned char c = static_cast<unsigned char>(data[i]);
        snprintf(part, sizeof part, " %02x", c);
        text += part;
        characters += c >= 0x20 && c < 0x7F ? static_cast<char>(c) : '.';
      } else {
        text += "   ";
      }
    }
    lines.push_back(text + "  " + characters);
  }
  return lines;
}

/// What Print shows of a buffer that holds `data`.
std::vector<std::string> all_lines(const OSBuf* buf, const std::string& data) {
  std::vector<std::string> lines = dump_lines(data);
  lines.insert(lines.begin(), formatted_line(buf));
  return lines;
}

TEST_F(BufferPrint, DumpsTheFirst64BytesOfAnyLength) {
  for (int len : {0, 1, 2, 15, 16, 17, 31, 32, 33, 47, 48, 49, 63, 64, 65, 200, 1000}) {
    SCOPED_TRACE(len);
    console.clear();
    std::string text;
    for (int i = 0; i < len; ++i) text += static_cast<char>(i * 7 + len);
    OSBuf* buf = OSBuf::Alloc(bytes_of(text), len);
    buf->Print();
    std::vector<std::string> expected = all_lines(buf, text);
    EXPECT_THAT(printed(), ElementsAreArray(expected));
    buf->Free();
  }
}

TEST_F(BufferPrint, DumpsEveryByteValueAsItselfOrAsADot) {
  for (int start = 0; start < 256; start += 64) {
    console.clear();
    std::string text;
    for (int i = 0; i < 64; ++i) text += static_cast<char>(start + i);
    OSBuf* buf = OSBuf::Alloc(bytes_of(text), 64);
    buf->Print();
    std::vector<std::string> expected = all_lines(buf, text);
    EXPECT_THAT(printed(), ElementsAreArray(expected));
    buf->Free();
  }
}

TEST_F(BufferPrint, PercentSignsInTheDataAreData) {
  OSBuf* buf = OSBuf::Alloc("%s%n%d%%");
  buf->Print();
  EXPECT_EQ(console.calls().back(), "0000  25 73 25 6e 25 64 25 25                          %s%n%d%%");
  buf->Free();
}

TEST_F(BufferPrint, PrintsTheClassItsDestinationNames) {
  OSBuf* buf = OSBuf::Alloc(10);
  buf->destPtr = &OSNullIO;
  Dl_info info;
  ASSERT_NE(dladdr(buf->destPtr, &info), 0);
  ASSERT_NE(info.dli_sname, nullptr);
  buf->Print();
  EXPECT_THAT(printed(), ElementsAre(formatted_line(buf) + " (" + info.dli_sname + ") "));

  console.clear();
  buf->local_ipaddr = inet_addr("192.168.1.2");
  buf->local_port = htons(5060);
  buf->remote_ipaddr = inet_addr("10.0.0.255");
  buf->remote_port = htons(65535);
  buf->Print();
  EXPECT_THAT(printed(), ElementsAre(formatted_line(buf) + " (" + info.dli_sname +
                                     ") [192.168.1.2:5060,10.0.0.255:65535]"));
  buf->Free();
}

TEST_F(BufferPrint, OneAddressIsEnoughForBothToBeShown) {
  OSBuf* buf = OSBuf::Alloc(10);
  buf->destPtr = &OSNullIO;
  buf->local_ipaddr = inet_addr("127.0.0.1");
  buf->Print();
  EXPECT_NE(console.text().find(") [127.0.0.1:0,0.0.0.0:0]"), std::string::npos) << console.text();
  console.clear();
  buf->local_ipaddr = 0;
  buf->remote_ipaddr = inet_addr("1.2.3.4");
  buf->remote_port = htons(1);
  buf->Print();
  EXPECT_NE(console.text().find(") [0.0.0.0:0,1.2.3.4:1]"), std::string::npos) << console.text();
  console.clear();
  buf->remote_ipaddr = 0;  // ports alone are no address
  buf->Print();
  EXPECT_EQ(console.text().find('['), std::string::npos);
  buf->Free();
}

TEST_F(BufferPrint, WithoutANameTheShortLineIsPrintedAndShowsNoAddress) {
  OSBuf* buf = OSBuf::Alloc(10);
  buf->local_ipaddr = inet_addr("192.168.1.2");
  buf->Print();
  EXPECT_THAT(printed(), ElementsAre(formatted_line(buf))) << "no destination";

  const auto on_the_heap = std::make_unique<int>(0);
  static int in_the_program = 0;
  for (void* destination : {static_cast<void*>(on_the_heap.get()), static_cast<void*>(&in_the_program)}) {
    Dl_info info{};
    const bool named = dladdr(destination, &info) != 0 && info.dli_sname != nullptr;
    if (named) continue;
    console.clear();
    buf->destPtr = destination;
    buf->Print();
    EXPECT_THAT(printed(), ElementsAre(formatted_line(buf)));
  }
  buf->Free();
}

// Pulls and small pushes do not check, so the data may reach outside the storage.
TEST_F(BufferPrint, BytesOutsideTheStorageAreNotShown) {
  struct Row {
    const char* name;
    int position;  // of data in a storage of 100 bytes
    UWORD length;
    int shown;
  };
  const Row rows[] = {
      {"as far as it goes", 97, 10, 3}, {"at the end", 100, 5, 0},      {"behind the end", 101, 65535, 0},
      {"far behind", 60000, 64, 0},     {"below the start", -1, 10, 0}, {"from the start", 0, 65535, 64},
      {"to the end", 36, 64, 64},       {"nearly", 37, 64, 63},
  };
  for (const Row& row : rows) {
    for (const bool all : {false, true}) {
      SCOPED_TRACE(row.name + std::string(all ? ", dump_allocated" : ", Print"));
      console.clear();
      OSBuf* buf = OSBuf::Alloc(10);
      for (int i = 0; i < 100; ++i) buf->payload[i] = static_cast<UBYTE>('A' + i % 26);
      const std::string storage(reinterpret_cast<char*>(buf->payload), 100);
      buf->data = buf->payload + row.position;
      buf->length = row.length;
      std::vector<std::string> expected = {formatted_line(buf)};
      if (row.shown > 0) {
        for (const std::string& line : dump_lines(storage.substr(static_cast<std::size_t>(row.position),
                                                                 static_cast<std::size_t>(row.shown)))) {
          expected.push_back(line);
        }
      }
      if (all) {
        dump_allocated();
        expected.push_back(summary());
      } else {
        buf->Print();
      }
      EXPECT_THAT(printed(), ElementsAreArray(expected));
      reset_and_free(buf);
    }
  }
}

TEST_F(BufferPrint, BytesOfLentStorageAreShown) {
  for (int request : {0, 10, 700}) {
    SCOPED_TRACE(request);
    console.clear();
    std::vector<UBYTE> lent(5000, 'z');
    OSBuf* buf = OSBuf::Alloc(request);
    buf->SetPayload(lent.data(), 5000);
    buf->PushData("lent storage, more than one line of it");
    std::vector<std::string> expected = all_lines(buf, content(buf));
    buf->Print();
    EXPECT_THAT(printed(), ElementsAreArray(expected));
    if (own_memory_can_be_asked_for()) {
      console.clear();
      expected.push_back(summary());
      dump_allocated();
      EXPECT_THAT(printed(), ElementsAreArray(expected));
    }
    buf->Free();
  }
}

// Whoever lists all buffers is not their holder: the holder may release the storage at that very moment.
TEST_F(BufferPrint, LentStorageThatIsGoneIsNotShownInTheListOfAll) {
  const auto page = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
  auto* pages = static_cast<UBYTE*>(
      mmap(nullptr, 2 * page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
  ASSERT_NE(static_cast<void*>(pages), MAP_FAILED);
  OSBuf* buf = OSBuf::Alloc(0);
  buf->SetPayload(pages, 40);
  buf->PushData("twenty bytes of text");
  OSBuf* half = OSBuf::Alloc(0);
  half->SetPayload(pages + page - 10, 20);
  half->PushData("ten and other tenth.");
  // Out of reach, and nobody else's meanwhile.
  ASSERT_EQ(mprotect(pages + page, page, PROT_NONE), 0);
  std::vector<std::string> expected = {
      formatted_line(buf),  dump_lines("twenty bytes of text")[0], dump_lines("twenty bytes of text")[1],
      formatted_line(half), dump_lines("ten and ot")[0],           summary()};
  if (own_memory_can_be_asked_for()) {
    dump_allocated();
    EXPECT_THAT(printed(), ElementsAreArray(expected));
  }
  ASSERT_EQ(mprotect(pages, page, PROT_NONE), 0);
  console.clear();
  dump_allocated();
  EXPECT_THAT(printed(), ElementsAre(formatted_line(buf), formatted_line(half), summary()));
  buf->Free();
  half->Free();
  ASSERT_EQ(munmap(pages, 2 * page), 0);
}

TEST_F(BufferPrint, WithoutStorageThereIsNothingToShow) {
  OSBuf* buf = OSBuf::Alloc(0);
  buf->PushData(ULONG{1});
  buf->Print();
  dump_allocated();
  EXPECT_THAT(printed(), ElementsAre(formatted_line(buf), formatted_line(buf), summary()));
  buf->Free();
}

// The list is printed outside the section, from copies. When there is no memory for all of them at once, it is
// printed in turns.
TEST_F(BufferPrint, EveryBufferIsListedOnceWithAndWithoutMemoryForTheList) {
  for (const bool memory : {true, false}) {
    for (int quantity : {1, 7, 8, 9, 16, 17, 50}) {
      SCOPED_TRACE(std::to_string(quantity) + (memory ? "" : " without memory"));
      console.clear();
      std::vector<OSBuf*> held;
      std::vector<std::string> expected;
      for (int i = 0; i < quantity; ++i) {
        held.push_back(OSBuf::Alloc(0));
        expected.push_back(formatted_line(held.back()));
      }
      expected.push_back(summary());
      if (!memory) FailingNew::fail_at_least(0);
      dump_allocated();
      FailingNew::reset();
      EXPECT_THAT(printed(), ElementsAreArray(expected));
      for (OSBuf* buf : held) buf->Free();
    }
  }
}

TEST_F(BufferPrint, ABufferTakenWhileTheListIsPrintedIsLeftOut) {
  class Taking : public RecordingConsole {
   public:
    void vPrint(const char* format, va_list arguments) override OSKERNEL_PRINTF(2, 0) {
      taken.push_back(OSBuf::Alloc(0));
      RecordingConsole::vPrint(format, arguments);
    }
    std::vector<OSBuf*> taken;
  };
  for (const bool memory : {true, false}) {
    SCOPED_TRACE(memory);
    Taking taking;
    std::vector<OSBuf*> held;
    for (int i = 0; i < 20; ++i) held.push_back(OSBuf::Alloc(0));
    Console = &taking;
    if (!memory) FailingNew::fail_at_least(0);
    dump_allocated();
    FailingNew::reset();
    Console = &console;
    EXPECT_EQ(taking.count("Buf: buf "), 20);
    EXPECT_EQ(taking.calls().size(), 21u);
    for (OSBuf* buf : held) buf->Free();
    for (OSBuf* buf : taking.taken) buf->Free();
  }
}

TEST_F(BufferPrint, BuffersThatAreFreedWhileTheListIsPrintedEndItEarlier) {
  class Freeing : public RecordingConsole {
   public:
    void vPrint(const char* format, va_list arguments) override OSKERNEL_PRINTF(2, 0) {
      RecordingConsole::vPrint(format, arguments);
      for (OSBuf* buf : held) buf->Free();
      held.clear();
    }
    std::vector<OSBuf*> held;
  };
  for (const bool memory : {true, false}) {
    SCOPED_TRACE(memory);
    Freeing freeing;
    std::vector<OSBuf*> stay;
    for (int i = 0; i < 10; ++i) stay.push_back(OSBuf::Alloc(0));
    for (int i = 0; i < 10; ++i) freeing.held.push_back(OSBuf::Alloc(0));
    Console = &freeing;
    if (!memory) FailingNew::fail_at_least(0);
    dump_allocated();
    FailingNew::reset();
    Console = &console;
    EXPECT_EQ(freeing.count("Buf: buf "), memory ? 20 : 10) << "as they were when they were copied";
    for (OSBuf* buf : stay) buf->Free();
  }
}

TEST_F(BufferPrint, AConsoleThatGoesAwayWhileItIsUsedIsNotUsedAgain) {
  class Leaving : public RecordingConsole {
   public:
    void vPrint(const char* format, va_list arguments) override OSKERNEL_PRINTF(2, 0) {
      RecordingConsole::vPrint(format, arguments);
      if (--stays == 0) Console = nullptr;
    }
    int stays = 1;
  };
  OSBuf* buf = OSBuf::Alloc(bytes_of(pattern(64)), 64);
  for (int stays : {1, 2, 3}) {
    for (const bool all : {false, true}) {
      Leaving leaving;
      leaving.stays = stays;
      Console = &leaving;
      if (all) {
        dump_allocated();
      } else {
        buf->Print();
      }
      EXPECT_EQ(leaving.calls().size(), static_cast<std::size_t>(stays));
    }
  }
  Console = &console;
  buf->Free();
}

TEST_F(BufferPrint, PrintingWithoutAConsoleIsHarmless) {
  OSBuf* buf = OSBuf::Alloc("text");
  Console = nullptr;
  buf->Print();
  dump_allocated();
  Console = &console;
  buf->Free();
}

TEST_F(BufferPrint, DumpAllocatedPrintsEveryBufferAndThenTheCounts) {
  OSBuf* a = OSBuf::Alloc("first");
  OSBuf* b = OSBuf::Alloc(0);
  OSBuf* c = OSBuf::Alloc(700);
  OSCallback* out = callback("x");
  dump_allocated();
  EXPECT_EQ(OSBuf::PoolSize(0), 99);
  EXPECT_EQ(OSBuf::PoolSize(1), 24);
  EXPECT_EQ(OSBuf::PoolSize(2), 25);
  EXPECT_EQ(OSBuf::PoolSize(3), 54);
  EXPECT_EQ(ring_length(OSCallback::callback_pool), 399);
  EXPECT_THAT(printed(), ElementsAre(formatted_line(a), dump_lines("first").front(), formatted_line(b),
                                     formatted_line(c), summary()));
  out->Free();
  a->Free();
  b->Free();
  c->Free();
}

TEST_F(BufferPrint, DumpAllocatedWithNothingAllocatedPrintsTheCountsAlone) {
  Stop();
  for (int i = 0; i < 4; ++i) cfg.buf_qty[i] = i;
  cfg.callback_qty = 7;
  cfg.link_qty = 5;
  StartQuiet();
  dump_allocated();
  EXPECT_THAT(printed(), ElementsAre("OSBuffer: L=0005 CB=0007 B=00,01,02,03"));
  Stop();
  cfg = KernelCfg();
  StartQuiet();
}

}  // namespace
}  // namespace oskernel_test
