// Runs the self-test and keeps its record, its output and its result file.
#pragma once

#include <string.h>

#include <algorithm>
#include <string>

#include "selftest/self_test.h"
#include "testing/files.h"
#include "testing/library_test.h"

namespace quil::tests {

inline constexpr char kResultFile[] = "/sdcard/self_test_results.txt";
inline constexpr char kServiceTag[] = "quil_system_hidl_service";

class SelfTestFixture : public LibraryTest {
  protected:
    // Runs with these items configured; keeps the record and standard output.
    unsigned runWith(const std::string& items) {
        if (config_info == nullptr) parseProduct();
        configure(items);
        return run();
    }

    void configure(const std::string& items) {
        char(&field)[64] = config_info->self_test_items;
        memset(field, 0, sizeof(field));
        memcpy(field, items.data(), std::min(items.size(), sizeof(field)));
    }

    unsigned run() {
        record.assign(1024, 0xEE);
        unsigned length = 0;
        printed = standardOutputOf([&] { length = runSelfTestAndGetResult(record.data(), 1024); });
        return length;
    }

    Bytes header() const { return {record.begin(), record.begin() + 10}; }
    std::string text(unsigned length) const {
        return {record.begin() + 10, record.begin() + length};
    }

    std::string resultFile() const { return contentOf(board.hostPath(kResultFile)); }
    bool hasResultFile() const { return std::filesystem::exists(board.hostPath(kResultFile)); }

    std::vector<int> enabledRows() const {
        std::vector<int> rows;
        for (int i = 0; i < 9; ++i) {
            if (test_option_table[i].enable == 1) rows.push_back(i);
        }
        return rows;
    }

    Bytes record;
    std::string printed;
};

}  // namespace quil::tests
