// The programmer with a boot loader that answers anything. Input: a byte for the part (bits 0 to 2)
// and what follows the script (bits 3 and 4), a byte for the image's size; then the script: for
// each write of the programmer, a byte that selects the answer. The answers of a good part, which
// has a flash, and any other bytes mix.
#include <string.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <iterator>

#include "fuzz/check.h"
#include "fuzz/input.h"
#include "fuzz/targets.h"
#include "programmer/n32.h"
#include "programmer/session.h"

namespace quil::fuzz {
namespace {

using programmer::Bytes;
using programmer::Nanos;
using programmer::Outcome;
using std::chrono::milliseconds;

constexpr std::array<size_t, 4> kLengths = {64, 300, 2600, 5000};
constexpr size_t kCells = 0x4000;  // of the flash; more than the images and their pages

// A line whose other end follows a script: it hears what is written, and sends what it likes. With
// an empty script it is a simple part, which answers by its flash.
class HostileLine : public programmer::Transport {
  public:
    HostileLine(const programmer::Part& part, Input script, uint8_t after)
        : mPart(part), mScript(script), mAfter(after), mCells(kCells, 0xFF) {}

    void write(std::span<const uint8_t> bytes) override {
        mNow += milliseconds(1);
        ++mCalls;
        mSent.assign(bytes.begin(), bytes.end());
        if (mScript.empty()) answerAsAPart();
        if (!mScript.empty()) answerAsScripted();
    }
    size_t read(std::span<uint8_t> into, Nanos deadline) override {
        check(deadline <= mNow + std::chrono::seconds(200), "a wait without limit");
        const size_t got = std::min(into.size(), mWaiting.size());
        std::copy_n(mWaiting.begin(), got, into.begin());
        mWaiting.erase(mWaiting.begin(), mWaiting.begin() + static_cast<ptrdiff_t>(got));
        mNow =
            got == into.size() && !into.empty() ? mNow + milliseconds(1) : std::max(mNow, deadline);
        return got;
    }
    bool lines(bool /*boot0*/, bool nrst) override {
        if (!nrst) restart();
        return true;
    }
    void setMode(const programmer::LineMode& /*mode*/) override { mWaiting.clear(); }
    Nanos now() const override { return mNow; }

    bool holds(std::span<const uint8_t> image) const {
        return std::equal(image.begin(), image.end(), mCells.begin());
    }
    size_t calls() const { return mCalls; }

  private:
    enum class Wants {
        kSync,
        kCommand,
        kReadAddress,
        kReadCount,
        kWriteAddress,
        kWriteData,
        kErase
    };

    void restart() {
        mWants = Wants::kSync;
        mWaiting.clear();
    }
    uint8_t cell(uint32_t at) const { return at < mCells.size() ? mCells[at] : 0xFF; }
    void programCell(uint32_t at, uint8_t byte) {
        if (at < mCells.size()) mCells[at] &= byte;
    }
    void eraseCells(uint64_t first, uint64_t size) {
        const auto from = std::min<uint64_t>(first, mCells.size());
        const auto count = std::min<uint64_t>(size, mCells.size() - from);
        std::fill_n(mCells.begin() + static_cast<ptrdiff_t>(from), count, uint8_t{0xFF});
    }
    void send(const Bytes& bytes) { mWaiting.insert(mWaiting.end(), bytes.begin(), bytes.end()); }

    // Bits 0 to 3: how many bytes of the script to send; bits 4 and 5: before them nothing, an ACK,
    // the right answer, a NACK.
    void answerAsScripted() {
        const uint8_t what = mScript.byte();
        const int before = what >> 4 & 3;
        if (before == 1) send({0x79});
        if (before == 2) answerAsAPart();
        if (before == 3) send({0x1F});
        const auto more = mScript.take(what & 0x0F);
        Bytes junk(more.begin(), more.end());
        if (isN32()) std::replace(junk.begin(), junk.end(), uint8_t{0xAA}, uint8_t{0});
        send(junk);
    }

    void answerAsAPart() {
        if (mAfter == 1) return;  // silence
        if (mAfter == 2) return send({0x79});
        if (isN32()) return answerAsN32();
        switch (mWants) {
            case Wants::kSync:
                mWants = Wants::kCommand;
                return send({0x79});
            case Wants::kCommand:
                return command();
            case Wants::kReadAddress:
            case Wants::kWriteAddress:
                return address();
            case Wants::kReadCount:
                return readBack();
            case Wants::kWriteData:
                return program();
            case Wants::kErase:
                return erase();
        }
    }
    void command() {
        if (mSent.size() != 2 || (mSent[0] ^ mSent[1]) != 0xFF) return send({0x1F});
        const auto id = static_cast<uint8_t>(mPart.productId >> 8);
        const uint32_t pid = mPart.gdPids[0];
        switch (mSent[0]) {
            case 0x00:
                return send({0x79, 3, 0x30, 0x00, 0x11, 0x44, 0x79});
            case 0x02:
                return send({0x79, 1, id, static_cast<uint8_t>(mPart.productId), 0x79});
            case 0x06:
                return send({0x79, 4, static_cast<uint8_t>(pid), static_cast<uint8_t>(pid >> 8),
                             static_cast<uint8_t>(pid >> 16), static_cast<uint8_t>(pid >> 24),
                             0x79});
            case 0x11:
                mWants = Wants::kReadAddress;
                return send({0x79});
            case 0x31:
                mWants = Wants::kWriteAddress;
                return send({0x79});
            case 0x44:
                mWants = Wants::kErase;
                return send({0x79});
            default:
                return send({0x1F});
        }
    }
    void address() {
        const bool reads = mWants == Wants::kReadAddress;
        mWants = Wants::kCommand;
        if (mSent.size() != 5 || tests::xorOf(mSent) != 0) return send({0x1F});
        mAddress = 0;
        for (size_t i = 0; i < 4; ++i) mAddress = mAddress << 8 | mSent[i];
        mAddress -= programmer::kFlashBase;
        mWants = reads ? Wants::kReadCount : Wants::kWriteData;
        send({0x79});
    }
    void readBack() {
        mWants = Wants::kCommand;
        if (mSent.size() != 2) return send({0x1F});
        Bytes bytes = {0x79};
        for (uint32_t i = 0; i <= mSent[0]; ++i) bytes.push_back(cell(mAddress + i));
        send(bytes);
    }
    void program() {
        mWants = Wants::kCommand;
        if (mSent.size() < 3 || mSent.size() != mSent[0] + 3U || tests::xorOf(mSent) != 0) {
            return send({0x1F});
        }
        for (uint32_t i = 0; i + 2 < mSent.size(); ++i) {
            programCell(mAddress + i, mSent[i + 1]);
        }
        send({0x79});
    }
    void erase() {
        mWants = Wants::kCommand;
        if (mSent.size() < 5 || tests::xorOf(mSent) != 0) return send({0x1F});
        for (size_t at = 2; at + 2 < mSent.size(); at += 2) {
            const auto number = static_cast<uint32_t>(mSent[at] << 8 | mSent[at + 1]);
            if (number >= mPart.pageCount()) continue;
            const programmer::Page page = mPart.page(number);
            eraseCells(page.address - programmer::kFlashBase, page.size);
        }
        send({0x79});
    }

    bool isN32() const { return mPart.protocol == programmer::Protocol::kN32; }
    uint32_t little(size_t at, size_t count) const {
        uint32_t value = 0;
        for (size_t i = count; i-- > 0;) value = value << 8 | mSent[at + i];
        return value;
    }
    // Its word on a CRC is believed, so an answer to that cannot be made of junk: see above.
    void answerAsN32() {
        constexpr size_t kLeast = 11, kBlockAt = 26, kInfo = 51;
        if (mSent.size() < kLeast || tests::xorOf(mSent) != 0) return;
        Bytes payload;
        bool isDone = true;
        if (mSent[2] == 0x10) {
            payload.assign(mPart.name, mPart.name + strlen(mPart.name));
            payload.resize(kInfo);
        }
        if (mSent[2] == 0x30) eraseOfN32(little(6, 2), little(8, 2));
        if (mSent[2] == 0x31 && mSent.size() > kBlockAt + 5) programOfN32(kBlockAt);
        if (mSent[2] == 0x32 && mSent.size() > kBlockAt + 8) isDone = agreesOfN32(kBlockAt);
        Bytes answer = {0xAA, 0x55, mSent[2], 0, static_cast<uint8_t>(payload.size()), 0};
        answer.insert(answer.end(), payload.begin(), payload.end());
        answer.push_back(isDone ? 0xA0 : 0xB0);
        answer.push_back(0);
        answer.push_back(tests::xorOf(answer));
        send(answer);
    }
    void eraseOfN32(uint32_t first, uint32_t count) {
        const uint64_t size = mPart.pageMap[0].size;
        eraseCells(first * size, count * size);
    }
    void programOfN32(size_t blockAt) {
        const uint32_t offset = little(6, 4) - programmer::kFlashBase;
        for (size_t i = blockAt; i + 5 < mSent.size(); ++i) {
            programCell(static_cast<uint32_t>(offset + i - blockAt), mSent[i]);
        }
    }
    bool agreesOfN32(size_t at) const {
        const uint32_t offset = little(at, 4) - programmer::kFlashBase, size = little(at + 4, 4);
        if (size > mPart.flashSize()) return false;
        Bytes bytes;
        for (uint32_t i = 0; i < size; ++i) bytes.push_back(cell(offset + i));
        return programmer::N32::crcOf(bytes) == little(6, 4);
    }

    const programmer::Part& mPart;
    Input mScript;
    const uint8_t mAfter;
    Nanos mNow{0};
    size_t mCalls = 0;
    Bytes mSent, mWaiting;
    Wants mWants = Wants::kSync;
    uint32_t mAddress = 0;
    Bytes mCells;
};

Bytes imageFor(const programmer::Part& part, size_t size) {
    Bytes image(size);
    for (size_t i = 0; i < size; ++i) image[i] = static_cast<uint8_t>(i * 7 + i / 256);
    const uint32_t words[] = {part.ram[0].base + part.ram[0].size, programmer::kFlashBase + 5};
    for (size_t i = 0; i < 8; ++i) image[i] = static_cast<uint8_t>(words[i / 4] >> i % 4 * 8);
    return image;
}

}  // namespace

// Scripted answers are too short to read like an image: a success has the image in the flash.
void programmerSession(std::span<const uint8_t> bytes) {
    Input input(bytes);
    const uint8_t circumstances = input.byte();
    const auto all = programmer::parts();
    const programmer::Part& part = all[(circumstances & 7) % all.size()];
    const Bytes image = imageFor(part, kLengths.at(input.byte() % kLengths.size()));
    HostileLine line(part, input, circumstances >> 3 & 3);

    double reached = 0;
    const programmer::Callbacks callbacks{
        .progress =
            [&reached](const programmer::Progress& progress) {
                check(progress.done >= reached, "progress goes back");
                reached = progress.done;
            },
    };
    programmer::Session session(line, {.chip = part.name}, callbacks);
    const programmer::Report report = session.flash(image);
    check(line.calls() < 100'000, "it goes on for ever");
    check(report.statistics.took < std::chrono::hours(2), "it takes too long");
    const bool isSuccess =
        report.outcome == Outcome::kProgrammed || report.outcome == Outcome::kAlreadyCurrent;
    check(!isSuccess || line.holds(image), "a success with a wrong flash");
    check(isSuccess == (reached == 1), "progress and outcome differ");
    check(isSuccess != !report.reason.empty(), "a failure without a reason");
}

}  // namespace quil::fuzz
