#include "tools/quilctl/output/screen.h"

#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <unistd.h>

namespace quil::tools {
namespace {

constexpr size_t kUsualColumns = 80;

bool wantsStyle() {
    const char* const noColour = getenv("NO_COLOR");
    if (noColour != nullptr && *noColour != '\0') return false;
    const char* const kind = getenv("TERM");
    return kind == nullptr || strcmp(kind, "dumb") != 0;
}

const char* sequenceOf(Style style) {
    switch (style) {
        case Style::kGood:
            return "\033[32m";
        case Style::kWarning:
            return "\033[33m";
        case Style::kBad:
            return "\033[1;31m";
        case Style::kFaint:
            return "\033[2m";
    }
    return "";
}

}  // namespace

Screen screenOf(int descriptor) {
    if (isatty(descriptor) == 0) return {};
    winsize size{};
    const bool isKnown = ioctl(descriptor, TIOCGWINSZ, &size) == 0 && size.ws_col > 0;
    return {true, wantsStyle(), isKnown ? size.ws_col : kUsualColumns};
}

std::string styled(const Screen& screen, Style style, const std::string& text) {
    return screen.isStyled ? sequenceOf(style) + text + "\033[0m" : text;
}

}  // namespace quil::tools
