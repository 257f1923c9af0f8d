// The exported functions by their signatures, on a powered board. Input: a byte of circumstances, a
// fault (drawn_fault.h), the screen's partition (a byte of length, and so many bytes); then for
// each call a byte that selects the function, and what its arguments are drawn from.
#include <unistd.h>

#include "fuzz/check.h"
#include "fuzz/drawn_fault.h"
#include "fuzz/exported_calls.h"
#include "fuzz/input.h"
#include "fuzz/powered_board.h"
#include "fuzz/targets.h"
#include "isp/serial_port.h"
#include "mculink/uart.h"

namespace quil::fuzz {
namespace {

constexpr uint8_t kIsParsed = 0x01, kLogsAll = 0x02, kFpgaIsUp = 0x04, kHasLink = 0x08,
                  kNetworkIsUp = 0x10, kMcuIsSilent = 0x20, kIsFaulty = 0x40;
constexpr size_t kCallsMost = 6;
// The longest: five attempts at an update of an MCU that answers each byte late.
constexpr auto kLongest = std::chrono::minutes(20);

class Calls {
  public:
    explicit Calls(Input& input) : mInput(input), mArguments(input) {
        const uint8_t circumstances = input.byte();
        const auto is = [=](uint8_t bit) { return (circumstances & bit) != 0; };
        if (is(kLogsAll)) mBoard.logEverything();
        if (is(kIsParsed)) parseConfigInfo();
        if (is(kFpgaIsUp)) mBoard->runFor(std::chrono::seconds(1));
        if (is(kHasLink)) mArguments.addDescriptor(sdk_uart_init(kUart, 115200));
        if (is(kNetworkIsUp)) tests::networkIsUp();
        mBoard->mcu().setSilent(is(kMcuIsSilent));
        if (is(kIsFaulty)) addFault(*mBoard, input);
        const auto screen = input.take(input.byte());
        mBoard->writeFile("/dev/block/by-name/screen", textOf(screen));
        mBoard->trace().setRecording(is(kLogsAll));
    }
    ~Calls() {
        if (mBoard->isOpen(fd)) close(fd);
        for (const int descriptor : mArguments.descriptors()) {
            if (descriptor != fd && mBoard->isOpen(descriptor)) close(descriptor);
        }
    }
    Calls(const Calls&) = delete;
    Calls& operator=(const Calls&) = delete;

    void run() {
        bool wasLong = false;
        for (size_t n = 0; n < kCallsMost && !mInput.empty(); ++n) {
            const auto& all = exportedCalls();
            const ExportedCall& next = all[mInput.byte() % all.size()];
            if (next.isLong && wasLong) continue;
            wasLong = wasLong || next.isLong;
            const auto start = mBoard->now();
            const int64_t result = next.call(mArguments);
            check(result >= next.least && result <= next.most, next.name);
            check(mBoard->now() - start <= kLongest, "it takes too long");
        }
    }

  private:
    PoweredBoard mBoard;
    Input& mInput;
    Arguments mArguments;
};

}  // namespace

void exportedFunctions(std::span<const uint8_t> bytes) {
    Input input(bytes);
    Calls(input).run();
}

}  // namespace quil::fuzz
