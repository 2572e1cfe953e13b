// The console: what each operation prints through which call, slots, and the line editor.

#include "kernel/console.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <cstdarg>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <string>
#include <thread>
#include <type_traits>
#include <utility>
#include <vector>

#include "support/kernel_fixture.h"
#include "support/vtable_slot.h"
#include "support/watched_thread.h"

namespace oskernel_test {
namespace {

using Strings = std::vector<std::string>;

static_assert(WARNING_SYSTEM == 0);
static_assert(WARNING_RECORDING == 1);
static_assert(sizeof(OSConsole) == sizeof(void*), "no data fields");
static_assert(std::is_same_v<decltype(Console), OSConsole*>);
static_assert(std::has_virtual_destructor_v<OSConsole>);

std::string formatted(const char* format, va_list arguments) OSKERNEL_PRINTF(1, 0);
std::string formatted(const char* format, va_list arguments) {
  char text[1000];
  vsnprintf(text, sizeof text, format, arguments);
  return text;
}

/// Overrides what an application must, output and input, and nothing else.
class PlainConsole : public OSConsole {
 public:
  void vPrint(const char* format, va_list arguments) override OSKERNEL_PRINTF(2, 0) {
    std::string text = formatted(format, arguments);
    const std::lock_guard<std::mutex> lock(mutex_);
    formats_.push_back(format);
    calls_.push_back(std::move(text));
  }
  int Getc() override {
    ++getc_calls;
    if (next_ >= input.size()) return -1;
    return input[next_++];
  }

  void type(const std::string& text) {
    input.clear();
    for (const char c : text) input.push_back(static_cast<unsigned char>(c));
    next_ = 0;
  }
  Strings calls() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return calls_;
  }
  Strings formats() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return formats_;
  }
  std::string text() const {
    std::string all;
    for (const std::string& call : calls()) all += call;
    return all;
  }
  void clear() {
    const std::lock_guard<std::mutex> lock(mutex_);
    calls_.clear();
    formats_.clear();
  }

  std::vector<int> input;
  int getc_calls = 0;

 private:
  mutable std::mutex mutex_;
  Strings calls_;
  Strings formats_;
  std::size_t next_ = 0;
};

// ---- The base ----------------------------------------------------------------------------------------------

TEST(ConsoleBase, OperationsStandInTheirSlots) {
  using VarFormat = void (OSConsole::*)(const char*, ...);
  EXPECT_EQ(vtable_slot(&OSConsole::vPrint), 2);  // behind the destructor's two
  EXPECT_EQ(vtable_slot(&OSConsole::Print), 3);
  EXPECT_EQ(vtable_slot(static_cast<VarFormat>(&OSConsole::Warning)), 4);
  EXPECT_EQ(vtable_slot(static_cast<void (OSConsole::*)(WarningType, const char*, ...)>(&OSConsole::Warning)),
            5);
  EXPECT_EQ(
      vtable_slot(static_cast<void (OSConsole::*)(WarningType, const char*, va_list)>(&OSConsole::Warning)),
      6);
  EXPECT_EQ(vtable_slot(&OSConsole::Fatal), 7);
  EXPECT_EQ(vtable_slot(&OSConsole::Notify), 8);
  EXPECT_EQ(vtable_slot(&OSConsole::SetOutput), 9);
  EXPECT_EQ(vtable_slot(&OSConsole::Getc), 10);
  EXPECT_EQ(vtable_slot(&OSConsole::Gets), 11);
}

TEST(ConsoleBase, PrintsNothingAndReadsNothing) {
  OSConsole console;
  testing::internal::CaptureStdout();
  testing::internal::CaptureStderr();
  console.Print("text %d\n", 1);
  console.Warning("warning %d", 2);
  console.Warning(WARNING_RECORDING, "warning %d", 3);
  console.Notify("notification %d", 4);
  int output = 0;
  console.SetOutput(&output);
  console.SetOutput(nullptr);
  EXPECT_EQ(console.Getc(), -1);
  char line[10] = "untouched";
  EXPECT_EQ(console.Gets(line, sizeof line, nullptr), -1);
  std::fflush(nullptr);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

TEST(ConsoleBase, IsNotInstalledByTheLibrary) { EXPECT_EQ(Console, nullptr); }

// ---- Framing -----------------------------------------------------------------------------------------------

TEST(ConsoleFraming, PrintPassesItsArgumentsOn) {
  PlainConsole console;
  console.Print("%s %d %lu %c%%\n", "text", -5, 7ul, 'x');
  EXPECT_EQ(console.calls(), Strings{"text -5 7 x%\n"});
  EXPECT_EQ(console.formats(), Strings{"%s %d %lu %c%%\n"});
}

TEST(ConsoleFraming, WarningIsThreeCalls) {
  PlainConsole console;
  console.Warning("buffer %d of %s", 3, "pool");
  EXPECT_EQ(console.calls(), (Strings{"WARNING:\r\n", "buffer 3 of pool", "\r\n"}));
  EXPECT_EQ(console.formats(), (Strings{"WARNING:\r\n", "buffer %d of %s", "\r\n"}));
}

TEST(ConsoleFraming, WarningOfEitherTypeIsTheSameThreeCalls) {
  for (const WarningType type : {WARNING_SYSTEM, WARNING_RECORDING}) {
    PlainConsole console;
    console.Warning(type, "buffer %d of %s", 3, "pool");
    EXPECT_EQ(console.calls(), (Strings{"WARNING:\r\n", "buffer 3 of pool", "\r\n"}));
  }
}

TEST(ConsoleFraming, NotificationIsThreeCalls) {
  PlainConsole console;
  console.Notify("line %d is up", 2);
  EXPECT_EQ(console.calls(), (Strings{"NOTIFICATION:\r\n", "line 2 is up", "\r\n"}));
  EXPECT_EQ(console.formats(), (Strings{"NOTIFICATION:\r\n", "line %d is up", "\r\n"}));
}

TEST(ConsoleFraming, WarningWithoutArgumentsIsThreeCalls) {
  PlainConsole console;
  console.Warning("plain");
  console.Warning(WARNING_SYSTEM, "typed");
  EXPECT_EQ(console.calls(), (Strings{"WARNING:\r\n", "plain", "\r\n", "WARNING:\r\n", "typed", "\r\n"}));
}

// A literal 0 converts to a va_list where that is a pointer, and must still count as the first argument.
TEST(ConsoleFraming, ZeroAsTheOnlyArgumentIsAnArgument) {
  PlainConsole console;
  console.Warning(WARNING_RECORDING, "%d", 0);
  EXPECT_EQ(console.calls(), (Strings{"WARNING:\r\n", "0", "\r\n"}));
  console.clear();
  OSConsole* base = &console;
  base->Warning(WARNING_SYSTEM, "code %d", 0);
  EXPECT_EQ(console.calls(), (Strings{"WARNING:\r\n", "code 0", "\r\n"}));
  console.clear();
  base->Warning(WARNING_SYSTEM, "codes %d %d", 0, 0);
  base->Warning("code %d", 0);
  EXPECT_EQ(console.text(), "WARNING:\r\ncodes 0 0\r\nWARNING:\r\ncode 0\r\n");
}

TEST(ConsoleFraming, NullPointerAsTheOnlyArgumentIsAnArgument) {
  PlainConsole console;
  OSConsole* base = &console;
  void* nothing = nullptr;
  base->Warning(WARNING_SYSTEM, "at %p", nothing);
  EXPECT_EQ(console.text(), "WARNING:\r\nat (nil)\r\n");
}

/// Overrides every printing operation and notes which one was reached.
class SlotConsole : public OSConsole {
 public:
  void vPrint(const char* format, va_list arguments) override OSKERNEL_PRINTF(2, 0) {
    reached.push_back("vPrint " + formatted(format, arguments));
  }
  void Print(const char* format, ...) override OSKERNEL_PRINTF(2, 3) {
    va_list arguments;
    va_start(arguments, format);
    reached.push_back("Print " + formatted(format, arguments));
    va_end(arguments);
  }
  using OSConsole::Warning;
  void Warning(WarningType type, const char* format, va_list arguments) override OSKERNEL_PRINTF(3, 0) {
    reached.push_back("Warning " + std::to_string(type));
    OSConsole::Warning(type, format, arguments);
  }

  Strings reached;
};

TEST(ConsoleFraming, GoesThroughTheVirtualPrintAndVPrint) {
  SlotConsole console;
  OSConsole* base = &console;
  base->Notify("news %d", 1);
  EXPECT_EQ(console.reached, (Strings{"Print NOTIFICATION:\r\n", "vPrint news 1", "Print \r\n"}));
}

TEST(ConsoleFraming, UntypedWarningIsASystemWarning) {
  SlotConsole console;
  OSConsole* base = &console;
  base->Warning("text %d", 1);
  EXPECT_EQ(console.reached, (Strings{"Warning 0", "Print WARNING:\r\n", "vPrint text 1", "Print \r\n"}));
}

TEST(ConsoleFraming, TypedWarningKeepsItsType) {
  SlotConsole console;
  OSConsole* base = &console;
  base->Warning(WARNING_RECORDING, "text %d", 1);
  EXPECT_EQ(console.reached, (Strings{"Warning 1", "Print WARNING:\r\n", "vPrint text 1", "Print \r\n"}));
}

/// Overrides the variadic typed form only.
class VariadicWarningConsole : public PlainConsole {
 public:
  using OSConsole::Warning;
  void Warning(WarningType type, const char* format, ...) override OSKERNEL_PRINTF(3, 4) {
    va_list arguments;
    va_start(arguments, format);
    reached.push_back(std::to_string(type) + " " + formatted(format, arguments));
    va_end(arguments);
  }

  Strings reached;
};

TEST(ConsoleFraming, ZeroReachesTheVariadicSlot) {
  VariadicWarningConsole console;
  OSConsole* base = &console;
  base->Warning(WARNING_RECORDING, "%d", 0);
  base->Warning(WARNING_SYSTEM, "%d", 1);
  base->Warning(WARNING_SYSTEM, "none");
  EXPECT_EQ(console.reached, (Strings{"1 0", "0 1", "0 none"}));
  EXPECT_TRUE(console.calls().empty());
}

void warn_with_list(OSConsole* console, WarningType type, const char* format, ...) OSKERNEL_PRINTF(3, 4);
void warn_with_list(OSConsole* console, WarningType type, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  console->Warning(type, format, arguments);
  va_end(arguments);
}

TEST(ConsoleFraming, ArgumentListReachesItsOwnSlot) {
  VariadicWarningConsole variadic;
  warn_with_list(&variadic, WARNING_RECORDING, "text %d %s", 1, "x");
  EXPECT_TRUE(variadic.reached.empty());
  EXPECT_EQ(variadic.calls(), (Strings{"WARNING:\r\n", "text 1 x", "\r\n"}));

  SlotConsole slots;
  warn_with_list(&slots, WARNING_RECORDING, "text %d", 1);
  EXPECT_EQ(slots.reached, (Strings{"Warning 1", "Print WARNING:\r\n", "vPrint text 1", "Print \r\n"}));
}

// ---- Fatal -------------------------------------------------------------------------------------------------

TEST(ConsoleFatal, PrintsItsFrameAndNeverReturns) {
  IN_FRESH_PROCESS({
    static PlainConsole console;
    static std::atomic<bool> returned{false};
    std::thread([] {
      static_cast<OSConsole*>(&console)->Fatal("no %s left, %d", "memory", 7);
      returned = true;
    }).detach();
    EXPECT_TRUE(wait_until([] { return console.calls().size() >= 3; }));
    EXPECT_FALSE(wait_until([] { return returned.load(); }, 300));
    EXPECT_EQ(console.calls(), (Strings{"FATAL:\r\n", "no memory left, 7", "\r\n"}));
    EXPECT_EQ(console.formats(), (Strings{"FATAL:\r\n", "no %s left, %d", "\r\n"}));
  });
}

// The frame goes through the virtual operations, as for the other reports.
TEST(ConsoleFatal, GoesThroughTheVirtualPrint) {
  IN_FRESH_PROCESS({
    class Locked : public OSConsole {
     public:
      void vPrint(const char*, va_list) override OSKERNEL_PRINTF(2, 0) { order = order * 10 + 1; }
      void Print(const char*, ...) override OSKERNEL_PRINTF(2, 3) { order = order * 10 + 2; }
      std::atomic<int> order{0};
    };
    static Locked console;
    std::thread([] { console.Fatal("text"); }).detach();
    EXPECT_TRUE(wait_until([] { return console.order == 212; }));
  });
}

TEST(ConsoleFatal, OfADerivedConsoleMayReturn) {
  RecordingConsole console;
  OSConsole* base = &console;
  base->Fatal("code %d", 0);
  EXPECT_EQ(console.fatals(), Strings{"code 0"});
}

// ---- The line editor ---------------------------------------------------------------------------------------

constexpr char kErase[] = "\b \b";
constexpr char kBell[] = "\a";

class ConsoleLine : public ::testing::Test {
 protected:
  /// Types the characters into Gets with a buffer of `size` bytes; the byte behind it must stay as it is.
  int gets(const std::string& typed, int size = 80, char** history = nullptr) {
    console.type(typed);
    console.clear();
    console.getc_calls = 0;
    std::memset(buffer_, kUntouched, sizeof buffer_);
    const int result = console.Gets(buffer_, size, history);
    for (std::size_t i = static_cast<std::size_t>(size); i < sizeof buffer_; ++i) {
      EXPECT_EQ(buffer_[i], kUntouched) << "written behind the buffer at " << i;
    }
    return result;
  }
  std::string line() const { return std::string(buffer_, strnlen(buffer_, sizeof buffer_)); }
  std::string echo() const { return console.text(); }

  PlainConsole console;

 private:
  static constexpr char kUntouched = 0x5C;
  char buffer_[200];
};

/// Lines as Gets takes them: a null-terminated array of strings that may be written to.
class History {
 public:
  explicit History(Strings lines) : lines_(std::move(lines)) {
    for (std::string& entry : lines_) entries_.push_back(entry.data());
    entries_.push_back(nullptr);
  }
  operator char**() { return entries_.data(); }

 private:
  Strings lines_;
  std::vector<char*> entries_;
};

struct LineRow {
  const char* what;
  std::string typed;
  std::string line;
  std::string echo;
};

const std::string kEraseText = kErase;
const std::string kBellText = kBell;

const LineRow kLines[] = {
    {"a line", "hello\r", "hello", "hello\r\n"},
    {"an empty line", "\r", "", "\r\n"},
    {"backspace", "ab\bc\r", "ac", "ab" + kEraseText + "c\r\n"},
    {"delete",
     "ab\x7f"
     "c\r",
     "ac", "ab" + kEraseText + "c\r\n"},
    {"backspace down to nothing", "ab\b\b\b\bc\r", "c", "ab" + kEraseText + kEraseText + "c\r\n"},
    {"backspace on an empty line", "\b\x7f\r", "", "\r\n"},
    {"line feed", "a\nb\r", "ab", "a" + kBellText + "b\r\n"},
    {"tab and escape", "\t\x1b[A\r", "[A", kBellText + kBellText + "[A\r\n"},
    {"zero", std::string("a\0b\r", 4), "ab", "a" + kBellText + "b\r\n"},
    {"control-R without history",
     "a\x12"
     "b\r",
     "ab", "ab\r\n"},
    {"percent signs", "%s%d%%\r", "%s%d%%", "%s%d%%\r\n"},
    {"all that can be printed", " !\"#$&'()*+,-./09:;<=>?@AZ[\\]^_`az{|}~\r",
     " !\"#$&'()*+,-./09:;<=>?@AZ[\\]^_`az{|}~", " !\"#$&'()*+,-./09:;<=>?@AZ[\\]^_`az{|}~\r\n"},
};

TEST_F(ConsoleLine, IsEditedAndEchoed) {
  for (const LineRow& row : kLines) {
    SCOPED_TRACE(row.what);
    EXPECT_EQ(gets(row.typed), 0);
    EXPECT_EQ(line(), row.line);
    EXPECT_EQ(echo(), row.echo);
  }
}

TEST_F(ConsoleLine, EchoesEachCharacterByItself) {
  gets("ab\r");
  EXPECT_EQ(console.calls(), (Strings{"a", "b", "\r\n"}));
  EXPECT_EQ(console.formats(), (Strings{"%c", "%c", "\r\n"}));
}

TEST_F(ConsoleLine, RingsTheBellAsACharacter) {
  gets("\n\r");
  EXPECT_EQ(console.calls(), (Strings{kBell, "\r\n"}));
  EXPECT_EQ(console.formats().front(), "%c");
}

TEST_F(ConsoleLine, EveryOtherControlCharacterRingsTheBell) {
  for (int c = 0; c < 32; ++c) {
    if (c == '\b' || c == '\r' || c == 18) continue;
    SCOPED_TRACE(c);
    EXPECT_EQ(gets(std::string("a") + static_cast<char>(c) + "b\r"), 0);
    EXPECT_EQ(line(), "ab");
    EXPECT_EQ(echo(), "a" + kBellText + "b\r\n");
  }
}

TEST_F(ConsoleLine, CharactersLoseAllButSevenBits) {
  EXPECT_EQ(gets("\xE1\xE2\xE9\x8D"), 0);  // a, b, i and a carriage return with the eighth bit set
  EXPECT_EQ(line(), "abi");
  EXPECT_EQ(echo(), "abi\r\n");
  EXPECT_EQ(gets("ab\x88\xFF\x8A\r"), 0);  // backspace, delete, line feed
  EXPECT_EQ(line(), "");
  EXPECT_EQ(echo(), "ab" + kEraseText + kEraseText + kBellText + "\r\n");
}

TEST_F(ConsoleLine, CharactersBeyondAByteLoseAllButSevenBits) {
  console.input = {0x141, 0x7FFFFF42, 0x10D};
  char buffer[10];
  EXPECT_EQ(console.Gets(buffer, sizeof buffer, nullptr), 0);
  EXPECT_STREQ(buffer, "AB");
}

TEST_F(ConsoleLine, EndOfInputReturnsMinusOne) {
  EXPECT_EQ(gets(""), -1);
  EXPECT_EQ(console.getc_calls, 1);
  EXPECT_EQ(echo(), "");
  EXPECT_EQ(gets("ab"), -1);
  EXPECT_EQ(console.getc_calls, 3);
  EXPECT_EQ(echo(), "ab");
}

TEST_F(ConsoleLine, AnyNegativeCharacterReturnsMinusOne) {
  for (const int negative : {-1, -2, -115, -2147483647 - 1}) {
    PlainConsole fresh;
    fresh.input = {'a', negative, '\r'};
    char buffer[10];
    EXPECT_EQ(fresh.Gets(buffer, sizeof buffer, nullptr), -1);
    EXPECT_EQ(fresh.getc_calls, 2);
    EXPECT_EQ(fresh.text(), "a");
  }
}

TEST_F(ConsoleLine, NoBufferOrNoSizeReadsNothing) {
  console.type("a\r");
  char buffer[4] = {'x', 'x', 'x', 'x'};
  EXPECT_EQ(console.Gets(nullptr, 10, nullptr), -1);
  EXPECT_EQ(console.Gets(buffer, 0, nullptr), -1);
  EXPECT_EQ(console.Gets(buffer, -1, nullptr), -1);
  EXPECT_EQ(console.Gets(buffer, -2147483647 - 1, nullptr), -1);
  EXPECT_EQ(console.getc_calls, 0);
  EXPECT_EQ(console.text(), "");
  EXPECT_EQ(std::string(buffer, 4), "xxxx");
}

TEST_F(ConsoleLine, FullBufferReturnsMinusOneAtOnce) {
  EXPECT_EQ(gets("abcd\r", 3), -1);
  EXPECT_EQ(console.getc_calls, 3);
  EXPECT_EQ(echo(), "abc");
  EXPECT_EQ(gets("a\r", 1), -1);
  EXPECT_EQ(console.getc_calls, 1);
}

TEST_F(ConsoleLine, LastPlaceIsTheTerminators) {
  EXPECT_EQ(gets("ab\r", 3), 0);
  EXPECT_EQ(line(), "ab");
  EXPECT_EQ(gets("\r", 1), 0);
  EXPECT_EQ(line(), "");
}

TEST_F(ConsoleLine, BellsAndErasedCharactersTakeNoRoom) {
  EXPECT_EQ(gets("a\n\n\n\nb\r", 3), 0);
  EXPECT_EQ(line(), "ab");
  EXPECT_EQ(gets("ab\b\b\bcd\b\br\r", 3), 0);
  EXPECT_EQ(line(), "r");
}

// ---- History -----------------------------------------------------------------------------------------------

TEST_F(ConsoleLine, RecallShowsEachEntryAndStartsAgain) {
  History history({"one", "three"});
  EXPECT_EQ(gets("\x12\r", 80, history), 0);
  EXPECT_EQ(line(), "one");
  EXPECT_EQ(echo(), "one\r\n");

  EXPECT_EQ(gets("\x12\x12\r", 80, history), 0);
  EXPECT_EQ(line(), "three");
  EXPECT_EQ(echo(), "one" + kEraseText + kEraseText + kEraseText + "three\r\n");

  EXPECT_EQ(gets("\x12\x12\x12\r", 80, history), 0);
  EXPECT_EQ(line(), "one");
  EXPECT_EQ(echo(), "one" + kEraseText + kEraseText + kEraseText + "three" + kEraseText + kEraseText +
                        kEraseText + kEraseText + kEraseText + "one\r\n");

  EXPECT_EQ(gets("\x12\x12\x12\x12\r", 80, history), 0);
  EXPECT_EQ(line(), "three") << "after the wrap the position stands behind the first entry";
}

TEST_F(ConsoleLine, RecallOfOneEntryRepeatsIt) {
  History history({"only"});
  EXPECT_EQ(gets("\x12\x12\x12\r", 80, history), 0);
  EXPECT_EQ(line(), "only");
}

TEST_F(ConsoleLine, RecallEchoesEachCharacterByItself) {
  History history({"ab"});
  gets("x\x12\r", 80, history);
  EXPECT_EQ(line(), "ab");
  const Strings calls = console.calls();
  ASSERT_GE(calls.size(), 3u);
  EXPECT_EQ((Strings{calls.end() - 3, calls.end()}), (Strings{"a", "b", "\r\n"}));
  const Strings formats = console.formats();
  EXPECT_EQ((Strings{formats.end() - 3, formats.end()}), (Strings{"%c", "%c", "\r\n"}));
}

TEST_F(ConsoleLine, RecallReplacesWhatWasTyped) {
  History history({"one"});
  EXPECT_EQ(gets("xy\x12\r", 80, history), 0);
  EXPECT_EQ(line(), "one");
  EXPECT_EQ(echo(), "xy" + kEraseText + kEraseText + "one\r\n");
}

TEST_F(ConsoleLine, RecalledLineCanBeEdited) {
  History history({"one", "two"});
  EXPECT_EQ(gets("\x12\b\bff\x12\b\bx\r", 80, history), 0);
  EXPECT_EQ(line(), "tx");
  EXPECT_EQ(gets("\x12!\r", 80, history), 0);
  EXPECT_EQ(line(), "one!") << "each line starts at the first entry, and the history is as it was";
}

TEST_F(ConsoleLine, RecallFromAnEmptyHistoryShowsNothing) {
  History history({});
  EXPECT_EQ(gets("\x12\x12"
                 "ab\r",
                 80, history),
            0);
  EXPECT_EQ(line(), "ab");
  EXPECT_EQ(echo(), "ab\r\n");
}

TEST_F(ConsoleLine, RecallFromAnEmptyHistoryLeavesWhatWasTyped) {
  History history({});
  EXPECT_EQ(gets("xy\x12\x12z\r", 80, history), 0);
  EXPECT_EQ(line(), "xyz");
  EXPECT_EQ(echo(), "xyz\r\n");
}

TEST_F(ConsoleLine, RecallOfAnEmptyEntryEmptiesTheLine) {
  History history({"", "two"});
  EXPECT_EQ(gets("xy\x12\r", 80, history), 0);
  EXPECT_EQ(line(), "");
  EXPECT_EQ(echo(), "xy" + kEraseText + kEraseText + "\r\n");
  EXPECT_EQ(gets("\x12\x12\r", 80, history), 0);
  EXPECT_EQ(line(), "two");
}

TEST_F(ConsoleLine, RecallEndsAtTheFirstControlCharacter) {
  for (const char* entry : {"ab\tcd", "ab\r\n", "ab\ncd", "ab\x1f", "ab\x01"}) {
    History history({entry});
    EXPECT_EQ(gets("\x12\r", 80, history), 0);
    EXPECT_EQ(line(), "ab");
    EXPECT_EQ(echo(), "ab\r\n");
  }
}

TEST_F(ConsoleLine, RecalledCharactersKeepAllEightBits) {
  History history({"caf\xE9 \x80\xFF\x7F."});
  EXPECT_EQ(gets("\x12\r", 80, history), 0);
  EXPECT_EQ(line(), "caf\xE9 \x80\xFF\x7F.");
  EXPECT_EQ(echo(), "caf\xE9 \x80\xFF\x7F.\r\n");
}

TEST_F(ConsoleLine, RecallOfALineThatFillsTheBufferReturnsMinusOne) {
  for (const char* entry : {"abc", "abcd", "abcdefghijklmnopqrstuvwxyz"}) {
    History history({entry});
    EXPECT_EQ(gets("\x12\r", 3, history), -1);
    EXPECT_EQ(console.getc_calls, 1);
    EXPECT_EQ(echo().substr(0, 2), "ab");
  }
  History history({"a"});
  EXPECT_EQ(gets("\x12\r", 1, history), -1);
}

TEST_F(ConsoleLine, RecallOfALineThatJustFitsIsComplete) {
  History history({"ab"});
  EXPECT_EQ(gets("xx\x12\r", 3, history), 0);
  EXPECT_EQ(line(), "ab");
}

}  // namespace
}  // namespace oskernel_test
