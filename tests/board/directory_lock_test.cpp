// Who may use a board directory, and who is told that somebody else does.
#include "board/core/directory_lock.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <memory>
#include <stdexcept>

#include "board/core/temporary_directory.h"
#include "board/core/whole_file.h"

namespace {

using namespace quil::board;
using namespace std::chrono_literals;
using testing::AllOf;
using testing::HasSubstr;
using testing::StartsWith;
using Use = DirectoryLock::Use;

class BoardLockOfDirectory : public testing::Test {
  protected:
    std::unique_ptr<DirectoryLock> take(Use use, const DirectoryLock::Patience& patience = {}) {
        return std::make_unique<DirectoryLock>(directory.path(), use, patience);
    }
    std::string refusalOf(Use use, const DirectoryLock::Patience& patience = {}) {
        try {
            take(use, patience);
        } catch (const std::runtime_error& error) {
            return error.what();
        }
        return "";
    }

    const TemporaryDirectory directory;
    const std::string self = "pid " + std::to_string(getpid()) + " since 20";
};

TEST_F(BoardLockOfDirectory, OwnerIsAloneAndNamed) {
    const auto owner = take(Use::kOwner);
    for (const Use use : {Use::kOwner, Use::kReader}) {
        EXPECT_THAT(refusalOf(use), AllOf(StartsWith(directory.path().string() + " is in use by "),
                                          HasSubstr(self), HasSubstr("quil_tests")));
    }
}

TEST_F(BoardLockOfDirectory, ReadersShareAndKeepAnOwnerOut) {
    const auto one = take(Use::kReader), other = take(Use::kReader);
    EXPECT_THAT(refusalOf(Use::kOwner),
                AllOf(HasSubstr(" is being read by pid " + std::to_string(getpid()) + ": "),
                      HasSubstr("quil_tests")));
    EXPECT_EQ(readWholeFile(directory.path() / kLockFile), "");
}

TEST_F(BoardLockOfDirectory, NextOneComesWhenTheOwnerGoes) {
    auto owner = take(Use::kOwner);
    std::string named;
    const auto next = take(Use::kOwner, {1h, [&](const std::string& holder) {
                                             named = holder;
                                             owner.reset();
                                             return true;
                                         }});
    EXPECT_THAT(named, StartsWith(self));
    EXPECT_NE(refusalOf(Use::kReader), "");
}

TEST_F(BoardLockOfDirectory, WaitEndsWhenItIsCalledOff) {
    const auto owner = take(Use::kOwner);
    EXPECT_THAT(refusalOf(Use::kOwner, {1h, [](const std::string&) { return false; }}),
                HasSubstr("; waited 0 s"));
}

TEST_F(BoardLockOfDirectory, DeathOfItsOwnerReleasesIt) {
    const pid_t child = fork();
    if (child == 0) {
        const auto owner = take(Use::kOwner);
        kill(getpid(), SIGKILL);
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(WTERMSIG(status), SIGKILL);
    EXPECT_NE(readWholeFile(directory.path() / kLockFile), "");
    EXPECT_EQ(refusalOf(Use::kOwner), "");
    EXPECT_EQ(readWholeFile(directory.path() / kLockFile), "");
}

TEST_F(BoardLockOfDirectory, WhatIsNoFileIsRefusedAndNotWaitedFor) {
    const std::string fifo = (directory.path() / kLockFile).string();
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    EXPECT_THAT(refusalOf(Use::kReader), StartsWith(fifo + ": cannot be locked: it is no file"));
    std::filesystem::remove(fifo);
    std::filesystem::create_directory(fifo);
    EXPECT_EQ(refusalOf(Use::kOwner), fifo + ": cannot be locked: Is a directory");
}

}  // namespace
