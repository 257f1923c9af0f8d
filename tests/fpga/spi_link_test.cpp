// The FPGA's SPI link: single transfers, state reads, the reset pulse and the PHY's link.
#include "fpga/spi_link.h"

#include <errno.h>
#include <fcntl.h>

#include <array>
#include <filesystem>

#include "tests/fpga/fpga_test.h"

namespace quil::tests {

using board::Call;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

// The log of the seven bytes of a one-byte read: those that came with the header, and the state.
std::vector<std::string> bytesLogged(const std::string& function, const std::string& state) {
    const std::string start = "D " + function + ": send_data[";
    std::vector<std::string> lines(7, start);
    for (size_t i = 0; i < 6; ++i) lines[i] += std::to_string(i) + "] = 0x00\n";
    lines[6] += "6] = " + state + "\n";
    return lines;
}

}  // namespace

class FpgaSpiLink : public FpgaTest {
  protected:
    FpgaSpiLink() { startFresh(); }

    void failTransfers(Call call, int error, int after = 0, int times = 1) {
        board.faults().add(
            {.call = call, .path = kSpiDevice, .error = error, .after = after, .times = times});
    }
    int descriptorSeen() const {
        const std::string text = board.log(ANDROID_LOG_ERROR).back();
        return std::stoi(text.substr(text.find('(') + 1));
    }
};

// One transfer.

TEST_F(FpgaSpiLink, TransferOpensTheDeviceWaits10MillisecondsAndWritesOnce) {
    Bytes frame = bytesOf("02 20 00 00 00 aa bb 00");
    EXPECT_EQ(spi_send_data(frame.data(), 8), 8);
    EXPECT_THAT(timeline(), ElementsAre("sleep 0.010000 s", "spi 02 20 00 00 00 aa bb 00"));
    EXPECT_THAT(messages(), IsEmpty());
    EXPECT_THAT(board.violations(), IsEmpty());
}

TEST_F(FpgaSpiLink, EachTransferOpensAndClosesTheDevice) {
    Bytes frame = bytesOf("02 20 00 00 00 aa 00");
    for (int i = 0; i < 3; ++i) spi_send_data(frame.data(), 7);
    EXPECT_EQ(board.trace().events(board::EventKind::kOpen).size(), 3U);
    EXPECT_EQ(board.trace().events(board::EventKind::kClose).size(), 3U);
}

TEST_F(FpgaSpiLink, TransferToAMissingDeviceFailsBeforeThePause) {
    failTransfers(Call::kOpen, ENOENT);
    Bytes frame = bytesOf("02 20 00 00 00 aa 00");
    EXPECT_EQ(spi_send_data(frame.data(), 7), -1);
    EXPECT_THAT(timeline(), IsEmpty());
    EXPECT_THAT(messages(), ElementsAre("E spi_send_data: open /dev/fpga_spi failed !!!\n"));
}

TEST_F(FpgaSpiLink, TransferThatTheDriverRefusesIsLoggedWithItsReasonAndTheDeviceClosed) {
    failTransfers(Call::kWrite, EIO);
    Bytes frame = bytesOf("02 20 00 00 00 aa 00");
    EXPECT_EQ(spi_send_data(frame.data(), 7), -1);
    const std::string fd = std::to_string(descriptorSeen());
    EXPECT_THAT(messages(),
                ElementsAre("E spi_send_data: write fd(" + fd + ") error(Input/output error)\n"));
    EXPECT_EQ(board.trace().events(board::EventKind::kClose).size(), 1U);
}

TEST_F(FpgaSpiLink, TransferThatComesUpShortIsTakenAsItIs) {
    board.faults().add({.call = Call::kWrite, .path = kSpiDevice, .shortTo = 6});
    Bytes frame = bytesOf("02 20 00 00 00 aa 00");
    EXPECT_EQ(spi_send_data(frame.data(), 7), 6);
    EXPECT_THAT(messages(), IsEmpty());
}

// State reads.

struct StateRead {
    const char* name;
    int (*read)(unsigned char*, unsigned);
    uint32_t address;
    const char* header;
};
void PrintTo(const StateRead& row, std::ostream* out) { *out << row.name; }

class FpgaStateRead : public FpgaSpiLink, public testing::WithParamInterface<StateRead> {
  protected:
    int read(unsigned char* data, unsigned length) { return GetParam().read(data, length); }
    std::string name() const { return GetParam().name; }
};

TEST_P(FpgaStateRead, IsOneReadOfLengthAnd6BytesWithTheHeaderInTheBuffer) {
    board.fpga().scriptReads(GetParam().address, {0x5A});
    std::array<unsigned char, 4> data = {9, 9, 9, 9};
    EXPECT_EQ(read(data.data(), 2), 8);
    EXPECT_EQ(data[0], 0x5A);
    EXPECT_EQ(data[1], 0);
    EXPECT_EQ(data[2], 9);
    const auto transactions = board.fpga().transactions();
    ASSERT_EQ(transactions.size(), 1U);
    EXPECT_TRUE(transactions[0].isRead);
    EXPECT_EQ(hexOf(transactions[0].sent), std::string(GetParam().header) + " 00 00 00");
    EXPECT_THAT(sleeps(), IsEmpty());
    EXPECT_THAT(board.violations(), IsEmpty());
}

TEST_P(FpgaStateRead, LogsEveryByteOfItsBufferAtDebugLevel) {
    board.fpga().scriptReads(GetParam().address, {0x5A});
    unsigned char byte = 0;
    EXPECT_EQ(read(&byte, 1), 7);
    EXPECT_EQ(messages(), bytesLogged(name(), "0x5a"));
    startFresh("I");
    EXPECT_EQ(read(&byte, 1), 7);
    EXPECT_THAT(messages(), IsEmpty());
}

TEST_P(FpgaStateRead, ClosesTheDeviceBehindItsLastMessage) {
    unsigned char byte = 0;
    EXPECT_EQ(read(&byte, 1), 7);
    const auto events = board.trace().events();
    EXPECT_EQ(events.front().kind, board::EventKind::kOpen);
    EXPECT_EQ(events.back().kind, board::EventKind::kClose);
}

TEST_P(FpgaStateRead, WithoutABufferFails) {
    EXPECT_EQ(read(nullptr, 1), -1);
    EXPECT_THAT(messages(), ElementsAre("E " + name() + ": data_buf is NULL!\n"));
    EXPECT_THAT(timeline(), IsEmpty());
}

TEST_P(FpgaStateRead, WithoutMemoryFailsAndLeavesTheStateAsItWas) {
    unsigned char byte = 0x77;
    board.faults().add({.call = Call::kMalloc, .times = 1});
    EXPECT_EQ(read(&byte, 1), -1);
    EXPECT_EQ(byte, 0x77);
    EXPECT_THAT(messages(),
                ElementsAre("E " + name() + ": could not allocate memory for the send_data!\n"));
    EXPECT_THAT(timeline(), IsEmpty());
}

TEST_P(FpgaStateRead, OfAMissingDeviceFails) {
    failTransfers(Call::kOpen, ENOENT);
    unsigned char byte = 0x77;
    EXPECT_EQ(read(&byte, 1), -1);
    EXPECT_EQ(byte, 0x77);
    EXPECT_THAT(messages(), ElementsAre("E " + name() + ": open spi port /dev/fpga_spi failed.\n"));
}

TEST_P(FpgaStateRead, ThatTheDriverRefusesReturnsItsResultAndClosesTheDevice) {
    failTransfers(Call::kRead, EIO);
    unsigned char byte = 0x77;
    EXPECT_EQ(read(&byte, 1), -1);
    EXPECT_EQ(byte, 0x77);
    EXPECT_THAT(messages(),
                ElementsAre("E " + name() + ": read spi port /dev/fpga_spi failed, return -1.\n"));
    EXPECT_EQ(board.trace().events(board::EventKind::kClose).size(), 1U);
}

TEST_P(FpgaStateRead, ThatComesUpShortIsNoFailure) {
    board.faults().add({.call = Call::kRead, .path = kSpiDevice, .shortTo = 3});
    unsigned char byte = 0x77;
    EXPECT_EQ(read(&byte, 1), 3);
    EXPECT_NE(byte, 0x77);
    EXPECT_EQ(messages().size(), 7U);
}

int readDdr(unsigned char* state, unsigned) { return readFpgaDdrState(state); }
std::string nameOfRead(const testing::TestParamInfo<StateRead>& info) { return info.param.name; }

// The DDR's read takes no count: it is always one byte. Otherwise it behaves as the other two.
INSTANTIATE_TEST_SUITE_P(
    Each, FpgaStateRead,
    testing::Values(StateRead{"readFpgaSgmiiClockState", readFpgaSgmiiClockState, kClockAt,
                              "0b 00 00 11 00"},
                    StateRead{"readFpgaSgmiiNegotiationState", readFpgaSgmiiNegotiationState,
                              kNegotiationAt, "0b 00 00 11 03"}),
    nameOfRead);

class FpgaDdrRead : public FpgaSpiLink {};

TEST_F(FpgaDdrRead, IsOneReadOf7BytesFrom1016) {
    board.fpga().scriptReads(kDdrAt, {0x03});
    unsigned char state = 0;
    EXPECT_EQ(readFpgaDdrState(&state), 7);
    EXPECT_EQ(state, 3);
    const auto transactions = board.fpga().transactions();
    ASSERT_EQ(transactions.size(), 1U);
    EXPECT_EQ(hexOf(transactions[0].sent), "0b 00 00 10 16 00 00");
    EXPECT_EQ(messages(), bytesLogged("readFpgaDdrState", "0x03"));
}

TEST_F(FpgaDdrRead, ThatFailsLeavesTheStateAndSaysWhyUnderItsOwnName) {
    unsigned char state = 0x77;
    EXPECT_EQ(readFpgaDdrState(nullptr), -1);
    failTransfers(Call::kOpen, ENOENT);
    EXPECT_EQ(readFpgaDdrState(&state), -1);
    failTransfers(Call::kRead, EIO);
    EXPECT_EQ(readFpgaDdrState(&state), -1);
    board.faults().add({.call = Call::kMalloc, .times = 1});
    EXPECT_EQ(readFpgaDdrState(&state), -1);
    EXPECT_EQ(state, 0x77);
    EXPECT_THAT(messages(),
                ElementsAre("E readFpgaDdrState: data_buf is NULL!\n",
                            "E readFpgaDdrState: open spi port /dev/fpga_spi failed.\n",
                            "E readFpgaDdrState: read spi port /dev/fpga_spi failed, return -1.\n",
                            "E readFpgaDdrState: could not allocate memory for the send_data!\n"));
}

TEST_F(FpgaSpiLink, StateReadOfALengthThatNoBufferHoldsFailsForWantOfMemory) {
    unsigned char byte = 0x77;
    for (const unsigned length : {0xFFFFFFFFU, 0xFFFFFFFAU, 0x80000000U, 0x7FFFFFFAU}) {
        EXPECT_EQ(readFpgaSgmiiClockState(&byte, length), -1) << length;
    }
    EXPECT_EQ(byte, 0x77);
    EXPECT_EQ(messages(),
              std::vector<std::string>(
                  4, "E readFpgaSgmiiClockState: could not allocate memory for the send_data!\n"));
}

// The reset pulse.

TEST_F(FpgaSpiLink, ResetPulseIsFourFramesWithOneWaitInTheMiddle) {
    EXPECT_EQ(sendFpgaTxRxReset(), 7);
    EXPECT_THAT(timeline(), ElementsAre("sleep 0.010000 s", "spi 02 00 00 11 01 00 00",  //
                                        "sleep 0.010000 s", "spi 02 00 00 11 02 00 00",  //
                                        "sleep 0.005000 s",                              //
                                        "sleep 0.010000 s", "spi 02 00 00 11 01 01 00",  //
                                        "sleep 0.010000 s", "spi 02 00 00 11 02 01 00"));
    EXPECT_THAT(messages(), IsEmpty());
}

TEST_F(FpgaSpiLink, ResetPulseGoesOnAfterEachFailureAndReturnsTheLastResult) {
    const char* const failures[] = {"E sendFpgaTxRxReset: send_tx_reset_low failed\n",
                                    "E sendFpgaTxRxReset: send_rx_reset_low failed\n",
                                    "E sendFpgaTxRxReset: send_tx_reset_high failed\n",
                                    "E sendFpgaTxRxReset: send_rx_reset_high failed\n"};
    for (int i = 0; i < 4; ++i) {
        startFresh();
        failTransfers(Call::kOpen, EBUSY, i);
        EXPECT_EQ(sendFpgaTxRxReset(), i == 3 ? -1 : 7) << i;
        EXPECT_THAT(messages(),
                    ElementsAre("E spi_send_data: open /dev/fpga_spi failed !!!\n", failures[i]));
        EXPECT_EQ(writes().size(), 3U);
        EXPECT_EQ(sleeps().size(), 4U);
    }
}

// The PHY's link.

class FpgaPhyLink : public FpgaSpiLink {
  protected:
    int linkWith(const std::string& text) {
        board.sysfs().add("/sys/class/ethernet/quilphyreg", {[text] { return text; }, nullptr});
        return readRtl8211fsPhyLink();
    }
};

TEST_F(FpgaPhyLink, IsUpWhenTheTextContains0x907) {
    EXPECT_EQ(linkWith("reg 0x1a: 0x907\n"), 1);
    EXPECT_THAT(messages(), ElementsAre("I <readRtl8211fsPhyLink> get phylink value:'reg 0x1a: "
                                        "0x907\n' (length: 16)\n"));
}

TEST_F(FpgaPhyLink, IsUpAlsoWhenTheTextIsPartOfALongerNumber) { EXPECT_EQ(linkWith("0x907f"), 1); }

TEST_F(FpgaPhyLink, IsDownWithoutTheText) {
    EXPECT_EQ(linkWith("0x097"), 0);
    EXPECT_EQ(linkWith("0X907"), 0);
    EXPECT_EQ(linkWith(""), 0);
    EXPECT_EQ(messages().back(), "I <readRtl8211fsPhyLink> get phylink value:'' (length: 0)\n");
}

TEST_F(FpgaPhyLink, LooksAt64BytesAndNoMore) {
    EXPECT_EQ(linkWith(std::string(59, '.') + "0x907"), 1);
    EXPECT_EQ(linkWith(std::string(60, '.') + "0x907 and more"), 0);
    EXPECT_EQ(messages().back(), "I <readRtl8211fsPhyLink> get phylink value:'" +
                                     std::string(60, '.') + "0x90' (length: 64)\n");
}

TEST_F(FpgaPhyLink, SaysItsValueAtInformationLevel) {
    startFresh("E");
    EXPECT_EQ(linkWith("0x907"), 1);
    EXPECT_THAT(messages(), IsEmpty());
    startFresh("I");
    EXPECT_EQ(linkWith("0x907"), 1);
    EXPECT_EQ(messages().size(), 1U);
}

TEST_F(FpgaPhyLink, CannotBeAskedWithoutTheFile) {
    board.sysfs().remove("/sys/class/ethernet/quilphyreg");
    EXPECT_EQ(readRtl8211fsPhyLink(), -1);
    EXPECT_THAT(messages(), ElementsAre("E <readRtl8211fsPhyLink> the path "
                                        "/sys/class/ethernet/quilphyreg not exist!\n"));
}

TEST_F(FpgaPhyLink, CannotBeAskedWhenTheReadFails) {
    linkWith("0x907");
    startFresh();
    board.faults().add(
        {.call = Call::kRead, .path = "/sys/class/ethernet/quilphyreg", .error = EIO});
    EXPECT_EQ(readRtl8211fsPhyLink(), -1);
    EXPECT_THAT(messages(), ElementsAre("E <readRtl8211fsPhyLink> phylink_path error!\n"));
}

}  // namespace quil::tests
