/// Lists, lists of references and the link pool, beside boost::intrusive::list, std::list and malloc.
#include <boost/intrusive/list.hpp>
#include <list>
#include <vector>

#include "kernel/link.h"
#include "kernel_bench.h"

namespace oskernel_bench {
namespace {

// ---- Lists: one object joins at the back, the oldest leaves ----------------------------------------------

class KernelList {
 public:
  struct Node : OSLinkListObj {};
  void append(Node* node) { list_.Append(node); }
  void remove(Node* node) { list_.Remove(node); }

 private:
  OSLinkList list_;
};

class KernelIndirectList {
 public:
  struct Node : OSListObj {};
  void append(Node* node) { list_.Append(node); }
  void remove(Node* node) { list_.Remove(node); }

 private:
  RunningKernel kernel_{Dispatch::kByHand};
  OSIndirectList list_;
};

class BoostList {
 public:
  struct Node : boost::intrusive::list_base_hook<> {};
  void append(Node* node) { list_.push_back(*node); }
  void remove(Node* node) { list_.erase(list_.iterator_to(*node)); }

 private:
  boost::intrusive::list<Node> list_;
};

/// A list of references with a node of its own for each, as the kernel's has. Removes the oldest only.
class StdList {
 public:
  struct Node {};
  void append(Node* node) { list_.push_back(node); }
  void remove(Node* /*oldest*/) { list_.pop_front(); }

 private:
  std::list<Node*> list_;
};

template <class List>
void append_and_remove(benchmark::State& state) {
  using Node = typename List::Node;
  const auto length = static_cast<std::size_t>(state.range(0));
  std::vector<Node> nodes(length + 1);
  List list;
  for (std::size_t i = 0; i < length; ++i) list.append(&nodes[i]);
  std::size_t newest = length;
  for (auto _ : state) {
    const std::size_t oldest = newest == length ? 0 : newest + 1;
    list.append(&nodes[newest]);
    list.remove(&nodes[oldest]);
    newest = oldest;
  }
  for (std::size_t i = 0; i <= length; ++i) {
    if (i != newest) list.remove(&nodes[i]);
  }
  count_items(state);
}

template <class List>
void register_list(const char* name) {
  benchmark::RegisterBenchmark(name, append_and_remove<List>)->ArgName("length")->Arg(10)->Arg(1000);
}

// ---- The link pool -----------------------------------------------------------------------------------------

/// A pool with `links` links, made at once or grown by blocks of the default quantity.
void link_alloc_free(benchmark::State& state, bool grown) {
  const auto links = static_cast<int>(state.range(0));
  KernelCfg cfg = small_config(Dispatch::kByHand);
  if (!grown) cfg.link_qty = links;
  const RunningKernel kernel(cfg);
  while (static_cast<int>(OSLink::link_pool_size) < links) OSLink::GrowLinks();
  for (auto _ : state) {
    OSLink* const link = OSLink::Alloc();
    benchmark::DoNotOptimize(link);
    link->Free();
  }
  count_items(state);
}

void malloc_free(benchmark::State& state) {
  for (auto _ : state) {
    void* const block = std::malloc(sizeof(OSLink));
    benchmark::DoNotOptimize(block);
    std::free(block);
  }
  count_items(state);
}

void few_and_many(benchmark::internal::Benchmark* links) { links->ArgName("links")->Arg(4000)->Arg(1000000); }

}  // namespace

void register_lists() {
  register_list<KernelList>("list_append_remove/oskernel");
  register_list<BoostList>("list_append_remove/boost::intrusive");
  register_list<KernelIndirectList>("indirect_list_append_remove/oskernel");
  register_list<BoostList>("indirect_list_append_remove/boost::intrusive");
  register_list<StdList>("indirect_list_append_remove/std::list");

  benchmark::RegisterBenchmark("link_alloc_free/oskernel", link_alloc_free, false)->Apply(few_and_many);
  benchmark::RegisterBenchmark("link_alloc_free/malloc", malloc_free)->Apply(few_and_many);
  benchmark::RegisterBenchmark("link_alloc_free_grown/oskernel", link_alloc_free, true)->Apply(few_and_many);
  benchmark::RegisterBenchmark("link_alloc_free_grown/malloc", malloc_free)->Apply(few_and_many);
}

}  // namespace oskernel_bench
