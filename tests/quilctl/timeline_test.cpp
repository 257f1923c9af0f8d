#include "tools/quilctl/traces/timeline.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <map>

#include "testing/bytes.h"

using namespace std::chrono_literals;
using namespace quil;
using board::Event;
using board::EventKind;
using board::Nanos;
using quil::tests::Bytes;
using testing::ElementsAre;
using testing::IsEmpty;
using tools::Lane;
using tools::Span;
using tools::Timeline;
using tools::timelineOf;

namespace {

constexpr char kPort[] = "/dev/ttyS3";
constexpr char kFrameText[] = "label=1 cmd=0x00000001 get payload=0";

Event line(Nanos at, EventKind kind, size_t bytes) {
    return {at, kind, kPort, std::to_string(bytes) + " bytes", Bytes(bytes, 0x55)};
}

Event note(Nanos at, const std::string& source, const std::string& text) {
    return {at, EventKind::kNote, source, text, {}};
}

// 10 bits a byte at 10,000 bit/s: each takes 1 ms.
Event atOneByteAMillisecond() { return note(0ms, kPort, "set to 10000 8N1"); }

std::string shown(const Span& span) {
    return trackOf(span) + ": " + span.name + " " + std::to_string(span.from / 1us) + "+" +
           std::to_string((span.to - span.from) / 1us);
}

std::vector<std::string> spansOn(const Timeline& timeline, Lane lane) {
    std::vector<std::string> found;
    for (const Span& span : timeline.spans) {
        if (span.lane == lane && !span.isMoment) found.push_back(shown(span));
    }
    return found;
}

std::vector<std::string> samplesOf(const Timeline& timeline, const std::string& counter) {
    std::vector<std::string> found;
    for (const tools::Sample& sample : timeline.samples) {
        if (sample.counter != counter) continue;
        found.push_back(std::to_string(sample.at / 1us) + ": " +
                        std::to_string(static_cast<int>(sample.value)) + " " + sample.unit);
    }
    return found;
}

std::vector<Event> oneRequest() {
    return {atOneByteAMillisecond(),
            {1ms, EventKind::kRequest, "client", "get", {1}},
            line(1ms, EventKind::kUartTx, 4),
            {5ms, EventKind::kFrame, "mcu", std::string("request ") + kFrameText, {}},
            {6ms, EventKind::kFrame, "mcu", std::string("answer ") + kFrameText, {}},
            line(9ms, EventKind::kUartRx, 3),
            {9ms, EventKind::kRequest, "client", tools::kAnswered, {2}}};
}

}  // namespace

TEST(Timeline, RequestLastsUntilItsAnswerAndTheLineTakesTheTimeOfItsBytes) {
    const Timeline timeline = timelineOf(oneRequest());
    EXPECT_THAT(spansOn(timeline, Lane::kRequests),
                ElementsAre("requests: get 1000+8000", "requests: answered 9000+0"));
    EXPECT_THAT(spansOn(timeline, Lane::kMcuLink),
                ElementsAre("MCU link to the MCU: 4 bytes 1000+4000",
                            std::string("MCU link: request ") + kFrameText + " 5000+1000",
                            std::string("MCU link: answer ") + kFrameText + " 6000+0",
                            "MCU link from the MCU: 3 bytes 6000+3000"));
}

TEST(Timeline, FlowGoesFromTheRequestOverTheLineToTheMcuAndBack) {
    EXPECT_THAT(timelineOf(oneRequest()).flows, ElementsAre(ElementsAre(1, 2, 3, 4, 5, 6)));
}

TEST(Timeline, RequestWithoutAnAnswerEndsWithTheLastEvent) {
    std::vector<Event> events = oneRequest();
    events.resize(4);
    const Timeline timeline = timelineOf(events);
    EXPECT_THAT(spansOn(timeline, Lane::kRequests), ElementsAre("requests: get 1000+4000"));
    EXPECT_THAT(timeline.flows, ElementsAre(ElementsAre(1, 2, 3)));
}

TEST(Timeline, BytesThatWaitForTheLineAreCountedAndGoOutOneAfterTheOther) {
    const Timeline timeline = timelineOf({atOneByteAMillisecond(),
                                          line(1ms, EventKind::kUartTx, 4),
                                          line(3ms, EventKind::kUartTx, 2),
                                          line(20ms, EventKind::kUartTx, 1),
                                          {30ms, EventKind::kLog, "tag", "end\n", {}}});
    EXPECT_THAT(spansOn(timeline, Lane::kMcuLink),
                ElementsAre("MCU link to the MCU: 4 bytes 1000+4000",
                            "MCU link to the MCU: 2 bytes 5000+2000",
                            "MCU link to the MCU: 1 bytes 20000+1000"));
    EXPECT_THAT(samplesOf(timeline, "bytes queued"),
                ElementsAre("1000: 4 bytes", "3000: 4 bytes", "7000: 0 bytes", "20000: 1 bytes",
                            "21000: 0 bytes"));
}

namespace {

Event sent(Nanos at, const Bytes& bytes) { return {at, EventKind::kUartTx, kPort, "", bytes}; }
Event heard(Nanos at, const Bytes& bytes) { return {at, EventKind::kUartRx, kPort, "", bytes}; }

// Half a session of AN3155: 16 bytes are written, of which the second half is refused.
std::vector<Event> bootLoaderSession() {
    return {atOneByteAMillisecond(),
            {1ms, EventKind::kMcu, "gd32f303", "the boot loader starts", {}},
            sent(1ms, {0x7F}),
            heard(3ms, {0x79}),
            sent(10ms, {0x31, 0xCE}),
            heard(13ms, {0x79}),
            sent(20ms, {0x08, 0x00, 0x00, 0x00, 0x08}),
            heard(26ms, {0x79}),
            sent(30ms, {0x07, 1, 2, 3, 4, 5, 6, 7, 8}),
            sent(39ms, {0x0F}),
            {40ms, EventKind::kFlash, "gd32f303", "program 0x08000000, 8 bytes", {}},
            heard(51ms, {0x79}),
            sent(60ms, {0x31, 0xCE}),
            heard(63ms, {0x1F})};
}

}  // namespace

TEST(Timeline, StepsOfTheBootLoaderLastUntilTheirAnswersAndSayWhatWentWrong) {
    EXPECT_THAT(spansOn(timelineOf(bootLoaderSession()), Lane::kBootLoader),
                ElementsAre("boot loader: synchronise 1000+2000", "boot loader: write 10000+3000",
                            "boot loader: address 0x08000000 20000+6000",
                            "boot loader: write 8 bytes at 0x08000000 30000+21000",
                            "boot loader: write: NACK (0x1F) 60000+3000"));
}

TEST(Timeline, StepIsMadeOfTheWritesAndReadsThatItTook) {
    const Timeline timeline = timelineOf(bootLoaderSession());
    const Span& write = timeline.spans[timeline.spans.size() - 2];
    EXPECT_EQ(write.name, "write 8 bytes at 0x08000000");
    EXPECT_THAT(write.parts, ElementsAre(8, 9, 11));
    EXPECT_FALSE(write.isBad);
    EXPECT_TRUE(timeline.spans.back().isBad);
}

namespace {

// What a watcher has in the end, in the order of the whole timeline.
std::vector<Span> watched(const std::vector<Event>& events, size_t keeps) {
    std::map<int64_t, Span> byNumber;
    tools::LiveTimeline live(keeps);
    for (const Event& event : events) {
        for (auto& [number, span] : live.see(event)) byNumber[number] = span;
    }
    std::vector<Span> spans;
    for (const auto& [number, span] : byNumber) {
        if (number >= 0) spans.push_back(span);
    }
    for (auto step = byNumber.rbegin(); step != byNumber.rend(); ++step) {
        if (step->first < 0) spans.push_back(step->second);
    }
    return spans;
}

std::vector<std::string> allShown(const std::vector<Span>& spans) {
    std::vector<std::string> found;
    found.reserve(spans.size());
    for (const Span& span : spans) {
        found.push_back(shown(span) + (span.isOpen ? " open" : "") +
                        (span.isMoment ? " moment" : ""));
    }
    return found;
}

}  // namespace

TEST(Timeline, WatcherHasTheSameSpansInTheEndAsWhoLooksAfterwards) {
    for (std::vector<Event> events : {oneRequest(), bootLoaderSession()}) {
        events.push_back({99ms, EventKind::kPower, "board", "cut", {}});
        EXPECT_EQ(allShown(watched(events, 1000)), allShown(timelineOf(events).spans));
    }
}

TEST(Timeline, WatcherSeesWhatGoesOnUntilItEndsAndAPowerOnBeginsAnew) {
    const Event low{1ms, EventKind::kGpio, "MCU_NRST", "0", {}};
    const Event on{0ms, EventKind::kPower, "board", "on", {}};
    const Event log{9ms, EventKind::kLog, "tag", "text", {}};
    EXPECT_THAT(allShown(watched({on, low, log}, 1000)),
                ElementsAre("board: board: on 0+0 moment", "GPIO MCU_NRST: 0 1000+0 open",
                            "log: text 9000+0 moment"));
    EXPECT_THAT(allShown(watched({on, low, log, on, low}, 1000)),
                ElementsAre("board: board: on 0+0 moment", "GPIO MCU_NRST: 0 1000+8000",
                            "log: text 9000+0 moment", "board: board: on 0+0 moment",
                            "GPIO MCU_NRST: 0 1000+0 open"));
}

TEST(Timeline, WatcherWhoKeepsLittleGetsEachSpanAllTheSame) {
    std::vector<Event> events;
    for (int i = 0; i < 20; ++i) {
        for (Event event : oneRequest()) {
            event.at += i * 100ms;
            events.push_back(event);
        }
    }
    EXPECT_EQ(allShown(watched(events, 10)), allShown(timelineOf(events).spans));
    EXPECT_EQ(watched(events, 1).size(), events.size());
}

TEST(Timeline, OperationOfTheMcusFlashEndsWhenItsAnswerBegins) {
    EXPECT_THAT(spansOn(timelineOf(bootLoaderSession()), Lane::kFlash),
                ElementsAre("flash gd32f303: program 0x08000000, 8 bytes 40000+10000"));
}

TEST(Timeline, PercentProgrammedIsKnownWhereTheSessionEndedInTheApplication) {
    std::vector<Event> events = bootLoaderSession();
    EXPECT_THAT(samplesOf(timelineOf(events), "MCU flash written"), ElementsAre("51000: 8 bytes"));
    EXPECT_THAT(samplesOf(timelineOf(events), "MCU flash programmed"), IsEmpty());
    events.push_back({70ms, EventKind::kMcu, "gd32f303", "the application starts, V1.0.0", {}});
    EXPECT_THAT(samplesOf(timelineOf(events), "MCU flash programmed"), ElementsAre("51000: 100 %"));
}

TEST(Timeline, ShellCommandLastsAsLongAsTheOperationThatItStarts) {
    const Timeline timeline =
        timelineOf({{1s, EventKind::kShell, "sh", "mtd_debug erase /dev/mtd0 0 0x1000", {}},
                    {1s, EventKind::kFlash, "/dev/mtd0", "erase 0x0, 0x1000 bytes", {}},
                    {3s, EventKind::kFlash, "/dev/mtd0", "erased", {}},
                    {3s, EventKind::kShell, "sh", "true", {}},
                    {4s, EventKind::kFlash, "/dev/mtd0", "program 0x0, 0x10 bytes", {}},
                    {5s, EventKind::kFlash, "/dev/mtd0", "programmed", {}}});
    EXPECT_THAT(spansOn(timeline, Lane::kShell),
                ElementsAre("shell: mtd_debug erase /dev/mtd0 0 0x1000 1000000+2000000",
                            "shell: true 3000000+0"));
    EXPECT_THAT(spansOn(timeline, Lane::kFlash),
                ElementsAre("flash /dev/mtd0: erase 0x0, 0x1000 bytes 1000000+2000000",
                            "flash /dev/mtd0: program 0x0, 0x10 bytes 4000000+1000000"));
    EXPECT_THAT(samplesOf(timeline, "FPGA flash programmed"),
                ElementsAre("4000000: 0 %", "5000000: 100 %"));
}

TEST(Timeline, LevelsFilesTransfersAndStagesHaveTheirTimes) {
    const Timeline timeline =
        timelineOf({{1ms, EventKind::kOpen, "/dev/fpga_spi", "", {}},
                    {2ms, EventKind::kGpio, "MCU_NRST", "0", {}},
                    {3ms, EventKind::kSpi, "/dev/fpga_spi", "read 0x00001016, 1 bytes", {1}},
                    {4ms, EventKind::kGpio, "MCU_NRST", "1", {}},
                    {5ms, EventKind::kClose, "/dev/fpga_spi", "", {}},
                    {6ms, EventKind::kOpen, "/nowhere", "ENOENT", {}},
                    note(7ms, tools::kStageSource, "network, 0.006000000 s: ok"),
                    note(9ms, tools::kStageSource, "end, 0.002000000 s: failed: why")});
    EXPECT_THAT(spansOn(timeline, Lane::kFiles), ElementsAre("files: /dev/fpga_spi 1000+4000"));
    EXPECT_THAT(spansOn(timeline, Lane::kGpio),
                ElementsAre("GPIO MCU_NRST: 0 2000+2000", "GPIO MCU_NRST: 1 4000+5000"));
    EXPECT_THAT(spansOn(timeline, Lane::kSpi), ElementsAre("SPI: read 0x00001016, 1 bytes 2997+2"));
    EXPECT_THAT(spansOn(timeline, Lane::kStages),
                ElementsAre("stages: network 1000+6000", "stages: end: failed: why 7000+2000"));
}

TEST(Timeline, SpansThatOverlapAreInDifferentRowsAndThoseInsideAnotherInItsRow) {
    const Timeline timeline = timelineOf({{1ms, EventKind::kSleep, "thread", "0.010000 s", {}},
                                          {2ms, EventKind::kSleep, "thread", "0.001000 s", {}},
                                          {5ms, EventKind::kSleep, "thread", "0.010000 s", {}},
                                          {11ms, EventKind::kSleep, "thread", "0.010000 s", {}},
                                          {30ms, EventKind::kLog, "tag", "end", {}}});
    std::vector<unsigned> rows;
    for (const Span& span : timeline.spans) rows.push_back(span.row);
    EXPECT_THAT(rows, ElementsAre(0, 0, 1, 0, 0));
}

TEST(Timeline, WithThePowerEverythingEnds) {
    const Timeline timeline = timelineOf({atOneByteAMillisecond(),
                                          {1ms, EventKind::kRequest, "client", "get", {}},
                                          {1ms, EventKind::kSleep, "thread", "5.000000 s", {}},
                                          {1ms, EventKind::kGpio, "MCU_NRST", "0", {}},
                                          line(1ms, EventKind::kUartTx, 9),
                                          {3ms, EventKind::kPower, "board", "cut", {}}});
    for (const Lane lane : {Lane::kRequests, Lane::kSleeps, Lane::kGpio, Lane::kMcuLink}) {
        ASSERT_EQ(spansOn(timeline, lane).size(), 1U);
        EXPECT_THAT(spansOn(timeline, lane).front(), testing::EndsWith(" 1000+2000"));
    }
    EXPECT_THAT(samplesOf(timeline, "bytes queued"), ElementsAre("1000: 9 bytes", "3000: 0 bytes"));
}
