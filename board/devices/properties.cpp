#include "board/devices/properties.h"

#include <sstream>

namespace quil::board {
namespace {

constexpr char kFile[] = "properties";

}  // namespace

Properties::Properties(BoardServices& board) : board_(board) {
    std::istringstream lines(board_.store->read(kFile).value_or(""));
    for (std::string line; std::getline(lines, line);) {
        const size_t equals = line.find('=');
        if (equals != std::string::npos) values_[line.substr(0, equals)] = line.substr(equals + 1);
    }
}

Properties::~Properties() = default;

std::string_view Properties::find(std::string_view name, std::string_view fallback) const {
    const auto found = values_.find(name);
    return found == values_.end() || found->second.empty() ? fallback : found->second;
}

std::string Properties::get(const std::string& name, const std::string& fallback) const {
    Guard guard(boardLock());
    return std::string(find(name, fallback));
}

void Properties::set(const std::string& name, const std::string& value) {
    Guard guard(boardLock());
    board_.trace.add(EventKind::kProperty, name, value);
    if (board_.power.isCut()) return;
    values_[name] = value;
    std::string text;
    for (const auto& [key, kept] : values_) text.append(key).append("=").append(kept).append("\n");
    board_.store->replace(kFile, text);
}

}  // namespace quil::board
