#include "board/mcu/mcu_fitting.h"

#include <algorithm>
#include <optional>
#include <sstream>
#include <stdexcept>

#include "board/core/whole_file.h"
#include "board/mcu/mcu_chip.h"
#include "board/mcu/mcu_image.h"

namespace quil::board {
namespace {

namespace fs = std::filesystem;

std::string productFileOf(const fs::path& board) {
    auto content = readWholeFile(board / kProductFile);
    if (!content) throw std::runtime_error(board.string() + ": not a board directory");
    return *content;
}

// Offset and length of the value in a line "key = value".
std::pair<size_t, size_t> valueOf(const std::string& content, const std::string& key) {
    const std::string start = "\n" + key + " = ";
    const size_t at = content.find(start);
    if (at == std::string::npos) throw std::runtime_error("the product file has no " + key);
    const size_t value = at + start.size();
    return {value, std::min(content.find('\n', value), content.size()) - value};
}

void setValue(std::string& content, const std::string& key, const std::string& value) {
    const auto [at, size] = valueOf(content, key);
    content.replace(at, size, value);
}

fs::path imageOf(const fs::path& board, const std::string& content) {
    const auto [at, size] = valueOf(content, "mcu_fw_path");
    return board / "rootfs" / fs::path(content.substr(at, size)).relative_path();
}

}  // namespace

void fitMcu(const fs::path& board, const McuFitting& fitting) {
    std::string content = productFileOf(board);
    setValue(content, "mcu_serial", partOf(fitting.kind).name);
    setValue(content, "mcu_fw_version", fitting.shipped);
    writeWholeFile(board / kProductFile, content);
    const std::string shipped = makeMcuImage(fitting.kind, fitting.shipped, fitting.imageSize);
    writeWholeFile(imageOf(board, content), shipped);
    const bool same = fitting.flashed.empty() || fitting.flashed == fitting.shipped;
    writeWholeFile(board / "mcu/flash",
                   same ? shipped : makeMcuImage(fitting.kind, fitting.flashed, fitting.imageSize));
}

void flashMcu(const fs::path& board, const std::string& version, Keeping keeping) {
    const std::string content = productFileOf(board);
    const McuPart& part = partOfProductFile(board / kProductFile);
    // As large as the shipped image, which may be damaged: the flash held a whole one all the same.
    const auto shipped = static_cast<size_t>(fs::file_size(imageOf(board, content)));
    const size_t size = std::clamp<size_t>(shipped, kMcuImageLeast, part.flashSize());
    DirectoryStore(board, keeping).replace("mcu/flash", makeMcuImage(part.kind, version, size));
}

}  // namespace quil::board
