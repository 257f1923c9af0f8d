// The product uses only what the target's platform has: functions of its C library, and headers of
// the API 33 trees.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "testing/program_output.h"
#include "testing/project_files.h"

namespace quil::tests {

using testing::IsEmpty;

namespace {

namespace fs = std::filesystem;

// Functions and data of bionic that API level 33 has for 32-bit ARM.
const std::set<std::string> kBionic = {"access",
                                       "calloc",
                                       "cfsetispeed",
                                       "cfsetospeed",
                                       "clock_gettime",
                                       "close",
                                       "fclose",
                                       "fcntl",
                                       "feof",
                                       "ferror",
                                       "fflush",
                                       "fgets",
                                       "fileno",
                                       "fopen",
                                       "fprintf",
                                       "fputc",
                                       "fputs",
                                       "fread",
                                       "free",
                                       "fseek",
                                       "fseeko",
                                       "ftell",
                                       "ftello",
                                       "fwrite",
                                       "malloc",
                                       "memchr",
                                       "memcmp",
                                       "memcpy",
                                       "memmove",
                                       "memset",
                                       "nanosleep",
                                       "open",
                                       "perror",
                                       "poll",
                                       "printf",
                                       "pthread_cond_broadcast",
                                       "pthread_cond_destroy",
                                       "pthread_cond_init",
                                       "pthread_cond_signal",
                                       "pthread_cond_timedwait",
                                       "pthread_cond_wait",
                                       "pthread_condattr_destroy",
                                       "pthread_condattr_init",
                                       "pthread_condattr_setclock",
                                       "pthread_mutex_destroy",
                                       "pthread_mutex_init",
                                       "pthread_mutex_lock",
                                       "pthread_mutex_unlock",
                                       "putc",
                                       "putchar",
                                       "puts",
                                       "read",
                                       "remove",
                                       "sched_yield",
                                       "select",
                                       "sleep",
                                       "snprintf",
                                       "sprintf",
                                       "stat",
                                       "stat64",
                                       "stdout",
                                       "strcasecmp",
                                       "strcat",
                                       "strchr",
                                       "strcmp",
                                       "strcpy",
                                       "strerror",
                                       "strlen",
                                       "strncat",
                                       "strncmp",
                                       "strncpy",
                                       "strnlen",
                                       "strrchr",
                                       "strstr",
                                       "strtok",
                                       "strtok_r",
                                       "strtol",
                                       "strtoul",
                                       "system",
                                       "tcflush",
                                       "tcgetattr",
                                       "tcsetattr",
                                       "time",
                                       "usleep",
                                       "vsnprintf",
                                       "write"};

// Functions of liblog and libcutils.
const std::set<std::string> kPlatform = {"__android_log_print", "property_get", "property_set"};

// Names that compilers use by themselves. errno's function has another name on the target; clang
// calls bcmp only where it knows that the C library has it, and the target's has not.
bool isOfTheTools(const std::string& name) {
    static const std::regex tools(
        "^(__cxa_.*|_Unwind_.*|__aeabi_.*|__g(xx|cc)_personality_v0|_ITM_.*|__gmon_start__|"
        "__errno_location|__stack_chk_fail|bcmp|__(asan|ubsan|tsan|sanitizer)_.*)$");
    return std::regex_match(name, tools);
}

// The names that the closed libraries' headers declare.
std::set<std::string> namesOfTheClosedLibraries() {
    const std::regex declaration(R"(^int32_t (\w+)\()");
    std::set<std::string> names;
    for (const auto& header : fs::directory_iterator(projectRoot() / "platform/vendor/include")) {
        std::ifstream in(header.path());
        for (std::string line; std::getline(in, line);) {
            std::smatch match;
            if (std::regex_search(line, match, declaration)) names.insert(match[1]);
        }
    }
    return names;
}

// The plain C names that the library asks other libraries for.
std::set<std::string> plainImports() {
    std::istringstream rows(
        outputOf(std::string("nm -D --undefined-only --format=posix '") + kLibraryFile + "'"));
    std::set<std::string> names;
    for (std::string row; std::getline(rows, row);) {
        const std::string name = row.substr(0, row.find_first_of(" @"));
        if (name.rfind("_Z", 0) != 0) names.insert(name);
    }
    return names;
}

// The system's headers that API 33 has: of bionic, of C++, of the platform's libraries; then the
// closed libraries' and the generated ones.
const std::set<std::string> kHeaders = {
    "assert.h", "errno.h", "fcntl.h", "limits.h", "poll.h", "pthread.h", "sched.h", "stdarg.h",
    "stddef.h", "stdint.h", "stdio.h", "stdlib.h", "string.h", "sys/select.h", "sys/stat.h",
    "sys/types.h", "termios.h", "time.h", "unistd.h",
    //
    "algorithm", "atomic", "functional", "iterator", "memory", "string", "vector",
    //
    "android/log.h", "cutils/native_handle.h", "cutils/properties.h", "hidl/HidlSupport.h",
    "hidl/HidlTransportSupport.h", "hidl/Status.h", "utils/RefBase.h", "utils/StrongPointer.h",
    //
    "quil_bi.h", "quil_fpga.h", "quil_hal.h",
    "quil/hardware/quilservicemanager/1.0/IQuilServiceCallback.h",
    "quil/hardware/quilservicemanager/1.0/IQuilServiceManager.h"};

std::set<std::string> systemHeadersOfTheProduct() {
    const std::regex include("^#include <([^>]+)>");
    std::set<std::string> headers;
    for (const char* folder : kProductFolders) {
        for (const auto& file : sourcesIn(folder)) {
            std::ifstream in(file);
            for (std::string line; std::getline(in, line);) {
                std::smatch match;
                if (std::regex_search(line, match, include)) headers.insert(match[1]);
            }
        }
    }
    return headers;
}

}  // namespace

TEST(PlatformApi, LibraryAsksOnlyForFunctionsThatTheTargetHas) {
    const std::set<std::string> closed = namesOfTheClosedLibraries();
    const std::set<std::string> imports = plainImports();
    std::vector<std::string> strangers;
    for (const std::string& name : imports) {
        const bool known = kBionic.count(name) + kPlatform.count(name) + closed.count(name) != 0;
        if (!known && !isOfTheTools(name)) strangers.push_back(name);
    }
    EXPECT_THAT(strangers, IsEmpty());
    EXPECT_GT(imports.size(), 30U);
    EXPECT_GT(closed.size(), 10U);
}

TEST(PlatformApi, SourcesIncludeOnlyHeadersThatTheTargetHas) {
    const std::set<std::string> headers = systemHeadersOfTheProduct();
    std::vector<std::string> strangers;
    for (const std::string& header : headers) {
        if (kHeaders.count(header) == 0) strangers.push_back(header);
    }
    EXPECT_THAT(strangers, IsEmpty());
    EXPECT_GT(headers.size(), 15U);
}

}  // namespace quil::tests
