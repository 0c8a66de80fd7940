#include "bench/HeapCounter.h"

#include <malloc.h>

#include <atomic>
#include <cerrno>

// glibc's own entry points, under the names it exports for exactly this kind of wrapper.
extern "C" {
void* __libc_malloc(size_t size);
void* __libc_calloc(size_t count, size_t size);
void* __libc_realloc(void* ptr, size_t size);
void* __libc_memalign(size_t alignment, size_t size);
void __libc_free(void* ptr);
}

namespace {

std::atomic<long long> gInUse{0};
std::atomic<long long> gPeak{0};
std::atomic<long long> gMark{0};

void Added(void* ptr) {
  if (ptr == nullptr) return;
  const auto size = static_cast<long long>(malloc_usable_size(ptr));
  long long now = gInUse.fetch_add(size, std::memory_order_relaxed) + size;
  long long peak = gPeak.load(std::memory_order_relaxed);
  while (now > peak && !gPeak.compare_exchange_weak(peak, now, std::memory_order_relaxed)) {
  }
}

void Removed(void* ptr) {
  if (ptr != nullptr) gInUse.fetch_sub(static_cast<long long>(malloc_usable_size(ptr)), std::memory_order_relaxed);
}

}  // namespace

extern "C" {

void* malloc(size_t size) {
  void* p = __libc_malloc(size);
  Added(p);
  return p;
}

void* calloc(size_t count, size_t size) {
  void* p = __libc_calloc(count, size);
  Added(p);
  return p;
}

void* realloc(void* ptr, size_t size) {
  Removed(ptr);
  void* p = __libc_realloc(ptr, size);
  // A failed realloc keeps the old block.
  Added(p != nullptr || size == 0 ? p : ptr);
  return p;
}

void free(void* ptr) {
  Removed(ptr);
  __libc_free(ptr);
}

void* memalign(size_t alignment, size_t size) {
  void* p = __libc_memalign(alignment, size);
  Added(p);
  return p;
}

void* aligned_alloc(size_t alignment, size_t size) { return memalign(alignment, size); }

int posix_memalign(void** out, size_t alignment, size_t size) {
  void* p = memalign(alignment, size);
  if (p == nullptr) return ENOMEM;
  *out = p;
  return 0;
}

}  // extern "C"

namespace bench {

void HeapMark() {
  long long now = gInUse.load(std::memory_order_relaxed);
  gMark.store(now, std::memory_order_relaxed);
  gPeak.store(now, std::memory_order_relaxed);
}

size_t HeapPeakSinceMark() {
  long long rise = gPeak.load(std::memory_order_relaxed) - gMark.load(std::memory_order_relaxed);
  return rise > 0 ? static_cast<size_t>(rise) : 0;
}

}  // namespace bench
