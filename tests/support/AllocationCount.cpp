#include "tests/support/AllocationCount.h"

#include <cerrno>
#include <cstddef>

#include "tests/support/Sanitized.h"

namespace {

thread_local long lRequests = 0;

}  // namespace

long AllocationCount::requests() {
  return lRequests;
}

extern "C" {

#ifdef QUORVEL_SANITIZED

// The sanitizers own the heap and tell of every request.
void __sanitizer_malloc_hook(const volatile void* /*pMemory*/, std::size_t /*uBytes*/) {
  ++lRequests;
}

#else

void* __libc_malloc(std::size_t uBytes);
void* __libc_calloc(std::size_t uCount, std::size_t uBytes);
void* __libc_realloc(void* pMemory, std::size_t uBytes);
void* __libc_memalign(std::size_t uAlignment, std::size_t uBytes);

void* malloc(std::size_t uBytes) {
  ++lRequests;
  return __libc_malloc(uBytes);
}
void* calloc(std::size_t uCount, std::size_t uBytes) {
  ++lRequests;
  return __libc_calloc(uCount, uBytes);
}
void* realloc(void* pMemory, std::size_t uBytes) {
  ++lRequests;
  return __libc_realloc(pMemory, uBytes);
}
void* memalign(std::size_t uAlignment, std::size_t uBytes) {
  ++lRequests;
  return __libc_memalign(uAlignment, uBytes);
}
void* aligned_alloc(std::size_t uAlignment, std::size_t uBytes) {
  return memalign(uAlignment, uBytes);
}
int posix_memalign(void** ppMemory, std::size_t uAlignment, std::size_t uBytes) {
  *ppMemory = memalign(uAlignment, uBytes);
  return *ppMemory != nullptr ? 0 : ENOMEM;
}

#endif
}
