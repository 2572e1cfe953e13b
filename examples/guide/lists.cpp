#include <algorithm>
#include <cstdio>
#include <cstring>

#include "kernel/btree.h"
#include "kernel/kernel.h"
#include "kernel/link.h"
#include "terminal.h"

// [list]
class Line : public OSLinkListObj {  // carries its own link: in one list at a time
 public:
  explicit Line(int number) : number_(number) {}
  BOOL IsKey(char* key) override { return *reinterpret_cast<int*>(key) == number_; }
  int Number() const { return number_; }

 private:
  int number_;
};

Line* line_of(OSListObj* object) { return static_cast<Line*>(static_cast<OSLinkListObj*>(object)); }

void use_lists() {
  OSLinkList lines(1);    // 1: deletes what is still in it when it goes
  OSIndirectList urgent;  // refers to its objects through links of the pool: they may be in other lists, too
  for (int number = 1; number <= 4; ++number) lines.Append(new Line(number));

  int wanted = 3;
  if (OSListObj* found = lines.Find(reinterpret_cast<char*>(&wanted))) urgent.Append(found);

  OSListIterator walk(&lines);
  while (OSListObj* object = walk++) {
    std::printf("line %d%s\n", line_of(object)->Number(), urgent.PosInList(object) >= 0 ? ", urgent" : "");
  }
}
// [/list]

// [tree]
class Prefix : public OSBTreeObj {
 public:
  Prefix(const char* digits, const char* destination) : destination_(destination) {
    std::snprintf(digits_, sizeof digits_, "%s", digits);
  }
  int Compare(OSBTreeObj* node) override { return std::strcmp(digits_, of(node)->digits_); }
  int CompareLeft(OSBTreeObj* node) override {
    return std::strncmp(digits_, of(node)->digits_, std::strlen(digits_));
  }
  // Does node equal the first `len` digits of this number?
  int CompareAmbiguous(OSBTreeObj* node, int len) override {
    char start[sizeof digits_];
    std::snprintf(start, sizeof start, "%.*s", len, digits_);
    return std::strcmp(start, of(node)->digits_);
  }
  int CompareMaxLen() override { return static_cast<int>(std::strlen(digits_)); }
  const char* Destination() const { return destination_; }

 private:
  static Prefix* of(OSBTreeObj* node) { return static_cast<Prefix*>(node); }
  char digits_[16];
  const char* destination_;
};

void use_tree() {
  OSBTree plan;  // deletes what is in it when it goes
  plan.Add(new Prefix("46", "Sweden"));
  plan.Add(new Prefix("468", "Stockholm"));
  plan.Add(new Prefix("47", "Norway"));
  for (const char* number : {"46812345", "46312345", "4711", "33"}) {
    Prefix dialled(number, "");
    auto* match = static_cast<Prefix*>(plan.FindAmbiguous(&dialled));  // the longest prefix that matches
    std::printf("%s: %s\n", number, match != nullptr ? match->Destination() : "nowhere");
  }
}
// [/tree]

int main() {
  Terminal terminal;
  Console = &terminal;
  os_startup(nullptr, 0, nullptr);
  use_lists();
  use_tree();
  os_cleanup();
}
