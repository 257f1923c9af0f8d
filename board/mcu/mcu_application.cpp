#include "board/mcu/mcu_application.h"

#include <cstdio>
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
        std::accumulate(bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(count), 0U));
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

std::string describe(const char* what, const std::vector<uint8_t>& frame) {
    char text[96];
    snprintf(text, sizeof text, "%s label=%u cmd=0x%08x %s payload=%zu", what,
             little16(frame, wire::kLabelAt), little32(frame, wire::kCommandAt),
             frame[wire::kFlagsAt] & wire::kWrite ? "set" : "get",
             frame.size() - wire::kFrameOverPayload);
    return text;
}

}  // namespace

McuApplication::McuApplication(BoardServices& board, Uart& uart, int baud)
    : board_(board), uart_(uart) {
    line_.baud = baud;
    load();
}

McuApplication::~McuApplication() = default;

void McuApplication::start(std::string partName, std::string version) {
    partName_ = std::move(partName);
    version_ = std::move(version);
    running_ = true;
    ++epoch_;
}

void McuApplication::stop() {
    running_ = inNoise_ = false;
    frame_.clear();
    ++epoch_;
}

void McuApplication::load() {
    std::istringstream lines(board_.store->read(kValuesFile).value_or(""));
    for (std::string line; std::getline(lines, line);) {
        const size_t equals = line.find('=');
        if (equals == std::string::npos) continue;
        std::vector<uint8_t> bytes;
        std::istringstream text(line.substr(equals + 1));
        for (unsigned byte = 0; text >> std::hex >> byte;)
            bytes.push_back(static_cast<uint8_t>(byte));
        values_[static_cast<uint32_t>(strtoul(line.c_str(), nullptr, 16))] = bytes;
    }
}

void McuApplication::saveValues() const {
    std::string text;
    char key[16];
    for (const auto& [cmd, bytes] : values_) {
        snprintf(key, sizeof key, "0x%08x = ", cmd);
        text += key + hexOf(bytes) + "\n";
    }
    board_.store->replace(kValuesFile, text);
}

void McuApplication::receive(uint8_t byte) {
    const Nanos now = board_.scheduler.now();
    if (!frame_.empty() && now - lastByte_ > kLongestGap) startOver("a frame broke off");
    lastByte_ = now;
    const uint8_t expected = frame_.empty() ? wire::kMagic0 : wire::kMagic1;
    if (frame_.size() < 2 && byte != expected) {
        frame_.clear();
        if (byte != wire::kMagic0) {
            if (!inNoise_) startOver("bytes that start no frame");
            inNoise_ = true;
            return;
        }
    }
    frame_.push_back(byte);
    if (frame_.size() == wire::kHeaderEnd) checkHeader();
    if (frame_.size() < wire::kHeaderEnd) return;
    if (frame_.size() == wire::kHeaderEnd + little16(frame_, wire::kLengthAt)) checkFrame();
}

void McuApplication::startOver(const std::string& why) {
    board_.violation("mcu", why);
    ++badFrames_;
    frame_.clear();
}

void McuApplication::checkHeader() {
    inNoise_ = false;
    const uint16_t length = little16(frame_, wire::kLengthAt);
    if (little16(frame_, 2) != 0) return startOver("reserved word is not 0");
    if (little16(frame_, wire::kFixedAt) != 0x0100) return startOver("fixed word is not 0x0100");
    if (length < wire::kLengthOverPayload ||
        length > wire::kLengthOverPayload + wire::kPayloadMax) {
        return startOver("length " + std::to_string(length) + " is out of range");
    }
}

void McuApplication::checkFrame() {
    const size_t body = frame_.size() - 2;
    const uint8_t flags = frame_[wire::kFlagsAt];
    if (little16(frame_, body) != sumOf(frame_, body)) return startOver("checksum is wrong");
    if ((flags & wire::kTypeMask) != wire::kRequest) return startOver("frame is no request");
    if ((flags & wire::kUnused) != 0) return startOver("unused flag bits are set");
    if (frame_[wire::kReservedAt] != 0) return startOver("reserved byte is not 0");
    if (little32(frame_, wire::kScopeAt) != 0 && !isUpdatersQuery(frame_)) {
        return startOver("word after the command is not 0");
    }
    accept();
}

void McuApplication::accept() {
    const std::vector<uint8_t> frame = std::exchange(frame_, {});
    Request request{board_.scheduler.now(),
                    little16(frame, wire::kLabelAt),
                    frame[wire::kFlagsAt],
                    (frame[wire::kFlagsAt] & wire::kWrite) != 0,
                    little32(frame, wire::kCommandAt),
                    {frame.begin() + wire::kPayloadAt, frame.end() - 2},
                    frame};
    if (board_.trace.recording()) {
        board_.trace.add(EventKind::kFrame, "mcu", describe("request", frame), frame);
        requests_.push_back(request);
        framesSeen_.push_back(frame);
    }
    if (!board_.power.isOn()) return;
    answer(request);
}

std::vector<uint8_t> McuApplication::answerTo(const Request& request) {
    if (request.isWrite) {
        const auto [kept, isNew] = values_.try_emplace(request.cmd);
        if (isNew || kept->second != request.payload) {
            kept->second = request.payload;
            saveValues();
        }
    }
    if (const auto fixed = fixedAnswers_.find(request.cmd); fixed != fixedAnswers_.end()) {
        return fixed->second;
    }
    if (request.isWrite) return {0x00};
    if (isUpdatersQuery(request.frame)) return identification();
    if (request.cmd == kVersionCommand) return {version_.begin(), version_.end()};
    const auto kept = values_.find(request.cmd);
    return kept == values_.end() ? std::vector<uint8_t>(4) : kept->second;
}

std::vector<uint8_t> McuApplication::identification() const {
    std::string text = partName_;
    text.resize(kIdentificationPart);
    text += version_;
    text.resize(kIdentificationPart + kIdentificationVersion);
    return {text.begin(), text.end()};
}

void McuApplication::answer(const Request& request) {
    const std::vector<uint8_t> payload = answerTo(request);
    if (silent_) return;
    const auto headerEnd = request.frame.begin() + wire::kPayloadAt;
    auto frame =
        buildAnswer({request.frame.begin(), headerEnd}, request.cmd, request.isWrite, payload);
    board_.scheduler.at(board_.scheduler.now() + kAnswerDelay,
                        [this, epoch = epoch_, frame = std::move(frame)] {
                            if (epoch == epoch_) send(frame);
                        });
}

void McuApplication::send(std::vector<uint8_t> frame) {
    board_.trace.add(EventKind::kFrame, "mcu", describe("answer", frame), frame);
    if (corrupt_) frame[frame.size() - 2] ^= 0x01;
    uart_.sendToHost(noiseBefore_);
    uart_.sendToHost(frame);
    uart_.sendToHost(noiseAfter_);
}

std::vector<McuApplication::Request> McuApplication::requests() const {
    Guard guard(boardLock());
    return requests_;
}

std::vector<std::vector<uint8_t>> McuApplication::framesSeen() const {
    Guard guard(boardLock());
    return framesSeen_;
}

size_t McuApplication::badFrames() const {
    Guard guard(boardLock());
    return badFrames_;
}

void McuApplication::setSilent(bool silent) {
    Guard guard(boardLock());
    silent_ = silent;
}

void McuApplication::setNoise(std::vector<uint8_t> before, std::vector<uint8_t> after) {
    Guard guard(boardLock());
    noiseBefore_ = std::move(before);
    noiseAfter_ = std::move(after);
}

void McuApplication::setCorruptAnswers(bool corrupt) {
    Guard guard(boardLock());
    corrupt_ = corrupt;
}

void McuApplication::setAnswer(uint32_t cmd, std::vector<uint8_t> payload) {
    Guard guard(boardLock());
    fixedAnswers_[cmd] = std::move(payload);
}

void McuApplication::setLine(LineSettings line) {
    Guard guard(boardLock());
    line_ = line;
}

void McuApplication::sendUnsolicited(const std::vector<uint8_t>& payload, uint32_t cmd) {
    Guard guard(boardLock());
    if (running_) send(buildAnswer({}, cmd, false, payload));
}

LineSettings McuApplication::lineSettings() const { return line_; }

}  // namespace quil::board
