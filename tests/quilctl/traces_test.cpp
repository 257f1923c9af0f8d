#include <fcntl.h>
#include <gmock/gmock.h>
#include <unistd.h>

#include <algorithm>
#include <protozero/pbf_builder.hpp>

#include "board/board.h"
#include "testing/program_output.h"
#include "testing/trace_validator.h"
#include "testing/whole.h"
#include "tests/quilctl/test_run.h"
#include "tools/quilctl/traces/event_arguments.h"
#include "tools/quilctl/traces/perfetto_fields.h"
#include "tools/quilctl/traces/timeline.h"
#include "tools/quilctl/traces/viewer_files.h"

using namespace quil;
using namespace quil::tests;
using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

namespace {

// In the list's order.
std::vector<std::string> eventsIn(const std::string& trace) {
    std::map<size_t, std::string> events;
    for (const tools::TraceRecord& record : tools::readTraceFile(trace).records) {
        if (!record.arguments.contains("event")) continue;
        events[record.arguments["event"].get<size_t>()] = toLine(tools::eventIn(record.arguments));
    }
    std::vector<std::string> lines;
    lines.reserve(events.size());
    for (const auto& [number, line] : events) lines.push_back(line);
    return lines;
}

std::vector<std::string> linesOf(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    return lines;
}

class QuilctlTraces : public QuilctlRun {
  protected:
    std::string file(const std::string& name) const { return (directory / name).string(); }
    std::string content(const std::string& name) const {
        return board::readWholeFile(directory / name).value_or("");
    }

    // All of them in one run.
    void trace(const tools::Words& command) {
        tools::Words words;
        for (const char* name : {"t.txt", "t.json", "t.pftrace", "t.vcd"}) {
            words.insert(words.end(), {"--trace", file(name)});
        }
        words.insert(words.end(), command.begin(), command.end());
        ASSERT_EQ(quilctl(words).code, tools::kOk);
    }
};

// What has overlapping work, the boot loader, flash, SPI and requests in it.
std::vector<tools::Words> tracedCommands() {
    std::vector<tools::Words> commands = {{"--product", "Kestrel", "boot"},
                                          {"mcu", "update", "--installed", "V0.9.0"},
                                          {"fpga", "status"},
                                          {"get", "1"}};
    if (isWhole()) commands.push_back({"boot", "--update-fpga"});  // its log has 6,000 lines
    return commands;
}

}  // namespace

TEST_F(QuilctlTraces, JsonAndPerfettoHaveEveryEventAndViewersCanShowThem) {
    for (const tools::Words& command : tracedCommands()) {
        trace(command);
        const auto events = linesOf(content("t.txt"));
        ASSERT_FALSE(events.empty());
        for (const char* name : {"t.json", "t.pftrace"}) {
            EXPECT_EQ(eventsIn(content(name)), events) << name << " of " << command.front();
            EXPECT_THAT(problemsIn(content(name)), IsEmpty()) << name << " of " << command.front();
        }
    }
}

TEST_F(QuilctlTraces, EventWithAnyBytesComesBack) {
    const std::vector<board::Event> events = {
        {board::Nanos(1), board::EventKind::kLog, "\xFF", "\x80\n\x01 \"", {0, 255}},
        {board::Nanos(2), board::EventKind::kMcu, "", "", {}}};
    for (const std::string& trace : {tools::toTraceEventJson(events), tools::toPerfetto(events)}) {
        EXPECT_THAT(eventsIn(trace), ElementsAre(toLine(events[0]), toLine(events[1])));
    }
}

TEST_F(QuilctlTraces, AnotherDecoderFindsPerfettosFieldsInTheFile) {
    if (outputOf("command -v protoc").empty()) GTEST_SKIP() << "no protoc";
    // From Perfetto's documented format: trace.proto, trace_packet.proto, track_event.proto.
    board::writeWholeFile(directory / "trace.proto", R"(syntax = "proto2";
message Counter { optional string unit_name = 6; }
message Track { optional uint64 uuid = 1; optional string name = 2;
  optional uint64 parent_uuid = 5; optional Counter counter = 8; }
message Annotation { optional string name = 10; optional int64 int_value = 4;
  optional string string_value = 6; }
message Event { optional uint32 type = 9; optional uint64 track_uuid = 11;
  repeated string categories = 22; optional string name = 23;
  repeated Annotation debug_annotations = 4; optional double double_counter_value = 44;
  repeated fixed64 flow_ids = 47; repeated fixed64 terminating_flow_ids = 48; }
message Packet { optional uint64 timestamp = 8; optional uint32 trusted_packet_sequence_id = 10;
  optional Event track_event = 11; optional uint32 sequence_flags = 13;
  optional Track track_descriptor = 60; }
message Trace { repeated Packet packet = 1; }
)");
    trace({"get", "1"});
    const std::string decoded =
        outputOf("protoc --proto_path=" + directory.string() + " --decode=Trace " +
                 file("trace.proto") + " < " + file("t.pftrace"));
    EXPECT_THAT(
        decoded,
        AllOf(HasSubstr("name: \"MCU link to the MCU\"\n    parent_uuid: "),
              HasSubstr("unit_name: \"bytes\""), HasSubstr("string_value: \"client\""),
              HasSubstr("terminating_flow_ids: 1\n"), HasSubstr("double_counter_value: 32\n"),
              HasSubstr("  timestamp: 2777760\n")));
}

namespace {

std::string jsonTrace(const std::string& records) {
    return R"({"traceEvents":[
        {"ph":"M","name":"process_name","pid":1,"args":{"name":"p"}},
        {"ph":"M","name":"thread_name","pid":1,"tid":1,"args":{"name":"t"}},)" +
           records + "]}";
}

// Records of a Perfetto trace by hand: the track 2 is named, in the track 1.
class PerfettoByHand {
  public:
    PerfettoByHand() {
        track(1, 0, "parent");
        track(2, 1, "track");
    }
    PerfettoByHand& track(uint64_t uuid, uint64_t parent, const std::string& name) {
        namespace f = tools::perfetto;
        std::string descriptor, packet;
        protozero::pbf_builder<f::TrackDescriptor> builder(descriptor);
        builder.add_uint64(f::TrackDescriptor::uuid, uuid);
        builder.add_uint64(f::TrackDescriptor::parent, parent);
        builder.add_string(f::TrackDescriptor::name, name);
        protozero::pbf_builder<f::TracePacket>(packet).add_message(f::TracePacket::trackDescriptor,
                                                                   descriptor);
        protozero::pbf_builder<f::Trace>(mBytes).add_message(f::Trace::packet, packet);
        return *this;
    }
    PerfettoByHand& event(uint64_t at, int type, uint64_t track) {
        namespace f = tools::perfetto;
        std::string event, packet;
        protozero::pbf_builder<f::TrackEvent> builder(event);
        builder.add_enum(f::TrackEvent::type, type);
        builder.add_uint64(f::TrackEvent::track, track);
        protozero::pbf_builder<f::TracePacket> whole(packet);
        whole.add_uint64(f::TracePacket::timestamp, at);
        whole.add_message(f::TracePacket::trackEvent, event);
        protozero::pbf_builder<f::Trace>(mBytes).add_message(f::Trace::packet, packet);
        return *this;
    }
    std::vector<std::string> problems() const { return problemsIn(mBytes); }

  private:
    std::string mBytes;
};

constexpr int kBeginType = 1, kEndType = 2;

}  // namespace

TEST(TraceValidator, RejectsInJsonWhatAViewerCannotShow) {
    const auto problems = [](const std::string& records) { return problemsIn(jsonTrace(records)); };
    const std::string ids = R"("pid":1,"tid":1)",
                      outer = R"({"ph":"X","ts":1,"dur":5,)" + ids + "}";
    EXPECT_THAT(problems(outer + R"(,{"ph":"X","ts":2,"dur":4,)" + ids + "}"), IsEmpty());
    EXPECT_THAT(problems(R"({"ph":"X","name":"n","ts":1,"dur":-5,)" + ids + "}"),
                ElementsAre("a negative duration: n"));
    EXPECT_THAT(problems(outer + R"(,{"ph":"X","name":"n","ts":2,"dur":5,)" + ids + "}"),
                ElementsAre("bad nesting: n in "));
    EXPECT_THAT(problems(R"({"ph":"i","name":"n","ts":1,"pid":1,"tid":2})"),
                ElementsAre("a track without a name: n"));
    EXPECT_THAT(problems(R"({"ph":"i","name":"n","ts":1,"pid":2,"tid":1})"),
                ElementsAre("a track without a name: n"));
    EXPECT_THAT(problems(R"({"ph":"b","name":"n","id":1,"ts":5,)" + ids +
                         R"(},{"ph":"e","name":"n","id":1,"ts":4,)" + ids + "}"),
                ElementsAre("a negative duration: n"));
    EXPECT_THAT(problems(R"({"ph":"b","name":"n","id":1,"ts":5,)" + ids + "}"),
                ElementsAre("a span that never ends: n"));
    EXPECT_THAT(problems(R"({"ph":"f","id":7,"ts":5,)" + ids + "}"),
                ElementsAre("a flow from nowhere: 7"));
    EXPECT_THAT(problems(R"({"ph":"s","id":7,"ts":5,)" + ids + "}"),
                ElementsAre("a flow that never ends: 7"));
}

TEST(TraceValidator, RejectsInPerfettoWhatAViewerCannotShow) {
    EXPECT_THAT(PerfettoByHand().event(1, kBeginType, 2).event(2, kEndType, 2).problems(),
                IsEmpty());
    EXPECT_THAT(PerfettoByHand().event(3, kBeginType, 2).event(2, kEndType, 2).problems(),
                ElementsAre("a negative duration: "));
    EXPECT_THAT(PerfettoByHand().event(1, kBeginType, 2).problems(),
                ElementsAre("a span that never ends: "));
    EXPECT_THAT(PerfettoByHand().event(1, kEndType, 2).problems(),
                ElementsAre("an end without a beginning"));
    EXPECT_THAT(PerfettoByHand().event(1, 3, 9).problems(),
                ElementsAre("a track without a name: "));
    EXPECT_THAT(PerfettoByHand().track(9, 1, "").event(1, 3, 9).problems(),
                ElementsAre("a track without a name: "));
}

TEST(TraceFiles, WhatIsNoTraceIsRefused) {
    for (const char* bytes : {"", "  ", "{", "[1]", "{\"traceEvents\":[{\"ph\":\"X\"}]}",
                              "[{\"ph\":\"i\",\"ts\":1e300}]", "no trace", "\n\xFF"}) {
        EXPECT_THROW(tools::readTraceFile(bytes), tools::Failure) << bytes;
    }
}

namespace {

class QuilctlTraceCompare : public QuilctlTraces {
  protected:
    // Two stages; `network` in seconds.
    std::string bootTrace(const std::string& name, double network) {
        const auto stage = [](double at, const std::string& text) {
            return board::Event{board::Nanos(llround(at * 1e9)),
                                board::EventKind::kNote,
                                tools::kStageSource,
                                text,
                                {}};
        };
        const std::vector<board::Event> events = {
            stage(1, "MCU firmware, 1.000000000 s: ok"),
            stage(1 + network, "network, " + std::to_string(network) + " s: failed: no link")};
        const bool isJson = name.find(".json") != std::string::npos;
        board::writeWholeFile(directory / name,
                              isJson ? tools::toTraceEventJson(events) : tools::toPerfetto(events));
        return file(name);
    }
};

}  // namespace

TEST_F(QuilctlTraceCompare, PrintsEachStageBesideTheOther) {
    const Said said =
        quilctl({"trace", "compare", bootTrace("a.json", 2), bootTrace("b.pftrace", 5)});
    EXPECT_EQ(said.code, tools::kOk);
    EXPECT_EQ(said.out,
              "stage                           A            B         B - A\n"
              "MCU firmware              1.000 s      1.000 s      +0.000 s\n"
              "network                   2.000 s      5.000 s      +3.000 s\n"
              "total                     3.000 s      6.000 s      +3.000 s\n");
}

TEST_F(QuilctlTraceCompare, AboveABudgetItFailsWithACodeOfItsOwn) {
    const std::string a = bootTrace("a.json", 2), b = bootTrace("b.json", 5);
    EXPECT_EQ(quilctl({"trace", "compare", a, b, "--budget", "network=5"}).code, tools::kOk);
    const Said said = quilctl({"--json", "trace", "compare", a, b, "--budget", "network=4.5",
                               "--budget", "total=7", "--budget", "MCU firmware=0"});
    EXPECT_EQ(said.code, tools::kOverBudget);
    EXPECT_THAT(said.out, HasSubstr("network took 5.000 s, its budget is 4.500 s"));
    EXPECT_EQ(resultOf(said)["over"].size(), 2U);
    EXPECT_EQ(resultOf(said)["stages"][1]["difference"], 3.0);
    EXPECT_EQ(quilctl({"trace", "compare", b, a, "--budget", "network=4.5"}).code, tools::kOk);
}

TEST_F(QuilctlTraceCompare, BudgetThatHoldsForNothingIsAMistake) {
    const std::string a = bootTrace("a.json", 2);
    const Said said = quilctl({"trace", "compare", a, a, "--budget", "netwrok=4.5"});
    EXPECT_EQ(said.code, tools::kUsage);
    EXPECT_THAT(said.err, HasSubstr("has no such stage"));
    for (const char* budget : {"network", "network=", "=1", "network=x", "network=-1", "a=nan"}) {
        EXPECT_EQ(quilctl({"trace", "compare", a, a, "--budget", budget}).code, tools::kUsage);
    }
    trace({"config", "show"});
    const Said none = quilctl({"trace", "compare", a, file("t.json")});
    EXPECT_EQ(none.code, tools::kBadData);
    EXPECT_THAT(none.err, HasSubstr("it has no stages: no start-up"));
}

TEST_F(QuilctlTraceCompare, RunThatTellsNoStagesHasThoseOfWhatItDid) {
    const auto stagesOf = [&](const std::vector<std::string>& words) {
        trace(words);
        std::string stages;
        const auto result =
            resultOf(quilctl({"--json", "trace", "compare", file("t.json"), file("t.json")}));
        for (const auto& row : result["stages"]) {
            stages += row["stage"].get<std::string>() + "; ";
        }
        return stages;
    };
    const std::string programmed = "MCU connected; MCU flash erased; MCU flash written; total; ";
    EXPECT_EQ(stagesOf({"mcu", "update", "--installed", "V0.9.0"}), programmed);
    EXPECT_EQ(stagesOf({"self-test"}), "get self-test; total; ");
    EXPECT_EQ(stagesOf({"set", "0x102", "01"}), "set 0x00000102; total; ");
    EXPECT_THAT(stagesOf({"demo"}), AllOf(testing::StartsWith("power on, MCU V0.9.0; "),
                                          HasSubstr("FPGA updated; get 0x1, its version; ")));
    EXPECT_EQ(
        quilctl({"trace", "compare", file("t.json"), file("t.json"), "--budget", "MCU updated=0.1"})
            .code,
        tools::kOverBudget);
}

namespace {

// The bytes on one data line of the SPI wires, as a logic analyser's decoder reads them.
Bytes spiByLogicAnalyser(const std::string& vcd, const std::string& line) {
    const board::TemporaryDirectory directory;
    const auto file = directory.path() / "wires.vcd";
    board::writeWholeFile(file, vcd);
    const size_t begin = vcd.find("sigrok-cli -I vcd:downsample=5 -P spi");
    const size_t end = vcd.find("-A spi=mosi-data", begin);
    if (end == std::string::npos) return {};
    std::istringstream lines(
        outputOf(vcd.substr(begin, end - begin) + "-A spi=" + line + " -i " + file.string()));
    Bytes bytes;
    for (std::string text; std::getline(lines, text);) {
        bytes.push_back(
            static_cast<uint8_t>(std::stoi(text.substr(text.find(' ') + 1), nullptr, 16)));
    }
    return bytes;
}

}  // namespace

TEST(BoardWires, SpiIsReadBackByALogicAnalysersDecoderWhatIsSentAndWhatIsReceived) {
    if (outputOf("command -v sigrok-cli").empty()) GTEST_SKIP() << "no sigrok-cli";
    const board::TemporaryDirectory directory;
    board::createBoardDirectory(directory.path(), board::Product::kHeron);
    board::Board board(directory.path());
    const Bytes written = {0x02, 0x10, 0x01, 0x80, 0x00, 0x00, 0xFF, 0x55, 0xAA, 0x80, 0x01, 0x00};
    Bytes read = {0x0B, 0x00, 0x00, 0x10, 0x16, 0x00, 0x00};
    const Bytes asked = read;
    const int port = open("/dev/fpga_spi", O_RDWR);
    ASSERT_GE(port, 0);
    EXPECT_EQ(write(port, written.data(), written.size()), static_cast<ssize_t>(written.size()));
    EXPECT_EQ(::read(port, read.data(), read.size()), static_cast<ssize_t>(read.size()));
    close(port);
    const std::string vcd = board.trace().toVcd();
    Bytes sent = written, received(written.size(), 0);
    sent.insert(sent.end(), asked.begin(), asked.end());
    received.insert(received.end(), read.begin(), read.end());
    EXPECT_EQ(spiByLogicAnalyser(vcd, "mosi-data"), sent);
    EXPECT_EQ(spiByLogicAnalyser(vcd, "miso-data"), received);
}

TEST_F(QuilctlTraces, WaveformsDecodeBackToTheEdgesTheBytesAndTheBootLoadersTimes) {
    trace({"mcu", "update", "--installed", "V0.9.0"});
    const std::string vcd = content("t.vcd");
    std::map<std::string, std::string> names;  // of wires, by identifier
    std::map<std::string, std::vector<std::string>> edges;
    int64_t at = 0;
    for (const std::string& line : linesOf(vcd)) {
        std::istringstream words(line);
        std::string var, type, width, id, name;
        if (line[0] == '$' && words >> var >> type >> width >> id >> name && var == "$var") {
            names[id] = name;
        } else if (line[0] == '#') {
            at = std::stoll(line.substr(1)) - 1000000;
        } else if (line[0] == '0' || line[0] == '1') {
            edges[names[line.substr(1)]].push_back(std::to_string(at / 1000) + "=" + line[0]);
        }
    }
    std::map<std::string, std::vector<std::string>> levels;
    for (const std::string& line : linesOf(content("t.txt"))) {
        std::istringstream words(line);
        double seconds = 0;
        std::string kind, name, level;
        if (!(words >> seconds >> kind >> name >> level)) continue;
        name.pop_back();
        if (kind == "mcu") {
            name = "mcu_boot_loader";
            level = line.find("the boot loader starts") == std::string::npos ? "0" : "1";
        } else if (kind != "gpio") {
            continue;
        }
        levels[name].push_back(std::to_string(llround(seconds * 1e6)) + "=" + level);
    }
    ASSERT_EQ(levels.size(), 3U);
    for (const auto& [line, expected] : levels) {
        ASSERT_FALSE(edges[line].empty());
        edges[line].erase(edges[line].begin());  // the level before the first edge
        EXPECT_EQ(edges[line], expected) << line;
    }
}
