// Where the parts of a board keep what outlives the power: whole files, each with a name such as
// "mcu/flash".
#pragma once

#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <string_view>

namespace quil::board {

class Store {
  public:
    virtual ~Store() = default;
    virtual std::optional<std::string> read(const std::string& name) const = 0;
    // Afterwards the file has either its former content or all of the new one, even when the
    // program dies meanwhile. Throws std::runtime_error when it keeps the former one.
    virtual void replace(const std::string& name, std::string_view content) = 0;
};

// Plain files of one directory of the workstation, to be looked at and edited.
class DirectoryStore : public Store {
  public:
    explicit DirectoryStore(std::filesystem::path directory);
    std::optional<std::string> read(const std::string& name) const override;
    void replace(const std::string& name, std::string_view content) override;

  private:
    const std::filesystem::path mDirectory;
};

// Lasts as long as this object.
class MemoryStore : public Store {
  public:
    std::optional<std::string> read(const std::string& name) const override;
    void replace(const std::string& name, std::string_view content) override;

  private:
    std::map<std::string, std::string> mFiles;
};

}  // namespace quil::board
