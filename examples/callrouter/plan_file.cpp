#include "examples/callrouter/plan_file.h"

#include <csv.h>
#include <fcntl.h>
#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <utility>
#include <vector>

namespace callrouter {
namespace {

constexpr std::size_t kColumns = 3;
constexpr std::string_view kByteOrderMark = "\xEF\xBB\xBF";

// A plan is some kilobytes. The limit keeps `--plan /dev/zero` from eating the machine.
constexpr std::size_t kMaxPlanBytes = 64u << 20;

// Splits a line at a time, which is how the line numbers of the complaints come about. A quoted field that
// goes on in the next line is refused with that: no field of a plan holds a line end.
class RowSplitter {
 public:
  RowSplitter() { csv_init(&parser_, CSV_STRICT | CSV_STRICT_FINI); }
  ~RowSplitter() { csv_free(&parser_); }
  RowSplitter(const RowSplitter&) = delete;
  RowSplitter& operator=(const RowSplitter&) = delete;

  // Throws std::invalid_argument with the reason.
  std::vector<std::string> split(std::string_view line) {
    fields_.clear();
    if (csv_parse(&parser_, line.data(), line.size(), on_field, nullptr, this) != line.size() ||
        csv_fini(&parser_, on_field, nullptr, this) != 0) {
      const int error = csv_error(&parser_);
      throw std::invalid_argument(error == CSV_EPARSE ? "a quote is missing or misplaced"
                                                      : csv_strerror(error));
    }
    return std::move(fields_);
  }

 private:
  static void on_field(void* text, std::size_t len, void* self) {
    static_cast<RowSplitter*>(self)->fields_.emplace_back(static_cast<const char*>(text), len);
  }

  csv_parser parser_;
  std::vector<std::string> fields_;
};

void add_row(Plan& plan, std::vector<std::string> fields, int line) {
  if (fields.size() != kColumns) {
    throw std::invalid_argument(
        fmt::format("{} column{} instead of {}", fields.size(), fields.size() == 1 ? "" : "s", kColumns));
  }
  plan.add(std::move(fields[0]), std::move(fields[1]), std::move(fields[2]), line);
}

std::string read_file(const std::string& path) {
  const auto failed = [&path](int error) { return UsageError(path + ": " + std::strerror(error)); };
  const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) throw failed(errno);
  std::string text;
  for (;;) {
    char block[65536];
    const ssize_t got = read(fd, block, sizeof block);
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0 || text.size() > kMaxPlanBytes) {
      const int error = got < 0 ? errno : EFBIG;
      close(fd);
      if (got == 0) return text;
      throw failed(error);
    }
    text.append(block, static_cast<std::size_t>(got));
  }
}

}  // namespace

std::unique_ptr<Plan> parse_plan(std::string_view csv, const std::string& name) {
  auto plan = std::make_unique<Plan>();
  RowSplitter splitter;
  const std::vector<std::string> column_names{"prefix", "destination", "gateway"};
  bool first_row = true;
  int line_number = 0;
  if (csv.substr(0, kByteOrderMark.size()) == kByteOrderMark) csv.remove_prefix(kByteOrderMark.size());
  while (!csv.empty()) {
    const std::size_t len = std::min(csv.find('\n'), csv.size());
    const std::string_view line = csv.substr(0, len);
    csv.remove_prefix(std::min(len + 1, csv.size()));
    ++line_number;
    if (line.find_first_not_of(" \t\r") == std::string_view::npos || line.front() == '#') continue;
    try {
      std::vector<std::string> fields = splitter.split(line);
      const bool names = first_row && fields == column_names;
      first_row = false;
      if (!names) add_row(*plan, std::move(fields), line_number);
    } catch (const std::invalid_argument& error) {
      throw UsageError(fmt::format("{}:{}: {}", name, line_number, error.what()));
    }
  }
  if (plan->size() == 0) throw UsageError(fmt::format("{}:{}: no rows", name, std::max(line_number, 1)));
  return plan;
}

std::unique_ptr<Plan> load_plan(const std::string& path) { return parse_plan(read_file(path), path); }

std::unique_ptr<Plan> default_plan() { return parse_plan(kDefaultPlanText, "e164.csv"); }

}  // namespace callrouter
