// The microcontroller's flash: page maps, the NOR rules, times, and its contents after a power cut.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "board/board.h"
#include "board/mcu/mcu_flash.h"
#include "board/mcu/mcu_image.h"
#include "testing/bytes.h"

namespace {

using namespace quil::board;
using quil::tests::Bytes;
using std::chrono::microseconds;
using std::chrono::milliseconds;
using testing::Each;
using testing::ElementsAre;

class BoardFlash : public testing::Test {
  protected:
    McuFlash flashOf(McuKind kind) { return McuFlash(partOf(kind), store, "mcu/flash"); }
    static Bytes cells(const McuFlash& flash, uint32_t offset, size_t size) {
        const auto span = flash.cells().subspan(offset, size);
        return {span.begin(), span.end()};
    }
    static std::string program(McuFlash& flash, uint32_t offset, const Bytes& bytes) {
        flash.startProgram(offset, bytes);
        return flash.finish();
    }

    MemoryStore store;
};

struct Map {
    const char* name;
    McuKind kind;
    uint32_t size, pages, page, offset, pageSize;
};
void PrintTo(const Map& map, std::ostream* out) { *out << map.name; }

class BoardFlashMap : public BoardFlash, public testing::WithParamInterface<Map> {};

TEST_P(BoardFlashMap, HasItsPagesWhereTheManualHasThem) {
    const Map& map = GetParam();
    const McuFlash flash = flashOf(map.kind);
    EXPECT_EQ(flash.cells().size(), map.size);
    EXPECT_EQ(flash.part().pageCount(), map.pages);
    EXPECT_EQ(flash.page(map.page).offset, map.offset);
    EXPECT_EQ(flash.page(map.page).size, map.pageSize);
    EXPECT_EQ(flash.pageAt(map.offset), map.page);
    EXPECT_EQ(flash.pageAt(map.offset + map.pageSize - 1), map.page);
    EXPECT_THROW(static_cast<void>(flash.page(map.pages)), std::out_of_range);
}

INSTANTIATE_TEST_SUITE_P(
    Parts, BoardFlashMap,
    testing::Values(Map{"gd32f303", McuKind::kGd32F303, 524288, 256, 255, 522240, 2048},
                    Map{"gd32f470Small", McuKind::kGd32F470, 524288, 8, 3, 49152, 16384},
                    Map{"gd32f470Middle", McuKind::kGd32F470, 524288, 8, 4, 65536, 65536},
                    Map{"gd32f470Large", McuKind::kGd32F470, 524288, 8, 7, 393216, 131072},
                    Map{"gd32e503", McuKind::kGd32E503, 524288, 64, 1, 8192, 8192},
                    Map{"stm32h750", McuKind::kStm32H750, 131072, 1, 0, 0, 131072},
                    Map{"n32g45x", McuKind::kN32G45x, 524288, 256, 255, 522240, 2048}),
    [](const auto& info) { return std::string(info.param.name); });

TEST_F(BoardFlash, FreshFlashIsErased) {
    const McuFlash flash = flashOf(McuKind::kGd32F470);
    EXPECT_THAT(flash.cells(), Each(0xFF));
}

TEST_F(BoardFlash, ProgrammingChangesNothingBeforeItsEnd) {
    McuFlash flash = flashOf(McuKind::kGd32F303);
    EXPECT_EQ(flash.startProgram(8, Bytes{1, 2, 3, 4, 5}), microseconds(210));
    EXPECT_TRUE(flash.busy());
    EXPECT_THAT(cells(flash, 8, 5), Each(0xFF));
    EXPECT_EQ(flash.finish(), "");
    EXPECT_FALSE(flash.busy());
    EXPECT_THAT(cells(flash, 7, 7), ElementsAre(0xFF, 1, 2, 3, 4, 5, 0xFF));
}

TEST_F(BoardFlash, ProgrammingAUnitThatIsNotErasedBreaksTheRulesAndOnlyClearsBits) {
    McuFlash flash = flashOf(McuKind::kGd32F303);
    EXPECT_EQ(program(flash, 0x10, {0xF0, 0xFF}), "");
    EXPECT_EQ(program(flash, 0x12, {0x0F}), "programming at 0x08000010, which is not erased");
    EXPECT_EQ(program(flash, 0x10, {0x3C}), "programming at 0x08000010, which is not erased");
    EXPECT_THAT(cells(flash, 0x10, 4), ElementsAre(0x30, 0xFF, 0x0F, 0xFF));
    EXPECT_EQ(program(flash, 0x14, {0x00}), "");
}

TEST_F(BoardFlash, EraseTakesItsPagesBackAndNoOther) {
    McuFlash flash = flashOf(McuKind::kGd32F303);
    program(flash, 0, Bytes(size_t{3} * 2048, 0));
    EXPECT_EQ(flash.startErase({0, 2}), milliseconds(40));
    EXPECT_EQ(flash.finish(), "");
    EXPECT_THAT(cells(flash, 0, 2048), Each(0xFF));
    EXPECT_THAT(cells(flash, 2048, 2048), Each(0));
    EXPECT_THAT(cells(flash, 4096, 2048), Each(0xFF));
    EXPECT_EQ(flash.startMassErase(), milliseconds(1500));
    flash.finish();
    EXPECT_THAT(flash.cells(), Each(0xFF));
}

TEST_F(BoardFlash, TimesAreTypicalAndWithASeedBetweenThoseAndTheLongest) {
    for (const McuPart& part : mcuParts()) {
        McuFlash flash(part, store, "mcu/flash");
        const FlashTime& published = part.regions[0].erase;
        EXPECT_EQ(flash.startErase({0}), published.typical) << part.name;
        flash.finish();
        std::set<Nanos> drawn;
        for (uint64_t seed = 1; seed <= 50; ++seed) {
            flash.drawTimes(seed);
            drawn.insert(flash.startErase({0}));
            flash.finish();
        }
        EXPECT_GE(*drawn.begin(), published.typical);
        EXPECT_LE(*drawn.rbegin(), published.most);
        EXPECT_GT(drawn.size(), 20U);
    }
}

TEST_F(BoardFlash, WriteProtectedPagesArePassedOver) {
    McuFlash flash = flashOf(McuKind::kGd32F303);
    program(flash, 0, Bytes(4096, 0));
    flash.setWriteProtected({0});
    flash.startErase({0, 1});
    EXPECT_EQ(flash.finish(), "");
    EXPECT_THAT(cells(flash, 0, 2048), Each(0));
    EXPECT_THAT(cells(flash, 2048, 2048), Each(0xFF));
    EXPECT_EQ(program(flash, 0, {1}), "");
    EXPECT_THAT(cells(flash, 0, 1), Each(0));
}

TEST_F(BoardFlash, ContentsAndProtectionOutliveThePower) {
    {
        McuFlash flash = flashOf(McuKind::kGd32F303);
        program(flash, 4, {1, 2, 3});
        flash.setReadoutProtected(true);
        flash.setWriteProtected({3, 5});
    }
    EXPECT_EQ(store.read("mcu/flash").value_or("").size(), 7U);
    EXPECT_EQ(store.read("mcu/option_bytes"),
              "readout_protected = 1\nwrite_protected = 3\nwrite_protected = 5\n");
    const McuFlash flash = flashOf(McuKind::kGd32F303);
    EXPECT_THAT(cells(flash, 3, 5), ElementsAre(0xFF, 1, 2, 3, 0xFF));
    EXPECT_TRUE(flash.readoutProtected());
    EXPECT_THAT(flash.writeProtectedPages(), ElementsAre(3U, 5U));
}

TEST_F(BoardFlash, OptionsMayBeWrittenWithoutBlanks) {
    store.replace("mcu/option_bytes", "readout_protected=1\r\nwrite_protected=\t3\n");
    const McuFlash flash = flashOf(McuKind::kGd32F303);
    EXPECT_TRUE(flash.readoutProtected());
    EXPECT_THAT(flash.writeProtectedPages(), ElementsAre(3U));
}

// The cells before the point of the power cut are programmed, those behind it are not.
TEST_F(BoardFlash, PowerThatGoesInAProgrammingLeavesAPartOfItTheSameForTheSameSeed) {
    std::set<size_t> lengths;
    for (uint64_t seed = 0; seed < 50; ++seed) {
        store = MemoryStore();
        McuFlash flash = flashOf(McuKind::kGd32F303);
        flash.startProgram(0, Bytes(64, 0));
        flash.powerLost({seed});
        EXPECT_FALSE(flash.busy());
        const Bytes left = cells(flash, 0, 65);
        const size_t done = static_cast<size_t>(
            std::find_if(left.begin(), left.end(), [](uint8_t c) { return c != 0; }) -
            left.begin());
        if (done < 64) {
            EXPECT_EQ(left[done], 0x55) << "half a byte";
            EXPECT_THAT(Bytes(left.begin() + static_cast<ptrdiff_t>(done) + 1, left.end()),
                        Each(0xFF));
        }
        lengths.insert(done);
        McuFlash same(partOf(McuKind::kGd32F303), store, "other");
        same.startProgram(0, Bytes(64, 0));
        same.powerLost({seed});
        EXPECT_EQ(cells(same, 0, 65), left);
    }
    EXPECT_GT(lengths.size(), 20U);
}

TEST_F(BoardFlash, PowerThatGoesInAnEraseLeavesPagesBeforeItErasedAndOneTorn) {
    bool torn = false;
    for (uint64_t seed = 0; seed < 20; ++seed) {
        McuFlash flash = flashOf(McuKind::kGd32F303);
        flash.load(std::string(size_t{4} * 2048, '\0'));
        flash.startErase({0, 1, 2, 3});
        flash.powerLost({seed});
        const Bytes left = cells(flash, 0, size_t{4} * 2048);
        const auto border = std::find(left.begin(), left.end(), 0);
        EXPECT_TRUE(std::all_of(border, left.end(), [](uint8_t c) { return c == 0; }));
        torn = torn || (border - left.begin()) % 2048 != 0;
    }
    EXPECT_TRUE(torn);
}

TEST(BoardMcuImage, HasItsFieldsWhereTheyAreDocumented) {
    const std::string image = makeMcuImage(McuKind::kGd32F303, "V1.2.3", 4096);
    ASSERT_EQ(image.size(), 4096U);
    EXPECT_EQ(image.substr(0, 8), std::string("\x00\x00\x01\x20\x21\x02\x00\x08", 8));
    EXPECT_EQ(image.substr(0x200, 16), std::string("MCUIMAGE\x00\x10\x00\x00\x00\x00\x00\x00", 16));
    EXPECT_EQ(image.substr(0x210, 16), std::string("V1.2.3\0\0\0\0\0\0\0\0\0\0", 16));
}

McuImageCheck check(McuKind kind, const std::string& image) {
    Bytes flash(partOf(kind).flashSize(), 0xFF);
    std::copy(image.begin(), image.end(), flash.begin());
    return checkMcuImage(partOf(kind), flash);
}

TEST(BoardMcuImage, StartsWhenItIsWholeAndTellsItsVersion) {
    for (const McuPart& part : mcuParts()) {
        EXPECT_EQ(check(part.kind, makeMcuImage(part.kind, "V1.2.3", 553)).problem, "");
        EXPECT_EQ(check(part.kind, makeMcuImage(part.kind, "V0123456789.123", 8000)).version,
                  "V0123456789.123");
        EXPECT_EQ(check(part.kind, makeMcuImage(part.kind, "V1", part.flashSize())).problem, "");
    }
}

TEST(BoardMcuImage, DoesNotStartWhenAnyByteOfItIsAnother) {
    const std::string whole = makeMcuImage(McuKind::kStm32H750, "V1.2.3", 600);
    for (size_t at = 0; at < whole.size(); ++at) {
        std::string image = whole;
        image[at] = static_cast<char>(image[at] ^ 0x10);
        EXPECT_NE(check(McuKind::kStm32H750, image).problem, "") << at;
    }
}

TEST(BoardMcuImage, SaysWhyItDoesNotStart) {
    const std::string whole = makeMcuImage(McuKind::kGd32F303, "V1.2.3", 600);
    const auto changed = [&](size_t at, std::string_view bytes) {
        std::string image = whole;
        image.replace(at, bytes.size(), bytes);
        return check(McuKind::kGd32F303, image).problem;
    };
    EXPECT_EQ(check(McuKind::kGd32F303, "").problem, "the flash is empty");
    EXPECT_EQ(changed(3, "\x21"), "the stack pointer lies outside the RAM");
    EXPECT_EQ(changed(4, "\x20"), "the reset vector lies outside the image");
    EXPECT_EQ(changed(6, "\x01"), "the reset vector lies outside the image");
    EXPECT_EQ(changed(0x200, "m"), "there is no image header");
    EXPECT_EQ(changed(0x20B, "\x01"), "the image's length is out of range");
    EXPECT_EQ(changed(0x250, "????"), "the image's CRC is wrong");
}

TEST(BoardMcuImage, IsNotMadeWhereItDoesNotFit) {
    EXPECT_THROW(makeMcuImage(McuKind::kGd32F303, "V1", 551), std::invalid_argument);
    EXPECT_THROW(makeMcuImage(McuKind::kStm32H750, "V1", 131073), std::invalid_argument);
    EXPECT_THROW(makeMcuImage(McuKind::kGd32F303, "V123456789012345", 4096), std::invalid_argument);
}

}  // namespace
