// The vendor policy, built by the policy compiler against what the platform declares and forbids
// (tests/platform/sepolicy/), and compared with what the code and its commands do.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <map>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "board/core/temporary_directory.h"
#include "testing/program_output.h"
#include "testing/project_files.h"

namespace quil::tests {

using testing::ContainsRegex;
using testing::HasSubstr;
using testing::IsEmpty;

namespace {

namespace fs = std::filesystem;

const std::string kProcess = "hal_quilservicemanager_default";
const std::string kPolicy = "platform/android/sepolicy/";

std::vector<std::string> wordsOf(const std::string& text) {
    std::istringstream in(text);
    return {std::istream_iterator<std::string>(in), {}};
}

// The policy's rules with all macros expanded; `added` stands behind them.
std::string expanded(const std::string& added = "") {
    const board::TemporaryDirectory directory("policy");
    std::ofstream(directory.path() / "added.te") << added;
    const std::string platform = (projectRoot() / "tests/platform/sepolicy").string();
    const std::string own = (projectRoot() / kPolicy).string();
    return outputOf("cd '" + platform +
                    "' && m4 classes.conf macros.m4 platform.te forbidden.te '" + own +
                    "attributes' '" + own + "'*.te '" + directory.path().string() +
                    "/added.te' contexts.conf '" + own + "genfs_contexts' 2>&1");
}

// What the compiler has against a policy; empty for a good one.
std::string verdictOn(const std::string& policy) {
    const board::TemporaryDirectory directory("policy");
    const std::string file = (directory.path() / "policy.conf").string();
    std::ofstream(file) << policy;
    return outputOf("checkpolicy -M -c 30 -o '" + file + ".out' '" + file +
                    "' 2>&1 || echo refused");
}

std::string complaints(const std::string& added = "") { return verdictOn(expanded(added)); }

struct Need {
    const char* code;  // what stands in the product or in the process
    const char* type;
    const char* objectClass;
    const char* permissions;
};

// Why the process has what it has.
const Need kNeeds[] = {
    {"int main(", "hal_quilservicemanager_default_exec", "file", "entrypoint"},
    {"registerAsService(", "hwservicemanager", "binder", "call transfer"},
    {"registerAsService(", "hwservicemanager_prop", "file", "read"},
    {"registerAsService(", "hal_quilservicemanager_hwservice", "hwservice_manager", "add"},
    {"registerAsService(", "hidl_base_hwservice", "hwservice_manager", "add"},
    {"::getService(", "system_file", "dir", "open read search"},
    {"tcsetattr(", "quil_mcu_tty_device", "chr_file", "open read write ioctl"},
    {"/sys/class/quilgpios/", "quil_sysfs_gpio", "dir", "search"},
    {"/sys/class/quilgpios/", "quil_sysfs_gpio", "lnk_file", "read"},
    {"/sys/class/quilgpios/", "quil_sysfs_gpio", "file", "open write"},
    {"/sys/class/ethernet/", "quil_sysfs_phy", "dir", "search"},
    {"/sys/class/ethernet/", "quil_sysfs_phy", "file", "open read write"},
    {"/dev/fpga_spi", "quil_fpga_spi_device", "chr_file", "open read write"},
    {"/dev/block/by-name/screen", "block_device", "dir", "search"},
    {"/dev/block/by-name/screen", "quil_screen_block_device", "blk_file", "open read"},
    {"mtd_debug erase /dev/mtd0", "quil_mtd_debug_exec", "file", "execute execute_no_trans"},
    {"mtd_debug write /dev/mtd0", "quil_fpga_flash_device", "chr_file", "open write ioctl"},
    {"system(", "vendor_shell_exec", "file", "execute execute_no_trans"},
    {"ifconfig eth1", "vendor_toolbox_exec", "file", "execute execute_no_trans"},
    {"ifconfig eth1", "self", "udp_socket", "create ioctl"},
    {"ifconfig eth1", "self", "capability", "net_admin"},
    {"insmod /vendor_dlkm/", "self", "capability", "sys_module"},
    {"insmod /vendor_dlkm/", "vendor_file", "system", "module_load"},
    {"insmod /vendor_dlkm/", "vendor_file", "file", "open read"},
    {"bi_fpga_load_screen_params_by_udp(", "self", "udp_socket", "create write"},
    {"\"/vendor/etc/product.ini\"", "vendor_configs_file", "file", "open read"},
    {"\"persist.quil.device.log.level\"", "vendor_quil_prop", "file", "open read map"},
    {"\"persist.quil.mcu_fw_version\"", "vendor_quil_prop", "property_service", "set"},
    {"\"persist.quil.mcu_fw_version\"", "property_socket", "sock_file", "write"},
    {"\"persist.quil.mcu_fw_version\"", "init", "unix_stream_socket", "connectto"},
    {"\"persist.quil.system.fpga.fw.update\"", "vendor_quil_update_prop", "file", "open read map"},
    {"\"persist.quil.system.fpga.fw.update\"", "vendor_quil_update_prop", "property_service",
     "set"},
    {"/sdcard/", "mnt_user_file", "dir", "search"},
    {"/sdcard/", "mnt_user_file", "lnk_file", "read"},
    {"/sdcard/", "storage_file", "dir", "search"},
    {"/sdcard/", "storage_file", "lnk_file", "read"},
    {"/sdcard/", "fuse", "dir", "search write add_name"},
    {"/sdcard/", "fuse", "file", "create open append"},
    {"/sdcard/", "sdcardfs", "dir", "search write add_name"},
    {"/sdcard/", "sdcardfs", "file", "create open append"},
};

// Everything that the process runs of this project.
std::string code() {
    std::string text = projectText("platform/android/service.cpp");
    for (const char* folder : {"common", "config", "fpga", "host", "isp", "mculink",
                               "platform/vendor/include", "selftest", "service", "update"}) {
        if (!fs::exists(projectRoot() / folder)) continue;
        for (const auto& file : fs::recursive_directory_iterator(projectRoot() / folder)) {
            if (file.is_regular_file()) text += projectText(file.path());
        }
    }
    return text;
}

// One rule for each permission of each need, which says that the process may not have it.
std::vector<std::string> denials() {
    std::vector<std::string> rules;
    for (const Need& need : kNeeds) {
        for (const std::string& permission : wordsOf(need.permissions)) {
            std::string rule = "neverallow " + kProcess;
            rule.append(" ").append(need.type).append(":").append(need.objectClass);
            rules.push_back(rule.append(" ").append(permission).append(";"));
        }
    }
    return rules;
}

// The words in one position of a rule: "{ a b }" or "a".
std::set<std::string> members(const std::string& position) {
    std::set<std::string> names;
    for (const std::string& word : wordsOf(position)) {
        if (word != "{" && word != "}") names.insert(word);
    }
    return names;
}

// "type:class" of everything that rules give to the process by its own name.
std::set<std::string> grants() {
    const std::regex rule("(^|\n)allow " + kProcess +
                          R"( (\{[^}]*\}|[^ :]+) ?: ?(\{[^}]*\}|[^ ]+) )");
    const std::string text = expanded();
    std::set<std::string> found;
    for (std::sregex_iterator it(text.begin(), text.end(), rule), end; it != end; ++it) {
        for (const std::string& type : members((*it)[2])) {
            const std::string object = type + ":";
            for (const std::string& name : members((*it)[3])) found.insert(object + name);
        }
    }
    return found;
}

// What stands in the policy's files about contexts, without the lines that are comments.
std::vector<std::string> contextLines(const std::string& file) {
    std::istringstream in(projectText(kPolicy + file));
    std::vector<std::string> lines;
    for (std::string line; std::getline(in, line);) {
        if (!line.empty() && line[0] != '#') lines.push_back(line);
    }
    return lines;
}

std::vector<std::string> contexts() {
    const std::regex context(R"(u:object_r:\w+:s0)");
    std::vector<std::string> found;
    for (const char* file :
         {"file_contexts", "genfs_contexts", "hwservice_contexts", "property_contexts"}) {
        for (const std::string& line : contextLines(file)) {
            std::smatch match;
            EXPECT_TRUE(std::regex_search(line, match, context)) << file << ": " << line;
            found.push_back(match.str());
        }
    }
    return found;
}

// The compiler refuses a context whose type nobody declared: here each labels a file of its own.
std::string complaintsAbout(const std::vector<std::string>& all) {
    std::string policy = expanded();
    for (size_t i = 0; i < all.size(); ++i) {
        policy += "genfscon proc /" + std::to_string(i) + " " + all[i] + "\n";
    }
    return verdictOn(policy);
}

// The types that the policy declares itself.
std::set<std::string> declaredTypes() {
    const std::regex declaration(R"((?:^|\n)(?:type |vendor_\w+_prop\()(\w+)[,)])");
    std::set<std::string> types;
    for (const auto& file : fs::directory_iterator(projectRoot() / kPolicy)) {
        if (file.path().extension() != ".te") continue;
        const std::string text = projectText(file.path());
        for (std::sregex_iterator it(text.begin(), text.end(), declaration), end; it != end; ++it) {
            types.insert((*it)[1]);
        }
    }
    return types;
}

// Every absolute path in the string literals of the product's sources.
std::set<std::string> pathsOfTheProduct() {
    const std::regex literal(R"re("([^"\n]*)")re");
    const std::regex path(R"(/(?:dev|sys|opt)/[A-Za-z0-9_./-]+)");
    const std::string text = code();
    std::set<std::string> paths;
    for (std::sregex_iterator it(text.begin(), text.end(), literal), end; it != end; ++it) {
        const std::string inside = (*it)[1];
        for (std::sregex_iterator p(inside.begin(), inside.end(), path), last; p != last; ++p) {
            paths.insert(p->str());
        }
    }
    return paths;
}

// The patterns by which the policy labels paths, as regular expressions for whole paths.
std::vector<std::regex> labelledPaths() {
    std::vector<std::regex> patterns;
    for (const std::string& line : contextLines("file_contexts")) {
        patterns.emplace_back(wordsOf(line)[0]);
    }
    for (const std::string& line : contextLines("genfs_contexts")) {
        patterns.emplace_back("/sys" + wordsOf(line)[2] + "/.*");
    }
    return patterns;
}

// The words behind a keyword of the init script.
std::vector<std::string> initScript(const std::string& keyword) {
    const std::string script =
        projectText("platform/android/quil.hardware.quilservicemanager@1.0-service.rc");
    std::smatch match;
    if (!std::regex_search(script, match, std::regex("\n +" + keyword + " ([^\n]*)"))) return {};
    return wordsOf(match[1]);
}

}  // namespace

TEST(Policy, CompilesAgainstThePlatformAndBreaksNoneOfItsRules) {
    EXPECT_EQ(complaints(), "");
    EXPECT_THAT(expanded(), HasSubstr("neverallow halserverdomain domain:udp_socket *;"));
}

TEST(Policy, HalServerDomainWouldBreakThreeOfThePlatformsRules) {
    const std::string found =
        complaints("hal_server_domain(" + kProcess + ", hal_quilservicemanager)\n");
    EXPECT_THAT(found, HasSubstr("vendor_shell_exec:file { execute_no_trans }"));
    EXPECT_THAT(found, HasSubstr("vendor_toolbox_exec:file { execute_no_trans }"));
    EXPECT_THAT(found, HasSubstr("quil_mtd_debug_exec:file { execute_no_trans }"));
    EXPECT_THAT(found, ContainsRegex(":udp_socket \\{ .*create"));
    EXPECT_THAT(found, HasSubstr(":capability { net_admin }"));
    EXPECT_THAT(found, HasSubstr("5 neverallow failures"));
}

TEST(Policy, TypeThatNeitherItNorThePlatformDeclaresIsRefused) {
    EXPECT_THAT(complaints("allow " + kProcess + " vendor_firmware_file:file read;\n"),
                HasSubstr("unknown type vendor_firmware_file"));
}

TEST(Policy, EveryContextNamesADeclaredType) {
    std::vector<std::string> all = contexts();
    EXPECT_GT(all.size(), 10U);
    EXPECT_EQ(complaintsAbout(all), "");
    all.push_back("u:object_r:nobodys_type:s0");
    EXPECT_THAT(complaintsAbout(all), HasSubstr("nobodys_type"));
}

TEST(Policy, EachPropertyOfTheLibraryHasATypeOfTheVendors) {
    const std::regex name(R"re("(persist\.quil\.[a-z_.]+)")re");
    const std::string text = code();
    std::set<std::string> used, labelled;
    for (std::sregex_iterator it(text.begin(), text.end(), name), end; it != end; ++it) {
        used.insert((*it)[1]);
    }
    for (const std::string& line : contextLines("property_contexts")) {
        labelled.insert(wordsOf(line)[0]);
        EXPECT_THAT(wordsOf(line)[1], testing::StartsWith("u:object_r:vendor_"));
    }
    EXPECT_GE(used.size(), 3U);
    for (const char* property : {"persist.quil.device.log.level", "persist.quil.mcu_fw_version",
                                 "persist.quil.system.fpga.fw.update"}) {
        EXPECT_EQ(used.count(property) + labelled.count(property), 2U) << property;
    }
    // The prefix of all others.
    EXPECT_EQ(labelled.count("persist.quil."), 1U);
}

TEST(Policy, InterfaceIsLabelledByItsName) {
    const auto lines = contextLines("hwservice_contexts");
    ASSERT_EQ(lines.size(), 1U);
    EXPECT_EQ(wordsOf(lines[0])[0], "quil.hardware.quilservicemanager::IQuilServiceManager");
}

TEST(Policy, EveryTypeThatItDeclaresHasARule) {
    const std::set<std::string> types = declaredTypes();
    EXPECT_GT(types.size(), 10U);
    const std::string rules = expanded();
    for (const std::string& type : types) {
        EXPECT_TRUE(
            std::regex_search(rules, std::regex("(^|\n)allow [^;\n]*\\b" + type + "\\b[^;\n]*;")))
            << type;
    }
}

TEST(Policy, ProcessMayWhatItsCodeAndItsCommandsNeed) {
    const std::vector<std::string> rules = denials();
    std::string added;
    for (const std::string& rule : rules) added += rule + "\n";
    const std::string found = complaints(added);
    const std::regex broken(R"(neverallow on line (\d+) )");
    std::set<std::string> lines;
    for (std::sregex_iterator it(found.begin(), found.end(), broken), end; it != end; ++it) {
        lines.insert((*it)[1]);
    }
    EXPECT_EQ(lines.size(), rules.size()) << found;
    // None of them is broken by a process that may not.
    EXPECT_EQ(complaints("neverallow " + kProcess + " vendor_file:file write;\n"), "");
}

TEST(Policy, ProcessMayEachIoctlOfTheSerialPortThatTheLibraryCalls) {
    const std::map<std::string, std::string> ioctls = {
        {"tcgetattr", "TCGETS"}, {"tcsetattr", "TCSETS"}, {"tcflush", "TCFLSH"}};
    const std::string rules = projectText(kPolicy + kProcess + ".te");
    const std::string text = code();
    const std::regex call(R"(\b(tc(?:get|set|flush|drain|flow|send)\w*)\()");
    size_t calls = 0;
    for (std::sregex_iterator it(text.begin(), text.end(), call), end; it != end; ++it, ++calls) {
        ASSERT_EQ(ioctls.count((*it)[1]), 1U) << (*it)[1];
        EXPECT_THAT(rules, ContainsRegex("chr_file ioctl \\{.* " + ioctls.at((*it)[1]) + " "));
    }
    EXPECT_GT(calls, 2U);
}

TEST(Policy, EveryNeedStandsInTheCode) {
    const std::string text = code();
    for (const Need& need : kNeeds) EXPECT_THAT(text, HasSubstr(need.code)) << need.type;
}

TEST(Policy, ProcessMayNothingThatItNeedsForNothing) {
    std::set<std::string> needed;
    for (const Need& need : kNeeds) {
        needed.insert(std::string(need.type) + ":" + need.objectClass);
    }
    std::set<std::string> idle;
    const std::set<std::string> all = grants();
    std::set_difference(all.begin(), all.end(), needed.begin(), needed.end(),
                        std::inserter(idle, idle.end()));
    // What a call through the binder brings along.
    idle.erase("hwservicemanager:binder");
    EXPECT_THAT(idle, IsEmpty());
    EXPECT_GT(all.size(), 25U);
}

TEST(Policy, UpdatePropertyMayBeSetByAVendorsUpdaterAndReadByAny) {
    const std::string updater = "type updater, domain";
    EXPECT_EQ(complaints(updater + ";\nset_prop(updater, vendor_quil_update_prop)\n"), "");
    EXPECT_EQ(complaints(updater + ", coredomain;\nget_prop(updater, vendor_quil_update_prop)\n"),
              "");
    EXPECT_THAT(complaints(updater + ", coredomain;\nset_prop(updater, vendor_quil_update_prop)\n"),
                HasSubstr("property_service { set }"));
    EXPECT_THAT(complaints(updater + ", coredomain;\nget_prop(updater, vendor_quil_prop)\n"),
                HasSubstr("neverallow"));
    EXPECT_THAT(expanded(),
                HasSubstr("allow vendor_init vendor_quil_update_prop:property_service"));
}

TEST(Policy, EveryPathThatTheLibraryOpensHasAContext) {
    std::vector<std::string> without;
    const auto patterns = labelledPaths();
    for (const std::string& path : pathsOfTheProduct()) {
        if (std::none_of(patterns.begin(), patterns.end(),
                         [&](const auto& one) { return std::regex_match(path, one); })) {
            without.push_back(path);
        }
    }
    // A diagnostic's file, in a folder that no image has.
    EXPECT_THAT(without, testing::ElementsAre("/opt/test2.bin"));
    EXPECT_GT(pathsOfTheProduct().size(), 7U);
}

TEST(Policy, InitScriptGivesTheCapabilitiesThatThePolicyAllows) {
    EXPECT_EQ(initScript("capabilities"), (std::vector<std::string>{"NET_ADMIN", "SYS_MODULE"}));
    EXPECT_THAT(expanded(),
                HasSubstr("allow " + kProcess + " self:capability { net_admin sys_module };"));
}

TEST(Policy, InitScriptGivesTheGroupsThatSocketsAndTheCardNeed) {
    EXPECT_EQ(initScript("user"), std::vector<std::string>{"system"});
    EXPECT_EQ(initScript("group"),
              (std::vector<std::string>{"system", "inet", "media_rw", "sdcard_rw"}));
}

}  // namespace quil::tests
