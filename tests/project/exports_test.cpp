// What the library exports, read from the built file with binutils.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <map>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "testing/build.h"
#include "testing/program_output.h"
#include "testing/project_files.h"

namespace quil::tests {

using testing::Contains;
using testing::HasSubstr;
using testing::IsSubsetOf;
using testing::Not;

namespace {

// The plain C names that the library exports. Sanitizers add names of their own, which start with
// "__".
std::set<std::string> plainExports() {
    std::istringstream lines(
        outputOf(std::string("nm -D --defined-only --format=posix '") + kLibraryFile + "'"));
    std::set<std::string> names;
    for (std::string line; std::getline(lines, line);) {
        const std::string name = line.substr(0, line.find(' '));
        if (name.rfind("_Z", 0) != 0 && name.rfind("__", 0) != 0) names.insert(name);
    }
    return names;
}

constexpr size_t kPointer = sizeof(void*);

// The output of `readelf` for the library, with the given options.
std::string readElf(const std::string& options) {
    return outputOf("readelf -W " + options + " '" + kLibraryFile + "'");
}

// Every first group of the expression in the text.
std::vector<std::string> matchesIn(const std::string& text, const std::regex& expression) {
    std::vector<std::string> matches;
    for (std::sregex_iterator it(text.begin(), text.end(), expression), end; it != end; ++it) {
        matches.push_back((*it)[1]);
    }
    return matches;
}

// The sizes in bytes of the sections that a process maps, by name.
std::map<std::string, size_t> mappedSections() {
    // "[ 9] .init  PROGBITS  000049f8 0049f8 00000c 00  AX": the size, the entry size, the flags.
    const std::regex row(R"(\] (\.\S+) +\S+ +\S+ \S+ ([0-9a-f]+) \S+ +([WAXTILGMSCo]*A))");
    const std::string text = readElf("-S");
    std::map<std::string, size_t> sizes;
    for (std::sregex_iterator it(text.begin(), text.end(), row), end; it != end; ++it) {
        sizes[(*it)[1]] = std::stoul((*it)[2], nullptr, 16);
    }
    return sizes;
}

// The sizes in bytes of the exported data.
std::map<std::string, size_t> sizesOfExportedData() {
    std::istringstream rows(
        outputOf(std::string("nm -D -S --defined-only --format=posix '") + kLibraryFile + "'"));
    std::map<std::string, size_t> sizes;
    for (std::string name, kind, value, size; rows >> name >> kind >> value >> size;) {
        const bool isData = std::string("BDR").find(kind) != std::string::npos;
        if (isData && name.rfind('_', 0) != 0) sizes[name] = std::stoul(size, nullptr, 16);
    }
    return sizes;
}

}  // namespace

TEST(Exports, PlainNamesAreExactlyTheOnesOfTheMap) {
    EXPECT_EQ(plainExports(), plainNamesOfTheMap());
    EXPECT_EQ(plainExports().size(), 101U);
}

TEST(Exports, ClassesAreExportedWithEveryMemberThatComponentsCall) {
    const std::string names = outputOf(std::string("nm -DC --defined-only '") + kLibraryFile + "'");
    const std::string scope = "quil::hardware::quilservicemanager::implementation::";
    for (const char* member :
         {"hwInvoke(", "hwRegistCallback(", "hwUnRegistCallback(", "set(", "get(", "wakeUp(",
          "convertRequestToTclvMsg(", "getBusinessTypeByTclvMsg(", "sendTclvDataToMcu(",
          "doWaitMcu(", "powerControl(", "lowPowerMode(", "normalPowerMode(", "selfTest(",
          "QuilServiceManager()", "~QuilServiceManager()"}) {
        EXPECT_THAT(names, HasSubstr(scope + "QuilServiceManager::" + member));
    }
    EXPECT_THAT(names, HasSubstr(scope + "QuilServiceCallback::hwNotify("));
    // A derived class needs these.
    EXPECT_THAT(names, HasSubstr("virtual thunk to " + scope + "QuilServiceManager::~"));
    EXPECT_THAT(names, HasSubstr("virtual thunk to " + scope + "QuilServiceCallback::~"));
#ifdef QUIL_IMAGE
    // A vendor module has no run-time type information.
    EXPECT_THAT(names, Not(HasSubstr("typeinfo")));
#else
    EXPECT_THAT(names, HasSubstr("typeinfo for " + scope + "QuilServiceManager\n"));
    EXPECT_THAT(names, HasSubstr("typeinfo name for " + scope + "QuilServiceCallback\n"));
#endif
    EXPECT_THAT(names, HasSubstr("ControlManager::ControlManager()"));
    EXPECT_THAT(names, HasSubstr("ControlManager::~ControlManager()"));
}

TEST(Exports, HelpersOfTheServiceStayInside) {
    const std::string names = outputOf(std::string("nm -DC --defined-only '") + kLibraryFile + "'");
    for (const char* helper : {"handleRequest", "dispatch", "answer", "waitForAnswer",
                               "snapshotOfClients", "takeNextLabel", "get_log_level"}) {
        EXPECT_THAT(names, Not(HasSubstr(helper)));
    }
}

TEST(Exports, LibraryCarriesItsFileNameAndProtectsItsTables) {
    const std::string dynamic = readElf("-d");
    EXPECT_THAT(dynamic, HasSubstr("soname: [quil.hardware.quilservicemanager@1.0-impl.so]"));
    EXPECT_THAT(dynamic, HasSubstr("BIND_NOW"));
    EXPECT_THAT(dynamic, Not(HasSubstr("TEXTREL")));
    const std::string headers = readElf("-l");
    EXPECT_THAT(headers, HasSubstr("GNU_RELRO"));
    EXPECT_THAT(headers, Not(testing::ContainsRegex("GNU_STACK.*RWE")));
}

TEST(Exports, NothingOfCxxLeavesTheLibraryButTheThreeClasses) {
    const std::regex ours(
        "^(virtual thunk to |vtable for |VTT for |typeinfo for |"
        "typeinfo name for )?(ControlManager::|quil::hardware::quilservicemanager::"
        "implementation::QuilService(Manager|Callback))");
    std::istringstream names(outputOf(std::string("nm -D --defined-only --format=posix '") +
                                      kLibraryFile + "' | grep '^_Z' | cut -d' ' -f1 | c++filt"));
    size_t seen = 0;
    for (std::string name; std::getline(names, name); ++seen) {
        EXPECT_TRUE(std::regex_search(name, ours)) << name;
    }
    EXPECT_GT(seen, 20U);
}

TEST(Exports, DataHaveTheSizesThatOtherComponentsWereLinkedAgainst) {
    if (QUIL_SANITIZED) GTEST_SKIP() << "sanitizers put room behind what they watch";
    EXPECT_EQ(sizesOfExportedData(), (std::map<std::string, size_t>{
                                         {"buffer", 1056},
                                         {"config_info", kPointer},
                                         {"fd", 4},
                                         {"free_routing_topology", 80},
                                         {"g_n_lable", 2},
                                         {"isp_cmd_arr", size_t{14} * 2 * kPointer},
                                         {"polynom", 4},
                                         {"st_func_offset_map_tab", 720},
                                         {"stm_sem", 4},
                                         {"str_mcu_type", 5 * kPointer},
                                         {"test_option_table", size_t{9} * 4 * kPointer},
                                     }));
}

TEST(Exports, LibraryNeedsNothingBeyondThePlatform) {
    // The closed libraries are the board's: on a workstation the program brings their names, or
    // stand-ins do.
    std::set<std::string> allowed = {"quil.hardware.quilservicemanager@1.0.so", "libhidlbase.so",
                                     "libutils.so.0", "libcutils.so.0", "liblog.so.0",
                                     "libstdc++.so.6", "libm.so.6", "libgcc_s.so.1",
                                     // ARM libraries name the loader, 64-bit ones do not.
                                     "libc.so.6", "ld-linux-armhf.so.3",
                                     // Debian's ARM libutils needs it.
                                     "7z.so"};
#ifdef QUIL_IMAGE
    allowed.insert({"libc++.so.1", "libc++abi.so.1", "libunwind.so.1", "libcutils.so"});
    allowed.insert({"libquilhal.so", "libquilhalcommon.so", "libquilmcuservice.so", "libquilsdk.so",
                    "libquilsdkcommon.so"});
#endif
    if (QUIL_SANITIZED) allowed.insert({"libasan.so.8", "libubsan.so.1", "libtsan.so.2"});
    const auto needed = matchesIn(readElf("-d"), std::regex(R"(\(NEEDED\).*\[(.*)\])"));
    EXPECT_THAT(needed, Contains("libhidlbase.so"));
    EXPECT_THAT(needed, IsSubsetOf(allowed));
}

TEST(Exports, TextOfTheArmLibraryStaysUnder96KiB) {
    // `size` counts code and read-only data as text; stripping does not change it.
    std::istringstream rows(outputOf(std::string("size '") + kLibraryFile + "' | tail -n 1"));
    size_t text = 0;
    rows >> text;
    const std::string relocations =
        outputOf(std::string("readelf -rW '") + kLibraryFile + "' | grep -c R_");
    RecordProperty("text", std::to_string(text));
    RecordProperty("relocations", relocations);
    EXPECT_GT(text, mappedSections().at(".text"));
    EXPECT_GT(std::stoul(relocations), 100U);
#if defined(__arm__)
    EXPECT_LT(text, 96U * 1024U);
#else
    GTEST_SKIP() << "the limit is the target's";
#endif
}

TEST(Exports, NothingButTheCompilersOwnEntryRunsWhenTheLibraryIsLoaded) {
    if (QUIL_SANITIZED) GTEST_SKIP() << "sanitizers register their modules from .init_array";
    EXPECT_EQ(mappedSections()[".init_array"], kPointer);
    const std::string symbols = outputOf(std::string("nm -C '") + kLibraryFile + "'");
    EXPECT_THAT(symbols, Not(HasSubstr("_GLOBAL__sub_I")));
    EXPECT_THAT(symbols, Not(HasSubstr("__static_initialization_and_destruction")));
    EXPECT_THAT(symbols, HasSubstr("frame_dummy"));
}

}  // namespace quil::tests
