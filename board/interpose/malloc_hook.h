// Allocation failures for the library under test alone: its own jumps to malloc and calloc are bent
// while such a fault is armed, nobody else's.
#pragma once

namespace quil::board {

void hookAllocations();
void unhookAllocations();

}  // namespace quil::board
