/// Name tags for threads.
#include <cstdio>
#include <cstring>

#include "kernel/posixkernel_priv.h"
#include "kernel/task.h"

OSIndirectList* OSTaskTag::all_tags = nullptr;

namespace {

constexpr std::size_t kIdText_bytes = 20;  // "0x", 16 digits and the end

void format_id(char* text, pthread_t thread) {
  void* const id = reinterpret_cast<void*>(thread);  // NOLINT(performance-no-int-to-ptr): only printed
  std::snprintf(text, kIdText_bytes, "%p", id);
}

}  // namespace

OSTaskTag::OSTaskTag() : name{}, name_end_('\0'), task(nullptr), thread_id(0) {
  const SectionLock lock(&OS_CRITICAL_TASK);
  if (all_tags != nullptr) all_tags->Append(this);
}

OSTaskTag::~OSTaskTag() {
  const SectionLock lock(&OS_CRITICAL_TASK);
  if (all_tags != nullptr) all_tags->Remove(this);
}

OSTaskTag* OSTaskTag::FindTag(pthread_t thread) {
  const SectionLock lock(&OS_CRITICAL_TASK);
  if (all_tags == nullptr) return nullptr;
  OSListIterator tags(all_tags);
  while (OSListObj* const object = tags++) {
    auto* const tag = static_cast<OSTaskTag*>(object);
    if (tag->thread_id == thread) return tag;
  }
  return nullptr;
}

void OSTaskTag::SetName(const char* new_name, pthread_t thread) {
  if (thread == 0) thread = pthread_self();
  const SectionLock lock(&OS_CRITICAL_TASK);
  if (all_tags == nullptr) return;  // nobody would ever delete the tag
  OSTaskTag* tag = FindTag(thread);
  if (tag == nullptr) {
    tag = new OSTaskTag;
    tag->thread_id = thread;
    tag->task = OSTask::FindTask(thread);
  }
  // As strncpy does: padded with zeros, not terminated when all characters are used.
  const std::size_t length = strnlen(new_name, sizeof tag->name);
  std::memcpy(tag->name, new_name, length);
  std::memset(tag->name + length, 0, sizeof tag->name - length);
}

const char* OSTaskTag::FindName(char* buf, pthread_t thread) {
  if (thread == 0) thread = pthread_self();
  const SectionLock lock(&OS_CRITICAL_TASK);
  OSTaskTag* const tag = FindTag(thread);
  if (tag != nullptr) {
    if (tag->name[0] == '\0') format_id(tag->name, thread);
    return tag->name;
  }
  if (buf == nullptr) return "";
  format_id(buf, thread);
  return buf;
}
