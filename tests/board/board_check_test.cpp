// The check of a board says the same of files in memory as of those in a directory.
#include "board/board_check.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "board/core/temporary_directory.h"
#include "board/core/whole_file.h"
#include "board/mcu/mcu_chip.h"

namespace {

using namespace quil::board;
using testing::Contains;
using testing::IsEmpty;

std::vector<std::string> textsOf(const std::vector<BoardProblem>& problems) {
    std::vector<std::string> texts;
    texts.reserve(problems.size());
    for (const BoardProblem& problem : problems) {
        texts.push_back(std::string(nameOf(problem.severity)) + ": " + problem.file + ":" +
                        std::to_string(problem.line) + ": " + problem.what + "; " + problem.remedy);
    }
    return texts;
}

struct Damage {
    const char* file;
    std::string content;
    const char* problem;
};
const std::vector<Damage> kDamages = {
    {"properties", "a=1\n?\n",
     "blocking: properties:2: no \"name = value\": '?'; the line is dropped, the former file kept "
     "as properties.damaged"},
    {"mcu/values", "5 = 1 2 100\n",
     "blocking: mcu/values:1: '100' is no byte; the line is dropped, the former file kept as "
     "mcu/values.damaged"},
    {"mcu/option_bytes", "write_protected = 999\n",
     "blocking: mcu/option_bytes:1: the MCU has no page '999'; the line is dropped, the former "
     "file kept as mcu/option_bytes.damaged"},
    {kFormatFile, "quil board 2\n", "blocking: format:0: format 2; this program knows format 1; "},
    {kProductFile, "[product\n",
     "error: rootfs/vendor/etc/product.ini:1: neither a [section] nor key = value: '[product'; "
     "the line is dropped, the former file kept as rootfs/vendor/etc/product.ini.damaged"},
    {"product_information", "101x\n",
     "blocking: product_information:1: no module id; the product's is written, the former file "
     "kept as product_information.damaged"},
    {"letter", "", "warning: letter:0: nothing of the board's: it is not read; "},
    {"mcu/letter", "", "warning: mcu/letter:0: nothing of the board's: it is not read; "},
    {"rootfs/sdcard/a.quil-new", "",
     "warning: rootfs/sdcard/a.quil-new:0: left by a program that was killed while it wrote; "
     "removed"},
};

class BoardCheck : public testing::Test {
  protected:
    BoardCheck() {
        createBoardDirectory(directory, Product::kHeron);
        memory.replace(kFormatFile, textOf(BoardFormat()));
    }
    void put(const std::string& name, const std::string& content) {
        memory.replace(name, content);
        writeWholeFile(directory / name, content);
    }

    const TemporaryDirectory place;
    const std::filesystem::path directory = place.path() / "board";
    MemoryStore memory = *factoryBoard(Product::kHeron);
};

TEST_F(BoardCheck, OfABoardFromTheFactoryFindsNothing) {
    EXPECT_THAT(textsOf(checkBoard(memory)), IsEmpty());
    EXPECT_THAT(textsOf(checkBoard(directory)), IsEmpty());
}

TEST_F(BoardCheck, FindsTheSameInMemoryAndInADirectory) {
    for (const Damage& damage : kDamages) {
        SCOPED_TRACE(damage.file);
        const auto former = memory.read(damage.file);
        put(damage.file, damage.content);
        const auto found = textsOf(checkBoard(memory));
        EXPECT_THAT(found, Contains(damage.problem));
        EXPECT_EQ(textsOf(checkBoard(directory)), found);
        if (former) put(damage.file, *former);
        if (former) continue;
        memory.remove(damage.file);
        std::filesystem::remove(directory / damage.file);
    }
}

TEST_F(BoardCheck, FindsThatAFileIsMissingInMemoryToo) {
    memory.remove("mtd0");
    std::filesystem::remove(directory / "mtd0");
    const auto found = textsOf(checkBoard(memory));
    EXPECT_THAT(found, testing::ElementsAre("error: mtd0:0: missing; made as in the factory"));
    EXPECT_EQ(textsOf(checkBoard(directory)), found);
}

}  // namespace
