#include "tools/quilctl/traces/event_fields.h"

#include <stdio.h>

#include <algorithm>
#include <array>

#include "tools/quilctl/output/values.h"
#include "tools/quilctl/traces/timeline.h"

namespace quil::tools {
namespace {

using board::EventKind;

enum class Form { kBytes, kLittle, kBig };

struct LayoutRow {
    const char* name;
    size_t at, size;  // size 0: the rest
    Form form;
};
// A request as a client sends it, and a write over SPI as it goes over the lines.
constexpr std::array<LayoutRow, 4> kRequestLayout = {{{"command", 0, 4, Form::kLittle},
                                                      {"error code", 4, 2, Form::kLittle},
                                                      {"length", 6, 2, Form::kLittle},
                                                      {"body", 8, 0, Form::kBytes}}};
constexpr std::array<LayoutRow, 3> kSpiWriteLayout = {{{"direction", 0, 1, Form::kBytes},
                                                       {"address", 1, 4, Form::kBig},
                                                       {"data", 5, 0, Form::kBytes}}};

// What is printable, in quotes; else nothing.
std::string textIn(host::ByteView bytes) {
    const bool isText = std::all_of(bytes.begin(), bytes.end(),
                                    [](uint8_t byte) { return byte >= 0x20 && byte < 0x7F; });
    if (!isText || bytes.empty()) return "";
    return '"' + std::string(bytes.begin(), bytes.end()) + '"';
}

std::string valueOf(host::ByteView bytes, Form form) {
    if (form == Form::kBytes) return textIn(bytes);
    uint32_t value = 0;
    for (size_t i = 0; i < bytes.size(); ++i) {
        const size_t at = form == Form::kBig ? i : bytes.size() - 1 - i;
        value = value << 8 | bytes[at];
    }
    char text[16];
    snprintf(text, sizeof(text), "0x%0*X", static_cast<int>(2 * bytes.size()), value);
    return text;
}

// What of the layout the bytes have.
template <size_t kRows>
std::vector<DecodedField> fieldsIn(host::ByteView bytes,
                                   const std::array<LayoutRow, kRows>& layout) {
    std::vector<DecodedField> fields;
    for (const LayoutRow& row : layout) {
        if (row.at >= bytes.size()) break;
        const size_t rest = bytes.size() - row.at;
        const size_t size = row.size == 0 ? rest : std::min(row.size, rest);
        fields.push_back(
            {row.name, row.at, size, valueOf(bytes.from(row.at).first(size), row.form)});
    }
    return fields;
}

std::vector<DecodedField> frameWithText(host::ByteView bytes) {
    auto fields = frameFields(bytes);
    for (DecodedField& field : fields) {
        if (field.value.empty()) field.value = textIn(bytes.from(field.at).first(field.size));
    }
    return fields;
}

}  // namespace

std::vector<DecodedField> fieldsOf(const board::Event& event) {
    const host::ByteView bytes = event.bytes;
    if (bytes.empty()) return {};
    if (event.kind == EventKind::kFrame && bytes.size() >= host::wire::kOverhead) {
        return frameWithText(bytes);
    }
    if (event.kind == EventKind::kRequest && event.text != kAnswered) {
        return fieldsIn(bytes, kRequestLayout);
    }
    if (event.kind == EventKind::kSpi && event.text.rfind("write", 0) == 0) {
        auto fields = fieldsIn(bytes, kSpiWriteLayout);
        fields.front().value = "write";
        return fields;
    }
    const char* name = event.kind == EventKind::kRequest ? "answer"
                       : event.kind == EventKind::kSpi   ? "data"
                                                         : "bytes";
    return {{name, 0, bytes.size(), textIn(bytes)}};
}

}  // namespace quil::tools
