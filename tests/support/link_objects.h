/// What the tests of lists and queues put into them, and how they read them back.
#ifndef OSKERNEL_TESTS_LINK_OBJECTS_H
#define OSKERNEL_TESTS_LINK_OBJECTS_H

#include <string>
#include <utility>
#include <vector>

#include "kernel/buffer.h"
#include "kernel/link.h"
#include "kernel_fixture.h"
#include "ring_check.h"

namespace oskernel_test {

/// A name, which is also the key.
class Named {
 public:
  explicit Named(std::string name) : name_(std::move(name)) {}
  virtual ~Named() = default;
  const std::string& name() const { return name_; }

 protected:
  BOOL matches(const char* key) const { return name_ == key ? TRUE : FALSE; }

 private:
  std::string name_;
};

/// An object without a link of its own, which writes its name down when it is destroyed.
class Thing : public OSListObj, public Named {
 public:
  explicit Thing(std::string name = "", std::vector<std::string>* destroyed = nullptr)
      : Named(std::move(name)), destroyed_(destroyed) {}
  ~Thing() override {
    if (destroyed_ != nullptr) destroyed_->push_back(name());
  }
  BOOL IsKey(char* key) override { return matches(key); }

 private:
  std::vector<std::string>* destroyed_;
};

/// An object with a link of its own, which writes its name down when it is freed.
class Item : public OSLinkListObj, public Named {
 public:
  explicit Item(std::string name = "", std::vector<std::string>* freed = nullptr)
      : Named(std::move(name)), freed_(freed) {}
  BOOL IsKey(char* key) override {
    ++comparisons;
    return matches(key);
  }
  void Free() override {
    ++frees;
    object_when_freed = object;
    alone_when_freed = next == this && previous == this;
    if (freed_ != nullptr) freed_->push_back(name());
  }

  int comparisons = 0;
  int frees = 0;
  void* object_when_freed = nullptr;
  bool alone_when_freed = false;

 private:
  std::vector<std::string>* freed_;
};

/// Any kind of object, counted as long as it lives.
template <class Base>
class Counted : public Base {
 public:
  template <class... Arguments>
  explicit Counted(int* alive, Arguments&&... arguments)
      : Base(std::forward<Arguments>(arguments)...), alive_(alive) {
    ++*alive_;
  }
  ~Counted() override { --*alive_; }

 private:
  int* alive_;
};

/// The names of the objects in a list of Things and Items, in order.
inline std::string names(const OSLinkList& list) {
  std::string text;
  for (OSLink* node : ring_nodes(list)) {
    text += dynamic_cast<const Named&>(*static_cast<OSListObj*>(node->object)).name();
  }
  return text;
}

/// A key as lists take it. The text stays the test's.
inline char* key_text(const char* text) { return const_cast<char*>(text); }

/// A started kernel without threads of its own, and links, buffers and callbacks that must all be back in
/// their pools at the end.
class PoolTest : public KernelTest {
 protected:
  void SetUp() override {
    KernelTest::SetUp();
    StartQuiet();
    links_at_start_ = OSLink::link_pool_size;
    callbacks_at_start_ = OSCallback::callback_pool_size;
  }
  void TearDown() override {
    EXPECT_EQ(links_in_use(), 0) << "every link goes home";
    EXPECT_TRUE(LinkPoolIsSound());
    EXPECT_EQ(OSBuf::allocated_list->Size(), 0) << "every buffer goes home";
    EXPECT_EQ(OSCallback::callback_pool_size, callbacks_at_start_) << "every callback goes home";
    KernelTest::TearDown();
  }
  int links_in_use() const {
    return static_cast<int>(links_at_start_) - static_cast<int>(OSLink::link_pool_size);
  }

 private:
  ULONG links_at_start_ = 0;
  ULONG callbacks_at_start_ = 0;
};

}  // namespace oskernel_test

#endif
