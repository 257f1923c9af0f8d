// The files that a check of a board reads: those of a directory, or those of a board in memory.
#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <system_error>
#include <vector>

#include "board/core/store.h"

namespace quil::board {

// Names are relative to the board's directory. A link is there wherever it leads; its type and its
// content are those of what it leads to.
class CheckedFiles {
  public:
    using Type = std::filesystem::file_type;
    struct Entry {
        std::string name;
        Type type;
    };

    virtual ~CheckedFiles() = default;
    virtual bool isThere(const std::string& name) const = 0;
    virtual Type typeOf(const std::string& name) const = 0;
    virtual std::optional<std::string> read(const std::string& name) const = 0;
    virtual std::vector<std::string> namesIn(const std::string& folder) const = 0;
    // All that lies below, up to an error.
    virtual std::vector<Entry> all(std::error_code&) const = 0;
};

class CheckedDirectory : public CheckedFiles {
  public:
    explicit CheckedDirectory(std::filesystem::path directory) : mDir(std::move(directory)) {}
    bool isThere(const std::string& name) const override;
    Type typeOf(const std::string& name) const override;
    std::optional<std::string> read(const std::string& name) const override;
    std::vector<std::string> namesIn(const std::string& folder) const override;
    std::vector<Entry> all(std::error_code&) const override;

  private:
    const std::filesystem::path mDir;
};

class CheckedMemory : public CheckedFiles {
  public:
    explicit CheckedMemory(const MemoryStore& board) : mBoard(board) {}
    bool isThere(const std::string& name) const override { return typeOf(name) != Type::not_found; }
    Type typeOf(const std::string& name) const override;
    std::optional<std::string> read(const std::string& name) const override;
    std::vector<std::string> namesIn(const std::string& folder) const override;
    std::vector<Entry> all(std::error_code&) const override;

  private:
    const MemoryStore& mBoard;
};

}  // namespace quil::board
