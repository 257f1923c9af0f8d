#include "host/frame_assembler.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <random>
#include <span>

namespace quil::host {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

// An answer to command 1, label 7, payload 56 31 ("V1").
const Bytes kAnswer = {0x55, 0xBB, 0x00, 0x00, 0x00, 0x01, 0x07, 0x00, 0x18, 0x00, 0x02, 0x01,
                       0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x01, 0x00,
                       0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x56, 0x31, 0xBB, 0x01};

Bytes joined(std::initializer_list<Bytes> parts) {
    Bytes all;
    for (const Bytes& part : parts) all.insert(all.end(), part.begin(), part.end());
    return all;
}

TEST(FrameAssembler, WholeFrameComesOutWithItsFields) {
    FrameAssembler assembler;
    const auto frames = assembler.feed(kAnswer);
    ASSERT_THAT(frames, SizeIs(1));
    EXPECT_EQ(frames[0].label, 7);
    EXPECT_EQ(frames[0].command, 1u);
    EXPECT_TRUE(frames[0].isAnswer());
    EXPECT_THAT(frames[0].payload, ElementsAre(0x56, 0x31));
    EXPECT_EQ(assembler.held(), 0u);
    EXPECT_EQ(assembler.statistics().skippedBytes, 0u);
}

TEST(FrameAssembler, FrameSplitAtAnyByteComesOutOnce) {
    for (size_t cut = 0; cut <= kAnswer.size(); ++cut) {
        FrameAssembler assembler;
        const std::span<const uint8_t> whole(kAnswer);
        const size_t early = assembler.feed(whole.first(cut)).size();
        const size_t late = assembler.feed(whole.subspan(cut)).size();
        EXPECT_EQ(early + late, 1u) << "cut at " << cut;
        EXPECT_EQ(assembler.statistics().skippedBytes, 0u) << "cut at " << cut;
    }
}

TEST(FrameAssembler, FramesThatComeByteByByteAllComeOut) {
    FrameAssembler assembler;
    size_t count = 0;
    for (const uint8_t byte : joined({kAnswer, kAnswer, kAnswer})) {
        count += assembler.feed({&byte, 1}).size();
    }
    EXPECT_EQ(count, 3u);
}

TEST(FrameAssembler, TwoFramesInOnePieceBothComeOut) {
    FrameAssembler assembler;
    EXPECT_THAT(assembler.feed(joined({kAnswer, kAnswer})), SizeIs(2));
}

TEST(FrameAssembler, NoiseBeforeBetweenAndAfterFramesIsSkippedAndCounted) {
    FrameAssembler assembler;
    const Bytes noise = {0x00, 0x55, 0x55, 0xFF, 0xBB};
    EXPECT_THAT(assembler.feed(joined({noise, kAnswer, noise, kAnswer, noise})), SizeIs(2));
    EXPECT_EQ(assembler.statistics().skippedBytes, 15u);
    EXPECT_EQ(assembler.held(), 0u);
}

TEST(FrameAssembler, LoneFirstHalfOfAMagicBeforeAFrameDoesNotHideTheFrame) {
    FrameAssembler assembler;
    EXPECT_THAT(assembler.feed(joined({{0x55}, kAnswer})), SizeIs(1));
    EXPECT_THAT(assembler.feed(joined({{0x55, 0xBB}, kAnswer})), SizeIs(1));
}

TEST(FrameAssembler, WrongChecksumDropsTheFrameAndKeepsTheNext) {
    FrameAssembler assembler;
    Bytes bad = kAnswer;
    bad[32] ^= 1;
    EXPECT_THAT(assembler.feed(joined({bad, kAnswer})), SizeIs(1));
    EXPECT_EQ(assembler.statistics().badChecksums, 1u);
    EXPECT_EQ(assembler.statistics().skippedBytes, 34u);
}

TEST(FrameAssembler, LengthOf0xFFFFIsNoHeaderAndHoldsNothingUp) {
    FrameAssembler assembler;
    Bytes bad = kAnswer;
    bad[8] = bad[9] = 0xFF;
    EXPECT_THAT(assembler.feed(joined({bad, kAnswer})), SizeIs(1));
    EXPECT_EQ(assembler.statistics().badHeaders, 1u);
}

TEST(FrameAssembler, LengthShorterThanAnyFrameIsNoHeader) {
    for (int length = 0; length < 22; ++length) {
        FrameAssembler assembler;
        Bytes bad = kAnswer;
        bad[8] = static_cast<uint8_t>(length);
        EXPECT_THAT(assembler.feed(joined({bad, kAnswer})), SizeIs(1)) << length;
    }
}

TEST(FrameAssembler, LengthThatReachesIntoTheNextFrameLosesOnlyTheLyingFrame) {
    FrameAssembler assembler;
    Bytes bad = kAnswer;
    bad[8] = 0x28;  // claims 16 bytes more than it has
    EXPECT_THAT(assembler.feed(joined({bad, kAnswer})), SizeIs(1));
}

TEST(FrameAssembler, FrameInsideTheUnfinishedRemainsOfAnotherIsFoundWhenTheLineGoesSilent) {
    FrameAssembler assembler;
    Bytes bad = kAnswer;
    bad[8] = 0x26;
    bad[9] = 0x10;  // announces a frame of the largest size
    EXPECT_THAT(assembler.feed(joined({bad, kAnswer})), IsEmpty());
    EXPECT_EQ(assembler.held(), 68u);
    EXPECT_THAT(assembler.lineWentSilent(), SizeIs(1));
    EXPECT_EQ(assembler.held(), 0u);
    EXPECT_EQ(assembler.statistics().abandoned, 1u);
}

TEST(FrameAssembler, SilenceWithNothingHeldChangesNothing) {
    FrameAssembler assembler;
    EXPECT_THAT(assembler.lineWentSilent(), IsEmpty());
    EXPECT_EQ(assembler.statistics().abandoned, 0u);
}

TEST(FrameAssembler, LongestFramePassesAndItsBufferIsEmptyAfterwards) {
    FrameAssembler assembler;
    WireFrame longest;
    longest.payload.assign(4112, 0x55);
    const Bytes bytes = buildFrame(longest);
    ASSERT_THAT(bytes, SizeIs(4144));
    const auto frames = assembler.feed(joined({bytes, kAnswer}));
    ASSERT_THAT(frames, SizeIs(2));
    EXPECT_EQ(frames[0].payload, longest.payload);
    EXPECT_EQ(assembler.held(), 0u);
}

TEST(FrameAssembler, EndlessBrokenMagicsNeverFillMoreThanOneFrame) {
    FrameAssembler assembler;
    const Bytes start = {0x55, 0xBB, 0, 0, 0, 1, 0, 0, 0x26, 0x10};
    for (int i = 0; i < 2000; ++i) {
        EXPECT_THAT(assembler.feed(start), IsEmpty());
        ASSERT_LE(assembler.held(), 4144u);
    }
    EXPECT_THAT(assembler.lineWentSilent(), IsEmpty());
    EXPECT_THAT(assembler.feed(kAnswer), SizeIs(1));
}

TEST(FrameAssembler, RandomNoiseInRandomPiecesNeverLosesAFrameThatFollowsSilence) {
    std::mt19937 random(7);
    FrameAssembler assembler;
    for (int round = 0; round < 200; ++round) {
        Bytes noise(random() % 300);
        for (auto& byte : noise) byte = (random() % 4) ? static_cast<uint8_t>(random()) : 0x55;
        assembler.feed(noise);
        assembler.lineWentSilent();
        const size_t cut = random() % kAnswer.size();
        const std::span<const uint8_t> whole(kAnswer);
        const size_t early = assembler.feed(whole.first(cut)).size();
        EXPECT_EQ(early + assembler.feed(whole.subspan(cut)).size(), 1u) << "round " << round;
    }
}

}  // namespace
}  // namespace quil::host
