// Counts every allocation of the process, once told to, by standing in front of the
// C library's allocator. Reading a block's size is a cache miss, which a program that
// measures time cannot have. One thread's worth of accuracy is enough here: the programs that
// link this have one.
#include <malloc.h>

#include <algorithm>
#include <cerrno>

#include "bench/support.hpp"

namespace {

vision::bench::Allocations counted{};
bool counting = false;

std::ptrdiff_t size_of(void* block) noexcept {
  return static_cast<std::ptrdiff_t>(::malloc_usable_size(block));
}

void* note(void* block) noexcept {
  if (!block || !counting) return block;
  ++counted.calls;
  counted.live_bytes += size_of(block);
  counted.peak_bytes = std::max(counted.peak_bytes, counted.live_bytes);
  return block;
}

void forget(void* block) noexcept {
  if (block && counting) counted.live_bytes -= size_of(block);
}

}  // namespace

namespace vision::bench {

Allocations allocations() noexcept {
  return counted;
}

void reset_peak_allocation() noexcept {
  counting = true;
  counted.peak_bytes = counted.live_bytes;
}

}  // namespace vision::bench

extern "C" {

void* __libc_malloc(std::size_t size) noexcept;
void* __libc_calloc(std::size_t count, std::size_t size) noexcept;
void* __libc_realloc(void* block, std::size_t size) noexcept;
void* __libc_memalign(std::size_t alignment, std::size_t size) noexcept;
void __libc_free(void* block) noexcept;

void* malloc(std::size_t size) noexcept {
  return note(__libc_malloc(size));
}
void* calloc(std::size_t count, std::size_t size) noexcept {
  return note(__libc_calloc(count, size));
}
void* realloc(void* block, std::size_t size) noexcept {
  forget(block);
  return note(__libc_realloc(block, size));
}
void* aligned_alloc(std::size_t alignment, std::size_t size) noexcept {
  return note(__libc_memalign(alignment, size));
}
int posix_memalign(void** out, std::size_t alignment, std::size_t size) noexcept {
  *out = note(__libc_memalign(alignment, size));
  return *out ? 0 : ENOMEM;
}
void free(void* block) noexcept {
  forget(block);
  __libc_free(block);
}

}  // extern "C"
