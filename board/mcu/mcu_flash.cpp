#include "board/mcu/mcu_flash.h"

#include <algorithm>
#include <sstream>
#include <stdexcept>
#include <utility>

#include "board/core/bytes.h"

namespace quil::board {
namespace {

std::string optionsBeside(const std::string& file) {
    const size_t slash = file.rfind('/');
    return file.substr(0, slash == std::string::npos ? 0 : slash + 1) + "option_bytes";
}

std::string hexAddress(uint32_t offset) {
    char text[16];
    snprintf(text, sizeof text, "0x%08x", kMcuFlashBase + offset);
    return text;
}

}  // namespace

McuFlash::McuFlash(const McuPart& part, Store& store, std::string file)
    : part_(part), store_(store), file_(std::move(file)), optionsFile_(optionsBeside(file_)) {
    std::string kept = store_.read(file_).value_or("");
    kept.resize(std::min<size_t>(kept.size(), part.flashSize()));
    cells_.assign(part.flashSize(), 0xFF);
    std::copy(kept.begin(), kept.end(), cells_.begin());
    used_ = kept.size();
    loadOptions();
}

McuFlash::~McuFlash() {
    try {
        save();
    } catch (const std::exception& error) {
        fprintf(stderr, "board: %s\n", error.what());
    }
}

void McuFlash::loadOptions() {
    std::istringstream lines(store_.read(optionsFile_).value_or(""));
    for (std::string name, equals; lines >> name >> equals;) {
        if (name == "readout_protected") lines >> readoutProtected_;
        uint32_t page = 0;
        if (name == "write_protected" && lines >> page) writeProtected_.insert(page);
    }
}

// The file ends with the last programmed cell.
void McuFlash::save() {
    if (std::exchange(changed_, false)) {
        while (used_ > 0 && cells_[used_ - 1] == 0xFF) --used_;
        store_.replace(file_, textOf(cells()).substr(0, used_));
    }
    if (!std::exchange(optionsChanged_, false)) return;
    std::string text = "readout_protected = " + std::to_string(readoutProtected_) + "\n";
    for (const uint32_t page : writeProtected_) {
        text += "write_protected = " + std::to_string(page) + "\n";
    }
    store_.replace(optionsFile_, text);
}

McuFlash::Page McuFlash::page(uint32_t number) const {
    const auto& [first, second] = part_.regions;
    if (number < first.pages) return {number * first.pageSize, first.pageSize};
    if (number >= part_.pageCount()) throw std::out_of_range("no such flash page");
    return {first.pages * first.pageSize + (number - first.pages) * second.pageSize,
            second.pageSize};
}

uint32_t McuFlash::pageAt(uint32_t offset) const {
    const auto& [first, second] = part_.regions;
    const uint32_t border = first.pages * first.pageSize;
    return offset < border ? offset / first.pageSize
                           : first.pages + (offset - border) / second.pageSize;
}

void McuFlash::load(std::string_view image) {
    if (image.size() > cells_.size()) throw std::invalid_argument("more than the flash holds");
    std::fill(std::copy(image.begin(), image.end(), cells_.begin()), cells_.end(), 0xFF);
    used_ = image.size();
    changed_ = true;
}

void McuFlash::setReadoutProtected(bool on) {
    readoutProtected_ = on;
    optionsChanged_ = true;
}

void McuFlash::setWriteProtected(std::set<uint32_t> pages) {
    writeProtected_ = std::move(pages);
    optionsChanged_ = true;
}

Nanos McuFlash::startErase(const std::vector<uint32_t>& pages) {
    operation_ = {Operation::kErase, pages};
    return part_.eraseTime * static_cast<int64_t>(pages.size());
}

Nanos McuFlash::startMassErase() {
    operation_ = {Operation::kMassErase};
    for (uint32_t number = 0; number < part_.pageCount(); ++number) {
        operation_.pages.push_back(number);
    }
    return part_.massEraseTime;
}

Nanos McuFlash::startProgram(uint32_t offset, std::span<const uint8_t> bytes) {
    if (offset + bytes.size() > cells_.size()) throw std::out_of_range("beyond the flash");
    operation_ = {Operation::kProgram, {}, offset, {bytes.begin(), bytes.end()}};
    const uint32_t first = offset / part_.programUnit;
    const size_t end = (offset + bytes.size() + part_.programUnit - 1) / part_.programUnit;
    return part_.programTime * static_cast<int64_t>(end - first);
}

std::string McuFlash::finish() {
    const Operation done = std::exchange(operation_, {});
    if (done.kind == Operation::kProgram) return program(done.offset, done.bytes);
    for (const uint32_t number : done.pages) erase(page(number));
    return "";
}

// Cells change one after another: those before the cut are done, one is half done.
void McuFlash::powerLost(uint64_t seed) {
    const Operation torn = std::exchange(operation_, {});
    if (torn.kind == Operation::kProgram) {
        const auto done = static_cast<uint32_t>(tornAt(seed, torn.bytes.size()));
        program(torn.offset, std::span(torn.bytes).first(done));
        if (done < torn.bytes.size()) {
            cells_[torn.offset + done] &= static_cast<uint8_t>(torn.bytes[done] | 0x55);
            used_ = std::max<size_t>(used_, torn.offset + done + 1);
        }
    } else if (!torn.pages.empty()) {
        const size_t done = tornAt(seed, torn.pages.size() - 1);
        for (size_t i = 0; i < done; ++i) erase(page(torn.pages[i]));
        const Page half = page(torn.pages[done]);
        erase({half.offset, static_cast<uint32_t>(tornAt(seed + 1, half.size))});
    }
}

bool McuFlash::isProtected(uint32_t offset) const {
    return !writeProtected_.empty() && writeProtected_.count(pageAt(offset)) != 0;
}

bool McuFlash::erased(uint32_t offset, uint32_t size) const {
    const auto at = cells_.begin() + offset;
    return std::all_of(at, at + size, [](uint8_t cell) { return cell == 0xFF; });
}

void McuFlash::erase(const Page& page) {
    if (page.size == 0 || isProtected(page.offset)) return;
    std::fill_n(cells_.begin() + page.offset, page.size, 0xFF);
    changed_ = true;
}

std::string McuFlash::program(uint32_t offset, std::span<const uint8_t> bytes) {
    std::string broken;
    for (uint32_t done = 0; done < bytes.size();) {
        const uint32_t unit = (offset + done) / part_.programUnit * part_.programUnit;
        const auto end = static_cast<uint32_t>(
            std::min<size_t>(unit + part_.programUnit - offset, bytes.size()));
        if (!isProtected(unit)) {
            if (broken.empty() && !erased(unit, part_.programUnit)) {
                broken = "programming at " + hexAddress(unit) + ", which is not erased";
            }
            for (; done < end; ++done) cells_[offset + done] &= bytes[done];
        }
        done = end;
    }
    used_ = std::max(used_, offset + bytes.size());
    changed_ = true;
    return broken;
}

}  // namespace quil::board
