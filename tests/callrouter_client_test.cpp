// callroute, the client: against the router, and against routers that lie, stay silent or go away.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pty.h>

#include <fstream>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "tests/callrouter_served.h"

namespace callrouter_test {
namespace {

using oskernel_test::PeerListener;
using ::testing::AllOf;
using ::testing::ContainsRegex;
using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::StartsWith;
using Texts = std::vector<std::string>;

Outcome callroute(Texts arguments, std::string_view input = "") {
  return run_program(std::move(arguments), input, CALLROUTE_PROGRAM);
}

std::vector<std::string> lines_of(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream stream(text);
  for (std::string line; std::getline(stream, line);) lines.push_back(line);
  return lines;
}

// A router by our own rules, for one connection.
class FakeRouter {
 public:
  template <class Behaviour>
  explicit FakeRouter(Behaviour behaviour)
      : thread_([this, behaviour] {
          PeerStream peer = listener_.accept();
          EXPECT_TRUE(peer.is_open());
          behaviour(peer);
        }) {}
  ~FakeRouter() { thread_.join(); }
  std::string port() const { return std::to_string(listener_.port()); }

 private:
  PeerListener listener_;
  std::thread thread_;
};

class CallrouteBothFramings : public ::testing::TestWithParam<bool> {
 protected:
  // The arguments that lead to the router, and more of them.
  Texts to_router(Texts more = {}) const {
    Texts arguments{"127.0.0.1", std::to_string(tpkt() ? router_.tpkt : router_.line)};
    if (tpkt()) arguments.emplace_back("--tpkt");
    arguments.insert(arguments.end(), more.begin(), more.end());
    return arguments;
  }
  static bool tpkt() { return GetParam(); }

  const Served router_;
};

INSTANTIATE_TEST_SUITE_P(Framings, CallrouteBothFramings, ::testing::Bool(),
                         [](const auto& row) { return row.param ? "Tpkt" : "Lines"; });

TEST_P(CallrouteBothFramings, AsksTheNumbersOfTheCommandLine) {
  const Outcome run = callroute(to_router({"+44 20 7946 0123", "12425550107", "x", ""}));
  EXPECT_EQ(run.exit_code, 0);
  EXPECT_EQ(run.out, std::string(kLondon) + "\n" + kNassau +
                         "\nx                  malformed: unexpected 'x' at column 1\n"
                         "                   malformed: empty line\n");
  EXPECT_EQ(run.err, "");
}

TEST_P(CallrouteBothFramings, AsksWhatStandsOnStandardInputAndGetsWhatTheRouterSaysItself) {
  std::ifstream stream(CALLROUTER_DIR "/numbers.txt");
  std::stringstream sample;
  sample << stream.rdbuf();
  const Outcome run = callroute(to_router(), sample.str());
  EXPECT_EQ(run.exit_code, 0);
  EXPECT_EQ(run.err, "");
  const Texts lines = lines_of(run.out);
  const Texts right = lines_of(run_program({"--quiet", CALLROUTER_DIR "/numbers.txt"}).out);
  ASSERT_EQ(lines.size(), right.size());
  for (std::size_t i = 0; i < lines.size(); ++i) {
    std::string text = right[i].substr(0, right[i].find(" (" CALLROUTER_DIR));
    if (!tpkt()) std::erase_if(text, [](char c) { return static_cast<unsigned char>(c) > 127; });
    EXPECT_EQ(lines[i], text);
  }
}

TEST_P(CallrouteBothFramings, NoInputIsNoError) {
  const Outcome run = callroute(to_router());
  EXPECT_EQ(run.exit_code, 0);
  EXPECT_EQ(run.out + run.err, "");
}

TEST_P(CallrouteBothFramings, TypedNumberIsAnsweredAtOnce) {
  PipedChild program(to_router(), CALLROUTE_PROGRAM);
  Collector text(std::move(program.out));
  for (const char* prefix : {"44", "45", "46"}) {
    write_all(program.in.get(), std::string("+") + prefix + "20\n");
    ASSERT_TRUE(text.wait_for(std::string("+") + prefix + "20 "));
  }
  program.in.reset();
  EXPECT_EQ(program.child.wait().exit_code, 0);
}

TEST_P(CallrouteBothFramings, NoByteMakesANumberDisappear) {
  std::string input;
  for (int c = 0; c < 256; ++c) {
    if (c != '\n') input += std::string("4") + static_cast<char>(c) + "4\n";
  }
  input += std::string(5000, ' ') + "44\n" + std::string(5000, '4') + "\n44 20";
  const Outcome run = callroute(to_router(), input);
  EXPECT_EQ(run.exit_code, 0);
  EXPECT_EQ(run.err, "");
  const Texts lines = lines_of(run.out);
  ASSERT_EQ(lines.size(), 258u);
  EXPECT_THAT(lines[255], HasSubstr("malformed: "));
  EXPECT_THAT(lines[256], HasSubstr("malformed: "));
  EXPECT_THAT(lines[257], StartsWith("+4420 "));
}

TEST_P(CallrouteBothFramings, ManyNumbersComeBackInTheirOrder) {
  constexpr int kNumbers = kPlainBuild ? 100'000 : 5'000;
  std::string input;
  for (int i = 0; i < kNumbers; ++i) input += "+44" + std::to_string(10'000'000 + i) + "\n";
  const Outcome run = callroute(to_router(), input);
  EXPECT_EQ(run.exit_code, 0);
  const Texts lines = lines_of(run.out);
  ASSERT_EQ(lines.size(), static_cast<std::size_t>(kNumbers));
  int wrong = 0;
  for (int i = 0; i < kNumbers; ++i) {
    wrong +=
        lines[static_cast<std::size_t>(i)].starts_with("+44" + std::to_string(10'000'000 + i) + " ") ? 0 : 1;
  }
  EXPECT_EQ(wrong, 0);
}

TEST_P(CallrouteBothFramings, AnswersAreJsonWhenAsked) {
  const Outcome run = callroute(to_router({"--json", "+1 242 555 0107", "9991", "1-800-FLOWERS"}));
  EXPECT_EQ(run.exit_code, 0);
  const Texts lines = lines_of(run.out);
  ASSERT_EQ(lines.size(), 3u);
  auto json = nlohmann::json::parse(lines[0]);
  EXPECT_GT(json["latency_ms"].get<double>(), 0);
  json.erase("latency_ms");
  EXPECT_EQ(json, nlohmann::json({{"asked", "+1 242 555 0107"},
                                  {"number", "+12425550107"},
                                  {"prefix", "1242"},
                                  {"destination", "Bahamas"},
                                  {"gateway", "gw-carib-1"},
                                  {"status", "routed"},
                                  {"reason", nullptr}}));
  json = nlohmann::json::parse(lines[1]);
  EXPECT_EQ(json["number"], "+9991");
  EXPECT_EQ(json["status"], "unroutable");
  EXPECT_EQ(json["reason"], "no prefix of the plan matches");
  EXPECT_EQ(json["gateway"], nullptr);
  json = nlohmann::json::parse(lines[2]);
  EXPECT_EQ(json["asked"], "1-800-FLOWERS");
  EXPECT_EQ(json["number"], nullptr);
  EXPECT_EQ(json["status"], "malformed");
  EXPECT_EQ(json["reason"], "unexpected 'F' at column 7");
}

TEST_P(CallrouteBothFramings, HostMayBeAName) {
  Texts arguments = to_router({"+44 20 7946 0123"});
  arguments[0] = "localhost";
  const Outcome run = callroute(arguments);
  EXPECT_EQ(run.exit_code, 0) << run.err;
  EXPECT_EQ(run.out, std::string(kLondon) + "\n");
}

TEST_P(CallrouteBothFramings, LoadEndsWithTheFigures) {
  const Outcome run = callroute(to_router({"--load", "5000", "--connections", "20", "--pipeline", "4"}));
  EXPECT_EQ(run.exit_code, 0);
  EXPECT_EQ(run.err, "");
  const Texts lines = lines_of(run.out);
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_EQ(lines[0], std::string("5,000 calls over 20 connections (") + (tpkt() ? "tpkt" : "lines") +
                          "), 4 at a time on each: 4,800 routed, 100 unroutable, 100 malformed, 0 wrong");
  EXPECT_THAT(lines[1],
              ContainsRegex("^[0-9,]+ calls a second in [0-9.]+ s; latency p50 [0-9.]+ ms, p99 [0-9.]+ ms, "
                            "max [0-9.]+ ms$"));
}

TEST_P(CallrouteBothFramings, LoadIsJsonForScripts) {
  const Outcome run = callroute(to_router({"--json", "--load", "500", "--connections", "3"}));
  EXPECT_EQ(run.exit_code, 0);
  EXPECT_EQ(run.err, "");
  const auto json = nlohmann::json::parse(run.out);
  EXPECT_EQ(json["calls"], 500);
  EXPECT_EQ(json["connections"], 3);
  EXPECT_EQ(json["framing"], tpkt() ? "tpkt" : "lines");
  EXPECT_EQ(json["pipeline"], 1);
  EXPECT_EQ(json["routed"].get<int>() + json["unroutable"].get<int>() + json["malformed"].get<int>(), 500);
  EXPECT_EQ(json["wrong"], 0);
  EXPECT_GT(json["calls_per_second"], 0);
  EXPECT_LE(json["latency_ms"]["p50"].get<double>(), json["latency_ms"]["p99"].get<double>());
  EXPECT_LE(json["latency_ms"]["p99"].get<double>(), json["latency_ms"]["max"].get<double>());
}

TEST_P(CallrouteBothFramings, LoadSpreadsOverMoreConnectionsThanAnyBacklog) {
  const Outcome run = callroute(to_router({"--load", "2000", "--connections", "900"}));
  EXPECT_EQ(run.exit_code, 0) << run.err;
  EXPECT_THAT(run.out, HasSubstr(" 0 wrong\n"));
}

TEST_P(CallrouteBothFramings, LoadShowsABarOnATerminal) {
  int master = -1, slave = -1;
  ASSERT_EQ(openpty(&master, &slave, nullptr, nullptr, nullptr), 0);
  fcntl(master, F_SETFD, FD_CLOEXEC);
  Pipe out;
  Child child(to_router({"--load", "1000"}), -1, out.write.get(), slave, false, CALLROUTE_PROGRAM);
  out.write.reset();
  close(slave);
  Collector screen{Descriptor(master)}, text(std::move(out.read));
  EXPECT_EQ(child.wait().exit_code, 0);
  EXPECT_THAT(screen.all(), AllOf(HasSubstr("0%   10   20   30   40   50   60   70   80   90   100%"),
                                  HasSubstr(std::string(51, '*'))));
  EXPECT_THAT(text.all(), HasSubstr("1,000 calls over 1 connection "));
}

// ---- what goes wrong

TEST(CallrouteErrors, WrongPlanIsFoundOut) {
  const Served router;
  const std::string plan = testing::TempDir() + "/callroute_plan_" + std::to_string(getpid());
  std::ofstream(plan) << "1,America,gw-1\n44,Britain,gw-2\n";
  const Outcome run = callroute({"127.0.0.1", std::to_string(router.line), "--load", "100", "--plan", plan});
  std::remove(plan.c_str());
  EXPECT_EQ(run.exit_code, 1);
  EXPECT_THAT(run.err, HasSubstr("callroute: wrong answer to +"));
  EXPECT_THAT(run.err, HasSubstr("  the plan says: +"));
  EXPECT_THAT(run.err, EndsWith(" of 100 answers were wrong\n"));
}

TEST(CallrouteErrors, AnswerToAnotherNumberIsFoundOut) {
  FakeRouter router([](PeerStream& peer) {
    peer.receive(7);
    peer.send_all("+4421 44 United Kingdom gw\r\n");
    peer.ended();
  });
  const Outcome run = callroute({"127.0.0.1", router.port(), "+4420"});
  EXPECT_EQ(run.exit_code, 1);
  EXPECT_EQ(run.out, "");
  EXPECT_EQ(run.err, "callroute: 127.0.0.1:" + router.port() +
                         " sent what it was not asked for: +4421 44 United Kingdom gw\n");
}

TEST(CallrouteErrors, UnknownHostIsNamed) {
  const Outcome run = callroute({"no..such.host", "5000", "44"});
  EXPECT_EQ(run.exit_code, 3);
  EXPECT_EQ(run.err, "callroute: no..such.host: the host is unknown\n");
}

TEST(CallrouteErrors, RefusedConnectionIsNamed) {
  const oskernel_test::RefusingPort closed;
  for (const char* framing : {"--tpkt", "--quiet"}) {
    const Outcome run = callroute({framing, "127.0.0.1", std::to_string(closed.port()), "44"});
    EXPECT_EQ(run.exit_code, 4);
    EXPECT_EQ(run.err, "callroute: 127.0.0.1:" + std::to_string(closed.port()) + ": Connection refused\n");
  }
}

TEST(CallrouteErrors, RouterThatGoesAwayIsNamed) {
  FakeRouter router([](PeerStream& peer) { peer.receive(4); });
  const Outcome run = callroute({"127.0.0.1", router.port(), "44"});
  EXPECT_EQ(run.exit_code, 5);
  EXPECT_EQ(run.err, "callroute: 127.0.0.1:" + router.port() + " has closed the connection\n");
}

TEST(CallrouteErrors, RouterThatGoesAwayWhileNothingIsTypedIsNamed) {
  FakeRouter router([](PeerStream& peer) { peer.send_all("error: no request for 60 s, closing\r\n"); });
  PipedChild program({"127.0.0.1", router.port()}, CALLROUTE_PROGRAM);
  Collector err(std::move(program.err));
  EXPECT_EQ(program.child.wait().exit_code, 5);
  EXPECT_EQ(err.all(), "callroute: 127.0.0.1:" + router.port() +
                           " has closed the connection; it says \"no request for 60 s, closing\"\n");
}

TEST(CallrouteErrors, BrokenFrameIsNamed) {
  FakeRouter router([](PeerStream& peer) {
    peer.receive(6);
    peer.send_all("HTTP/1.0 400 Bad Request\r\n");
    peer.ended();
  });
  const Outcome run = callroute({"--tpkt", "127.0.0.1", router.port(), "44"});
  EXPECT_EQ(run.exit_code, 5);
  EXPECT_EQ(run.err, "callroute: 127.0.0.1:" + router.port() + ": the connection broke\n");
}

TEST(CallrouteErrors, SilentRouterIsGivenUpInTime) {
  FakeRouter router([](PeerStream& peer) { peer.ended(); });
  const Outcome run = callroute({"--timeout", "0.3", "127.0.0.1", router.port(), "44"});
  EXPECT_EQ(run.exit_code, 6);
  EXPECT_EQ(run.err, "callroute: 127.0.0.1:" + router.port() + ": no answer within 0.3 s\n");
}

TEST(CallrouteErrors, RouterThatLetsNobodyInIsGivenUpInTime) {
  const oskernel_test::FullPort full;
  const Outcome run = callroute({"--timeout", "0.3", "127.0.0.1", std::to_string(full.port()), "44"});
  EXPECT_EQ(run.exit_code, 6);
  EXPECT_EQ(run.err,
            "callroute: 127.0.0.1:" + std::to_string(full.port()) + ": no connection within 0.3 s\n");
}

TEST(CallrouteErrors, FullRouterIsQuoted) {
  const Served router({"--connections", "1"});
  PeerStream first = router.lines();
  EXPECT_EQ(answer(first, "1 242 555 0107\n"), kNassau);
  const Outcome run = callroute({"127.0.0.1", std::to_string(router.line), "--load", "10"});
  EXPECT_EQ(run.exit_code, 5);
  EXPECT_THAT(run.err, HasSubstr("it says \"the limit of 1 connection is reached; try again later\""));
}

TEST(CallrouteErrors, MistakesOnTheCommandLineAreExplained) {
  const std::vector<Texts> mistakes = {{},
                                       {"127.0.0.1"},
                                       {"127.0.0.1", "0"},
                                       {"127.0.0.1", "65536"},
                                       {"127.0.0.1", "x"},
                                       {"0.0.0.0", "5000"},
                                       {"", "5000"},
                                       {"127.0.0.1", "5000", "--load", "10", "44"},
                                       {"127.0.0.1", "5000", "--load", "0"},
                                       {"127.0.0.1", "5000", "--connections", "2"},
                                       {"127.0.0.1", "5000", "--pipeline", "2"},
                                       {"127.0.0.1", "5000", "--timeout", "0"},
                                       {"127.0.0.1", "5000", "44\n45"},
                                       {"127.0.0.1", "5000", std::string(1025, '4')},
                                       {"127.0.0.1", "5000", "--bogus"}};
  for (const Texts& mistake : mistakes) {
    const Outcome run = callroute(mistake);
    EXPECT_EQ(run.exit_code, 2) << ::testing::PrintToString(mistake);
    EXPECT_EQ(run.out, "");
    EXPECT_THAT(run.err, AllOf(StartsWith("callroute: "), EndsWith("\nTry callroute --help\n")));
  }
  const Outcome run = callroute({"127.0.0.1", "5000", "--load", "10", "--plan", "/no/such/plan"});
  EXPECT_EQ(run.exit_code, 2);
  EXPECT_EQ(run.err, "callroute: /no/such/plan: No such file or directory\n");
}

TEST(CallrouteErrors, HelpAndVersionGoToStandardOutput) {
  const Outcome help = callroute({"--help"});
  EXPECT_EQ(help.exit_code, 0);
  for (const char* word :
       {"--tpkt", "--load", "--connections", "--pipeline", "--timeout", "--json", "Exit codes"}) {
    EXPECT_THAT(help.out, HasSubstr(word));
  }
  EXPECT_EQ(help.err, "");
  const Outcome version = callroute({"--version"});
  EXPECT_EQ(version.exit_code, 0);
  EXPECT_THAT(version.out, StartsWith("callroute "));
}

}  // namespace
}  // namespace callrouter_test
