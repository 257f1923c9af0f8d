#include "tools/quilctl/output/nearest_words.h"

#include <algorithm>
#include <numeric>
#include <string_view>
#include <utility>

namespace quil::tools {
namespace {

// The optimal string alignment distance: a swap of two neighbours is one change.
size_t distance(std::string_view a, std::string_view b) {
    std::vector<size_t> costs(3 * (b.size() + 1));
    size_t *twoBefore = costs.data(), *before = twoBefore + b.size() + 1;
    size_t* row = before + b.size() + 1;
    std::iota(before, before + b.size() + 1, size_t{0});
    for (size_t i = 1; i <= a.size(); ++i) {
        row[0] = i;
        for (size_t j = 1; j <= b.size(); ++j) {
            const size_t change = a[i - 1] == b[j - 1] ? 0 : 1;
            row[j] = std::min(std::min(before[j], row[j - 1]) + 1, before[j - 1] + change);
            const bool isSwap = i > 1 && j > 1 && a[i - 1] == b[j - 2] && a[i - 2] == b[j - 1];
            if (isSwap) row[j] = std::min(row[j], twoBefore[j - 2] + 1);
        }
        size_t* const free = std::exchange(twoBefore, before);
        before = std::exchange(row, free);
    }
    return before[b.size()];
}

}  // namespace

std::vector<std::string> nearestWords(const std::string& word,
                                      const std::vector<std::string>& known) {
    constexpr size_t kWordMax = 40;  // longer than any word that is known
    std::vector<std::string> nearest;
    if (word.empty() || word.size() > kWordMax) return nearest;
    size_t best = word.size() / 3 + 1;
    for (const std::string& candidate : known) {
        const bool isBegun = candidate.compare(0, word.size(), word) == 0;
        const size_t shorter = std::min(word.size(), candidate.size());
        const size_t least = std::max(word.size(), candidate.size()) - shorter;
        if (!isBegun && least > best) continue;  // spares most of the comparisons
        const size_t changes = isBegun ? 1 : distance(word, candidate);
        if (changes > best) continue;
        if (changes < best) nearest.clear();
        best = changes;
        nearest.push_back(candidate);
    }
    return nearest;
}

}  // namespace quil::tools
