#define LOG_TAG "HidlServiceManagement"

#include <dlfcn.h>
#include <hidl/HidlTransportSupport.h>
#include <hidl/ServiceManagement.h>
#include <log/log.h>
#include <stdlib.h>

#include <sstream>

using ::android::hidl::base::V1_0::IBase;

namespace android::hardware {

namespace {

// Every proxy is laid out as one of the root interface, whatever it is a proxy of. The platform
// reads it so as well; there is no type information in a vendor's library.
__attribute__((no_sanitize("vptr"))) IBinder* binderOf(IBase* proxy) {
    return static_cast<BpInterface<IBase>*>(proxy)->remote();
}

}  // namespace

bool interfacesEqual(const sp<IBase>& left, const sp<IBase>& right) {
    if (left == right || left == nullptr || right == nullptr) return left == right;
    if (!left->isRemote() || !right->isRemote()) return false;
    return binderOf(left.get()) == binderOf(right.get());
}

namespace details {

Return<bool> canCastInterface(IBase* interface, const char* castTo, bool emitError) {
    if (interface == nullptr) return false;
    const std::string wanted = castTo;
    if (wanted == IBase::descriptor) return true;

    bool canCast = false;
    const auto asked = interface->interfaceChain(
        [&](const hidl_vec<hidl_string>& types) { canCast = types.contains(hidl_string(wanted)); });
    if (asked.isOk()) return canCast;
    if (emitError) return StatusOf<void, bool>(asked);
    return false;
}

namespace {

using Factory = IBase* (*)(const char* name);

// One library that was opened, or the reason why none was.
struct Opened {
    void* handle = nullptr;
    std::string path;
    std::string failure;
};

Opened openLibrary(const std::string& file) {
    const char* searched = getenv("QUIL_HW_LIBRARY_PATH");
    std::istringstream directories(searched != nullptr ? searched : "");
    for (std::string path; std::getline(directories, path, ':');) {
        path.append("/").append(file);
        if (void* handle = dlopen(path.c_str(), RTLD_LAZY)) return {handle, path, ""};
    }
    if (void* handle = dlopen(file.c_str(), RTLD_LAZY)) return {handle, file, ""};
    const char* failure = dlerror();
    return {nullptr, file, failure != nullptr ? failure : "no reason given"};
}

sp<IBase> askFactory(const Opened& library, const std::string& symbol,
                     const std::string& instance) {
    auto factory = reinterpret_cast<Factory>(dlsym(library.handle, symbol.c_str()));
    if (factory == nullptr) {
        ALOGE("Passthrough lookup opened %s but could not find symbol %s: %s", library.path.c_str(),
              symbol.c_str(), dlerror());
        return nullptr;
    }
    sp<IBase> service = factory(instance.c_str());
    if (service == nullptr) {
        ALOGE("Passthrough lookup: %s in %s has no instance '%s'", symbol.c_str(),
              library.path.c_str(), instance.c_str());
    }
    return service;
}

}  // namespace

sp<IBase> getRawServiceInternal(const std::string& descriptor, const std::string& instance,
                                bool /*retry*/, bool /*getStub*/) {
    const size_t split = descriptor.find("::");
    if (split == std::string::npos) {
        ALOGE("Invalid interface name %s", descriptor.c_str());
        return nullptr;
    }
    const Opened library = openLibrary(descriptor.substr(0, split) + "-impl.so");
    if (library.handle == nullptr) {
        ALOGE("Could not dlopen %s: %s", library.path.c_str(), library.failure.c_str());
        return nullptr;
    }
    // A library that served stays open for good: its objects' code must outlive them.
    sp<IBase> service = askFactory(library, "HIDL_FETCH_" + descriptor.substr(split + 2), instance);
    if (service == nullptr) dlclose(library.handle);
    return service;
}

}  // namespace details
}  // namespace android::hardware
