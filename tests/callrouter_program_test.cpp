// The whole program, through pipes.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pty.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "tests/callrouter_child.h"
#include "tests/support/kernel_fixture.h"

namespace callrouter_test {
namespace {

using ::testing::AllOf;
using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::Not;
using ::testing::StartsWith;

class CallrouterProgram : public ::testing::Test {
 protected:
  void SetUp() override {
    signal(SIGPIPE, SIG_IGN);
    std::string pattern = (std::filesystem::temp_directory_path() / "callrouter_XXXXXX").string();
    ASSERT_NE(mkdtemp(pattern.data()), nullptr);
    directory_ = pattern;
  }
  void TearDown() override { std::filesystem::remove_all(directory_); }

  std::string file(const std::string& name, const std::string& text) const {
    const std::string path = directory_ + "/" + name;
    std::ofstream(path, std::ios::binary) << text;
    return path;
  }

  std::string directory_;
};

std::vector<std::string> lines_of(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream stream(text);
  for (std::string line; std::getline(stream, line);) lines.push_back(line);
  return lines;
}

// As `yes +4420 |` would: until the program has ended.
void feed_without_end(const Descriptor& pipe) {
  std::string block;
  for (int i = 0; i < 1000; ++i) block += "+4420\n";
  while (write(pipe.get(), block.data(), block.size()) > 0) {
  }
}

// A run on descriptors that are no pipes; -1 is a closed one. The answers go where `out` goes.
Outcome run_on(std::vector<std::string> arguments, int in, int out) {
  Pipe err;
  Child child(std::move(arguments), in, out, err.write.get());
  err.write.reset();
  Collector text(std::move(err.read));
  const int exit_code = child.wait().exit_code;
  if (exit_code < 0) child.send(SIGKILL);
  return {exit_code, "", text.all()};
}

TEST_F(CallrouterProgram, AnswersEveryLineAndCountsThem) {
  const Outcome run = run_program({}, "+44 20 7946 0123\n\n+999 1\r\nx");
  EXPECT_EQ(run.exit_code, 0);
  EXPECT_EQ(run.out,
            "+442079460123      44       United Kingdom                          gw-eu-1\n"
            "                   malformed: empty line (stdin:2)\n"
            "+9991              unroutable: no prefix of the plan matches (stdin:3)\n"
            "x                  malformed: unexpected 'x' at column 1 (stdin:4)\n");
  EXPECT_THAT(run.err, StartsWith("routed 1, unroutable 1, malformed 2: 4 numbers in "));
  EXPECT_THAT(run.err, HasSubstr("lowest free buffers: "));
}

TEST_F(CallrouterProgram, NoInputIsNoError) {
  const Outcome run = run_program({});
  EXPECT_EQ(run.exit_code, 0);
  EXPECT_EQ(run.out, "");
}

TEST_F(CallrouterProgram, FilesAreReadInTheOrderGivenAndStandardInputWhereTheDashStands) {
  const std::string first = file("first", "+44 1\n+44 2"), second = file("second", "+44 4\n");
  const Outcome run = run_program({"--json", first, "-", second, first}, "+44 3\n");
  EXPECT_EQ(run.exit_code, 0);
  std::string numbers;
  for (const std::string& line : lines_of(run.out)) {
    const auto answer = nlohmann::json::parse(line);
    numbers += answer["number"].get<std::string>() + ":" + std::to_string(answer["line"].get<int>()) + " ";
  }
  EXPECT_EQ(numbers, "+441:1 +442:2 +443:1 +444:1 +441:1 +442:2 ");
}

TEST_F(CallrouterProgram, SampleNumbersAreAnsweredInEveryForm) {
  const std::string sample = CALLROUTER_DIR "/numbers.txt";
  std::ifstream stream(sample);
  std::size_t count = 0;
  for (std::string line; std::getline(stream, line);) ++count;
  ASSERT_GE(count, 60u);
  EXPECT_EQ(lines_of(run_program({sample}).out).size(), count);
  EXPECT_EQ(lines_of(run_program({"--csv", sample}).out).size(), count + 1);
  const Outcome run = run_program({"--json", sample});
  EXPECT_EQ(lines_of(run.out).size(), count);
  for (const std::string& line : lines_of(run.out)) EXPECT_TRUE(nlohmann::json::parse(line).is_object());
  const auto summary = nlohmann::json::parse(lines_of(run.err).back());
  EXPECT_EQ(summary["numbers"], count);
  EXPECT_GE(summary["unroutable"], 1);
  EXPECT_GE(summary["malformed"], 1);
  EXPECT_EQ(summary["buffers"].size(), 3u);
}

TEST_F(CallrouterProgram, QuietPrintsAnswersOnly) {
  const Outcome run = run_program({"--quiet"}, "x\n");
  EXPECT_EQ(run.exit_code, 0);
  EXPECT_NE(run.out, "");
  EXPECT_EQ(run.err, "");
}

TEST_F(CallrouterProgram, OtherPlanTakesThePlaceOfTheBuiltInOne) {
  const std::string plan = file("plan.csv", "020,London,gw-london\n0,Elsewhere,gw-uk\n");
  const Outcome run = run_program({"--plan", plan}, "020 7946 0123\n+44 20 7946 0123\n");
  EXPECT_EQ(run.exit_code, 0);
  EXPECT_EQ(run.out,
            "02079460123        020      London                                  gw-london\n"
            "+442079460123      unroutable: no prefix of the plan matches (stdin:2)\n");
}

// ---- mistakes

TEST_F(CallrouterProgram, BadPlanIsRefusedBeforeAnyOutput) {
  const std::string plan = file("plan.csv", "44,UK,gw\n45,Denmark\n");
  const Outcome run = run_program({"--plan", plan}, "+44 20\n");
  EXPECT_EQ(run.exit_code, 2);
  EXPECT_EQ(run.out, "");
  EXPECT_EQ(run.err, "callrouter: " + plan + ":2: 2 columns instead of 3\n");
}

TEST_F(CallrouterProgram, FilesThatCannotBeReadAreNamedBeforeAnyOutput) {
  const std::string good = file("good", "+44 20\n");
  for (const auto& [path, reason] : std::vector<std::pair<std::string, std::string>>{
           {directory_ + "/missing", "No such file or directory"},
           {directory_, "Is a directory"},
           {good + "/x", "Not a directory"}}) {
    const Outcome run = run_program({good, path});
    EXPECT_EQ(run.exit_code, 2);
    EXPECT_EQ(run.out, "");
    EXPECT_EQ(run.err, "callrouter: " + path + ": " + reason + "\n");
  }
  const Outcome run = run_program({"--plan", directory_ + "/missing"});
  EXPECT_EQ(run.exit_code, 2);
  EXPECT_EQ(run.err, "callrouter: " + directory_ + "/missing: No such file or directory\n");
}

TEST_F(CallrouterProgram, InputThatFailsAtReadingIsNamed) {
  const Descriptor directory(open(directory_.c_str(), O_RDONLY | O_CLOEXEC));
  const Outcome run = run_on({"--quiet"}, directory.get(), -1);
  EXPECT_EQ(run.exit_code, 2);
  EXPECT_EQ(run.err, "callrouter: standard input: Is a directory\n");
  const Outcome closed = run_on({"--quiet"}, -1, -1);
  EXPECT_EQ(closed.exit_code, 2);
  EXPECT_EQ(closed.err, "callrouter: standard input: Bad file descriptor\n");
}

TEST_F(CallrouterProgram, MistakesOnTheCommandLineAreExplained) {
  const std::vector<std::vector<std::string>> mistakes = {{"--bogus"}, {"--json", "--csv"}, {"--plan"},
                                                          {"-", "-"},  {"--console", "-"},  {"--plan", ""}};
  for (const auto& mistake : mistakes) {
    const Outcome run = run_program(mistake);
    EXPECT_EQ(run.exit_code, 2) << mistake.back();
    EXPECT_EQ(run.out, "");
    EXPECT_THAT(run.err, AllOf(StartsWith("callrouter: "), EndsWith("\nTry callrouter --help\n")));
  }
}

TEST_F(CallrouterProgram, HelpAndVersionGoToStandardOutput) {
  const Outcome help = run_program({"--help"});
  EXPECT_EQ(help.exit_code, 0);
  for (const char* option : {"--plan", "--json", "--csv", "--console", "--quiet", "Exit codes"}) {
    EXPECT_THAT(help.out, HasSubstr(option));
  }
  EXPECT_EQ(help.err, "");
  const Outcome version = run_program({"--version"});
  EXPECT_EQ(version.exit_code, 0);
  EXPECT_THAT(version.out, StartsWith("callrouter "));
}

// ---- odd input

TEST_F(CallrouterProgram, NoByteMakesALineDisappear) {
  std::string input;
  for (int c = 0; c < 256; ++c) {
    if (c != '\n') input += std::string("4") + static_cast<char>(c) + "4\n";
  }
  for (const char* format : {"--quiet", "--json", "--csv"}) {
    const Outcome run = run_program({"--quiet", format}, input);
    EXPECT_EQ(run.exit_code, 0);
    EXPECT_EQ(lines_of(run.out).size(), 255u + (std::string(format) == "--csv" ? 1 : 0));
  }
}

// Far more of them than there are buffers of any size.
TEST_F(CallrouterProgram, LinesLongerThanAnyBufferAreReportedAndNoPoolRunsDry) {
  std::string input;
  constexpr std::size_t kLines = 3000;
  for (std::size_t i = 0; i < kLines; ++i) {
    input.append(1 + i * 7 % 5000, i % 2 ? '4' : ' ');
    input += '\n';
  }
  input += "+44 20\n";
  const Outcome run = run_program({"--json"}, input);
  EXPECT_EQ(run.exit_code, 0);
  const auto lines = lines_of(run.out);
  ASSERT_EQ(lines.size(), kLines + 1);
  for (std::size_t i = 0; i < kLines; ++i) {
    const auto answer = nlohmann::json::parse(lines[i]);
    ASSERT_EQ(answer["line"], i + 1);
    if (1 + i * 7 % 5000 > 1740) {
      EXPECT_EQ(answer["reason"], "line too long") << i;
    }
  }
  EXPECT_EQ(nlohmann::json::parse(lines.back())["number"], "+4420");
  const auto summary = nlohmann::json::parse(lines_of(run.err).back());
  for (const auto& pool : summary["buffers"]) EXPECT_GE(pool["lowest_free"], 1);
}

TEST_F(CallrouterProgram, LineOfTenMegabytesIsOneLine) {
  const Outcome run = run_program({"--quiet"}, std::string(10'000'000, '4') + "\n+44 20\n");
  const auto lines = lines_of(run.out);
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_THAT(lines[0], HasSubstr("malformed: line too long (stdin:1)"));
  EXPECT_THAT(lines[1], StartsWith("+4420 "));
}

TEST_F(CallrouterProgram, TypedLineIsAnsweredAtOnce) {
  PipedChild program({"--quiet"});
  Collector text(std::move(program.out));
  for (const char* prefix : {"44", "45", "46"}) {
    write_all(program.in.get(), std::string("+") + prefix + "20\n");
    ASSERT_TRUE(text.wait_for(std::string("+") + prefix + "20 "));
  }
  program.in.reset();
  EXPECT_EQ(program.child.wait().exit_code, 0);
}

// ---- a long input

constexpr std::uint64_t kNumbers = kPlainBuild ? 1'000'000 : 20'000;
constexpr const char* kPrefixes[] = {"44", "1242", "441481", "7", "77", "3906698", "8816", "5999"};

// Every thousandth line is no number. All of them tell which one they are.
std::string nth_line(std::uint64_t i) {
  char text[40];
  if (i % 1000 == 999) {
    snprintf(text, sizeof text, "x%07llu", static_cast<unsigned long long>(i));
  } else {
    snprintf(text, sizeof text, "+%s%07llu", kPrefixes[i % std::size(kPrefixes)],
             static_cast<unsigned long long>(i));
  }
  return text;
}

TEST_F(CallrouterProgram, MillionNumbersArriveInOrderInLittleMemory) {
  PipedChild program({});
  Collector err_text(std::move(program.err));
  std::thread feeder([&program] {
    std::string block;
    for (std::uint64_t i = 0; i < kNumbers; ++i) {
      block += nth_line(i) + "\n";
      if (block.size() > 30000 || i + 1 == kNumbers) {
        write_all(program.in.get(), block);
        block.clear();
      }
    }
    program.in.reset();
  });

  std::uint64_t arrived = 0, wrong = 0;
  std::string text;
  char block[65536];
  for (ssize_t got; (got = read(program.out.get(), block, sizeof block)) > 0;) {
    text.append(block, static_cast<std::size_t>(got));
    std::size_t at = 0;
    for (std::size_t end; (end = text.find('\n', at)) != std::string::npos; at = end + 1, ++arrived) {
      const std::string_view line(text.data() + at, end - at);
      const std::string expected = nth_line(arrived);
      const bool number = expected[0] == '+';
      const bool good = line.substr(0, expected.size() + 1) == expected + " " &&
                        (line.find("malformed: ") == std::string_view::npos) == number &&
                        (!number || line.find(std::string(" ") + kPrefixes[arrived % std::size(kPrefixes)] +
                                              " ") != std::string_view::npos);
      if (!good && ++wrong < 5) ADD_FAILURE() << "number " << arrived << ": " << expected << " gave " << line;
    }
    text.erase(0, at);
  }
  feeder.join();
  const Child::Result result = program.child.wait();
  EXPECT_EQ(result.exit_code, 0);
  EXPECT_EQ(arrived, kNumbers);
  EXPECT_EQ(wrong, 0u);
  EXPECT_EQ(text, "");
  if (kPlainBuild) {
    EXPECT_LT(result.max_rss_kib, 64 * 1024);
    EXPECT_THAT(err_text.all(),
                HasSubstr("routed 999,000, unroutable 0, malformed 1,000: 1,000,000 numbers in "));
  }
}

// ---- endings

TEST_F(CallrouterProgram, OutputClosedEarlyEndsQuietly) {
  PipedChild program({});
  Collector err_text(std::move(program.err));
  std::thread feeder([&program] { feed_without_end(program.in); });
  char text[100];
  EXPECT_GT(read(program.out.get(), text, sizeof text), 0);
  program.out.reset();
  EXPECT_EQ(program.child.wait().exit_code, 0);
  feeder.join();
  // Only the progress of a long wait may stand there.
  EXPECT_THAT(err_text.all(), Not(HasSubstr("routed")));
}

TEST_F(CallrouterProgram, OutputClosedWhileTheInputIsSilentEndsToo) {
  PipedChild program({"--quiet"});
  write_all(program.in.get(), "+4420\n");
  char text[100];
  EXPECT_GT(read(program.out.get(), text, sizeof text), 0);
  program.out.reset();
  EXPECT_EQ(program.child.wait().exit_code, 0);
}

TEST_F(CallrouterProgram, OutputThatCannotBeWrittenIsAnError) {
  const Descriptor full(open("/dev/full", O_WRONLY | O_CLOEXEC));
  const Outcome run = run_on({"--quiet", file("numbers", "+44 20\n")}, -1, full.get());
  EXPECT_EQ(run.exit_code, 1);
  EXPECT_EQ(run.err, "callrouter: standard output: No space left on device\n");
}

TEST_F(CallrouterProgram, ClosedStandardOutputIsAnErrorAndNoFileIsTakenForIt) {
  const Outcome run = run_on({"--quiet", file("numbers", "+44 20\n")}, -1, -1);
  EXPECT_EQ(run.exit_code, 1);
  EXPECT_EQ(run.err, "callrouter: standard output: Bad file descriptor\n");
}

class CallrouterSignal : public CallrouterProgram, public ::testing::WithParamInterface<int> {};

TEST_P(CallrouterSignal, EndsCleanlyWithWhatWasReadAnswered) {
  PipedChild program({});
  Collector out_text(std::move(program.out)), err_text(std::move(program.err));
  // The last line has no end yet: half a number must not be routed.
  write_all(program.in.get(), "+44 20\n+45 20\n+46");
  ASSERT_TRUE(out_text.wait_for("+4520 "));
  program.child.send(GetParam());
  EXPECT_EQ(program.child.wait().exit_code, 128 + GetParam());
  EXPECT_EQ(lines_of(out_text.all()).size(), 2u);
  EXPECT_THAT(err_text.all(), HasSubstr("routed 2, unroutable 0, malformed 0: 2 numbers in "));
}

INSTANTIATE_TEST_SUITE_P(Signals, CallrouterSignal, ::testing::Values(SIGTERM, SIGINT, SIGHUP, SIGQUIT),
                         [](const auto& row) { return sigabbrev_np(row.param); });

TEST_F(CallrouterProgram, SignalEndsItThoughNobodyWritesToTheNamedPipe) {
  const std::string fifo = directory_ + "/fifo";
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  const std::string first = file("first", "+44 20\n");
  Pipe out;
  Child child({"--quiet", first, fifo}, -1, out.write.get(), 2);
  out.write.reset();
  Collector text(std::move(out.read));
  ASSERT_TRUE(text.wait_for("+4420 "));
  child.send(SIGTERM);
  EXPECT_EQ(child.wait().exit_code, 128 + SIGTERM);
}

// Nothing more fits into the pipe, whatever the program's writes have been cut into.
bool fills_up(const Descriptor& pipe) {
  const std::string path = "/proc/self/fd/" + std::to_string(pipe.get());
  const Descriptor writer(open(path.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC));
  return oskernel_test::wait_until(
      [&writer] {
        pollfd room{writer.get(), POLLOUT, 0};
        return poll(&room, 1, 0) == 0;
      },
      kLimitMs);
}

TEST_F(CallrouterProgram, SignalEndsItThoughNobodyTakesTheAnswers) {
  PipedChild program({});
  Collector err_text(std::move(program.err));
  std::thread feeder([&program] { feed_without_end(program.in); });
  EXPECT_TRUE(fills_up(program.out));
  program.child.send(SIGTERM);
  EXPECT_EQ(program.child.wait().exit_code, 128 + SIGTERM);
  feeder.join();
  EXPECT_THAT(err_text.all(), HasSubstr("ended while nobody took the answers; some are lost"));
}

TEST_F(CallrouterProgram, SecondSignalEndsItAtOnce) {
  PipedChild program({});
  Collector err_text(std::move(program.err));
  std::thread feeder([&program] { feed_without_end(program.in); });
  EXPECT_TRUE(fills_up(program.out));
  program.child.send(SIGTERM);
  program.child.send(SIGINT);
  // Two signals that are pending at once may be delivered in either order.
  EXPECT_THAT(program.child.wait().exit_code, ::testing::AnyOf(128 + SIGINT, 128 + SIGTERM));
  feeder.join();
  EXPECT_THAT(err_text.all(), Not(HasSubstr("routed")));
}

// ---- progress

TEST_F(CallrouterProgram, LongInputShowsProgressInLinesWhereNoTerminalIs) {
  PipedChild program({});
  Collector out_text(std::move(program.out)), err_text(std::move(program.err));
  write_all(program.in.get(), "+44 20\n+44 20\n");
  EXPECT_TRUE(err_text.wait_for("callrouter: 2 numbers, "));
  EXPECT_TRUE(err_text.wait_for("callrouter: 2 numbers, 0 a second\n"));
  program.in.reset();
  EXPECT_EQ(program.child.wait().exit_code, 0);
}

TEST_F(CallrouterProgram, EveryLineOfStandardErrorIsJsonWhereTheAnswersAre) {
  PipedChild program({"--json"});
  Collector out_text(std::move(program.out)), err_text(std::move(program.err));
  write_all(program.in.get(), "+44 20\n");
  EXPECT_TRUE(err_text.wait_for("}\n"));
  program.in.reset();
  EXPECT_EQ(program.child.wait().exit_code, 0);
  const auto lines = lines_of(err_text.all());
  ASSERT_GE(lines.size(), 2u);
  EXPECT_EQ(nlohmann::json::parse(lines[0])["progress"]["numbers"], 1);
  EXPECT_EQ(nlohmann::json::parse(lines.back())["numbers"], 1);
}

TEST_F(CallrouterProgram, LongInputOfKnownSizeShowsABarOnATerminal) {
  std::string text;
  for (int i = 0; i < 20000; ++i) text += "+44 20 7946 0123\n";
  const std::string numbers = file("numbers", text);
  int master = -1, slave = -1;
  ASSERT_EQ(openpty(&master, &slave, nullptr, nullptr, nullptr), 0);
  fcntl(master, F_SETFD, FD_CLOEXEC);
  Descriptor screen_end(slave);
  Pipe out;
  Child child({numbers}, -1, out.write.get(), slave);
  out.write.reset();
  screen_end.reset();
  Collector screen{Descriptor(master)};
  // Nobody takes the answers, so the input stands still at a part of its length.
  EXPECT_TRUE(screen.wait_for("0%   10   20   30   40   50   60   70   80   90   100%"));
  EXPECT_TRUE(screen.wait_for("*"));
  Collector out_text(std::move(out.read));
  EXPECT_EQ(child.wait().exit_code, 0);
  const std::string shown = screen.all();
  EXPECT_THAT(shown, HasSubstr(std::string(51, '*') + "\r\n"));
  EXPECT_THAT(shown, HasSubstr("routed 20,000, unroutable 0, malformed 0"));
  EXPECT_EQ(lines_of(out_text.all()).size(), 20000u);
}

}  // namespace
}  // namespace callrouter_test
