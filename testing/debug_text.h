// What a service writes for `lshal debug`.
#pragma once

#include <android/hidl/base/1.0/IBase.h>
#include <cutils/native_handle.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <string>

namespace quil::tests {

inline std::string debugTextOf(android::hidl::base::V1_0::IBase& service) {
    int ends[2] = {-1, -1};
    EXPECT_EQ(pipe(ends), 0);
    native_handle_t* handle = native_handle_create(1, 0);
    handle->data[0] = ends[1];
    EXPECT_TRUE(service.debug(android::hardware::hidl_handle(handle), {}).isOk());
    native_handle_delete(handle);
    close(ends[1]);
    std::string text(65536, '\0');
    size_t length = 0;
    for (;;) {
        const ssize_t count = read(ends[0], text.data() + length, text.size() - length);
        if (count <= 0) break;
        length += static_cast<size_t>(count);
    }
    close(ends[0]);
    text.resize(length);
    return text;
}

}  // namespace quil::tests
