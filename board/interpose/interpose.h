// What the files that define the C library's names share.
#pragma once

#define QUIL_EXPORT [[gnu::visibility("default")]]

// There when a sanitizer is built in.
extern "C" [[gnu::weak]] void __asan_init();
extern "C" [[gnu::weak]] void __tsan_init();
