// Where the parts of a board keep what outlives the power: whole files, each with a name such as
// "mcu/flash".
#pragma once

#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

namespace quil::board {

class Store {
  public:
    virtual ~Store() = default;
    virtual std::optional<std::string> read(const std::string& name) const = 0;
    // Afterwards the file has either its former content or all of the new one, even when the
    // program dies meanwhile. Throws std::system_error when it keeps the former one.
    virtual void replace(const std::string& name, std::string_view content) = 0;
    // The errno for which there can be no file of that name: its folder is missing, or it is a
    // folder itself. 0: there is one, or it can be made.
    virtual int obstacle(const std::string& /*name*/) const { return 0; }
};

// What a directory's files have to survive.
enum class Keeping {
    kScratch,   // a program that dies; for boards that are thrown away
    kDurable,   // the workstation's loss of power as well
    kReadOnly,  // nothing is replaced
};

// Plain files of one directory of the workstation, to be looked at and edited.
class DirectoryStore : public Store {
  public:
    explicit DirectoryStore(std::filesystem::path directory, Keeping = Keeping::kScratch);
    std::optional<std::string> read(const std::string& name) const override;
    void replace(const std::string& name, std::string_view content) override;
    int obstacle(const std::string& name) const override;

  private:
    const std::filesystem::path mDirectory;
    const Keeping mKeeping;
};

// Lasts as long as this object.
class MemoryStore : public Store {
  public:
    std::optional<std::string> read(const std::string& name) const override;
    void replace(const std::string& name, std::string_view content) override;

  private:
    std::map<std::string, std::string> mFiles;
};

// The files of a directory, and over them in memory what was written since: the directory stays as
// it is. For runs in large numbers from the same start.
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
