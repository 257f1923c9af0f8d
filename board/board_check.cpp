#include "board/board_check.h"

#include <stdint.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <functional>
#include <set>
#include <sstream>
#include <stdexcept>
#include <system_error>

#include "board/checked_files.h"
#include "board/core/directory_lock.h"
#include "board/core/whole_file.h"
#include "board/devices/ini_reader.h"
#include "board/devices/probes.h"
#include "board/fpga/serial_flash.h"
#include "board/mcu/mcu_chip.h"

namespace quil::board {
namespace {

namespace fs = std::filesystem;

constexpr char kAside[] = ".damaged";
constexpr size_t kValueMost = 4112;        // bytes that a request carries
constexpr size_t kPropertyValueMost = 91;  // characters

bool isOfTheFileSystem(const std::string& name) { return name.rfind("rootfs", 0) == 0; }

// The rules of text files. Each returns what is wrong with a line, "" when nothing is.
using LineRule = std::string (*)(const Setting&, const McuPart&);

std::optional<unsigned long> numberIn(const std::string& text, int base) {
    unsigned long number = 0;
    const char* end = text.data() + text.size();
    const auto [at, error] = std::from_chars(text.data(), end, number, base);
    return !text.empty() && error == std::errc() && at == end ? std::optional(number)
                                                              : std::nullopt;
}

std::string valueProblem(const Setting& line, const McuPart&) {
    const bool isHex = line.key.rfind("0x", 0) == 0 || line.key.rfind("0X", 0) == 0;
    const auto command = numberIn(line.key.substr(isHex ? 2 : 0), 16);
    if (!command || *command > UINT32_MAX) return "'" + line.key + "' is no command";
    std::istringstream words(line.value);
    size_t count = 0;
    for (std::string word; words >> word; ++count) {
        const auto byte = numberIn(word, 16);
        if (!byte || *byte > UINT8_MAX) return "'" + word + "' is no byte";
    }
    return count <= kValueMost ? ""
                               : "the MCU keeps at most " + std::to_string(kValueMost) + " bytes";
}

std::string propertyProblem(const Setting& line, const McuPart&) {
    if (line.value.size() <= kPropertyValueMost) return "";
    return "a value has at most " + std::to_string(kPropertyValueMost) + " characters";
}

std::string partProblem(const Setting& line, const McuPart&) {
    return Probes::problemOf(line.key, line.value);
}

// "worn = OFFSET LOW HIGH"
std::string wearProblem(const std::string& value, const McuPart& part) {
    std::istringstream words(value);
    std::array<uint64_t, 3> numbers{};
    for (uint64_t& number : numbers) words >> number;
    const bool isGood = words && numbers[0] < part.flashSize() && numbers[1] <= UINT8_MAX &&
                        numbers[2] <= UINT8_MAX;
    return isGood ? "" : "no place in the flash with the bits that are stuck low and high";
}

std::string optionProblem(const Setting& line, const McuPart& part) {
    const auto number = numberIn(line.value, 10);
    if (line.key == "readout_protected") return number && *number < 2 ? "" : "neither 0 nor 1";
    if (line.key == "worn") return wearProblem(line.value, part);
    if (line.key != "write_protected") return "the MCU has no option '" + line.key + "'";
    return number && *number < part.pageCount() ? "" : "the MCU has no page '" + line.value + "'";
}

struct TextFile {
    const char* name;
    LineRule rule;
    bool keysRepeat;
};
constexpr std::array<TextFile, 4> kTextFiles = {{{"mcu/values", valueProblem, false},
                                                 {"mcu/option_bytes", optionProblem, true},
                                                 {"parts", partProblem, true},
                                                 {"properties", propertyProblem, false}}};

bool isBinary(std::string_view line) {
    return std::any_of(line.begin(), line.end(), [](unsigned char c) {
        return (c < ' ' && c != '\t' && c != '\r') || c == 0x7F;
    });
}

std::string shown(std::string_view line) {
    constexpr size_t kLongest = 40;
    if (isBinary(line)) return "binary bytes";
    return "'" + std::string(line.substr(0, kLongest)) + (line.size() > kLongest ? "..'" : "'");
}

// A line of the product file; what the keys mean is not looked at.
std::string productLineProblem(std::string_view line) {
    const std::string text = trimmed(line);
    if (isBinary(line)) return "binary bytes";
    if (text.empty() || text[0] == ';' || text[0] == '#') return "";
    if (text[0] == '[' && text.find(']') != std::string::npos) return "";
    return text[0] != '[' && text.find_first_of("=:") != std::string::npos
               ? ""
               : "neither a [section] nor key = value: " + shown(text);
}

std::vector<std::string> linesOf(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    return lines;
}

// Remedies are noted with the problems, and applied only by a repair.
class Checker {
  public:
    // The directory is that of the files, and only remedies write to it.
    Checker(const CheckedFiles& files, const fs::path& dir, std::optional<Product> product)
        : mFiles(files), mDir(dir), mStore(dir, Keeping::kDurable) {
        if (isThere(kFormatFile)) mFormat = formatOfText(files.read(kFormatFile).value_or(""));
        IniReader reader;
        const int handle = reader.loadText(files.read(kProductFile).value_or(""));
        mPart = &partOfProductFile(reader, handle);
        mProduct = productByName(mFormat.unfinished);
        if (!mProduct) mProduct = productOf(reader, handle, files.read("product_information"));
        if (!mProduct) mProduct = product;
        mFactory = factoryFiles(mProduct.value_or(Product::kHeron));
    }

    void check() {
        if (mFormat.number > kBoardFormat) {
            return add(Severity::kBlocking, kFormatFile, 0,
                       "format " + std::to_string(mFormat.number) + "; this program knows format " +
                           std::to_string(kBoardFormat),
                       "");
        }
        for (const std::string& folder : factoryFolders()) checkFolder(folder);
        for (const FactoryFile& file : mFactory) checkFactoryFile(file);
        checkProductFile();
        for (const TextFile& file : kTextFiles) checkTextFile(file);
        checkModuleId();
        checkSize("mcu/flash", mPart->flashSize(), std::string("a ") + mPart->name);
        checkSize("mtd0", SerialFlash::kSize, "the part");
        for (const char* folder : {"", "mcu"}) checkForStrangers(folder);
        checkTree();
        checkFormat();  // repaired last: until then the board is not whole
    }

    std::vector<BoardProblem> problems;
    std::vector<std::function<void()>> mends;

  private:
    using Content = std::function<std::string()>;

    void add(Severity severity, const std::string& file, int line, const std::string& what,
             const std::string& remedy) {
        problems.push_back({severity, file, line, what, remedy});
    }

    // A name that is free.
    std::string keptAs(const std::string& name) const {
        std::string aside = name + kAside;
        for (int i = 2; isThere(aside); ++i) {
            aside = name + kAside + "." + std::to_string(i);
        }
        return aside;
    }

    bool isThere(const std::string& name) const { return mFiles.isThere(name); }

    // True for a file that can be read; then `content` is it. What is none is a problem.
    bool readAsFile(const std::string& name, std::string& content, const Content& instead = {}) {
        if (!isThere(name)) return false;
        if (mFiles.typeOf(name) != fs::file_type::regular) {
            addMisplaced(name, instead);
            return false;
        }
        const auto text = mFiles.read(name);
        content = text.value_or("");
        if (!text) add(Severity::kBlocking, name, 0, "cannot be read", "");
        return text.has_value();
    }

    void addMisplaced(const std::string& name, const Content& instead) {
        if (std::any_of(problems.begin(), problems.end(),
                        [&](const BoardProblem& known) { return known.file == name; })) {
            return;
        }
        const std::string aside = keptAs(name);
        add(Severity::kBlocking, name, 0, "is no file",
            "kept as " + aside + (instead ? ", and made as in the factory" : ""));
        mends.emplace_back([this, name, aside, instead] {
            fs::rename(mDir / name, mDir / aside);
            if (instead) mStore.replace(name, instead());
        });
    }

    void replaceKeepingAside(const std::string& name, const std::string& former,
                             const std::string& aside, const std::string& content) {
        mends.emplace_back([this, name, former, aside, content] {
            mStore.replace(aside, former);
            mStore.replace(name, content);
        });
    }

    void checkFormat() {
        std::string remedy = "the format is written";
        if (!mFormat.unfinished.empty()) {
            add(Severity::kBlocking, kFormatFile, 0, "half a board, its making was interrupted",
                "what is missing is made");
        } else if (!isThere(kFormatFile)) {
            add(Severity::kWarning, kFormatFile, 0, "missing; taken as format 1", remedy);
        } else if (mFormat.number < 1) {
            const std::string aside = keptAs(kFormatFile);
            add(Severity::kBlocking, kFormatFile, 0, "says no format",
                "kept as " + aside + ", and " + remedy);
            mends.emplace_back([this, aside] { fs::rename(mDir / kFormatFile, mDir / aside); });
        } else {
            return;
        }
        mends.emplace_back([this] { mStore.replace(kFormatFile, textOf(BoardFormat())); });
    }

    void checkFolder(const std::string& name) {
        if (mFiles.typeOf(name) == fs::file_type::directory) return;
        const std::string aside = isThere(name) ? keptAs(name) : "";
        const std::string parent = fs::path(name).parent_path().string();
        if (!aside.empty()) {
            add(Severity::kBlocking, name, 0, "is no folder",
                "kept as " + aside + ", and made anew");
        } else if (isThere(parent)) {  // else the missing parent is told
            add(name == "rootfs" ? Severity::kBlocking : Severity::kError, name, 0, "missing",
                "made, with the folders in it");
        }
        mends.emplace_back([this, name, aside] {
            if (!aside.empty()) fs::rename(mDir / name, mDir / aside);
            fs::create_directory(mDir / name);
        });
    }

    // The firmware is what the product file names, and not looked at here.
    void checkFactoryFile(const FactoryFile& file) {
        const bool isFirmware = file.name.find("/firmware/") != std::string::npos;
        if (isFirmware && mFormat.unfinished.empty()) return;
        std::string unused;
        if (isThere(file.name)) return void(readAsFile(file.name, unused, contentOf(file)));
        if (file.name == kLockFile) return;  // whoever checks has it
        const bool matters = !isOfTheFileSystem(file.name) || file.name == kProductFile;
        const auto content = contentOf(file);
        add(matters && file.name != "README" ? Severity::kError : Severity::kWarning, file.name, 0,
            content ? "missing" : "missing, and the product is not known (--product names it)",
            content ? "made as in the factory" : "");
        if (!content) return;
        mends.emplace_back([this, name = file.name, content] { mStore.replace(name, content()); });
    }

    // Nothing when it depends on a product that is not known.
    Content contentOf(const FactoryFile& file) const {
        if (mProduct) return file.content;
        const bool isCommon = file.name == "README" || file.name == "properties" ||
                              file.name == "mcu/values" ||
                              (isOfTheFileSystem(file.name) && file.name != kProductFile);
        return isCommon ? file.content : Content();
    }

    Content contentOf(const std::string& name) const {
        for (const FactoryFile& file : mFactory) {
            if (file.name == name) return contentOf(file);
        }
        return {};
    }

    // Without its bad lines; as in the factory if no line is left. True if there were any.
    void mendLines(const std::string& name, Severity severity, const std::string& content,
                   const std::vector<std::string>& whatByLine) {
        const std::string aside = keptAs(name);
        const auto lines = linesOf(content);
        std::string mended;
        bool isBad = false;
        for (size_t i = 0; i < lines.size(); ++i) {
            if (whatByLine[i].empty()) mended += lines[i] + "\n";
            if (whatByLine[i].empty()) continue;
            isBad = true;
            add(severity, name, static_cast<int>(i) + 1, whatByLine[i],
                "the line is dropped, the former file kept as " + aside);
        }
        if (!isBad) return;
        const Content factory = contentOf(name);
        if (trimmed(mended).empty() && factory) mended = factory();
        replaceKeepingAside(name, content, aside, mended);
    }

    void checkProductFile() {
        std::string content;
        if (!readAsFile(kProductFile, content, contentOf(kProductFile))) return;
        std::vector<std::string> what;
        for (const std::string& line : linesOf(content)) what.push_back(productLineProblem(line));
        mendLines(kProductFile, Severity::kError, content, what);
    }

    // From the last line to the first: of several lines with one key the last one counts.
    void checkTextFile(const TextFile& file) {
        std::string content;
        if (!readAsFile(file.name, content, contentOf(file.name))) return;
        const auto lines = linesOf(content);
        std::vector<std::string> what(lines.size());
        std::set<std::string> keys;
        for (size_t i = lines.size(); i-- > 0;) {
            if (trimmed(lines[i]).empty()) continue;
            const auto setting = settingIn(lines[i]);
            if (isBinary(lines[i]) || !setting || setting->key.empty()) {
                what[i] = "no \"name = value\": " + shown(lines[i]);
            } else if (!keys.insert(setting->key).second && !file.keysRepeat) {
                what[i] = "a later line says what " + setting->key + " is";
            } else {
                what[i] = file.rule(*setting, *mPart);
            }
        }
        mendLines(file.name, Severity::kBlocking, content, what);
    }

    void checkModuleId() {
        constexpr char kName[] = "product_information";
        std::string content;
        if (!readAsFile(kName, content, contentOf(kName))) return;
        const auto lines = linesOf(content);
        const auto number = numberIn(lines.empty() ? "" : trimmed(lines[0]), 10);
        if (number && *number <= INT32_MAX) return;
        const std::string aside = keptAs(kName);
        const Content factory = contentOf(kName);
        add(Severity::kBlocking, kName, lines.empty() ? 0 : 1, "no module id",
            factory ? "the product's is written, the former file kept as " + aside : "");
        if (factory) replaceKeepingAside(kName, content, aside, factory());
    }

    void checkSize(const std::string& name, size_t most, const std::string& part) {
        std::string content;
        if (!readAsFile(name, content, contentOf(name)) || content.size() <= most) return;
        const std::string aside = keptAs(name);
        add(Severity::kBlocking, name, 0,
            std::to_string(content.size()) + " bytes; the flash of " + part + " has " +
                std::to_string(most),
            "cut to its size, the former file kept as " + aside);
        replaceKeepingAside(name, content, aside, content.substr(0, most));
    }

    static bool isKnownHere(const std::string& name) {
        static const std::set<std::string> known = {kFormatFile,
                                                    kLockFile,
                                                    kSocketFile,
                                                    "README",
                                                    "mcu",
                                                    "mcu/flash",
                                                    "mcu/values",
                                                    "mtd0",
                                                    "parts",
                                                    "rootfs",
                                                    "properties",
                                                    "mcu/option_bytes",
                                                    "product_information"};
        return known.count(name) != 0;
    }

    static bool isAside(const std::string& name) { return name.find(kAside) != std::string::npos; }

    static bool isStale(const std::string& name) {
        const std::string_view suffix = kFreshSuffix;
        return name.size() > suffix.size() &&
               name.compare(name.size() - suffix.size(), suffix.size(), suffix) == 0;
    }

    void checkForStrangers(const std::string& folder) {
        for (const std::string& name : mFiles.namesIn(folder)) {
            if (isKnownHere(name) || isAside(name) || isStale(name)) continue;
            add(Severity::kWarning, name, 0, "nothing of the board's: it is not read", "");
        }
    }

    // Files that a killed program did not finish, and what would block who opens it.
    void checkTree() {
        std::error_code error;
        for (const auto& [name, type] : mFiles.all(error)) {
            const bool isPlain = type == fs::file_type::regular ||
                                 type == fs::file_type::directory ||
                                 type == fs::file_type::not_found || type == fs::file_type::none;
            if (isAside(name)) continue;
            if (name == kSocketFile && type == fs::file_type::socket) continue;
            if (!isPlain) addMisplaced(name, {});
            if (isPlain && isStale(name)) addStale(name);
        }
        if (error) add(Severity::kError, "", 0, "cannot be searched: " + error.message(), "");
    }

    void addStale(const std::string& name) {
        add(Severity::kWarning, name, 0, "left by a program that was killed while it wrote",
            "removed");
        mends.emplace_back([this, name] { fs::remove_all(mDir / name); });
    }

    const CheckedFiles& mFiles;
    const fs::path mDir;
    DirectoryStore mStore;
    BoardFormat mFormat;
    const McuPart* mPart = nullptr;
    std::optional<Product> mProduct;
    std::vector<FactoryFile> mFactory;
};

}  // namespace

const char* nameOf(Severity severity) {
    switch (severity) {
        case Severity::kWarning:
            return "warning";
        case Severity::kError:
            return "error";
        case Severity::kBlocking:
            return "blocking";
    }
    return "";
}

void requireTraces(const fs::path& dir) {
    std::error_code error;
    if (!fs::is_directory(dir, error)) throw std::runtime_error(dir.string() + ": no directory");
    for (const char* name : {kFormatFile, "rootfs", "mcu", "mtd0", "product_information"}) {
        if (fs::exists(fs::symlink_status(dir / name, error))) return;
    }
    throw std::runtime_error(dir.string() + ": not a board directory (nothing of a board in it)");
}

std::vector<BoardProblem> checkBoard(const fs::path& dir, std::optional<Product> product) {
    requireTraces(dir);
    const CheckedDirectory files(dir);
    Checker checker(files, dir, product);
    checker.check();
    return std::move(checker.problems);
}

std::vector<BoardProblem> checkBoard(const MemoryStore& board, std::optional<Product> product) {
    const CheckedMemory files(board);
    Checker checker(files, {}, product);
    checker.check();
    return std::move(checker.problems);
}

std::vector<BoardProblem> repairBoard(const fs::path& dir, std::optional<Product> product) {
    requireTraces(dir);
    const CheckedDirectory files(dir);
    Checker checker(files, dir, product);
    checker.check();
    for (const auto& mend : checker.mends) mend();
    auto& problems = checker.problems;
    problems.erase(std::remove_if(problems.begin(), problems.end(),
                                  [](const auto& problem) { return problem.remedy.empty(); }),
                   problems.end());
    return std::move(problems);
}

bool mendLockFile(const fs::path& dir) {
    std::error_code ignored;
    const fs::file_type type = fs::symlink_status(dir / kLockFile, ignored).type();
    if (type == fs::file_type::regular || type == fs::file_type::not_found ||
        type == fs::file_type::none) {
        return false;
    }
    fs::rename(dir / kLockFile, dir / (std::string(kLockFile) + kAside));
    return true;
}

}  // namespace quil::board
