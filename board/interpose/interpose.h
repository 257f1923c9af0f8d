// Shared by the files that define functions of the C library.
#pragma once

#define QUIL_EXPORT [[gnu::visibility("default")]]

// Null unless that sanitizer is built in.
extern "C" [[gnu::weak]] void __asan_init();
extern "C" [[gnu::weak]] void __tsan_init();
