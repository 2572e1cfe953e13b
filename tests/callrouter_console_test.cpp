// The operator console: on a terminal of its own and through pipes.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pty.h>
#include <signal.h>
#include <stdlib.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "tests/callrouter_child.h"
#include "tests/support/kernel_fixture.h"

namespace callrouter_test {
namespace {

using ::testing::ContainsRegex;
using ::testing::HasSubstr;
using ::testing::Not;

constexpr const char* kControlC = "\x03";
constexpr const char* kControlD = "\x04";
constexpr const char* kControlR = "\x12";

// A terminal with the program in front of it. The test keeps the terminal's own side open, to see its settings.
class CallrouterConsole : public ::testing::Test {
 protected:
  void start(std::vector<std::string> arguments = {}) {
    arguments.insert(arguments.begin(), "--console");
    int master = -1, slave = -1;
    ASSERT_EQ(openpty(&master, &slave, nullptr, nullptr, nullptr), 0);
    fcntl(master, F_SETFD, FD_CLOEXEC);
    fcntl(slave, F_SETFD, FD_CLOEXEC);
    terminal_ = Descriptor(slave);
    keyboard_ = Descriptor(fcntl(master, F_DUPFD_CLOEXEC, 0));
    ASSERT_EQ(tcgetattr(slave, &before_), 0);
    child_ = std::make_unique<Child>(std::move(arguments), slave, slave, slave, true);
    screen_ = std::make_unique<Collector>(Descriptor(master));
    ASSERT_TRUE(shows("> "));
  }

  // Starts on a named pipe and sends a first number. The input lasts as long as the result is kept open.
  Descriptor start_on_a_fifo() {
    const std::filesystem::path fifo =
        std::filesystem::temp_directory_path() / ("callrouter_fifo_" + std::to_string(getpid()));
    std::filesystem::remove(fifo);
    EXPECT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    start({"--quiet", fifo.string()});
    Descriptor numbers(open(fifo.c_str(), O_RDWR | O_CLOEXEC));
    write_all(numbers.get(), "+44 20\n");
    EXPECT_TRUE(shows("+4420 "));
    std::filesystem::remove(fifo);  // not before the program has opened it
    return numbers;
  }

  void type(std::string_view text) { write_all(keyboard_.get(), text); }
  bool shows(std::string_view text) { return screen_->wait_for(text); }

  // Ends the program and says what the terminal showed in all.
  std::string ends_with(int exit_code) {
    EXPECT_EQ(child_->wait().exit_code, exit_code);
    termios after{};
    EXPECT_EQ(tcgetattr(terminal_.get(), &after), 0);
    EXPECT_EQ(after.c_lflag, before_.c_lflag);
    EXPECT_EQ(after.c_iflag, before_.c_iflag);
    EXPECT_EQ(after.c_oflag, before_.c_oflag);
    terminal_.reset();
    return screen_->all();
  }

  bool raw() const {
    termios now{};
    return tcgetattr(terminal_.get(), &now) == 0 && !(now.c_lflag & (ICANON | ECHO));
  }

  Descriptor terminal_, keyboard_;
  termios before_{};
  std::unique_ptr<Child> child_;
  std::unique_ptr<Collector> screen_;
};

TEST_F(CallrouterConsole, RoutesANumberAndQuits) {
  start();
  EXPECT_TRUE(raw());
  type("route 0044 (0)20 7946 0123\r");
  EXPECT_TRUE(shows("route 0044 (0)20 7946 0123\r\n+442079460123      44       United Kingdom "));
  EXPECT_TRUE(shows("> "));
  type("route 1-800-FLOWERS\r");
  EXPECT_TRUE(shows("1-800-FLOWERS      malformed: unexpected 'F' at column 7\r\n"));
  type("quit\r");
  ends_with(0);
}

TEST_F(CallrouterConsole, EveryCommandAnswers) {
  start();
  type("help\r");
  for (const char* name : {"stats", "buffers", "tasks", "timers", "sockets", "gateways", "names",
                           "resolve NAME", "route NUMBER", "trace", "help", "quit"}) {
    EXPECT_TRUE(shows(std::string("\r\n  ") + name + " ")) << name;
  }
  type("stats\r");
  EXPECT_TRUE(shows("routed 0, unroutable 0, malformed 0: 0 numbers in "));
  EXPECT_TRUE(shows("lowest free buffers: "));
  type("buffers\r");
  EXPECT_TRUE(shows("\r\nOSBuffer: L="));
  type("tasks\r");
  EXPECT_TRUE(shows("trigger"));
  EXPECT_TRUE(shows("router"));
  type("timers\r");
  EXPECT_TRUE(shows("callrouter::Progress::on_second"));
  EXPECT_TRUE(shows("every 1000 ms"));
  type("trace\r");
  EXPECT_TRUE(shows("tracing on\r\n"));
  type("trace\r");
  EXPECT_TRUE(shows("tracing off\r\n"));
  type("quit\r");
  ends_with(0);
}

TEST_F(CallrouterConsole, ControlRBringsBackEarlierLinesNewestFirst) {
  start();
  type("route 44\r");
  EXPECT_TRUE(shows("\r\n+44 "));
  EXPECT_TRUE(shows("> "));
  type("route 45\r");
  EXPECT_TRUE(shows("\r\n+45 "));
  EXPECT_TRUE(shows("> "));
  type(kControlR);
  EXPECT_TRUE(shows("route 45"));
  type(kControlR);
  EXPECT_TRUE(shows(std::string(8, '\b').substr(0, 1)));
  EXPECT_TRUE(shows("route 44"));
  type(kControlR);
  EXPECT_TRUE(shows("route 45"));
  type(kControlR);
  EXPECT_TRUE(shows("route 44"));
  type(
      "\x7f"
      "6\r");
  EXPECT_TRUE(shows("\r\n+46 "));
  EXPECT_TRUE(shows("Sweden"));
  type("quit\r");
  ends_with(0);
}

TEST_F(CallrouterConsole, UnknownAndIncompleteCommandsHintAtHelp) {
  start();
  type("frobnicate\r");
  EXPECT_TRUE(shows("There is no command \"frobnicate\"; \"help\" lists those there are.\r\n> "));
  type("route\r");
  EXPECT_TRUE(shows("Usage: route NUMBER\r\n> "));
  type("stats now\r");
  EXPECT_TRUE(shows("Usage: stats\r\n> "));
  type("  \r");
  EXPECT_TRUE(shows("\r\n> "));
  type("  quit  \r");
  ends_with(0);
}

TEST_F(CallrouterConsole, LineThatIsTooLongIsRefused) {
  start();
  type(std::string(300, 'x'));
  EXPECT_TRUE(shows("\r\nA line holds at most 255 characters.\r\n> "));
  type("\r");
  EXPECT_TRUE(shows("> "));
  type("quit\r");
  ends_with(0);
}

TEST_F(CallrouterConsole, ControlDEndsIt) {
  start();
  type(kControlD);
  ends_with(0);
}

TEST_F(CallrouterConsole, ControlCEndsItAndGivesTheTerminalBack) {
  start();
  type("rou");
  EXPECT_TRUE(shows("rou"));
  type(kControlC);
  ends_with(0);  // there was no input left to answer
}

TEST_F(CallrouterConsole, SignalEndsItAndGivesTheTerminalBack) {
  start();
  child_->send(SIGTERM);
  ends_with(0);
}

TEST_F(CallrouterConsole, ShowsWhatHappensWhileAFileIsRouted) {
  const Descriptor numbers = start_on_a_fifo();
  write_all(numbers.get(), "x\n");
  EXPECT_TRUE(shows("malformed"));
  type("tasks\r");
  EXPECT_TRUE(shows("reader"));
  type("stats\r");
  EXPECT_TRUE(shows("routed 1, unroutable 0, malformed 1: 2 numbers"));
  type("trace\r");
  EXPECT_TRUE(shows("tracing on"));
  write_all(numbers.get(), "+45 20\n");
  EXPECT_TRUE(shows("callrouter: router: line 3 of input 1: Denmark, gateway gw-eu-2"));
  type("quit\r");  // the file has not ended
  ends_with(0);
}

TEST_F(CallrouterConsole, SignalWhileAFileIsRoutedSaysSoInTheExitCode) {
  const Descriptor numbers = start_on_a_fifo();
  child_->send(SIGTERM);
  ends_with(128 + SIGTERM);
}

// ---- through pipes

TEST(CallrouterConsolePipe, LineFeedIsEnterAndTheTranscriptHoldsPlainLines) {
  const Outcome run =
      run_program({"--console"}, "route +44 20\nroute +1 242 555 0123\r\nnonsense\nquit\nroute 45\n");
  EXPECT_EQ(run.exit_code, 0);
  EXPECT_THAT(run.out, HasSubstr("> route +44 20\n+4420 "));
  EXPECT_THAT(run.out, HasSubstr("Bahamas"));
  EXPECT_THAT(run.out, HasSubstr("There is no command \"nonsense\""));
  EXPECT_THAT(run.out, Not(HasSubstr("\r")));
  EXPECT_THAT(run.out, Not(HasSubstr("+45")));
  EXPECT_EQ(run.err, "");
}

TEST(CallrouterConsolePipe, EndOfCommandsEndsIt) {
  const Outcome run = run_program({"--console"}, "help\nstats");
  EXPECT_EQ(run.exit_code, 0);
  EXPECT_THAT(run.out, HasSubstr("route NUMBER"));
}

TEST(CallrouterConsolePipe, LineThatIsTooLongIsPassedOver) {
  std::string input(5000, 'x');
  input += "\nroute 44\n";
  const Outcome run = run_program({"--console"}, input);
  EXPECT_EQ(run.exit_code, 0);
  EXPECT_THAT(run.out, HasSubstr("A line holds at most 255 characters.\n> route 44\n+44 "));
}

TEST(CallrouterConsolePipe, AnswersHaveStandardOutputToThemselvesAndFilesAreRoutedToTheirEnd) {
  const std::string sample = CALLROUTER_DIR "/numbers.txt";
  const Outcome alone = run_program({"--quiet", sample});
  const Outcome run = run_program({"--quiet", "--console", sample}, "route 44\n");
  EXPECT_EQ(run.exit_code, 0);
  EXPECT_EQ(run.out, alone.out);
  EXPECT_THAT(run.err, HasSubstr("> route 44\n+44 "));
}

}  // namespace
}  // namespace callrouter_test
