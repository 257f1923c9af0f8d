// The USART boot-loader protocol of the STM32 family (ST application note AN3155), seen from the
// line.
#include <array>
#include <numeric>

#include "tools/quilctl/programming/product_id.h"
#include "tools/quilctl/programming/programming_watch.h"

namespace quil::tools {
namespace {

constexpr uint8_t kSynchronise = 0x7F, kAck = 0x79, kNack = 0x1F;
constexpr uint8_t kReadMemory = 0x11, kWriteMemory = 0x31, kErase = 0x43, kExtendedErase = 0x44;
constexpr size_t kAddressSize = 5;
constexpr uint16_t kMassErase = 0xFFFF;

struct Stm32Command {
    uint8_t code;
    const char* name;
    bool isQuestion;
};
constexpr std::array<Stm32Command, 13> kStm32Commands = {{
    {0x00, "get the commands", false},
    {0x01, "get the version", false},
    {kAskForId, "get the product id", true},
    {kAskForGdPid, "get the GD32 product id", true},
    {kReadMemory, "read", false},
    {0x21, "go", false},
    {kWriteMemory, "write", false},
    {kErase, "erase", false},
    {kExtendedErase, "erase", false},
    {0x63, "protect from writing", false},
    {0x73, "allow writing", false},
    {0x82, "protect from reading", false},
    {0x92, "allow reading", false},
}};

const Stm32Command* findCommand(const Bytes& written) {
    if (written.size() != 2 || (written[0] ^ written[1]) != 0xFF) return nullptr;
    for (const Stm32Command& command : kStm32Commands) {
        if (command.code == written[0]) return &command;
    }
    return nullptr;
}

uint32_t addressOf(const Bytes& written) {
    return std::accumulate(written.begin(), written.begin() + 4, uint32_t{0},
                           [](uint32_t sum, uint8_t byte) { return sum << 8 | byte; });
}

// The pages of an extended erase; nothing for everything.
std::string pagesOf(const Bytes& written) {
    const auto last = static_cast<uint16_t>(written[0] << 8 | written[1]);
    if (last == kMassErase) return "erase everything";
    return "erase " + std::to_string(last + 1) + (last == 0 ? " page" : " pages");
}

class Stm32Dialect : public BootLoaderDialect {
  public:
    std::optional<ProgrammingStep> stepOf(const Bytes& written, const Bytes& answer) override {
        // After a refused command nothing follows.
        if (mAwaits != Part::kRestOfData && !isGood(answer)) mAwaits = Part::kCommand;
        switch (mAwaits) {
            case Part::kCommand:
                return commandStep(written);
            case Part::kPages:
                return pagesStep(written);
            case Part::kAddress:
                return addressStep(written);
            case Part::kData:
                return dataStep(written);
            case Part::kRestOfData:
                mAwaits = Part::kCommand;
                return std::nullopt;
        }
        return std::nullopt;
    }

    bool isGood(const Bytes& answer) const override {
        return !answer.empty() && answer.front() == kAck;
    }

    std::string describe(const Bytes& answer) const override {
        if (answer.empty()) return "nothing";
        if (answer == Bytes{kAck}) return "ACK";
        if (answer == Bytes{kNack}) return "NACK (0x1F)";
        if (const auto id = productIdIn(mCode, answer)) return id->text();
        return toShortHex(answer, 16);
    }

  private:
    enum class Part { kCommand, kPages, kAddress, kData, kRestOfData };

    std::optional<ProgrammingStep> commandStep(const Bytes& written) {
        mCode = 0;
        if (written == Bytes{kSynchronise}) return ProgrammingStep{"synchronise"};
        const Stm32Command* command = findCommand(written);
        if (command == nullptr) return ProgrammingStep{toShortHex(written, 4)};
        mCode = command->code;
        if (mCode == kErase || mCode == kExtendedErase) mAwaits = Part::kPages;
        if (mCode == kReadMemory || mCode == kWriteMemory) mAwaits = Part::kAddress;
        return ProgrammingStep{command->name, command->isQuestion, mAwaits != Part::kCommand};
    }

    std::optional<ProgrammingStep> pagesStep(const Bytes& written) {
        mAwaits = Part::kCommand;
        if (mCode == kErase) {
            mAwaits = Part::kRestOfData;
            return ProgrammingStep{"erase everything"};
        }
        return ProgrammingStep{written.size() < 2 ? "erase" : pagesOf(written)};
    }

    std::optional<ProgrammingStep> addressStep(const Bytes& written) {
        mAwaits = Part::kCommand;
        if (written.size() != kAddressSize) return ProgrammingStep{toShortHex(written, 4)};
        mAwaits = Part::kData;
        mAddress = addressOf(written);
        return ProgrammingStep{"address " + hex32(mAddress), false, true};
    }

    std::optional<ProgrammingStep> dataStep(const Bytes& written) {
        mAwaits = mCode == kWriteMemory ? Part::kRestOfData : Part::kCommand;
        const uint32_t count = written.empty() ? 0 : written[0] + 1U;
        const std::string bytes = std::to_string(count) + " bytes at " + hex32(mAddress);
        if (mCode == kReadMemory) return ProgrammingStep{"read " + bytes, false, true};
        return ProgrammingStep{"write " + bytes, false, true, mAddress + count};
    }

    Part mAwaits = Part::kCommand;
    uint8_t mCode = 0;
    uint32_t mAddress = 0;
};

}  // namespace

std::unique_ptr<BootLoaderDialect> stm32Dialect() { return std::make_unique<Stm32Dialect>(); }

}  // namespace quil::tools
