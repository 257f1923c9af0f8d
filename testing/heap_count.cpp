#include "testing/heap_count.h"

#include <errno.h>
#include <stdlib.h>

#include <atomic>

#include "testing/build.h"

#if QUIL_SANITIZED

namespace quil::tests {
BlockCount blockCount() { return nullptr; }
}  // namespace quil::tests

#else

namespace {

std::atomic<long> g_blocks{0};

void* counted(void* block) {
    if (block != nullptr) ++g_blocks;
    return block;
}

}  // namespace

namespace quil::tests {
BlockCount blockCount() {
    return [] { return g_blocks.load(); };
}
}  // namespace quil::tests

extern "C" {

// The C library's own, behind the names that this program takes from it.
// NOLINTBEGIN(bugprone-reserved-identifier)
void* __libc_malloc(size_t size);
void* __libc_calloc(size_t count, size_t size);
void* __libc_realloc(void* block, size_t size);
void* __libc_memalign(size_t alignment, size_t size);
void __libc_free(void* block);

void* malloc(size_t size) { return counted(__libc_malloc(size)); }
void* calloc(size_t count, size_t size) { return counted(__libc_calloc(count, size)); }
void* memalign(size_t alignment, size_t size) { return counted(__libc_memalign(alignment, size)); }
void* aligned_alloc(size_t alignment, size_t size) { return memalign(alignment, size); }
int posix_memalign(void** block, size_t alignment, size_t size) {
    *block = memalign(alignment, size);
    return *block != nullptr ? 0 : ENOMEM;
}
void* realloc(void* block, size_t size) {
    void* other = __libc_realloc(block, size);
    if (block == nullptr) return counted(other);
    if (size == 0) --g_blocks;  // that was a free
    return other;
}
void free(void* block) {
    if (block != nullptr) --g_blocks;
    __libc_free(block);
}
// NOLINTEND(bugprone-reserved-identifier)

}  // extern "C"

#endif
