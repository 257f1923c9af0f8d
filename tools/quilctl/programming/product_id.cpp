#include "tools/quilctl/programming/product_id.h"

#include <stdio.h>

#include <algorithm>

namespace quil::tools {
namespace {

constexpr uint8_t kAcknowledged = 0x79;
constexpr size_t kNumberAt = 2;  // after the ACK and a byte that counts

template <typename Matches>
const programmer::Part* partThat(Matches matches) {
    const auto parts = programmer::parts();
    const auto found = std::find_if(parts.begin(), parts.end(), matches);
    return found == parts.end() ? nullptr : &*found;
}

// The identifier's higher byte comes first.
std::optional<ProductId> idIn(const Bytes& answer) {
    if (answer.size() < kNumberAt + 2) return std::nullopt;
    const uint32_t id = uint32_t{answer[kNumberAt]} << 8 | answer[kNumberAt + 1];
    return ProductId{id, 4,
                     partThat([id](const auto& one) { return id != 0 && one.productId == id; })};
}

// The identifier's lowest byte comes first.
std::optional<ProductId> gdPidIn(const Bytes& answer) {
    if (answer.size() < kNumberAt + 4) return std::nullopt;
    uint32_t id = 0;
    for (size_t i = 0; i < 4; ++i) id |= uint32_t{answer[kNumberAt + i]} << (8 * i);
    return ProductId{id, 8, partThat([id](const auto& one) {
                         return id != 0 && std::find(one.gdPids.begin(), one.gdPids.end(), id) !=
                                               one.gdPids.end();
                     })};
}

}  // namespace

std::string ProductId::text() const {
    char shown[16];
    snprintf(shown, sizeof(shown), "0x%0*x", digits, number);
    return "part " + std::string(shown) + ": " +
           (part == nullptr ? "unknown to this program" : part->name);
}

std::optional<ProductId> productIdIn(uint8_t command, const Bytes& answer) {
    if (answer.empty() || answer.front() != kAcknowledged) return std::nullopt;
    if (command == kAskForId) return idIn(answer);
    return command == kAskForGdPid ? gdPidIn(answer) : std::nullopt;
}

}  // namespace quil::tools
