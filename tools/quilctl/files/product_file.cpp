#include "tools/quilctl/files/product_file.h"

#include <ini.h>
#include <string.h>

#include <algorithm>
#include <charconv>
#include <map>
#include <optional>

#include "config/config_info.h"

namespace quil::tools {
namespace {

#define FIELD(name) offsetof(config_info_t, name), sizeof(config_info_t::name)

constexpr ProductKey kKeys[] = {
    {"product", "product", KeyKind::kText, FIELD(product)},
    {"block", "fpga_parameter", KeyKind::kText, FIELD(fpga_parameter)},
    {"block", "hex_parameter", KeyKind::kText, FIELD(hex_parameter)},
    {"fpga", "fpga_fw_path", KeyKind::kPath, FIELD(fpga_fw_path)},
    {"fpga", "fpga_drv_path", KeyKind::kPath, FIELD(fpga_drv_path)},
    {"fpga", "fpga_fw_version", KeyKind::kText, FIELD(fpga_fw_version)},
    {"mcu", "mcu_fw_path", KeyKind::kPath, FIELD(mcu_fw_path)},
    {"mcu", "mcu_fw_version", KeyKind::kText, FIELD(mcu_fw_version)},
    {"mcu", "mcu_type", KeyKind::kNumber, FIELD(mcu_type)},
    {"mcu", "mcu_serial", KeyKind::kText, FIELD(mcu_serial)},
    {"mcu", "mcu_sock_path", KeyKind::kDevice, FIELD(mcu_sock_path)},
    {"mcu", "mcu_uart_path", KeyKind::kDevice, FIELD(mcu_uart_path)},
    {"self_test", "self_test_items", KeyKind::kText, FIELD(self_test_items)},
    {"mcu", "mcu_baud_rate", KeyKind::kBaud, FIELD(mcu_baud_rate)},
    {"mcu_wdt", "mcu_wdt_switch", KeyKind::kNonZero, FIELD(mcu_wdt_switch)},
    {"mcu_wdt", "mcu_wdt_pulse", KeyKind::kNonZero, FIELD(mcu_wdt_pulse)},
    {"mcu_wdt", "mcu_wdt_startup_type", KeyKind::kNonZero, FIELD(mcu_wdt_startup_type)},
    {"fpga", "fpga_control_gpio", KeyKind::kGpio, FIELD(fpga_control_gpio)},
    {"fpga", "fpga_config_gpio", KeyKind::kGpio, FIELD(fpga_config_gpio)},
    {"fpga", "fpga_done_gpio", KeyKind::kGpio, FIELD(fpga_done_gpio)},
    {"self_test", "audio_num", KeyKind::kNumber, FIELD(audio_num)},
};

#undef FIELD

// What the serial module of the library can set; any other rate leaves the port as it was.
constexpr long kRates[] = {300, 1200, 2400, 4800, 9600, 19200, 57600, 115200, 1000000, 4000000};

std::string fullNameOf(const std::string& section, const std::string& key) {
    return "[" + section + "] " + key;
}

const ProductKey* findKey(const std::string& section, const std::string& key) {
    const auto found = std::find_if(std::begin(kKeys), std::end(kKeys), [&](const ProductKey& k) {
        return section == k.section && key == k.key;
    });
    return found == std::end(kKeys) ? nullptr : found;
}

std::optional<long> integerOf(const std::string& text) {
    const bool hex = text.rfind("0x", 0) == 0 || text.rfind("0X", 0) == 0;
    const char* end = text.data() + text.size();
    long value = 0;
    const auto [stop, error] =
        std::from_chars(text.data() + (hex ? 2 : 0), end, value, hex ? 16 : 10);
    if (error != std::errc() || stop != end || value > INT32_MAX || value < INT32_MIN) {
        return std::nullopt;
    }
    return value;
}

std::string stringProblem(const ProductKey& key, const std::string& value) {
    if (value.size() >= key.capacity) {
        return std::to_string(value.size()) + " characters, the field holds " +
               std::to_string(key.capacity - 1);
    }
    if (key.kind == KeyKind::kText) return {};
    if (key.kind == KeyKind::kDevice && value.find("UNDEF") != std::string::npos) {
        return "'" + value + "' is not set";
    }
    if (value.empty() || value.front() != '/') return "'" + value + "' is no absolute path";
    return {};
}

std::string integerProblem(const ProductKey& key, const std::string& value) {
    const auto number = integerOf(value);
    if (!number) return "'" + value + "' is no 32-bit integer";
    switch (key.kind) {
        case KeyKind::kBaud:
            if (std::count(std::begin(kRates), std::end(kRates), *number) == 1) return {};
            return value + " is no rate that the serial port can be set to";
        case KeyKind::kGpio:
            return *number >= 1 ? "" : value + " is no GPIO line: 1 or more";
        case KeyKind::kNumber:
            return *number >= 0 ? "" : value + " is negative";
        case KeyKind::kNonZero:
            return *number != 0 ? "" : "0 means that it is not set";
        case KeyKind::kText:
        case KeyKind::kPath:
        case KeyKind::kDevice:
            break;
    }
    return {};
}

// One pass over a file. The parser reports no line numbers, so they are counted as it reads lines.
class Checker {
  public:
    explicit Checker(const std::string& content) : mContent(content) {}

    std::vector<ProductProblem> check() {
        const int badLine = ini_parse_stream(nextLine, this, takeValue, this);
        if (badLine > 0) {
            add(badLine, "", "neither a [section] nor key = value");
        }
        for (const ProductKey& key : kKeys) {
            const std::string name = fullNameOf(key.section, key.key);
            if (mFirstLine.count(name) == 0) add(0, name, "missing");
        }
        std::stable_sort(mProblems.begin(), mProblems.end(),
                         [](const auto& a, const auto& b) { return order(a) < order(b); });
        return std::move(mProblems);
    }

  private:
    static int order(const ProductProblem& problem) {
        return problem.line == 0 ? INT32_MAX : problem.line;
    }

    void add(int line, const std::string& key, const std::string& text, bool isWarning = false) {
        mProblems.push_back({line, key, text, isWarning});
    }

    // Like fgets, but never splits a line.
    static char* nextLine(char* buffer, int size, void* self) {
        return static_cast<Checker*>(self)->copyLine(buffer, static_cast<size_t>(size));
    }

    char* copyLine(char* buffer, size_t size) {
        if (mAt >= mContent.size()) return nullptr;
        ++mLine;
        const size_t end = std::min(mContent.find('\n', mAt), mContent.size());
        std::string line = mContent.substr(mAt, end - mAt);
        mAt = end + 1;
        judgeLine(line, size);
        line.resize(std::min(line.size(), size - 2));
        std::replace(line.begin(), line.end(), '\0', ' ');
        line += '\n';
        memcpy(buffer, line.c_str(), line.size() + 1);
        return buffer;
    }

    void judgeLine(const std::string& line, size_t size) {
        const auto isBinary = [](unsigned char c) { return c < 32 && c != '\t' && c != '\r'; };
        if (std::any_of(line.begin(), line.end(), isBinary)) add(mLine, "", "binary bytes");
        if (line.size() > size - 2) {
            add(mLine, "",
                "the line has " + std::to_string(line.size()) + " characters; only the first " +
                    std::to_string(size - 2) + " count");
        }
    }

    static int takeValue(void* self, const char* section, const char* key, const char* value) {
        static_cast<Checker*>(self)->judgeValue(section, key, value);
        return 1;
    }

    void judgeValue(const std::string& section, const std::string& name, const std::string& value) {
        const std::string where = fullNameOf(section, name);
        const ProductKey* key = findKey(section, name);
        if (key == nullptr) {
            add(mLine, where, "nobody reads this key", true);
            return;
        }
        const auto [first, isNew] = mFirstLine.emplace(where, mLine);
        if (!isNew) add(mLine, where, "stands already in line " + std::to_string(first->second));
        const std::string text =
            isString(key->kind) ? stringProblem(*key, value) : integerProblem(*key, value);
        if (!text.empty()) add(mLine, where, text);
    }

    const std::string& mContent;
    size_t mAt = 0;
    int mLine = 0;
    std::map<std::string, int> mFirstLine;
    std::vector<ProductProblem> mProblems;
};

}  // namespace

std::span<const ProductKey> productKeys() { return kKeys; }

bool isString(KeyKind kind) {
    return kind == KeyKind::kText || kind == KeyKind::kPath || kind == KeyKind::kDevice;
}

std::vector<ProductProblem> checkProductFile(const std::string& content) {
    return Checker(content).check();
}

}  // namespace quil::tools
