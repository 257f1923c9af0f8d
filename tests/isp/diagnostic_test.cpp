// The session around one boot-loader command.
#include <stdlib.h>

#include <chrono>
#include <filesystem>

#include "testing/files.h"
#include "tests/isp/isp_test.h"

namespace quil::tests {

using board::Call;
using std::chrono::milliseconds;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::IsEmpty;

namespace {

constexpr char kReadBackPath[] = "/opt/test2.bin";
const Lines kInSynchrony = {"D try_times = 3\n", "D wait ack_startisp ... \n",
                            "D ack_startisp: mcu_serial_read ACK data:0x79\n"};
const Lines kEraseCommandSaid = {"D ack_sendcmd: CMD_EXTENDED_ERASE start\n",
                                 "D ack_sendcmd: CMD_EXTENDED_ERASE end\n"};

}  // namespace

class IspDiagnostic : public IspTest {
  protected:
    IspDiagnostic() {
        mcu.setLine({115200, 8, 'E', 1});
        setLogLevel("D");
    }

    // Runs a session that exchanges nothing after the synchronisation.
    int runSynchronised(unsigned cmd) {
        sync();
        return run(cmd);
    }
    int run(unsigned cmd) {
        board.trace().clear();
        const int result = task(cmd, kImagePath, kHeronUart);
        EXPECT_EQ(board.mcuUart().mode(), "8E1");
        EXPECT_FALSE(isOpen(fd));
        return result;
    }
    void sync() { mcu.expect({0x7F}, kAnswerAck); }

    // The messages between the synchronisation and the end; checks those that every session logs.
    Lines saidInside() const {
        Lines lines = said();
        const Lines before = kSaidFirst + kInSynchrony;
        const size_t around = before.size() + kSaidLast.size();
        EXPECT_GE(lines.size(), around);
        if (lines.size() < around) return lines;
        const auto first = lines.begin() + static_cast<ptrdiff_t>(before.size());
        const auto last = lines.end() - static_cast<ptrdiff_t>(kSaidLast.size());
        EXPECT_EQ(Lines(lines.begin(), first), before);
        EXPECT_EQ(Lines(last, lines.end()), kSaidLast);
        return {first, last};
    }
    std::string readBack() const { return contentOf(board.hostPath(kReadBackPath)); }
};

// Around the command.

TEST_F(IspDiagnostic, UnknownCommandDoesNothingAndGives0) {
    EXPECT_EQ(runSynchronised(0x33), 0);
    EXPECT_THAT(saidInside(), IsEmpty());
    EXPECT_THAT(done(), ElementsAreArray(kEntry + kExit));
}

TEST_F(IspDiagnostic, NamedCommandWithoutAnActionIsOnlyNamed) {
    EXPECT_EQ(runSynchronised(0x21), 0);
    EXPECT_THAT(saidInside(), ElementsAre("D send cmd [0x21] : CMD_GO                 \n"));
}

TEST_F(IspDiagnostic, FailedSynchronisationEndsItWith15) {
    for (int i = 0; i < 3; ++i) mcu.expect({0x7F}, kAnswerNack);
    EXPECT_EQ(run(0x00), 15);
    Lines expected = kSaidFirst;
    for (const char* line : {"D try_times = 3\n", "D try_times = 2\n", "D try_times = 1\n"}) {
        expected.insert(expected.end(), {line, "D wait ack_startisp ... \n",
                                         "D ack_startisp: mcu_serial_read ACK data:0x1f\n"});
    }
    EXPECT_THAT(said(), ElementsAreArray(expected + kSaidLast));
    EXPECT_THAT(done(), ElementsAreArray(kEntry + kExit));
}

// 0x00

TEST_F(IspDiagnostic, GetNamesTheCommandsThatItKnowsByTheirPosition) {
    sync();
    // Eleven bytes follow the version; 0xA1 is no command of the table, nor is 0xFF.
    mcu.expect({0x00, 0xFF}, {0x79, 0x0B, 0x31, 0x00, 0x01, 0x02, 0x11, 0xA1, 0x31, 0x44, 0x63,
                              0x73, 0xFF, 0x92, 0x79});
    EXPECT_EQ(run(0x00), 0);
    EXPECT_THAT(saidInside(),
                ElementsAre("D send cmd [0x00] : CMD_GET                \n",
                            "D \n [*]. get isp command  .\n", "D datalen = 0x0b; version = 0x31 \n",
                            "D recvbuf[0] = [0x00] : CMD_GET                \n",
                            "D recvbuf[1] = [0x01] : CMD_GET_VERSION        \n",
                            "D recvbuf[2] = [0x02] : CMD_GET_ID             \n",
                            "D recvbuf[3] = [0x11] : CMD_READ_MEMORY        \n",
                            "D recvbuf[5] = [0x31] : CMD_WRITE_MEMORY       \n",
                            "D recvbuf[6] = [0x44] : CMD_EXTENDED_ERASE     \n",
                            "D recvbuf[7] = [0x63] : CMD_WRITE_PROTECT      \n",
                            "D recvbuf[8] = [0x73] : CMD_WRITE_UNPROTECT    \n",
                            "D recvbuf[10] = [0x92] : CMD_READOUT_UNPROTECT  \n"));
}

TEST_F(IspDiagnostic, RefusedGetGives0) {
    sync();
    mcu.expect({0x00, 0xFF}, kAnswerNack);
    EXPECT_EQ(run(0x00), 0);
    EXPECT_THAT(saidInside(), ElementsAre("D send cmd [0x00] : CMD_GET                \n",
                                          "D \n [*]. get isp command  .\n"));
}

TEST_F(IspDiagnostic, GetOf255BytesFillsItsBufferExactly) {
    sync();
    mcu.expect({0x00, 0xFF}, Bytes{0x79, 0xFF, 0x31} + Bytes(254, 0xFF) + Bytes{0x44, 0x79});
    EXPECT_EQ(run(0x00), 0);
    EXPECT_EQ(saidInside().back(), "D recvbuf[254] = [0x44] : CMD_EXTENDED_ERASE     \n");
}

TEST_F(IspDiagnostic, CommandsThatNeverComeAreNotNamed) {
    sync();
    mcu.expect({0x00, 0xFF}, {0x79, 0x03, 0x31, 0x11});
    EXPECT_EQ(run(0x00), 0);
    EXPECT_THAT(
        saidInside(),
        ElementsAre("D send cmd [0x00] : CMD_GET                \n",
                    "D \n [*]. get isp command  .\n", "D datalen = 0x03; version = 0x31 \n",
                    timeOut(1), "D recvbuf[0] = [0x11] : CMD_READ_MEMORY        \n", timeOut()));
}

// 0x11

TEST_F(IspDiagnostic, ReadMemoryWritesWhatItReadToItsFile) {
    const Bytes memory = imageOf(256);
    writeImage(Bytes(256));
    sync();
    mcu.expect({0x11, 0xEE}, kAnswerAck);
    mcu.expect({0x08, 0x00, 0x00, 0x00, 0x08}, kAnswerAck);
    mcu.expect({0xFE, 0x01}, kAnswerAck + part(memory, 0, 255));
    mcu.expect({0x11, 0xEE}, kAnswerAck);
    mcu.expect({0x08, 0x00, 0x00, 0xFF, 0xF7}, kAnswerAck);
    mcu.expect({0x00, 0xFF}, kAnswerAck + part(memory, 255, 1));
    EXPECT_EQ(standardOutputOf([&] { EXPECT_EQ(run(0x11), 0); }),
              "\r read mcu internal flash: [99%]\r read mcu internal flash: [100%]");
    EXPECT_EQ(readBack(), std::string(memory.begin(), memory.end()));
    EXPECT_THAT(saidInside(), ElementsAre("D send cmd [0x11] : CMD_READ_MEMORY        \n",
                                          "D \n [*]. read mcu BOOT memory.\n",
                                          "D get binfile size: 256\n", "D readmemory_4mcu:\n",
                                          "D w_size=255, all_len=256, w_times=2, w_last=1\n",
                                          "D readmemory_4mcu: read mcu internal flash: [99%]\n",
                                          "D readmemory_4mcu: read mcu internal flash: [100%]\n",
                                          "D \n readmemory_4mcu end.. \n", "D file_write:\n",
                                          "D fwrite binbuff to binfile(/opt/test2.bin).\n"));
}

TEST_F(IspDiagnostic, ReadMemoryOfAMissingFilesSizeWritesAnEmptyFile) {
    EXPECT_EQ(runSynchronised(0x11), 0);
    EXPECT_EQ(readBack(), "");
    EXPECT_TRUE(std::filesystem::exists(board.hostPath(kReadBackPath)));
}

TEST_F(IspDiagnostic, ReadMemoryThatCannotBeKeptStillGives0) {
    board.faults().add({.call = Call::kFopen, .path = kReadBackPath, .error = EACCES});
    EXPECT_EQ(runSynchronised(0x11), 0);
    EXPECT_EQ(saidInside().back(), "D file open error:/opt/test2.bin. \n");
}

TEST_F(IspDiagnostic, ReadMemoryWithoutASizeGives15) {
    if (!writeHugeImage()) GTEST_SKIP() << "32-bit file sizes";
    EXPECT_EQ(runSynchronised(0x11), 15);
    EXPECT_THAT(saidInside(),
                ElementsAre("D send cmd [0x11] : CMD_READ_MEMORY        \n",
                            "D \n [*]. read mcu BOOT memory.\n",
                            "D get binfile size: -1073741824\n", "D get bootsize error.\n"));
}

TEST_F(IspDiagnostic, ReadMemoryWithoutASizeIsSilentBelowLevelD) {
    if (!writeHugeImage()) GTEST_SKIP() << "32-bit file sizes";
    setLogLevel("I");
    EXPECT_EQ(runSynchronised(0x11), 15);
    EXPECT_THAT(board.log(), IsEmpty());
}

TEST_F(IspDiagnostic, ReadMemoryWithoutMemoryGives15) {
    writeImage(Bytes(256));
    board.faults().add({.call = Call::kMalloc});
    EXPECT_EQ(runSynchronised(0x11), 15);
    EXPECT_EQ(saidInside().back(), "D malloc failed. \n");
}

// 0x31

TEST_F(IspDiagnostic, WriteMemoryIsTheProductionSessionUnderItsOwnName) {
    const Bytes image = imageOf(1);
    writeImage(image);
    sync();
    mcu.expect({0x06, 0xF9}, kGd32F470Pid);
    mcu.expect({0x44, 0xBB}, kAnswerAck);
    mcu.expect({0x00, 0x00, 0x00, 0x00, 0x00}, kAnswerAck);
    expectBlock({0x08, 0x00, 0x00, 0x00, 0x08}, image);
    EXPECT_EQ(run(0x31), 0);
    EXPECT_THAT(
        saidInside(),
        ElementsAreArray(
            Lines{"D send cmd [0x31] : CMD_WRITE_MEMORY       \n",
                  "D \n task: [*]. erase mcu memory by page(in CMD_WRITE_MEMORY case).\n",
                  "D read_gd_mcu_pid: read gd pid data len = 4\n",
                  "D mcu_type_detect: read gd mcu pid = 0x4e455a30\n",
                  "I mcu_type_detect: clear all unread uart input data\n",
                  "I mcu_type_detect: _mcu_type: MCU_GD32F470\n"} +
            kEraseCommandSaid +
            Lines{"D get binfile size: 1\n", "D CMD_EXTENDED_ERASE: len = 1, page_cnt = 1\n",
                  "D CMD_EXTENDED_ERASE: send erase pages.\n", "D mcu_serial_read ACK data:0x79\n",
                  "D \n [*]. write mcu internal flash.\n", "D fread binfile to binbuff . \n",
                  // NOLINTNEXTLINE(bugprone-suspicious-missing-comma)
                  "D writememory_2mcu: w_addr=0x08000000, w_size=256, all_len=1, w_times=1, "
                  "w_last=1\n",
                  "D \r write mcu internal flash: [100%]",
                  "D writememory_2mcu: final write mcu internal flash: [100]"}));
    EXPECT_THAT(done(), ElementsAreArray(kEntry + kErasePause + kExit));
}

TEST_F(IspDiagnostic, WriteMemoryOfAnEmptyImageGives15) {
    writeImage({});
    sync();
    mcu.expect({0x06, 0xF9}, kGd32F470Pid);
    mcu.expect({0x44, 0xBB}, kAnswerAck);
    mcu.expect({0x00, 0x00, 0x00, 0x00, 0x00}, kAnswerAck);
    EXPECT_EQ(run(0x31), 15);
    EXPECT_EQ(saidInside().back(), "D writememory_2mcu failed. ret = -1\n");
}

// 0x43

TEST_F(IspDiagnostic, EraseSendsTheGlobalRequestInTwoWritesAndGivesTheReadsStatus) {
    sync();
    mcu.expect({0x43, 0xBC}, kAnswerAck);
    mcu.expect({0xFF, 0x00}, kAnswerNack);  // ignored
    EXPECT_EQ(run(0x43), 0);
    EXPECT_THAT(saidInside(), ElementsAre("D send cmd [0x43] : CMD_ERASE              \n",
                                          "D \n [*]. erase mcu memory.\n"));
    const Lines sent = {"send 7f", "send 43 bc", "send ff", "send 00", "pause 1 ms"};
    EXPECT_THAT(done(true), ElementsAreArray(kEntry + sent + kExit));
}

TEST_F(IspDiagnostic, UnansweredEraseGives3) {
    sync();
    mcu.expect({0x43, 0xBC}, kAnswerAck);
    mcu.expect({0xFF, 0x00});
    EXPECT_EQ(run(0x43), 3);
}

TEST_F(IspDiagnostic, RefusedEraseGives15) {
    sync();
    mcu.expect({0x43, 0xBC}, kAnswerNack);
    EXPECT_EQ(run(0x43), 15);
    EXPECT_EQ(saidInside().back(), "D ack_sendcmd CMD_ERASE failed.\n");
}

// 0x44

TEST_F(IspDiagnostic, ExtendedEraseGives0WhateverTheBootLoaderMakesOfIt) {
    sync();
    mcu.expect({0x44, 0xBB}, kAnswerAck);
    // The frame depends on the part that was detected last, maybe by another test: any frame will
    // do.
    board.faults().add(
        {.call = Call::kWrite, .path = kHeronUart, .after = 2, .lostSilently = true});
    writeImage(imageOf(300));
    EXPECT_EQ(run(0x44), 0);
    Lines lines = saidInside();
    ASSERT_EQ(lines.size(), 10U);
    EXPECT_THAT(lines[5], testing::StartsWith("D CMD_EXTENDED_ERASE: len = 300, page_cnt = "));
    lines[5] = "";
    EXPECT_THAT(lines,
                ElementsAre("D send cmd [0x44] : CMD_EXTENDED_ERASE     \n",
                            "D \n [*]. erase mcu memory by page(in CMD_EXTENDED_ERASE case).\n",
                            kEraseCommandSaid[0], kEraseCommandSaid[1], "D get binfile size: 300\n",
                            "", "D CMD_EXTENDED_ERASE: send erase pages.\n", timeOut(),
                            "D mcu_serial_read ACK data:0x00\n",
                            "D  erasememory_extend ack error! check it !!! \n"));
}

TEST_F(IspDiagnostic, RefusedExtendedEraseGives15) {
    sync();
    mcu.expect({0x44, 0xBB}, kAnswerNack);
    EXPECT_EQ(run(0x44), 15);
    EXPECT_EQ(saidInside().back(), "D ack_sendcmd CMD_EXTENDED_ERASE failed.\n");
}

TEST_F(IspDiagnostic, ExtendedEraseWithoutASizeGives15) {
    if (!writeHugeImage()) GTEST_SKIP() << "32-bit file sizes";
    sync();
    mcu.expect({0x44, 0xBB}, kAnswerAck);
    EXPECT_EQ(run(0x44), 15);
    EXPECT_EQ(saidInside().back(), "D get bootsize error.\n");
}

// 0x73 and 0x92

TEST_F(IspDiagnostic, WriteUnprotectReadsTheSecondAnswerAndGives0) {
    sync();
    mcu.expect({0x73, 0x8C}, {0x79, 0x79});
    EXPECT_EQ(run(0x73), 0);
    EXPECT_THAT(saidInside(), ElementsAre("D send cmd [0x73] : CMD_WRITE_UNPROTECT    \n",
                                          "D \n [*]. set mcu memory Writeable.\n",
                                          "D CMD_WRITE_UNPROTECT read ack = 0x79.\n"));
}

TEST_F(IspDiagnostic, WriteUnprotectWithoutASecondAnswerGives0) {
    sync();
    mcu.expect({0x73, 0x8C}, kAnswerAck);
    EXPECT_EQ(run(0x73), 0);
    EXPECT_EQ(saidInside().back(), "D CMD_WRITE_UNPROTECT read ack = 0x00.\n");
}

TEST_F(IspDiagnostic, WriteUnprotectReadsItsAnswerWhateverTheLogLevel) {
    setLogLevel("E");
    sync();
    mcu.expect({0x73, 0x8C}, kAnswerAck);
    const auto start = board.now();
    EXPECT_EQ(run(0x73), 0);
    EXPECT_GE(board.now() - start, milliseconds(1000 + 1000 + 500));
    EXPECT_THAT(said(), ElementsAre(timeOut()));
}

TEST_F(IspDiagnostic, RefusedWriteUnprotectGives15) {
    sync();
    mcu.expect({0x73, 0x8C}, kAnswerNack);
    EXPECT_EQ(run(0x73), 15);
    EXPECT_EQ(saidInside().back(), "D ack_sendcmd CMD_WRITE_UNPROTECT failed.\n");
}

TEST_F(IspDiagnostic, ReadoutUnprotectGivesTheSecondReadsStatus) {
    sync();
    mcu.expect({0x92, 0x6D}, {0x79, 0x1F});
    EXPECT_EQ(run(0x92), 0);
    EXPECT_THAT(saidInside(), ElementsAre("D send cmd [0x92] : CMD_READOUT_UNPROTECT  \n",
                                          "D \n [*]. set mcu memory Readable.\n",
                                          "D CMD_READOUT_UNPROTECT read ack = 0x1f.\n"));
}

TEST_F(IspDiagnostic, ReadoutUnprotectWithoutASecondAnswerGives3) {
    sync();
    mcu.expect({0x92, 0x6D}, kAnswerAck);
    EXPECT_EQ(run(0x92), 3);
    EXPECT_EQ(saidInside().back(), "D CMD_READOUT_UNPROTECT read ack = 0x00.\n");
}

TEST_F(IspDiagnostic, RefusedReadoutUnprotectGives15) {
    sync();
    mcu.expect({0x92, 0x6D}, kAnswerNack);
    EXPECT_EQ(run(0x92), 15);
    EXPECT_EQ(saidInside().back(), "D ack_sendcmd CMD_READOUT_UNPROTECT failed.\n");
}

}  // namespace quil::tests
