// quilctl screen: partitions of screen parameters, shown and made.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <nlohmann/json.hpp>

#include "tests/quilctl/test_run.h"

namespace quil::tests {

namespace fs = std::filesystem;
using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;

class QuilctlScreen : public QuilctlRun {
  protected:
    static void write(const fs::path& path, const std::string& content) {
        std::ofstream(path, std::ios::binary) << content;
    }
    static std::string read(const fs::path& path) {
        std::ifstream in(path, std::ios::binary);
        return {std::istreambuf_iterator<char>(in), {}};
    }
    static std::string word(uint32_t value) {
        std::string bytes;
        for (const int shift : {24, 16, 8, 0}) bytes += static_cast<char>(value >> shift);
        return bytes;
    }
    static std::string block(uint32_t address, const std::string& data) {
        return word(address) + word(static_cast<uint32_t>(data.size())) + data;
    }
    Said show(const std::string& content) {
        write(file, content);
        return quilctl({"screen", "show", file});
    }
    // A directory of block files.
    std::string blocks(const std::vector<std::pair<std::string, std::string>>& files) const {
        const fs::path path = directory / "blocks";
        fs::create_directories(path);
        for (const auto& [name, content] : files) write(path / name, content);
        return path.string();
    }

    const std::string file = path("screen.img");
};

TEST_F(QuilctlScreen, ShowsEachBlockWithItsKindAndWhatIsSent) {
    std::string topology(5120, '\0');
    topology[3] = 3;
    topology[259] = 0;
    const std::string gamma(0x20800, 'g');
    const Said said =
        show(word(11) + block(0x10018000, topology) + block(0x10B00000, std::string(32, 't')) +
             block(0x10B4C000, std::string(16, 't')) + block(0x10313000, std::string(4096, 's')) +
             block(0x10200000, std::string(4097, 'r')) + block(0x10A43000, std::string(512, 'p')) +
             block(0x10820000, std::string(7, 'n')) + block(0x10400000, gamma) +
             block(0x10000100, std::string(28, 'c')) + block(0x10A45000, std::string(157, '\0')) +
             block(0x10A45001, "x"));
    EXPECT_EQ(said.code, tools::kOk);
    EXPECT_THAT(said.err, IsEmpty());
    EXPECT_EQ(
        said.out,
        " #  offset    address     length  kind                 what is sent\n"
        " 0  0x000004  0x10018000    5120  topology header      1 frame of 5126 bytes\n"
        " 1  0x00140c  0x10B00000      32  routing topology     3 frames of 22 bytes (needs 48 "
        "bytes: the next blocks' data is taken for the rest)\n"
        " 2  0x001434  0x10B4C000      16  routing topology     nothing: its count is 0\n"
        " 3  0x00144c  0x10313000    4096  screen table         1 frame of 4102 bytes\n"
        " 4  0x002454  0x10200000    4097  receiving parameter  1 frame of 4102 bytes, byte 265 "
        "to 0x10200109 (cut to 4096 bytes)\n"
        " 5  0x00345d  0x10A43000     512  sub-pixel table      1 frame of 518 bytes, 2 of 262 "
        "bytes\n"
        " 6  0x003665  0x10820000       7  net-gap table 2      1 frame of 4102 bytes (shorter "
        "than its frame)\n"
        " 7  0x003674  0x10400000  133120  gamma                3 frames of 2054 bytes\n"
        " 8  0x023e7c  0x10000100      28  control              bytes 3-4 to 0x10000103, byte 11 "
        "to 0x1000010B, byte 27 to 0x1000011B\n"
        " 9  0x023ea0  0x10A45000     157  sub-pixel settings   parameter, IP, filter, enable, "
        "refresh, filter again\n"
        "10  0x023f45  0x10A45001       1  unknown              nothing\n"
        "11 blocks, 147278 bytes; sent for them: 23 frames, 25009 bytes\n");
}

TEST_F(QuilctlScreen, WithoutATopologyHeaderNothingIsSentOfTheTopology) {
    EXPECT_THAT(show(word(1) + block(0x10B00000, "0123456789abcdef")).out,
                HasSubstr("routing topology     nothing: its count is 0\n"));
}

TEST_F(QuilctlScreen, ShortBlocksAreShownWithTheDataThatALoadTakesFromTheNext) {
    const std::string header(4, '\0'), units("\2\0\0", 3), settings(24, '\0');
    const Said said =
        show(word(4) + block(0x10018000, header.substr(1)) + block(0x10B00000, units) +
             block(0x10A45000, settings) + block(0x20000000, std::string(1, '\1')));
    EXPECT_THAT(said.out, HasSubstr("routing topology     2 frames of 22 bytes (needs 32 bytes"));
    EXPECT_THAT(said.out, HasSubstr("parameter, IP, filter, enable, refresh (needs 157 bytes"));
    EXPECT_THAT(show(word(1) + block(0x10A45000, settings)).out,
                HasSubstr("refresh, filter again (needs 157 bytes"));
}

TEST_F(QuilctlScreen, TopologyEndsWithTheBufferOfALoad) {
    std::string header(5120, '\0');
    header[3] = header[4] = '\xFF';
    const std::string filler(0x200000 - 4 - 24 - 5120 - 40, 'f');
    EXPECT_THAT(show(word(3) + block(0x10018000, header) + block(0x20000000, filler) +
                     block(0x10B00000, std::string(40, 't')))
                    .out,
                HasSubstr("routing topology     5 frames of 22 bytes (needs 80 bytes"));
}

struct Damaged {
    const char* name;
    std::string content;
    const char* said;
};
void PrintTo(const Damaged& row, std::ostream* out) { *out << row.name; }

class QuilctlScreenDamage : public QuilctlScreen, public testing::WithParamInterface<Damaged> {};

TEST_P(QuilctlScreenDamage, GetsItsOffsetAndReason) {
    const Said said = show(GetParam().content);
    EXPECT_EQ(said.code, tools::kBadData);
    EXPECT_EQ(said.err, "quilctl: " + file + ": damaged at offset " + GetParam().said + "\n");
}

const std::string kGood("\x10\0\1\0\0\0\0\1x", 9);
INSTANTIATE_TEST_SUITE_P(
    All, QuilctlScreenDamage,
    testing::Values(
        Damaged{"Empty", "", "0x000000: the file ends inside the block count"},
        Damaged{"NoBlocks", std::string(100, '\0'), "0x000000: there are no blocks"},
        Damaged{"TooManyBlocks", std::string("\0\0\0\x3D", 4),
                "0x000000: a block count of 61: the most is 60"},
        Damaged{"ErasedPartition", std::string(64, '\xFF'),
                "0x000000: a block count of 4294967295: the most is 60"},
        Damaged{"AddressZero",
                std::string("\0\0\0\2", 4) + kGood + std::string("\0\0\0\0\0\0\0\1x", 9),
                "0x00000d: block 1 has the address 0"},
        Damaged{"LengthZero",
                std::string("\0\0\0\2", 4) + kGood + std::string("\x10\0\1\0\0\0\0\0", 8),
                "0x00000d: block 1 has no data"},
        Damaged{"HeaderCut", std::string("\0\0\0\2", 4) + kGood + "abc",
                "0x00000d: block 1: the file ends inside its header"},
        Damaged{"DataCut", std::string("\0\0\0\1\x10\0\1\0\xFF\xFF\xFF\xFFxy", 14),
                "0x000004: block 0 has 4294967295 bytes of data, but only 2 are left"}),
    [](const auto& row) { return row.param.name; });

TEST_F(QuilctlScreen, BlocksBeforeTheDamageAreShown) {
    EXPECT_THAT(show(std::string("\0\0\0\2", 4) + kGood).out,
                HasSubstr(" 0  0x000004  0x10000100       1  control "));
}

TEST_F(QuilctlScreen, PrintsJsonWhenAsked) {
    write(file, std::string("\0\0\0\2", 4) + kGood);
    const auto json = resultOf(quilctl({"--json", "screen", "show", file}));
    EXPECT_EQ(json["count"], 2);
    EXPECT_EQ(json["blocks"].size(), 1U);
    EXPECT_EQ(json["blocks"][0]["kind"], "control");
    EXPECT_EQ(json["damage"]["offset"], 13);
}

TEST_F(QuilctlScreen, BuildPutsTheBlockFilesInTheOrderOfTheirNames) {
    const std::string from =
        blocks({{"02-10400000.bin", "gg"}, {"01-10018000.bin", "t"}, {"notes.txt", "none"}});
    const Said said = quilctl({"screen", "build", from, file});
    EXPECT_EQ(said.code, tools::kOk);
    EXPECT_EQ(said.out, file + ": 2 blocks, 23 bytes\n");
    EXPECT_EQ(read(file), std::string("\0\0\0\2\x10\1\x80\0\0\0\0\1t\x10\x40\0\0\0\0\0\2gg", 23));
    EXPECT_EQ(quilctl({"screen", "show", file}).code, tools::kOk);
}

TEST_F(QuilctlScreen, BuildRefusesWhatALoadCouldNotTake) {
    EXPECT_THAT(quilctl({"screen", "build", blocks({}), file}).err,
                EndsWith("there are no blocks\n"));
    EXPECT_THAT(quilctl({"screen", "build", blocks({{"x.bin", "x"}}), file}).err,
                EndsWith("the name must end in the address, as in 03-10400000.bin\n"));
    fs::remove(directory / "blocks/x.bin");
    EXPECT_THAT(quilctl({"screen", "build", blocks({{"00000000.bin", "x"}}), file}).err,
                EndsWith("a block cannot have the address 0\n"));
    fs::remove(directory / "blocks/00000000.bin");
    EXPECT_THAT(quilctl({"screen", "build", blocks({{"10018000.bin", ""}}), file}).err,
                EndsWith("a block has no data\n"));
    const std::string big(0x200000, 'x');
    const Said said = quilctl({"screen", "build", blocks({{"10018000.bin", big}}), file});
    EXPECT_EQ(said.code, tools::kBadData);
    EXPECT_THAT(said.err, EndsWith("2097164 bytes: a load reads no more than 2097152\n"));
    EXPECT_FALSE(fs::exists(file));
}

TEST_F(QuilctlScreen, BuildRefusesMoreBlocksThanALoadTakes) {
    std::vector<std::pair<std::string, std::string>> files;
    for (int i = 100; i < 161; ++i) files.push_back({std::to_string(i) + "-10018000.bin", "x"});
    EXPECT_THAT(quilctl({"screen", "build", blocks(files), file}).err,
                EndsWith("61 blocks: the most is 60\n"));
}

TEST_F(QuilctlScreen, FilesThatAreNotThereAreUsageErrors) {
    EXPECT_EQ(quilctl({"screen", "show", file}).code, tools::kUsage);
    EXPECT_EQ(quilctl({"screen", "build", file, file}).code, tools::kUsage);
    EXPECT_EQ(quilctl({"screen"}).code, tools::kUsage);
}

TEST_F(QuilctlScreen, FactorysPartitionIsWithoutDamage) {
    const std::string board = (directory / "b").string();
    EXPECT_EQ(quilctl({"board", "new", board}).code, tools::kOk);
    const Said said = quilctl({"screen", "show", board + "/rootfs/dev/block/by-name/screen"});
    EXPECT_EQ(said.code, tools::kOk);
    EXPECT_THAT(said.out, EndsWith("17 blocks, 163425 bytes; sent for them: 40 frames, 45672 "
                                   "bytes\n"));
    EXPECT_THAT(said.out, StartsWith(" #  offset"));
}

// The factory's partition, which has blocks of each kind.
TEST_F(QuilctlScreen, WhatIsExtractedIsBuiltAgainByteForByte) {
    const std::string screen = newBoard() + "/rootfs/dev/block/by-name/screen";
    const Said said = quilctl({"screen", "extract", screen, path("blocks")});
    EXPECT_EQ(said.code, tools::kOk);
    EXPECT_EQ(said.out, path("blocks") + ": 17 files of 163425 bytes\n");
    EXPECT_TRUE(fs::exists(directory / "blocks/13-10400000.bin"));
    EXPECT_EQ(quilctl({"screen", "build", path("blocks"), file}).code, tools::kOk);
    EXPECT_EQ(read(file), read(screen));
}

TEST_F(QuilctlScreen, SixtyBlocksOfOneAddressKeepTheirOrder) {
    std::string content = word(60);
    for (char i = 0; i < 60; ++i) content += block(0x10300000, std::string(1, i));
    write(file, content);
    EXPECT_EQ(quilctl({"screen", "extract", file, path("blocks")}).code, tools::kOk);
    EXPECT_EQ(quilctl({"screen", "build", path("blocks"), path("again")}).code, tools::kOk);
    EXPECT_EQ(read(path("again")), content);
}

TEST_F(QuilctlScreen, ExtractMixesNoTwoPartitionsAndTakesNoDamagedOne) {
    write(file, word(1) + block(0x10300000, "data"));
    const std::string folder = blocks({{"00-10300000.bin", "same"}});
    EXPECT_EQ(quilctl({"screen", "extract", file, folder}).code, tools::kOk);
    blocks({{"01-10300000.bin", "other"}});
    EXPECT_EQ(quilctl({"screen", "extract", file, folder}).code, tools::kNotWritten);
    fs::remove_all(folder);
    write(file, word(2) + block(0x10300000, "data"));
    const Said said = quilctl({"screen", "extract", file, path("blocks")});
    EXPECT_EQ(said.code, tools::kBadData);
    EXPECT_FALSE(fs::exists(directory / "blocks"));
}

TEST_F(QuilctlScreen, ShowDrawsCardsAndCurvesOnATerminal) {
    std::string topology(5120, '\0'), gamma(0x20800, '\0');
    topology[3] = 3;
    for (size_t i = 1024; i < 2048; ++i) gamma[0x10000 + i] = '\xff';
    write(file, word(3) + block(0x10018000, topology) + block(0x10B00000, std::string(32, 't')) +
                    block(0x10400000, gamma));
    std::istringstream in;
    std::ostringstream out, err;
    exitCodeOf(tools::kBoardProgram, {"screen", "show", file},
               {in, out, err, {.isTerminal = true, .columns = 80}});
    EXPECT_THAT(out.str(), HasSubstr("0x10B00000  ■■□  3 cards\n"));
    std::string low, half;
    for (int i = 0; i < 64; ++i) {
        low += "▁";
        half += i < 32 ? "▁" : "█";
    }
    EXPECT_THAT(out.str(), HasSubstr("0x10400000  " + low + "\n0x10410000  " + half + "\n"));
}

TEST_F(QuilctlScreen, PictureHasEachBlockAndIsWrittenAsSvgAndAsPixels) {
    const std::string screen = newBoard() + "/rootfs/dev/block/by-name/screen";
    const std::string svg = path("screen.svg"), png = path("screen.png");
    const Said said = quilctl({"--json", "screen", "show", screen, "--svg", svg, "--png", png});
    EXPECT_EQ(said.code, tools::kOk) << said.err;
    const tools::Json result = resultOf(said);
    EXPECT_EQ(result["files"], (std::vector<std::string>{svg, png}));
    EXPECT_THAT(read(png), StartsWith("\x89PNG\r\n"));
    const std::string drawn = read(svg);
    EXPECT_THAT(drawn, StartsWith("<svg xmlns"));
    EXPECT_THAT(drawn, HasSubstr("10 cards"));
    for (const tools::Json& block : result["blocks"]) {
        EXPECT_THAT(drawn, HasSubstr("data-address=\"" + block["address"].dump() + "\""));
    }
}

TEST_F(QuilctlScreen, PictureThatCannotBeWrittenIsAFailure) {
    const std::string screen = newBoard() + "/rootfs/dev/block/by-name/screen";
    for (const char* form : {"--svg", "--png"}) {
        const Said said = quilctl({"screen", "show", screen, form, path("none") + "/file"});
        EXPECT_EQ(said.code, tools::kNotWritten) << form;
    }
}

// However long a chain is that a partition names, its picture stays small.
TEST_F(QuilctlScreen, PictureOfTheLongestTopologyIsDrawnInPart) {
    std::string topology(5120, '\xff');
    write(file, word(2) + block(0x10018000, topology) + block(0x10B00000, "t"));
    EXPECT_EQ(quilctl({"screen", "show", file, "--svg", path("screen.svg")}).code, tools::kOk);
    EXPECT_LT(fs::file_size(path("screen.svg")), 100000U);
    EXPECT_THAT(read(path("screen.svg")), HasSubstr("65535 cards, 65535 of other blocks' data"));
}

}  // namespace quil::tests
