// The board's closed reader of INI files, and its product information block.
#pragma once

#include <stdint.h>

#include <filesystem>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "board/core/services.h"

namespace quil::board {

class IniReader {
  public:
    using Values = std::map<std::pair<std::string, std::string>, std::string>;  // section, key

    IniReader();
    ~IniReader();
    IniReader(const IniReader&) = delete;
    IniReader& operator=(const IniReader&) = delete;

    void setMissingInteger(int);  // the value of a missing integer, default 0

    // Each gives a handle, the last one again for the same values: nobody closes files, and a board
    // stays on for long. load gives 0 when the file cannot be read.
    int load(const std::filesystem::path& hostPath);
    int loadText(std::string text);
    const std::string* find(int handle, const char* section, const char* key) const;
    int integer(int handle, const char* section, const char* key) const;

  private:
    std::vector<Values> mFiles;
    int mMissingInteger = 0;
};

// Parses a whole file's text. Values of any length; a NUL ends its line.
IniReader::Values parseIni(const std::string& text);

class ProductInformation {
  public:
    static constexpr size_t kSize = 2048, kModuleIdAt = 64;

    explicit ProductInformation(BoardServices&);
    ~ProductInformation();
    ProductInformation(const ProductInformation&) = delete;
    ProductInformation& operator=(const ProductInformation&) = delete;

    void setModuleId(const std::string& text);
    void setFailing(bool);
    int fill(uint8_t* block) const;

  private:
    BoardServices& mBoard;
    bool mFailing = false;
};

}  // namespace quil::board
