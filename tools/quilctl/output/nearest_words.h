// What a misspelled word may have meant.
#pragma once

#include <string>
#include <vector>

namespace quil::tools {

// The words that take the fewest changed, missing, additional or swapped letters, or that begin
// with `word`; none when nothing is similar.
std::vector<std::string> nearestWords(const std::string& word,
                                      const std::vector<std::string>& known);

}  // namespace quil::tools
