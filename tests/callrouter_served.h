// The call router while it serves the network, and what its tests say to it.
#ifndef OSKERNEL_TESTS_CALLROUTER_SERVED_H
#define OSKERNEL_TESTS_CALLROUTER_SERVED_H

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "tests/callrouter_child.h"
#include "tests/support/kernel_fixture.h"
#include "tests/support/socket_peer.h"

namespace callrouter_test {

using oskernel_test::PeerStream;
using oskernel_test::wait_until;

/// What a number of the built-in plan is answered with.
inline constexpr const char* kLondon =
    "+442079460123      44       United Kingdom                          gw-eu-1";
inline constexpr const char* kNassau =
    "+12425550107       1242     Bahamas                                 gw-carib-1";

/// `callrouter --serve` with more arguments: started, its ports read, and in the end asked to stop.
class Served {
 public:
  explicit Served(std::vector<std::string> arguments = {})
      : program_(with_serve(std::move(arguments))),
        out_(std::move(program_.out)),
        err_(std::move(program_.err)) {
    // The lines come one after the other, and the greeting of the operator behind them.
    EXPECT_TRUE(wait_until([this] { return count_ports() == wanted_; }, kLimitMs)) << err_.so_far();
    tpkt = port_behind("serving tpkt on ");
    line = port_behind("serving lines on ");
    tls = port_behind("serving tls lines on ");
  }
  ~Served() {
    if (!ended_) stops_cleanly();
  }

  UWORD tpkt = 0, line = 0, tls = 0;

  void type(std::string_view text) { write_all(program_.in.get(), text); }
  void close_input() { program_.in.reset(); }
  bool shows(std::string_view text) { return out_.wait_for(text); }
  void send(int number) const { program_.child.send(number); }
  pid_t pid() const { return program_.child.pid(); }
  std::string shown() { return out_.so_far(); }

  /// Ends it; everything must have been given back. What it said on standard error.
  std::string stops_cleanly(int signal_number = SIGTERM) {
    if (signal_number != 0) send(signal_number);
    ended_ = true;
    const int exit_code = program_.child.wait().exit_code;
    EXPECT_EQ(exit_code, 0);
    if (exit_code < 0) program_.child.send(SIGKILL);
    const std::string said = err_.all();
    EXPECT_THAT(said, ::testing::Not(::testing::HasSubstr("left behind")));
    EXPECT_THAT(said, ::testing::Not(::testing::HasSubstr("fatal")));
    EXPECT_THAT(said, ::testing::Not(::testing::HasSubstr("warning")));
    return said;
  }

  PeerStream lines() const { return open(line); }
  PeerStream packets() const { return open(tpkt); }

 private:
  static PeerStream open(UWORD port) {
    PeerStream stream = PeerStream::connect_to(port);
    EXPECT_TRUE(stream.is_open());
    return stream;
  }

  std::vector<std::string> with_serve(std::vector<std::string> arguments) {
    const auto count = [&](const char* name) {
      return static_cast<std::size_t>(std::count(arguments.begin(), arguments.end(), name));
    };
    wanted_ = count("--tpkt") + count("--line") + count("--tls");
    if (wanted_ == 0) wanted_ = 2;
    arguments.insert(arguments.begin(), "--serve");
    return arguments;
  }

  std::size_t count_ports() {
    const std::string text = out_.so_far();
    std::size_t count = 0;
    for (std::size_t at = 0; (at = text.find("serving ", at)) != std::string::npos; ++at) {
      count += text.find('\n', at) != std::string::npos ? 1 : 0;
    }
    return count;
  }

  UWORD port_behind(std::string_view label) {
    const std::string text = out_.so_far();
    const std::size_t at = text.find(label);
    if (at == std::string::npos) return 0;
    return static_cast<UWORD>(std::atoi(text.c_str() + text.find(':', at) + 1));
  }

  std::size_t wanted_ = 0;
  PipedChild program_;
  Collector out_, err_;
  bool ended_ = false;
};

/// Sends lines and reads as many answers, without their line ends.
inline std::vector<std::string> answers(PeerStream& stream, std::size_t count) {
  std::vector<std::string> lines;
  std::string text;
  while (lines.size() < count) {
    const std::size_t end = text.find("\r\n");
    if (end == std::string::npos) {
      if (!stream.receive_some(&text, 1)) break;
      continue;
    }
    lines.push_back(text.substr(0, end));
    text.erase(0, end + 2);
  }
  return lines;
}

inline std::string answer(PeerStream& stream, std::string_view request) {
  EXPECT_TRUE(stream.send_all(request));
  const auto lines = answers(stream, 1);
  return lines.empty() ? "(none)" : lines[0];
}

/// A packet of RFC 1006.
inline std::string packet(std::string_view payload) {
  const std::size_t length = payload.size() + 4;
  std::string bytes{3, 0, static_cast<char>(length >> 8), static_cast<char>(length & 0xFF)};
  return bytes.append(payload);
}

/// The payload of the next packet, "(none)" when none comes or its header is not one.
inline std::string next_packet(PeerStream& stream) {
  const std::string header = stream.receive(4);
  if (header.size() < 4 || header[0] != 3 || header[1] != 0) return "(none)";
  const auto byte = [&](int i) {
    return static_cast<std::size_t>(static_cast<unsigned char>(header[static_cast<std::size_t>(i)]));
  };
  const std::size_t length = byte(2) << 8 | byte(3);
  if (length < 4) return "(none)";
  return stream.receive(length - 4);
}

}  // namespace callrouter_test

#endif
