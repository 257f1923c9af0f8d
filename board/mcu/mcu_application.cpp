#include "board/mcu/mcu_application.h"

#include <stddef.h>
#include <stdio.h>

#include <numeric>
#include <sstream>

#include "board/core/bytes.h"

namespace quil::board {
namespace {

constexpr char kValuesFile[] = "mcu/values";

// The frame on the wire, little-endian, both ways.
namespace wire {
constexpr uint8_t kMagic0 = 0x55, kMagic1 = 0xBB;
constexpr size_t kFixedAt = 4, kLabelAt = 6, kLengthAt = 8, kHeaderEnd = 10;
constexpr size_t kFlagsAt = 10, kReservedAt = 13, kCommandAt = 22, kScopeAt = 26, kPayloadAt = 30;
constexpr size_t kLengthOverPayload = 22, kFrameOverPayload = 32, kPayloadMax = 4112;
constexpr uint8_t kTypeMask = 0x0F, kRequest = 1, kResponse = 2, kWrite = 0x20, kUnused = 0x90;
}  // namespace wire

uint16_t sumOf(const std::vector<uint8_t>& bytes, size_t count) {
    return static_cast<uint16_t>(
        std::accumulate(bytes.begin(), bytes.begin() + static_cast<ptrdiff_t>(count), 0U));
}

// An answer has the header of its request; an unsolicited frame has an empty one.
std::vector<uint8_t> buildAnswer(std::vector<uint8_t> header, uint32_t cmd, bool isWrite,
                                 const std::vector<uint8_t>& payload) {
    header.resize(wire::kPayloadAt);
    header[0] = wire::kMagic0;
    header[1] = wire::kMagic1;
    putLittle16(header, 2, 0);
    putLittle16(header, wire::kFixedAt, 0x0100);
    putLittle16(header, wire::kLengthAt,
                static_cast<uint32_t>(payload.size() + wire::kLengthOverPayload));
    header[wire::kFlagsAt] = static_cast<uint8_t>(wire::kResponse | (isWrite ? wire::kWrite : 0));
    putLittle32(header, wire::kCommandAt, cmd);
    putLittle32(header, wire::kScopeAt, 0);
    header.insert(header.end(), payload.begin(), payload.end());
    const uint16_t sum = sumOf(header, header.size());
    header.push_back(static_cast<uint8_t>(sum));
    header.push_back(static_cast<uint8_t>(sum >> 8));
    return header;
}

// The firmware updater's query is a get of the version with a scope that only it uses.
bool isUpdatersQuery(const std::vector<uint8_t>& frame) {
    return little32(frame, wire::kCommandAt) == McuApplication::kVersionCommand &&
           little32(frame, wire::kScopeAt) == McuApplication::kUpdatersScope &&
           (frame[wire::kFlagsAt] & wire::kWrite) == 0;
}

std::string describeFrame(const char* what, const std::vector<uint8_t>& frame) {
    char text[96];
    snprintf(text, sizeof(text), "%s label=%u cmd=0x%08x %s payload=%zu", what,
             little16(frame, wire::kLabelAt), little32(frame, wire::kCommandAt),
             frame[wire::kFlagsAt] & wire::kWrite ? "set" : "get",
             frame.size() - wire::kFrameOverPayload);
    return text;
}

}  // namespace

McuApplication::McuApplication(BoardServices& board, Uart& uart, int baud)
    : mBoard(board), mUart(uart) {
    mLine.baud = baud;
    mBoard.trace.onClear([this] { mRequests.clear(); });
    load();
}

McuApplication::~McuApplication() = default;

void McuApplication::start(std::string partName, std::string version) {
    mPartName = std::move(partName);
    mVersion = std::move(version);
    mRunning = true;
    ++mEpoch;
}

void McuApplication::stop() {
    mRunning = mInNoise = false;
    mFrame.clear();
    ++mEpoch;
}

void McuApplication::load() {
    std::istringstream lines(mBoard.store->read(kValuesFile).value_or(""));
    for (std::string line; std::getline(lines, line);) {
        const size_t equals = line.find('=');
        if (equals == std::string::npos) continue;
        std::vector<uint8_t> bytes;
        std::istringstream text(line.substr(equals + 1));
        for (unsigned byte = 0; text >> std::hex >> byte;)
            bytes.push_back(static_cast<uint8_t>(byte));
        mValues[static_cast<uint32_t>(strtoul(line.c_str(), nullptr, 16))] = bytes;
    }
}

void McuApplication::saveValues() const {
    std::string text;
    char key[16];
    for (const auto& [cmd, bytes] : mValues) {
        snprintf(key, sizeof(key), "0x%08x = ", cmd);
        text += key + hexOf(bytes) + "\n";
    }
    mBoard.store->replace(kValuesFile, text);
}

void McuApplication::receive(uint8_t byte) {
    const Nanos now = mBoard.scheduler.now();
    if (!mFrame.empty() && now - mLastByte > kLongestGap) startOver("a frame broke off");
    mLastByte = now;
    const uint8_t expected = mFrame.empty() ? wire::kMagic0 : wire::kMagic1;
    if (mFrame.size() < 2 && byte != expected) {
        mFrame.clear();
        if (byte != wire::kMagic0) {
            if (!mInNoise) startOver("bytes that start no frame");
            mInNoise = true;
            return;
        }
    }
    mFrame.push_back(byte);
    if (mFrame.size() == wire::kHeaderEnd) checkHeader();
    if (mFrame.size() < wire::kHeaderEnd) return;
    if (mFrame.size() == wire::kHeaderEnd + little16(mFrame, wire::kLengthAt)) checkFrame();
}

void McuApplication::startOver(const std::string& why) {
    mBoard.violation("mcu", why);
    ++mBadFrames;
    mFrame.clear();
}

void McuApplication::checkHeader() {
    mInNoise = false;
    const uint16_t length = little16(mFrame, wire::kLengthAt);
    if (little16(mFrame, 2) != 0) return startOver("reserved word is not 0");
    if (little16(mFrame, wire::kFixedAt) != 0x0100) return startOver("fixed word is not 0x0100");
    if (length < wire::kLengthOverPayload ||
        length > wire::kLengthOverPayload + wire::kPayloadMax) {
        return startOver("length " + std::to_string(length) + " is out of range");
    }
}

void McuApplication::checkFrame() {
    const size_t body = mFrame.size() - 2;
    const uint8_t flags = mFrame[wire::kFlagsAt];
    if (little16(mFrame, body) != sumOf(mFrame, body)) return startOver("checksum is wrong");
    if ((flags & wire::kTypeMask) != wire::kRequest) return startOver("frame is no request");
    if ((flags & wire::kUnused) != 0) return startOver("unused flag bits are set");
    if (mFrame[wire::kReservedAt] != 0) return startOver("reserved byte is not 0");
    if (little32(mFrame, wire::kScopeAt) != 0 && !isUpdatersQuery(mFrame)) {
        return startOver("word after the command is not 0");
    }
    accept();
}

void McuApplication::accept() {
    const std::vector<uint8_t> frame = std::exchange(mFrame, {});
    Request request{mBoard.scheduler.now(),
                    little16(frame, wire::kLabelAt),
                    frame[wire::kFlagsAt],
                    (frame[wire::kFlagsAt] & wire::kWrite) != 0,
                    little32(frame, wire::kCommandAt),
                    {frame.begin() + wire::kPayloadAt, frame.end() - 2},
                    frame};
    if (mBoard.trace.recording()) {
        mBoard.trace.add(EventKind::kFrame, "mcu", describeFrame("request", frame), frame);
        mRequests.push_back(request);
    }
    if (!mBoard.power.isOn()) return;
    answer(request);
}

std::vector<uint8_t> McuApplication::answerTo(const Request& request) {
    if (request.isWrite) {
        const auto [kept, isNew] = mValues.try_emplace(request.cmd);
        if (isNew || kept->second != request.payload) {
            kept->second = request.payload;
            saveValues();
        }
    }
    if (const auto fixed = mFixedAnswers.find(request.cmd); fixed != mFixedAnswers.end()) {
        return fixed->second;
    }
    if (request.isWrite) return {0x00};
    if (isUpdatersQuery(request.frame)) return identification();
    if (request.cmd == kVersionCommand) return {mVersion.begin(), mVersion.end()};
    const auto kept = mValues.find(request.cmd);
    return kept == mValues.end() ? std::vector<uint8_t>(4) : kept->second;
}

std::vector<uint8_t> McuApplication::identification() const {
    std::string text = mPartName;
    text.resize(kIdentificationPart);
    text += mVersion;
    text.resize(kIdentificationPart + kIdentificationVersion);
    return {text.begin(), text.end()};
}

void McuApplication::answer(const Request& request) {
    const std::vector<uint8_t> payload = answerTo(request);
    if (mSilent) return;
    const auto headerEnd = request.frame.begin() + wire::kPayloadAt;
    auto frame =
        buildAnswer({request.frame.begin(), headerEnd}, request.cmd, request.isWrite, payload);
    mBoard.scheduler.at(mBoard.scheduler.now() + kAnswerDelay,
                        [this, epoch = mEpoch, frame = std::move(frame)] {
                            if (epoch == mEpoch) send(frame);
                        });
}

void McuApplication::send(std::vector<uint8_t> frame) {
    mBoard.trace.add(EventKind::kFrame, "mcu", describeFrame("answer", frame), frame);
    if (mCorrupt) frame[frame.size() - 2] ^= 0x01;
    mUart.sendToHost(mNoiseBefore);
    mUart.sendToHost(frame);
    mUart.sendToHost(mNoiseAfter);
}

std::vector<McuApplication::Request> McuApplication::requests() const {
    Guard guard(boardLock());
    return mRequests;
}

size_t McuApplication::badFrames() const {
    Guard guard(boardLock());
    return mBadFrames;
}

bool McuApplication::knows(uint32_t cmd) const {
    Guard guard(boardLock());
    return cmd == kVersionCommand || mValues.count(cmd) != 0 || mFixedAnswers.count(cmd) != 0;
}

void McuApplication::setSilent(bool silent) {
    Guard guard(boardLock());
    mSilent = silent;
}

void McuApplication::setNoise(std::vector<uint8_t> before, std::vector<uint8_t> after) {
    Guard guard(boardLock());
    mNoiseBefore = std::move(before);
    mNoiseAfter = std::move(after);
}

void McuApplication::setCorruptAnswers(bool corrupt) {
    Guard guard(boardLock());
    mCorrupt = corrupt;
}

void McuApplication::setAnswer(uint32_t cmd, std::vector<uint8_t> payload) {
    Guard guard(boardLock());
    mFixedAnswers[cmd] = std::move(payload);
}

void McuApplication::setLine(LineSettings line) {
    Guard guard(boardLock());
    mLine = line;
}

void McuApplication::sendUnsolicited(const std::vector<uint8_t>& payload, uint32_t cmd) {
    Guard guard(boardLock());
    if (mRunning) send(buildAnswer({}, cmd, false, payload));
}

LineSettings McuApplication::lineSettings() const { return mLine; }

}  // namespace quil::board
