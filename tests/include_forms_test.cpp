// An application may name our headers "trigger.h" as well as "kernel/trigger.h". The short form must stay
// invisible to angle brackets, or <link.h> of the C library would become ours for every program that uses us.

#include <link.h>

#include "link.h"
#include "trigger.h"

#include "kernel/link.h"
#include "kernel/trigger.h"

#include <gtest/gtest.h>

#include <string>

#if __has_include(<trigger.h>) || __has_include(<posixkernel.h>) || __has_include(<link_list.h>)
#error "a header of this library is visible to angle brackets without its directory"
#endif
#if !__has_include(<kernel/trigger.h>) || !__has_include("posixkernel.h")
#error "a header of this library is not found"
#endif

namespace {

int count_object(dl_phdr_info* info, std::size_t, void* found) {
  if (std::string(info->dlpi_name).find("liboskernel.so") != std::string::npos) ++*static_cast<int*>(found);
  return 0;
}

TEST(IncludeForms, SystemLinkHeaderAndOursLiveInOneFile) {
  OSLink head;
  EXPECT_EQ(head.object, nullptr);  // ours, from "link.h"

  int found = 0;
  dl_iterate_phdr(count_object, &found);  // the C library's, from <link.h>
  EXPECT_EQ(found, 1);
}

}  // namespace
