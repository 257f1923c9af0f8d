// How many heap blocks the program holds, counted where the C library hands them out.
#pragma once

namespace quil::tests {

// Null where a sanitizer has the heap.
using BlockCount = long (*)();
BlockCount blockCount();

}  // namespace quil::tests
