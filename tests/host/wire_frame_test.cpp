#include "host/wire_frame.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace quil::host {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

const Bytes kGet0102 = {0x55, 0xBB, 0x00, 0x00, 0x00, 0x01, 0x05, 0x00, 0x17, 0x00, 0x41,
                        0x01, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00,
                        0x02, 0x01, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x01, 0x73, 0x01};

TEST(WireFrame, GetOfOneByteIsBuiltByteForByte) {
    WireFrame frame;
    frame.label = 5;
    frame.command = 0x102;
    frame.payload = {0x01};
    EXPECT_EQ(buildFrame(frame), kGet0102);
}

TEST(WireFrame, SameRequestAsASetDiffersInFlagsAndChecksumOnly) {
    WireFrame frame;
    frame.label = 5;
    frame.flags |= wire::kWriteFlag;
    frame.command = 0x102;
    frame.payload = {0x01};
    Bytes expected = kGet0102;
    expected[10] = 0x61;
    expected[31] = 0x93;
    EXPECT_EQ(buildFrame(frame), expected);
}

TEST(WireFrame, EveryFieldIsFoundAtItsOffset) {
    Bytes bytes = {0x55, 0xBB, 0,    0,    0,    1,    0x34, 0x12, 0x18, 0,    0x62, 0x22,
                   0x11, 0,    0x44, 0x33, 0x22, 0x11, 0x88, 0x77, 0x66, 0x55, 0xEF, 0xBE,
                   0xAD, 0xDE, 0,    0,    0,    0,    0xA0, 0xA1, 0,    0};
    const WireFrame frame = parseFrame(bytes);
    EXPECT_EQ(frame.label, 0x1234);
    EXPECT_EQ(frame.flags, 0x62);
    EXPECT_TRUE(frame.isWrite());
    EXPECT_TRUE(frame.isAnswer());
    EXPECT_EQ(frame.fieldA, 0x1122);
    EXPECT_EQ(frame.fieldB, 0x11223344u);
    EXPECT_EQ(frame.fieldC, 0x55667788u);
    EXPECT_EQ(frame.command, 0xDEADBEEFu);
    EXPECT_THAT(frame.payload, ElementsAre(0xA0, 0xA1));
}

TEST(WireFrame, GoodFrameHasNoProblems) { EXPECT_THAT(frameProblems(kGet0102), IsEmpty()); }

TEST(WireFrame, WrongChecksumIsNamedWithBothSums) {
    Bytes bytes = kGet0102;
    bytes[31] = 0x74;
    EXPECT_THAT(frameProblems(bytes),
                ElementsAre("checksum is 0x0174, the bytes add up to 0x0173"));
}

TEST(WireFrame, LengthThatLiesIsNamedBesideTheTrueOne) {
    Bytes bytes = kGet0102;
    bytes[8] = 0x18;   // claims one byte more than there is
    bytes[31] = 0x74;  // the checksum that goes with it
    EXPECT_THAT(frameProblems(bytes),
                ElementsAre("length is 24, but 23 bytes follow the frame header"));
}

TEST(WireFrame, WrongMagicIsNamedWithItsOffset) {
    Bytes bytes = kGet0102;
    bytes[0] = 0x54;
    EXPECT_THAT(frameProblems(bytes),
                ElementsAre(HasSubstr("magic at offset 0 is 0xBB54, expected 0xBB55"),
                            HasSubstr("checksum")));
}

TEST(WireFrame, FewerBytesThanTheShortestFrameAreRefused) {
    const Bytes bytes(31);
    EXPECT_THAT(frameProblems(bytes), ElementsAre(HasSubstr("31 bytes are no frame")));
    EXPECT_THAT(frameProblems({}), ElementsAre(HasSubstr("0 bytes are no frame")));
}

TEST(WireFrame, ChecksumDiscardsCarriesBeyondSixteenBits) {
    EXPECT_EQ(frameChecksum(Bytes(256, 0xFF)), 0xFF00);
    EXPECT_EQ(frameChecksum(Bytes(258, 0xFF)), 0x00FE);
}

TEST(WireFrame, AnnouncedSizeRefusesLengthsThatNoFrameHas) {
    Bytes header(kGet0102.begin(), kGet0102.begin() + 10);
    EXPECT_EQ(announcedSize(header), 33u);
    constexpr std::pair<int, int> kImpossible[] = {{0x15, 0}, {0, 0}, {0xFF, 0xFF}, {0x27, 0x10}};
    for (const auto& [low, high] : kImpossible) {
        header[8] = static_cast<uint8_t>(low);
        header[9] = static_cast<uint8_t>(high);
        EXPECT_EQ(announcedSize(header), std::nullopt) << low << " " << high;
    }
    header[8] = 0x26;
    header[9] = 0x10;
    EXPECT_EQ(announcedSize(header), 4144u);
}

}  // namespace
}  // namespace quil::host
