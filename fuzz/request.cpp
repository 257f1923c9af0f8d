// Requests of clients, through the service to the MCU and back. Input, for each request: a byte of
// circumstances, a length (16 bits), and that number of bytes; with kIsFilled also a number (16
// bits) that says how many bytes 0xA5 to append.
#include <unistd.h>

#include <memory>
#include <optional>

#include "fuzz/check.h"
#include "fuzz/input.h"
#include "fuzz/powered_board.h"
#include "fuzz/targets.h"
#include "host/mcu_reader.h"
#include "mculink/uart.h"
#include "service/quil_service_manager.h"
#include "testing/bytes.h"

namespace quil::fuzz {
namespace {

using namespace hardware::quilservicemanager::implementation;  // NOLINT: the thing fuzzed
using android::hardware::hidl_vec;
using tests::Bytes;

constexpr uint8_t kIsSet = 0x01, kMoodMask = 0x06, kIsUpdating = 0x08, kIsFilled = 0x10,
                  kIsLogged = 0x20;
enum Mood : uint8_t { kAnswers = 0x00, kSilent = 0x02, kCorrupt = 0x04, kNoisy = 0x06 };
constexpr size_t kRequestsMost = 3, kHeader = 8, kBodyMost = 65535;
constexpr size_t kPayloadMost = 4112;
// The library passes the log gate for each byte, which takes most of the time: an input has at most
// one request of about the longest payload, or is alone with one of about the longest body.
constexpr uint16_t kLongFrom = 0xF000, kFarFrom = 0xFFF0;
constexpr uint32_t kSelfTest = 0xFFFFFFF4, kMcuEnd = 0xF5000002, kVersion = 1;
constexpr auto kPatience = std::chrono::seconds(5);
constexpr auto kLineMost = std::chrono::seconds(1);  // the longest frames there and back

struct Request {
    uint8_t circumstances;
    Bytes bytes;

    Request(Input& input, bool isFirst) : circumstances(input.byte()) {
        const uint16_t length = input.word();
        const auto taken = input.take(length);
        bytes.assign(taken.begin(), taken.end());
        if (!has(kIsFilled)) return;
        const uint16_t drawn = input.word();
        size_t fill = drawn % 256;
        if (isFirst && drawn >= kLongFrom) fill += kPayloadMost - 128;
        if (isFirst && drawn >= kFarFrom && input.empty()) fill = drawn;
        bytes.resize(bytes.size() + fill, 0xA5);
    }
    bool has(uint8_t bit) const { return (circumstances & bit) != 0; }
    Mood mood() const { return static_cast<Mood>(circumstances & kMoodMask); }

    bool isWhole() const { return bytes.size() >= kHeader && bytes.size() <= kHeader + kBodyMost; }
    uint32_t word(size_t at, int size) const {
        uint32_t value = 0;
        for (int i = size - 1; i >= 0; --i) value = value << 8 | bytes[at + static_cast<size_t>(i)];
        return value;
    }
    uint32_t command() const { return word(0, 4); }
    Bytes body() const { return {bytes.begin() + kHeader, bytes.end()}; }
    bool isForTheMcu() const { return isWhole() && command() < kMcuEnd; }
    bool isSent() const {
        return isForTheMcu() && !has(kIsUpdating) && bytes.size() <= kHeader + kPayloadMost;
    }
};

class Conversation {
  public:
    Conversation() {
        check(parseConfigInfo() == 0, "the product file");
        config_info->mcu_fd = sdk_uart_init(kUart, 115200);
        check(config_info->mcu_fd >= 0, "the link");
        mReader = std::make_unique<host::McuReader>(
            config_info->mcu_fd,
            [this](const host::WireFrame& frame) { mService->wakeUp(frame.payload); });
    }

    ~Conversation() {
        mReader.reset();
        close(config_info->mcu_fd);
    }
    Conversation(const Conversation&) = delete;
    Conversation& operator=(const Conversation&) = delete;

    void run(const Request& request) {
        setScene(request);
        checkConversion(request);
        if (request.bytes.size() > kBodyMost / 2) return;  // refused like any above the longest
        const size_t sent = mBoard->mcu().requests().size();
        const auto start = mBoard->now();
        const Bytes answer = ask(request);
        check(mBoard->now() - start <= kPatience + kLineMost, "it takes too long");
        checkSent(request, mBoard->mcu().requests(), sent);
        checkAnswer(request, answer);
        check(mBoard->violations().empty(), "the MCU refuses something");
        mBoard->runFor(kLineMost);  // so that a late answer does not meet the next request
        mService->wakeUp(Bytes());
    }

  private:
    void setScene(const Request& request) {
        auto& mcu = mBoard->mcu();
        mcu.setSilent(request.mood() == kSilent);
        mcu.setCorruptAnswers(request.mood() == kCorrupt);
        const bool isNoisy = request.mood() == kNoisy;
        mcu.setNoise(isNoisy ? Bytes{0x55, 0xBB, 0x00} : Bytes(), isNoisy ? Bytes{0x55} : Bytes());
        config_info->fw_updating = request.has(kIsUpdating) ? 1 : 0;
        const bool isLogged = request.has(kIsLogged) && request.bytes.size() < 200;
        mBoard->properties().setForThisRun("persist.quil.device.log.level", isLogged ? "D" : "E");
    }

    void checkConversion(const Request& request) {
        tclvMsg msg;
        const int32_t result = mService->convertRequestToTclvMsg(request.bytes, &msg);
        check(result == (request.isWhole() ? 0 : -1), "another result of the conversion");
        if (result != 0) return;
        check(msg.cmd == request.command() && msg.errCode == request.word(4, 2), "other fields");
        check(msg.msgBody == request.body() && msg.length == msg.msgBody.size(), "another body");
    }

    Bytes ask(const Request& request) {
        std::optional<Bytes> answer;
        const auto take = [&](const hidl_vec<uint8_t>& bytes) {
            check(!answer, "a second answer");
            answer = bytes;
        };
        const auto status = request.has(kIsSet) ? mService->set(request.bytes, take)
                                                : mService->get(request.bytes, take);
        check(status.isOk() && answer.has_value(), "no answer");
        return *answer;
    }

    static void checkSent(const Request& request,
                          const std::vector<board::McuApplication::Request>& seen, size_t before) {
        check(seen.size() == before + (request.isSent() ? 1 : 0), "more or less than was asked");
        if (!request.isSent()) return;
        const auto& last = seen.back();
        check(last.cmd == request.command() && last.payload == request.body(), "another frame");
        check(last.isWrite == request.has(kIsSet), "read and write taken for each other");
    }

    void checkAnswer(const Request& request, const Bytes& answer) {
        if (request.isSent()) {
            const bool arrives = request.mood() == kAnswers || request.mood() == kNoisy;
            const Bytes expected = answerOfTheMcu(request);
            check(answer == (arrives ? expected : Bytes()), "another answer of the MCU");
        } else if (request.isForTheMcu() && request.has(kIsUpdating)) {
            check(answer == Bytes{0xFF}, "no 0xFF during an update");
        } else if (request.isWhole() && request.command() == kSelfTest && !request.has(kIsSet)) {
            check(answer.size() >= 10 && answer[0] == 0xF4, "no record of the self-test");
        } else {
            check(answer.empty(), "an answer to nothing");
        }
    }

    Bytes answerOfTheMcu(const Request& request) {
        if (request.has(kIsSet)) {
            mKept[request.command()] = request.body();
            return {0x00};
        }
        if (request.command() == kVersion) return {'V', '1', '.', '0', '.', '0'};
        const auto kept = mKept.find(request.command());
        return kept == mKept.end() ? Bytes(4) : kept->second;
    }

    PoweredBoard mBoard;
    std::map<uint32_t, Bytes> mKept;
    android::sp<QuilServiceManager> mService = new QuilServiceManager;
    std::unique_ptr<host::McuReader> mReader;
};

}  // namespace

void request(std::span<const uint8_t> bytes) {
    Input input(bytes);
    Conversation conversation;
    for (size_t i = 0; i < kRequestsMost && !input.empty(); ++i) {
        conversation.run(Request(input, i == 0));
    }
}

}  // namespace quil::fuzz
