/// The kernel and its peers, measured by Google Benchmark. See README.md.
#include "kernel_bench.h"

int main(int argc, char** argv) {
  oskernel_bench::BenchConsole console;
  Console = &console;
  oskernel_bench::register_buffers();
  oskernel_bench::register_locks();
  oskernel_bench::register_lists();
  oskernel_bench::register_handoff();
  oskernel_bench::register_timers();
  oskernel_bench::register_trees();
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
