// Loads the library into a process that has its dependencies already, and prints how long the
// loader took, in nanoseconds: relocation and binding of every name.
#include <dlfcn.h>
#include <stdio.h>

#include <chrono>

#include "testing/build.h"

int main() {
    const auto start = std::chrono::steady_clock::now();
    void* library =
        dlopen(QUIL_LIB_DIR "/quil.hardware.quilservicemanager@1.0-impl.so", RTLD_NOW | RTLD_LOCAL);
    const std::chrono::nanoseconds took = std::chrono::steady_clock::now() - start;
    if (library == nullptr) {
        fprintf(stderr, "%s\n", dlerror());
        return 1;
    }
    printf("%lld\n", static_cast<long long>(took.count()));
    return 0;
}
