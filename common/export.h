// Marks what other components may link against; quil.map is the whole list.
#pragma once

#define QUIL_EXPORT __attribute__((visibility("default")))
