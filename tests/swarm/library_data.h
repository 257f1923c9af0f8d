// The library's variables as the loader left them, also those that nothing outside can name.
#pragma once

#include <stdint.h>

#include <string>
#include <vector>

namespace quil::swarm {

class LibraryData {
  public:
    LibraryData();  // before the library's first use
    // Afterwards the library is as in a new process. Not while a board is powered.
    void putBack() const;

  private:
    struct Range {
        uintptr_t at;
        std::string content;
    };
    std::vector<Range> mRanges;
};

}  // namespace quil::swarm
