#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/quilctl/test_run.h"
#include "tools/quilctl/output/values.h"

namespace quil::tests {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

constexpr char kFrame[] =
    "55 BB 00 00 00 01 05 00 17 00 41 01 00 00 00 00 00 00 00 00 00 00 02 01 00 00 00 00 00 00 01 "
    "73 01";

TEST(QuilctlFrame, EncodePrintsTheBytesOfAGet) {
    const Said said = quilctl({"frame", "encode", "0x102", "--label", "5", "--data", "01"});
    EXPECT_EQ(said.code, tools::kOk);
    EXPECT_EQ(said.out, std::string(kFrame) + "\n");
    EXPECT_THAT(said.err, IsEmpty());
}

TEST(QuilctlFrame, CommandMayBeDecimal) {
    EXPECT_EQ(quilctl({"frame", "encode", "258", "--label", "5", "--data", "01"}).out,
              std::string(kFrame) + "\n");
}

TEST(QuilctlFrame, DecodeNamesEveryField) {
    const Said said = quilctl({"frame", "decode", kFrame});
    EXPECT_EQ(said.code, tools::kOk);
    EXPECT_THAT(said.out, HasSubstr("     6  05 00        label     0x0005\n"));
    EXPECT_THAT(said.out, HasSubstr("    10  41           flags     0x41  request, get\n"));
    EXPECT_THAT(said.out, HasSubstr("    22  02 01 00 00  command   0x00000102\n"));
    EXPECT_THAT(said.out, HasSubstr("    30               payload   01\n"));
    EXPECT_THAT(said.out, HasSubstr("    31  73 01        checksum  0x0173  good\n"));
}

TEST(QuilctlFrame, DecodeReadsStandardInputWhenNoBytesAreGiven) {
    EXPECT_EQ(quilctl({"frame", "decode"}, std::string(kFrame) + "\n").code, tools::kOk);
    EXPECT_EQ(quilctl({"frame", "decode"}, "no frame at all").code, tools::kBadData);
    EXPECT_EQ(quilctl({"frame", "decode"}, "").code, tools::kBadData);
}

TEST(QuilctlFrame, WrongChecksumIsBadData) {
    std::string bad = kFrame;
    bad[bad.size() - 1] = '2';
    const Said said = quilctl({"frame", "decode", bad});
    EXPECT_EQ(said.code, tools::kBadData);
    EXPECT_THAT(said.err, HasSubstr("checksum is 0x0273, the bytes add up to 0x0173"));
}

TEST(QuilctlFrame, DecodePrintsJsonWhenAsked) {
    const Said said = quilctl({"frame", "decode", "--json", kFrame});
    EXPECT_THAT(said.out, HasSubstr("\"command\":258"));
    EXPECT_THAT(said.out, HasSubstr("\"payload\":[1]"));
    EXPECT_THAT(said.out, HasSubstr("\"problems\":[]"));
}

TEST(QuilctlFrame, ThingsThatAreNoNumbersOrBytesAreUsageErrors) {
    for (const char* command : {"", "x", "0x", "-1", "0x100000000", "1z", "4294967296"}) {
        EXPECT_EQ(quilctl({"frame", "encode", command}).code, tools::kUsage) << command;
    }
    EXPECT_EQ(quilctl({"frame", "encode", "1", "--data", "0"}).code, tools::kUsage);
    EXPECT_EQ(quilctl({"frame", "encode", "1", "--label", "65536"}).code, tools::kUsage);
    EXPECT_EQ(quilctl({"frame", "encode", "1", "--data", std::string(size_t{2} * 4113, '0')}).code,
              tools::kUsage);
}

TEST(QuilctlValues, BytesMayBeApartTogetherOrPrefixed) {
    EXPECT_THAT(*tools::parseHex("01 0a"), ElementsAre(0x01, 0x0A));
    EXPECT_THAT(*tools::parseHex("010A"), ElementsAre(0x01, 0x0A));
    EXPECT_THAT(*tools::parseHex("0x01,0x0A"), ElementsAre(0x01, 0x0A));
    EXPECT_THAT(*tools::parseHex(""), IsEmpty());
    for (const char* bad : {"0", "012", "0x", "g0", "+1", "-1", "1 2"}) {
        EXPECT_FALSE(tools::parseHex(bad)) << bad;
    }
}

}  // namespace
}  // namespace quil::tests
