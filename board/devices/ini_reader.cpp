#include "board/devices/ini_reader.h"

#include <ini.h>

#include <cstdlib>
#include <cstring>

#include "board/core/whole_file.h"

namespace quil::board {
namespace {

constexpr uint64_t kLongest = uint64_t{1} << 20;  // the reader ignores what follows
constexpr char kProductInformation[] = "product_information";

bool isBlank(char c) { return c == ' ' || c == '\t' || c == '\r'; }

// inih reads lines of bounded length. A longer line is passed to it in pieces, all but the first
// indented: inih takes an indented line as a continuation of the value before it.
class LineFeeder {
  public:
    explicit LineFeeder(const std::string& text) : text_(text) {}
    bool continuing() const { return continuing_; }

    char* next(char* line, int size) {
        if (rest_.empty() && !takeLine()) return nullptr;
        const size_t room = static_cast<size_t>(size) - 3;  // the indent, the line end, the NUL
        const size_t length = pieceLength(room);
        std::string piece = (continuing_ ? " " : "") + rest_.substr(0, length) + "\n";
        rest_.erase(0, length);
        memcpy(line, piece.c_str(), piece.size() + 1);
        return line;
    }

  private:
    bool takeLine() {
        if (at_ >= text_.size()) return false;
        const size_t end = std::min(text_.find('\n', at_), text_.size());
        rest_ = text_.substr(at_, end - at_);
        at_ = end + 1;
        continuing_ = false;
        started_ = false;
        rest_.erase(std::min(rest_.find('\0'), rest_.size()));
        dropInlineComment();
        if (rest_.empty()) rest_ = " ";
        return true;
    }

    // inih would drop only the piece that the comment starts in, and keep the pieces after it.
    void dropInlineComment() {
        for (size_t i = 1; i < rest_.size(); ++i) {
            if (rest_[i] == ';' && isBlank(rest_[i - 1])) return rest_.erase(i - 1), void();
        }
    }

    size_t pieceLength(size_t room) {
        continuing_ = started_;
        started_ = true;
        if (rest_.size() <= room) return rest_.size();
        if (!continuing_ && rest_.substr(0, room).find_first_of("=:") == std::string::npos) {
            rest_.erase(room);  // no key: the line is invalid, and one piece shows that
            return room;
        }
        // inih trims each piece, so that a cut beside a blank would lose the blank.
        size_t length = room;
        while (length > 1 && (isBlank(rest_[length - 1]) || isBlank(rest_[length]))) --length;
        return length > 1 ? length : room;
    }

    const std::string& text_;
    size_t at_ = 0;
    std::string rest_;
    bool continuing_ = false, started_ = false;
};

struct Parse {
    LineFeeder feeder;
    IniReader::Values values = {};
};

char* feedLine(char* line, int size, void* stream) {
    return static_cast<Parse*>(stream)->feeder.next(line, size);
}

int keep(void* user, const char* section, const char* name, const char* value) {
    auto* parse = static_cast<Parse*>(user);
    std::string& kept = parse->values[{section, name}];
    kept = parse->feeder.continuing() ? kept + value : value;
    return 1;
}

}  // namespace

IniReader::Values parseIni(const std::string& text) {
    Parse parse{LineFeeder(text)};
    ini_parse_stream(feedLine, &parse, keep, &parse);
    return std::move(parse.values);
}

IniReader::IniReader() = default;
IniReader::~IniReader() = default;

void IniReader::setMissingInteger(int value) {
    Guard guard(boardLock());
    missingInteger_ = value;
}

int IniReader::load(const std::filesystem::path& hostPath) {
    Guard guard(boardLock());
    const auto text = readWholeFile(hostPath, kLongest);
    if (!text) return 0;
    files_.push_back(parseIni(*text));
    return static_cast<int>(files_.size());
}

const std::string* IniReader::find(int handle, const char* section, const char* key) const {
    Guard guard(boardLock());
    if (handle < 1 || static_cast<size_t>(handle) > files_.size()) return nullptr;
    if (section == nullptr || key == nullptr) return nullptr;
    const Values& values = files_[static_cast<size_t>(handle) - 1];
    const auto found = values.find({section, key});
    return found == values.end() ? nullptr : &found->second;
}

int IniReader::integer(int handle, const char* section, const char* key) const {
    Guard guard(boardLock());
    const std::string* text = find(handle, section, key);
    if (text == nullptr) return missingInteger_;
    const size_t digits = text->find_first_not_of("+-");
    const bool isHex = digits != std::string::npos && text->compare(digits, 2, "0x") == 0;
    char* end = nullptr;
    const long value = strtol(text->c_str(), &end, isHex ? 16 : 10);
    return end == text->c_str() ? missingInteger_ : static_cast<int>(value);
}

ProductInformation::ProductInformation(BoardServices& board) : board_(board) {}
ProductInformation::~ProductInformation() = default;

void ProductInformation::setModuleId(const std::string& text) {
    Guard guard(boardLock());
    board_.store->replace(kProductInformation, text + "\n");
}

void ProductInformation::setFailing(bool failing) {
    Guard guard(boardLock());
    failing_ = failing;
}

int ProductInformation::fill(uint8_t* block) const {
    Guard guard(boardLock());
    const auto text = board_.store->read(kProductInformation);
    if (failing_ || !text) return -1;
    memset(block, 0, kSize);
    const size_t length = std::min(text->find('\n'), text->size());
    memcpy(block + kModuleIdAt, text->data(), std::min(length, kSize - kModuleIdAt - 1));
    return 0;
}

}  // namespace quil::board
