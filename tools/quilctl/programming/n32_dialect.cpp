// The N32 family's UART boot loader, seen from the line: frames AA 55, command, 00, length,
// parameter, payload, XOR; answers AA 55, .., status A0 00, check byte.
#include <stddef.h>

#include <algorithm>
#include <array>

#include "host/wire_frame.h"
#include "tools/quilctl/programming/programming_watch.h"

namespace quil::tools {
namespace {

constexpr std::array<uint8_t, 2> kMagic = {0xAA, 0x55}, kDone = {0xA0, 0x00};
constexpr size_t kCommandAt = 2, kLengthAt = 4, kParameterAt = 6, kFrameOverPayload = 11;
constexpr size_t kPayloadBeforeImage = 16, kBlockCrc = 4;
constexpr size_t kStatusFromEnd = 3;
constexpr uint8_t kDownload = 0x31, kCrcCheck = 0x32;

struct N32Command {
    uint8_t code;
    const char* name;
    size_t answerSize;
};
constexpr std::array<N32Command, 5> kN32Commands = {{{0x01, "handshake", 9},
                                                     {0x10, "get info", 60},
                                                     {0x30, "erase", 9},
                                                     {kDownload, "write", 9},
                                                     {kCrcCheck, "CRC check", 9}}};

ProgrammingStep blockStep(const Bytes& written) {
    const uint32_t address = host::load32(written, kParameterAt);
    const uint32_t count =
        host::load16(written, kLengthAt) - static_cast<uint32_t>(kPayloadBeforeImage + kBlockCrc);
    return {"write " + std::to_string(count) + " bytes at " + hex32(address), false, true,
            address + count};
}

class N32Dialect : public BootLoaderDialect {
  public:
    std::optional<ProgrammingStep> stepOf(const Bytes& written, const Bytes&) override {
        mCommand = nullptr;
        if (written.size() < kFrameOverPayload ||
            !std::equal(kMagic.begin(), kMagic.end(), written.begin())) {
            return ProgrammingStep{toShortHex(written, 4)};
        }
        for (const N32Command& command : kN32Commands) {
            if (command.code == written[kCommandAt]) mCommand = &command;
        }
        if (mCommand == nullptr) return ProgrammingStep{toShortHex(written, 4)};
        return mCommand->code == kDownload ? blockStep(written) : ProgrammingStep{mCommand->name};
    }

    bool isGood(const Bytes& answer) const override {
        const auto start = startOf(answer);
        // The status in the answer to the CRC check is ignored.
        if (mCommand != nullptr && mCommand->code == kCrcCheck) return start != answer.end();
        const auto status = statusOf(answer);
        return status && *status == Bytes(kDone.begin(), kDone.end());
    }

    std::string describe(const Bytes& answer) const override {
        if (answer.empty()) return "nothing";
        const auto status = statusOf(answer);
        return status ? "status " + toHex(*status) : toShortHex(answer, 16);
    }

  private:
    static Bytes::const_iterator startOf(const Bytes& answer) {
        return std::search(answer.begin(), answer.end(), kMagic.begin(), kMagic.end());
    }

    std::optional<Bytes> statusOf(const Bytes& answer) const {
        const auto start = startOf(answer);
        const auto size = static_cast<size_t>(answer.end() - start);
        if (mCommand == nullptr || size < mCommand->answerSize) return std::nullopt;
        const auto status = start + static_cast<ptrdiff_t>(mCommand->answerSize - kStatusFromEnd);
        return Bytes(status, status + kDone.size());
    }

    const N32Command* mCommand = nullptr;
};

}  // namespace

std::unique_ptr<BootLoaderDialect> n32Dialect() { return std::make_unique<N32Dialect>(); }

}  // namespace quil::tools
