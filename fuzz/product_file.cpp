// product.ini as the library reads it and as quilctl checks it. Input: the file.
#include "tools/quilctl/files/product_file.h"

#include <android/log.h>

#include <algorithm>
#include <array>

#include "fuzz/check.h"
#include "fuzz/input.h"
#include "fuzz/powered_board.h"
#include "fuzz/targets.h"

namespace quil::fuzz {
namespace {

constexpr char kProductFile[] = "/vendor/etc/product.ini";
constexpr size_t kRecordHeader = 10, kRecordMost = 522;

void checkTexts(const config_info_t& info) {
    const auto* record = reinterpret_cast<const char*>(&info);
    for (const tools::ProductKey& key : tools::productKeys()) {
        if (!tools::isString(key.kind)) continue;
        check(memchr(record + key.offset, '\0', key.capacity) != nullptr, "a text without its end");
    }
}

void checkNumbers(const config_info_t& info) {
    check(info.mcu_fd == 0 && info.fw_updating == 0, "what is set at run time is not 0");
    check(info.mcu_type >= 0, "a negative type");
    check(info.fpga_control_gpio >= 1 && info.fpga_config_gpio >= 1 && info.fpga_done_gpio >= 1,
          "a line below 1");
    check(info.audio_num >= 0, "a negative number of codecs");
}

void checkParsedAgain() {
    const config_info_t first = *config_info;
    const config_info_t* where = config_info;
    check(parseConfigInfo() == 0 && config_info == where, "the record has moved");
    check(memcmp(&first, config_info, sizeof(first)) == 0, "parsed again it is another record");
}

// Where the checker finds no error, the library logs none.
void checkTheChecker(const std::string& content, const std::vector<std::string>& errors) {
    const auto problems = tools::checkProductFile(content);
    const auto lines = std::count(content.begin(), content.end(), '\n') + 1;
    for (const tools::ProductProblem& problem : problems) {
        check(problem.line >= 0 && problem.line <= lines, "a problem in a line that is not there");
        check(!problem.text.empty(), "a problem without a word");
    }
    const bool isGood = std::all_of(problems.begin(), problems.end(),
                                    [](const auto& problem) { return problem.isWarning; });
    if (isGood) check(errors.empty(), "the checker is content, the library is not");
}

void checkSelfTest() {
    std::array<unsigned char, 1024> record{};
    const unsigned length = runSelfTestAndGetResult(record.data(), record.size());
    if (length == static_cast<unsigned>(-1)) return;
    check(length >= kRecordHeader && length <= kRecordMost, "a record of an impossible length");
    check(record[6] + 256U * record[7] + 8 == length, "a record that says another length");
}

}  // namespace

void productFile(std::span<const uint8_t> input) {
    const std::string content = textOf(input);
    PoweredBoard board;
    board->writeFile(kProductFile, content);
    check(parseConfigInfo() == 0, "a product file that cannot be parsed");
    const auto errors = board->log(ANDROID_LOG_ERROR);
    checkTexts(*config_info);
    checkNumbers(*config_info);
    checkTheChecker(content, errors);
    checkParsedAgain();
    checkSelfTest();
}

}  // namespace quil::fuzz
