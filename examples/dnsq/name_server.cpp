#include "examples/dnsq/name_server.h"

#include <arpa/inet.h>
#include <fmt/format.h>

#include <algorithm>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string_view>

namespace dnsq {
namespace {

constexpr const char* kBroadcast = "broadcast";
constexpr const char* kLoopback = "127.0.0.1";

// RFC 1035 2.3.4, for names as text.
constexpr std::size_t kLongestName = 253;
constexpr std::size_t kLongestLabel = 63;

bool is_address(const std::string& text) {
  in_addr unused{};
  return inet_pton(AF_INET, text.c_str(), &unused) == 1;
}

// Digits and dots alone are never a host's name.
bool is_meant_as_address(std::string_view text) {
  return text.find_first_not_of("0123456789.") == std::string_view::npos;
}

bool is_host_name(const std::string& text) {
  const auto good = [](char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' ||
           c == '_' || c == '.';
  };
  return std::all_of(text.begin(), text.end(), good) && !is_meant_as_address(text) &&
         why_unsendable(without_last_dot(text)).empty();
}

std::string shortened(std::string_view text) {
  constexpr std::size_t kShown = 20;
  return text.size() <= kShown ? std::string(text) : std::string(text.substr(0, kShown)) + "...";
}

}  // namespace

bool NameServer::is_name() const { return !text.empty() && !is_address(text); }

std::string NameServer::shown() const { return text.empty() ? "the local network" : text; }

std::optional<NameServer> configured_name_server(const char* file) {
  std::ifstream lines(file);
  for (std::string line; std::getline(lines, line);) {
    // The keyword begins the line, and a comment never looks like it.
    std::istringstream words(line);
    std::string keyword, address;
    words >> keyword >> address;
    if (!line.starts_with("nameserver") || keyword != "nameserver" || !is_address(address)) continue;
    // By 0.0.0.0 the resolver means the machine itself; as a destination it is none.
    return NameServer{address == "0.0.0.0" ? kLoopback : address};
  }
  return std::nullopt;
}

NameServer read_name_server(const std::string& text) {
  if (text == kBroadcast) return {};
  if (text.empty()) throw std::invalid_argument("a name server's address or name is missing");
  if (text == "0.0.0.0") throw std::invalid_argument("0.0.0.0 is no address of a name server");
  if (!is_address(text) && !is_host_name(text)) {
    throw std::invalid_argument(fmt::format("'{}' is neither an IPv4 address nor a host name", text));
  }
  return {text};
}

std::string without_last_dot(std::string name) {
  if (name.ends_with('.')) name.pop_back();
  return name;
}

std::string why_unsendable(const std::string& name) {
  if (name.empty()) return "the root cannot be asked for";
  if (name.size() > kLongestName) {
    return fmt::format("it has {} characters, the most is {}", name.size(), kLongestName);
  }
  std::size_t begin = 0;
  for (int number = 1;; ++number) {
    const std::size_t end = std::min(name.find('.', begin), name.size());
    if (end == begin) return fmt::format("label {} is empty, at character {}", number, begin + 1);
    if (end - begin > kLongestLabel) {
      return fmt::format("label {} ({}) has {} characters, the most is {}", number,
                         shortened(std::string_view(name).substr(begin, end - begin)), end - begin,
                         kLongestLabel);
    }
    if (end == name.size()) return {};
    begin = end + 1;
  }
}

}  // namespace dnsq
