// Numbering plans as CSV text: columns prefix, destination, gateway.
#ifndef CALLROUTER_PLAN_FILE_H
#define CALLROUTER_PLAN_FILE_H

#include <memory>
#include <string>
#include <string_view>

#include "examples/callrouter/plan.h"

namespace callrouter {

/// The plan that is compiled into the program: the text of e164.csv.
extern const std::string_view kDefaultPlanText;

/// Reads a plan. Empty lines and lines that begin with '#' are skipped, and so is a first row that holds the
/// column names. Throws UsageError "NAME:LINE: reason" at the first bad row, and for a plan without rows.
std::unique_ptr<Plan> parse_plan(std::string_view csv, const std::string& name);

/// Reads the plan in a file; UsageError "NAME: reason" when it cannot be read.
std::unique_ptr<Plan> load_plan(const std::string& path);

/// The plan of kDefaultPlanText.
std::unique_ptr<Plan> default_plan();

}  // namespace callrouter

#endif
