#include "board/mcu/n32_boot_loader.h"

#include <stddef.h>

#include <algorithm>
#include <array>
#include <numeric>
#include <utility>

#include "board/core/bytes.h"

namespace quil::board {
namespace {

constexpr uint8_t kStart0 = 0xAA, kStart1 = 0x55, kSuccess = 0xA0, kFailure = 0xB0;
constexpr size_t kCommandAt = 2, kPayloadLengthAt = 4, kParameterAt = 6, kPayloadAt = 10,
                 kKeySize = 16;
constexpr size_t kBlockAt = kPayloadAt + kKeySize, kLongestPayload = 148, kInfoSize = 51;
constexpr int kSpeed = 9600;
constexpr uint32_t kCrcStart = 0xFFFFFFFF;

// As the part's CRC unit does it: a word at a time, its most significant bit first. No zip file has
// this bit order, and zlib has no CRC for it.
uint32_t crcOf(std::span<const uint8_t> bytes) {
    uint32_t crc = kCrcStart;
    for (size_t at = 0; at + 4 <= bytes.size(); at += 4) {
        crc ^= little32(bytes, at);
        for (int bit = 0; bit < 32; ++bit) crc = crc << 1 ^ (crc >> 31 != 0 ? 0x04C11DB7 : 0);
    }
    return crc;
}

}  // namespace

const N32BootLoader::CommandRow* N32BootLoader::rowOf(uint8_t code) {
    using Self = N32BootLoader;
    static constexpr std::array<CommandRow, 5> kRows = {{
        {0x01, 0, 0, &Self::handshake},
        {0x10, 0, 0, &Self::getInfo},
        {0x30, 16, 16, &Self::erase},
        {0x31, 36, kLongestPayload, &Self::download},
        {0x32, 24, 24, &Self::checkCrc},
    }};
    const auto* row = std::find_if(kRows.begin(), kRows.end(),
                                   [code](const auto& entry) { return entry.code == code; });
    return row == kRows.end() ? nullptr : row;
}

N32BootLoader::N32BootLoader(McuFlash& flash, McuSurroundings& around, LoaderFaults& faults)
    : mFlash(flash), mAround(around), mFaults(faults) {}
N32BootLoader::~N32BootLoader() = default;

LineSettings N32BootLoader::lineSettings() const { return {kSpeed, 8, 'N', 1}; }

void N32BootLoader::start() {
    mFrame.clear();
    mBusy = mHung = mInNoise = false;
    mFault.forget();
}

void N32BootLoader::receive(uint8_t byte) {
    if (mHung) return;
    if (mBusy) return mAround.violation("a byte came while the flash was at work, and was lost");
    const Nanos now = mAround.now();
    if (!mFrame.empty() && now - mLastByte > kLongestGap) startOver("a request broke off");
    mLastByte = now;
    const size_t had = mFrame.size();
    if (had < 2 && byte != (had == 0 ? kStart0 : kStart1)) {
        mFrame.clear();
        if (!std::exchange(mInNoise, true)) startOver("bytes that start no request");
        return;
    }
    mInNoise = false;
    mFrame.push_back(byte);
    if (mFrame.size() < kPayloadAt) return;
    const size_t length = little16(mFrame, kPayloadLengthAt);
    if (length > kLongestPayload) return startOver("a request of so many bytes");
    if (mFrame.size() == kPayloadAt + length + 1) frame();
}

void N32BootLoader::startOver(const std::string& why) {
    mAround.violation(why);
    mFrame.clear();
}

void N32BootLoader::frame() {
    const CommandRow* row = rowOf(mFrame[kCommandAt]);
    const size_t length = little16(mFrame, kPayloadLengthAt);
    if (xorOf(mFrame) != 0) {
        refuse(N32Refusal::kCheckByte, "the check byte is wrong");
    } else if (row == nullptr || mFrame[kCommandAt + 1] != 0) {
        refuse(N32Refusal::kCommand, "no such command");
    } else if (length < row->leastPayload || length > row->mostPayload || !keyIsZero()) {
        refuse(N32Refusal::kLength, "the payload is not this command's");
    } else if (passes(LoaderStep::kCommand)) {
        (this->*row->handler)();
    }
    mFrame.clear();
}

bool N32BootLoader::keyIsZero() const {
    if (little16(mFrame, kPayloadLengthAt) < kKeySize) return true;
    return std::all_of(mFrame.begin() + kPayloadAt, mFrame.begin() + kBlockAt,
                       [](uint8_t byte) { return byte == 0; });
}

// False: a fault ends the command here.
bool N32BootLoader::passes(LoaderStep step) {
    using Kind = LoaderFault::Kind;
    const uint8_t code = mFrame[kCommandAt];
    const auto fault = mFaults.take(code, step);
    if (!fault) return true;
    mAround.note(std::string("fault at ") + nameOf(step) + " of command " + std::to_string(code));
    const bool ends =
        fault->kind == Kind::kSilent || fault->kind == Kind::kNack || fault->kind == Kind::kHangs;
    const bool operates = step == LoaderStep::kCommand && (code == 0x30 || code == 0x31);
    if (ends || (fault->kind == Kind::kReset && !operates)) {
        endWith(*fault);
        return false;
    }
    mFault.set(*fault);
    return true;
}

void N32BootLoader::endWith(const LoaderFault& fault) {
    using Kind = LoaderFault::Kind;
    if (fault.kind == Kind::kNack) refuse(N32Refusal::kFault, "a fault", false);
    if (fault.kind == Kind::kHangs) mHung = true;
    if (fault.kind == Kind::kReset) mAround.resetBySoftware();
}

void N32BootLoader::answer(Nanos delay, std::vector<uint8_t> payload, uint8_t status0,
                           uint8_t status1) {
    const auto size = static_cast<uint8_t>(payload.size());
    const std::array<uint8_t, 6> head = {kStart0, kStart1, mFrame[kCommandAt], 0, size, 0};
    const size_t payloadAt = head.size(), statusAt = payloadAt + payload.size();
    std::vector<uint8_t> bytes(statusAt);
    std::copy(head.begin(), head.end(), bytes.begin());
    std::copy(payload.begin(), payload.end(), bytes.begin() + payloadAt);
    bytes.push_back(status0);
    bytes.push_back(status1);
    bytes.push_back(xorOf(bytes));
    const auto [later, deaf] = mFault.apply(bytes, statusAt, payloadAt);
    mBusy = mBusy || deaf;
    mAround.after(delay + later, [this, deaf = deaf, bytes = std::move(bytes)] {
        if (deaf) mBusy = false;
        mAround.send(bytes);
    });
}

void N32BootLoader::succeed(Nanos delay, std::vector<uint8_t> payload) {
    if (passes(LoaderStep::kFinished)) answer(delay, std::move(payload), kSuccess, 0);
}

// A refused download is answered as late as a good one: hosts flush their input before that.
void N32BootLoader::refuse(N32Refusal reason, const std::string& why, bool violation) {
    if (violation) {
        mAround.violation(why);
    } else {
        mAround.note("refused: " + why);
    }
    const bool download = mFrame[kCommandAt] == 0x31;
    answer(download ? kDownloadTurnaround : kTurnaround, {}, kFailure,
           static_cast<uint8_t>(reason));
}

void N32BootLoader::handshake() {
    const uint32_t speed = little32(mFrame, kParameterAt);
    if (speed != 0x80250000) return refuse(N32Refusal::kParameter, "another speed than 9600");
    succeed(kTurnaround);
}

void N32BootLoader::getInfo() {
    std::vector<uint8_t> info(kInfoSize);
    const std::string_view name = mFlash.part().name;
    std::copy(name.begin(), name.end(), info.begin());
    succeed(kTurnaround, std::move(info));
}

void N32BootLoader::erase() {
    const uint32_t first = little16(mFrame, kParameterAt),
                   count = little16(mFrame, kParameterAt + 2);
    if (first + count > mFlash.part().pageCount()) {
        return refuse(N32Refusal::kParameter, "an erase of a page that the part has not");
    }
    std::vector<uint32_t> pages(count);
    std::iota(pages.begin(), pages.end(), first);
    operate(
        "erase " + std::to_string(count) + " pages",
        [pages](McuFlash& flash) { return flash.startErase(pages); }, kTurnaround);
}

void N32BootLoader::download() {
    const uint32_t address = little32(mFrame, kParameterAt);
    const size_t size = little16(mFrame, kPayloadLengthAt) - kKeySize - 4;
    std::vector<uint8_t> data(mFrame.begin() + kBlockAt,
                              mFrame.begin() + static_cast<ptrdiff_t>(kBlockAt + size));
    if (size % 16 != 0) return refuse(N32Refusal::kLength, "data that are no multiple of 16");
    const uint32_t offset = address - kMcuFlashBase;
    if (address < kMcuFlashBase || offset % 16 != 0 || offset + size > mFlash.part().flashSize()) {
        return refuse(N32Refusal::kParameter, "an address outside the flash");
    }
    if (little32(mFrame, kBlockAt + size) != crcOf(data)) {
        return refuse(N32Refusal::kBlockCrc, "the block's CRC is wrong");
    }
    mFault.spoil(data);
    char what[48];
    snprintf(what, sizeof(what), "program 0x%08x, %zu bytes", address, size);
    operate(
        what, [offset, data](McuFlash& flash) { return flash.startProgram(offset, data); },
        kDownloadTurnaround);
}

// A part that resets in the middle of the operation never finishes it.
void N32BootLoader::operate(const std::string& what, std::function<Nanos(McuFlash&)> start,
                            Nanos turnaround) {
    mBusy = true;
    const bool torn = mFault.takeReset();
    const auto startOrTear = [this, torn, start = std::move(start)](McuFlash& flash) {
        const Nanos takes = start(flash);
        if (torn) mAround.after(takes / 2, [this] { mAround.resetBySoftware(); });
        return takes;
    };
    mAround.operate(what, startOrTear,
                    [this, turnaround, request = mFrame](const std::string& broken) {
                        mBusy = false;
                        mFrame = request;
                        if (broken.empty()) {
                            succeed(turnaround);
                        } else {
                            refuse(N32Refusal::kFlash, broken);
                        }
                        mFrame.clear();
                    });
}

// Hosts in the field count 16 bytes too many for images of a multiple of 16 bytes, and continue the
// CRC of an earlier session: a wrong CRC is therefore no violation.
void N32BootLoader::checkCrc() {
    const uint32_t expected = little32(mFrame, kParameterAt);
    const uint32_t address = little32(mFrame, kBlockAt), length = little32(mFrame, kBlockAt + 4);
    const uint32_t offset = address - kMcuFlashBase, size = mFlash.part().flashSize();
    if (address < kMcuFlashBase || offset > size || length > size - offset) {
        return refuse(N32Refusal::kParameter, "a CRC outside the flash", false);
    }
    if (crcOf(mFlash.cells().subspan(offset, length)) != expected) {
        return refuse(N32Refusal::kFlashCrc, "the flash has another CRC", false);
    }
    succeed(kTurnaround);
}

}  // namespace quil::board
