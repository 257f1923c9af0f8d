// The parts that the self-test probes, and the SD card's states, through the library calls only.
#include <errno.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

#include "board/board.h"
#include "platform/vendor/include/quil_bi.h"

namespace {

using namespace quil::board;

constexpr char kFile[] = "/sdcard/note.txt";

int errorOfOpening(const char* path, const char* mode) {
    errno = 0;
    FILE* file = fopen(path, mode);
    if (file == nullptr) return errno;
    fclose(file);
    return 0;
}

TEST(BoardProbes, EveryPartIsHealthyOnANewBoard) {
    Board board;
    EXPECT_EQ(bi_i2c_get_rtc_state(0), 0);
    EXPECT_EQ(bi_i2c_get_audio_state(0), 0);
    EXPECT_EQ(bi_i2c_get_clock_chip_state(0), 0);
    EXPECT_EQ(bi_network_get_ap_state(), 0);
    EXPECT_EQ(bi_network_get_sta_state(), 0);
    EXPECT_EQ(board.probes().sdCard(), SdCard::kPresent);
}

TEST(BoardProbes, FaultyAndAbsentPartsAnswerDifferently) {
    Board board;
    board.probes().setHealth(kWifiSta, Health::kFaulty);
    EXPECT_EQ(bi_network_get_sta_state(), -EIO);
    board.probes().setHealth(kWifiSta, Health::kAbsent);
    EXPECT_EQ(bi_network_get_sta_state(), 1);
    EXPECT_EQ(bi_network_get_ap_state(), 0);
}

TEST(BoardProbes, InjectedFaultStrikesItsPartOnly) {
    Board board;
    board.faults().add({.call = Call::kProbe, .path = kClockChip, .error = ETIMEDOUT});
    EXPECT_EQ(bi_i2c_get_rtc_state(0), 0);
    EXPECT_EQ(bi_i2c_get_clock_chip_state(0), -ETIMEDOUT);
    EXPECT_EQ(bi_i2c_get_clock_chip_state(0), 0);
}

TEST(BoardProbes, CodecsAreAsManyAsTheProductFileSays) {
    Board board(Product::kKestrel);
    EXPECT_EQ(bi_i2c_get_audio_state(1), 0);
    EXPECT_EQ(bi_i2c_get_audio_state(2), 1);
    EXPECT_EQ(bi_i2c_get_audio_state(-1), 1);
}

TEST(BoardProbes, CodecsOwnStateWinsOverThatOfAll) {
    Board board(Product::kKestrel);
    board.probes().setHealth(kCodecs, Health::kFaulty);
    board.probes().setHealth("es8316.1", Health::kHealthy);
    EXPECT_EQ(bi_i2c_get_audio_state(0), -EIO);
    EXPECT_EQ(bi_i2c_get_audio_state(1), 0);
}

TEST(BoardProbes, StatesOutliveThePower) {
    Board first;
    first.probes().setHealth(kRtc, Health::kAbsent);
    first.probes().setSdCard(SdCard::kReadOnly);
    Scheduler unused;
    BoardServices off(unused, std::make_unique<DirectoryStore>(first.directory()));
    const Probes again(off, 1);
    EXPECT_EQ(again.health(kRtc), Health::kAbsent);
    EXPECT_EQ(again.sdCard(), SdCard::kReadOnly);
    first.probes().restore({});
    EXPECT_EQ(first.probes().health(kRtc), Health::kHealthy);
}

TEST(BoardProbes, StatesMayBeWrittenWithoutBlanks) {
    const auto store = std::make_shared<OverlayStore>(factoryBoard(Product::kHeron));
    store->replace("parts", "\n\trtc=faulty\r\nsdcard =full\n");
    Board board(store);
    EXPECT_EQ(board.probes().health(kRtc), Health::kFaulty);
    EXPECT_EQ(board.probes().sdCard(), SdCard::kFull);
}

TEST(BoardProbes, PartsThatTheBoardDoesNotHaveAreRefused) {
    Board board;
    for (const char* name : {"", "toaster", "es8316.", "es8316.x", "es8316.12x"}) {
        EXPECT_THROW(board.probes().setHealth(name, Health::kFaulty), std::runtime_error) << name;
    }
}

TEST(BoardSdCard, MissingCardHasNoFiles) {
    Board board;
    board.writeFile(kFile, "x");
    board.probes().setSdCard(SdCard::kMissing);
    struct stat info {};
    EXPECT_EQ(errorOfOpening(kFile, "r"), ENOENT);
    EXPECT_EQ(errorOfOpening(kFile, "a"), ENOENT);
    EXPECT_EQ(open(kFile, O_RDONLY), -1);
    EXPECT_EQ(stat(kFile, &info), -1);
    EXPECT_EQ(remove(kFile), -1);
    board.probes().setSdCard(SdCard::kPresent);
    EXPECT_EQ(errorOfOpening(kFile, "r"), 0);
}

TEST(BoardSdCard, FullCardRefusesToCreateOnly) {
    Board board;
    board.writeFile(kFile, "x");
    board.probes().setSdCard(SdCard::kFull);
    EXPECT_EQ(errorOfOpening(kFile, "r"), 0);
    EXPECT_EQ(errorOfOpening(kFile, "r+"), 0);
    EXPECT_EQ(errorOfOpening("/sdcard/new", "a"), ENOSPC);
    EXPECT_EQ(open("/sdcard/new", O_CREAT | O_WRONLY, 0600), -1);
    EXPECT_EQ(errno, ENOSPC);
    EXPECT_EQ(remove(kFile), 0);
}

TEST(BoardSdCard, ReadOnlyCardIsReadAndNothingElse) {
    Board board;
    board.writeFile(kFile, "x");
    board.probes().setSdCard(SdCard::kReadOnly);
    EXPECT_EQ(errorOfOpening(kFile, "r"), 0);
    EXPECT_EQ(errorOfOpening(kFile, "r+"), EROFS);
    EXPECT_EQ(errorOfOpening(kFile, "w"), EROFS);
    EXPECT_EQ(remove(kFile), -1);
    EXPECT_EQ(errno, EROFS);
    EXPECT_EQ(access(kFile, R_OK), 0);
}

TEST(BoardSdCard, OtherPathsDoNotCare) {
    Board board;
    board.probes().setSdCard(SdCard::kMissing);
    EXPECT_EQ(errorOfOpening("/vendor/etc/product.ini", "r"), 0);
}

}  // namespace
