// The FPGA's SPI port: transactions, registers and parameter memory.
#include <stdio.h>

#include <algorithm>

#include "board/core/bytes.h"
#include "board/fpga/fpga.h"

namespace quil::board {
namespace {

constexpr uint8_t kWriteCommand = 0x02, kReadCommand = 0x0B, kUnconfigured = 0xFF;
constexpr size_t kAddressAt = 1, kDataAt = 5, kReadDataAt = 6, kOverhead = 6;
constexpr uint32_t kRegistersFrom = 0x1000, kRegistersTo = 0x1FFF;

std::string describeTransfer(const char* what, uint32_t address, size_t count) {
    char text[64];
    snprintf(text, sizeof(text), "%s 0x%08x, %zu bytes", what, address, count);
    return text;
}

bool isRegister(uint32_t address) { return address >= kRegistersFrom && address <= kRegistersTo; }

struct Rule {
    bool broken;
    const char* text;
};

}  // namespace

void Fpga::record(const std::string& text, std::span<const uint8_t> bytes) const {
    mBoard.trace.add(EventKind::kSpi, kFpgaDevice, text, {bytes.begin(), bytes.end()});
}

bool Fpga::isWellFormed(std::span<const uint8_t> bytes, bool isRead) const {
    if (bytes.size() <= kOverhead) {
        violation("a transaction of " + std::to_string(bytes.size()) + " bytes:", bytes);
        return false;
    }
    const bool hasData =
        std::any_of(bytes.begin() + kDataAt, bytes.end(), [](uint8_t byte) { return byte != 0; });
    const Rule rules[] = {
        {isRead && bytes[0] != kReadCommand, "a read without the command 0x0b:"},
        {!isRead && bytes[0] != kWriteCommand, "a write without the command 0x02:"},
        {isRead && hasData, "a read whose buffer is not zero behind the address:"},
        {!isRead && bytes.back() != 0, "a write that does not end in 0x00:"},
    };
    for (const Rule& rule : rules) {
        if (!rule.broken) continue;
        violation(rule.text, bytes);
        return false;
    }
    return true;
}

ssize_t Fpga::spiWrite(std::span<const uint8_t> bytes, bool truncated) {
    const auto count = static_cast<ssize_t>(bytes.size());
    const Nanos start = now();
    mBoard.spendDeviceTime(kSpiByte * count, "spi");
    mBoard.trace.addSpiTransfer({start, kSpiByte, {bytes.begin(), bytes.end()}, {}});
    if (truncated ? bytes.size() <= kDataAt : !isWellFormed(bytes, false)) return count;
    const uint32_t address = big32(bytes, kAddressAt);
    const auto data = bytes.subspan(kDataAt, bytes.size() - (truncated ? kDataAt : kOverhead));
    record(describeTransfer("write", address, data.size()), bytes);
    mTransactions.push_back({now(), false, address, {bytes.begin(), bytes.end()}, {}});
    if (!mConfigured) return count;
    if (isRegister(address)) {
        writeRegister(address, data);
    } else {
        writeMemory(address, data);
    }
    return count;
}

ssize_t Fpga::spiRead(std::span<uint8_t> bytes) {
    const auto count = static_cast<ssize_t>(bytes.size());
    const Nanos start = now();
    mBoard.spendDeviceTime(kSpiByte * count, "spi");
    if (!isWellFormed(bytes, true)) return count;
    const uint32_t address = big32(bytes, kAddressAt);
    const std::vector<uint8_t> sent(bytes.begin(), bytes.end());
    std::fill_n(bytes.begin(), kReadDataAt,
                uint8_t{0});  // while the header is sent, the FPGA returns no data
    const auto data = bytes.subspan(kReadDataAt);
    readInto(address, data);
    mBoard.trace.addSpiTransfer({start, kSpiByte, sent, {bytes.begin(), bytes.end()}});
    record(describeTransfer("read", address, data.size()), data);
    mTransactions.push_back({now(), true, address, sent, {data.begin(), data.end()}});
    return count;
}

void Fpga::writeRegister(uint32_t address, std::span<const uint8_t> data) {
    const bool isReset = address == kTransmitReset || address == kReceiveReset;
    if (!isReset || data.size() != 1 || data[0] > 1) {
        violation(describeTransfer("no register takes such a write:", address, data.size()), data);
        return;
    }
    bool& reset = address == kTransmitReset ? mTransmitReset : mReceiveReset;
    const bool asserted = data[0] == 0;
    if (asserted) mNegotiation.since.reset();
    const bool released = reset && !asserted;
    reset = asserted;
    if (released && !mTransmitReset && !mReceiveReset) mNegotiation.begin(now());
}

void Fpga::readInto(uint32_t address, std::span<uint8_t> data) {
    std::fill(data.begin(), data.end(), mConfigured ? uint8_t{0} : kUnconfigured);
    if (const auto script = mScripts.find(address); script != mScripts.end()) {
        data[0] = script->second.front();
        if (script->second.size() > 1) script->second.erase(script->second.begin());
        return;
    }
    if (!mConfigured) return;
    if (isRegister(address)) {
        data[0] = registerValue(address);
        return;
    }
    for (size_t i = 0; i < data.size(); ++i) {
        data[i] = memoryAt(static_cast<uint32_t>(address + i)).value_or(0);
    }
}

uint8_t Fpga::registerValue(uint32_t address) const {
    switch (address) {
        case kDdrState:
            return mDdr.value(now());
        case kSgmiiClock:
            return mClock.value(now());
        case kSgmiiNegotiation:
            return mNegotiation.value(now());
        default:
            violation(describeTransfer("no register can be read:", address, 1));
            return 0;
    }
}

void Fpga::writeMemory(uint32_t address, std::span<const uint8_t> data) {
    while (!data.empty()) {
        Page& page = pageOf(address);
        const size_t from = address % kPage, count = std::min(kPage - from, data.size());
        std::copy_n(data.begin(), count, page.bytes.begin() + from);
        std::fill_n(page.written.begin() + from, count, true);
        data = data.subspan(count);
        address += static_cast<uint32_t>(count);
    }
}

Fpga::Page& Fpga::pageOf(uint32_t address) {
    auto& page = mPages[address / kPage];
    if (!page) page = std::make_unique<Page>();
    return *page;
}

Fpga::Memory Fpga::memory() const {
    Guard guard(boardLock());
    Memory all;
    for (const auto& [number, page] : mPages) {
        for (uint32_t i = 0; i < kPage; ++i) {
            if (page->written[i]) all.emplace_back(number * kPage + i, page->bytes[i]);
        }
    }
    return all;
}

std::optional<uint8_t> Fpga::memoryAt(uint32_t address) const {
    Guard guard(boardLock());
    const auto page = mPages.find(address / kPage);
    if (page == mPages.end() || !page->second->written[address % kPage]) return std::nullopt;
    return page->second->bytes[address % kPage];
}

uint8_t Fpga::registerNow(Register which) const {
    Guard guard(boardLock());
    return mConfigured ? registerValue(which) : kUnconfigured;
}

void Fpga::scriptReads(uint32_t address, std::vector<uint8_t> values) {
    Guard guard(boardLock());
    if (values.empty()) {
        mScripts.erase(address);
    } else {
        mScripts[address] = std::move(values);
    }
}

std::vector<SpiTransaction> Fpga::transactions() const {
    Guard guard(boardLock());
    return mTransactions;
}

// After a reset of the PHY, the FPGA negotiates only when its own side is reset once more.
void Fpga::phyWasReset() { mNegotiation.since.reset(); }

}  // namespace quil::board
