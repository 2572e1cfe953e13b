// The ordered index against plain models, with seeds printed.

#include <algorithm>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "kernel/btree.h"
#include "support/kernel_fixture.h"
#include "support/seed.h"
#include "support/tree_check.h"

namespace oskernel_test {
namespace {

TEST_F(Tree, RandomUseMatchesASortedMap) {
  const unsigned seed = test_seed();
  SCOPED_TRACE(seed);
  std::mt19937 random(seed);
  constexpr int kObjects = 150;
  for (int span : {20, 60, 400}) {  // many duplicates, some, few
    std::vector<std::unique_ptr<Num>> objects;
    for (int i = 0; i < kObjects; ++i) objects.push_back(std::make_unique<Num>(pick(random, 0, span)));
    std::map<int, std::vector<OSBTreeObj*>> model;  // each chain in its order
    std::vector<bool> inside(kObjects, false);
    int size = 0;
    for (int round = 0; round < 4000; ++round) {
      const std::size_t i = static_cast<std::size_t>(pick(random, 0, kObjects - 1));
      Num* obj = objects[i].get();
      if (inside[i]) {
        tree.Remove(obj);
        auto& chain = model[obj->key()];
        chain.erase(std::find(chain.begin(), chain.end(), obj));
        if (chain.empty()) model.erase(obj->key());
        inside[i] = false;
        --size;
        ExpectOutOfTree(obj);
      } else if (round % 10 != 0 || model.count(obj->key()) != 0) {
        ASSERT_EQ(tree.Add(obj), TRUE);
        auto& chain = model[obj->key()];
        chain.insert(chain.empty() ? chain.end() : chain.begin() + 1, obj);
        inside[i] = true;
        ++size;
      } else {
        tree.Remove(obj);  // unknown object, unknown key
      }
      std::vector<OSBTreeObj*> expected;
      for (const auto& [key, chain] : model) expected.insert(expected.end(), chain.begin(), chain.end());
      ASSERT_EQ(checked(tree), expected) << "round " << round;
      ASSERT_EQ(tree.Size(), size);
      ASSERT_FALSE(HasFailure()) << "round " << round;

      const int k = pick(random, -2, span + 2);
      Num key(k);
      const auto at = model.find(k);
      ASSERT_EQ(tree.Find(&key), at == model.end() ? nullptr : at->second.front());
      const auto ge = model.lower_bound(k);
      ASSERT_EQ(tree.FindGE(&key), ge == model.end() ? nullptr : ge->second.front());
      const auto gt = model.upper_bound(k);
      ASSERT_EQ(tree.FindLE(&key), gt == model.begin() ? nullptr : std::prev(gt)->second.front());
      ASSERT_EQ(tree.First(), model.empty() ? nullptr : model.begin()->second.front());
      ASSERT_EQ(tree.Last(), model.empty() ? nullptr : model.rbegin()->second.front());
      if (round % 20 != 0) continue;
      for (std::size_t n = 0; n < expected.size(); ++n) {
        ASSERT_EQ(tree.Next(expected[n], nullptr), n + 1 < expected.size() ? expected[n + 1] : nullptr);
        ASSERT_EQ(tree.Previous(expected[n]), n > 0 ? expected[n - 1] : nullptr);
      }
    }
    drain(tree);
  }
  drain(tree);
}

TEST_F(Tree, RandomTextsMatchAPlainSearch) {
  const unsigned seed = test_seed();
  SCOPED_TRACE(seed);
  std::mt19937 random(seed);
  const auto random_text = [&](int longest) {
    std::string text;
    for (int i = pick(random, 0, longest); i > 0; --i) text += static_cast<char>('0' + pick(random, 0, 2));
    return text;
  };
  for (int round = 0; round < 60; ++round) {
    std::vector<std::unique_ptr<Text>> texts;
    std::multimap<std::string, Text*> model;
    for (int i = pick(random, 0, 60); i > 0; --i) {
      Text* text = texts.emplace_back(std::make_unique<Text>(random_text(6))).get();
      tree.Add(text);
      model.emplace(text->key(), text);
    }
    for (int i = 0; i < 60; ++i) {
      Text key(random_text(8));
      SCOPED_TRACE(key.key());
      // The longest beginning of the key that stands in the tree; a length of 0 is never tried.
      std::string longest;
      for (std::size_t len = key.key().size(); len >= 1; --len) {
        if (model.count(key.key().substr(0, len)) == 0) continue;
        longest = key.key().substr(0, len);
        break;
      }
      OSBTreeObj* found = tree.FindAmbiguous(&key);
      ASSERT_EQ(found == nullptr, longest.empty());
      if (found != nullptr) {
        ASSERT_EQ(static_cast<Text*>(found)->key(), longest);
        ASSERT_EQ(found->dupprev, nullptr);
      }

      std::vector<std::string> expected, walked;
      for (const auto& [text, obj] : model) {
        if (text.compare(0, key.key().size(), key.key()) == 0) expected.push_back(text);
      }
      for (OSBTreeObj* o = tree.FindLeft(&key); o != nullptr; o = tree.NextLeft(o, &key)) {
        walked.push_back(static_cast<Text*>(o)->key());
      }
      ASSERT_EQ(walked, expected);

      std::size_t equal = 0;
      for (OSBTreeObj* o = tree.Find(&key); o != nullptr; o = tree.Next(o, &key)) ++equal;
      ASSERT_EQ(equal, model.count(key.key()));
    }
    drain(tree);
  }
  drain(tree);
}

}  // namespace
}  // namespace oskernel_test
