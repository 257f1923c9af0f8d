// Upgrades of an N32 part with images of every size, and their checksums.
//
// The literals were computed with python3-crcmod: mkCrcFun(0x104C11DB7, initCrc=0xFFFFFFFF,
// rev=False, xorOut=0) over the bytes, each four of them reversed.
#include <stdlib.h>

#include <array>
#include <filesystem>

#include "testing/fresh_process.h"
#include "tests/isp/n32_test.h"

namespace quil::tests {

using testing::ElementsAre;

namespace {

Bytes littleEndian(uint32_t value) {
    return {static_cast<uint8_t>(value), static_cast<uint8_t>(value >> 8),
            static_cast<uint8_t>(value >> 16), static_cast<uint8_t>(value >> 24)};
}

// The checksum by a table of bytes; the library's is bit by bit.
uint32_t crcByTable(const Bytes& data) {
    static const auto table = [] {
        std::array<uint32_t, 256> rows{};
        for (uint32_t row = 0; row < 256; ++row) {
            uint32_t value = row << 24;
            for (int bit = 0; bit < 8; ++bit) {
                value = (value << 1) ^ ((value >> 31) * 0x04C11DB7U);
            }
            rows[row] = value;
        }
        return rows;
    }();
    uint32_t crc = 0xFFFFFFFF;
    for (size_t at = 0; at < data.size(); ++at) {
        const uint8_t byte = data[at - at % 4 + 3 - at % 4];  // each word from its last byte
        crc = (crc << 8) ^ table[(crc >> 24) ^ byte];
    }
    return crc;
}

Bytes blockRequest(uint32_t address, const Bytes& data) {
    const auto length = static_cast<uint8_t>(data.size() + 20);
    Bytes frame = Bytes{0xAA, 0x55, 0x31, 0x00, length, 0x00} + littleEndian(address) + Bytes(16) +
                  data + littleEndian(crcByTable(data));
    frame.push_back(xorOf(frame));
    return frame;
}

Bytes padded(Bytes data) {
    data.resize((data.size() + 15) / 16 * 16, 0xFF);
    return data;
}

}  // namespace

TEST(IspN32Crc, TablesAgreeWithCrcmod) {
    EXPECT_EQ(crcByTable({0x78, 0x56, 0x34, 0x12}), 0xDF8A8A2BU);
    EXPECT_EQ(crcByTable(Bytes(16)), 0x552D22C8U);
    EXPECT_EQ(crcByTable(Bytes(16, 0xFF)), 0xA79C3203U);
    EXPECT_EQ(crcByTable(imageOf(128)), 0xF7F369BEU);
}

// Sizes.

struct IspN32SizeRow {
    size_t size;
    size_t fullBlocks;  // sent
    size_t rest;        // image bytes of the last block
    uint32_t checkedLength;
    const char* name;
};
void PrintTo(const IspN32SizeRow& row, std::ostream* out) { *out << row.name; }
class IspN32Size : public IspN32Test, public testing::WithParamInterface<IspN32SizeRow> {};

TEST_P(IspN32Size, SendsItsBlocksAndChecksItsLength) {
    const IspN32SizeRow& row = GetParam();
    const Bytes image = imageOf(row.size);
    writeImage(image);
    expectUpToErase();
    size_t at = 0;
    for (size_t block = 0; block < row.fullBlocks; ++block, at += 128) {
        mcu.expect(blockRequest(0x08000000 + static_cast<uint32_t>(at), part(image, at, 128)),
                   kN32BlockOk, kLate);
    }
    if (row.rest != 0) {
        mcu.expect(
            blockRequest(0x08000000 + static_cast<uint32_t>(at), padded(part(image, at, row.rest))),
            kN32BlockOk, kLate);
    }
    expectCrcCheck(row.checkedLength);
    EXPECT_EQ(upgrade(), 0);
    EXPECT_THAT(said(), ElementsAre(testing::StartsWith("E set_opt: open /dev/ttyS3 fd = ")));
}

INSTANTIATE_TEST_SUITE_P(
    Each, IspN32Size,
    testing::Values(IspN32SizeRow{0, 0, 0, 0, "EmptySendsNoBlock"},
                    IspN32SizeRow{1, 0, 1, 16, "OneByteIsPaddedToSixteen"},
                    IspN32SizeRow{15, 0, 15, 16, "FifteenBytesArePaddedToSixteen"},
                    IspN32SizeRow{16, 0, 16, 32, "SixteenBytesAreCheckedAsThirtyTwo"},
                    IspN32SizeRow{77, 0, 77, 80, "OddSize"},
                    IspN32SizeRow{127, 0, 127, 128, "LongestRest"},
                    IspN32SizeRow{128, 0, 0, 128, "OneWholeBlockIsNotSent"},
                    IspN32SizeRow{129, 1, 1, 144, "OneByteMoreThanABlock"},
                    IspN32SizeRow{512, 3, 0, 512, "WholeBlocksLoseTheirLast"},
                    IspN32SizeRow{1024, 7, 0, 1024, "OneKibSends896Bytes"},
                    IspN32SizeRow{32640, 254, 0, 32640, "MostBlocksThatCanBeCounted"},
                    IspN32SizeRow{32641, 0, 1, 32656, "Count256WrapsTo0AndLeavesTheRest"},
                    IspN32SizeRow{32768, 0, 0, 32768, "Count256WrapsTo0"},
                    IspN32SizeRow{32769, 0, 1, 32784, "Count257WrapsTo1"},
                    IspN32SizeRow{40000, 56, 64, 40016, "Count313WrapsTo57"},
                    IspN32SizeRow{1 << 20, 0, 0, 1 << 20, "OneMibSendsNoBlock"}),
    [](const auto& info) { return info.param.name; });

TEST_F(IspN32Test, MissingImageIsAnEmptyOne) {
    expectUpToErase();
    expectCrcCheck(0);
    EXPECT_EQ(upgrade(), 0);
    EXPECT_THAT(said(), ElementsAre(testing::StartsWith("E set_opt: open /dev/ttyS3 fd = ")));
}

TEST_F(IspN32Test, MissingImageWhoseCheckFailsIsAFailure) {
    expectUpToErase();
    expectCrcCheck(0, {0x00});
    EXPECT_EQ(upgrade(), 255);
}

// Literal frames.

// 150 bytes of imageOf: one full block, and 22 bytes padded to 32.
const Bytes kBlock0 = {
    0xAA, 0x55, 0x31, 0x00, 0x94, 0x00, 0x00, 0x00, 0x00, 0x08, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00,
    0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x01, 0x0E, 0x1B, 0x28, 0x35, 0x42,
    0x4F, 0x5C, 0x69, 0x76, 0x83, 0x90, 0x9D, 0xAA, 0xB7, 0xC4, 0xD1, 0xDE, 0xEB, 0xF8, 0x05, 0x12,
    0x1F, 0x2C, 0x39, 0x46, 0x53, 0x60, 0x6D, 0x7A, 0x87, 0x94, 0xA1, 0xAE, 0xBB, 0xC8, 0xD5, 0xE2,
    0xEF, 0xFC, 0x09, 0x16, 0x23, 0x30, 0x3D, 0x4A, 0x57, 0x64, 0x71, 0x7E, 0x8B, 0x98, 0xA5, 0xB2,
    0xBF, 0xCC, 0xD9, 0xE6, 0xF3, 0x00, 0x0D, 0x1A, 0x27, 0x34, 0x41, 0x4E, 0x5B, 0x68, 0x75, 0x82,
    0x8F, 0x9C, 0xA9, 0xB6, 0xC3, 0xD0, 0xDD, 0xEA, 0xF7, 0x04, 0x11, 0x1E, 0x2B, 0x38, 0x45, 0x52,
    0x5F, 0x6C, 0x79, 0x86, 0x93, 0xA0, 0xAD, 0xBA, 0xC7, 0xD4, 0xE1, 0xEE, 0xFB, 0x08, 0x15, 0x22,
    0x2F, 0x3C, 0x49, 0x56, 0x63, 0x70, 0x7D, 0x8A, 0x97, 0xA4, 0xB1, 0xBE, 0xCB, 0xD8, 0xE5, 0xF2,
    0xFF, 0x0C, 0x19, 0x26, 0x33, 0x40, 0x4D, 0x5A, 0x67, 0x74, 0xBE, 0x69, 0xF3, 0xF7, 0x01};
const Bytes kBlock1 = {0xAA, 0x55, 0x31, 0x00, 0x34, 0x00, 0x80, 0x00, 0x00, 0x08, 0x00, 0x00, 0x00,
                       0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00,
                       0x86, 0x93, 0xA0, 0xAD, 0xBA, 0xC7, 0xD4, 0xE1, 0xEE, 0xFB, 0x08, 0x15, 0x22,
                       0x2F, 0x3C, 0x49, 0x56, 0x63, 0x70, 0x7D, 0x8A, 0x97, 0xFF, 0xFF, 0xFF, 0xFF,
                       0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0x6D, 0x05, 0xC9, 0x11, 0xC7};
// Their CRC checks: in a process's first upgrade, in its second, and after a refused first block.
const Bytes kFirstCheck = {0xAA, 0x55, 0x32, 0x00, 0x18, 0x00, 0x29, 0x96, 0x0B, 0x4D, 0x00, 0x00,
                           0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00,
                           0x00, 0x00, 0x00, 0x00, 0x00, 0x08, 0xA0, 0x00, 0x00, 0x00, 0x84};
const Bytes kSecondCheck = {0xAA, 0x55, 0x32, 0x00, 0x18, 0x00, 0x3A, 0x91, 0xEA, 0x40, 0x00, 0x00,
                            0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00,
                            0x00, 0x00, 0x00, 0x00, 0x00, 0x08, 0xA0, 0x00, 0x00, 0x00, 0x7C};
const Bytes kCheckAfterARefusal = {0xAA, 0x55, 0x32, 0x00, 0x18, 0x00, 0x17, 0xA6, 0x52,
                                   0xEC, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00,
                                   0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00,
                                   0x00, 0x00, 0x08, 0xA0, 0x00, 0x00, 0x00, 0x72};
const Bytes kBlockRefused = {0xAA, 0x55, 0x31, 0x00, 0x00, 0x00, 0xA0, 0x01, 0x6F};
// 40000 bytes: 56 full blocks and 64 bytes; 1 byte: one block of 16.
const Bytes kCheckOf40000 = {0xAA, 0x55, 0x32, 0x00, 0x18, 0x00, 0x82, 0xBF, 0x9B, 0x44, 0x00, 0x00,
                             0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00,
                             0x00, 0x00, 0x00, 0x00, 0x00, 0x08, 0x50, 0x9C, 0x00, 0x00, 0xF3};
const Bytes kCheckOfOneByte = {0xAA, 0x55, 0x32, 0x00, 0x18, 0x00, 0xBA, 0x13, 0x09,
                               0x2A, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00,
                               0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00,
                               0x00, 0x00, 0x08, 0x10, 0x00, 0x00, 0x00, 0x47};

namespace {

// Upgrades in a new process, in which no block has been sent yet.
class FreshUpgrade {
  public:
    FreshUpgrade() : mMcu(mBoard, {9600, 8, 'N', 1}) {}

    void writeImage(size_t size) {
        const Bytes image = imageOf(size);
        mBoard.writeFile(kImagePath, textOf(image));
    }
    void expectStart() {
        mMcu.expect(kN32HandShake, kN32HandShakeOk);
        mMcu.expect(kN32GetInfo, n32InfoOk());
        mMcu.expect(kN32Erase, kN32EraseOk);
    }
    void expect(const Bytes& in, const Bytes& out) {
        mMcu.expect(in, out, std::chrono::milliseconds(60));
    }
    // Returns 0 if every upgrade so far had this result and the script was followed.
    int run(int expected) {
        const int result = n32_uart_isp_upgrade(kImagePath, kHeronUart);
        fprintf(stderr, "result %d, %s\n", result, mMcu.complaint().c_str());
        return result == expected && mMcu.left() == 0 && mMcu.complaint().empty() ? 0 : 2;
    }

  private:
    board::Board mBoard;
    ScriptedPeer mMcu;
};

int upgradeTwice() {
    FreshUpgrade upgrade;
    upgrade.writeImage(150);
    for (const Bytes& check : {kFirstCheck, kSecondCheck}) {
        upgrade.expectStart();
        upgrade.expect(kBlock0, kN32BlockOk);
        upgrade.expect(kBlock1, kN32BlockOk);
        upgrade.expect(check, kN32CrcOk);
        if (upgrade.run(0) != 0) return 2;
    }
    return 0;
}

int upgradeAfterARefusedBlock() {
    FreshUpgrade upgrade;
    upgrade.writeImage(150);
    upgrade.expectStart();
    upgrade.expect(kBlock0, kBlockRefused);
    if (upgrade.run(255) != 0) return 2;
    upgrade.expectStart();
    upgrade.expect(kBlock0, kN32BlockOk);
    upgrade.expect(kBlock1, kN32BlockOk);
    upgrade.expect(kCheckAfterARefusal, kN32CrcOk);
    return upgrade.run(0);
}

int upgradeOf40000Bytes() {
    FreshUpgrade upgrade;
    const Bytes image = imageOf(40000);
    upgrade.writeImage(40000);
    upgrade.expectStart();
    for (uint32_t at = 0; at < 56 * 128; at += 128) {
        upgrade.expect(blockRequest(0x08000000 + at, part(image, at, 128)), kN32BlockOk);
    }
    upgrade.expect(blockRequest(0x08001C00, part(image, 0x1C00, 64)), kN32BlockOk);
    upgrade.expect(kCheckOf40000, kN32CrcOk);
    return upgrade.run(0);
}

int upgradeOfOneByte() {
    FreshUpgrade upgrade;
    upgrade.writeImage(1);
    upgrade.expectStart();
    upgrade.expect(blockRequest(0x08000000, padded(imageOf(1))), kN32BlockOk);
    upgrade.expect(kCheckOfOneByte, kN32CrcOk);
    return upgrade.run(0);
}

int upgradeWithoutABlock() {
    FreshUpgrade upgrade;
    upgrade.writeImage(128);
    upgrade.expectStart();
    Bytes check = {0xAA, 0x55, 0x32, 0x00, 0x18, 0x00, 0xFF, 0xFF, 0xFF, 0xFF};
    check.resize(26);
    check = check + Bytes{0x00, 0x00, 0x00, 0x08, 0x80, 0x00, 0x00, 0x00, 0x5D};
    upgrade.expect(check, kN32CrcOk);
    return upgrade.run(0);
}

}  // namespace

TEST(IspN32FreshDeathTest, SecondUpgradeGoesOnWithTheFirstOnesChecksum) {
    dieInAFreshProcess();
    EXPECT_EXIT(exit(upgradeTwice()), testing::ExitedWithCode(0), "");
}

TEST(IspN32FreshDeathTest, RefusedBlockCountsInTheChecksumAllTheSame) {
    dieInAFreshProcess();
    EXPECT_EXIT(exit(upgradeAfterARefusedBlock()), testing::ExitedWithCode(0), "");
}

TEST(IspN32FreshDeathTest, ChecksumOf40000BytesCoversTheBlocksThatWereSent) {
    dieInAFreshProcess();
    EXPECT_EXIT(exit(upgradeOf40000Bytes()), testing::ExitedWithCode(0), "");
}

TEST(IspN32FreshDeathTest, ChecksumOfOneByteCoversItsPadding) {
    dieInAFreshProcess();
    EXPECT_EXIT(exit(upgradeOfOneByte()), testing::ExitedWithCode(0), "");
}

TEST(IspN32FreshDeathTest, ChecksumOfNoBlockIsItsStartValue) {
    dieInAFreshProcess();
    EXPECT_EXIT(exit(upgradeWithoutABlock()), testing::ExitedWithCode(0), "");
}

}  // namespace quil::tests
