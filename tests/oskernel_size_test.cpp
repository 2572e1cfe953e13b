// oskernel-size: its command line, its formats, its formulas, and what it refuses.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>
#include <functional>
#include <iterator>
#include <map>
#include <nlohmann/json.hpp>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include "examples/oskernel-size/report.h"
#include "examples/oskernel-size/sizes.h"
#include "kernel/buffer.h"
#include "tests/callrouter_child.h"
#include "tests/support/kernel_fixture.h"

namespace callrouter_test {
namespace {

using namespace oskernel_size;
using ::testing::AllOf;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::SizeIs;
using ::testing::StartsWith;
using Texts = std::vector<std::string>;

Outcome run(Texts arguments) { return run_program(std::move(arguments)); }

Texts words(const std::string& text) {
  std::istringstream stream(text);
  return {std::istream_iterator<std::string>(stream), {}};
}

/// Ten connections with messages of 100 bytes, without a reserve.
Load ten() {
  Load load;
  load.connections = 10;
  load.message_size = 100;
  load.reserve_percent = 0;
  return load;
}

std::string refusal(const Load& load) {
  try {
    calculate(load);
  } catch (const BadLoad& error) {
    return error.what();
  }
  return "";
}

/// Quantities of the classes, then callbacks and links.
std::vector<Number> quantities(const Sizes& sizes) {
  std::vector<Number> all;
  for (const BufferClass& one : sizes.buffers) all.push_back(one.quantity.count);
  all.push_back(sizes.callbacks.count);
  all.push_back(sizes.links.count);
  return all;
}
std::vector<Number> class_sizes(const Sizes& sizes) {
  std::vector<Number> all;
  for (const BufferClass& one : sizes.buffers) all.push_back(one.size);
  return all;
}

// ---- Formulas ----------------------------------------------------------------------------------------------------

TEST(OskernelSize, TenConnectionsComeToTheSumsOfThePage) {
  const Sizes sizes = calculate(ten());
  // 100 + 50 + 1, rounded so that storage and guard bytes fill multiples of 16.
  EXPECT_THAT(class_sizes(sizes), ElementsAre(0, 160, 1740, 1740));
  // 10 ends and 10 on their way out; 10 x 10 waiting and one being delivered; 121 buffers, 11 sockets x 3, 10 that wait
  // to be sent and the trigger task.
  EXPECT_THAT(quantities(sizes), ElementsAre(0, 20, 101, 0, 0, 121 + 33 + 10 + 1));
  EXPECT_EQ(sizes.on32.buffers, 20 * (144 + 224) + 101 * (144 + 1808));
  EXPECT_EQ(sizes.on64.buffers, 20 * (256 + 224) + 101 * (256 + 1808));
  EXPECT_EQ(sizes.on32.links, 4 + 165 * 20);
  EXPECT_EQ(sizes.on64.links, 8 + 165 * 40);
  EXPECT_EQ(sizes.memsize, 28 + 20 * 168 + 101 * 1748);
  EXPECT_EQ(sizes.descriptors, 17);
}

/// What an option adds to the buffers (by class), callbacks and links of ten connections.
struct Effect {
  const char* option;
  std::function<void(Load&)> set;
  std::vector<Number> quantities;
  std::vector<Number> sizes{0, 160, 1740, 1740};
};

TEST(OskernelSize, EveryOptionCountsWhereItBelongs) {
  const Effect effects[] = {
      {"--message-size",
       [](Load& load) { load.message_size = 117; },
       {0, 20, 101, 0, 0, 165},
       {0, 176, 1740, 1740}},
      {"--message-size, just fits", [](Load& load) { load.message_size = 109; }, {0, 20, 101, 0, 0, 165}},
      {"--message-size, one more",
       [](Load& load) { load.message_size = 110; },
       {0, 20, 101, 0, 0, 165},
       {0, 176, 1740, 1740}},
      {"--message-size as a read",
       [](Load& load) { load.message_size = 1700; },
       {0, 121, 0, 0, 0, 165},
       {0, 1760, 1760, 1760}},
      {"--message-size of several reads",
       [](Load& load) { load.message_size = 5000; },
       {0, 111, 10, 0, 0, 165},
       {0, 1740, 5056, 5056}},
      {"--largest-message",
       [](Load& load) { load.largest_message = 5000; },
       {0, 20, 101, 10, 0, 175},
       {0, 160, 1740, 5056}},
      {"--large-messages",
       [](Load& load) {
         load.largest_message = 5000;
         load.large_messages = 2;
       },
       {0, 20, 101, 2, 0, 167},
       {0, 160, 1740, 5056}},
      {"--largest-message in a read's class",
       [](Load& load) { load.largest_message = 1000; },
       {0, 20, 111, 0, 0, 175}},
      {"--peers", [](Load& load) { load.peers = Peers::kOneAtATime; }, {0, 31, 10, 0, 0, 41 + 44}},
      {"--peers with larger ones",
       [](Load& load) {
         load.peers = Peers::kOneAtATime;
         load.largest_message = 5000;
         load.large_messages = 3;
       },
       {0, 31, 13, 3, 0, 47 + 44},
       {0, 160, 1740, 5056}},
      {"--waiting", [](Load& load) { load.waiting = 4; }, {0, 20, 41, 0, 0, 105}},
      {"--held", [](Load& load) { load.held = 2; }, {0, 20, 121, 0, 0, 185}},
      {"--queued", [](Load& load) { load.queued = 3; }, {0, 40, 101, 0, 0, 205}},
      {"--queued 0", [](Load& load) { load.queued = 0; }, {0, 10, 101, 0, 0, 145}},
      {"--dispatchers", [](Load& load) { load.dispatchers = 5; }, {0, 20, 105, 0, 0, 169}},
      {"--direct",
       [](Load& load) { load.direct = true; },
       {0, 20, 0, 0, 0, 20 + 33 + 10 + 10 + 1},
       {0, 160, 160, 160}},
      {"--tls", [](Load& load) { load.tls = true; }, {0, 130, 101, 0, 0, 231 + 33 + 110 + 1}},
      {"--tls --direct",
       [](Load& load) { load.tls = load.direct = true; },
       {0, 130, 10, 0, 0, 140 + 33 + 110 + 10 + 1}},
      {"--tls --peers",
       [](Load& load) {
         load.tls = true;
         load.peers = Peers::kOneAtATime;
       },
       {0, 130, 21, 0, 0, 151 + 144}},
      {"--tpkt", [](Load& load) { load.tpkt = true; }, {11, 21, 111, 0, 10, 143 + 44}},
      {"--tpkt --large-messages",
       [](Load& load) {
         load.tpkt = true;
         load.large_messages = 3;
       },
       {4, 21, 111, 0, 3, 136 + 44}},
      {"--tpkt with large packets",
       [](Load& load) {
         load.tpkt = true;
         load.message_size = 1676;
       },
       {111, 132, 0, 0, 110, 243 + 44},
       {0, 1744, 1744, 1744}},
      {"--big-buffers", [](Load& load) { load.big_buffers = true; }, {11, 20, 101, 0, 10, 132 + 44}},
      {"--big-buffers --direct",
       [](Load& load) { load.big_buffers = load.direct = true; },
       {20, 20, 10, 0, 10, 50 + 54}},
      {"--listeners", [](Load& load) { load.listeners = 3; }, {0, 20, 101, 0, 0, 171}},
      {"--listeners 0", [](Load& load) { load.listeners = 0; }, {0, 20, 101, 0, 0, 162}},
      {"--datagram-sockets",
       [](Load& load) { load.datagram_sockets = 2; },
       {0, 24, 121, 0, 0, 145 + 39 + 12 + 1}},
      {"--lookups", [](Load& load) { load.lookups = 2; }, {0, 22, 123, 0, 0, 145 + 39 + 12 + 640 + 1}},
      {"--names", [](Load& load) { load.names = 4; }, {0, 20, 101, 0, 0, 165 + 8 + 10}},
      {"--blocking-sockets", [](Load& load) { load.blocking_sockets = 2; }, {5, 20, 103, 0, 2, 128 + 44 + 2}},
      {"--own-buffers", [](Load& load) { load.own_buffers = 6; }, {0, 26, 101, 0, 0, 171}},
      {"--own-arrays", [](Load& load) { load.own_arrays = 6; }, {6, 20, 101, 0, 0, 171}},
      {"--own-callbacks", [](Load& load) { load.own_callbacks = 6; }, {0, 20, 101, 0, 6, 171}},
      {"--own-callbacks --tpkt",
       [](Load& load) {
         load.own_callbacks = 6;
         load.tpkt = true;
       },
       {17, 21, 111, 0, 16, 149 + 44 + 6}},
      {"--own-links", [](Load& load) { load.own_links = 6; }, {0, 20, 101, 0, 0, 171}},
      {"--queue-triggers", [](Load& load) { load.queue_triggers = 6; }, {0, 20, 101, 0, 0, 171}},
      {"--tasks", [](Load& load) { load.tasks = 6; }, {0, 20, 101, 0, 0, 177}},
      {"--headroom", [](Load& load) { load.headroom = 66; }, {0, 20, 101, 0, 0, 165}, {0, 176, 1740, 1740}},
      {"--headroom below a read's", [](Load& load) { load.headroom = 0; }, {0, 20, 101, 0, 0, 165}},
      {"--trigger-stack 0", [](Load& load) { load.trigger_stack = 0; }, {0, 20, 101, 0, 0, 164}},
      {"--reserve", [](Load& load) { load.reserve_percent = 10; }, {0, 22, 112, 0, 0, 178 + 18}},
  };
  for (const Effect& effect : effects) {
    Load load = ten();
    effect.set(load);
    const Sizes sizes = calculate(load);
    EXPECT_EQ(quantities(sizes), effect.quantities) << effect.option;
    EXPECT_EQ(class_sizes(sizes), effect.sizes) << effect.option;
  }
}

TEST(OskernelSize, EveryQuantityIsTheSumOfItsReasons) {
  Load load = ten();
  load.tls = load.tpkt = true;
  load.largest_message = 9000;
  load.lookups = load.names = load.tasks = load.own_callbacks = load.datagram_sockets = 3;
  load.reserve_percent = 10;
  const Sizes sizes = calculate(load);
  std::vector<Quantity> all{sizes.links, sizes.callbacks};
  for (const BufferClass& one : sizes.buffers) all.push_back(one.quantity);
  for (const Quantity& quantity : all) {
    Number sum = 0;
    for (const Part& part : quantity.parts) sum += part.count;
    EXPECT_EQ(sum, quantity.count);
    EXPECT_GT(sum, 0);
  }
}

TEST(OskernelSize, ClassesAscendAndEveryClassHoldsWhatItIsFor) {
  for (Number message = 1; message <= 32713; message += 37) {
    Load load = ten();
    load.message_size = message;
    load.tpkt = true;
    load.largest_message = std::min<Number>(message * 3, 32713);
    const Sizes sizes = calculate(load);
    const auto of = class_sizes(sizes);
    EXPECT_LE(of[1], of[2]);
    EXPECT_LE(of[2], of[3]);
    EXPECT_LE(of[3], 65535);
    EXPECT_GT(of[3], load.largest_message + 54);
    const bool reads_fit = (of[1] >= 1740 && sizes.buffers[1].quantity.count > 110) ||
                           (of[2] >= 1740 && sizes.buffers[2].quantity.count > 110);
    EXPECT_TRUE(reads_fit) << message;
  }
}

TEST(OskernelSize, BewaresAreSaidWhenTheyHold) {
  EXPECT_THAT(calculate(ten()).notes, IsEmpty());
  Load load = ten();
  load.peers = Peers::kOneAtATime;
  EXPECT_THAT(calculate(load).notes, ElementsAre(HasSubstr("can exhaust the buffers"),
                                                 HasSubstr("counts on 1 received buffer waiting")));
  load = ten();
  load.connections = 1017;
  EXPECT_THAT(calculate(load).notes, IsEmpty());
  load.connections = 1018;
  EXPECT_THAT(calculate(load).notes,
              ElementsAre("needs 1,025 descriptors and more; the usual limit is 1,024"));
  load = ten();
  load.direct = true;
  EXPECT_THAT(calculate(load).notes, ElementsAre(StartsWith("starts 10 threads of 1 MiB")));
  load = ten();
  load.connections = 200'000;
  EXPECT_THAT(calculate(load).notes,
              ElementsAre("is more than a 32-bit process can be expected to get", HasSubstr("descriptors")));
}

// ---- Refusals ----------------------------------------------------------------------------------------------------

TEST(OskernelSize, RefusesWhatCannotBe) {
  const struct {
    std::function<void(Load&)> set;
    const char* text;
  } rows[] = {
      {[](Load& load) { load.message_size = 0; }, "--message-size: 0 is not between 1 and 1,000,000"},
      {[](Load& load) { load.message_size = 32718; },
       "--message-size: 32,718 bytes do not fit a buffer of the pools, which holds 32,717 at the most; give "
       "such messages storage of their own (SetPayload, --own-arrays)"},
      {[](Load& load) {
         load.message_size = 32714;
         load.tpkt = true;
       },
       "--message-size: 32,714 bytes do not fit a buffer of the pools, which holds 32,713 at the most; give "
       "such messages storage of their own (SetPayload, --own-arrays)"},
      {[](Load& load) {
         load.largest_message = 32668;
         load.headroom = 100;
       },
       "--largest-message: 32,668 bytes do not fit a buffer of the pools, which holds 32,667 at the most; "
       "give such messages storage of their own (SetPayload, --own-arrays)"},
      {[](Load& load) { load.largest_message = 99; },
       "--largest-message: 99 is less than --message-size 100"},
      {[](Load& load) { load.large_messages = 1; },
       "--large-messages: needs a --largest-message above --message-size, or --tpkt, or --big-buffers"},
      {[](Load& load) {
         load.large_messages = 0;
         load.tpkt = true;
       },
       "--large-messages: 0 is not between 1 and 1,000,000"},
      {[](Load& load) { load.connections = -1; }, "--connections: -1 is not between 0 and 1,000,000"},
      {[](Load& load) { load.connections = 1'000'001; },
       "--connections: 1,000,001 is not between 0 and 1,000,000"},
      {[](Load& load) { load.connections = 0; },
       "--connections: nothing to size; give --connections, --datagram-sockets, --lookups, "
       "--blocking-sockets or --own-buffers"},
      {[](Load& load) {
         load.connections = 0;
         load.own_buffers = 1;
         load.tls = true;
       },
       "--tls: needs --connections"},
      {[](Load& load) {
         load.connections = 0;
         load.own_buffers = 1;
         load.tpkt = true;
       },
       "--tpkt: needs --connections"},
      {[](Load& load) {
         load.connections = 0;
         load.own_buffers = 1;
         load.direct = true;
       },
       "--direct: needs --connections"},
      {[](Load& load) {
         load.connections = 0;
         load.own_buffers = 1;
         load.big_buffers = true;
       },
       "--big-buffers: needs --connections"},
      {[](Load& load) { load.tpkt = load.direct = true; },
       "--tpkt: excludes --direct: packet sockets are indirect"},
      {[](Load& load) { load.waiting = 0; }, "--waiting: 0 is not between 1 and 10"},
      {[](Load& load) { load.waiting = 11; }, "--waiting: 11 is not between 1 and 10"},
      {[](Load& load) { load.dispatchers = 0; }, "--dispatchers: 0 is not between 1 and 1,000,000"},
      {[](Load& load) { load.headroom = 16385; }, "--headroom: 16,385 is not between 0 and 16,384"},
      {[](Load& load) { load.trigger_stack = (1LL << 30) + 1; },
       "--trigger-stack: 1,073,741,825 is not between 0 and 1,073,741,824"},
      {[](Load& load) { load.reserve_percent = 1001; }, "--reserve: 1,001 is not between 0 and 1,000"},
      {[](Load& load) {
         load.connections = 1'000'000;
         load.held = 1'000'000;
       },
       "buf_qty[2]: would have to be 1,000,010,000,001, 1,000,000,000,000 of them kept by the program "
       "(1,000,000 sockets x 1,000,000), and an int holds 2,147,483,647 at the most"},
      {[](Load& load) {
         load.connections = 1'000'000;
         load.queued = 1072;
         load.tls = true;
         load.waiting = 1;
       },
       "link_qty: would have to be 2,150,000,005, 1,075,000,001 of them for buffers that are out, and an int "
       "holds 2,147,483,647 at the most"},
  };
  for (const auto& row : rows) {
    Load load = ten();
    row.set(load);
    EXPECT_EQ(refusal(load), row.text);
  }
}

TEST(OskernelSizeProgram, SaysWhatIsWrongWithTheCommandLine) {
  const struct {
    const char* arguments;
    const char* text;
  } rows[] = {
      {"", "--message-size is required"},
      {"--connections 1", "--message-size is required"},
      {"--connections 0 --message-size 5", "--connections: 0 is not between 1 and 1,000,000"},
      {"--connections 1 --message-size 0", "--message-size: 0 is not between 1 and 1,000,000"},
      {"--connections 1 --message-size", "--message-size: 1 required N missing"},
      {"--connections abc --message-size 5", "--connections: 'abc' is not a whole number"},
      {"--connections 1.5 --message-size 5", "--connections: '1.5' is not a whole number"},
      {"--connections -5 --message-size 5", "--connections: '-5' is not a whole number"},
      {"--connections 9999999999999999 --message-size 5", "--connections: 9999999999999999 is too large"},
      {"--connections 1 --connections 2 --message-size 5",
       "--connections: At Most 1 required but received 2"},
      {"--message-size 5",
       "--connections: nothing to size; give --connections, --datagram-sockets, --lookups, "
       "--blocking-sockets or --own-buffers"},
      {"--connections 1 --message-size 5 --peers strange",
       "--peers: 'strange' is not one of any|one-at-a-time"},
      {"--connections 1 --message-size 5 --format xml", "--format: 'xml' is not one of cpp|table|json"},
      {"--connections 1 --message-size 5 --format cpp|table",
       "--format: 'cpp|table' is not one of cpp|table|json"},
      {"--connections 1 --message-size 5 more", "The following argument was not expected: more"},
      {"--connections 1 --message-size 5 --waiting 11", "--waiting: 11 is not between 1 and 10"},
  };
  for (const auto& row : rows) {
    const Outcome outcome = run(words(row.arguments));
    EXPECT_EQ(outcome.exit_code, 2) << row.arguments;
    EXPECT_EQ(outcome.out, "") << row.arguments;
    EXPECT_EQ(outcome.err, std::string("oskernel-size: ") + row.text + "\nTry oskernel-size --help\n");
  }
}

// ---- Output ------------------------------------------------------------------------------------------------------

TEST(OskernelSizeProgram, EveryOptionReachesTheCalculation) {
  const Effect options[] = {
      {"--largest-message 300", [](Load& load) { load.largest_message = 300; }, {}},
      {"--largest-message 300 --large-messages 2",
       [](Load& load) {
         load.largest_message = 300;
         load.large_messages = 2;
       },
       {}},
      {"--peers one-at-a-time", [](Load& load) { load.peers = Peers::kOneAtATime; }, {}},
      {"--peers any", [](Load&) {}, {}},
      {"--direct", [](Load& load) { load.direct = true; }, {}},
      {"--tls", [](Load& load) { load.tls = true; }, {}},
      {"--tpkt", [](Load& load) { load.tpkt = true; }, {}},
      {"--big-buffers", [](Load& load) { load.big_buffers = true; }, {}},
      {"--listeners 4", [](Load& load) { load.listeners = 4; }, {}},
      {"--datagram-sockets 4", [](Load& load) { load.datagram_sockets = 4; }, {}},
      {"--lookups 4", [](Load& load) { load.lookups = 4; }, {}},
      {"--names 4", [](Load& load) { load.names = 4; }, {}},
      {"--blocking-sockets 4", [](Load& load) { load.blocking_sockets = 4; }, {}},
      {"--waiting 4", [](Load& load) { load.waiting = 4; }, {}},
      {"--held 4", [](Load& load) { load.held = 4; }, {}},
      {"--queued 4", [](Load& load) { load.queued = 4; }, {}},
      {"--dispatchers 4", [](Load& load) { load.dispatchers = 4; }, {}},
      {"--own-buffers 4", [](Load& load) { load.own_buffers = 4; }, {}},
      {"--own-arrays 4", [](Load& load) { load.own_arrays = 4; }, {}},
      {"--own-callbacks 4", [](Load& load) { load.own_callbacks = 4; }, {}},
      {"--own-links 40", [](Load& load) { load.own_links = 40; }, {}},
      {"--queue-triggers 40", [](Load& load) { load.queue_triggers = 40; }, {}},
      {"--tasks 40", [](Load& load) { load.tasks = 40; }, {}},
      {"--headroom 80", [](Load& load) { load.headroom = 80; }, {}},
      {"--trigger-stack 70000", [](Load& load) { load.trigger_stack = 70000; }, {}},
      {"--reserve 25", [](Load& load) { load.reserve_percent = 25; }, {}},
      {"--format cpp", [](Load&) {}, {}},
  };
  std::map<std::string, std::string> texts;
  for (const Effect& option : options) {
    Load load = ten();
    load.reserve_percent = 10;
    option.set(load);
    const std::string arguments = std::string("--connections 10 --message-size 100 ") + option.option;
    const Outcome outcome = run(words(arguments));
    EXPECT_EQ(outcome.exit_code, 0) << option.option << outcome.err;
    EXPECT_EQ(outcome.out, cpp_report(calculate(load), "oskernel-size " + arguments)) << option.option;
    const std::string body = outcome.out.substr(outcome.out.find('\n'));
    texts[body] += std::string(texts.contains(body) ? ", " : "") + option.option;
  }
  // Two say what is so without them; every other one changes something else.
  EXPECT_EQ(texts.size(), std::size(options) - 1);
}

/// The numbers of a C++ snippet, by field.
std::map<std::string, Number> numbers_of(const std::string& snippet) {
  std::map<std::string, Number> numbers;
  const std::regex assignment(R"(^cfg\.(\w+(?:\[\d\])?) = (\d+); +// .+$)", std::regex::multiline);
  for (std::sregex_iterator at(snippet.begin(), snippet.end(), assignment), end; at != end; ++at) {
    numbers[(*at)[1]] = std::stoll((*at)[2]);
  }
  return numbers;
}

TEST(OskernelSizeProgram, TheSnippetNamesEveryFieldAndStartsTheKernel) {
  const Outcome outcome = run(words("--connections 20 --message-size 512 --tpkt --own-callbacks 2"));
  ASSERT_EQ(outcome.exit_code, 0);
  EXPECT_THAT(outcome.out,
              StartsWith("// oskernel-size --connections 20 --message-size 512 --tpkt --own-callbacks 2\n"));
  EXPECT_THAT(outcome.out, HasSubstr("\nKernelCfg cfg;\ncfg.buf_size[0] = 0;"));
  auto numbers = numbers_of(outcome.out);
  ASSERT_THAT(numbers, SizeIs(12));
  KernelCfg cfg;
  for (int i = 0; i < 4; ++i) {
    const std::string index = "[" + std::to_string(i) + "]";
    cfg.buf_size[i] = static_cast<int>(numbers.at("buf_size" + index));
    cfg.buf_qty[i] = static_cast<int>(numbers.at("buf_qty" + index));
  }
  cfg.buf_min_space = static_cast<int>(numbers.at("buf_min_space"));
  cfg.callback_qty = static_cast<int>(numbers.at("callback_qty"));
  cfg.link_qty = static_cast<int>(numbers.at("link_qty"));
  cfg.trigger_stack = static_cast<int>(numbers.at("trigger_stack"));
  oskernel_test::RecordingConsole console;
  Console = &console;
  os_startup(nullptr, 0, &cfg);
  for (int i = 0; i < 4; ++i) EXPECT_EQ(OSBuf::PoolSize(i), cfg.buf_qty[i]);
  const std::string message(512, 'm');
  OSBuf* const buf = OSBuf::Alloc(message.c_str());
  EXPECT_EQ(buf->size, cfg.buf_size[1]);
  buf->Free();
  os_cleanup();
  Console = nullptr;
  EXPECT_EQ(console.text(), "");
}

TEST(OskernelSizeProgram, AllFormatsSayTheSame) {
  const std::string arguments = "--connections 20 --message-size 512 --direct --own-callbacks 2";
  const auto numbers = numbers_of(run(words(arguments)).out);
  const Outcome json = run(words(arguments + " --format json"));
  const auto report = nlohmann::json::parse(json.out);
  const Outcome table = run(words(arguments + " --format table"));
  ASSERT_THAT(numbers, SizeIs(12));
  for (const auto& [field, value] : numbers) {
    const std::size_t bracket = field.find('[');
    const auto& in_json = report["config"][field.substr(0, bracket)];
    EXPECT_EQ(
        bracket == std::string::npos ? in_json : in_json[static_cast<std::size_t>(field[bracket + 1] - '0')],
        value)
        << field;
    const std::string row =
        field + std::string(14 + 13 - field.size() - grouped(value).size(), ' ') + grouped(value);
    EXPECT_THAT(table.out, HasSubstr(row + "  "));
  }
  for (const char* bits : {"32", "64"}) {
    const auto& bytes = report["bytes"][bits];
    EXPECT_EQ(bytes["total"], bytes["buffers"].get<Number>() + bytes["links"].get<Number>() +
                                  bytes["callbacks"].get<Number>() + bytes["rings"].get<Number>());
    EXPECT_GT(bytes["rings"], 20 * 32 * 1824);
    EXPECT_THAT(table.out, HasSubstr(grouped(bytes["total"].get<Number>())));
    EXPECT_THAT(run(words(arguments)).out, HasSubstr("// " + grouped(bytes["total"].get<Number>()) +
                                                     " bytes on " + bits + " bit: buffers "));
  }
  EXPECT_EQ(report["beware"].size(), 1U);
  EXPECT_THAT(table.out, HasSubstr("beware: starts 20 threads"));
  Number links = 0;
  for (const auto& part : report["why"]["link_qty"]) links += part["count"].get<Number>();
  EXPECT_EQ(links, numbers.at("link_qty"));
}

TEST(OskernelSizeProgram, PrintsTheSameEveryTime) {
  const Texts arguments = words("--connections 7 --message-size 77 --tls --lookups 2");
  EXPECT_EQ(run(arguments).out, run(arguments).out);
}

TEST(OskernelSizeProgram, HelpNamesEveryOptionAndVersionTheVersion) {
  const Outcome help = run({"--help"});
  EXPECT_EQ(help.exit_code, 0);
  for (const char* option : {"--message-size",
                             "--largest-message",
                             "--large-messages",
                             "--peers",
                             "--connections",
                             "--direct",
                             "--tls",
                             "--tpkt",
                             "--big-buffers",
                             "--listeners",
                             "--datagram-sockets",
                             "--lookups",
                             "--names",
                             "--blocking-sockets",
                             "--waiting",
                             "--held",
                             "--queued",
                             "--dispatchers",
                             "--own-buffers",
                             "--own-arrays",
                             "--own-callbacks",
                             "--own-links",
                             "--queue-triggers",
                             "--tasks",
                             "--headroom",
                             "--trigger-stack",
                             "--reserve",
                             "--format"}) {
    EXPECT_THAT(help.out, HasSubstr(std::string("  ") + option + " ")) << option;
  }
  const Outcome version = run({"--version"});
  EXPECT_EQ(version.exit_code, 0);
  EXPECT_THAT(version.out, ::testing::MatchesRegex("oskernel-size [0-9.]+\n"));
}

// ---- Pages -------------------------------------------------------------------------------------------------------

std::string page(const std::string& name) {
  std::ifstream file(std::string(OSKERNEL_SIZE_PAGES) + "/" + name);
  return {std::istreambuf_iterator<char>(file), {}};
}

/// The long names, as --help has them.
Texts options_of_help() {
  const std::string help = run({"--help"}).out;
  const std::regex option(R"(\n  (?:-h,)?(--[a-z-]+))");
  Texts options;
  for (std::sregex_iterator at(help.begin(), help.end(), option), end; at != end; ++at)
    options.push_back((*at)[1]);
  EXPECT_THAT(options, SizeIs(30));
  return options;
}

TEST(OskernelSizePages, TheReadmeShowsWhatIsPrintedAndNamesEveryOption) {
  const std::string readme = page("examples/oskernel-size/README.md");
  std::smatch command;
  ASSERT_TRUE(std::regex_search(readme, command, std::regex(R"(\$ oskernel-size (.+)\n)")));
  EXPECT_THAT(readme, HasSubstr("```cpp\n" + run(words(command[1])).out + "```\n"));
  for (const std::string& option : options_of_help()) EXPECT_THAT(readme, HasSubstr("`" + option));
}

TEST(OskernelSizePages, TheManualPageNamesEveryOption) {
  const std::string manual = page("packaging/oskernel-size.1");
  for (const std::string& option : options_of_help()) {
    EXPECT_THAT(manual, HasSubstr(R"(\-\-)" + option.substr(2))) << "in its source, where - is a hyphen";
  }
}

TEST(OskernelSizePages, TheWorkedExampleIsWorkedOutRight) {
  Load load;
  load.connections = 200;
  load.message_size = 512;
  const Sizes sizes = calculate(load);
  const std::string sizing = page("docs/sizing.md");
  const std::string reads = grouped(sizes.buffers[2].quantity.count);
  const std::string messages = grouped(sizes.buffers[1].quantity.count);
  const std::string links = grouped(sizes.links.count);
  const std::string storage = grouped(sizes.buffers[1].size + kGuardBytes);
  for (const std::string& expected :
       {R"(\+ 10 % +)" + reads + "  buffers of 1740 bytes",
        R"(\+ 10 % +)" + messages + "  buffers of " + grouped(sizes.buffers[1].size) + " bytes",
        R"(\+ 10 % +)" + links + "  links",
        reads + R"( x \(256 \+ 1,808\) \+ )" + messages + R"( x \(256 \+ )" + storage + R"(\) +)" +
            grouped(sizes.on64.buffers),
        R"(8 \+ )" + links + " x 40 +" + grouped(sizes.on64.links),
        reads + R"( x \(144 \+ 1,808\) \+ )" + messages + R"( x \(144 \+ )" + storage + R"(\) = )" +
            grouped(sizes.on32.buffers) + R"( and 4 \+ )" + links + " x 20 = " + grouped(sizes.on32.links)}) {
    EXPECT_TRUE(std::regex_search(sizing, std::regex(expected))) << expected;
  }
}

TEST(OskernelSizeProgram, SaysWhenTheOutputCannotBeWritten) {
  Pipe err;
  const Descriptor full(open("/dev/full", O_WRONLY | O_CLOEXEC)),
      null(open("/dev/null", O_RDONLY | O_CLOEXEC));
  Child child(words("--connections 1 --message-size 5"), null.get(), full.get(), err.write.get());
  err.write.reset();
  Collector text(std::move(err.read));
  EXPECT_EQ(child.wait().exit_code, 1);
  EXPECT_EQ(text.all(), "oskernel-size: the output cannot be written\n");
}

}  // namespace
}  // namespace callrouter_test
