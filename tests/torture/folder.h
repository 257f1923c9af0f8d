// The folder in which one case runs, with a board and the files that commands read.
#pragma once

#include <filesystem>
#include <string>
#include <vector>

#include "board/core/temporary_directory.h"

namespace quil::torture {

enum class Damage { kNone, kMissing, kEmpty, kGarbage, kTruncated, kDirectory, kLoop, kForbidden };

class Folder {
  public:
    Folder();

    // Everything that the run may write, standard output too. The files of
    // testing/verb_cases.h lie here.
    std::filesystem::path disk() const { return mPlace.path() / "disk"; }
    std::filesystem::path board() const { return disk() / "board"; }
    std::filesystem::path temporary() const { return disk() / "tmp"; }
    std::filesystem::path out() const { return disk() / "out"; }
    std::filesystem::path err() const { return mPlace.path() / "err"; }

    struct Entry {
        std::string name;
        bool isFolder;
    };
    // Everything in a new board, with names relative to it.
    static std::vector<Entry> boardEntries();

    void damage(const std::filesystem::path& entry, Damage kind) const;
    // Each file with its content's hash, but for standard output, the board's lock and the
    // temporary folder.
    std::string tree() const;
    // What lies in the temporary folder.
    std::vector<std::string> leftovers() const;

  private:
    const board::TemporaryDirectory mPlace{"torture"};
};

}  // namespace quil::torture
