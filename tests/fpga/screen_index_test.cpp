// The partition's index: count, blocks, rows and packed data, of good and bad partitions.
#include "tests/fpga/screen_test.h"

namespace quil::tests {

using testing::ElementsAre;
using testing::IsEmpty;

class ScreenIndex : public FpgaScreen {
  protected:
    ScreenIndex() { startFresh("D"); }

    // Indexes an image of 2 MiB that starts with these bytes.
    int index(Bytes start) {
        mImage = std::move(start);
        mImage.resize(kImageSize);
        return parse_emmc_block(packed.data(), mImage.data());
    }
    static std::vector<uint32_t> row(size_t number) {
        const st_func_offset_map_t& row = st_func_offset_map_tab[number];
        return {row.fpga_addr, row.datalen, row.offset};
    }

    Bytes packed = Bytes(kImageSize);

  private:
    Bytes mImage;
};

TEST_F(ScreenIndex, BlocksBecomeRowsAndPackedData) {
    EXPECT_EQ(index(partitionOf({{0x10300000, {1, 2, 3}}, {0x10018000, {4, 5}}})), 2);
    EXPECT_THAT(row(0), ElementsAre(0x10300000, 3, 0));
    EXPECT_THAT(row(1), ElementsAre(0x10018000, 2, 3));
    EXPECT_THAT(row(2), ElementsAre(0, 0, 0));
    EXPECT_THAT(Bytes(packed.begin(), packed.begin() + 6), ElementsAre(1, 2, 3, 4, 5, 0));
    EXPECT_THAT(messages(),
                ElementsAre("D parse_emmc_block blocknum = 2\n", "D 0x10300000 / 0x0 / 0x3 \n",
                            "D 0x10018000 / 0x3 / 0x2 \n"));
}

TEST_F(ScreenIndex, CountOf0HasNoBlocks) {
    EXPECT_EQ(index(partitionOf({{0x10300000, {1}}}, 0)), 0);
    EXPECT_THAT(row(0), ElementsAre(0, 0, 0));
    EXPECT_THAT(messages(), ElementsAre("D parse_emmc_block blocknum = 0\n"));
}

TEST_F(ScreenIndex, CountOf60IsTaken) {
    EXPECT_EQ(index(partitionOf(std::vector<Block>(60, {0x10300000, {1}}))), 60);
    EXPECT_THAT(row(59), ElementsAre(0x10300000, 1, 59));
}

TEST_F(ScreenIndex, CountOf61AndMoreCountsAs0) {
    const std::vector<Block> blocks(61, {0x10300000, {1}});
    EXPECT_EQ(index(partitionOf(blocks)), 0);
    EXPECT_EQ(index(partitionOf(blocks, 0xFFFFFFFF)), 0);
    EXPECT_EQ(index(partitionOf(blocks, 0x80000000)), 0);
    EXPECT_THAT(row(0), ElementsAre(0, 0, 0));
    EXPECT_THAT(
        messages(),
        ElementsAre("E parse_emmc_block invalid blocknum = 61, set blocknum as 0\n",
                    "D parse_emmc_block blocknum = 0\n",
                    "E parse_emmc_block invalid blocknum = -1, set blocknum as 0\n",
                    "D parse_emmc_block blocknum = 0\n",
                    "E parse_emmc_block invalid blocknum = -2147483648, set blocknum as 0\n",
                    "D parse_emmc_block blocknum = 0\n"));
}

TEST_F(ScreenIndex, BlockOfAddress0EndsTheIndexButNotTheCount) {
    EXPECT_EQ(
        index(partitionOf({{0x10300000, {1}}, {0x10301000, {2}}, {0, {3}}, {0x10302000, {4}}})), 4);
    EXPECT_THAT(row(1), ElementsAre(0x10301000, 1, 1));
    EXPECT_THAT(row(2), ElementsAre(0, 0, 0));
    EXPECT_THAT(row(3), ElementsAre(0, 0, 0));
    EXPECT_EQ(messages().back(), "E parse_emmc_block invalid fpgaAddr, or datalen.\n");
    EXPECT_EQ(packed[2], 0);
}

TEST_F(ScreenIndex, BlockOfLength0EndsTheIndexButNotTheCount) {
    EXPECT_EQ(index(partitionOf({{0x10300000, {1}}, {0x10301000, {}}, {0x10302000, {4}}})), 3);
    EXPECT_THAT(row(1), ElementsAre(0, 0, 0));
    EXPECT_EQ(messages().back(), "E parse_emmc_block invalid fpgaAddr, or datalen.\n");
}

TEST_F(ScreenIndex, RowsThatAnIndexDoesNotFillKeepWhatAnEarlierOneLeft) {
    index(partitionOf({{0x10300000, {1}}, {0x10301000, {2}}, {0x10302000, {3}}}));
    index(partitionOf({{0x10400000, {9, 9}}, {0, {1}}}));
    EXPECT_THAT(row(0), ElementsAre(0x10400000, 2, 0));
    EXPECT_THAT(row(1), ElementsAre(0x10301000, 1, 1));
    EXPECT_THAT(row(2), ElementsAre(0x10302000, 1, 2));
}

TEST_F(ScreenIndex, BlockThatEndsWithTheImageIsTaken) {
    const size_t longest = kImageSize - 4 - 8;
    EXPECT_EQ(index(partitionOf({{0x10300000, Bytes(longest, 7)}})), 1);
    EXPECT_THAT(row(0), ElementsAre(0x10300000, longest, 0));
    EXPECT_EQ(packed[longest - 1], 7);
    EXPECT_EQ(packed[longest], 0);
}

TEST_F(ScreenIndex, BlockThatRunsPastTheImageIsRefusedLikeOneOfLength0) {
    const size_t longest = kImageSize - 4 - 8;
    for (const uint32_t length : {static_cast<uint32_t>(longest + 1), 0x80000000U, 0xFFFFFFFFU}) {
        startFresh("D");
        Bytes bytes;
        for (const uint32_t word : {1U, 0x10300000U, length}) appendWord(bytes, word);
        EXPECT_EQ(index(bytes), 1);
        EXPECT_THAT(row(0), ElementsAre(0, 0, 0));
        EXPECT_THAT(messages(), ElementsAre("D parse_emmc_block blocknum = 1\n",
                                            "E parse_emmc_block invalid fpgaAddr, or datalen.\n"));
    }
}

TEST_F(ScreenIndex, HeaderThatRunsPastTheImageIsRefused) {
    for (const size_t left : {0, 1, 7}) {
        FreshLibrary::reset();
        startFresh("D");
        EXPECT_EQ(index(partitionOf({{0x10300000, Bytes(kImageSize - 12 - left, 0xFF)}}, 2)), 2);
        EXPECT_THAT(row(1), ElementsAre(0, 0, 0));
        EXPECT_EQ(messages().back(), "E parse_emmc_block invalid fpgaAddr, or datalen.\n");
    }
}

TEST_F(ScreenIndex, WithoutAnImageOrRoomThereIsNothing) {
    Bytes image(kImageSize);
    EXPECT_EQ(parse_emmc_block(nullptr, image.data()), 0);
    EXPECT_EQ(parse_emmc_block(packed.data(), nullptr), 0);
    EXPECT_THAT(messages(), ElementsAre("E dst or src is NULL\n", "E dst or src is NULL\n"));
}

TEST_F(ScreenIndex, WordsAreBigEndian) {
    const unsigned char bytes[] = {0x81, 0x02, 0x03, 0x04};
    EXPECT_EQ(transUcharArrayToU64(bytes), 0x81020304U);
    EXPECT_EQ(transUcharArrayToU64(nullptr), 0U);
}

TEST_F(ScreenIndex, CopyToASendBufferIsPlain) {
    Bytes from = {1, 2, 3, 4}, to(4);
    putDataToSendCach(from.data(), to.data(), 3);
    EXPECT_THAT(to, ElementsAre(1, 2, 3, 0));
    putDataToSendCach(from.data() + 3, to.data(), 0);
    putDataToSendCach(nullptr, to.data(), 0);
    EXPECT_THAT(to, ElementsAre(1, 2, 3, 0));
    EXPECT_THAT(messages(), IsEmpty());
    putDataToSendCach(nullptr, to.data(), 1);
    putDataToSendCach(from.data(), nullptr, 1);
    EXPECT_THAT(to, ElementsAre(1, 2, 3, 0));
    EXPECT_THAT(messages(), ElementsAre("E dst or src is NULL\n", "E dst or src is NULL\n"));
}

TEST_F(ScreenIndex, TablesHaveTheSizesThatOthersLinkAgainst) {
    EXPECT_EQ(sizeof(st_func_offset_map_tab), 720U);
    EXPECT_EQ(sizeof(free_routing_topology), 80U);
    EXPECT_EQ(sizeof(buffer), 1056U);
}

}  // namespace quil::tests
