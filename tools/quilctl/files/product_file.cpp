#include "tools/quilctl/files/product_file.h"

#include <ini.h>
#include <string.h>

#include <algorithm>
#include <charconv>
#include <optional>

#include "config/config_info.h"
#include "tools/quilctl/files/product_rules.h"
#include "tools/quilctl/output/nearest_words.h"

namespace quil::tools {
namespace {

#define FIELD(name) offsetof(config_info_t, name), sizeof(config_info_t::name)

constexpr char kNotLoaded[] = "no load sequence belongs to it: the FPGA is not loaded";
constexpr char kNotSent[] =
    "a Kestrel's screen parameters are not sent; other products do not read it";
constexpr char kNoImage[] =
    "a Kestrel's FPGA is not loaded; the others' updates fail, a Heron's after it has erased the "
    "flash";
constexpr char kNoDriver[] = "a Kestrel's FPGA is not loaded; other products do not read it";
constexpr char kOnlyLogged[] = "nothing but a line in the log";
constexpr char kNotUpdated[] = "an update of the MCU that is due fails";
constexpr char kAlwaysProgrammed[] =
    "it never equals what the MCU answers: each boot programs the MCU again";
constexpr char kTypeOne[] = "1 is taken, and only the log names it";
constexpr char kNoService[] = "the service does not come up: it has no link to the MCU";
constexpr char kNothingTested[] = "the self-test tests nothing and says that it passed";
constexpr char kNoAnswer[] =
    "the port keeps another speed: the MCU does not answer, and each boot programs it again";
constexpr char kNoUpdate[] = "999 is taken, which is no line: a Heron's update of the FPGA fails";
constexpr char kNoDone[] =
    "999 is taken, which is no line: a Heron polls it for 10 s, and goes on without DONE";
constexpr char kNoCodec[] = "no codec is probed: item 2 of the self-test is in error";

constexpr ProductKey kKeys[] = {
    {"product", "product", KeyKind::kText, FIELD(product), kNotLoaded},
    {"block", "fpga_parameter", KeyKind::kText, FIELD(fpga_parameter), kNotSent},
    {"block", "hex_parameter", KeyKind::kText, FIELD(hex_parameter), kNotSent},
    {"fpga", "fpga_fw_path", KeyKind::kPath, FIELD(fpga_fw_path), kNoImage},
    {"fpga", "fpga_drv_path", KeyKind::kPath, FIELD(fpga_drv_path), kNoDriver},
    {"fpga", "fpga_fw_version", KeyKind::kText, FIELD(fpga_fw_version), kOnlyLogged},
    {"mcu", "mcu_fw_path", KeyKind::kPath, FIELD(mcu_fw_path), kNotUpdated},
    {"mcu", "mcu_fw_version", KeyKind::kText, FIELD(mcu_fw_version), kAlwaysProgrammed},
    {"mcu", "mcu_type", KeyKind::kNumber, FIELD(mcu_type), kTypeOne},
    {"mcu", "mcu_serial", KeyKind::kText, FIELD(mcu_serial), kNotUpdated},
    {"mcu", "mcu_sock_path", KeyKind::kDevice, FIELD(mcu_sock_path), kOnlyLogged},
    {"mcu", "mcu_uart_path", KeyKind::kDevice, FIELD(mcu_uart_path), kNoService},
    {"self_test", "self_test_items", KeyKind::kText, FIELD(self_test_items), kNothingTested},
    {"mcu", "mcu_baud_rate", KeyKind::kBaud, FIELD(mcu_baud_rate), kNoAnswer},
    {"mcu_wdt", "mcu_wdt_switch", KeyKind::kNonZero, FIELD(mcu_wdt_switch), kOnlyLogged},
    {"mcu_wdt", "mcu_wdt_pulse", KeyKind::kNonZero, FIELD(mcu_wdt_pulse), kOnlyLogged},
    {"mcu_wdt", "mcu_wdt_startup_type", KeyKind::kNonZero, FIELD(mcu_wdt_startup_type),
     kOnlyLogged},
    {"fpga", "fpga_control_gpio", KeyKind::kGpio, FIELD(fpga_control_gpio), kNoUpdate},
    {"fpga", "fpga_config_gpio", KeyKind::kGpio, FIELD(fpga_config_gpio), kNoUpdate},
    {"fpga", "fpga_done_gpio", KeyKind::kGpio, FIELD(fpga_done_gpio), kNoDone},
    {"self_test", "audio_num", KeyKind::kCount, FIELD(audio_num), kNoCodec},
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
        case KeyKind::kCount:
            return *number >= 1 ? "" : value + " is no number of parts: 1 or more";
        case KeyKind::kNonZero:
            return *number != 0 ? "" : "0 means that it is not set";
        case KeyKind::kText:
        case KeyKind::kPath:
        case KeyKind::kDevice:
            break;
    }
    return {};
}

const char* rightFor(KeyKind kind) {
    switch (kind) {
        case KeyKind::kText:
            return "a text that fits its field";
        case KeyKind::kPath:
        case KeyKind::kDevice:
            return "an absolute path that fits its field";
        case KeyKind::kBaud:
            return "300, 1200, 2400, 4800, 9600, 19200, 57600, 115200, 1000000 or 4000000";
        case KeyKind::kGpio:
        case KeyKind::kCount:
            return "1 or more";
        case KeyKind::kNumber:
            return "0 or more";
        case KeyKind::kNonZero:
            return "any number but 0";
    }
    return "";
}

// Offset of a comment that is a part of the value, since only a semicolon begins one there.
size_t commentIn(const std::string& value) {
    for (size_t i = 1; i < value.size(); ++i) {
        const bool isAfterBlank = value[i - 1] == ' ' || value[i - 1] == '\t';
        if (isAfterBlank && (value[i] == '#' || value.compare(i, 2, "//") == 0)) return i;
    }
    return std::string::npos;
}

std::string withoutBlanksBehind(std::string text) {
    text.erase(text.find_last_not_of(" \t") + 1);
    return text;
}

std::string nearestKey(const std::string& section, const std::string& name) {
    std::vector<std::string> names;
    for (const ProductKey& key : kKeys) names.emplace_back(key.key);
    for (const std::string& near : nearestWords(name, names)) {
        if (findKey(section, near) != nullptr) return near;
    }
    return "";
}

// One pass over a file. The parser reports no line numbers, so they are counted as it reads lines.
class Checker {
  public:
    Checker(const std::string& content, const std::filesystem::path& root)
        : mContent(content), mRoot(root) {}

    std::vector<ProductProblem> check() {
        ini_parse_stream(nextLine, this, takeValue, this);
        for (const ProductKey& key : kKeys) {
            const std::string name = fullNameOf(key.section, key.key);
            if (mValues.count(name) == 0) {
                mProblems.push_back({0, name, "missing", false, rightFor(key.kind), key.atBoot});
            }
        }
        for (ProductProblem& problem : applyProductRules(mValues, mRoot)) {
            mProblems.push_back(std::move(problem));
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
        if (isBroken(line)) {
            mProblems.push_back({mLine, "", "neither a [section] nor key = value", false,
                                 "a comment begins with ; or #", "the line is skipped"});
        }
    }

    // The parser reports its first bad line only, so that each is asked about alone. An indented
    // line may go on with the value above it.
    bool isBroken(const std::string& line) const {
        const bool isIndented = !line.empty() && (line[0] == ' ' || line[0] == '\t');
        if (isIndented && !mValues.empty()) return false;
        const auto ignore = [](void*, const char*, const char*, const char*) { return 1; };
        return ini_parse_string(line.c_str(), ignore, nullptr) != 0;
    }

    static int takeValue(void* self, const char* section, const char* key, const char* value) {
        static_cast<Checker*>(self)->judgeValue(section, key, value);
        return 1;
    }

    void judgeValue(const std::string& section, const std::string& name, const std::string& value) {
        const std::string where = fullNameOf(section, name);
        const ProductKey* key = findKey(section, name);
        if (key == nullptr) {
            const std::string nearest = nearestKey(section, name);
            const std::string right = nearest.empty() ? "" : "did you mean " + nearest + "?";
            mProblems.push_back(
                {mLine, where, "nobody reads this key", true, right, "it is skipped"});
            return;
        }
        const size_t comment = commentIn(value);
        const std::string text = withoutBlanksBehind(value.substr(0, comment));
        const auto [first, isNew] = mValues.emplace(where, ProductValue{mLine, text});
        if (!isNew) {
            mProblems.push_back({mLine, where,
                                 "stands already in line " + std::to_string(first->second.line),
                                 false, "one line for each key", "the last of the lines counts"});
            first->second = {mLine, text};
        }
        if (comment != std::string::npos) addComment(*key, where, value.substr(comment));
        judgeText(*key, where, text);
    }

    // Of a number only the digits in front of the comment are read.
    void addComment(const ProductKey& key, const std::string& where, const std::string& comment) {
        mProblems.push_back({mLine, where, "'" + comment + "' is a part of the value",
                             !isString(key.kind), "a comment behind a value begins with ;",
                             isString(key.kind) ? key.atBoot : "the number before it is read"});
    }

    void judgeText(const ProductKey& key, const std::string& where, const std::string& value) {
        const std::string text =
            isString(key.kind) ? stringProblem(key, value) : integerProblem(key, value);
        if (text.empty()) return;
        mProblems.push_back({mLine, where, text, false, rightFor(key.kind), key.atBoot});
    }

    const std::string& mContent;
    size_t mAt = 0;
    const std::filesystem::path& mRoot;
    int mLine = 0;
    ProductValues mValues;
    std::vector<ProductProblem> mProblems;
};

}  // namespace

std::span<const ProductKey> productKeys() { return kKeys; }

bool isString(KeyKind kind) {
    return kind == KeyKind::kText || kind == KeyKind::kPath || kind == KeyKind::kDevice;
}

std::vector<ProductProblem> checkProductFile(const std::string& content,
                                             const std::filesystem::path& root) {
    return Checker(content, root).check();
}

}  // namespace quil::tools
