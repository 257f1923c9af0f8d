// Owns a block of malloc's. The library allocates with malloc and calloc, because a board that runs
// out of memory has to get a message and a result, not an exception.
#pragma once

#include <stdlib.h>

#include <memory>

namespace quil::common {

struct FreeBlock {
    void operator()(void* block) const { free(block); }
};

template <typename T>
using HeapBlock = std::unique_ptr<T, FreeBlock>;

// A block of `size` bytes, at least one, with any content; or null.
template <typename T>
HeapBlock<T> allocateBlock(size_t size) {
    return HeapBlock<T>(static_cast<T*>(malloc(size)));
}

// The same with all bytes zero; a size of 0 gives a block too.
template <typename T>
HeapBlock<T> allocateClearedBlock(size_t size) {
    return HeapBlock<T>(static_cast<T*>(calloc(1, size > 0 ? size : 1)));
}

}  // namespace quil::common
