#include "programmer/journal.h"

#include <zlib.h>

#include <sstream>

namespace quil::programmer {

uint32_t crc32Of(std::span<const uint8_t> bytes) {
    return static_cast<uint32_t>(crc32_z(0, bytes.data(), bytes.size()));
}

std::optional<JournalEntry> Journal::interrupted() const {
    std::ifstream in(mFile);
    JournalEntry entry;
    bool isWhole = false;
    for (std::string line; std::getline(in, line);) {
        std::istringstream words(line);
        std::string key;
        words >> key >> std::ws;
        if (key == "image") std::getline(words, entry.image);
        if (key == "size") words >> entry.size;
        if (key == "crc") words >> std::hex >> entry.crc;
        if (key == "part") words >> entry.part;
        if (key == "pages") isWhole = static_cast<bool>(words >> entry.pages);
        if (key == "written") ++entry.written;
    }
    if (!isWhole) return std::nullopt;
    return entry;
}

// The head is written aside and put in place at once; a line for each page follows.
bool Journal::begin(const JournalEntry& entry) {
    if (mFile.empty()) return true;
    std::error_code error;
    std::filesystem::create_directories(mFile.parent_path(), error);
    std::filesystem::path aside = mFile;
    aside += ".new";
    mOut.open(aside, std::ios::trunc);
    mOut << "image " << entry.image << "\nsize " << entry.size << "\ncrc " << std::hex << entry.crc
         << std::dec << "\npart " << entry.part << "\npages " << entry.pages << '\n';
    mOut.flush();
    if (mOut) std::filesystem::rename(aside, mFile, error);
    if (mOut && !error) return true;
    mOut.close();
    std::filesystem::remove(aside, error);
    return false;
}

void Journal::written(uint32_t page) {
    if (mOut.is_open()) mOut << "written " << page << std::endl;
}

void Journal::finish() {
    if (mFile.empty()) return;
    mOut.close();
    std::error_code ignored;
    std::filesystem::remove(mFile, ignored);
}

}  // namespace quil::programmer
