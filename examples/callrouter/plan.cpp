#include "examples/callrouter/plan.h"

#include <fmt/format.h>

#include <algorithm>
#include <memory>

#include "examples/callrouter/number.h"

namespace callrouter {
namespace {

// Every object that the tree meets, row or key, is a DigitKey.
std::string_view digits_of(const OSBTreeObj* node) { return static_cast<const DigitKey*>(node)->digits(); }

bool has_control(std::string_view text) {
  return std::any_of(text.begin(), text.end(), [](char c) {
    const auto byte = static_cast<unsigned char>(c);
    return byte < 0x20 || byte == 0x7F;
  });
}

}  // namespace

int DigitKey::Compare(OSBTreeObj* node) { return digits_.compare(digits_of(node)); }

// Zero for every row that continues this key.
int DigitKey::CompareLeft(OSBTreeObj* node) {
  return digits_.compare(digits_of(node).substr(0, digits_.size()));
}

// FindAmbiguous asks, for len = longest, ..., 1, for a row that this key "matches on its first len digits", and
// searches by the order of the answers. The answer here is the order of the string T = first len digits
// against the row's whole prefix, which makes each round an exact search for T:
//  - It is right. The order is the one that the tree is built by (Compare), so of the two subtrees of a node
//    the search takes the only one that can hold T; it ends at the row whose prefix is T if there is one, and
//    at no other row.
//  - The first hit is the longest match: a row matches the number when its prefix is one of the number's
//    leading strings, and these are tried from the longest that any row has.
// Comparing only the first len digits of the row would not do: with rows 44 and 441481, the number 4420 and
// len 2, the search would stop at whichever of the two is nearer to the root, and 441481 does not match 4420.
int DigitKey::CompareAmbiguous(OSBTreeObj* node, int len) {
  return digits_.substr(0, static_cast<std::size_t>(len)).compare(digits_of(node));
}

int DigitKey::CompareMaxLen() { return std::min(static_cast<int>(digits_.size()), longest_); }

void Plan::add(std::string prefix, std::string destination, std::string gateway, int line) {
  if (prefix.empty()) throw std::invalid_argument("the prefix is empty");
  if (destination.empty()) throw std::invalid_argument("the destination is empty");
  if (gateway.empty()) throw std::invalid_argument("the gateway is empty");
  if (prefix.find_first_not_of("0123456789") != std::string::npos) {
    throw std::invalid_argument(fmt::format("prefix '{}' is not all digits", printable(prefix)));
  }
  if (prefix.size() > kMaxDigits) {
    throw std::invalid_argument(
        fmt::format("prefix {} has {} digits, the most is {}", prefix, prefix.size(), kMaxDigits));
  }
  if (has_control(destination)) throw std::invalid_argument("the destination holds a control character");
  if (has_control(gateway)) throw std::invalid_argument("the gateway holds a control character");

  const int digits = static_cast<int>(prefix.size());
  auto row = std::make_unique<PlanRow>(std::move(prefix), std::move(destination), std::move(gateway), line);
  if (const OSBTreeObj* earlier = tree_.Find(row.get())) {
    throw std::invalid_argument(fmt::format("prefix {} stands already in line {}", row->prefix,
                                            static_cast<const PlanRow*>(earlier)->line));
  }
  rows_.push_back(row.get());
  tree_.Add(row.release());
  longest_ = std::max(longest_, digits);
}

const PlanRow* Plan::match(std::string_view digits) const {
  DigitKey key(digits, longest_);
  return static_cast<const PlanRow*>(tree_.FindAmbiguous(&key));
}

}  // namespace callrouter
