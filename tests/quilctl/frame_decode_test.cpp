// quilctl frame decode: streams, and what quilctl itself writes of the serial line.
#include <gmock/gmock.h>

#include <fstream>

#include "tests/quilctl/test_run.h"

namespace quil::tests {

using testing::HasSubstr;
using testing::IsEmpty;

namespace {

// get 0x102 01 with label 5, and set 0x102 01 with label 6; sums by hand.
constexpr char kGetFrameText[] =
    "55BB000000010500170041010000000000000000000002010000000000000173 01";
constexpr char kSetFrameText[] =
    "55BB000000010600170061010000000000000000000002010000000000000194 01";

}  // namespace

class QuilctlFrameDecode : public QuilctlRun {
  protected:
    // A trace of one request to the MCU and its answer.
    std::string traceOf(const char* name, const std::string& product = "Heron") const {
        EXPECT_EQ(quilctl({"--product", product, "--trace", path(name), "get", "1"}).code,
                  tools::kOk);
        return path(name);
    }
    static void expectRequestAndAnswer(const Said& said) {
        EXPECT_EQ(said.code, tools::kOk) << said.err;
        const auto result = resultOf(said);
        ASSERT_EQ(result["frames"].size(), 2U);
        EXPECT_THAT(result["junk"], IsEmpty());
        EXPECT_EQ(result["frames"][0]["command"], 1);
        EXPECT_EQ(result["frames"][0]["flags"], 0x41);
        EXPECT_EQ(result["frames"][1]["flags"], 0x02);
        EXPECT_EQ(result["frames"][1]["payload"],
                  nlohmann::json({'V', '1' + 0, '.', '0' + 0, '.', '0' + 0}));
    }
};

TEST_F(QuilctlFrameDecode, StreamIsCutIntoItsFramesAndWhatStandsBetweenIsNamed) {
    const Said said = quilctl(
        {"frame", "decode", "0102", kGetFrameText, "AABBCC", kSetFrameText, "55BB00000001"});
    EXPECT_EQ(said.code, tools::kBadData);
    EXPECT_THAT(said.out, HasSubstr("offset 0: 2 bytes outside of frames (no frame begins here): "
                                    "01 02\noffset 2: a frame of 33 bytes\noffset  bytes"));
    EXPECT_THAT(said.out, HasSubstr("offset 35: 3 bytes outside of frames"));
    EXPECT_THAT(said.out, HasSubstr("offset 38: a frame of 33 bytes\n"));
    EXPECT_THAT(said.err, HasSubstr("offset 71: 6 bytes outside of frames"));
}

TEST_F(QuilctlFrameDecode, TwoFramesWithoutAnythingElseAreGood) {
    const Said said = quilctl({"--json", "frame", "decode", kGetFrameText, kSetFrameText});
    EXPECT_EQ(said.code, tools::kOk);
    const auto frames = resultOf(said)["frames"];
    ASSERT_EQ(frames.size(), 2U);
    EXPECT_EQ(frames[0]["offset"], 0);
    EXPECT_EQ(frames[1]["offset"], 33);
    EXPECT_EQ(frames[1]["label"], 6);
    EXPECT_EQ(frames[1]["write"], true);
}

TEST_F(QuilctlFrameDecode, FrameWithAWrongSumBetweenGoodOnesSaysSo) {
    std::string broken = kSetFrameText;
    broken[60] = '5';
    const Said said = quilctl({"frame", "decode", kGetFrameText, broken, kGetFrameText});
    EXPECT_EQ(said.code, tools::kBadData);
    EXPECT_THAT(said.err,
                HasSubstr("offset 33: 33 bytes outside of frames (a frame of 33 bytes with a "
                          "wrong checksum)"));
}

TEST_F(QuilctlFrameDecode, ReadsTheTracesOfQuilctlByTheirContent) {
    expectRequestAndAnswer(quilctl({"--json", "frame", "decode", traceOf("t.txt")}));
    expectRequestAndAnswer(quilctl({"--json", "frame", "decode", traceOf("t.json")}));
}

TEST_F(QuilctlFrameDecode, TraceHasTheTimeAndTheDirectionOfEachFrame) {
    const Said said = quilctl({"frame", "decode", traceOf("t.txt")});
    EXPECT_THAT(said.out,
                HasSubstr("0.000000 s, /dev/ttyS3 to the MCU, offset 0: a frame of 32 bytes\n"));
    EXPECT_THAT(said.out, HasSubstr(" s, /dev/ttyS3 from the MCU, offset 0: a frame of 38 bytes"));
}

TEST_F(QuilctlFrameDecode, ReadsWaveformsAtTheirRate) {
    const std::string slow = traceOf("slow.vcd");
    expectRequestAndAnswer(quilctl({"--json", "frame", "decode", slow}));
    expectRequestAndAnswer(quilctl({"--json", "frame", "decode", slow, "--baud", "115200"}));
    EXPECT_EQ(quilctl({"frame", "decode", slow, "--baud", "9600"}).code, tools::kBadData);
}

TEST_F(QuilctlFrameDecode, ReadsTheLibrarysLog) {
    const Said logged = quilctl({"--log-level", "D", "set", "0x102", "01"});
    const Said said = quilctl({"--json", "frame", "decode"}, logged.err);
    EXPECT_EQ(said.code, tools::kOk) << said.err;
    EXPECT_EQ(resultOf(said)["command"], 0x102);
    EXPECT_EQ(resultOf(said)["write"], true);
}

TEST_F(QuilctlFrameDecode, ReadsRawBytesAndTheJsonOfEncode) {
    const Said encoded = quilctl({"--json", "frame", "encode", "0x102", "--data", "01"});
    EXPECT_EQ(resultOf(quilctl({"--json", "frame", "decode"}, encoded.out))["command"], 0x102);
    const auto bytes = resultOf(encoded)["bytes"].get<std::vector<uint8_t>>();
    const std::string raw(bytes.begin(), bytes.end());
    EXPECT_EQ(quilctl({"frame", "decode", imageFile(raw)}).code, tools::kOk);
    EXPECT_EQ(quilctl({"frame", "decode", "--from", "raw"}, raw).code, tools::kOk);
}

TEST_F(QuilctlFrameDecode, GarbageInAnyFormatIsAnErrorThatSaysWhatIsMissing) {
    for (const char* format : {"auto", "hex", "vcd", "json", "trace", "log", "raw"}) {
        const Said said = quilctl({"frame", "decode", "--from", format}, "garbage");
        EXPECT_EQ(said.code, tools::kBadData) << format;
        EXPECT_THAT(said.out, IsEmpty()) << format;
        EXPECT_THAT(said.err, HasSubstr("quilctl: ")) << format;
    }
    EXPECT_THAT(quilctl({"frame", "decode", "--from", "vcd"}, "$timescale 3 ns $end").err,
                HasSubstr("bad timescale '3 ns'"));
    EXPECT_THAT(quilctl({"frame", "decode", "--from", "auto"}, "garbage").err,
                HasSubstr("neither hexadecimal bytes nor a trace, a log or a waveform"));
}

TEST_F(QuilctlFrameDecode, WordThatIsNeitherBytesNorAFileIsAUsageError) {
    const Said said = quilctl({"frame", "decode", path("none.vcd")});
    EXPECT_EQ(said.code, tools::kUsage);
    EXPECT_THAT(said.err, HasSubstr("is neither bytes (pairs of hexadecimal digits) nor a file"));
    EXPECT_EQ(quilctl({"frame", "decode", directory.string()}).code, tools::kBadData);
    EXPECT_EQ(quilctl({"frame", "decode", "55", directory.string()}).code, tools::kUsage);
}

}  // namespace quil::tests
