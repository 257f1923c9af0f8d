#include "mculink/frame.h"

#include "testing/library_test.h"

namespace quil::tests {

using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::IsEmpty;

namespace {

// A get (or set) of command 0x102 with the payload byte 1 and label 5, worked out by hand.
constexpr uint8_t kGetFrame[33] = {0x55, 0xBB, 0x00, 0x00, 0x00, 0x01, 0x05, 0x00, 0x17,
                                   0x00, 0x41, 0x01, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00,
                                   0x00, 0x00, 0x00, 0x00, 0x02, 0x01, 0x00, 0x00, 0x00,
                                   0x00, 0x00, 0x00, 0x01, 0x73, 0x01};

Bytes packet(uint8_t flags, const uint8_t* payload, uint16_t length) {
    Bytes frame(length + 32U, 0xEE);
    const quil_frame_header_t header = {0xBB55, 0, 0x0100, 5, static_cast<uint16_t>(length + 22)};
    EXPECT_EQ(
        quil_packet_data(frame.data(), payload, length, header, {flags, 1, 0, 0}, {0x00000102, 0}),
        0);
    return frame;
}

}  // namespace

class Frame : public LibraryTest {};

TEST_F(Frame, WorkedExampleOfAGetIsThese33Bytes) {
    const uint8_t payload = 1;
    EXPECT_THAT(packet(0x41, &payload, 1), ElementsAreArray(kGetFrame));
}

TEST_F(Frame, SameRequestSentBySetDiffersInFlagsAndChecksum) {
    Bytes expected(std::begin(kGetFrame), std::end(kGetFrame));
    expected[10] = 0x61;
    expected[31] = 0x93;
    const uint8_t payload = 1;
    EXPECT_EQ(packet(0x61, &payload, 1), expected);
}

TEST_F(Frame, EmptyPayloadGives32BytesAndLengthField22) {
    const Bytes frame = packet(0x41, nullptr, 0);
    EXPECT_EQ(frame.size(), 32U);
    EXPECT_EQ(frame[8], 22);
    EXPECT_EQ(frame[9], 0);
}

TEST_F(Frame, PayloadOfNoBytesIsAnEmptyPayload) {
    const uint8_t payload = 1;
    EXPECT_EQ(packet(0x41, &payload, 0), packet(0x41, nullptr, 0));
}

TEST_F(Frame, NullPayloadLeavesThePayloadBytesOfTheFrameAsTheyAre) {
    const Bytes frame = packet(0x41, nullptr, 2);
    EXPECT_EQ(frame[30], 0xEE);
    EXPECT_EQ(frame[31], 0xEE);
}

TEST_F(Frame, FieldsOfTheRequestHeaderAreLittleEndianAtTheirOffsets) {
    Bytes frame(32);
    quil_packet_data(frame.data(), nullptr, 0, {0xBB55, 0, 0x0100, 0x1234, 22},
                     {0x41, 0x5678, 0x11223344, 0x55667788}, {0xAABBCCDD, 0});
    EXPECT_THAT(
        Bytes(frame.begin(), frame.begin() + 30),
        ElementsAre(0x55, 0xBB, 0, 0, 0, 1, 0x34, 0x12, 22, 0, 0x41, 0x78, 0x56, 0, 0x44, 0x33,
                    0x22, 0x11, 0x88, 0x77, 0x66, 0x55, 0xDD, 0xCC, 0xBB, 0xAA, 0, 0, 0, 0));
}

TEST_F(Frame, PacketToNullFramePrintsTheNullCodeAndFails) {
    EXPECT_EQ(
        standardOutputOf([] { EXPECT_EQ(quil_packet_data(nullptr, nullptr, 0, {}, {}, {}), -1); }),
        "error code -4004");
}

TEST_F(Frame, ChecksumOf256BytesOf0xFFIs0xFF00) {
    const Bytes data(256, 0xFF);
    EXPECT_EQ(quil_transfer_checksum(data.data(), 256), 0xFF00);
}

TEST_F(Frame, ChecksumWrapsAt16Bits) {
    const Bytes data(258, 0xFF);
    EXPECT_EQ(quil_transfer_checksum(data.data(), 258), 0x00FE);
}

TEST_F(Frame, ChecksumOfNothingIs0) {
    const uint8_t byte = 7;
    EXPECT_EQ(quil_transfer_checksum(&byte, 0), 0);
    EXPECT_EQ(quil_transfer_checksum(&byte, -5), 0);
}

TEST_F(Frame, ChecksumOfNullPrintsTheNullCodeWithoutALineEnd) {
    EXPECT_EQ(standardOutputOf([] { EXPECT_EQ(quil_transfer_checksum(nullptr, 4), -1); }),
              "error code -4004");
    EXPECT_THAT(board.log(), IsEmpty());
}

TEST_F(Frame, PacketLengthIs30AndItsPartsArePrinted) {
    EXPECT_EQ(standardOutputOf([] { EXPECT_EQ(quil_get_packet_length(), 30); }),
              "n_frame_header_len is 10\nn_request_header_len is 12\nn_request_body_len is 8\n"
              "n_packet_header_length is 30\n");
}

TEST_F(Frame, FrameHeaderHelperTakesTheNextLabelAndLeavesTheLengthAlone) {
    Bytes header(10, 0xEE);
    g_n_lable = 0x0203;
    EXPECT_EQ(quil_packet_add_frame_header(header.data()), 0);
    EXPECT_THAT(header, ElementsAre(0x55, 0xBB, 0, 0, 0, 1, 0x04, 0x02, 0xEE, 0xEE));
    EXPECT_EQ(g_n_lable, 0x0204);
}

TEST_F(Frame, RequestHeaderHelperPlacesFlagsAndFields) {
    Bytes header(12, 0xEE);
    EXPECT_EQ(
        quil_packet_add_request_header(header.data(), 0x11, 3, 0, 0x0102, 0x03040506, 0x0708090A),
        0);
    EXPECT_THAT(header, ElementsAre(0x61, 2, 1, 0, 6, 5, 4, 3, 0x0A, 9, 8, 7));
}

TEST_F(Frame, WriteFlagIsBit0OfIsWriteAloneAndFlagBClearsBit6) {
    Bytes header(12);
    quil_packet_add_request_header(header.data(), 1, 2, 0, 0, 0, 0);
    EXPECT_EQ(header[0], 0x41);
    quil_packet_add_request_header(header.data(), 1, 1, 5, 0, 0, 0);
    EXPECT_EQ(header[0], 0x21);
}

TEST_F(Frame, RequestBodyHelperPlacesCommandAndAZeroWord) {
    Bytes body(8, 0xEE);
    EXPECT_EQ(quil_packet_add_request_body(body.data(), 0xF5000001), 0);
    EXPECT_THAT(body, ElementsAre(0x01, 0, 0, 0xF5, 0, 0, 0, 0));
}

TEST_F(Frame, HelpersRefuseNullWithTheNullCodeAndTakeNoLabel) {
    EXPECT_EQ(standardOutputOf([] { EXPECT_EQ(quil_packet_add_frame_header(nullptr), -1); }),
              "error code -4004");
    EXPECT_EQ(standardOutputOf(
                  [] { EXPECT_EQ(quil_packet_add_request_header(nullptr, 1, 0, 0, 1, 0, 0), -1); }),
              "error code -4004");
    EXPECT_EQ(standardOutputOf([] { EXPECT_EQ(quil_packet_add_request_body(nullptr, 1), -1); }),
              "error code -4004");
    EXPECT_EQ(g_n_lable, 0);
}

TEST_F(Frame, LabelAfter65534FramesIs65535AndTheNextOneIs1) {
    setLogLevel("I");
    uint8_t header[10] = {};
    g_n_lable = 65533;
    quil_packet_add_frame_header(header);
    EXPECT_EQ(header[6] | header[7] << 8, 65534);
    EXPECT_THAT(board.log(), IsEmpty());

    quil_packet_add_frame_header(header);
    EXPECT_EQ(header[6] | header[7] << 8, 65535);
    EXPECT_EQ(g_n_lable, 0);
    EXPECT_THAT(board.log(ANDROID_LOG_INFO),
                ElementsAre("quil_packet_add_frame_header: g_n_lable > 65534\n"));

    quil_packet_add_frame_header(header);
    EXPECT_EQ(header[6] | header[7] << 8, 1);
}

TEST_F(Frame, LabelWrapIsSilentBelowInfo) {
    uint8_t header[10] = {};
    g_n_lable = 65534;
    quil_packet_add_frame_header(header);
    EXPECT_THAT(board.log(), IsEmpty());
}

TEST_F(Frame, PolynomIsTheCrc32GeneratorAndStmSemIsZero) {
    EXPECT_EQ(polynom, 0x04C11DB7U);
    EXPECT_EQ(stm_sem, 0U);
}

TEST_F(Frame, DescriptorIsPackedInto50Bytes) {
    EXPECT_EQ(sizeof(quil_request_param_t), 50U);
    EXPECT_EQ(offsetof(quil_request_param_t, is_write), 20U);
    EXPECT_EQ(offsetof(quil_request_param_t, flag_b), 24U);
    EXPECT_EQ(offsetof(quil_request_param_t, req_type), 32U);
    EXPECT_EQ(offsetof(quil_request_param_t, cmd), 36U);
    EXPECT_EQ(offsetof(quil_request_param_t, field_a), 40U);
    EXPECT_EQ(offsetof(quil_request_param_t, field_b), 42U);
    EXPECT_EQ(offsetof(quil_request_param_t, field_c), 46U);
}

}  // namespace quil::tests
