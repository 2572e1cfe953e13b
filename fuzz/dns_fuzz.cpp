#include "fuzz/dns_target.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* input, std::size_t size) {
  return oskernel_fuzz::run_dns(input, size);
}
