#include "examples/oskernel-size/report.h"

#include <fmt/format.h>

#include <nlohmann/json.hpp>
#include <utility>

namespace oskernel_size {
namespace {

using Json = nlohmann::ordered_json;

std::string reasons(const Quantity& quantity) {
  if (quantity.parts.empty()) return "none";
  std::string text;
  for (const Part& part : quantity.parts) {
    if (!text.empty()) text += "; ";
    text += fmt::format("{} {}", grouped(part.count), part.what);
  }
  return text;
}

std::string stack_reason(const Sizes& sizes) {
  return sizes.load.trigger_stack == 0 ? "the program calls os_check_triggers itself"
                                       : "bytes for the trigger task, whose callbacks run on it";
}

/// One number of the configuration.
struct Line {
  std::string field;
  Number value;
  std::string why;
};

std::vector<Line> lines_of(const Sizes& sizes) {
  std::vector<Line> lines;
  for (int i = 0; i < kClasses; ++i) {
    const BufferClass& one = sizes.buffers[i];
    lines.push_back({fmt::format("buf_size[{}]", i), one.size, one.size_why});
    lines.push_back({fmt::format("buf_qty[{}]", i), one.quantity.count, reasons(one.quantity)});
  }
  lines.push_back({"buf_min_space", sizes.load.headroom, "in front of copied data, for headers"});
  lines.push_back({"callback_qty", sizes.callbacks.count, reasons(sizes.callbacks)});
  lines.push_back({"link_qty", sizes.links.count, reasons(sizes.links)});
  lines.push_back({"trigger_stack", sizes.load.trigger_stack, stack_reason(sizes)});
  return lines;
}

std::string parts_of(const Memory& memory) {
  std::string text = fmt::format("buffers {}, links {}, callbacks {}", grouped(memory.buffers),
                                 grouped(memory.links), grouped(memory.callbacks));
  if (memory.rings != 0) text += fmt::format(", rings {}", grouped(memory.rings));
  return text;
}

Json json_of(const Quantity& quantity) {
  Json parts = Json::array();
  for (const Part& part : quantity.parts) parts.push_back({{"count", part.count}, {"what", part.what}});
  return parts;
}

Json json_of(const Memory& memory) {
  return {{"buffers", memory.buffers},
          {"links", memory.links},
          {"callbacks", memory.callbacks},
          {"rings", memory.rings},
          {"total", memory.total()}};
}

}  // namespace

std::string cpp_report(const Sizes& sizes, const std::string& command) {
  std::string text = fmt::format("// {}\n", command);
  text += fmt::format("// {} bytes on 32 bit: {}.\n", grouped(sizes.on32.total()), parts_of(sizes.on32));
  text += fmt::format("// {} bytes on 64 bit: {}.\n", grouped(sizes.on64.total()), parts_of(sizes.on64));
  for (const std::string& note : sizes.notes) text += fmt::format("// Beware: {}.\n", note);
  text += "KernelCfg cfg;\n";
  for (const Line& line : lines_of(sizes)) {
    const std::string assignment = fmt::format("cfg.{} = {};", line.field, line.value);
    text += fmt::format("{:<28}  // {}\n", assignment, line.why);
  }
  return text;
}

std::string table_report(const Sizes& sizes) {
  std::string text;
  for (const Line& line : lines_of(sizes)) {
    text += fmt::format("{:<13} {:>13}  {}\n", line.field, grouped(line.value), line.why);
  }
  text += fmt::format("\n{:<13} {:>13} {:>15}\n", "bytes", "32 bit", "64 bit");
  const std::pair<const char*, Number Memory::*> rows[] = {{"buffers", &Memory::buffers},
                                                           {"links", &Memory::links},
                                                           {"callbacks", &Memory::callbacks},
                                                           {"rings", &Memory::rings}};
  const auto row = [&text](const char* name, Number on32, Number on64) {
    text += fmt::format("{:<13} {:>13} {:>15}\n", name, grouped(on32), grouped(on64));
  };
  for (const auto& [name, pool] : rows) row(name, sizes.on32.*pool, sizes.on64.*pool);
  row("total", sizes.on32.total(), sizes.on64.total());
  text += fmt::format("\nmemsize {} keeps the buffers' storage when the heap cannot; descriptors {}\n",
                      grouped(sizes.memsize), grouped(sizes.descriptors));
  for (const std::string& note : sizes.notes) text += fmt::format("beware: {}\n", note);
  return text;
}

std::string json_report(const Sizes& sizes) {
  Json config;
  Json why;
  for (const BufferClass& one : sizes.buffers) {
    config["buf_size"].push_back(one.size);
    config["buf_qty"].push_back(one.quantity.count);
    why["buf_size"].push_back(one.size_why);
    why["buf_qty"].push_back(json_of(one.quantity));
  }
  config["buf_min_space"] = sizes.load.headroom;
  config["callback_qty"] = sizes.callbacks.count;
  config["link_qty"] = sizes.links.count;
  config["trigger_stack"] = sizes.load.trigger_stack;
  why["callback_qty"] = json_of(sizes.callbacks);
  why["link_qty"] = json_of(sizes.links);
  const Json report = {{"config", config},
                       {"bytes", {{"32", json_of(sizes.on32)}, {"64", json_of(sizes.on64)}}},
                       {"memsize", sizes.memsize},
                       {"descriptors", sizes.descriptors},
                       {"why", why},
                       {"beware", sizes.notes}};
  return report.dump(2) + "\n";
}

}  // namespace oskernel_size
