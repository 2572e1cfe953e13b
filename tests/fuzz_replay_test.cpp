// Replays what the fuzz targets begin with and what they have found, in every build.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <string>
#include <vector>

#include "fuzz/dns_target.h"
#include "fuzz/line_target.h"
#include "fuzz/tpkt_target.h"

namespace {

using Target = int (*)(const std::uint8_t* input, std::size_t size);

std::vector<std::filesystem::path> corpus_of(const std::string& target) {
  std::vector<std::filesystem::path> inputs;
  for (const auto& entry : std::filesystem::directory_iterator(std::filesystem::path(FUZZ_CORPUS) / target)) {
    if (entry.is_regular_file()) inputs.push_back(entry.path());
  }
  std::sort(inputs.begin(), inputs.end());
  return inputs;
}

std::vector<std::uint8_t> contents_of(const std::filesystem::path& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

// A target ends the program when it disagrees with its reference, so the input is named before.
void replay(const std::string& target, Target run) {
  const auto inputs = corpus_of(target);
  ASSERT_FALSE(inputs.empty());
  for (const auto& path : inputs) {
    std::cerr << "replaying " << path.filename() << '\n';
    const auto input = contents_of(path);
    run(input.data(), input.size());
  }
}

// Every way to cut an input short, and every first byte: what a fuzzer does first.
void replay_mutated(const std::string& target, Target run) {
  constexpr std::size_t kShort = 64;  // bytes; longer inputs would take most of the time
  for (const auto& path : corpus_of(target)) {
    auto input = contents_of(path);
    if (input.size() > kShort) continue;
    for (std::size_t size = 0; size < input.size(); ++size) run(input.data(), size);
    for (int flags = 0; flags < 256 && !input.empty(); flags += 5) {
      input[0] = static_cast<std::uint8_t>(flags);
      run(input.data(), input.size());
    }
  }
}

TEST(FuzzReplay, TpktCorpusAgreesWithTheReferenceReassembler) { replay("tpkt", oskernel_fuzz::run_tpkt); }

TEST(FuzzReplay, LineCorpusAgreesWithTheReferenceCutter) { replay("line", oskernel_fuzz::run_line); }

TEST(FuzzReplay, DnsCorpusAgreesWithTheReferenceDecoder) { replay("dns", oskernel_fuzz::run_dns); }

TEST(FuzzReplay, TpktCorpusCutShort) { replay_mutated("tpkt", oskernel_fuzz::run_tpkt); }

TEST(FuzzReplay, LineCorpusCutShort) { replay_mutated("line", oskernel_fuzz::run_line); }

TEST(FuzzReplay, DnsCorpusCutShort) { replay_mutated("dns", oskernel_fuzz::run_dns); }

}  // namespace
