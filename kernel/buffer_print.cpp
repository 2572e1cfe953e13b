// What a message buffer looks like on the console.
#include <arpa/inet.h>
#include <dlfcn.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstring>
#include <memory>
#include <new>

#include "buffer.h"
#include "buffer_priv.h"
#include "console.h"
#include "kernel.h"
#include "posixkernel_priv.h"

namespace {

constexpr std::size_t kBytesPerLine = 16;

// Both addresses and ports, or an empty text when there are none.
struct AddressText {
  AddressText(ULONG local_be, UWORD local_port_be, ULONG remote_be, UWORD remote_port_be) : text() {
    if (local_be == 0 && remote_be == 0) return;
    char local[INET_ADDRSTRLEN] = "";
    char remote[INET_ADDRSTRLEN] = "";
    inet_ntop(AF_INET, &local_be, local, sizeof local);
    inet_ntop(AF_INET, &remote_be, remote, sizeof remote);
    std::snprintf(text, sizeof text, "[%s:%u,%s:%u]", local, unsigned{ntohs(local_port_be)}, remote,
                  unsigned{ntohs(remote_port_be)});
  }
  char text[2 * INET_ADDRSTRLEN + 16];
};

struct Release {
  void operator()(void* storage) const { ::operator delete(storage); }
};

// Copies bytes that their owner may release at this moment: the system refuses what is not there any more.
//   returns   the number of bytes copied
std::size_t copy_foreign(UBYTE* to, const UBYTE* from, std::size_t count) {
  const iovec local{to, count};
  const iovec remote{const_cast<UBYTE*>(from), count};
  const ssize_t copied = process_vm_readv(getpid(), &local, 1, &remote, 1, 0);
  return copied < 0 ? 0 : static_cast<std::size_t>(copied);
}

// One line for each 16 bytes: offset, hexadecimal, characters.
void hex_dump(const UBYTE* bytes, std::size_t count) {
  for (std::size_t offset = 0; offset < count; offset += kBytesPerLine) {
    char hex[3 * kBytesPerLine + 1] = "";
    char characters[kBytesPerLine + 1] = "";
    for (std::size_t i = 0; i < kBytesPerLine; ++i) {
      if (offset + i >= count) {
        std::snprintf(hex + 3 * i, 4, "   ");
        continue;
      }
      const UBYTE c = bytes[offset + i];
      std::snprintf(hex + 3 * i, 4, " %02x", unsigned{c});
      characters[i] = c >= 0x20 && c < 0x7F ? static_cast<char>(c) : '.';
    }
    char line[96];
    std::snprintf(line, sizeof line, "%04x %s  %s", static_cast<unsigned>(offset), hex, characters);
    if (Console != nullptr) Console->Print("%s", line);
  }
}

}  // namespace

// The holder of the buffer is not locked out, and its fields are the program's to write, so nothing could order
// these reads: they are made one by one, each whole, and what they show is a diagnostic.
__attribute__((no_sanitize("thread"))) void OSBuf::Snapshot::take(const OSBuf& from) {
  buf = &from;
  allocated = from.allocated_;
  data = __atomic_load_n(&from.data, __ATOMIC_RELAXED);
  length = __atomic_load_n(&from.length, __ATOMIC_RELAXED);
  size = __atomic_load_n(&from.size, __ATOMIC_RELAXED);
  destPtr = __atomic_load_n(&from.destPtr, __ATOMIC_RELAXED);
  timeStamp = __atomic_load_n(&from.timeStamp, __ATOMIC_RELAXED);
  local_ipaddr = __atomic_load_n(&from.local_ipaddr, __ATOMIC_RELAXED);
  remote_ipaddr = __atomic_load_n(&from.remote_ipaddr, __ATOMIC_RELAXED);
  local_port = __atomic_load_n(&from.local_port, __ATOMIC_RELAXED);
  remote_port = __atomic_load_n(&from.remote_port, __ATOMIC_RELAXED);

  const UBYTE* storage = __atomic_load_n(&from.payload, __ATOMIC_RELAXED);
  foreign = from.own_payload_ == nullptr || storage != from.own_payload_;
  readable = length < kDumpBytes ? length : kDumpBytes;
  if (foreign) {
    if (data == nullptr) readable = 0;
    return;
  }
  const std::uintptr_t offset = buffer_address(data) - buffer_address(storage);
  const std::size_t behind = offset > from.own_size_ ? 0 : from.own_size_ - offset;
  if (readable > behind) readable = behind;
  for (std::size_t i = 0; i < readable; ++i) bytes[i] = __atomic_load_n(data + i, __ATOMIC_RELAXED);
}

void OSBuf::Snapshot::print() {
  if (Console == nullptr) return;
  const unsigned age_s = (os_clock() - timeStamp) / 1000;
  const void* object_address = buf;
  const void* data_address = data;

  Dl_info symbol;
  if (destPtr != nullptr && dladdr(destPtr, &symbol) != 0 && symbol.dli_sname != nullptr) {
    const AddressText addresses(local_ipaddr, local_port, remote_ipaddr, remote_port);
    Console->Print("Buf: buf %p, data=%p, size %d, len %d, age %us, ptr %p (%s) %s", object_address,
                   data_address, size, length, age_s, destPtr, symbol.dli_sname, addresses.text);
  } else {
    // Deliberate: the short line shows no addresses, even when there are some. Whoever reads dumps by column finds a
    // class and addresses, or neither. Pinned by buffer_print_test.cpp,
    // WithoutANameTheShortLineIsPrintedAndShowsNoAddress.
    Console->Print("Buf: buf %p, data=%p, size %d, len %d, age %us, ptr %p", object_address, data_address,
                   size, length, age_s, destPtr);
  }
  if (foreign) readable = copy_foreign(bytes, data, readable);
  hex_dump(bytes, readable);
}

// In turns of as many buffers as there is memory for, printed outside the section. Buffers that are allocated
// after the first turn are left out, so that a busy system does not keep this going.
void OSBuf::Snapshot::print_allocated() {
  constexpr std::size_t kFew = 8;
  Snapshot few[kFew];
  std::size_t listed = 0;
  {
    const SectionLock lock(&OS_CRITICAL_BUFFERS);
    if (allocated_list != nullptr) listed = static_cast<std::size_t>(allocated_list->Size());
  }
  std::unique_ptr<void, Release> many;
  if (listed > kFew) many.reset(::operator new(listed * sizeof(Snapshot), std::nothrow));
  Snapshot* const turn = many != nullptr ? static_cast<Snapshot*>(many.get()) : few;
  const std::size_t most = many != nullptr ? listed : kFew;

  std::uint64_t printed = 0;
  while (listed > 0) {
    std::size_t taken = 0;
    {
      const SectionLock lock(&OS_CRITICAL_BUFFERS);
      if (allocated_list == nullptr) return;
      OSListIterator next(allocated_list);
      while (taken < most && taken < listed) {
        OSListObj* object = next++;
        if (object == nullptr) break;
        const auto* buf = static_cast<OSBuf*>(static_cast<OSLinkListObj*>(object));
        if (buf->allocated_ > printed) turn[taken++].take(*buf);
      }
    }
    if (taken == 0) return;
    for (std::size_t i = 0; i < taken; ++i) turn[i].print();
    printed = turn[taken - 1].allocated;
    listed -= taken;
  }
}

void OSBuf::Print() {
  Snapshot snapshot;
  snapshot.take(*this);
  if (snapshot.foreign && snapshot.readable != 0) {
    // The holder answers for what it has put into the buffer.
    std::memcpy(snapshot.bytes, data, snapshot.readable);
    snapshot.foreign = false;
  }
  snapshot.print();
}

void dump_allocated() {
  OSBuf::Snapshot::print_allocated();

  // Single figures of a running system: loaded without the sections that change them.
  const auto links =
      static_cast<int>(std::atomic_ref<ULONG>(OSLink::link_pool_size).load(std::memory_order_relaxed));
  const auto callbacks = static_cast<int>(
      std::atomic_ref<ULONG>(OSCallback::callback_pool_size).load(std::memory_order_relaxed));
  if (Console != nullptr) {
    Console->Print("OSBuffer: L=%04d CB=%04d B=%02d,%02d,%02d,%02d", links, callbacks, OSBuf::PoolSize(0),
                   OSBuf::PoolSize(1), OSBuf::PoolSize(2), OSBuf::PoolSize(3));
  }
}
