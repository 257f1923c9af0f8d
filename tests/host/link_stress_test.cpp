// The MCU link over a line that flips, drops and doubles bytes, with resets of the MCU and answers
// that come too late.
#include <algorithm>
#include <map>

#include "board/core/random.h"
#include "host/frame_assembler.h"
#include "host/hosting_component.h"
#include "testing/library_test.h"
#include "testing/slowed.h"

namespace quil::tests {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

constexpr uint32_t kCommands = 256, kFirstCommand = 0x100;
constexpr board::NoiseRates kNoise = {.flipped = 100, .dropped = 100, .doubled = 100};

// No two commands have the same answer, and no flipped bit makes one of the other.
Bytes answerOfCommand(uint32_t command) {
    const auto low = static_cast<uint8_t>(command);
    return {low, static_cast<uint8_t>(~low), 0x5A, low};
}

// As many as the variable QUIL_LINK_REQUESTS says.
uint64_t requestsToSend() {
    const char* text = getenv("QUIL_LINK_REQUESTS");
    if (text != nullptr) return strtoull(text, nullptr, 10);
    return kSlowed ? 200 : 500;
}

// What the noise can make of a byte, each with its rate.
std::vector<std::pair<Bytes, double>> noiseOn(uint8_t byte) {
    std::vector<std::pair<Bytes, double>> errors = {{{}, kNoise.dropped / 1e6},
                                                    {{byte, byte}, kNoise.doubled / 1e6}};
    for (unsigned bit = 0; bit < 8; ++bit) {
        errors.push_back({{static_cast<uint8_t>(byte ^ 1U << bit)}, kNoise.flipped / 8e6});
    }
    return errors;
}

// A good frame with another command or payload.
bool isTakenForAnother(const Bytes& sent, const host::WireFrame& frame) {
    host::FrameAssembler assembler;
    auto heard = assembler.feed(sent);
    for (auto& late : assembler.lineWentSilent()) heard.push_back(std::move(late));
    return !heard.empty() &&
           (heard[0].command != frame.command || heard[0].payload != frame.payload);
}

// How often, in a million frames, two errors in it make another good frame of it.
double unnoticedInAMillion(const host::WireFrame& frame) {
    const Bytes bytes = host::buildFrame(frame);
    double rate = 0;
    for (size_t i = 0; i < bytes.size(); ++i) {
        for (size_t j = i + 1; j < bytes.size(); ++j) {
            const Bytes head(bytes.begin(), bytes.begin() + static_cast<ptrdiff_t>(i));
            const Bytes middle(bytes.begin() + static_cast<ptrdiff_t>(i) + 1,
                               bytes.begin() + static_cast<ptrdiff_t>(j));
            const Bytes tail(bytes.begin() + static_cast<ptrdiff_t>(j) + 1, bytes.end());
            for (const auto& [first, firstRate] : noiseOn(bytes[i])) {
                for (const auto& [second, secondRate] : noiseOn(bytes[j])) {
                    const Bytes sent = head + first + middle + second + tail;
                    if (isTakenForAnother(sent, frame)) rate += firstRate * secondRate;
                }
            }
        }
    }
    return rate * 1e6;
}

// Of requests and answers.
double unnoticedInAMillion() {
    host::WireFrame request;
    request.label = 0x1234;
    request.command = kFirstCommand + 0x35;
    host::WireFrame answer = request;
    answer.flags = host::wire::kTypeAnswer;
    answer.payload = answerOfCommand(request.command);
    return unnoticedInAMillion(request) + unnoticedInAMillion(answer);
}

class LinkUnderStress : public LibraryTest {
  protected:
    enum class Answer { kRight, kNone, kStale, kWrong };

    LinkUnderStress() {
        board.trace().setRecording(false);
        for (uint32_t i = 0; i < kCommands; ++i) {
            board.mcu().setAnswer(kFirstCommand + i, answerOfCommand(kFirstCommand + i));
        }
        standardOutputOf([this] { EXPECT_TRUE(host.start({.updateMcu = false}).ok()); });
    }

    // Each request's command differs from those of the 255 before it.
    Answer ask(uint64_t number) {
        const auto command = kFirstCommand + static_cast<uint32_t>(number % kCommands);
        Bytes answer;
        host.service()->get(Bytes{static_cast<uint8_t>(command), 1, 0, 0, 0, 0, 0, 0},
                            [&](const android::hardware::hidl_vec<uint8_t>& bytes) {
                                answer.assign(bytes.begin(), bytes.end());
                            });
        if (answer.empty()) return Answer::kNone;
        if (answer == answerOfCommand(command)) return Answer::kRight;
        for (uint64_t before = 1; before <= std::min<uint64_t>(number, 8); ++before) {
            const auto earlier =
                kFirstCommand + static_cast<uint32_t>((number - before) % kCommands);
            if (answer == answerOfCommand(earlier)) return Answer::kStale;
        }
        return Answer::kWrong;
    }

    // Now and then, a reset of the MCU in the middle, or an answer later than a client waits.
    void hinder() {
        if (random.hits(2'000)) {
            board.after(milliseconds(3), [this] { board.gpio().at("MCU_NRST").drive(0); });
            board.after(milliseconds(4), [this] { board.gpio().at("MCU_NRST").drive(1); });
        }
        if (random.hits(2'000)) delayTheNextAnswer();
    }

    void delayTheNextAnswer() {
        ++late;
        board.mcuUart().addFault(
            {.kind = board::LineFault::Kind::kLate, .fromHost = false, .delay = seconds(6)});
    }

    // How many of each there were. A request never takes longer than its client's five seconds.
    std::map<Answer, uint64_t> askMany(uint64_t requests) {
        std::map<Answer, uint64_t> answers;
        uint64_t unansweredInARow = 0;
        for (uint64_t i = 0; i < requests; ++i) {
            hinder();
            const auto before = board.now();
            const Answer answer = ask(i);
            EXPECT_LE(board.now() - before, milliseconds(5'100)) << i;
            ++answers[answer];
            unansweredInARow = answer == Answer::kNone ? unansweredInARow + 1 : 0;
            EXPECT_LE(unansweredInARow, 5U) << i;
            board.runFor(milliseconds(100));
        }
        return answers;
    }

    board::Random random{1, "link stress"};
    uint64_t late = 0;
    host::HostingComponent host;
};

TEST_F(LinkUnderStress, EveryRequestEndsAndAnAnswerIsRightOrAnEarlierRequestsOrNone) {
    const uint64_t requests = requestsToSend();
    board.mcuUart().addNoise(1, kNoise);
    std::map<Answer, uint64_t> answers;
    standardOutputOf([&] { answers = askMany(requests); });
    EXPECT_GT(answers[Answer::kRight], requests * 9 / 10);
    EXPECT_GT(answers[Answer::kNone], 0U);
    EXPECT_LE(answers[Answer::kStale], 2 * late) << "of the request after a late answer";
    // The sum is a weak one, and misses some pairs of errors.
    const double computed = requests < 1'000'000 ? 0 : unnoticedInAMillion();
    EXPECT_LE(static_cast<double>(answers[Answer::kWrong]), 5 * computed);
    const auto statistics = host.reader()->statistics();
    printf(
        "%llu requests: %llu right, %llu without an answer, %llu stale, %llu wrong "
        "(computed: %.2f in a million); %llu frames with a wrong sum, %llu broken off\n",
        static_cast<unsigned long long>(requests),
        static_cast<unsigned long long>(answers[Answer::kRight]),
        static_cast<unsigned long long>(answers[Answer::kNone]),
        static_cast<unsigned long long>(answers[Answer::kStale]),
        static_cast<unsigned long long>(answers[Answer::kWrong]), computed,
        static_cast<unsigned long long>(statistics.badChecksums),
        static_cast<unsigned long long>(statistics.abandoned));
    EXPECT_FALSE(host.reader()->linkLost());
}

// The mailbox has one slot and matches no answer to its request: that is what it costs.
TEST_F(LinkUnderStress, ClientWithoutPausesStaysOneAnswerBehindALateOneUntilItPauses) {
    std::vector<Answer> answers;
    standardOutputOf([&] {
        delayTheNextAnswer();
        for (uint64_t i = 0; i < 5; ++i) answers.push_back(ask(i));
        board.runFor(milliseconds(100));
        answers.push_back(ask(5));
    });
    EXPECT_THAT(answers, testing::ElementsAre(Answer::kNone, Answer::kStale, Answer::kStale,
                                              Answer::kStale, Answer::kStale, Answer::kRight));
}

}  // namespace
}  // namespace quil::tests
