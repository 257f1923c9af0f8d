// The files of a directory, and over them in memory what was written since: the directory stays as
// it is. For runs in large numbers from the same start.
#pragma once

#include <map>
#include <string>

#include "board/core/store.h"

namespace quil::board {

class OverlayStore : public DirectoryStore {
  public:
    using Files = std::map<std::string, std::string>;

    explicit OverlayStore(std::filesystem::path directory, Files written = {})
        : DirectoryStore(std::move(directory)), mWritten(std::move(written)) {}

    std::optional<std::string> read(const std::string& name) const override {
        const auto found = mWritten.find(name);
        return found == mWritten.end() ? DirectoryStore::read(name) : found->second;
    }
    void replace(const std::string& name, std::string_view content) override {
        mWritten[name] = content;
    }
    const Files& written() const { return mWritten; }

  private:
    Files mWritten;
};

}  // namespace quil::board
