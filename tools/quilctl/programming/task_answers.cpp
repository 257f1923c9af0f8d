#include "tools/quilctl/programming/task_answers.h"

#include <stdio.h>

#include <algorithm>
#include <functional>
#include <numeric>

#include "tools/quilctl/programming/boot_loader_names.h"
#include "tools/quilctl/programming/product_id.h"

namespace quil::tools {
namespace {

namespace loader {
constexpr uint8_t kSynchronise = 0x7F, kAck = 0x79, kNack = 0x1F;
constexpr uint8_t kGet = 0x00, kGetId = kAskForId, kGetPid = kAskForGdPid, kRead = 0x11,
                  kWrite = 0x31, kErase = 0x43, kExtendedErase = 0x44, kWriteUnprotect = 0x73,
                  kReadoutUnprotect = 0x92;
}  // namespace loader

bool isAcknowledged(const Bytes& answer) {
    return !answer.empty() && answer.front() == loader::kAck;
}

std::string refusal(const Bytes& answer) {
    if (answer.empty()) return "no answer";
    return answer.front() == loader::kNack ? "refused (NACK)" : "answered " + toShortHex(answer, 8);
}

std::string nameOfCode(uint8_t code) {
    for (const isp_cmd_t& row : isp_cmd_arr) {
        if (row.name != nullptr && row.code == code) return bootLoaderName(row);
    }
    char text[8];
    snprintf(text, sizeof(text), "0x%02x", code);
    return text;
}

// ACK, the number of commands, the version, the commands, ACK.
std::string commandsIn(const Bytes& answer) {
    if (answer.size() < 3) return "a short answer: " + toHex(answer);
    const size_t count = std::min<size_t>(answer[1], answer.size() - 3);
    char version[16];
    snprintf(version, sizeof(version), "%d.%d", answer[2] >> 4, answer[2] & 0x0F);
    std::string text = "boot loader " + std::string(version) + ", commands:";
    for (size_t i = 0; i < count; ++i) text += (i == 0 ? " " : ", ") + nameOfCode(answer[3 + i]);
    return text;
}

uint32_t bigEndian(const Bytes& bytes, size_t at, size_t count) {
    return std::accumulate(bytes.begin() + static_cast<ptrdiff_t>(at),
                           bytes.begin() + static_cast<ptrdiff_t>(at + count), uint32_t{0},
                           [](uint32_t sum, uint8_t byte) { return sum << 8 | byte; });
}

std::string productIn(uint8_t command, const Bytes& answer) {
    const auto id = productIdIn(command, answer);
    return id ? id->text() : "a short answer: " + toHex(answer);
}

// One less than their number, then the pages, two bytes each.
std::string pagesIn(const Bytes& sent) {
    if (sent.size() < 2) return "no pages";
    const uint32_t last = bigEndian(sent, 0, 2);
    if (last == 0xFFFF) return "everything";
    if (sent.size() < 4 + 2 * size_t{last}) return "a page list that is cut off";
    const std::string from = std::to_string(bigEndian(sent, 2, 2));
    const std::string to = std::to_string(bigEndian(sent, 2 + 2 * size_t{last}, 2));
    return last == 0 ? "page " + from : std::to_string(last + 1) + " pages, " + from + " to " + to;
}

// Goes through the exchanges of a session.
class Decoder {
  public:
    template <typename Exchange>
    std::vector<TaskAnswer> decode(const std::vector<Exchange>& exchanges) {
        for (const Exchange& one : exchanges) step(one.sent, one.answer);
        return std::move(mAnswers);
    }

  private:
    enum class Awaits { kCommand, kPages, kAddress, kData, kRest };

    void step(const Bytes& sent, const Bytes& answer) {
        switch (mAwaits) {
            case Awaits::kCommand:
                return command(sent, answer);
            case Awaits::kPages:
                return pages(sent, answer);
            case Awaits::kAddress:
                return address(sent, answer);
            case Awaits::kData:
                return data(sent, answer);
            case Awaits::kRest:
                mAwaits = Awaits::kCommand;
                return mEnd(answer);
        }
    }

    void add(const std::string& asked, const Bytes& answer, const std::string& said) {
        const bool isGood = isAcknowledged(answer);
        mAnswers.push_back({asked, isGood, isGood ? said : refusal(answer)});
    }

    void command(const Bytes& sent, const Bytes& answer) {
        if (sent == Bytes{loader::kSynchronise}) return add("boot loader", answer, "answers");
        if (sent.size() != 2 || (sent[0] ^ sent[1]) != 0xFF) return;
        mCode = sent[0];
        const std::string name = nameOfCode(mCode);
        if (!isAcknowledged(answer)) return add(name, answer, "");
        switch (mCode) {
            case loader::kGet:
                return add(name, answer, commandsIn(answer));
            case loader::kGetId:
            case loader::kGetPid:
                return add(name, answer, productIn(mCode, answer));
            case loader::kWriteUnprotect:
                return add(name, answer, "no sector is protected from writing");
            case loader::kReadoutUnprotect:
                return add(name, answer, "the flash is not protected from reading");
            case loader::kErase:
            case loader::kExtendedErase:
                mAwaits = Awaits::kPages;
                return;
            case loader::kRead:
            case loader::kWrite:
                mAwaits = Awaits::kAddress;
                return;
            default:
                return add(name, answer, "done");
        }
    }

    // The plain erase is sent as two single bytes.
    void pages(const Bytes& sent, const Bytes& answer) {
        mAwaits = Awaits::kCommand;
        const std::string name = nameOfCode(mCode);
        if (mCode == loader::kExtendedErase) return add(name, answer, pagesIn(sent));
        mAwaits = Awaits::kRest;
        mEnd = [this, name](const Bytes& last) { add(name, last, "everything"); };
    }

    void address(const Bytes& sent, const Bytes& answer) {
        mAwaits = Awaits::kCommand;
        if (sent.size() < 4) return;
        mAddress = bigEndian(sent, 0, 4);
        if (!isAcknowledged(answer)) return block(answer, 0);
        mAwaits = Awaits::kData;
    }

    void data(const Bytes& sent, const Bytes& answer) {
        mAwaits = Awaits::kCommand;
        const size_t count = sent.empty() ? 0 : sent[0] + 1U;
        if (mCode == loader::kRead) return block(answer, answer.empty() ? 0 : answer.size() - 1);
        mAwaits = Awaits::kRest;
        mEnd = [this, count](const Bytes& last) { block(last, count); };
    }

    // Blocks that follow each other are one answer.
    void block(const Bytes& answer, size_t count) {
        const std::string name = nameOfCode(mCode);
        const bool goesOn = !mAnswers.empty() && mAnswers.back().asked == name &&
                            mAnswers.back().isGood && mAddress == mNext;
        if (!isAcknowledged(answer)) {
            return add(name + " at " + hex32(mAddress), answer, "");
        }
        if (!goesOn) mAnswers.push_back({name, true, "", 0});
        if (!goesOn) mFirst = mAddress;
        TaskAnswer& all = mAnswers.back();
        all.bytes += count;
        all.said = std::to_string(all.bytes) + " bytes from " + hex32(mFirst);
        mNext = mAddress + static_cast<uint32_t>(count);
    }

    Awaits mAwaits = Awaits::kCommand;
    uint8_t mCode = 0;
    uint32_t mAddress = 0, mFirst = 0, mNext = 0;
    std::function<void(const Bytes&)> mEnd;
    std::vector<TaskAnswer> mAnswers;
};

}  // namespace

void TaskAnswers::see(const board::Event& event) {
    if (event.source != mPort) return;
    if (event.kind == board::EventKind::kUartTx) mExchanges.push_back({event.bytes, {}});
    if (event.kind != board::EventKind::kUartRx || mExchanges.empty()) return;
    Bytes& answer = mExchanges.back().answer;
    answer.insert(answer.end(), event.bytes.begin(), event.bytes.end());
}

std::vector<TaskAnswer> TaskAnswers::decoded() const { return Decoder().decode(mExchanges); }

}  // namespace quil::tools
