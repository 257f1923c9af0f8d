#include "board/devices/properties.h"

#include <sstream>

namespace quil::board {
namespace {

constexpr char kPropertiesFile[] = "properties";

}  // namespace

Properties::Properties(BoardServices& board) : mBoard(board) {
    std::istringstream lines(mBoard.store->read(kPropertiesFile).value_or(""));
    for (std::string line; std::getline(lines, line);) {
        const size_t equals = line.find('=');
        if (equals != std::string::npos) mValues[line.substr(0, equals)] = line.substr(equals + 1);
    }
}

Properties::~Properties() = default;

std::string_view Properties::find(std::string_view name, std::string_view fallback) const {
    if (name != mLastName || mLastName.empty()) {
        const auto found = mOfThisRun.find(name);
        const auto kept = mValues.find(name);
        mLastName = name;
        mLastValue = found != mOfThisRun.end()                        ? &found->second
                     : kept != mValues.end() && !kept->second.empty() ? &kept->second
                                                                      : nullptr;
    }
    return mLastValue != nullptr ? std::string_view(*mLastValue) : fallback;
}

std::string Properties::get(const std::string& name, const std::string& fallback) const {
    Guard guard(boardLock());
    return std::string(find(name, fallback));
}

void Properties::set(const std::string& name, const std::string& value) {
    Guard guard(boardLock());
    mBoard.trace.add(EventKind::kProperty, name, value);
    if (mBoard.power.isCut()) return;
    mLastName.clear();
    mValues[name] = value;
    std::string text;
    for (const auto& [key, kept] : mValues) text.append(key).append("=").append(kept).append("\n");
    mBoard.store->replace(kPropertiesFile, text);
}

void Properties::setForThisRun(const std::string& name, const std::string& value) {
    Guard guard(boardLock());
    mBoard.trace.add(EventKind::kProperty, name, value + ", for this run");
    mLastName.clear();
    mOfThisRun[name] = value;
}

void Properties::dropForThisRun(const std::string& name) {
    Guard guard(boardLock());
    mLastName.clear();
    mOfThisRun.erase(name);
}

}  // namespace quil::board
