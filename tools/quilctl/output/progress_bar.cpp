#include "tools/quilctl/output/progress_bar.h"

#include <stdio.h>
#include <string.h>

#include <algorithm>

namespace quil::tools {
namespace {

constexpr size_t kBarWidth = 30, kBarLeast = 4;

}  // namespace

std::string barOf(int percent, const std::string& numbers, size_t columns) {
    char head[16];
    snprintf(head, sizeof(head), "%3d%% ", percent);
    const size_t room = columns - std::min(columns, strlen(head) + 1);
    const size_t frame = strlen("[] ");
    if (room <= frame + kBarLeast) return head;
    const bool hasNumbers = room >= numbers.size() + frame + kBarLeast;
    const size_t width = std::min(kBarWidth, room - frame - (hasNumbers ? numbers.size() : 0));
    const auto done = width * static_cast<size_t>(percent) / 100;
    return head + ("[" + std::string(done, '#') + std::string(width - done, '.') + "] ") +
           (hasNumbers ? numbers : "");
}

}  // namespace quil::tools
