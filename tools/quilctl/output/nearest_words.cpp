#include "tools/quilctl/output/nearest_words.h"

#include <algorithm>

namespace quil::tools {
namespace {

// The optimal string alignment distance: a swap of two neighbours is one change.
size_t distance(const std::string& a, const std::string& b) {
    std::vector<std::vector<size_t>> cost(a.size() + 1, std::vector<size_t>(b.size() + 1));
    for (size_t i = 0; i <= a.size(); ++i) cost[i][0] = i;
    for (size_t j = 0; j <= b.size(); ++j) cost[0][j] = j;
    for (size_t i = 1; i <= a.size(); ++i) {
        for (size_t j = 1; j <= b.size(); ++j) {
            const size_t change = a[i - 1] == b[j - 1] ? 0 : 1;
            cost[i][j] =
                std::min({cost[i - 1][j] + 1, cost[i][j - 1] + 1, cost[i - 1][j - 1] + change});
            const bool isSwap = i > 1 && j > 1 && a[i - 1] == b[j - 2] && a[i - 2] == b[j - 1];
            if (isSwap) cost[i][j] = std::min(cost[i][j], cost[i - 2][j - 2] + 1);
        }
    }
    return cost[a.size()][b.size()];
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
        const size_t changes = isBegun ? 1 : distance(word, candidate);
        if (changes > best) continue;
        if (changes < best) nearest.clear();
        best = changes;
        nearest.push_back(candidate);
    }
    return nearest;
}

}  // namespace quil::tools
