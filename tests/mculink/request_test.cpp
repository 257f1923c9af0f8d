#include "mculink/request.h"

#include <errno.h>
#include <unistd.h>

#include "testing/library_test.h"

namespace quil::tests {

using board::Call;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

constexpr char kPacketLengths[] =
    "n_frame_header_len is 10\nn_request_header_len is 12\nn_request_body_len is 8\n"
    "n_packet_header_length is 30\n";

quil_request_param_t descriptor(uint32_t cmd) {
    quil_request_param_t param = {};
    param.req_type = 1;
    param.cmd = cmd;
    param.field_a = 1;
    return param;
}

}  // namespace

// A request goes into a pipe, so that the bytes can be read back without a device in between.
class Request : public LibraryTest {
  protected:
    Request() { EXPECT_EQ(pipe(mPipe), 0); }
    ~Request() override {
        close(mPipe[0]);
        close(mPipe[1]);
    }

    int out() const { return mPipe[1]; }

    Bytes written() {
        close(mPipe[1]);
        Bytes bytes(2 * mculink::kFrameMax);
        const ssize_t count = read(mPipe[0], bytes.data(), bytes.size());
        bytes.resize(count < 0 ? 0 : static_cast<size_t>(count));
        mPipe[1] = -1;
        return bytes;
    }

    int mPipe[2] = {-1, -1};
};

TEST_F(Request, GetOf0x102WithOneByteAndLabel5WritesTheWorkedFrame) {
    g_n_lable = 4;
    const uint8_t payload = 1;
    EXPECT_EQ(send_mcu_message(0x102, 0, &payload, 1, out()), 33);
    EXPECT_THAT(written(),
                ElementsAre(0x55, 0xBB, 0x00, 0x00, 0x00, 0x01, 0x05, 0x00, 0x17, 0x00, 0x41, 0x01,
                            0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x02, 0x01,
                            0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x01, 0x73, 0x01));
}

TEST_F(Request, EmptyPayloadWrites32Bytes) {
    EXPECT_EQ(send_mcu_message(0x102, 0, nullptr, 0, out()), 32);
    EXPECT_EQ(written().size(), 32U);
}

TEST_F(Request, PayloadOf4112BytesWritesAFrameOf4144) {
    const Bytes payload(4112, 0xA5);
    EXPECT_EQ(send_mcu_message(0x102, 1, payload.data(), 4112, out()), 4144);
    const Bytes frame = written();
    ASSERT_EQ(frame.size(), 4144U);
    EXPECT_EQ(frame[8] | frame[9] << 8, 4134);
    EXPECT_EQ(frame[4141], 0xA5);
}

TEST_F(Request, PayloadOf4113BytesIsRefusedBeforeAnythingIsWritten) {
    const Bytes payload(4113);
    EXPECT_EQ(send_mcu_message(0x102, 1, payload.data(), 4113, out()), -1);
    EXPECT_THAT(written(), IsEmpty());
    EXPECT_THAT(board.log(ANDROID_LOG_ERROR),
                ElementsAre("quil_request: payload length 4113 is above 4112\n"));
}

TEST_F(Request, NullPayloadWithALengthSendsThatManyZeroBytes) {
    EXPECT_EQ(send_mcu_message(0x102, 0, nullptr, 3, out()), 35);
    const Bytes frame = written();
    ASSERT_EQ(frame.size(), 35U);
    EXPECT_EQ(frame[8], 25);
    EXPECT_THAT(Bytes(frame.begin() + 30, frame.begin() + 33), ElementsAre(0, 0, 0));
}

TEST_F(Request, SuccessIsSilentBelowDebugButPrintsThePacketLengths) {
    EXPECT_EQ(standardOutputOf([&] { send_mcu_message(0x102, 0, nullptr, 0, out()); }),
              kPacketLengths);
    EXPECT_THAT(board.log(), IsEmpty());
}

TEST_F(Request, DebugMessagesComeInOrderUnderTheServiceTag) {
    setLogLevel("D");
    auto param = descriptor(0x102);
    standardOutputOf([&] { EXPECT_EQ(quil_request(nullptr, 0, &param, out()), 32); });
    std::vector<std::string> expected = {
        "quil_request: is called\n",
        "sdk_packet_add_frame_header1\n",
        "sdk_packet_add_frame_header2\n",
        "sdk_packet_add_frame_header3\n",
        "sdk_packet_add_frame_header4\n",
        "sdk_packet_add_frame_header5,n_send_len is 30\n",
        "sdk_packet_add_frame_header6\n",
        "sdk_packet_add_frame_header7\n",
        "quil_physical_send: fd = " + std::to_string(out()) + "\n",
        "data[0]:0x55 ",
        "data[1]:0xbb ",
    };
    std::vector<std::string> log = board.log(ANDROID_LOG_DEBUG);
    ASSERT_EQ(log.size(), 9U + 32U + 1U);
    EXPECT_EQ(log.back(), "quil_request: is end\n");
    log.resize(expected.size());
    EXPECT_EQ(log, expected);
    for (const board::LogLine& line : board.logLines()) {
        EXPECT_EQ(line.tag, "quil_system_hidl_service");
    }
}

TEST_F(Request, DescriptorThatCannotBeAllocatedPrintsTheMemoryCodeAndFails) {
    board.faults().add({.call = Call::kMalloc});
    EXPECT_EQ(
        standardOutputOf([&] { EXPECT_EQ(send_mcu_message(0x102, 0, nullptr, 0, out()), -1); }),
        "error code -4001");
    EXPECT_THAT(written(), IsEmpty());
    EXPECT_EQ(g_n_lable, 0);
}

TEST_F(Request, WorkBufferThatCannotBeAllocatedFailsWithoutWriting) {
    setLogLevel("D");
    board.faults().add({.call = Call::kMalloc, .after = 1});
    EXPECT_EQ(send_mcu_message(0x102, 0, nullptr, 0, out()), -1);
    EXPECT_THAT(written(), IsEmpty());
    EXPECT_THAT(board.log(ANDROID_LOG_DEBUG), testing::Contains("error code -4001"));
    EXPECT_THAT(board.log(ANDROID_LOG_ERROR), IsEmpty());
}

TEST_F(Request, MissingWorkBufferIsToldAtDebugOnly) {
    board.faults().add({.call = Call::kMalloc, .after = 1});
    EXPECT_EQ(send_mcu_message(0x102, 0, nullptr, 0, out()), -1);
    EXPECT_THAT(board.log(), IsEmpty());
}

TEST_F(Request, NullDescriptorPrintsTheNullCodeAndFails) {
    EXPECT_EQ(standardOutputOf([&] { EXPECT_EQ(quil_request(nullptr, 0, nullptr, out()), -1); }),
              "error code -4004");
    EXPECT_THAT(written(), IsEmpty());
}

TEST_F(Request, FailedWriteIsReportedByBothLayersWithAZeroReceiveCount) {
    EXPECT_EQ(send_mcu_message(0x102, 0, nullptr, 0, -1), -1);
    EXPECT_THAT(board.log(ANDROID_LOG_ERROR),
                ElementsAre("quil_physical_send: write fd(-1) err(Bad file descriptor)\n",
                            "quil_request: quil_physical_send failed, n_recv_len = 0\n"));
}

TEST_F(Request, FailedWriteStillEndsTheRequest) {
    setLogLevel("D");
    EXPECT_EQ(send_mcu_message(0x102, 0, nullptr, 0, -1), -1);
    EXPECT_EQ(board.log().back(), "quil_request: is end\n");
}

TEST_F(Request, NullFrameIsNotSent) {
    EXPECT_EQ(standardOutputOf([&] { EXPECT_EQ(quil_physical_send(nullptr, 9, out()), -1); }),
              "error code -4004");
    EXPECT_THAT(written(), IsEmpty());
}

TEST_F(Request, PrintsendDumpsEachByteAtDebugOnly) {
    const uint8_t data[] = {0x00, 0xAB};
    printsend(data, 2);
    EXPECT_THAT(board.log(), IsEmpty());
    setLogLevel("D");
    printsend(data, 2);
    EXPECT_THAT(board.log(ANDROID_LOG_DEBUG), ElementsAre("data[0]:0x00 ", "data[1]:0xab "));
    EXPECT_EQ(standardOutputOf([] { printsend(nullptr, 3); }), "error code -4004");
}

TEST_F(LibraryTest, WriteOfARequestThatComesUpShortIsReturnedAsItIs) {
    openLink();
    board.faults().add({.call = Call::kWrite, .path = kHeronUart, .shortTo = 7});
    EXPECT_EQ(send_mcu_message(0x102, 0, nullptr, 0, config_info->mcu_fd), 7);
    EXPECT_THAT(board.log(ANDROID_LOG_ERROR), IsEmpty());
}

class RequestWriteError : public LibraryTest, public testing::WithParamInterface<int> {};

TEST_P(RequestWriteError, IsNotRetriedAndItsTextIsLogged) {
    openLink();
    board.faults().add({.call = Call::kWrite, .path = kHeronUart, .error = GetParam()});
    EXPECT_EQ(send_mcu_message(0x102, 0, nullptr, 0, config_info->mcu_fd), -1);
    EXPECT_THAT(board.log(ANDROID_LOG_ERROR),
                ElementsAre("quil_physical_send: write fd(" + std::to_string(config_info->mcu_fd) +
                                ") err(" + strerror(GetParam()) + ")\n",
                            "quil_request: quil_physical_send failed, n_recv_len = 0\n"));
    EXPECT_THAT(board.mcu().requests(), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(OfEachKind, RequestWriteError,
                         testing::Values(EINTR, EAGAIN, EIO, ENODEV));

}  // namespace quil::tests
