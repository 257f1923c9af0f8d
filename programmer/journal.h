// What an interrupted session leaves behind for the next one: which image was being written, and
// how far. A hint only: the next session compares every page.
//
// A text file: "image", "size", "crc", "part", "pages", then "written N" for each page.
#pragma once

#include <filesystem>
#include <fstream>
#include <optional>
#include <string>

#include "programmer/parts.h"

namespace quil::programmer {

struct JournalEntry {
    std::string image;  // its file
    size_t size = 0;
    uint32_t crc = 0;  // CRC-32 of the image
    std::string part;
    size_t pages = 0, written = 0;
};

uint32_t crc32Of(std::span<const uint8_t> bytes);

class Journal {
  public:
    explicit Journal(std::filesystem::path file) : mFile(std::move(file)) {}  // "": none is kept

    // Of a session that did not come to its end; nothing for a file that is none.
    std::optional<JournalEntry> interrupted() const;
    // False when the file cannot be written: the session goes on without it.
    bool begin(const JournalEntry& entry);
    void written(uint32_t page);
    void finish();

  private:
    const std::filesystem::path mFile;
    std::ofstream mOut;
};

}  // namespace quil::programmer
