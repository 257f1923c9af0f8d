// Who uses a board's directory: one owner, or any number of readers.
//
// An advisory lock (flock) on the file "lock" in the directory; the kernel gives it back when its
// holder dies. The file tells who the owner is; readers write nothing.
#pragma once

#include <chrono>
#include <filesystem>
#include <functional>
#include <string>

namespace quil::board {

class DirectoryLock {
  public:
    enum class Use { kOwner, kReader };
    struct Patience {
        std::chrono::milliseconds most{0};
        // Called some times a second during the wait, with who holds the lock; false ends the wait.
        std::function<bool(const std::string& holder)> goOn = {};
    };

    // Throws std::runtime_error, which names the holder or says why there can be no lock. A reader
    // of a directory that nobody may write needs none.
    DirectoryLock(const std::filesystem::path& directory, Use, const Patience&);
    ~DirectoryLock();
    DirectoryLock(const DirectoryLock&) = delete;
    DirectoryLock& operator=(const DirectoryLock&) = delete;

  private:
    void wait(const std::filesystem::path& directory, const Patience&);
    void signIn(const std::filesystem::path& directory) const;

    const Use mUse;
    int mFd;  // -1: no lock is needed
};

inline constexpr char kLockFile[] = "lock";

}  // namespace quil::board
