// Blocks to and from the MCU's memory.
#include <errno.h>

#include <algorithm>
#include <chrono>

#include "tests/isp/isp_test.h"

namespace quil::tests {

using std::chrono::seconds;
using testing::ElementsAre;
using testing::IsEmpty;

class IspMemory : public IspTest {
  protected:
    IspMemory() { openPort(); }

    void expectRead(const Bytes& address, const Bytes& count, const Bytes& data) {
        mcu.expect({0x11, 0xEE}, kAnswerAck);
        mcu.expect(address, kAnswerAck);
        mcu.expect(count, kAnswerAck + data);
    }
};

// Writing.

TEST_F(IspMemory, FourBytesAreWrittenInTheseBytes) {
    Bytes data = {0xDE, 0xAD, 0xBE, 0xEF};
    mcu.expect({0x31, 0xCE}, kAnswerAck);
    mcu.expect({0x08, 0x00, 0x00, 0x00, 0x08}, kAnswerAck);
    mcu.expect({0x03, 0xDE, 0xAD, 0xBE, 0xEF, 0x21}, kAnswerAck);
    board.trace().clear();
    EXPECT_EQ(writememory_2mcu(0x08000000, data.data(), 4), 0);
    // The checksum goes out in a write of its own.
    EXPECT_THAT(done(true),
                ElementsAre("send 31 ce", "send 08 00 00 00 08", "send 03 de ad be ef", "send 21"));
    EXPECT_THAT(said(), IsEmpty());
}

TEST_F(IspMemory, ImageOf600BytesGoesOutInThreeBlocksWithTheRestLast) {
    setLogLevel("D");
    Bytes image = imageOf(600);
    expectBlock({0x08, 0x00, 0x00, 0x00, 0x08}, part(image, 0, 256));
    expectBlock({0x08, 0x00, 0x01, 0x00, 0x09}, part(image, 256, 256));
    expectBlock({0x08, 0x00, 0x02, 0x00, 0x0A}, part(image, 512, 88));
    EXPECT_EQ(writememory_2mcu(0x08000000, image.data(), 600), 0);
    EXPECT_THAT(
        said(),
        ElementsAre("D writememory_2mcu: w_addr=0x08000000, w_size=256, all_len=600, "
                    "w_times=3, w_last=88\n",
                    "D \r write mcu internal flash: [42%]", "D \r write mcu internal flash: [85%]",
                    "D \r write mcu internal flash: [100%]",
                    "D writememory_2mcu: final write mcu internal flash: [100]"));
}

TEST_F(IspMemory, ImageOf512BytesIsTwoFullRoundsWithNoShortBlock) {
    setLogLevel("D");
    Bytes image = imageOf(512);
    expectBlock({0x08, 0x00, 0x00, 0x00, 0x08}, part(image, 0, 256));
    expectBlock({0x08, 0x00, 0x01, 0x00, 0x09}, part(image, 256, 256));
    EXPECT_EQ(writememory_2mcu(0x08000000, image.data(), 512), 0);
    EXPECT_EQ(said().front(),
              "D writememory_2mcu: w_addr=0x08000000, w_size=256, all_len=512, w_times=2, "
              "w_last=0\n");
}

TEST_F(IspMemory, AddressCountsFromWhereTheCallerSays) {
    Bytes data = {0x5A};
    expectBlock({0x12, 0x34, 0x56, 0x78, 0x08}, data);
    EXPECT_EQ(writememory_2mcu(0x12345678, data.data(), 1), 0);
}

class IspSizelessWrite : public IspMemory, public testing::WithParamInterface<int> {};

TEST_P(IspSizelessWrite, DoesNoRoundAndFails) {
    setLogLevel("D");
    uint8_t byte = 0;
    EXPECT_EQ(writememory_2mcu(0x08000000, &byte, GetParam()), -1);
    auto lines = said();
    ASSERT_EQ(lines.size(), 3U);
    lines.erase(lines.begin());
    EXPECT_THAT(lines, ElementsAre("D writememory_2mcu: final write mcu internal flash: [0]",
                                   "E writememory_2mcu: fw update progress < 100\n"));
    EXPECT_THAT(board.mcuUart().sentByHost(), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(Each, IspSizelessWrite, testing::Values(0, -1, -256, -257, INT_MIN));

TEST_F(IspMemory, WriteWithoutDataDoesNoRoundAndFails) {
    EXPECT_EQ(writememory_2mcu(0x08000000, nullptr, 512), -1);
    EXPECT_THAT(said(), ElementsAre("E writememory_2mcu: fw update progress < 100\n"));
}

TEST_F(IspMemory, RefusedCommandTriesTheSameDataInTheNextRoundAndLosesTheEnd) {
    setLogLevel("D");
    Bytes image = imageOf(600);
    expectBlock({0x08, 0x00, 0x00, 0x00, 0x08}, part(image, 0, 256));
    mcu.expect({0x31, 0xCE}, kAnswerNack);
    // The last round sends 88 bytes, at the address of the block that was refused.
    expectBlock({0x08, 0x00, 0x01, 0x00, 0x09}, part(image, 256, 88));
    EXPECT_EQ(writememory_2mcu(0x08000000, image.data(), 600), -1);
    EXPECT_THAT(said(),
                ElementsAre("D writememory_2mcu: w_addr=0x08000000, w_size=256, all_len=600, "
                            "w_times=3, w_last=88\n",
                            "D \r write mcu internal flash: [42%]",
                            "E writememory_2mcu: ack_sendcmd(CMD_WRITE_MEMORY) failed",
                            "D \r write mcu internal flash: [57%]",
                            "D writememory_2mcu: final write mcu internal flash: [57]",
                            "E writememory_2mcu: fw update progress < 100\n"));
}

TEST_F(IspMemory, SilentMcuCostsASecondARoundAndWritesNothing) {
    Bytes image = imageOf(512);
    mcu.expect({0x31, 0xCE});
    mcu.expect({0x31, 0xCE});
    const auto start = board.now();
    EXPECT_EQ(writememory_2mcu(0x08000000, image.data(), 512), -1);
    EXPECT_EQ(board.now() - start, seconds(2));
    EXPECT_THAT(said(),
                ElementsAre(timeOut(), "E writememory_2mcu: ack_sendcmd(CMD_WRITE_MEMORY) failed",
                            timeOut(), "E writememory_2mcu: ack_sendcmd(CMD_WRITE_MEMORY) failed",
                            "E writememory_2mcu: fw update progress < 100\n"));
}

TEST_F(IspMemory, AnswersToAddressAndDataAreReadButNotExamined) {
    Bytes data = {0x01, 0x02};
    mcu.expect({0x31, 0xCE}, kAnswerAck);
    mcu.expect({0x08, 0x00, 0x00, 0x00, 0x08}, kAnswerNack);
    mcu.expect({0x01, 0x01, 0x02, 0x02}, kAnswerNack);
    EXPECT_EQ(writememory_2mcu(0x08000000, data.data(), 2), 0);
    EXPECT_THAT(said(), IsEmpty());
}

TEST_F(IspMemory, MissingAnswersToAddressAndDataOnlyCostTime) {
    Bytes data = {0x01, 0x02};
    mcu.expect({0x31, 0xCE}, kAnswerAck);
    mcu.expect({0x08, 0x00, 0x00, 0x00, 0x08});
    mcu.expect({0x01, 0x01, 0x02, 0x02});
    EXPECT_EQ(writememory_2mcu(0x08000000, data.data(), 2), 0);
    EXPECT_THAT(said(), ElementsAre(timeOut(), timeOut()));
}

TEST_F(IspMemory, FailedWritesAreLoggedUnderTheSerialPortsName) {
    Bytes data = {0x01, 0x02};
    mcu.expect({0x31, 0xCE}, kAnswerAck);
    board.faults().add({.call = board::Call::kWrite,
                        .path = kHeronUart,
                        .error = EIO,
                        .after = 1,
                        .times = 3});  // address, data and checksum
    EXPECT_EQ(writememory_2mcu(0x08000000, data.data(), 2), 0);
    EXPECT_THAT(said(), ElementsAre("E mcu_serial_write: write error. \n", timeOut(),
                                    "E mcu_serial_write: write error. \n",
                                    "E mcu_serial_write: write error. \n", timeOut()));
}

// Reading.

TEST_F(IspMemory, ImageIsReadInBlocksOf255) {
    setLogLevel("D");
    const Bytes image = imageOf(600);
    expectRead({0x08, 0x00, 0x00, 0x00, 0x08}, {0xFE, 0x01}, part(image, 0, 255));
    expectRead({0x08, 0x00, 0x00, 0xFF, 0xF7}, {0xFE, 0x01}, part(image, 255, 255));
    expectRead({0x08, 0x00, 0x01, 0xFE, 0xF7}, {0x59, 0xA6}, part(image, 510, 90));
    Bytes memory(600);
    EXPECT_EQ(standardOutputOf([&] { readmemory_4mcu(0x08000000, memory.data(), 600); }),
              "\r read mcu internal flash: [42%]\r read mcu internal flash: [85%]"
              "\r read mcu internal flash: [100%]");
    EXPECT_EQ(memory, image);
    EXPECT_THAT(said(), ElementsAre("D w_size=255, all_len=600, w_times=3, w_last=90\n",
                                    "D readmemory_4mcu: read mcu internal flash: [42%]\n",
                                    "D readmemory_4mcu: read mcu internal flash: [85%]\n",
                                    "D readmemory_4mcu: read mcu internal flash: [100%]\n",
                                    "D \n readmemory_4mcu end.. \n"));
}

TEST_F(IspMemory, WholeBlocksHaveNoShortOneBehindThem) {
    const Bytes image = imageOf(510);
    expectRead({0x08, 0x00, 0x00, 0x00, 0x08}, {0xFE, 0x01}, part(image, 0, 255));
    expectRead({0x08, 0x00, 0x00, 0xFF, 0xF7}, {0xFE, 0x01}, part(image, 255, 255));
    Bytes memory(510);
    standardOutputOf([&] { readmemory_4mcu(0x08000000, memory.data(), 510); });
    EXPECT_EQ(memory, image);
}

class IspSizelessRead : public IspMemory, public testing::WithParamInterface<int> {};

TEST_P(IspSizelessRead, DoesNoRound) {
    setLogLevel("D");
    uint8_t byte = 0xEE;
    EXPECT_EQ(standardOutputOf([&] { readmemory_4mcu(0x08000000, &byte, GetParam()); }), "");
    EXPECT_EQ(byte, 0xEE);
    EXPECT_EQ(said().back(), "D \n readmemory_4mcu end.. \n");
    EXPECT_THAT(board.mcuUart().sentByHost(), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(Each, IspSizelessRead, testing::Values(0, -1, -255, -256, INT_MIN));

TEST_F(IspMemory, ReadWithoutABufferDoesNoRound) {
    readmemory_4mcu(0x08000000, nullptr, 600);
    EXPECT_THAT(board.mcuUart().sentByHost(), IsEmpty());
}

TEST_F(IspMemory, RefusedReadRoundAdvancesNothing) {
    setLogLevel("D");
    const Bytes image = imageOf(300);
    mcu.expect({0x11, 0xEE}, kAnswerNack);
    expectRead({0x08, 0x00, 0x00, 0x00, 0x08}, {0x2C, 0xD3}, part(image, 0, 45));
    Bytes memory(300, 0xEE);
    EXPECT_EQ(standardOutputOf([&] { readmemory_4mcu(0x08000000, memory.data(), 300); }),
              "\r read mcu internal flash: [15%]");
    EXPECT_EQ(memory, part(image, 0, 45) + Bytes(255, 0xEE));
    EXPECT_THAT(said(), ElementsAre("D w_size=255, all_len=300, w_times=2, w_last=45\n",
                                    "D readmemory_4mcu: read mcu internal flash: [15%]\n",
                                    "D \n readmemory_4mcu end.. \n"));
}

TEST_F(IspMemory, RefusedCountStopsTheReadingAltogether) {
    setLogLevel("D");
    mcu.expect({0x11, 0xEE}, kAnswerAck);
    mcu.expect({0x08, 0x00, 0x00, 0x00, 0x08}, kAnswerNack);  // ignored
    mcu.expect({0xFE, 0x01}, kAnswerNack);
    Bytes memory(600, 0xEE);
    EXPECT_EQ(standardOutputOf([&] { readmemory_4mcu(0x08000000, memory.data(), 600); }), "");
    EXPECT_EQ(memory, Bytes(600, 0xEE));
    EXPECT_THAT(said(), ElementsAre("D w_size=255, all_len=600, w_times=3, w_last=90\n",
                                    "D \n readmemory_4mcu end.. \n"));
}

TEST_F(IspMemory, BlockThatComesShortLeavesAGapAndGoesOn) {
    const Bytes image = imageOf(300);
    expectRead({0x08, 0x00, 0x00, 0x00, 0x08}, {0xFE, 0x01}, part(image, 0, 100));
    expectRead({0x08, 0x00, 0x00, 0xFF, 0xF7}, {0x2C, 0xD3}, part(image, 255, 45));
    Bytes memory(300, 0xEE);
    standardOutputOf([&] { readmemory_4mcu(0x08000000, memory.data(), 300); });
    EXPECT_EQ(memory, part(image, 0, 100) + Bytes(155, 0xEE) + part(image, 255, 45));
    EXPECT_THAT(said(), ElementsAre(timeOut(100)));
}

}  // namespace quil::tests
