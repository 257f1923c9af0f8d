// Android.bp against what CMake has built with Soong's flags: the same sources, flags, include
// directories, libraries, files. Reads the build's compile commands and the files themselves.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <nlohmann/json.hpp>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "board/core/temporary_directory.h"
#include "testing/program_output.h"
#include "testing/project_files.h"
#include "tests/image/blueprint.h"

namespace quil::tests {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::IsSupersetOf;

namespace {

namespace fs = std::filesystem;
using Words = std::set<std::string>;

const std::string kPackage = "quil.hardware.quilservicemanager@1.0";
const std::string kBuildFiles[] = {"Android.bp", "interfaces/Android.bp",
                                   "interfaces/quilservicemanager/1.0/Android.bp"};

// A module and what CMake makes in its place.
struct Built {
    std::string module;
    Words targets;
    std::string file;  // from the build's root; empty when it is only linked into others
};

const Built kBuilt[] = {
    {kPackage + "-impl", {"quil_impl"}, "lib/" + kPackage + "-impl.so"},
    {kPackage + "-service", {"quil_service"}, "bin/" + kPackage + "-service"},
    {"libquilhost", {"quilhost", "quil_wire_frame"}, ""},
    {"quilctl", {"quilctl_device", "quilctl_client", "quil_wire_frame"}, "bin/quilctl"},
};

std::vector<BlueprintModule> modulesOf(const std::string& file) {
    return readBlueprint(projectText(file));
}

// The modules of the root's file that are compiled, with their defaults.
std::map<std::string, BlueprintModule> compiledModules() {
    const auto all = modulesOf(kBuildFiles[0]);
    std::map<std::string, BlueprintModule> found;
    for (const BlueprintModule& module : all) {
        if (module.type == "cc_defaults" || module.type.rfind("cc_", 0) != 0) continue;
        found[module.word("name")] = withDefaults(module, all);
    }
    return found;
}

BlueprintModule moduleOf(const std::string& name) { return compiledModules().at(name); }

struct Command {
    std::string source;  // from the project's root
    std::vector<std::string> words;
};

// Every compilation of one of the targets.
std::vector<Command> commandsOf(const Words& targets) {
    std::ifstream in(fs::path(QUIL_BUILD_DIR) / "compile_commands.json");
    const std::regex target("CMakeFiles/([^/]+)\\.dir/");
    std::vector<Command> commands;
    for (const auto& entry : nlohmann::json::parse(in)) {
        const std::string line = entry.at("command");
        std::smatch match;
        if (!std::regex_search(line, match, target) || targets.count(match[1]) == 0) continue;
        std::istringstream words(line);
        commands.push_back({fs::path(entry.at("file").get<std::string>())
                                .lexically_relative(projectRoot())
                                .string(),
                            {std::istream_iterator<std::string>(words), {}}});
    }
    return commands;
}

// Names of files with their stars made out, by Soong's own rules.
Words filesNamedBy(const std::vector<std::string>& patterns) {
    const board::TemporaryDirectory directory("blueprint");
    const std::string list = (directory.path() / "list").string();
    Words files;
    const std::string write = "cd '" + projectRoot().string() + "' && bpglob -o '" + list + "' '";
    for (const std::string& pattern : patterns) {
        std::string command = write;
        command.append(pattern).append("' && cat '").append(list).append("'");
        std::istringstream names(outputOf(command));
        files.insert(std::istream_iterator<std::string>(names), {});
    }
    return files;
}

// Adds a source and everything of the project that it includes, directly or not.
void collectIncludes(const std::string& file, Words& seen) {
    if (!fs::exists(projectRoot() / file) || !seen.insert(file).second) return;
    const std::string text = projectText(file);
    const std::regex include("#include \"([^\"]+)\"");
    for (std::sregex_iterator it(text.begin(), text.end(), include), end; it != end; ++it) {
        collectIncludes((*it)[1], seen);
    }
}

// The project's own folders that a module sees: its own and what its libraries export.
Words foldersSeenBy(const BlueprintModule& module) {
    std::vector<std::string> folders = module.words("local_include_dirs");
    const auto all = compiledModules();
    for (const char* kind : {"shared_libs", "static_libs"}) {
        for (const std::string& library : module.words(kind)) {
            if (all.count(library) == 0) continue;
            for (const auto& one : all.at(library).words("export_include_dirs")) {
                folders.push_back(one);
            }
        }
    }
    Words seen;
    for (const std::string& folder : folders) {
        seen.insert((projectRoot() / folder).lexically_normal().string());
    }
    return seen;
}

// The project's own folders among a command's, without the platform's stand-ins.
Words foldersSeenBy(const Command& command) {
    Words seen;
    for (const std::string& word : command.words) {
        if (word.rfind("-I", 0) != 0) continue;
        const fs::path folder = fs::path(word.substr(2)).lexically_normal();
        const std::string inside = folder.lexically_relative(projectRoot()).string();
        if (inside.rfind("..", 0) == 0 || inside.rfind("build/", 0) == 0) continue;
        if (inside.rfind("platform/linux", 0) == 0) continue;
        seen.insert(inside == "." ? (projectRoot() / ".").lexically_normal().string()
                                  : folder.string());
    }
    return seen;
}

std::string builtFile(const Built& built) { return QUIL_BUILD_DIR "/" + built.file; }

// What a built file asks for, by the names that Soong's modules have; without the languages' own.
Words librariesNeededBy(const std::string& file) {
    const std::regex needed(R"(\(NEEDED\).*\[(.*)\.so[.0-9]*\])");
    const Words languages = {"libc++",   "libc++abi", "libunwind",      "libm",
                             "libgcc_s", "libc",      "ld-linux-x86-64"};
    const std::string dynamic = outputOf("readelf -dW '" + file + "'");
    Words libraries;
    for (std::sregex_iterator it(dynamic.begin(), dynamic.end(), needed), end; it != end; ++it) {
        if (languages.count((*it)[1]) == 0) libraries.insert((*it)[1]);
    }
    return libraries;
}

Words wordsOf(const BlueprintModule& module, const char* property) {
    const auto words = module.words(property);
    return {words.begin(), words.end()};
}

// Where Soong puts the files of a vendor module for 32 bits.
Words placesOf(const BlueprintModule& module) {
    const bool isLibrary = module.type == "cc_library_shared";
    const std::string name = module.word("name") + (isLibrary ? ".so" : "");
    const fs::path folder =
        fs::path(isLibrary ? "/vendor/lib" : "/vendor/bin") / module.word("relative_install_path");
    Words places = {(folder / name).string()};
    for (const std::string& file : module.words("init_rc")) {
        places.insert("/vendor/etc/init/" + fs::path(file).filename().string());
    }
    for (const std::string& file : module.words("vintf_fragments")) {
        places.insert("/vendor/etc/vintf/manifest/" + fs::path(file).filename().string());
    }
    return places;
}

}  // namespace

TEST(AndroidBp, IsWrittenAsSoongsOwnParserWritesIt) {
    for (const std::string& file : kBuildFiles) {
        EXPECT_EQ(outputOf("bpfmt -d '" + (projectRoot() / file).string() + "' 2>&1"), "") << file;
    }
}

TEST(AndroidBp, EveryCompiledModuleIsBuiltHere) {
    Words modules, built;
    for (const auto& [name, module] : compiledModules()) modules.insert(name);
    for (const Built& one : kBuilt) built.insert(one.module);
    EXPECT_EQ(modules, built);
}

TEST(AndroidBp, ModulesHaveTheSourcesThatAreCompiledHere) {
    for (const Built& built : kBuilt) {
        Words compiled;
        for (const Command& command : commandsOf(built.targets)) compiled.insert(command.source);
        EXPECT_EQ(filesNamedBy(moduleOf(built.module).words("srcs")), compiled) << built.module;
        EXPECT_THAT(compiled, testing::Not(IsEmpty()));
    }
}

TEST(AndroidBp, ModulesHaveTheFlagsThatTheirSourcesAreCompiledWith) {
    for (const Built& built : kBuilt) {
        const BlueprintModule module = moduleOf(built.module);
        std::vector<std::string> flags = module.words("cflags");
        for (const std::string& flag : module.words("cppflags")) flags.push_back(flag);
        flags.push_back("-std=" + module.word("cpp_std"));
        // Soong's own: its modules have no run-time type information unless they ask.
        EXPECT_EQ(module.word("rtti"), "");
        for (const char* flag : {"-fno-rtti", "-DNDEBUG", "-stdlib=libc++"}) flags.push_back(flag);
        for (const Command& command : commandsOf(built.targets)) {
            if (command.source == "host/wire_frame.cpp") continue;  // compiled once for two modules
            EXPECT_THAT(command.words, IsSupersetOf(flags)) << command.source;
        }
    }
}

TEST(AndroidBp, ModulesSeeTheFoldersThatTheirSourcesAreCompiledWith) {
    for (const Built& built : kBuilt) {
        const Words seen = foldersSeenBy(moduleOf(built.module));
        for (const Command& command : commandsOf(built.targets)) {
            EXPECT_THAT(seen, IsSupersetOf(foldersSeenBy(command))) << command.source;
        }
    }
}

TEST(AndroidBp, ModulesIncludeNothingOfTheSimulatedBoard) {
    Words seen;
    for (const Built& built : kBuilt) {
        for (const std::string& file : filesNamedBy(moduleOf(built.module).words("srcs"))) {
            collectIncludes(file, seen);
        }
    }
    EXPECT_EQ(seen.count("tools/quilctl/session/service_session.h"), 1U);
    EXPECT_EQ(seen.count("common/log.h"), 1U);
    for (const std::string& file : seen) EXPECT_NE(file.rfind("board/", 0), 0U) << file;
}

TEST(AndroidBp, ModulesNameTheLibrariesThatTheirFilesNeed) {
    for (const Built& built : kBuilt) {
        if (built.file.empty()) continue;
        EXPECT_EQ(wordsOf(moduleOf(built.module), "shared_libs"),
                  librariesNeededBy(builtFile(built)))
            << built.module;
    }
}

TEST(AndroidBp, LibraryIsLinkedByTheVersionScriptThatTheModuleNames) {
    std::ifstream in(fs::path(QUIL_BUILD_DIR) / "build.ninja");
    const std::string ninja{std::istreambuf_iterator<char>(in), {}};
    const std::regex script(R"(--version-script=(\S+))");
    Words scripts;
    for (std::sregex_iterator it(ninja.begin(), ninja.end(), script), end; it != end; ++it) {
        scripts.insert((*it)[1]);
    }
    EXPECT_THAT(
        scripts,
        ElementsAre(
            (projectRoot() / moduleOf(kPackage + "-impl").word("version_script")).string()));
    EXPECT_THAT(ninja, HasSubstr("-Wl,--no-undefined-version -Wl,--no-undefined "));
}

TEST(AndroidBp, FilesHaveTheModulesNames) {
    for (const Built& built : kBuilt) {
        if (built.file.empty()) continue;
        EXPECT_TRUE(fs::exists(builtFile(built))) << built.file;
        const BlueprintModule module = moduleOf(built.module);
        EXPECT_EQ(module.word("vendor"), "true");
        EXPECT_EQ(module.word("compile_multilib"), "32");
        const bool isLibrary = module.type == "cc_library_shared";
        EXPECT_EQ(fs::path(built.file).filename(), built.module + (isLibrary ? ".so" : ""));
    }
}

TEST(AndroidBp, ServiceBringsItsInitScriptAndItsManifestFragment) {
    Words brought, there;
    const BlueprintModule service = moduleOf(kPackage + "-service");
    for (const char* kind : {"init_rc", "vintf_fragments"}) {
        for (const std::string& file : service.words(kind)) brought.insert(file);
    }
    for (const auto& file : fs::directory_iterator(projectRoot() / "platform/android")) {
        const auto extension = file.path().extension();
        if (extension == ".rc" || extension == ".xml") {
            there.insert("platform/android/" + file.path().filename().string());
        }
    }
    EXPECT_EQ(brought, there);
    EXPECT_EQ(there.size(), 2U);
}

TEST(AndroidBp, InstalledFilesAreWhereTheScriptThePolicyAndThePageExpectThem) {
    const std::string page = projectText("docs/android.md");
    for (const auto& [name, module] : compiledModules()) {
        if (module.type == "cc_library_static") continue;
        for (const std::string& place : placesOf(module)) {
            EXPECT_NE(page.find("`" + place + "`"), std::string::npos) << place;
        }
    }
    const std::string service = "/vendor/bin/hw/" + kPackage + "-service";
    EXPECT_EQ(placesOf(moduleOf(kPackage + "-service")).count(service), 1U);
    EXPECT_THAT(projectText(moduleOf(kPackage + "-service").word("init_rc")),
                HasSubstr(" " + service + "\n"));
    const std::string dotted = std::regex_replace(service, std::regex("\\."), "\\.");
    EXPECT_THAT(projectText("platform/android/sepolicy/file_contexts"), HasSubstr(dotted + " "));
}

TEST(AndroidBp, LibrariesThatTheTreeLacksHaveTheirRecipeOnThePage) {
    Words lacking;
    for (const auto& [name, module] : compiledModules()) {
        for (const char* kind : {"shared_libs", "static_libs", "header_libs"}) {
            for (const std::string& library : module.words(kind)) lacking.insert(library);
        }
    }
    for (const auto& [name, module] : compiledModules()) lacking.erase(name);
    for (const char* name : {"libcutils", "libhidlbase", "liblog", "libutils"}) lacking.erase(name);
    lacking.erase(kPackage);
    EXPECT_EQ(lacking.size(), 7U);
    const std::string page = projectText("docs/android.md");
    const size_t start = page.find("### The libraries that this tree links and does not have");
    ASSERT_NE(start, std::string::npos);
    const std::string recipes = page.substr(start, page.find("\n### ", start + 1) - start);
    for (const std::string& name : lacking) EXPECT_THAT(recipes, HasSubstr(name));
}

TEST(AndroidBp, InterfaceHasTheDefinitionsBesideItByTheirBareNames) {
    const fs::path folder = fs::path(kBuildFiles[2]).parent_path();
    Words definitions;
    for (const auto& file : fs::directory_iterator(projectRoot() / folder)) {
        if (file.path().extension() == ".hal") definitions.insert(file.path().filename().string());
    }
    const auto modules = modulesOf(kBuildFiles[2]);
    ASSERT_EQ(modules.back().type, "hidl_interface");
    EXPECT_EQ(modules.back().word("name"), kPackage);
    EXPECT_EQ(wordsOf(modules.back(), "srcs"), definitions);
    EXPECT_EQ(definitions.size(), 2U);
    EXPECT_TRUE(fs::exists(QUIL_BUILD_DIR "/lib/" + kPackage + ".so"));
}

// With a path it would count from the platform tree's root.
TEST(AndroidBp, PackageRootIsItsOwnFolderWithTheFrozenHashesBesideIt) {
    const auto modules = modulesOf(kBuildFiles[1]);
    ASSERT_EQ(modules.back().type, "hidl_package_root");
    EXPECT_EQ(modules.back().word("name"), "quil.hardware");
    EXPECT_EQ(modules.back().word("use_current"), "true");
    EXPECT_EQ(modules.back().word("path"), "");
    EXPECT_EQ(modulesOf(kBuildFiles[2]).back().word("root"), "quil.hardware");
    EXPECT_TRUE(fs::exists(projectRoot() / "interfaces/current.txt"));
}

TEST(AndroidBp, EveryFileIsUnderTheProjectsOwnLicence) {
    const auto all = modulesOf(kBuildFiles[0]);
    ASSERT_EQ(all[1].type, "license");
    for (const std::string& file : kBuildFiles) {
        const BlueprintModule package = modulesOf(file).front();
        ASSERT_EQ(package.type, "package");
        EXPECT_THAT(package.words("default_applicable_licenses"), ElementsAre(all[1].word("name")));
    }
}

}  // namespace quil::tests
