/// Name servers that nobody here wrote, on port 53 of 127.0.0.1 in a network namespace of the test's own.
///
///     OSKERNEL_IN_NETWORK_NAMESPACE();
///     NameServer server("nsd", kZone, zone_text());
///     ASSERT_TRUE(server.answers());
#ifndef OSKERNEL_TESTS_NAME_SERVER_H
#define OSKERNEL_TESTS_NAME_SERVER_H

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <optional>
#include <string>
#include <system_error>
#include <vector>

#include "dns_messages.h"
#include "net_namespace.h"
#include "socket_peer.h"

namespace oskernel_test {

inline constexpr UWORD kNameServerPort = 53;

/// Sends a message to the name server and returns what comes back, empty when nothing does in time.
class DnsPeer {
 public:
  DnsPeer() : fd_(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
    const sockaddr_in server = loopback_address(kNameServerPort);
    if (::connect(fd_.get(), reinterpret_cast<const sockaddr*>(&server), sizeof server) != 0) fd_.reset();
  }
  std::string ask(const std::string& query, int timeout_ms = kPeerPatienceMs) {
    if (::send(fd_.get(), query.data(), query.size(), MSG_NOSIGNAL) < 0) return {};
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
    for (;;) {
      const auto left =
          std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
      if (!wait_readable(fd_.get(), left.count() > 0 ? static_cast<int>(left.count()) : 0)) return {};
      char answer[65536];
      const ssize_t got = ::recv(fd_.get(), answer, sizeof answer, MSG_DONTWAIT);
      if (got < 0 && errno != EAGAIN && errno != EINTR) return {};
      // One with another ID is that of a question which has been given up.
      if (got >= 2 && std::memcmp(answer, query.data(), 2) == 0) {
        return std::string(answer, static_cast<std::size_t>(got));
      }
    }
  }

 private:
  Descriptor fd_;
};

/// `nsd` or `named` with one zone. Runs as whoever the test runs as, root or the root of a user namespace, leaves
/// nothing outside its directory, and is killed when the object goes.
class NameServer {
 public:
  NameServer(const std::string& program, const std::string& zone, const std::string& zone_text) {
    std::string pattern = (std::filesystem::temp_directory_path() / "oskernel-dns-XXXXXX").string();
    if (mkdtemp(pattern.data()) == nullptr) ADD_FAILURE() << "cannot make a directory " << pattern;
    directory_ = pattern;
    write("zone", zone_text);
    const std::string here = borrow(program);
    if (program == "nsd") {
      process_.emplace(std::vector<std::string>{here, "-d", "-c", write("nsd.conf", nsd_conf(zone))});
    } else {
      // One thread; everything that it says goes to its standard error.
      process_.emplace(
          std::vector<std::string>{here, "-g", "-n", "1", "-c", write("named.conf", named_conf(zone))});
    }
    started_ = wait_for_zone(zone);
  }
  ~NameServer() {
    process_->stop();
    umount2(path("program").c_str(), MNT_DETACH);
    std::error_code ignored;
    std::filesystem::remove_all(directory_, ignored);
  }
  NameServer(const NameServer&) = delete;
  NameServer& operator=(const NameServer&) = delete;

  /// Whether it has come up and answers for its zone.
  bool answers() const { return started_; }
  std::string path(const std::string& name) const { return directory_ + "/" + name; }
  /// Writes a file into its directory; returns the path.
  std::string write(const std::string& name, const std::string& content) const {
    std::ofstream(path(name), std::ios::binary) << content;
    return path(name);
  }
  std::string output() const { return process_->output(); }

 private:
  /// The program under a path in the directory. A system may confine the one that it installed, by its path, to
  /// files below /etc and /var (AppArmor does that with named); the mount ends with the test's mount namespace.
  std::string borrow(const std::string& program) const {
    std::string installed;
    for (const char* place : {"/usr/sbin/", "/usr/local/sbin/", "/sbin/", "/usr/bin/"}) {
      if (installed.empty() && access((place + program).c_str(), X_OK) == 0) installed = place + program;
    }
    EXPECT_FALSE(installed.empty()) << program << " is not installed";
    const std::string borrowed = write("program", "");
    EXPECT_EQ(mount(installed.c_str(), borrowed.c_str(), nullptr, MS_BIND, nullptr), 0)
        << "cannot mount " << installed << ": " << std::strerror(errno);
    return borrowed;
  }

  /// Records are sent in the same order each time, and all that belong to an answer are.
  std::string nsd_conf(const std::string& zone) const {
    return "server:\n"
           "  ip-address: 127.0.0.1\n"
           "  do-ip6: no\n"
           "  server-count: 1\n"
           "  username: \"\"\n"
           "  chroot: \"\"\n"
           "  zonesdir: \"" +
           directory_ +
           "\"\n"
           "  database: \"\"\n"
           "  pidfile: \"\"\n"
           "  xfrdfile: \"" +
           path("xfrd.state") +
           "\"\n"
           "  xfrdir: \"" +
           directory_ +
           "\"\n"
           "  zonelistfile: \"" +
           path("zone.list") +
           "\"\n"
           "  rrl-ratelimit: 0\n"
           "  refuse-any: no\n"
           "  round-robin: no\n"
           "  minimal-responses: no\n"
           "remote-control:\n"
           "  control-enable: no\n"
           "zone:\n"
           "  name: \"" +
           zone +
           "\"\n"
           "  zonefile: \"zone\"\n";
  }
  std::string named_conf(const std::string& zone) const {
    return "options {\n"
           "  directory \"" +
           directory_ +
           "\";\n"
           "  managed-keys-directory \"" +
           directory_ +
           "\";\n"
           "  listen-on { 127.0.0.1; };\n"
           "  listen-on-v6 { none; };\n"
           "  pid-file none;\n"
           "  session-keyfile none;\n"
           "  recursion no;\n"
           "  dnssec-validation no;\n"
           "  empty-zones-enable no;\n"
           "  notify no;\n"
           "  check-names primary ignore;\n"
           "  rrset-order { order none; };\n"
           "  minimal-any no;\n"
           "  minimal-responses no;\n"
           "};\n"
           "controls { };\n"
           "zone \"" +
           zone + "\" { type primary; file \"zone\"; };\n";
  }

  /// A server may answer before it has read its zone, with an error.
  bool wait_for_zone(const std::string& zone) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(kHelperLimitMs);
    for (unsigned id = 1; std::chrono::steady_clock::now() < deadline; ++id) {
      const std::string answer = DnsPeer().ask(DnsWire(id, 0).question(dns_name(zone), T_SOA).bytes(), 1000);
      const bool no_error = answer.size() >= 12 && (answer[3] & 0x0F) == 0;
      if (no_error && answer[7] == 1) return true;
      if (process_->wait(5) >= 0) break;
    }
    ADD_FAILURE() << "the name server does not come up:\n" << process_->output();
    return false;
  }

  std::string directory_;
  std::optional<Process> process_;
  bool started_ = false;
};

}  // namespace oskernel_test

#endif
