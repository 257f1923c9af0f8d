// The names that hold the packaging together: one service, told the same way in every file.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "testing/project_files.h"

namespace quil::tests {

using testing::HasSubstr;
using testing::IsEmpty;

namespace {

const std::string kPackage = "quil.hardware.quilservicemanager";

std::string policy(const std::string& name) {
    return projectText("platform/android/sepolicy/" + name);
}

// Every absolute path in the string literals of the product's sources.
std::set<std::string> pathsOfTheProduct() {
    const std::regex literal(R"re("([^"\n]*)")re");
    const std::regex path(R"(/(?:dev|sys|vendor|vendor_dlkm|opt|sdcard)/[A-Za-z0-9_./-]+)");
    std::set<std::string> paths;
    for (const char* folder : kProductFolders) {
        for (const auto& file : sourcesIn(folder)) {
            const std::string text = projectText(file);
            for (std::sregex_iterator it(text.begin(), text.end(), literal), end; it != end; ++it) {
                const std::string inside = (*it)[1];
                for (std::sregex_iterator p(inside.begin(), inside.end(), path); p != end; ++p) {
                    paths.insert(p->str());
                }
            }
        }
    }
    return paths;
}

// The file names in a list of a build file.
std::set<std::string> wordsIn(const std::string& list) {
    const std::regex word(R"([A-Za-z0-9_./-]+)");
    std::set<std::string> words;
    for (std::sregex_iterator it(list.begin(), list.end(), word), end; it != end; ++it) {
        words.insert(it->str());
    }
    return words;
}

// What CMake builds the device's quilctl from.
std::set<std::string> sourcesOfTheDevicesQuilctl() {
    const std::string build = projectText("tools/quilctl/CMakeLists.txt");
    const std::regex library(R"(add_library\(quilctl_client STATIC([^)]*)\))");
    std::smatch list;
    EXPECT_TRUE(std::regex_search(build, list, library));
    std::set<std::string> sources = {"host/wire_frame.cpp", "tools/quilctl/device_main.cpp"};
    for (const std::string& file : wordsIn(list[1])) sources.insert("tools/quilctl/" + file);
    return sources;
}

// Adds a source and everything of the project that it includes, directly or not.
void collectIncludes(const std::string& file, std::set<std::string>& seen) {
    if (!seen.insert(file).second) return;
    const std::string text = projectText(file);
    const std::regex include("#include \"([^\"]+)\"");
    for (std::sregex_iterator it(text.begin(), text.end(), include), end; it != end; ++it) {
        collectIncludes((*it)[1], seen);
    }
}

// The patterns that give a path its label, as regular expressions over the whole path.
std::vector<std::regex> labelledPaths() {
    std::vector<std::regex> patterns;
    std::istringstream files(policy("file_contexts"));
    for (std::string line; std::getline(files, line);) {
        if (line.empty() || line[0] == '#') continue;
        patterns.emplace_back(line.substr(0, line.find(' ')));
    }
    std::istringstream sysfs(policy("genfs_contexts"));
    std::string keyword, filesystem, directory, label;
    while (sysfs >> keyword >> filesystem >> directory >> label) {
        patterns.emplace_back("/sys" + directory + "/.*");
    }
    return patterns;
}

}  // namespace

TEST(Packaging, EveryPathThatTheLibraryOpensHasAContext) {
    std::vector<std::string> without;
    const auto patterns = labelledPaths();
    for (const std::string& path : pathsOfTheProduct()) {
        // A link into shared storage, which the platform labels by what lies behind it.
        if (path.rfind("/sdcard/", 0) == 0) continue;
        const bool labelled = std::any_of(patterns.begin(), patterns.end(), [&](const auto& one) {
            return std::regex_match(path, one);
        });
        if (!labelled) without.push_back(path);
    }
    EXPECT_THAT(without, IsEmpty());
    EXPECT_GT(pathsOfTheProduct().size(), 8U);
}

TEST(Packaging, ManifestDeclaresTheInterfaceAndInstanceThatTheDefinitionsHave) {
    const std::string fragment = projectText("platform/android/" + kPackage + "@1.0-service.xml");
    EXPECT_THAT(fragment, HasSubstr("<name>" + kPackage + "</name>"));
    EXPECT_THAT(fragment, HasSubstr("<transport>hwbinder</transport>"));
    EXPECT_THAT(fragment, HasSubstr("<version>1.0</version>"));
    EXPECT_THAT(fragment, HasSubstr("<name>IQuilServiceManager</name>"));
    EXPECT_THAT(fragment, HasSubstr("<instance>default</instance>"));
    EXPECT_THAT(projectText("interfaces/quilservicemanager/1.0/IQuilServiceManager.hal"),
                HasSubstr("package " + kPackage + "@1.0;"));
    EXPECT_THAT(projectText("interfaces/current.txt"),
                HasSubstr(kPackage + "@1.0::IQuilServiceManager"));
}

TEST(Packaging, InitScriptStartsTheBinaryThatIsBuiltAndNamesTheInterface) {
    const std::string script = projectText("platform/android/" + kPackage + "@1.0-service.rc");
    EXPECT_THAT(script, HasSubstr("/vendor/bin/hw/" + kPackage + "@1.0-service\n"));
    EXPECT_THAT(script, HasSubstr("interface " + kPackage + "@1.0::IQuilServiceManager default"));
    EXPECT_THAT(projectText("platform/android/service.cpp"),
                HasSubstr("registerAsService(\"default\")"));
}

TEST(Packaging, BuildFileNamesTheLibraryTheServiceAndTheirFiles) {
    const std::string build = projectText("Android.bp");
    for (const char* suffix : {"@1.0", "@1.0-impl", "@1.0-service"}) {
        EXPECT_THAT(build, HasSubstr("name: \"" + kPackage + suffix + "\""));
    }
    EXPECT_THAT(build, HasSubstr("version_script: \"quil.map\""));
    EXPECT_THAT(build, HasSubstr("relative_install_path: \"hw\""));
    const std::regex quoted(R"re("([A-Za-z_][^"*]*(?:/[^"*]*)+)")re");
    for (std::sregex_iterator it(build.begin(), build.end(), quoted), end; it != end; ++it) {
        EXPECT_TRUE(std::filesystem::exists(projectRoot() / (*it)[1].str())) << (*it)[1].str();
    }
    EXPECT_THAT(projectText("cmake/product.cmake"), HasSubstr(kPackage + "@1.0-impl"));
}

TEST(Packaging, BuildFileHasTheSourcesOfTheDevicesQuilctl) {
    const std::string build = projectText("Android.bp");
    const std::regex module(R"(name: "quilctl",[^}]*srcs: \[([^\]]*)\])");
    std::smatch listed;
    ASSERT_TRUE(std::regex_search(build, listed, module));
    EXPECT_EQ(wordsIn(listed[1]), sourcesOfTheDevicesQuilctl());
    EXPECT_GT(sourcesOfTheDevicesQuilctl().size(), 5U);
}

TEST(Packaging, DevicesQuilctlIncludesNothingOfTheSimulatedBoard) {
    std::set<std::string> seen;
    for (const std::string& file : sourcesOfTheDevicesQuilctl()) collectIncludes(file, seen);
    EXPECT_EQ(seen.count("tools/quilctl/session/service_session.h"), 1U);
    for (const std::string& file : seen) EXPECT_NE(file.rfind("board/", 0), 0U) << file;
}

TEST(Packaging, PolicyNamesTheInterfaceTheBinaryAndEveryProperty) {
    EXPECT_THAT(policy("hwservice_contexts"), HasSubstr(kPackage + "::IQuilServiceManager "));
    EXPECT_THAT(policy("file_contexts"),
                HasSubstr(R"(/vendor/bin/hw/quil\.hardware\.quilservicemanager@1\.0-service)"));
    const std::string properties = policy("property_contexts");
    for (const char* name : {"persist.quil.device.log.level ", "persist.quil.mcu_fw_version ",
                             "persist.quil.system.fpga.fw.update "}) {
        EXPECT_THAT(properties, HasSubstr(name));
    }
}

TEST(Packaging, EveryTypeThatTheContextsGiveIsDeclared) {
    std::string declared = policy("file.te") + policy("device.te") + policy("hwservice.te") +
                           policy("hal_quilservicemanager_default.te") + policy("property.te");
    const std::set<std::string> platform = {"vendor_file", "vendor_configs_file",
                                            "vendor_firmware_file"};
    const std::regex label(R"(u:object_r:([a-z_]+):s0)");
    for (const char* name :
         {"file_contexts", "genfs_contexts", "hwservice_contexts", "property_contexts"}) {
        const std::string contexts = policy(name);
        for (std::sregex_iterator it(contexts.begin(), contexts.end(), label), end; it != end;
             ++it) {
            const std::string type = (*it)[1];
            if (platform.count(type) != 0) continue;
            EXPECT_TRUE(std::regex_search(declared, std::regex("(type |_prop\\()" + type + "[,)]")))
                << type << " of " << name;
        }
    }
}

}  // namespace quil::tests
