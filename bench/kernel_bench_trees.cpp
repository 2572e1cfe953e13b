/// The tree index beside boost::intrusive::avl_multiset and std::multiset.
#include <algorithm>
#include <boost/intrusive/avl_set.hpp>
#include <map>
#include <memory>
#include <numeric>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "kernel/btree.h"
#include "kernel_bench.h"

namespace oskernel_bench {
namespace {

/// The keys 0, 2, 4, ... in the order in which all implementations insert them.
std::vector<int> shuffled_keys(std::size_t count) {
  std::vector<int> keys(count);
  std::iota(keys.begin(), keys.end(), 0);
  for (int& key : keys) key *= 2;
  std::shuffle(keys.begin(), keys.end(), std::mt19937(1));
  return keys;
}

class KernelTree {
 public:
  explicit KernelTree(const std::vector<int>& keys) : objects_(keys.size()) {
    for (std::size_t i = 0; i < keys.size(); ++i) {
      objects_[i].key = keys[i];
      insert(i);
    }
  }
  ~KernelTree() {
    for (std::size_t i = 0; i < objects_.size(); ++i) remove(i);
  }
  KernelTree(const KernelTree&) = delete;
  KernelTree& operator=(const KernelTree&) = delete;
  void insert(std::size_t i) { tree_.Add(&objects_[i]); }
  void remove(std::size_t i) { tree_.Remove(&objects_[i]); }
  bool find(int key) {
    Object wanted;
    wanted.key = key;
    return tree_.Find(&wanted) != nullptr;
  }

 private:
  struct Object : OSBTreeObj {
    int Compare(OSBTreeObj* node) override {
      const int other = static_cast<Object*>(node)->key;
      return key < other ? -1 : static_cast<int>(key > other);
    }
    int key = 0;
  };
  OSBTree tree_;
  std::vector<Object> objects_;
};

class BoostTree {
 public:
  explicit BoostTree(const std::vector<int>& keys) : objects_(keys.size()) {
    for (std::size_t i = 0; i < keys.size(); ++i) {
      objects_[i].key = keys[i];
      insert(i);
    }
  }
  ~BoostTree() { tree_.clear(); }
  BoostTree(const BoostTree&) = delete;
  BoostTree& operator=(const BoostTree&) = delete;
  void insert(std::size_t i) { tree_.insert(objects_[i]); }
  // By key, as the kernel's tree does.
  void remove(std::size_t i) { tree_.erase(tree_.find(objects_[i])); }
  bool find(int key) {
    Object wanted;
    wanted.key = key;
    return tree_.find(wanted) != tree_.end();
  }

 private:
  struct Object : boost::intrusive::avl_set_base_hook<> {
    bool operator<(const Object& other) const { return key < other.key; }
    int key = 0;
  };
  std::vector<Object> objects_;
  boost::intrusive::avl_multiset<Object> tree_;
};

class StdTree {
 public:
  explicit StdTree(const std::vector<int>& keys) : keys_(keys), tree_(keys.begin(), keys.end()) {}
  void insert(std::size_t i) { tree_.insert(keys_[i]); }
  void remove(std::size_t i) { tree_.erase(tree_.find(keys_[i])); }
  bool find(int key) { return tree_.find(key) != tree_.end(); }

 private:
  std::vector<int> keys_;
  std::multiset<int> tree_;
};

/// The full tree of an implementation. Building one takes longer than measuring it, so it is kept for the
/// benchmarks that follow with the same number of keys.
template <class Tree>
Tree& full_tree(std::size_t count) {
  static std::map<std::size_t, std::unique_ptr<Tree>> trees;
  std::unique_ptr<Tree>& tree = trees[count];
  if (tree == nullptr) tree = std::make_unique<Tree>(shuffled_keys(count));
  return *tree;
}

template <class Tree>
void find(benchmark::State& state) {
  const auto count = static_cast<std::size_t>(state.range(0));
  Tree& tree = full_tree<Tree>(count);
  std::mt19937 random(2);
  std::uniform_int_distribution<int> key(0, static_cast<int>(2 * count - 1));
  std::vector<int> wanted(10000);
  for (int& k : wanted) k = key(random);
  std::size_t next = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(tree.find(wanted[next]));
    next = next + 1 == wanted.size() ? 0 : next + 1;
  }
  count_items(state);
}

enum class Measured { kInsertion, kRemoval };

/// Removes a tenth of the objects and inserts them again.
template <class Tree>
void remove_and_insert(benchmark::State& state, Measured measured) {
  const auto count = static_cast<std::size_t>(state.range(0));
  Tree& tree = full_tree<Tree>(count);
  std::mt19937 random(3);
  std::uniform_int_distribution<std::size_t> position(0, count - 1);
  std::set<std::size_t> distinct;
  while (distinct.size() < std::min<std::size_t>(count / 10, 10000)) distinct.insert(position(random));
  std::vector<std::size_t> chosen(distinct.begin(), distinct.end());
  std::shuffle(chosen.begin(), chosen.end(), random);
  for (auto _ : state) {
    const double removal = seconds_of([&] {
      for (const std::size_t i : chosen) tree.remove(i);
    });
    const double insertion = seconds_of([&] {
      for (const std::size_t i : chosen) tree.insert(i);
    });
    state.SetIterationTime(measured == Measured::kInsertion ? insertion : removal);
  }
  count_items(state, static_cast<std::int64_t>(chosen.size()));
}

template <class Tree>
void register_tree(const std::string& implementation) {
  const auto add = [&](const char* subject, auto... function) {
    return benchmark::RegisterBenchmark((std::string(subject) + "/" + implementation).c_str(), function...)
        ->ArgName("keys")
        ->Arg(1000)
        ->Arg(100000)
        ->Arg(1000000);
  };
  add("tree_insert", remove_and_insert<Tree>, Measured::kInsertion)->UseManualTime();
  add("tree_find", find<Tree>);
  add("tree_remove", remove_and_insert<Tree>, Measured::kRemoval)->UseManualTime();
}

}  // namespace

void register_trees() {
  register_tree<KernelTree>("oskernel");
  register_tree<BoostTree>("boost::intrusive");
  register_tree<StdTree>("std::multiset");
}

}  // namespace oskernel_bench
