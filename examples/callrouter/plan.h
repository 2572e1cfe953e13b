// The numbering plan: prefixes with their destinations, and the longest match.
#ifndef CALLROUTER_PLAN_H
#define CALLROUTER_PLAN_H

#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "kernel/btree.h"

namespace callrouter {

/// A plan or a command line that cannot be used; what() is complete, "FILE:LINE: reason" for a plan.
class UsageError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// What the tree compares: a string of digits in lexicographic order, a shorter string before those that
/// continue it. Rows of the plan are such keys, and so is a number that is looked up.
class DigitKey : public OSBTreeObj {
 public:
  /// Lends `digits`. A search tries at most the first `longest` of them.
  explicit DigitKey(std::string_view digits, int longest = 0) : digits_(digits), longest_(longest) {}

  int Compare(OSBTreeObj* node) override;
  int CompareLeft(OSBTreeObj* node) override;
  int CompareAmbiguous(OSBTreeObj* node, int len) override;
  int CompareMaxLen() override;

  std::string_view digits() const { return digits_; }

 protected:
  std::string_view digits_;

 private:
  int longest_;
};

/// One row. Constant after construction; belongs to the plan's tree.
class PlanRow : public DigitKey {
 public:
  PlanRow(std::string prefix_digits, std::string destination_text, std::string gateway_text, int line_number)
      : DigitKey({}),
        prefix(std::move(prefix_digits)),
        destination(std::move(destination_text)),
        gateway(std::move(gateway_text)),
        line(line_number) {
    digits_ = prefix;
  }

  const std::string prefix;
  const std::string destination;
  const std::string gateway;
  const int line;  ///< where the row stands in its file
};

/// Rows are added before the first search; after that any thread may search.
class Plan {
 public:
  Plan() = default;
  Plan(const Plan&) = delete;
  Plan& operator=(const Plan&) = delete;

  /// Adds a row. Throws std::invalid_argument with the reason when a field is empty, the prefix is not 1 to 15
  /// digits or is there already, or a text holds a control character; the plan is unchanged then.
  void add(std::string prefix, std::string destination, std::string gateway, int line);

  /// The row with the longest prefix that `digits` begins with, or null. The plan keeps the row.
  const PlanRow* match(std::string_view digits) const;

  int size() const { return tree_.size; }
  /// The rows in the order in which they were added.
  const std::vector<const PlanRow*>& rows() const { return rows_; }

 private:
  mutable OSBTree tree_;  ///< searching counts its comparisons in the tree, under the tree's own lock
  std::vector<const PlanRow*> rows_;
  int longest_ = 0;
};

}  // namespace callrouter

#endif
