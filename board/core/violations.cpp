#include "board/core/violations.h"

#include <ctype.h>

#include <algorithm>
#include <numeric>
#include <sstream>

namespace quil::board {
namespace {

bool isNumber(const std::string& word) {
    const auto has = [&word](int (*is)(int)) {
        return std::any_of(word.begin(), word.end(), [is](unsigned char c) { return is(c) != 0; });
    };
    const bool hexByte = word.size() == 2 && isxdigit(static_cast<unsigned char>(word[0])) != 0 &&
                         isxdigit(static_cast<unsigned char>(word[1])) != 0;
    return has(isdigit) || hexByte;
}

// The text with "#" in the place of numbers.
std::string patternOf(const std::string& text) {
    std::istringstream words(text);
    std::string pattern;
    bool afterNumber = false;
    for (std::string word; words >> word;) {
        const bool number = isNumber(word);
        if (!number) pattern += word + " ";
        if (number && !afterNumber) pattern += "# ";
        afterNumber = number;
    }
    if (!pattern.empty()) pattern.pop_back();
    return pattern;
}

}  // namespace

Violations::Kind& Violations::kindOf(const std::string& text) {
    std::string pattern = patternOf(text);
    const auto found = std::find_if(mKinds.begin(), mKinds.end(), [&pattern](const Kind& kind) {
        return kind.pattern == pattern;
    });
    if (found != mKinds.end()) return *found;
    if (mKinds.size() == kKinds) return mKinds.back();
    if (mKinds.size() + 1 == kKinds) pattern = "others";
    return mKinds.emplace_back(Kind{std::move(pattern)});
}

bool Violations::add(Nanos at, const std::string& text) {
    if (++kindOf(text).count > kKeptOfAKind) return false;
    mKept.push_back({at, text});
    return true;
}

size_t Violations::total() const {
    return std::accumulate(mKinds.begin(), mKinds.end(), size_t{0},
                           [](size_t sum, const Kind& kind) { return sum + kind.count; });
}

std::vector<std::string> Violations::texts() const {
    std::vector<std::string> texts;
    for (const Kept& one : mKept) texts.push_back(one.text);
    for (const Kind& kind : mKinds) {
        if (kind.count <= kKeptOfAKind) continue;
        texts.push_back(kind.pattern + ": " + std::to_string(kind.count - kKeptOfAKind) + " more");
    }
    return texts;
}

}  // namespace quil::board
