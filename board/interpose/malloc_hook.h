// Allocation failures for the library under test alone: while such a fault is armed, that library's
// references to malloc and calloc are redirected, and no others.
#pragma once

namespace quil::board {

void hookAllocations();
void unhookAllocations();

}  // namespace quil::board
