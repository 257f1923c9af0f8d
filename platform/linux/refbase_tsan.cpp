// Only for builds under the thread sanitizer. It cannot see the reference counts of libutils, which
// is not instrumented, and would report every object that one thread used and another one released
// last. These two definitions come before the ones of libutils and tell it about that order.
#include <dlfcn.h>
#include <utils/RefBase.h>

extern "C" void __tsan_acquire(void* address);
extern "C" void __tsan_release(void* address);

namespace android {

void RefBase::decStrong(const void* id) const {
    using DecStrong = void (*)(const RefBase*, const void*);
    static const auto next =
        reinterpret_cast<DecStrong>(dlsym(RTLD_NEXT, "_ZNK7android7RefBase9decStrongEPKv"));
    __tsan_release(const_cast<RefBase*>(this));
    next(this, id);
}

void RefBase::onLastStrongRef(const void* /*id*/) { __tsan_acquire(this); }

}  // namespace android
