// The two stores of a board, also on a disk that fails.
#include "board/core/store.h"

#include <errno.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <fstream>
#include <system_error>

#include "board/core/temporary_directory.h"
#include "board/core/whole_file.h"
#include "testing/short_files.h"

namespace {

int fsyncCalls = 0, failingFsync = 0;  // the call with that number fails

}  // namespace

// Comes before the C library's own.
extern "C" int fsync(int fd) {
    if (++fsyncCalls != failingFsync) return static_cast<int>(syscall(SYS_fsync, fd));
    errno = EIO;
    return -1;
}

namespace {

using namespace quil::board;
using quil::tests::ShortFiles;
using testing::HasSubstr;

// What the files of a directory are called.
std::vector<std::string> namesIn(const std::filesystem::path& directory) {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(directory)) {
        names.push_back(entry.path().filename().string());
    }
    return names;
}

std::string failureOfReplacing(Store& store, const std::string& name, const std::string& content) {
    try {
        store.replace(name, content);
    } catch (const std::system_error& error) {
        return error.what();
    }
    return "";
}

TEST(BoardStore, FileIsReplacedAsAWholeAndLeavesNothingBeside) {
    const TemporaryDirectory directory;
    DirectoryStore store(directory.path());
    EXPECT_EQ(store.read("a"), std::nullopt);
    store.replace("a", "first");
    store.replace("a", "2nd");
    EXPECT_EQ(store.read("a"), "2nd");
    EXPECT_THAT(namesIn(directory.path()), testing::ElementsAre("a"));
}

// Whoever has the former file open goes on reading the former content: it is not written over.
TEST(BoardStore, ReaderOfTheFormerFileKeepsTheFormerContent) {
    const TemporaryDirectory directory;
    DirectoryStore store(directory.path());
    store.replace("a", "former");
    std::ifstream reader(directory.path() / "a");
    store.replace("a", "latter");
    std::string text;
    reader >> text;
    EXPECT_EQ(text, "former");
}

TEST(BoardStore, FileThatCannotBeReplacedKeepsItsFormerContent) {
    const TemporaryDirectory directory;
    DirectoryStore store(directory.path());
    store.replace("a", "former");
    std::filesystem::create_directory(directory.path() / ("a" + std::string(kFreshSuffix)));
    EXPECT_THROW(store.replace("a", "latter"), std::system_error);
    EXPECT_THROW(store.replace("no/such", "latter"), std::system_error);
    EXPECT_EQ(store.read("a"), "former");
    EXPECT_THROW(DirectoryStore(directory.path(), Keeping::kReadOnly).replace("a", "latter"),
                 std::system_error);
    EXPECT_EQ(store.read("a"), "former");
}

TEST(BoardStore, FileThatCannotBeWrittenWholeIsTheFormerOneWithNothingBeside) {
    const TemporaryDirectory directory;
    DirectoryStore store(directory.path());
    store.replace("a", "former");
    {
        const ShortFiles full(4096);
        EXPECT_THAT(failureOfReplacing(store, "a", std::string(10000, 'x')),
                    HasSubstr("/a: cannot be written: File too large"));
    }
    EXPECT_EQ(store.read("a"), "former");
    EXPECT_THAT(namesIn(directory.path()), testing::ElementsAre("a"));
}

TEST(BoardStore, DurableFileIsSynchronisedBeforeItTakesItsPlaceAndItsFolderAfterwards) {
    const TemporaryDirectory directory;
    DirectoryStore store(directory.path(), Keeping::kDurable);
    store.replace("a", "former");
    for (const auto& [call, remains] : {std::pair{1, "former"}, std::pair{2, "latter"}}) {
        fsyncCalls = 0;
        failingFsync = call;
        EXPECT_THAT(failureOfReplacing(store, "a", "latter"),
                    HasSubstr("/a: cannot be written: Input/output error"));
        EXPECT_EQ(fsyncCalls, call);
        EXPECT_EQ(store.read("a"), remains);
        EXPECT_THAT(namesIn(directory.path()), testing::ElementsAre("a"));
    }
    failingFsync = 0;
}

TEST(BoardStore, ThrowAwayDirectoryIsNotSynchronised) {
    const TemporaryDirectory directory;
    fsyncCalls = 0;
    DirectoryStore(directory.path()).replace("a", "content");
    EXPECT_EQ(fsyncCalls, 0);
}

TEST(BoardStore, FileThatAKilledProgramLeftBesideIsReplaced) {
    const TemporaryDirectory directory;
    writeWholeFile((directory.path() / "a").string() + kFreshSuffix, "half");
    DirectoryStore(directory.path()).replace("a", "whole");
    EXPECT_EQ(DirectoryStore(directory.path()).read("a"), "whole");
    EXPECT_THAT(namesIn(directory.path()), testing::ElementsAre("a"));
}

}  // namespace
