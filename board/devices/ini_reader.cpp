#include "board/devices/ini_reader.h"

#include <ini.h>
#include <stdlib.h>
#include <string.h>

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
    explicit LineFeeder(const std::string& text) : mText(text) {}
    bool continuing() const { return mContinuing; }

    char* next(char* line, int size) {
        if (mRest.empty() && !takeLine()) return nullptr;
        const size_t room = static_cast<size_t>(size) - 3;  // the indent, the line end, the NUL
        const size_t length = pieceLength(room);
        std::string piece = (mContinuing ? " " : "") + mRest.substr(0, length) + "\n";
        mRest.erase(0, length);
        memcpy(line, piece.c_str(), piece.size() + 1);
        return line;
    }

  private:
    bool takeLine() {
        if (mAt >= mText.size()) return false;
        const size_t end = std::min(mText.find('\n', mAt), mText.size());
        mRest = mText.substr(mAt, end - mAt);
        mAt = end + 1;
        mContinuing = false;
        mStarted = false;
        mRest.erase(std::min(mRest.find('\0'), mRest.size()));
        dropInlineComment();
        if (mRest.empty()) mRest = " ";
        return true;
    }

    // inih would drop only the piece that the comment starts in, and keep the pieces after it.
    void dropInlineComment() {
        for (size_t i = 1; i < mRest.size(); ++i) {
            if (mRest[i] == ';' && isBlank(mRest[i - 1])) return mRest.erase(i - 1), void();
        }
    }

    size_t pieceLength(size_t room) {
        mContinuing = mStarted;
        mStarted = true;
        if (mRest.size() <= room) return mRest.size();
        if (!mContinuing && mRest.substr(0, room).find_first_of("=:") == std::string::npos) {
            mRest.erase(room);  // no key: the line is invalid, and one piece shows that
            return room;
        }
        // inih trims each piece, so that a cut beside a blank would lose the blank.
        size_t length = room;
        while (length > 1 && (isBlank(mRest[length - 1]) || isBlank(mRest[length]))) --length;
        return length > 1 ? length : room;
    }

    const std::string& mText;
    size_t mAt = 0;
    std::string mRest;
    bool mContinuing = false, mStarted = false;
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
    mMissingInteger = value;
}

int IniReader::load(const std::filesystem::path& hostPath) {
    Guard guard(boardLock());
    auto text = readWholeFile(hostPath, kLongest);
    return text ? loadText(std::move(*text)) : 0;
}

int IniReader::loadText(std::string text) {
    Guard guard(boardLock());
    text.resize(std::min<size_t>(text.size(), kLongest));
    Values values = parseIni(text);
    if (mFiles.empty() || mFiles.back() != values) mFiles.push_back(std::move(values));
    return static_cast<int>(mFiles.size());
}

const std::string* IniReader::find(int handle, const char* section, const char* key) const {
    Guard guard(boardLock());
    if (handle < 1 || static_cast<size_t>(handle) > mFiles.size()) return nullptr;
    if (section == nullptr || key == nullptr) return nullptr;
    const Values& values = mFiles[static_cast<size_t>(handle) - 1];
    const auto found = values.find({section, key});
    return found == values.end() ? nullptr : &found->second;
}

int IniReader::integer(int handle, const char* section, const char* key) const {
    Guard guard(boardLock());
    const std::string* text = find(handle, section, key);
    if (text == nullptr) return mMissingInteger;
    const size_t digits = text->find_first_not_of("+-");
    const bool isHex = digits != std::string::npos && text->compare(digits, 2, "0x") == 0;
    char* end = nullptr;
    const long value = strtol(text->c_str(), &end, isHex ? 16 : 10);
    return end == text->c_str() ? mMissingInteger : static_cast<int>(value);
}

ProductInformation::ProductInformation(BoardServices& board) : mBoard(board) {}
ProductInformation::~ProductInformation() = default;

void ProductInformation::setModuleId(const std::string& text) {
    Guard guard(boardLock());
    mBoard.store->replace(kProductInformation, text + "\n");
}

void ProductInformation::setFailing(bool failing) {
    Guard guard(boardLock());
    mFailing = failing;
}

int ProductInformation::fill(uint8_t* block) const {
    Guard guard(boardLock());
    const auto text = mBoard.store->read(kProductInformation);
    if (mFailing || !text) return -1;
    memset(block, 0, kSize);
    const size_t length = std::min(text->find('\n'), text->size());
    memcpy(block + kModuleIdAt, text->data(), std::min(length, kSize - kModuleIdAt - 1));
    return 0;
}

}  // namespace quil::board
