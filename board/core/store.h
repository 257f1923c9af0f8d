// Where the parts of a board keep what outlives the power: whole files, each with a name such as
// "mcu/flash".
#pragma once

#include <filesystem>
#include <map>
#include <memory>
#include <optional>
#include <set>
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
    virtual bool isFolder(const std::string& /*name*/) const { return false; }
    // The errno for which there can be no file of that name: its folder is missing, or it is a
    // folder itself. 0: there is one, or it can be made.
    virtual int obstacle(const std::string& /*name*/) const { return 0; }
};

std::string trimmed(std::string_view text);  // without spaces, tabs, returns at both ends

// A line "key = value" of a file that people edit; blanks around both do not count. Nothing: there
// is no '='.
struct Setting {
    std::string key, value;
};
std::optional<Setting> settingIn(std::string_view line);

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
    bool isFolder(const std::string& name) const override;
    int obstacle(const std::string& name) const override;

  private:
    const std::filesystem::path mDirectory;
    const Keeping mKeeping;
};

// Lasts as long as this object.
class MemoryStore : public Store {
  public:
    using Files = std::map<std::string, std::string>;

    MemoryStore() = default;
    MemoryStore(Files files, std::set<std::string> folders)
        : mFiles(std::move(files)), mFolders(std::move(folders)) {}
    std::optional<std::string> read(const std::string& name) const override;
    void replace(const std::string& name, std::string_view content) override;
    bool isFolder(const std::string& name) const override { return mFolders.count(name) != 0; }
    void remove(const std::string& name) { mFiles.erase(name); }

    const Files& files() const { return mFiles; }
    const std::set<std::string>& folders() const { return mFolders; }

  private:
    Files mFiles;
    std::set<std::string> mFolders;
};

// The files of another store, and over them in memory what was written since: the other one stays
// as it is. A board with such a store changes nothing on the workstation; for runs in large numbers
// from the same start.
class OverlayStore : public Store {
  public:
    using Files = std::map<std::string, std::optional<std::string>>;  // nothing: it was removed

    explicit OverlayStore(std::shared_ptr<const Store> below, Files written = {})
        : mBelow(std::move(below)), mWritten(std::move(written)) {}
    explicit OverlayStore(std::filesystem::path directory, Files written = {})
        : OverlayStore(std::make_shared<DirectoryStore>(std::move(directory)), std::move(written)) {
    }

    std::optional<std::string> read(const std::string& name) const override;
    void replace(const std::string& name, std::string_view content) override;
    bool isFolder(const std::string& name) const override;
    int obstacle(const std::string& name) const override;
    // Makes no copy but the first time. Null without the file; valid until it is written.
    const std::string* find(const std::string& name) const;
    // Its content, to be changed. A new file is empty.
    std::string& edit(const std::string& name);
    void remove(const std::string& name) { mWritten[name].reset(); }

    const std::shared_ptr<const Store>& below() const { return mBelow; }
    const Files& written() const { return mWritten; }

  private:
    const std::shared_ptr<const Store> mBelow;
    Files mWritten;
    mutable Files mSeen;  // of the store below
};

// One folder of a store, by names relative to it.
class FolderOfStore : public Store {
  public:
    FolderOfStore(std::shared_ptr<Store> whole, const std::string& folder)
        : mWhole(std::move(whole)), mPrefix(folder + "/") {}
    std::optional<std::string> read(const std::string& name) const override {
        return mWhole->read(mPrefix + name);
    }
    void replace(const std::string& name, std::string_view content) override {
        mWhole->replace(mPrefix + name, content);
    }
    bool isFolder(const std::string& name) const override {
        return mWhole->isFolder(mPrefix + name);
    }
    int obstacle(const std::string& name) const override {
        return mWhole->obstacle(mPrefix + name);
    }

  private:
    const std::shared_ptr<Store> mWhole;
    const std::string mPrefix;
};

}  // namespace quil::board
