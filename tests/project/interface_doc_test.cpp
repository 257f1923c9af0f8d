// docs/interface.md says what leaves the library as the map, the headers and the compiler say it.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stddef.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <map>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "config/config_info.h"
#include "fpga/screen/screen_params.h"
#include "isp/boot_loader.h"
#include "mculink/frame.h"
#include "selftest/self_test.h"
#include "service/tclv_msg.h"
#include "testing/project_files.h"

namespace quil::tests {

using testing::Contains;
using testing::HasSubstr;

namespace {

namespace fs = std::filesystem;
using hardware::quilservicemanager::implementation::tclvMsg;
using Matches = std::sregex_iterator;

const std::string& page() {
    static const std::string text = projectText("docs/interface.md");
    return text;
}

std::string withSingleBlanks(const std::string& text) {
    return std::regex_replace(text, std::regex(R"(\s+)"), " ");
}

std::string withoutComments(const std::string& text) {
    return std::regex_replace(text, std::regex("//[^\n]*"), "");
}

// The text of all headers of a folder, blanks reduced.
std::string headersOf(const std::string& folder) {
    std::string text;
    for (const auto& file : sourcesIn(folder)) {
        if (file.extension() != ".h") continue;
        text += withoutComments(projectText(file));
    }
    return withSingleBlanks(text);
}

using Declarations = std::map<std::string, std::string>;  // by the declared name

void keep(Declarations& declarations, const std::string& declaration) {
    static const std::regex name(R"((\w+)[(\[;])");
    std::smatch match;
    ASSERT_TRUE(std::regex_search(declaration, match, name)) << declaration;
    EXPECT_TRUE(declarations.emplace(match[1], declaration).second) << declaration;
}

Declarations declarationsOfTheHeaders() {
    static const std::regex exported(R"((extern )?(?:"C" )?QUIL_EXPORT ([^;{]+;))");
    Declarations declarations;
    for (const char* folder : kProductFolders) {
        const std::string text = headersOf(folder);
        for (Matches it(text.begin(), text.end(), exported), end; it != end; ++it) {
            const bool isFunction = (*it)[2].str().find('(') != std::string::npos;
            keep(declarations, (isFunction ? "" : (*it)[1].str()) + (*it)[2].str());
        }
    }
    return declarations;
}

// What the page has below the headings of its entries.
Declarations declarationsOfThePage() {
    static const std::regex entry("\n#### (\\w+)\n\n```c\n([^`]+)\n```\n\n[^\n#|]{5}");
    Declarations declarations;
    for (Matches it(page().begin(), page().end(), entry), end; it != end; ++it) {
        keep(declarations, withSingleBlanks((*it)[2]));
        EXPECT_EQ(declarations.count((*it)[1]), 1U) << (*it)[1];
    }
    return declarations;
}

struct RecordField {
    std::string name;
    size_t offset;
    bool operator==(const RecordField& other) const = default;
};
void PrintTo(const RecordField& field, std::ostream* out) {
    *out << field.name << " at " << field.offset;
}

struct Record {
    std::string name;
    std::vector<RecordField> fields;
};

#define FIELD(record, field) \
    { #field, offsetof(record, field) }
// The sizes stand behind the fields, as on the page.
const std::vector<Record> kRecords = {
    {"quil_request_param_t",
     {FIELD(quil_request_param_t, param0),
      FIELD(quil_request_param_t, param1),
      FIELD(quil_request_param_t, param2),
      FIELD(quil_request_param_t, param3),
      FIELD(quil_request_param_t, param4),
      FIELD(quil_request_param_t, is_write),
      FIELD(quil_request_param_t, flag_b),
      FIELD(quil_request_param_t, param7),
      FIELD(quil_request_param_t, req_type),
      FIELD(quil_request_param_t, cmd),
      FIELD(quil_request_param_t, field_a),
      FIELD(quil_request_param_t, field_b),
      FIELD(quil_request_param_t, field_c),
      {"size", sizeof(quil_request_param_t)}}},
    {"quil_frame_header_t",
     {FIELD(quil_frame_header_t, magic),
      FIELD(quil_frame_header_t, reserved),
      FIELD(quil_frame_header_t, fixed_word),
      FIELD(quil_frame_header_t, label),
      FIELD(quil_frame_header_t, length),
      {"size", sizeof(quil_frame_header_t)}}},
    {"quil_request_header_t",
     {FIELD(quil_request_header_t, flags),
      FIELD(quil_request_header_t, field_a),
      FIELD(quil_request_header_t, field_b),
      FIELD(quil_request_header_t, field_c),
      {"size", sizeof(quil_request_header_t)}}},
    {"quil_request_body_t",
     {FIELD(quil_request_body_t, cmd),
      FIELD(quil_request_body_t, reserved),
      {"size", sizeof(quil_request_body_t)}}},
    {"isp_cmd_t", {FIELD(isp_cmd_t, code), FIELD(isp_cmd_t, name), {"size", sizeof(isp_cmd_t)}}},
    {"config_info_t",
     {FIELD(config_info_t, product),
      FIELD(config_info_t, mod_id),
      FIELD(config_info_t, mcu_fd),
      FIELD(config_info_t, fw_updating),
      FIELD(config_info_t, mcu_type),
      FIELD(config_info_t, mcu_serial),
      FIELD(config_info_t, mcu_fw_path),
      FIELD(config_info_t, mcu_fw_version),
      FIELD(config_info_t, mcu_uart_path),
      FIELD(config_info_t, mcu_baud_rate),
      FIELD(config_info_t, mcu_wdt_switch),
      FIELD(config_info_t, mcu_wdt_pulse),
      FIELD(config_info_t, mcu_wdt_startup_type),
      FIELD(config_info_t, mcu_sock_path),
      FIELD(config_info_t, fpga_control_gpio),
      FIELD(config_info_t, fpga_config_gpio),
      FIELD(config_info_t, fpga_done_gpio),
      FIELD(config_info_t, fpga_drv_path),
      FIELD(config_info_t, fpga_fw_path),
      FIELD(config_info_t, fpga_fw_version),
      FIELD(config_info_t, fpga_parameter),
      FIELD(config_info_t, hex_parameter),
      FIELD(config_info_t, self_test_items),
      FIELD(config_info_t, audio_num),
      {"size", sizeof(config_info_t)}}},
    {"st_func_offset_map_t",
     {FIELD(st_func_offset_map_t, fpga_addr),
      FIELD(st_func_offset_map_t, datalen),
      FIELD(st_func_offset_map_t, offset),
      {"size", sizeof(st_func_offset_map_t)}}},
    {"test_option_t",
     {FIELD(test_option_t, id),
      FIELD(test_option_t, name),
      FIELD(test_option_t, testFunc),
      FIELD(test_option_t, enable),
      FIELD(test_option_t, reserved),
      {"size", sizeof(test_option_t)}}},
    {"tclvMsg",
     {FIELD(tclvMsg, cmd),
      FIELD(tclvMsg, errCode),
      FIELD(tclvMsg, length),
      FIELD(tclvMsg, msgBody),
      {"size", sizeof(tclvMsg)}}},
};
#undef FIELD

// The rows "| `field` | ARM | 64-bit | ..." below a record's heading.
std::vector<RecordField> fieldsOnThePage(const std::string& record) {
    const size_t start = page().find("\n### " + record + "\n");
    if (start == std::string::npos) return {};
    const std::string section = page().substr(start, page().find("\n#", start + 5) - start);
    static const std::regex row(R"(\n\| `?(\w+)`? \| (\d+) \| (\d+) \|)");
    const int column = sizeof(void*) == 4 ? 2 : 3;
    std::vector<RecordField> fields;
    for (Matches it(section.begin(), section.end(), row), end; it != end; ++it) {
        fields.push_back({(*it)[1], std::stoul((*it)[column])});
    }
    return fields;
}

}  // namespace

TEST(InterfacePage, EveryExportedNameHasAnEntryAndNoOtherNameHas) {
    std::set<std::string> entries;
    for (const auto& [name, declaration] : declarationsOfThePage()) entries.insert(name);
    EXPECT_EQ(entries, plainNamesOfTheMap());
}

TEST(InterfacePage, SignaturesAreThoseOfTheHeaders) {
    EXPECT_EQ(declarationsOfThePage(), declarationsOfTheHeaders());
}

TEST(InterfacePage, OffsetsAndSizesOfRecordsAreTheCompilers) {
    for (const Record& record : kRecords) {
        EXPECT_EQ(fieldsOnThePage(record.name), record.fields) << record.name;
    }
}

TEST(InterfacePage, EveryPublicRecordIsThere) {
    static const std::regex record(R"(typedef struct [^;{]*\{[^}]*\} (\w+);)");
    std::set<std::string> known;
    for (const Record& one : kRecords) known.insert(one.name);
    for (const char* folder : {"config", "fpga", "isp", "mculink", "selftest"}) {
        const std::string text = headersOf(folder);
        for (Matches it(text.begin(), text.end(), record), end; it != end; ++it) {
            EXPECT_THAT(known, Contains((*it)[1].str()));
        }
    }
}

TEST(InterfacePage, MembersOfTheClassesAreDeclaredAsThePageSays) {
    static const std::regex block("```cpp\n([^`]+)```");
    static const std::regex declaration(R"([^;]+;)");
    const std::string headers = headersOf("service");
    size_t seen = 0;
    for (Matches it(page().begin(), page().end(), block), end; it != end; ++it) {
        const std::string text = (*it)[1];
        for (Matches d(text.begin(), text.end(), declaration), last; d != last; ++d, ++seen) {
            const std::string one = withSingleBlanks(d->str());
            EXPECT_THAT(headers, HasSubstr(one.substr(one.find_first_not_of(' '))));
        }
    }
    EXPECT_EQ(seen, 18U);
    EXPECT_THAT(withSingleBlanks(page()), HasSubstr("typedef int (*self_test_func_t)("));
}

}  // namespace quil::tests
