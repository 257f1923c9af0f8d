// What the board's parts refused, counted by kind. The first few of each kind are kept with their
// time, the rest are only counted, so that garbage for hours costs no memory.
#pragma once

#include <stddef.h>

#include <string>
#include <vector>

#include "board/core/trace.h"

namespace quil::board {

class Violations {
  public:
    static constexpr size_t kKeptOfAKind = 16, kKinds = 64;

    struct Kept {
        Nanos at;
        std::string text;
    };
    // Two texts are of one kind if they differ in numbers only. Kinds beyond kKinds count as one.
    // True if the text was kept.
    bool add(Nanos at, const std::string& text);

    const std::vector<Kept>& kept() const { return mKept; }
    size_t total() const;
    // Those kept, and for each kind that has more a line with their number.
    std::vector<std::string> texts() const;

  private:
    struct Kind {
        std::string pattern;
        size_t count = 0;
    };
    Kind& kindOf(const std::string& text);

    std::vector<Kept> mKept;
    std::vector<Kind> mKinds;
};

}  // namespace quil::board
