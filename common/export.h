// Marks what other components may link against; quil.map is the whole list.
#pragma once

#define QUIL_EXPORT __attribute__((visibility("default")))

// For what an exported class keeps to itself.
#define QUIL_HIDDEN __attribute__((visibility("hidden")))
