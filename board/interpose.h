// What the files that define the C library's names share.
#pragma once

#define QUIL_EXPORT [[gnu::visibility("default")]]
