// What leaves the library, read from the built file with binutils.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>
#include <set>
#include <sstream>
#include <string>

#include "tests/program_output.h"

namespace quil::tests {

using testing::Contains;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::IsSubsetOf;
using testing::Not;

namespace {

constexpr char kLibrary[] = QUIL_LIB_DIR "/quil.hardware.quilservicemanager@1.0-impl.so";

// The plain C names that the library exports. Sanitizers add names of their own, which start with
// "__".
std::set<std::string> plainExports() {
    std::istringstream lines(
        outputOf(std::string("nm -D --defined-only --format=posix '") + kLibrary + "'"));
    std::set<std::string> names;
    for (std::string line; std::getline(lines, line);) {
        const std::string name = line.substr(0, line.find(' '));
        if (name.rfind("_Z", 0) != 0 && name.rfind("__", 0) != 0) names.insert(name);
    }
    return names;
}

// The plain C names of quil.map: what stands before its C++ block.
std::set<std::string> plainNamesOfTheMap() {
    std::ifstream map(QUIL_SOURCE_DIR "/quil.map");
    std::set<std::string> names;
    for (std::string line; std::getline(map, line) && line.find("extern") == std::string::npos;) {
        const size_t start = line.find_first_not_of(' ');
        const size_t end = line.find(';');
        if (start != std::string::npos && end != std::string::npos) {
            names.insert(line.substr(start, end - start));
        }
    }
    return names;
}

}  // namespace

TEST(Exports, PlainNamesAreExactlyTheOnesOfTheMap) {
    EXPECT_EQ(plainExports(), plainNamesOfTheMap());
    EXPECT_EQ(plainExports().size(), 101U);
}

TEST(Exports, ClassesAreExportedWithEveryMemberThatComponentsCall) {
    const std::string names = outputOf(std::string("nm -DC --defined-only '") + kLibrary + "'");
    const std::string scope = "quil::hardware::quilservicemanager::implementation::";
    for (const char* member :
         {"hwInvoke(", "hwRegistCallback(", "hwUnRegistCallback(", "set(", "get(", "wakeUp(",
          "convertRequestToTclvMsg(", "getBusinessTypeByTclvMsg(", "sendTclvDataToMcu(",
          "doWaitMcu(", "powerControl(", "lowPowerMode(", "normalPowerMode(", "selfTest(",
          "QuilServiceManager()", "~QuilServiceManager()"}) {
        EXPECT_THAT(names, HasSubstr(scope + "QuilServiceManager::" + member));
    }
    EXPECT_THAT(names, HasSubstr(scope + "QuilServiceCallback::hwNotify("));
    EXPECT_THAT(names, HasSubstr("ControlManager::ControlManager()"));
    EXPECT_THAT(names, HasSubstr("ControlManager::~ControlManager()"));
}

TEST(Exports, HelpersOfTheServiceStayInside) {
    const std::string names = outputOf(std::string("nm -DC --defined-only '") + kLibrary + "'");
    for (const char* helper : {"handleRequest", "dispatch", "answer", "waitForAnswer",
                               "snapshotOfClients", "takeNextLabel", "get_log_level"}) {
        EXPECT_THAT(names, Not(HasSubstr(helper)));
    }
}

TEST(Exports, LibraryCarriesItsFileNameAndProtectsItsTables) {
    const std::string dynamic = outputOf(std::string("readelf -dW '") + kLibrary + "'");
    EXPECT_THAT(dynamic, HasSubstr("soname: [quil.hardware.quilservicemanager@1.0-impl.so]"));
    EXPECT_THAT(dynamic, HasSubstr("BIND_NOW"));
    EXPECT_THAT(dynamic, Not(HasSubstr("TEXTREL")));
    const std::string headers = outputOf(std::string("readelf -lW '") + kLibrary + "'");
    EXPECT_THAT(headers, HasSubstr("GNU_RELRO"));
    EXPECT_THAT(headers, Not(testing::ContainsRegex("GNU_STACK.*RWE")));
}

TEST(Exports, NothingButTheCompilersOwnEntryRunsWhenTheLibraryIsLoaded) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "sanitizers register their modules from .init_array";
#else
    const std::string symbols = outputOf(std::string("nm -C '") + kLibrary + "'");
    EXPECT_THAT(symbols, Not(HasSubstr("_GLOBAL__sub_I")));
    EXPECT_THAT(symbols, Not(HasSubstr("__static_initialization_and_destruction")));
    EXPECT_THAT(symbols, HasSubstr("frame_dummy"));
#endif
}

}  // namespace quil::tests
