#include "board/devices/properties.h"

#include <sstream>

#include "board/core/board_directory.h"
#include "board/machine.h"

namespace quil::board {

Properties::Properties(std::filesystem::path file) : file_(std::move(file)) {
    std::istringstream lines(readWholeFile(file_).value_or(""));
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
    if (Machine* machine = poweredMachine()) {
        machine->trace.add(EventKind::kProperty, name, value);
        if (machine->dead()) return;
    }
    values_[name] = value;
    std::string text;
    for (const auto& [key, kept] : values_) text.append(key).append("=").append(kept).append("\n");
    writeWholeFile(file_, text);
}

}  // namespace quil::board
